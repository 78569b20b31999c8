#include "zel_testing/lease_world.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

namespace ps_ns
{
namespace
{

using testing_ns::LeaseWorld;
using namespace std::chrono_literals;

/// Servers "ps1" to "psN" that have divided the shards among themselves.
struct Cluster
{
    Cluster(unsigned servers, std::uint32_t shards, unsigned stores = 3, std::uint64_t seed = 1)
        : world(stores, shards, seed)
    {
        for (unsigned i = 1; i <= servers; ++i)
        {
            world.StartServer("ps" + std::to_string(i));
        }
        EXPECT_TRUE(world.PassUntil([&] { return world.IsBalanced(); }, 30s)) << servers << " servers, " << shards;
        world.Pass(2s);
        EXPECT_TRUE(world.IsBalanced());
    }
    ~Cluster() { EXPECT_EQ(world.faults, 0U); }

    LeaseWorld world;
};

unsigned CountMoves(const std::vector<std::string>& before, const std::vector<std::string>& after)
{
    unsigned moves = 0;
    for (std::size_t i = 0; i < before.size(); ++i)
    {
        moves += before[i] != after[i] ? 1U : 0U;
    }
    return moves;
}

TEST(LeaseKeeper, TakesAllShardsWhenItIsAlone)
{
    LeaseWorld world(3, 4);
    world.StartServer("ps1");
    world.Pass(900ms);
    EXPECT_EQ(world.CountHeld()["ps1"], 0U); // somebody who has not been heard yet might have them
    EXPECT_TRUE(world.PassUntil([&] { return world.AreAllHeld(); }, 300ms));
    EXPECT_EQ(world.faults, 0U);
}

TEST(LeaseKeeper, DividesTheShardsEvenly)
{
    for (const unsigned stores : {1U, 3U, 5U})
    {
        Cluster cluster(4, 4, stores);
        for (const auto& [name, count] : cluster.world.CountHeld())
        {
            EXPECT_EQ(count, 1U) << name;
        }
    }
}

TEST(LeaseKeeper, TakesOverWhatADeadServerHadInLessThanTwoLeases)
{
    for (std::uint64_t seed = 1; seed <= 20; ++seed)
    {
        Cluster cluster(4, 8, 3, seed);
        const std::vector<std::string> before = cluster.world.GetHolders();
        cluster.world.KillServer("ps2");
        ASSERT_TRUE(cluster.world.PassUntil([&] { return cluster.world.AreAllHeld(); }, 1600ms)) << seed;
        EXPECT_EQ(CountMoves(before, cluster.world.GetHolders()), 2U) << "nothing but the dead server's may move";
        cluster.world.Pass(5s);
        EXPECT_EQ(CountMoves(before, cluster.world.GetHolders()), 2U);
    }
}

TEST(LeaseKeeper, HandsItsShardsOverAtOnceWhenItStops)
{
    Cluster cluster(4, 8);
    cluster.world.StopServer("ps3");
    EXPECT_TRUE(cluster.world.PassUntil([&] { return cluster.world.AreAllHeld(); }, 150ms));
}

TEST(LeaseKeeper, GainsNothingMoreFromTheMomentThatItLeaves)
{
    for (auto life = 950ms; life < 1300ms; life += 5ms)
    {
        LeaseWorld world(3, 4);
        world.longestWay = 40ms; // so that claims are on their way at many of these moments
        world.StartServer("ps1");
        world.Pass(life);
        world.StopServer("ps1");
        EXPECT_FALSE(world.PassUntil([&] { return world.CountHeld()["ps1"] != 0; }, 400ms)) << life.count();
        EXPECT_EQ(world.CountHeld().count("ps1"), 0U) << "it is gone";
        world.StartServer("ps2");
        EXPECT_TRUE(world.PassUntil([&] { return world.AreAllHeld(); }, 1200ms)) << life.count();
        EXPECT_EQ(world.GetKeeper("ps2").GetCounts().dead, 0U) << "nothing was left behind";
        EXPECT_EQ(world.faults, 0U);
    }
}

TEST(LeaseKeeper, MovesOnlyTheNewcomersShareAndOnlyTheLeaversBack)
{
    for (const unsigned servers : {1U, 2U, 3U, 4U, 6U})
    {
        for (const std::uint32_t shards : {1U, 4U, 7U, 20U, 33U})
        {
            Cluster cluster(servers, shards);
            LeaseWorld& world = cluster.world;
            const std::vector<std::string> before = world.GetHolders();
            world.StartServer("new");
            ASSERT_TRUE(world.PassUntil([&] { return world.IsBalanced(); }, 30s)) << servers << " " << shards;
            world.Pass(3s);
            const std::vector<std::string> after = world.GetHolders();
            const auto share = static_cast<unsigned>(std::count(after.begin(), after.end(), "new"));
            EXPECT_LE(share, shards / (servers + 1) + 1);
            EXPECT_EQ(CountMoves(before, after), share) << servers << " " << shards;

            world.StopServer("new");
            ASSERT_TRUE(world.PassUntil([&] { return world.IsBalanced(); }, 10s)) << servers << " " << shards;
            world.Pass(3s);
            EXPECT_EQ(CountMoves(after, world.GetHolders()), share) << servers << " " << shards;
        }
    }
}

TEST(LeaseKeeper, LosesNothingWhenOneStoreOfThreeDiesAndComesBackEmpty)
{
    Cluster cluster(4, 8);
    const std::vector<std::string> before = cluster.world.GetHolders();
    for (const unsigned store : {0U, 1U, 2U})
    {
        cluster.world.KillStore(store);
        cluster.world.Pass(3s);
        EXPECT_EQ(cluster.world.GetHolders(), before);
        cluster.world.StartStore(store);
        cluster.world.Pass(1s);
        EXPECT_EQ(cluster.world.GetHolders(), before);
    }
    EXPECT_EQ(cluster.world.GetKeeper("ps1").GetCounts().losses, 0U);
}

TEST(LeaseKeeper, TakesOverWithOneStoreDead)
{
    Cluster cluster(3, 6);
    cluster.world.KillStore(1);
    cluster.world.Pass(2s);
    cluster.world.KillServer("ps1");
    EXPECT_TRUE(cluster.world.PassUntil([&] { return cluster.world.AreAllHeld(); }, 1600ms));
}

TEST(LeaseKeeper, ServesNothingWithoutAMajorityOfTheStoresAndGoesOnWhenThereIsOne)
{
    Cluster cluster(2, 4);
    cluster.world.KillStore(0);
    cluster.world.KillStore(2);
    cluster.world.Pass(820ms);
    EXPECT_EQ(cluster.world.GetHolders(), std::vector<std::string>(4));
    cluster.world.Pass(5s);
    cluster.world.StartStore(2);
    EXPECT_TRUE(cluster.world.PassUntil([&] { return cluster.world.AreAllHeld(); }, 5s));
}

TEST(LeaseKeeper, StopsServingBeforeAnotherMayHaveIt)
{
    Cluster cluster(2, 2);
    const std::string mine = "ps1";
    for (const unsigned store : {0U, 1U, 2U})
    {
        cluster.world.CutFromStore(mine, store, true);
    }
    ASSERT_TRUE(cluster.world.PassUntil([&] { return cluster.world.CountHeld()[mine] == 0; }, 820ms));
    EXPECT_FALSE(cluster.world.AreAllHeld());
    EXPECT_TRUE(cluster.world.PassUntil([&] { return cluster.world.AreAllHeld(); }, 1500ms));
    EXPECT_EQ(cluster.world.CountHeld()["ps2"], 2U);
    EXPECT_EQ(cluster.world.GetKeeper(mine).GetCounts().losses, 1U);
}

TEST(LeaseKeeper, KeepsItsShardsWhenTheOthersDoNotHearIt)
{
    Cluster cluster(3, 6);
    const std::vector<std::string> before = cluster.world.GetHolders();
    cluster.world.CutFromServers("ps2", true);
    cluster.world.Pass(10s);
    EXPECT_EQ(cluster.world.GetHolders(), before);
}

TEST(LeaseKeeper, IsNeverTwoOfThoseWhoHearNothingOfEachOther)
{
    LeaseWorld world(3, 3);
    for (const char* const name : {"ps1", "ps2", "ps3"})
    {
        world.StartServer(name);
        world.CutFromServers(name, true);
    }
    EXPECT_TRUE(world.PassUntil([&] { return world.AreAllHeld(); }, 20s));
    world.Pass(5s);
    EXPECT_TRUE(world.AreAllHeld());
    EXPECT_EQ(world.faults, 0U);
}

TEST(LeaseKeeper, TakesNothingFromTheLivingWhenItsClockLeaps)
{
    Cluster cluster(3, 6);
    const std::vector<std::string> before = cluster.world.GetHolders();
    cluster.world.LeapClock("ps2", 300ms);
    cluster.world.Pass(3s);
    EXPECT_EQ(cluster.world.GetHolders(), before);

    cluster.world.CutFromServers("ps3", true); // its leases are all that the others have to go by
    cluster.world.Pass(700ms);
    cluster.world.LeapClock("ps1", 24h);
    cluster.world.Pass(5ms);
    EXPECT_EQ(cluster.world.CountHeld()["ps1"], 0U) << "what it has may be another's by that clock";
    cluster.world.Pass(400ms); // ps3 hears nobody, and takes what is left lying; nobody takes anything from ps3
    for (std::uint32_t shard = 0; shard < 6; ++shard)
    {
        EXPECT_EQ(cluster.world.GetHolder(shard) == "ps3", before[shard] == "ps3" || before[shard] == "ps1") << shard;
    }
}

TEST(LeaseKeeper, GivesUpWhatItHasWhenItsClockLeapsBack)
{
    Cluster cluster(2, 2);
    cluster.world.LeapClock("ps1", -1h);
    cluster.world.Pass(5ms);
    EXPECT_EQ(cluster.world.CountHeld()["ps1"], 0U);
    EXPECT_TRUE(cluster.world.PassUntil([&] { return cluster.world.IsBalanced(); }, 10s));
}

TEST(LeaseKeeper, HasNothingLeftWhenItWakesAfterAFreeze)
{
    Cluster cluster(3, 6);
    cluster.world.Freeze("ps1");
    cluster.world.Pass(5s);
    EXPECT_TRUE(cluster.world.AreAllHeld());
    cluster.world.Thaw("ps1");
    EXPECT_EQ(cluster.world.CountHeld()["ps1"], 0U);
    EXPECT_TRUE(cluster.world.PassUntil([&] { return cluster.world.IsBalanced(); }, 10s));
}

TEST(LeaseKeeper, ToleratesClocksThatDifferInSpeedByATenth)
{
    Cluster cluster(4, 8);
    cluster.world.SetClockSpeed("ps1", 950);
    cluster.world.SetClockSpeed("ps2", 1050);
    for (unsigned i = 0; i < 10; ++i)
    {
        for (const unsigned store : {0U, 1U, 2U})
        {
            cluster.world.CutFromStore("ps1", store, i % 2 == 0);
        }
        cluster.world.Pass(2s);
    }
    EXPECT_TRUE(cluster.world.PassUntil([&] { return cluster.world.IsBalanced(); }, 10s));
}

/// Deaths, cuts, freezes and slow ways in a random order; of the stores one at a time.
TEST(LeaseKeeper, NeverServesAShardTwiceWhateverHappens)
{
    constexpr std::uint64_t kSeeds = PS_IS_SANITIZED ? 10 : 40;
    for (std::uint64_t seed = 1; seed <= kSeeds; ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937_64 random(seed);
        const auto draw = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
        LeaseWorld world(3, 1 + draw(12), seed);
        const auto name = [&] { return "ps" + std::to_string(1 + draw(4)); };
        for (unsigned i = 1; i <= 4; ++i)
        {
            world.StartServer("ps" + std::to_string(i));
        }
        for (unsigned i = 0; i < 60; ++i)
        {
            world.longestWay = std::chrono::milliseconds(1 + draw(draw(2) == 0 ? 10 : 150));
            const std::string server = name();
            switch (draw(7))
            {
            case 0:
                world.KillServer(server);
                world.StartServer(server);
                break;
            case 1:
                world.KillStore(draw(3));
                world.Pass(2s); // a store that comes back has forgotten; two of them in one lease are too many
                for (unsigned store = 0; store < 3; ++store)
                {
                    world.StartStore(store);
                }
                world.Pass(2s);
                break;
            case 2:
                world.CutFromStore(server, draw(3), draw(2) == 0);
                break;
            case 3:
                world.CutFromServers(server, draw(2) == 0);
                break;
            case 4:
                world.Freeze(server);
                world.Pass(std::chrono::milliseconds(draw(2500)));
                world.Thaw(server);
                break;
            case 5:
                world.LeapClock(server, std::chrono::milliseconds(draw(2000)));
                break;
            default:
                break;
            }
            world.Pass(std::chrono::milliseconds(5 * draw(300)));
        }
        EXPECT_EQ(world.faults, 0U);
        world.longestWay = 5ms;
        for (unsigned store = 0; store < 3; ++store)
        {
            world.StartStore(store);
            for (unsigned i = 1; i <= 4; ++i)
            {
                world.CutFromStore("ps" + std::to_string(i), store, false);
                world.CutFromServers("ps" + std::to_string(i), false);
            }
        }
        EXPECT_TRUE(world.PassUntil([&] { return world.IsBalanced(); }, 30s));
        world.Pass(3s);
        EXPECT_TRUE(world.IsBalanced());
        EXPECT_EQ(world.faults, 0U);
    }
}

TEST(ServerNotice, IsReadAsItWasWritten)
{
    for (const ServerNotice& notice :
         {ServerNotice{"s.1", "ps 1", "http://a:80/", false, {0, 3, 17}}, ServerNotice{"s", "", "", true, {}}})
    {
        EXPECT_EQ(ReadNotice(WriteNotice(notice)), notice);
    }
}

TEST(ServerNotice, RefusesWhatIsNone)
{
    for (const char* const text : {"", "1", "2 a b c here -", "1 a b c here", "1 a b c gone -", "1 a b c here 1,,2",
                                   "1 a b c here x", "1 = b c here -", "1 a.b b c here -", "1 a b c here 99999999999"})
    {
        EXPECT_EQ(ReadNotice(text), std::nullopt) << text;
    }
}

} // namespace
} // namespace ps_ns
