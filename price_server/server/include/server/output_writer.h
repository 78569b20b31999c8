#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

namespace ps_ns
{

/// Writes texts to a file descriptor on a thread of its own, so that a reader who does not read holds up nobody but who
/// wants to be held up.
///
/// Threads: Write, Release and the questions from any thread; Close and the destructor are the owner's.
/// Ownership: the descriptor is not owned. A reader that has gone raises no signal when SIGPIPE is ignored.
class OutputWriter
{
public:
    enum class WhenFull
    {
        Wait, ///< Write waits for room
        Drop  ///< Write drops the text, and counts it
    };

    /// `capacity` is in bytes; a text that is longer still fits an empty queue.
    OutputWriter(int descriptor, std::size_t capacity, WhenFull whenFull);
    /// Closes without patience.
    ~OutputWriter();
    OutputWriter(const OutputWriter&) = delete;
    OutputWriter& operator=(const OutputWriter&) = delete;

    /// False: the text was dropped, or the writer is closed or broken.
    bool Write(std::string text);
    /// From now on Write waits no more: it drops.
    void Release();
    /// Writes what is queued, for as long as `patience` lasts, and ends the thread. Idempotent.
    void Close(std::chrono::milliseconds patience);

    /// Nothing is queued or being written.
    bool IsIdle() const;
    /// The reader has gone, or writing has failed: errno's value; 0: neither.
    int GetError() const;
    std::uint64_t GetDroppedCount() const;

private:
    using Clock = std::chrono::steady_clock;

    void Run();
    bool WriteOut(const std::string& text);
    bool MayGoOn();

    const int m_descriptor;
    const std::size_t m_capacity;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed; ///< there is room, or text, or an end
    std::deque<std::string> m_texts;   ///< under m_mutex
    std::size_t m_queued = 0;          ///< under m_mutex: bytes queued or being written
    std::uint64_t m_dropped = 0;       ///< under m_mutex
    bool m_waits;                      ///< under m_mutex
    bool m_isClosed = false;           ///< under m_mutex
    int m_error = 0;                   ///< under m_mutex
    Clock::time_point m_deadline;      ///< under m_mutex: once closed
    std::thread m_thread;              ///< the owner's
};

} // namespace ps_ns
