#include "zel/zel_publisher.h"

#include "logging/sinks.h"
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

TEST(ZelPublisher, SendsTheDirectoryOnEachConnectionAndGoesOnInItsEpoch)
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
    EXPECT_EQ(bench.publisher->GetEpoch(), epoch);
    EXPECT_EQ(overheard.Count(WireKind::Directory), 1U) << "the first one was lost with the broker";
    EXPECT_EQ(overheard.messages.front().first.kind, WireKind::Directory);
}

/// Kind and sequence of what was heard of an instrument.
std::vector<std::pair<WireKind, std::uint64_t>> PricesOf(const Overheard& overheard, const std::string& instrument)
{
    std::vector<std::pair<WireKind, std::uint64_t>> prices;
    for (const auto& [header, message] : overheard.messages)
    {
        if (message.channel == TransportChannel::Prices && message.instrument == instrument)
        {
            prices.emplace_back(header.kind, header.sequence);
        }
    }
    return prices;
}

using Prices = std::vector<std::pair<WireKind, std::uint64_t>>;

TEST(ZelPublisher, SendsAnImageInPlaceOfTheFirstUpdateAfterAReconnect)
{
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.Publish(0, true, {Bid("1", "1")});
    bench.broker.Deliver();
    bench.Pass(20s); // it is quiet for longer than a broker could hold something back
    bench.publisherTransport->SetCut(true);
    bench.publisherTransport->SetCut(false);
    Overheard overheard(bench.broker);
    bench.publisher->Tick();
    bench.broker.Deliver();
    EXPECT_EQ(PricesOf(overheard, "A"), Prices()) << "nothing of it can be lost";
    bench.Publish(0, false, {Bid("2", "1")});
    bench.Publish(0, false, {Bid("3", "1")});
    bench.broker.Deliver();
    EXPECT_EQ(PricesOf(overheard, "A"), (Prices{{WireKind::Image, 2}, {WireKind::Update, 3}}));
    MarketMessage image;
    ASSERT_TRUE(ReadBook(overheard.messages.at(overheard.messages.size() - 2).second.payload, image));
    EXPECT_EQ(image.changes.size(), 2U) << "the whole book, with the update";
}

TEST(ZelPublisher, SendsImagesAtOnceOfWhatMovedInAnOutageOrShortlyBefore)
{
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.Publish(0, true, {Bid("1", "1")});
    bench.Pass(20s);
    bench.Publish(1, true, {Bid("1", "1")}); // may have got lost
    bench.publisherTransport->SetCut(true);
    bench.publisher->Tick();
    bench.Publish(2, true, {Bid("1", "1")}); // goes nowhere
    bench.Pass(60s);
    bench.publisherTransport->SetCut(false);
    Overheard overheard(bench.broker);
    bench.publisher->Tick();
    bench.broker.Deliver();
    EXPECT_EQ(PricesOf(overheard, "A"), Prices());
    EXPECT_EQ(PricesOf(overheard, "B"), (Prices{{WireKind::Image, 1}}));
    EXPECT_EQ(PricesOf(overheard, "C"), (Prices{{WireKind::Image, 1}}));
    EXPECT_EQ(bench.publisher->GetCounts().unsent, 1U);
}

TEST(ZelPublisher, SendsAnImageBeforeTheFirstTradesAfterAReconnect)
{
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.Publish(0, true, {Bid("1", "1")});
    bench.Pass(20s);
    bench.publisherTransport->SetCut(true);
    bench.publisherTransport->SetCut(false);
    bench.publisher->Tick();
    Overheard overheard(bench.broker);
    bench.PublishTrade(0, 1);
    bench.PublishTrade(0, 2);
    bench.broker.Deliver();
    EXPECT_EQ(PricesOf(overheard, "A"), (Prices{{WireKind::Image, 1}, {WireKind::Trades, 2}, {WireKind::Trades, 3}}));
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
    EXPECT_EQ(overheard.Count(WireKind::Image), 2U);
    EXPECT_EQ(overheard.messages.at(10).first.sequence, 1U) << "an image bears the number of the last message";
    MarketMessage empty;
    ASSERT_TRUE(ReadBook(overheard.messages.at(11).second.payload, empty));
    EXPECT_TRUE(empty.changes.empty()) << "of an instrument that has no book yet";
    EXPECT_EQ(bench.publisher->GetCounts().images, 2U);
}

/// As a server of market M in the publisher's epoch.
void AskFor(ZelBench& bench, const std::vector<std::uint32_t>& indexes)
{
    CarriedMessage message{TransportChannel::Requests, "M", "", {}};
    WriteImageRequest(message.payload, {WireKind::ImageRequest, 0, bench.publisher->GetEpoch(), 0}, indexes);
    bench.broker.waiting.push_back(std::move(message));
}

TEST(ZelPublisher, OwesEachImageOnceHoweverTheQuestionsOverlap)
{
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.broker.Deliver();
    Overheard overheard(bench.broker);
    AskFor(bench, {0, 1});
    AskFor(bench, {1, 2});
    AskFor(bench, {2, 1, 0, 0});
    bench.broker.Deliver();
    bench.publisher->Tick();
    bench.broker.Deliver();
    EXPECT_EQ(overheard.Count(WireKind::Image), 3U);
    AskFor(bench, {1});
    bench.broker.Deliver();
    bench.publisher->Tick();
    bench.broker.Deliver();
    EXPECT_EQ(overheard.Count(WireKind::Image), 4U) << "who asks after it has gone out may have missed it";
}

