#pragma once

#include "async/async_task.h"
#include "common/data_queue.h"
#include "logging/sinks.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What the tests of this room share: one recorded sequence, tasks that write into it, a queue that runs each task at
/// once, and timers on a clock of the test's own.
namespace ps_ns::test
{

/// What happened, in order. One thread at a time.
using Sequence = std::vector<std::string>;

/// Writes into the sequence when it is run, disposed of and destroyed.
class RecordingTask final : public Task
{
public:
    RecordingTask(Sequence& sequence, std::string name)
        : m_sequence(sequence)
        , m_name(std::move(name))
    {
    }
    ~RecordingTask() override { m_sequence.push_back(m_name + " destroyed"); }
    void dispose() override
    {
        m_sequence.push_back(m_name + " disposed of");
        Task::dispose();
    }
    void execute() override { m_sequence.push_back(m_name + " run"); }

private:
    Sequence& m_sequence;
    const std::string m_name;
};

/// Log records beside what else happens; restores the process's sink and level.
class LogIntoSequence final
{
public:
    explicit LogIntoSequence(Sequence& sequence)
        : m_sink(std::make_shared<Sink>(sequence))
        , m_level(zel::logging::g_minLogLevel.exchange(0))
    {
        zel::logging::Logger::SetSink(m_sink);
    }
    ~LogIntoSequence()
    {
        zel::logging::Logger::SetSink(nullptr);
        zel::logging::g_minLogLevel = m_level;
    }
    LogIntoSequence(const LogIntoSequence&) = delete;
    LogIntoSequence& operator=(const LogIntoSequence&) = delete;

    std::vector<zel::logging::CapturedRecord> GetRecords() const { return m_sink->m_records.GetRecords(); }

private:
    struct Sink final : zel::logging::ISink
    {
        explicit Sink(Sequence& sequence)
            : m_sequence(sequence)
        {
        }
        void Write(const zel::logging::Record& record) noexcept override
        {
            m_records.Write(record);
            m_sequence.push_back("logged");
        }

        Sequence& m_sequence;
        zel::logging::CapturingSink m_records;
    };

    const std::shared_ptr<Sink> m_sink;
    const int m_level;
};

/// A queue that keeps what is inserted, or runs and deletes it inside insert().
class FakeQueue final
{
public:
    enum class Mode
    {
        Keep,
        RunAtOnce,
        Refuse
    };

    explicit FakeQueue(Mode mode = Mode::Keep)
        : m_mode(mode)
    {
    }
    ~FakeQueue() { Clear(); }
    FakeQueue(const FakeQueue&) = delete;
    FakeQueue& operator=(const FakeQueue&) = delete;

    void insert(Task* task)
    {
        ++m_inserts;
        if (m_mode == Mode::Keep)
        {
            m_tasks.push_back(task);
        }
        else
        {
            if (m_mode == Mode::RunAtOnce)
            {
                task->execute();
            }
            delete task;
        }
        if (m_atEndOfInsert)
        {
            m_atEndOfInsert();
        }
    }

    void Clear()
    {
        for (const Task* task : m_tasks)
        {
            delete task;
        }
        m_tasks.clear();
    }

    std::vector<Task*> m_tasks; ///< owned
    int m_inserts = 0;
    std::function<void()> m_atEndOfInsert;

private:
    const Mode m_mode;
};

/// Keeps what is armed until the test lets it expire.
class HandDrivenTimers final : public ITimerService
{
public:
    struct Armed
    {
        std::weak_ptr<AsyncTask> task;
        unsigned long armingId;
        std::chrono::milliseconds delay;
    };

    void Arm(std::weak_ptr<AsyncTask> task, unsigned long armingId, std::chrono::milliseconds delay) override
    {
        if (m_onArm)
        {
            m_onArm();
        }
        m_armed.push_back({std::move(task), armingId, delay});
    }
    void Shutdown() override { m_armed.clear(); }
    Clock::time_point Now() const override { return {}; }

    /// Lets everything expire that is armed now; not what is armed meanwhile.
    void Expire();

    std::vector<Armed> m_armed;
    std::function<void()> m_onArm;
};

} // namespace ps_ns::test
