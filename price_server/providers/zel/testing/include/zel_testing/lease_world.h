#pragma once

#include "zel/lease_keeper.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <queue>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace ps_ns::testing_ns
{

/// Servers with their lease keepers, and the stores between them, in virtual time: every message takes its time, and
/// may be lost; servers and stores die, are cut off and come back, as the test has it.
///
/// At every moment it looks whether two servers that run serve one shard; `faults` counts that.
///
/// Threads: one.
class LeaseWorld
{
public:
    using Duration = std::chrono::milliseconds;

    LeaseWorld(unsigned stores, std::uint32_t shards, std::uint64_t seed = 1);
    ~LeaseWorld();
    LeaseWorld(const LeaseWorld&) = delete;
    LeaseWorld& operator=(const LeaseWorld&) = delete;

    /// A server of this name; another run of it when the name has been there.
    void StartServer(const std::string& name);
    /// At once, with everything that it had on its mind.
    void KillServer(const std::string& name);
    /// It gives its leases back, and is gone.
    void StopServer(const std::string& name);
    /// Its time stands still; and goes on.
    void Freeze(const std::string& name);
    void Thaw(const std::string& name);
    /// Its clock leaps.
    void LeapClock(const std::string& name, Duration by);
    /// Its clock goes at another speed, in thousandths: 1000 is the usual one.
    void SetClockSpeed(const std::string& name, unsigned thousandths);

    /// What it had in memory is gone.
    void KillStore(unsigned store);
    void StartStore(unsigned store);
    void CutFromStore(const std::string& name, unsigned store, bool isCut);
    /// Nothing that it tells the others arrives, nor what they tell.
    void CutFromServers(const std::string& name, bool isCut);

    /// Lets time go by, in steps of 5 ms.
    void Pass(Duration time);
    /// Until `isSo`; false: not in that time.
    bool PassUntil(const std::function<bool()>& isSo, Duration patience);

    /// Who serves it, of the servers that run; empty: nobody.
    std::string GetHolder(std::uint32_t shard) const;
    std::map<std::string, unsigned> CountHeld() const;
    std::vector<std::string> GetHolders() const;
    bool AreAllHeld() const;
    /// All are held, and no server has two more than another.
    bool IsBalanced() const;
    const LeaseKeeper& GetKeeper(const std::string& name) const;
    std::chrono::milliseconds GetTime() const { return m_now; }

    Duration longestWay{5}; ///< of a message; each takes from 1 ms to this
    unsigned faults = 0;    ///< moments at which a shard had two servers
    LeaseOptions::Duration lease{800};

private:
    class Client;
    struct Server;
    struct Store
    {
        bool isUp = true;
        unsigned run = 0;
        std::uint64_t sequence = 0;
        std::map<std::string, LeaseEntry> keys;
    };

    void After(std::function<void()> what);
    void Look();
    Server* Find(const std::string& name) const;

    const std::uint32_t m_shards;
    std::mt19937_64 m_random;
    Duration m_now{0};
    std::vector<Store> m_stores;
    std::multimap<Duration, std::function<void()>> m_due; ///< of one moment in the order in which they were sent
    std::map<std::string, std::unique_ptr<Server>> m_servers;
    std::vector<std::unique_ptr<Server>> m_gone; ///< messages to them are still on their way
    unsigned m_runs = 0;
};

} // namespace ps_ns::testing_ns