TEST(ZelPublisher, SendsNoMoreThanItsBytesInOneTickWhateverIsAsked)
{
    constexpr std::size_t kInstruments = 5000;
    std::vector<SourceInstrument> many;
    std::vector<std::uint32_t> all;
    for (std::uint32_t i = 0; i < kInstruments; ++i)
    {
        many.push_back(Listed("INSTRUMENT-" + std::to_string(i)));
        all.push_back(i);
    }
    ZelBench bench(many);
    bench.StartPublisher();
    while (bench.publisher->Tick(), bench.publisher->GetOwed() != 0)
    {
    }
    std::vector<BookUpdate::Change> levels;
    for (int i = 1; i <= 100; ++i)
    {
        levels.push_back(Bid(std::to_string(i).c_str(), "1"));
    }
    for (InstrumentIndex i = 0; i < kInstruments; ++i)
    {
        bench.Publish(i, true, levels);
    }
    bench.broker.Deliver();
    std::size_t ticks = 0;
    std::size_t images = 0;
    do
    {
        AskFor(bench, all); // again and again
        bench.broker.waiting.push_back({TransportChannel::Requests, "M", "", {}});
        WriteDirectoryRequest(bench.broker.waiting.back().payload, {WireKind::DirectoryRequest, 0, 1, 0});
        bench.broker.Deliver();
        bench.publisher->Tick();
        std::size_t bytes = 0;
        for (const CarriedMessage& message : bench.broker.waiting)
        {
            const WireKind kind = ReadHeader(message.payload)->kind;
            images += kind == WireKind::Image ? 1U : 0U;
            bytes += kind == WireKind::Image || kind == WireKind::Directory ? message.payload.size() : 0U;
        }
        EXPECT_LT(bytes, ZelPublisherOptions::kUsualAnswerBytes + 210'000) << "what is over is one message";
        bench.Publish(0, false, {Bid("1", "2")});
        EXPECT_EQ(ReadHeader(bench.broker.waiting.back().payload)->kind, WireKind::Update) << "updates go between";
        bench.broker.Deliver();
    } while (++ticks < 200);
    EXPECT_GE(images, kInstruments) << "and everybody's turn comes";
}

TEST(ZelPublisher, SendsTheDirectoryAnewToWhoAsksWhileItIsBeingSent)
{
    std::vector<SourceInstrument> many;
    for (int i = 0; i < 20'000; ++i)
    {
        many.push_back(Listed("INSTRUMENT-" + std::to_string(i)));
    }
    ZelBench bench(many);
    bench.StartPublisher();
    bench.publisher->Tick();
    ASSERT_GT(bench.publisher->GetOwed(), 0U) << "it takes more than a tick";
    bench.broker.waiting.clear(); // who comes now has missed the first parts
    bench.provider->Start();
    bench.Settle();
    bench.Pass(3s);
    EXPECT_EQ(bench.provider->GetDirectory().GetSize(), 20'000U);
}

TEST(ZelPublisher, SaysOnceOfAnInstrumentThatItsImageIsTooLarge)
{
    const auto log = std::make_shared<zel::logging::CapturingSink>();
    zel::logging::Logger::SetSink(log);
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    MarketMessage message;
    message.isImage = true;
    message.changes.resize(60'000);
    for (std::size_t i = 0; i < message.changes.size(); ++i)
    {
        message.changes[i] = {static_cast<std::int64_t>(i + 1), 1, 0, BookSideType::Bid};
    }
    for (const InstrumentIndex instrument : {0U, 0U, 1U, 0U, 1U})
    {
        message.instrument = instrument;
        bench.publisher->Publish(message);
    }
    for (int i = 0; i < 10; ++i)
    {
        AskFor(bench, {0});
        bench.broker.Deliver();
        bench.publisher->Tick();
    }
    zel::logging::Logger::SetSink(nullptr);
    const auto records = log->GetRecords();
    EXPECT_EQ(std::count_if(records.begin(), records.end(), [](const auto& record) { return record.level >= 30; }), 2)
        << "of two instruments";
}

TEST(ZelPublisher, TakesInSoManyBytesOfQuestionsAndNoMore)
{
    ZelBench bench;
    bench.StartPublisher();
    bench.publisher->Tick();
    bench.broker.Deliver();
    const std::vector<std::byte> large(900'000, std::byte{1});
    for (int i = 0; i < 50; ++i)
    {
        bench.broker.waiting.push_back({TransportChannel::Requests, "M", "", large});
    }
    bench.broker.Deliver();
    EXPECT_EQ(bench.publisher->Tick(), 8U) << "8 MB";
    EXPECT_EQ(bench.publisher->GetCounts().dropped, 42U);
    AskFor(bench, {0});
    bench.broker.Deliver();
    EXPECT_EQ(bench.publisher->Tick(), 1U) << "then there is room again";
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
