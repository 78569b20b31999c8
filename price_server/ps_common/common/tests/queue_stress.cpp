#include "common/action_center.h"
#include "common/data_queue.h"
#include "common/queue_reader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace ps_ns;

/// Eight producers post to one queue, and in some rounds the queue is shut down among them. Every action must be run or
/// disposed of exactly once, each producer's in the order in which it posted them.
///
/// | variable | meaning | when unset |
/// |---|---|---|
/// | PS_STRESS_ACTIONS | actions in all | 10,000,000 |
/// | PS_STRESS_SEED | the seed, to repeat a run | chosen, and printed |
/// | PS_STRESS_SECONDS | the watchdog ends the program after so long | 900 |
namespace
{

using Queue = DataQueue<DataMsgTask>;

constexpr std::size_t kProducers = 8;
constexpr std::size_t kRounds = 40;
constexpr std::size_t kReader = kProducers; ///< as the one that shuts down

std::uint64_t FromEnvironment(const char* name, std::uint64_t otherwise)
{
    const char* const text = std::getenv(name);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

/// Ends the process when the test takes too long: a lost wake-up or a lock that is never released would otherwise hang.
class Watchdog
{
public:
    Watchdog(std::chrono::seconds limit, std::uint64_t seed)
        : m_thread([this, limit, seed] { Watch(limit, seed); })
    {
    }
    ~Watchdog()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_done = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void Watch(std::chrono::seconds limit, std::uint64_t seed)
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, limit, [this] { return m_done; }))
        {
            std::fprintf(stderr, "no end after %lld s, seed %llu\n", static_cast<long long>(limit.count()),
                         static_cast<unsigned long long>(seed));
            std::abort();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_done = false; ///< under m_mutex
    std::thread m_thread;
};

/// What has become of one producer's actions. An entry is written by whoever holds the action, one thread at a time.
struct Ledger
{
    struct Entry
    {
        std::uint8_t runs = 0;
        std::uint8_t ends = 0;
        bool endedBeforeItRan = false;
    };
    std::vector<Entry> entries;
    std::size_t nextToRun = 0;  ///< queue thread only
    std::size_t outOfOrder = 0; ///< queue thread only
};

/// An action that notes in the ledger that it was run, and that it came to its end. Copying is for std::function's
/// sake: nothing on the way may copy it.
class Action
{
public:
    Action(Ledger& ledger, std::size_t index, std::atomic<std::size_t>& copies)
        : m_ledger(&ledger)
        , m_copies(&copies)
        , m_index(index)
    {
    }
    Action(const Action& other)
        : m_ledger(other.m_ledger)
        , m_copies(other.m_copies)
        , m_index(other.m_index)
    {
        ++*m_copies;
    }
    Action(Action&& other) noexcept
        : m_ledger(std::exchange(other.m_ledger, nullptr))
        , m_copies(other.m_copies)
        , m_index(other.m_index)
    {
    }
    Action& operator=(const Action&) = delete;
    ~Action()
    {
        if (m_ledger != nullptr)
        {
            ++GetEntry().ends;
        }
    }

    void operator()() const
    {
        Ledger::Entry& entry = GetEntry();
        ++entry.runs;
        entry.endedBeforeItRan = entry.ends != 0;
        m_ledger->outOfOrder += m_index != m_ledger->nextToRun ? 1 : 0;
        m_ledger->nextToRun = m_index + 1;
    }

private:
    Ledger::Entry& GetEntry() const { return m_ledger->entries[m_index]; }

    Ledger* m_ledger; ///< null: moved from
    std::atomic<std::size_t>* m_copies;
    std::size_t m_index;
};

/// What a round does beside posting.
struct Plan
{
    bool shutsDown = false;
    std::size_t who = 0;  ///< the producer that shuts down, or kReader
    std::size_t when = 0; ///< at that producer's action, or at the first producer's action when the reader runs it
    bool runsDry = false; ///< what is left at the end is run; otherwise it goes down with the queue
};

class Round
{
public:
    Round(const Plan& plan, std::size_t actionsEach)
        : m_plan(plan)
        , m_actionsEach(actionsEach)
        , m_ledgers(kProducers)
    {
        for (Ledger& ledger : m_ledgers)
        {
            ledger.entries.resize(actionsEach);
        }
    }

    /// Posts everything, checks, and returns how many actions were run.
    std::size_t Run()
    {
        zel::metrics::Gauge gauge = zel::metrics::CreateGauge(kDepth);
        {
            Queue queue("stress", gauge);
            ActionCenter<Queue, Task> center(&queue, nullptr);
            QueueReader<> reader(queue);
            reader.Start();
            std::vector<std::thread> producers = StartProducers(queue, center);
            if (m_plan.shutsDown)
            {
                m_isShutDown.wait(false);
                reader.Stop(); // while producers are still posting
            }
            for (std::thread& producer : producers)
            {
                producer.join();
            }
            reader.Stop();
            FinishQueue(queue, gauge);
        }
        EXPECT_EQ(gauge.Get(), 0.0);
        zel::metrics::DestroyGauge(kDepth);
        return Check();
    }

private:
    static inline const zel::metrics::Metric kDepth{"queue_stress_depth", "queued tasks", {}};

