#include "cycles/cycles_client.h"
#include "testing/manager_test_access.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <chrono>
#include <exception>
#include <iostream>
#include <thread>

using namespace ps_ns;
using namespace ps_ns::cycles;
using ps_messages_ns::SubscriptionResult;

namespace
{

constexpr unsigned kClients = 4;

/// The clients on threads of their own, from one start until all have ended.
void RunClients(ReplayServer& server, std::vector<std::unique_ptr<CyclesClient>>& clients, std::uint64_t allCycles)
{
    std::barrier<> meet(kClients);
    std::vector<std::thread> threads;
    for (const auto& client : clients)
    {
        threads.emplace_back(
            [&]
            {
                try
                {
                    client->Run(allCycles / kClients, allCycles);
                }
                catch (const std::exception& error)
                {
                    server.GetWatch().Fault(error.what());
                }
                meet.arrive_and_wait(); // the others may still count on what this one keeps
                try
                {
                    client->Close();
                }
                catch (const std::exception& error)
                {
                    server.GetWatch().Fault(error.what());
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
}

/// Nothing is subscribed any more: the manager keeps nothing but the gauges, which are what the requests have made
/// them.
void ExpectNothingLeft(ReplayServer& server)
{
    EXPECT_EQ(server.GetSimple().GetRegistry().GetSize(), 0U);
    EXPECT_EQ(server.GetLate().GetListenerCount(), 0U);
    EXPECT_EQ(server.GetWatch().observers.load(), 0);
    server.RunOnQueue(
        [&]
        {
            CompositeSubscriptionMgrTestAccess access(server.GetManager());
            EXPECT_TRUE(access.SubscriptionByHandle().empty());
            EXPECT_TRUE(access.HandleByInstrument().empty());
            EXPECT_TRUE(access.Subscriptions().empty());
            EXPECT_TRUE(access.PendingDelete().empty());
            EXPECT_TRUE(access.PendingProvider().empty());
            for (const auto& [marketId, changes] : access.SymbolChanges())
            {
                EXPECT_TRUE(changes.empty()) << "market " << marketId;
            }
            for (const auto& [marketId, responses] : access.SymbolChangeResponses())
            {
                EXPECT_TRUE(responses.empty()) << "market " << marketId;
            }
            // A subscription counts from its opening; only a handle that finds one counts down, whoever opened it.
            const std::uint64_t opened = server.mdsOpened + server.accepted.load() - server.duplicates.load();
            const std::uint64_t closed = server.unsubscribed.load() - server.missing.load();
            const auto expected = std::pair(server.zelOpened - server.switched, opened + server.switched - closed);
            EXPECT_EQ(server.GetManager().GetSubscriptionCounts(), expected);
        });
}

/// The pending gauge follows each park and each check, and only those.
void ExpectPendingGaugeToFollow(ReplayServer& server, Instruments& instruments)
{
    const CompositeInstrumentDef& def = instruments.late.front().def;
    const auto rename = [&](const std::string& from, const std::string& to)
    {
        const SymbolRename one{def.marketId, from, to};
        server.GetMds().RenameNow({&one, 1});
    };
    Bell bell;
    const auto observer = std::make_shared<WatchedFlexibleObserver>("last", server.GetWatch(), bell, 1, 1);
    observer->Get(1).Ask(5, false);
    server.RunOnQueue(
        [&]
        {
            if (instruments.isLate.front())
            {
                rename(def.GetSymbol(), instruments.lateHomes.front());
            }
        });
    server.GetManager().Subscribe(def, {5, 0, false, false}, server.GetFactory(), observer, 1);
    const auto gauge = [&] { return server.GetManager().SubscriptionPendingGaugeInstance().Get(); };
    server.Fence();
    EXPECT_EQ(gauge(), 1.0);
    rename(instruments.lateHomes.front(), def.GetSymbol());
    server.RunOnQueue([&] { server.CheckPending(); });
    EXPECT_EQ(gauge(), 0.0);
    observer->Get(1).awaitedEpoch.store(2);
    EXPECT_TRUE(bell.WaitUntil([&] { return observer->Get(1).newestEpoch.load() == 2; }));
    server.GetManager().Unsubscribe(def, observer, 1);
    server.Settle();
    EXPECT_EQ(gauge(), 0.0);
    EXPECT_EQ(observer.use_count(), 1);
}

/// As many objects as the clients can have open at one time, and no memory that grows with the cycles.
void ExpectFlat(const std::vector<Sample>& samples)
{
    ASSERT_FALSE(samples.empty());
    // Held at most: each client's batch of observers, and as many composite subscriptions, live or on their way out.
    constexpr std::size_t kMostHeld = kClients * (2 * CyclesClient::kCyclesPerBatch + 4);
    for (const Sample& sample : samples)
    {
        EXPECT_LE(sample.subscriptions, kMostHeld);
        EXPECT_LE(sample.observers, static_cast<std::int64_t>(2 * kMostHeld));
        EXPECT_LE(sample.queued, 8 * kMostHeld);
        EXPECT_LE(sample.updatesInFlight, 2 * kMostHeld);
        EXPECT_LE(sample.lateListeners, kMostHeld);
    }
    if (!PS_IS_SANITIZED) // a sanitizer keeps what is freed for a while
    {
        constexpr double kSlack_MB = 16;
        EXPECT_LE(samples.back().residentMegabytes, samples.front().residentMegabytes + kSlack_MB);
    }
}

void Report(const ReplayServer& server, const CallbackWatch& watch, const CycleCounts& counts, double seconds)
{
    std::cout << "cycles " << counts.GetCycles() << " in " << seconds << " s: flexible " << counts.flexible
              << ", direct " << counts.direct << " (refused besides " << counts.refused << "), renames "
              << counts.renames << ", symbol changes " << counts.symbolChanges << " (rejected of all "
              << server.GetRejectedChanges() << "); requests meant to fail " << counts.failuresMeant
              << "\nsubscriptions opened by flexible clients: MDS " << server.mdsOpened << ", ZEL " << server.zelOpened
              << ", of which switched " << server.switched << "; handles told 12 " << server.duplicates << ", told 13 "
              << server.missing << "\ncallbacks: books " << watch.books << ", trades " << watch.trades << ", answers "
              << watch.answers << ", failures " << watch.failures << "; messages replayed "
              << server.GetProgress().messages << " in " << server.GetProgress().epoch << " passes\n";
    for (const Sample& sample : server.GetSamples())
    {
        std::cout << "after " << sample.cycles << " cycles: " << sample.residentMegabytes << " MB resident, "
                  << sample.subscriptions << " composite subscriptions, " << sample.observers << " observers, "
                  << sample.queued << " actions queued, " << sample.updatesInFlight << " updates in flight, "
                  << sample.lateListeners << " listeners of the late provider\n";
    }
}

void RunCycles(std::uint64_t cycles, bool skipUnchangedSnapshots, unsigned seed)
{
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::cout << "seed " << seed << '\n';
    ReplayServer server(skipUnchangedSnapshots);
    server.Start();
    Instruments instruments(server);
    std::vector<std::unique_ptr<CyclesClient>> clients;
    for (unsigned number = 0; number < kClients; ++number)
    {
        clients.push_back(std::make_unique<CyclesClient>(server, instruments, number, seed + number));
        clients.back()->Open();
    }
    const auto begin = std::chrono::steady_clock::now();
    RunClients(server, clients, cycles);
    const std::chrono::duration<double> duration = std::chrono::steady_clock::now() - begin;
    server.Settle();

    CycleCounts counts;
    for (const auto& client : clients)
    {
        counts += client->GetCounts();
    }
    Report(server, server.GetWatch(), counts, duration.count());
    EXPECT_FALSE(server.GetWatch().HasFaults()) << server.GetWatch().PrintFaults();
    EXPECT_GE(counts.GetCycles(), cycles);
    EXPECT_EQ(server.GetRefusals(), counts.refused);
    EXPECT_GT(counts.flexible, 0U);
    EXPECT_GT(counts.direct, 0U);
    EXPECT_GT(counts.renames, 0U);
    EXPECT_GT(counts.symbolChanges, 0U);
    EXPECT_GT(counts.failuresMeant, 0U);
    EXPECT_GT(server.switched, 0U);
    EXPECT_GT(server.GetWatch().trades.load(), 0U);
    EXPECT_FALSE(server.GetMds().HasEnded());
    ExpectFlat(server.GetSamples());
    ExpectNothingLeft(server);
    ExpectPendingGaugeToFollow(server, instruments);
    ExpectNothingLeft(server);

    const std::shared_ptr<MdsProvider> mds = server.ShareMds();
    server.Stop();
    EXPECT_EQ(mds->GetInFlight(), 0U);
    EXPECT_EQ(server.GetWatch().observers.load(), 0);
    EXPECT_FALSE(server.GetWatch().HasFaults()) << server.GetWatch().PrintFaults();
}

} // namespace

TEST(ManagerCycles, LeavesNothingBehindAfterTwoHundredThousandCyclesOfFourClients)
{
    RunCycles(200'000, false, 20'240'808);
}

TEST(ManagerCycles, LeavesNothingBehindWhenUnchangedBooksAreSkipped)
{
    RunCycles(20'000, true, 7);
}
