#include "zel/zel_publisher.h"

#include "zel_bench.h"

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;

/// Writes down what goes over the broker, by kind.
struct Overheard
{
    explicit Overheard(MemoryBroker& broker)
    {
        broker.passes = [this](const CarriedMessage& message)
        {
            messages.emplace_back(ReadHeader(message.payload).value(), message);
            return true;
        };
    }
    std::size_t Count(WireKind kind) const
    {
        return static_cast<std::size_t>(std::count_if(messages.begin(), messages.end(),
                                                      [kind](const auto& heard) { return heard.first.kind == kind; }));
    }
    std::vector<std::pair<WireHeader, CarriedMessage>> messages;
};

TEST(ZelPublisher, NumbersTheMessagesOfEachInstrumentWithoutAGap)
{
    ZelBench bench;
    Overheard overheard(bench.broker);
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.Publish(0, true, {Bid("1", "1")});
    bench.PublishTrade(0, 1);
    bench.Publish(1, true, {Bid("1", "1")});
    bench.Publish(0, false, {Bid("1", "2")});
    bench.broker.Deliver();
    std::vector<std::uint64_t> sequences;
    for (const auto& [header, message] : overheard.messages)
    {
        if (message.channel == TransportChannel::Prices && message.instrument == "A")
        {
            sequences.push_back(header.sequence);
        }
    }
    EXPECT_EQ(sequences, (std::vector<std::uint64_t>{1, 2, 3}));
    EXPECT_EQ(bench.publisher->GetCounts().messages, 4U);
}

TEST(ZelPublisher, SendsTheDirectoryWhenAnEpochBegins)
{
    ZelBench bench;
    Overheard overheard(bench.broker);
    bench.StartPublisher();
    EXPECT_EQ(bench.publisher->GetEpoch(), 0U);
    bench.publisher->Tick();
    const std::uint64_t epoch = bench.publisher->GetEpoch();
    EXPECT_GT(epoch, 0U);
    bench.broker.SetUp(false);
    bench.broker.SetUp(true);
    bench.publisher->Tick();
    bench.broker.Deliver();
    EXPECT_GT(bench.publisher->GetEpoch(), epoch);
    EXPECT_EQ(overheard.Count(WireKind::Directory), 1U) << "the first one was lost with the broker";
    EXPECT_EQ(overheard.messages.front().first.kind, WireKind::Directory);
}

TEST(ZelPublisher, SendsHeartbeatsThatTellWhatHasMoved)
{
    ZelBench bench;
    Overheard overheard(bench.broker);
    bench.StartPublisher();
    bench.Publish(2, true, {Bid("1", "1")});
    for (int i = 0; i < 10; ++i)
    {
        bench.now += 50ms;
        bench.publisher->Tick();
        bench.broker.Deliver();
    }
    EXPECT_EQ(overheard.Count(WireKind::Heartbeat), 3U);
    std::vector<std::size_t> told;
    for (const auto& [header, message] : overheard.messages)
    {
        if (const auto heartbeat = ReadHeartbeat(message.payload))
        {
            told.push_back(heartbeat->progress.size());
        }
    }
    EXPECT_EQ(told, (std::vector<std::size_t>{1, 0, 0}));
}

TEST(ZelPublisher, AnswersTheSameQuestionOfManyServersOnce)
{
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.Publish(0, true, {Bid("1", "1")});
    bench.broker.Deliver();
    Overheard overheard(bench.broker);
    WireBuffer request;
    const std::vector<std::uint32_t> indexes{0, 1, 99};
    WriteImageRequest(request, {WireKind::ImageRequest, 0, bench.publisher->GetEpoch(), 0}, indexes);
    for (int i = 0; i < 10; ++i)
    {
        bench.broker.waiting.push_back({TransportChannel::Requests, "M", "", request});
    }
    bench.broker.Deliver();
    EXPECT_EQ(bench.publisher->Tick(), 10U);
    bench.broker.Deliver();
    EXPECT_EQ(overheard.Count(WireKind::Image), 1U) << "of the one instrument that has a book";
    EXPECT_EQ(overheard.messages.at(10).first.sequence, 1U) << "an image bears the number of the last message";
}

TEST(ZelPublisher, PassesOverRequestsThatAreNone)
{
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.broker.Deliver();
    bench.broker.waiting.push_back({TransportChannel::Requests, "M", "", std::vector<std::byte>(30, std::byte{1})});
    bench.broker.waiting.push_back({TransportChannel::Requests, "M", "", {}});
    WireBuffer request;
    WriteImageRequest(request, {WireKind::ImageRequest, 0, 1, 0}, std::vector<std::uint32_t>{0}); // an old epoch's
    bench.broker.waiting.push_back({TransportChannel::Requests, "M", "", request});
    bench.broker.Deliver();
    EXPECT_EQ(bench.publisher->Tick(), 3U);
    EXPECT_EQ(bench.publisher->GetCounts().images, 0U);
}

TEST(ZelPublisher, KeepsItsBooksWhileThereIsNoBroker)
{
    ZelBench bench;
    bench.broker.SetUp(false);
    bench.StartPublisher();
    bench.Publish(0, true, {Bid("1", "1")});
    bench.publisher->Tick();
    EXPECT_EQ(bench.PublishedBook(0), "1x1 |");
    EXPECT_EQ(bench.publisher->GetCounts().unsent, 1U);
    EXPECT_EQ(bench.publisher->GetCounts().bytes, 0U);
}

TEST(ZelPublisher, ServesDifferentMarketsBesideAnother)
{
    ZelBench bench({Listed("A", 1)});
    bench.Start();
    const auto transport = bench.broker.MakeTransport();
    ZelPublisherOptions options;
    options.now = [&] { return bench.now; };
    ZelPublisher other(*transport, options);
    SourceInstrument listed = Listed("A", 7);
    listed.market = "N";
    other.Start({listed});
    other.Tick();
    other.Publish(BookMessage(0, true, {Bid("77", "1")}));
    bench.Publish(0, true, {Bid("10", "1")});
    bench.Settle();
    const auto m = bench.Subscribe("A", SubscribeStatus::Subscribed, 1);
    const auto n = bench.Subscribe("A", SubscribeStatus::Subscribed, 2);
    bench.Settle();
    other.Tick();
    bench.Settle();
    EXPECT_EQ(m->PrintBook(), "10x1 |");
    EXPECT_EQ(n->PrintBook(), "77x1 |");
    transport->Stop();
}

} // namespace
} // namespace ps_ns