    std::vector<std::thread> StartProducers(Queue& queue, ActionCenter<Queue, Task>& center)
    {
        std::vector<std::thread> producers;
        for (std::size_t producer = 0; producer < kProducers; ++producer)
        {
            producers.emplace_back(
                [&, producer]
                {
                    m_start.arrive_and_wait();
                    Produce(queue, center, producer);
                });
        }
        return producers;
    }

    void Produce(Queue& queue, ActionCenter<Queue, Task>& center, std::size_t producer)
    {
        const bool shutsDown = m_plan.shutsDown && m_plan.who == producer;
        const bool letsReaderShutDown = m_plan.shutsDown && m_plan.who == kReader && producer == 0;
        for (std::size_t index = 0; index < m_actionsEach; ++index)
        {
            if (shutsDown && index == m_plan.when)
            {
                ShutDown(queue);
            }
            Action action(m_ledgers[producer], index, m_copies);
            if (letsReaderShutDown && index == m_plan.when)
            {
                center.ExecuteAction(
                    [this, &queue, action = std::move(action)]
                    {
                        action();
                        ShutDown(queue);
                    },
                    "");
                continue;
            }
            center.ExecuteAction(std::move(action), "");
        }
    }

    void ShutDown(Queue& queue)
    {
        queue.shutdown();
        m_isShutDown.store(true);
        m_isShutDown.notify_one();
    }

    /// Producers and reader have ended: what came in between a check for the shutdown and the reader's last look is
    /// left.
    void FinishQueue(Queue& queue, const zel::metrics::Gauge& gauge)
    {
        EXPECT_EQ(static_cast<double>(queue.size()), gauge.Get());
        if (!m_plan.shutsDown)
        {
            EXPECT_EQ(queue.size(), 0U);
        }
        if (m_plan.runsDry)
        {
            const std::uint64_t left = queue.size();
            EXPECT_EQ(RunDry(queue), left);
            EXPECT_EQ(queue.size(), 0U);
            EXPECT_EQ(gauge.Get(), 0.0);
        }
    }

    std::size_t Check() const
    {
        std::size_t runs = 0;
        std::size_t wrong = 0;
        for (const Ledger& ledger : m_ledgers)
        {
            EXPECT_EQ(ledger.outOfOrder, 0U);
            for (const Ledger::Entry& entry : ledger.entries)
            {
                wrong += entry.ends != 1 || entry.runs > 1 || entry.endedBeforeItRan ? 1 : 0;
                runs += entry.runs;
            }
        }
        EXPECT_EQ(wrong, 0U) << "actions not run or disposed of exactly once";
        EXPECT_EQ(m_copies.load(), 0U);
        if (!m_plan.shutsDown)
        {
            EXPECT_EQ(runs, kProducers * m_actionsEach);
        }
        return runs;
    }

    const Plan m_plan;
    const std::size_t m_actionsEach;
    std::vector<Ledger> m_ledgers;
    std::atomic<std::size_t> m_copies{0};
    std::atomic<bool> m_isShutDown{false};
    std::barrier<> m_start{kProducers};
};

Plan MakePlan(std::size_t round, std::size_t actionsEach, std::mt19937_64& random)
{
    Plan plan;
    plan.shutsDown = round % 2 == 1;
    plan.who = random() % (kProducers + 1);
    plan.when = random() % actionsEach;
    plan.runsDry = random() % 2 == 0;
    return plan;
}

} // namespace

TEST(QueueStress, RunsOrDisposesOfEachActionOnceAndKeepsEachProducersOrder)
{
    const std::uint64_t actions = FromEnvironment("PS_STRESS_ACTIONS", 10'000'000);
    const std::uint64_t seed = FromEnvironment("PS_STRESS_SEED", std::random_device()());
    const std::size_t actionsEach = (actions + kProducers * kRounds - 1) / (kProducers * kRounds);
    ASSERT_GT(actionsEach, 0U) << "PS_STRESS_ACTIONS is no number above 0";
    std::printf("seed %llu, %llu actions\n", static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(actionsEach * kProducers * kRounds));
    std::fflush(stdout);
    const Watchdog watchdog(std::chrono::seconds(FromEnvironment("PS_STRESS_SECONDS", 900)), seed);

    std::mt19937_64 random(seed);
    std::size_t runs = 0;
    for (std::size_t round = 0; round < kRounds && !HasFailure(); ++round)
    {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
        runs += Round(MakePlan(round, actionsEach, random), actionsEach).Run();
    }
    std::printf("%zu run, %zu refused or left\n", runs, actionsEach * kProducers * kRounds - runs);
}
