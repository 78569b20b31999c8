#pragma once

#include "cycles/instruments.h"
#include "cycles/replay_server.h"
#include "cycles/watched_observers.h"

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace ps_ns::cycles
{

/// How many of each there were.
struct CycleCounts
{
    std::uint64_t flexible = 0;
    std::uint64_t direct = 0;
    std::uint64_t refused = 0; ///< no cycles: direct subscribes of an instrument that had a handle
    std::uint64_t renames = 0; ///< with the provider, and prices seen under the new symbol
    std::uint64_t symbolChanges = 0;
    std::uint64_t failuresMeant = 0; ///< requests made to fail

    std::uint64_t GetCycles() const { return flexible + direct + renames + symbolChanges; }
    CycleCounts& operator+=(const CycleCounts& other);
};

/// One client thread: subscribes, changes and unsubscribes at random, several at a time, in batches; after each batch
/// it waits until all of it is done, and judges what it has been told.
class CyclesClient
{
public:
    static constexpr int kCyclesPerBatch = 64;

    CyclesClient(ReplayServer& server, Instruments& instruments, unsigned number, unsigned seed);

    /// Holds its renamed instrument by a flexible id and by a handle.
    void Open();
    void Run(std::uint64_t cycles, std::uint64_t allCycles);
    void Close();

    const CycleCounts& GetCounts() const noexcept { return m_counts; }

private:
    struct FlexibleCycle
    {
        const Instrument* instrument = nullptr;
        unsigned long id = 0;
        unsigned changes = 0;
        // Meant to fail:
        unsigned duplicates = 0;
        unsigned lateChanges = 0;
        unsigned lateUnsubscribes = 0;
    };
    struct DirectCycle
    {
        std::shared_ptr<WatchedObserver> observer;
        unsigned long handle = 0;
        std::array<unsigned, Delivery::RequestCount> requests{};
    };

    unsigned Random(unsigned below) { return static_cast<unsigned>(m_random() % below); }
    bool Once(unsigned in) { return Random(in) == 0; }
    CompositeSubscriptionInfo MakeScope();

    void RunBatch();
    void RunCycle();
    void SubscribeFlexible(const Instrument& instrument);
    void UnsubscribeFlexible();
    void SubscribeDirect();
    void UnsubscribeDirect();
    void ChangeDirectScopes(DirectCycle& direct);
    void Rename();
    void ChangeSymbol();
    void MoveLate();
    void Judge();
    void JudgeFlexible(const FlexibleCycle& flexible);
    void JudgeDirect(const DirectCycle& direct);
    void AwaitEpoch(Delivery& delivery, std::uint64_t epoch, const std::string& what);
    void Expect(bool condition, const std::string& what);

    ReplayServer& m_server;
    CompositeSubscriptionMgr& m_manager;
    Instruments& m_instruments;
    const unsigned m_number;
    std::mt19937 m_random;
    unsigned long m_nextId;
    CycleCounts m_counts;
    Bell m_bell;

    // The batch.
    std::shared_ptr<WatchedFlexibleObserver> m_observer;
    unsigned long m_freeId = 0;
    std::deque<FlexibleCycle> m_openFlexible;
    std::deque<DirectCycle> m_openDirect;
    std::vector<FlexibleCycle> m_endedFlexible;
    std::vector<DirectCycle> m_endedDirect;

    // The renamed instrument.
    std::array<std::string, 2> m_symbols; ///< the present one first
    std::shared_ptr<WatchedFlexibleObserver> m_keeper;
    DirectCycle m_keeperDirect;
    std::uint64_t m_keptEpoch = 1;
};

} // namespace ps_ns::cycles
