#include "price_publisher/publisher_run.h"

#include "mds/market_simulation.h"
#include "zel/wire_format.h"
#include "zel_testing/memory_broker.h"

#include <gtest/gtest.h>

#include <map>

namespace ps_ns::price_publisher
{
namespace
{

using testing_ns::CarriedMessage;
using testing_ns::MemoryBroker;

std::unique_ptr<IMarketSource> Simulated(std::uint64_t messages)
{
    SimulationOptions options;
    options.messages = messages;
    return std::make_unique<MarketSimulation>(options);
}

Options FullSpeed()
{
    Options options;
    options.speed = 0;
    options.playsOnce = true;
    return options;
}

std::map<WireKind, std::size_t> CountKinds(const MemoryBroker& broker)
{
    std::map<WireKind, std::size_t> counts;
    for (const CarriedMessage& message : broker.waiting)
    {
        ++counts[ReadHeader(message.payload).value().kind];
    }
    return counts;
}

TEST(PublisherRun, LeavesEveryLastBookWithTheBrokerUnlessItIsToldNotTo)
{
    for (const bool isWanted : {true, false})
    {
        MemoryBroker broker;
        broker.keepsLastValues = true;
        const auto transport = broker.MakeTransport();
        Options options = FullSpeed();
        options.keepsLastValues = isWanted;
        PublisherRun run(Simulated(5000), *transport, options, [] { return false; }, {});
        EXPECT_EQ(run.Run(), ExitCode::Ok);
        std::map<std::string, std::uint64_t> published; // the last sequences
        for (const CarriedMessage& message : broker.waiting)
        {
            if (message.channel == TransportChannel::Prices)
            {
                published[message.instrument] = ReadHeader(message.payload).value().sequence;
            }
        }
        EXPECT_GT(published.size(), 1U);
        EXPECT_EQ(broker.lastValues.size(), isWanted ? published.size() + 1 : 0) << "and the directory";
        for (const auto& [address, kept] : broker.lastValues)
        {
            const auto& [market, instrument, part] = address;
            EXPECT_TRUE(instrument.empty() || ReadHeader(kept).value().sequence == published.at(instrument))
                << instrument;
        }
        transport->Stop();
    }
}

TEST(PublisherRun, ListsItsInstrumentsAndPublishesEveryMessage)
{
    MemoryBroker broker;
    const auto transport = broker.MakeTransport();
    std::size_t shown = 0;
    PublisherRun run(
        Simulated(5000), *transport, FullSpeed(), [] { return false; }, [&](const ProgressSample&) { ++shown; });
    EXPECT_EQ(run.Run(), ExitCode::Ok);
    auto kinds = CountKinds(broker);
    EXPECT_EQ(kinds[WireKind::Directory], 1U);
    EXPECT_GE(kinds[WireKind::Image] + kinds[WireKind::Update], 4900U) << "some messages have trades only";
    EXPECT_GT(kinds[WireKind::Trades], 0U);
    EXPECT_GT(kinds[WireKind::Heartbeat], 0U);
    EXPECT_EQ(run.GetCounts().unsent, 0U);
    EXPECT_GT(shown, 0U);
}

TEST(PublisherRun, MakesRenamesAtTheirTime)
{
    MemoryBroker broker;
    const auto transport = broker.MakeTransport();
    Options options = FullSpeed();
    // The simulated market begins at midnight; a message every millisecond.
    options.renames = {{1'798'761'600'000'000'000 + 2'000'000'000, {-1, "GOLD-MAR27", "GOLD-SPRING"}}};
    PublisherRun run(Simulated(5000), *transport, options, [] { return false; }, {});
    EXPECT_EQ(run.Run(), ExitCode::Ok);
    std::size_t before = 0;
    std::size_t behind = 0;
    bool isRenamed = false;
    for (const CarriedMessage& message : broker.waiting)
    {
        isRenamed = isRenamed || ReadRenames(message.payload).has_value();
        ++(isRenamed ? behind : before);
    }
    EXPECT_TRUE(isRenamed);
    EXPECT_GT(before, 1900U);
    EXPECT_GT(behind, 2900U);
}

TEST(PublisherRun, EndsWhenItIsAskedTo)
{
    MemoryBroker broker;
    const auto transport = broker.MakeTransport();
    Options options;
    options.speed = 1;
    int looks = 0;
    PublisherRun run(Simulated(0), *transport, options, [&] { return ++looks > 20; }, {});
    EXPECT_EQ(run.Run(), ExitCode::Ok);
}

TEST(PublisherRun, FailsWhenTheBrokerHasNotTakenTheEndOfWhatIsPlayedOnce)
{
    for (const bool playsOnce : {true, false})
    {
        MemoryBroker broker;
        const auto transport = broker.MakeTransport();
        Options options = FullSpeed();
        options.playsOnce = playsOnce;
        std::uint64_t looks = 0;
        PublisherRun* playing = nullptr;
        PublisherRun run(Simulated(500), *transport, options,
                         [&]
                         {
                             const ZelPublisherCounts counts = playing->GetCounts();
                             const bool isLast = counts.messages + counts.unsent >= 450;
                             if (isLast)
                             {
                                 broker.SetUp(false);
                             }
                             return isLast && !playsOnce && ++looks > 200;
                         },
                         {});
        playing = &run;
        EXPECT_EQ(run.Run(), playsOnce ? ExitCode::Failure : ExitCode::Ok);
    }
}

TEST(PublisherRun, EndsAsAskedInTheMiddleOfWhatIsPlayedOnceWhateverTheBrokerHasTaken)
{
    MemoryBroker broker;
    const auto transport = broker.MakeTransport();
    PublisherRun* playing = nullptr;
    PublisherRun run(Simulated(500), *transport, FullSpeed(),
                     [&]
                     {
                         const bool isStopped = playing->GetCounts().messages >= 100;
                         broker.SetUp(!isStopped);
                         return isStopped;
                     },
                     {});
    playing = &run;
    EXPECT_EQ(run.Run(), ExitCode::Ok);
    EXPECT_LT(run.GetCounts().messages, 450U);
}

TEST(PublisherRun, SaysThatThereNeverWasABroker)
{
    MemoryBroker broker;
    broker.SetUp(false);
    const auto transport = broker.MakeTransport();
    int looks = 0;
    PublisherRun run(Simulated(10), *transport, FullSpeed(), [&] { return ++looks > 3; }, {});
    EXPECT_EQ(run.Run(), ExitCode::NoBroker);
    EXPECT_EQ(run.GetCounts().messages, 0U);
}

} // namespace
} // namespace ps_ns::price_publisher
