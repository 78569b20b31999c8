#include "zel_bench.h"

#include <set>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;
using ::testing::ElementsAre;

TEST(ZelDirectory, IsReadFromThePublisherMarketByMarket)
{
    ZelBench bench({Listed("A"), Listed("B")});
    EXPECT_TRUE(bench.provider->GetDirectory().CanKnow(1));
    EXPECT_FALSE(bench.provider->GetDirectory().IsComplete(1));
    bench.Start();
    EXPECT_TRUE(bench.provider->GetDirectory().IsComplete(1));
    EXPECT_FALSE(bench.provider->GetDirectory().IsComplete(2)) << "nobody publishes it";
    const auto entries = bench.provider->GetDirectory().GetEntries();
    ASSERT_EQ(entries.size(), 2U);
    EXPECT_EQ(entries[0].symbol, "A");
    EXPECT_EQ(entries[0].exchange, "M");
    EXPECT_EQ(entries[0].format.fractionDigits, 2U);
}

TEST(ZelDirectory, ComesToWhoStartsAfterThePublisher)
{
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.broker.Deliver();
    bench.provider->Start();
    bench.Settle();
    EXPECT_TRUE(bench.provider->GetDirectory().IsComplete(1));
}

TEST(ZelDirectory, ComesInPartsAndCountsWhenAllAreThere)
{
    std::vector<SourceInstrument> many;
    for (int i = 0; i < 20'000; ++i)
    {
        many.push_back(Listed("INSTRUMENT-" + std::to_string(i)));
    }
    ZelBench bench(many);
    std::set<std::uint32_t> parts;
    bool isLossy = true;
    bench.broker.passes = [&](const CarriedMessage& message)
    {
        EXPECT_LT(message.payload.size(), kLargestWireMessage);
        if (!ReadDirectory(message.payload))
        {
            return true;
        }
        parts.insert(ReadHeader(message.payload)->index);
        return !isLossy || ReadHeader(message.payload)->index != 1;
    };
    bench.Start();
    EXPECT_GT(parts.size(), 3U);
    bench.Pass(500ms);
    EXPECT_FALSE(bench.provider->GetDirectory().IsComplete(1));
    EXPECT_EQ(bench.provider->GetDirectory().GetSize(), 0U);
    isLossy = false;
    bench.Pass(500ms);
    EXPECT_EQ(bench.provider->GetDirectory().GetSize(), 20'000U);
    EXPECT_TRUE(bench.provider->GetDirectory().IsComplete(1));
}

TEST(ZelDirectory, HoldsSubscribesUntilItIsThere)
{
    ZelBench bench;
    bench.provider->Start();
    const auto known = bench.Subscribe("A", SubscribeStatus::Pending);
    const auto unknown = bench.Subscribe("Z", SubscribeStatus::Pending);
    const auto left = bench.Subscribe("B", SubscribeStatus::Pending);
    bench.Settle();
    EXPECT_THAT(known->GetCalls(), ElementsAre());
    bench.provider->Unsubscribe(left);
    bench.StartPublisher();
    bench.Publish(0, true, {Bid("10", "1")});
    bench.Pass(400ms);
    EXPECT_THAT(known->GetCalls(), ElementsAre("subscribed 0", "stale", "fresh", "image"));
    EXPECT_THAT(unknown->GetCalls(), ElementsAre("subscribed 17"));
    EXPECT_THAT(left->GetCalls(), ElementsAre("unsubscribed"));
    bench.Subscribe("Z", SubscribeStatus::Failed);
    bench.provider->Unsubscribe(unknown);
    EXPECT_EQ(unknown->GetCalls().back(), "unsubscribed");
}

TEST(ZelDirectory, MayGrow)
{
    ZelBench bench({Listed("A")});
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto listener = bench.Subscribe("A");
    bench.Settle();
    const auto transport = bench.broker.MakeTransport();
    ZelPublisherOptions options;
    options.now = [&] { return bench.now; };
    options.wallTime_ns = [&] { return bench.wallTime_ns += 1000; };
    ZelPublisher second(*transport, options);
    second.Start({Listed("B"), Listed("A")});
    second.Tick();
    bench.Settle();
    EXPECT_EQ(bench.provider->GetDirectory().GetSize(), 2U);
    EXPECT_TRUE(listener->IsStale());
    second.Publish(BookMessage(1, true, {Bid("12", "1")}));
    bench.Settle();
    EXPECT_EQ(listener->PrintBook(), "12x1 |");
    transport->Stop();
}

TEST(ZelDirectory, RenamesAnInstrumentForGood)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    const auto old = bench.Subscribe("A");
    bench.Settle();
    const std::vector<SymbolRename> rename{{1, "A", "AA"}};
    EXPECT_EQ(bench.publisher->Rename(rename), rename);
    bench.Settle();
    EXPECT_FALSE(bench.provider->GetDirectory().Find(1, -1, "A"));
    ASSERT_TRUE(bench.provider->GetDirectory().Find(1, -1, "AA"));
    EXPECT_EQ(bench.provider->GetDirectory().Find(1, -1, "AA")->firstSymbol, "A");

    bench.Publish(0, false, {Bid("9", "1")});
    bench.Settle();
    EXPECT_EQ(old->PrintBook(), "10x1 |") << "hears nothing more";
    const auto renamed = bench.Subscribe("AA");
    EXPECT_EQ(renamed->PrintBook(), "10x1 9x1 |") << "at once: it is followed all the time";
    bench.Subscribe("A", SubscribeStatus::Failed);
    EXPECT_EQ(bench.provider->GetCounts().renames, 1U);
}

TEST(ZelDirectory, PassesANameOnAtOneMoment)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    bench.Publish(1, true, {Bid("20", "1")});
    const std::vector<SymbolRename> renames{{1, "A", "B"}, {1, "B", "C2"}};
    bench.publisher->Rename(renames);
    bench.Settle();
    const auto b = bench.Subscribe("B");
    const auto c2 = bench.Subscribe("C2");
    bench.Settle();
    EXPECT_EQ(b->PrintBook(), "10x1 |");
    EXPECT_EQ(c2->PrintBook(), "20x1 |");
    bench.Subscribe("A", SubscribeStatus::Failed);
}

