/// Messages that are damaged on their way: bits of real ones flipped, and nonsense that is well-formed.

#include "logging/sinks.h"
#include "mds/seeded_random.h"
#include "zel_bench.h"

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;
using ::testing::HasSubstr;

/// Captures the log as long as it lives.
class LogCapture
{
public:
    LogCapture() { zel::logging::Logger::SetSink(m_sink); }
    ~LogCapture() { zel::logging::Logger::SetSink(nullptr); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<std::string> GetErrors() const
    {
        std::vector<std::string> texts;
        for (const auto& record : m_sink->GetRecords())
        {
            if (record.level >= 30)
            {
                texts.push_back(record.text);
            }
        }
        return texts;
    }

private:
    const std::shared_ptr<zel::logging::CapturingSink> m_sink = std::make_shared<zel::logging::CapturingSink>();
};

void SayDirectory(ZelBench& bench, std::vector<WireInstrument> listed, std::uint64_t revision = 1)
{
    CarriedMessage message{TransportChannel::Control, "M", "", {}};
    WriteDirectory(message.payload, {WireKind::Directory, 0, 5, revision}, 1, listed);
    bench.broker.waiting.push_back(message);
    bench.broker.Deliver();
}

WireInstrument Entry(std::uint32_t index, std::string symbol)
{
    WireInstrument listed;
    listed.index = index;
    listed.firstSymbol = listed.symbol = std::move(symbol);
    return listed;
}

TEST(ZelDamage, OfOneEntryLosesNothingElseOfTheDirectory)
{
    LogCapture log;
    ZelBench bench;
    bench.provider->Start();
    std::vector<WireInstrument> listed{
        Entry(0, "A"),    Entry(1, "B\n"), Entry(2, "C"), Entry(3, ""), Entry(4, std::string(300, 'x')),
        Entry(5, "\xff"), Entry(6, "D")};
    listed[2].format.fractionDigits = 77;
    SayDirectory(bench, listed);
    EXPECT_TRUE(bench.provider->GetDirectory().IsComplete(1));
    EXPECT_EQ(bench.provider->GetDirectory().GetSize(), 2U);
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "A"));
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "D"));
    EXPECT_EQ(bench.provider->GetCounts().refused, 5U);
    const auto errors = log.GetErrors();
    ASSERT_EQ(errors.size(), 1U) << "one record for a market";
    EXPECT_THAT(errors[0],
                HasSubstr("market M: instrument 1 of the directory (B=0A) is refused: its first symbol is not"));
}

TEST(ZelDamage, OfADirectoryIsLoggedOnceAMinuteAndMarketWithTheNumberOfTheOthers)
{
    LogCapture log;
    ZelBench bench;
    bench.provider->Start();
    for (const char* const market : {"M", "N"})
    {
        for (int i = 0; i < 1000; ++i)
        {
            bench.broker.waiting.push_back({TransportChannel::Control, market, "", {}});
        }
    }
    bench.broker.Deliver();
    EXPECT_EQ(log.GetErrors().size(), 2U);
    bench.now += 61s;
    bench.broker.waiting.push_back({TransportChannel::Control, "M", "", {}});
    bench.broker.Deliver();
    ASSERT_EQ(log.GetErrors().size(), 3U);
    EXPECT_THAT(log.GetErrors()[2], HasSubstr("999 others were refused meanwhile"));
    EXPECT_EQ(bench.provider->GetCounts().refused, 2001U);
}

TEST(ZelDamage, OfNumbersRefusesTheSecondOfTwoInstruments)
{
    ZelBench bench;
    bench.provider->Start();
    SayDirectory(bench, {Entry(0, "A"), Entry(0, "B"), Entry(1, "A"), Entry(2, "C")});
    EXPECT_EQ(bench.provider->GetCounts().refused, 2U);
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "A"));
    EXPECT_FALSE(bench.provider->GetDirectory().Find(1, -1, "B"));
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "C"));
}

TEST(ZelDamage, OfARenameLosesNothingElseOfTheStep)
{
    ZelBench bench;
    bench.Start();
    bench.publisher->Rename(std::vector<SymbolRename>{{1, "A", "A\x1b[2J"}, {1, "B", "BB"}});
    bench.Settle();
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "A"));
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "BB"));
    EXPECT_EQ(bench.provider->GetCounts().refused, 1U);
}

/// Bits of real messages of every kind are flipped. Some flips are values that nobody can know to be wrong; whatever
/// they have done is over with the publisher's next epoch, however large the epochs are that they have made up.
TEST(ZelDamage, OfAnyBitsIsOverWithTheNextEpoch)
{
    std::uint64_t refused = 0;
    std::uint64_t flipped = 0;
    for (std::uint64_t seed = 1; seed <= 60; ++seed)
    {
        SCOPED_TRACE(seed);
        SeededRandom random(seed);
        ZelBench bench;
        bench.Start();
        std::vector<std::shared_ptr<RecordingListener>> listeners{bench.Subscribe("A"), bench.Subscribe("B"),
                                                                  bench.Subscribe("C")};
        const auto spoil = [&]
        {
            if (bench.broker.waiting.empty() || !random.Once(3))
            {
                return;
            }
            auto& payload = bench.broker
                                .waiting[static_cast<std::size_t>(
                                    random.Below(static_cast<std::int64_t>(bench.broker.waiting.size())))]
                                .payload;
            for (std::int64_t flips = 1 + random.Below(3); flips > 0; --flips)
            {
                payload[static_cast<std::size_t>(random.Below(static_cast<std::int64_t>(payload.size())))] ^=
                    static_cast<std::byte>(1U << random.Below(8));
                ++flipped;
            }
        };
        for (int round = 0; round < 300; ++round)
        {
            const auto instrument = static_cast<InstrumentIndex>(random.Below(3));
            const std::string price = std::to_string(100 - random.Below(20));
            const std::string quantity = std::to_string(random.Below(3));
            bench.Publish(instrument, random.Below(20) == 0, {Bid(price.c_str(), quantity.c_str())});
            if (random.Once(5))
            {
                bench.PublishTrade(instrument, static_cast<std::uint64_t>(round));
            }
            if (random.Once(40))
            {
                bench.providerTransport->SetCut(true); // it asks for the directory and for all images then
                bench.providerTransport->SetCut(false);
            }
            bench.now += 20ms;
            bench.publisher->Tick();
            spoil();
            bench.broker.Deliver();
            bench.provider->Tick();
            spoil();
        }
        refused += bench.provider->GetCounts().refused;
        bench.RestartPublisher();
        bench.Pass(6s);
        for (InstrumentIndex instrument = 0; instrument < 3; ++instrument)
        {
            const auto again = std::make_shared<RecordingListener>();
            ASSERT_EQ(bench.provider->Subscribe(Request(1, std::string(1, static_cast<char>('A' + instrument))), again),
                      SubscribeStatus::Subscribed);
            EXPECT_EQ(again->PrintBook(), bench.PublishedBook(instrument));
            EXPECT_FALSE(again->IsStale());
            EXPECT_EQ(listeners[instrument]->GetOrderFaults(), 0U);
        }
    }
    EXPECT_GT(flipped, 10'000U);
    EXPECT_GT(refused, 500U) << "of a message's first bytes, its counts and its lengths";
}

} // namespace
} // namespace ps_ns
