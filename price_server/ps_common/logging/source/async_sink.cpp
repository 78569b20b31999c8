#include "logging/sinks.h"

#include <condition_variable>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace zel::logging
{
namespace
{

/// A record with its own copies. Slots of the ring keep their strings' memory from record to record.
struct QueuedRecord
{
    void Assign(const Record& record)
    {
        source = record.source->GetName();
        file = record.file;
        text = record.text;
        level = record.level;
        tag = record.tag;
        decodeType = record.decodeType;
        line = record.line;
        time = record.time;
        thread = record.thread;
    }

    std::string source;
    std::string file;
    std::string text;
    int level = 0;
    unsigned tag = 0;
    unsigned decodeType = 0;
    int line = 0;
    std::chrono::system_clock::time_point time;
    unsigned long thread = 0;
    std::uint64_t lostBefore = 0; ///< records dropped between the previous one in the queue and this one
};

} // namespace

class AsyncSink::Impl
{
public:
    Impl(std::shared_ptr<ISink> next, std::size_t capacity)
        : m_next(std::move(next))
        , m_ring(capacity)
        , m_thread([this] { Run(); })
    {
    }

    ~Impl()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_stopping = true;
        }
        m_filled.notify_one();
        m_thread.join();
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void Write(const Record& record) noexcept
    {
        {
            const std::lock_guard lock(m_mutex);
            if (m_size == m_ring.size() || !TryAssign(m_ring[(m_first + m_size) % m_ring.size()], record))
            {
                ++m_dropped;
                ++m_lost;
                return;
            }
            ++m_size;
            ++m_accepted;
        }
        m_filled.notify_one();
    }

    void Flush() noexcept
    {
        {
            std::unique_lock lock(m_mutex);
            const std::uint64_t last = m_accepted;
            m_written.wait(lock, [this, last] { return m_writtenCount >= last; });
        }
        m_next->Flush();
    }

    std::uint64_t GetDroppedCount() const noexcept
    {
        const std::lock_guard lock(m_mutex);
        return m_dropped;
    }

private:
    /// Under m_mutex. False when there is no memory for the copy: then the record counts as dropped.
    bool TryAssign(QueuedRecord& slot, const Record& record) noexcept
    {
        try
        {
            slot.Assign(record);
        }
        catch (const std::bad_alloc&)
        {
            return false;
        }
        slot.lostBefore = std::exchange(m_lost, 0);
        return true;
    }

    void Run()
    {
        QueuedRecord record;
        while (Take(record))
        {
            WriteOne(record);
            if (CountWritten())
            {
                m_next->Flush();
            }
        }
        ReportLost(TakeLost());
        m_next->Flush();
    }

    std::uint64_t TakeLost()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_lost, 0);
    }

    /// Waits for a record; false when the sink dies and the queue is empty.
    bool Take(QueuedRecord& record)
    {
        std::unique_lock lock(m_mutex);
        m_filled.wait(lock, [this] { return m_size != 0 || m_stopping; });
        if (m_size == 0)
        {
            return false;
        }
        std::swap(record, m_ring[m_first]);
        m_first = (m_first + 1) % m_ring.size();
        --m_size;
        return true;
    }

    /// True when the queue has run empty.
    bool CountWritten()
    {
        bool empty = false;
        {
            const std::lock_guard lock(m_mutex);
            ++m_writtenCount;
            empty = m_size == 0;
        }
        m_written.notify_all();
        return empty;
    }

    void WriteOne(const QueuedRecord& record)
    {
        ReportLost(record.lostBefore);
        const Source source(record.source);
        m_next->Write({record.level, record.tag, record.decodeType, &source, record.file.c_str(), record.line,
                       record.text, record.time, record.thread});
    }

    void ReportLost(std::uint64_t count)
    {
        if (count == 0)
        {
            return;
        }
        const Source source("logging");
        const std::string text = "records lost here because the queue of the log was full: " + std::to_string(count);
        const At at(30);
        m_next->Write({at.level, at.tag, kDefaultDecodeType, &source, at.file, at.line, text});
    }

    const std::shared_ptr<ISink> m_next;
    mutable std::mutex m_mutex;
    std::condition_variable m_filled;  ///< a record came, or m_stopping
    std::condition_variable m_written; ///< m_writtenCount rose
    std::vector<QueuedRecord> m_ring;  ///< under m_mutex; the queue is m_size slots from m_first, wrapping round
    std::size_t m_first = 0;           ///< under m_mutex
    std::size_t m_size = 0;            ///< under m_mutex
    std::uint64_t m_accepted = 0;      ///< under m_mutex; records ever queued
    std::uint64_t m_writtenCount = 0;  ///< under m_mutex; of those, records that `next` has taken
    std::uint64_t m_dropped = 0;       ///< under m_mutex
    std::uint64_t m_lost = 0;          ///< under m_mutex; dropped since the last record that found room
    bool m_stopping = false;           ///< under m_mutex
    std::thread m_thread;              ///< last: starts when everything above is there
};

AsyncSink::AsyncSink(std::shared_ptr<ISink> next, std::size_t capacity)
{
    if (!next)
    {
        throw std::invalid_argument("AsyncSink: no next sink");
    }
    if (capacity == 0)
    {
        throw std::invalid_argument("AsyncSink: a capacity of 0 records");
    }
    m_impl = std::make_unique<Impl>(std::move(next), capacity);
}

AsyncSink::~AsyncSink() = default;

void AsyncSink::Write(const Record& record) noexcept
{
    m_impl->Write(record);
}

void AsyncSink::Flush() noexcept
{
    m_impl->Flush();
}

std::uint64_t AsyncSink::GetDroppedCount() const noexcept
{
    return m_impl->GetDroppedCount();
}

} // namespace zel::logging