TEST(ZelDirectory, FindsRenamesThatItHasMissed)
{
    ZelBench bench;
    bench.Start();
    bench.Publish(0, true, {Bid("10", "1")});
    bench.Publish(1, true, {Bid("20", "1")});
    bench.Settle();
    bench.providerTransport->SetCut(true);
    const std::vector<SymbolRename> first{{1, "A", "X"}};
    const std::vector<SymbolRename> second{{1, "B", "A"}};
    const std::vector<SymbolRename> third{{1, "X", "B"}};
    for (const auto& step : {first, second, third})
    {
        bench.publisher->Rename(step);
    }
    bench.broker.Deliver();
    bench.providerTransport->SetCut(false);
    bench.Pass(500ms);
    const auto a = bench.Subscribe("A");
    const auto b = bench.Subscribe("B");
    bench.Settle();
    EXPECT_EQ(a->PrintBook(), "20x1 |");
    EXPECT_EQ(b->PrintBook(), "10x1 |");
}

TEST(ZelDirectory, HasRenamesMadeAsOneStepWithSomebodyElses)
{
    std::vector<std::string> steps;
    ZelOptions options;
    options.renameStep = [&](const std::vector<SymbolRename>& renames, const std::function<void()>& make)
    {
        steps.push_back(renames.at(0).oldSymbol + ">" + renames.at(0).newSymbol);
        make();
        steps.push_back("made");
    };
    ZelBench bench({Listed("A"), Listed("B")}, std::move(options));
    bench.Start();
    bench.publisher->Rename(std::vector<SymbolRename>{{-1, "A", "X"}, {1, "no such", "Y"}});
    bench.Settle();
    EXPECT_THAT(steps, ElementsAre("A>X", "made"));
}

TEST(ZelDirectory, GivesAListedNameAsSoonAsItIsFree)
{
    ZelBench bench({Listed("A")});
    bench.Start();
    const auto transport = bench.broker.MakeTransport();
    ZelPublisherOptions options;
    options.now = [&] { return bench.now; };
    options.wallTime_ns = [&] { return bench.wallTime_ns += 1000; };
    ZelPublisher second(*transport, options);
    second.Start({Listed("A"), Listed("D")});
    second.Rename(std::vector<SymbolRename>{{1, "A", "B"}});
    second.Rename(std::vector<SymbolRename>{{1, "D", "A"}});
    second.Tick();
    bench.Settle();
    second.Publish(BookMessage(0, true, {Bid("1", "1")}));
    second.Publish(BookMessage(1, true, {Bid("2", "1")}));
    const auto a = bench.Subscribe("A");
    const auto b = bench.Subscribe("B");
    for (int i = 0; i < 3; ++i)
    {
        bench.Settle();
        second.Tick();
    }
    EXPECT_EQ(b->PrintBook(), "1x1 |");
    EXPECT_EQ(a->PrintBook(), "2x1 |");
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "A"));
    transport->Stop();
}

TEST(ZelDirectory, GivesTheNameOfAnInstrumentThatIsListedNoMoreToTheOneThatIsListedUnderIt)
{
    ZelBench bench({Listed("FB")});
    bench.Start();
    bench.Publish(0, true, {Bid("1", "1")});
    bench.publisher->Rename(std::vector<SymbolRename>{{1, "FB", "META"}});
    bench.Settle();
    const auto before = bench.Subscribe("META");
    bench.Settle();
    ASSERT_EQ(before->PrintBook(), "1x1 |");

    const auto transport = bench.broker.MakeTransport();
    ZelPublisherOptions options;
    options.now = [&] { return bench.now; };
    options.wallTime_ns = [&] { return bench.wallTime_ns += 1000; };
    ZelPublisher second(*transport, options); // started with recordings that have the new name only
    second.Start({Listed("META")});
    second.Tick();
    bench.Settle();
    second.Publish(BookMessage(0, true, {Bid("7", "1")}));
    const auto settle = [&]
    {
        for (int i = 0; i < 3; ++i)
        {
            bench.Settle();
            second.Tick();
        }
    };
    settle();
    EXPECT_EQ(before->PrintBook(), "7x1 |");
    EXPECT_FALSE(before->IsStale());
    ASSERT_TRUE(bench.provider->GetDirectory().Find(1, -1, "META"));
    EXPECT_EQ(bench.provider->GetDirectory().Find(1, -1, "META")->firstSymbol, "META");
    const auto after = bench.Subscribe("META");
    settle();
    EXPECT_EQ(after->PrintBook(), "7x1 |");

    second.Rename(std::vector<SymbolRename>{{1, "META", "E"}});
    settle();
    const auto renamed = bench.Subscribe("E");
    settle();
    EXPECT_EQ(renamed->PrintBook(), "7x1 |");
    bench.Subscribe("META", SubscribeStatus::Failed);
    transport->Stop();
}

} // namespace
} // namespace ps_ns
