#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace ps_ns::gateway
{

/// What one session has still to be sent, in bytes: it knows when books are to conflate, when trades are to be dropped,
/// and when the session is too slow to go on. Texts stand in it as they will be written: each on a line, many of them
/// in a row, so that one write takes them all.
///
/// Threads: the gateway's I/O thread.
class OutboundQueue
{
public:
    /// Of one write: progress is seen by what a client has taken.
    static constexpr std::size_t kWriteBytes = 64 * 1024;

    /// Texts for one write, as lines without an end of the last one.
    struct Batch
    {
        std::string lines;
        std::uint64_t count = 0;
    };

    /// The marks of Limits: above the first books conflate, above the second the session ends.
    OutboundQueue(std::size_t conflateAbove_bytes, std::size_t closeAbove_bytes, std::size_t write_bytes = kWriteBytes)
        : m_conflateAbove(conflateAbove_bytes)
        , m_closeAbove(closeAbove_bytes)
        , m_write(write_bytes)
    {
    }

    /// A line, or so many of them.
    void Push(std::string_view text, std::uint64_t lines = 1);

    bool IsEmpty() const noexcept { return m_batches.empty(); }
    /// Books are to wait, so that only the latest of each is sent.
    bool MustConflate() const noexcept { return GetUnsent() > m_conflateAbove; }
    /// Another text would not make books conflate.
    bool StaysFluentWith(std::size_t bytes) const noexcept { return GetUnsent() + bytes <= m_conflateAbove; }
    /// There is room for another text below the mark at which the session ends.
    bool HasRoomFor(std::size_t bytes) const noexcept { return GetUnsent() + bytes <= m_closeAbove; }
    bool IsOverfull() const noexcept { return GetUnsent() > m_closeAbove; }
    /// Queued, and being written.
    std::size_t GetUnsent() const noexcept { return m_queued + m_writing; }

    /// Takes texts for one write: as many as fit, and at least one. They count as unsent until FinishWrite.
    Batch BeginWrite();
    /// The written text comes back: its memory is used again.
    void FinishWrite(std::string written) noexcept;
    /// Lets everything go that is not being written.
    void Clear() noexcept;

private:
    const std::size_t m_conflateAbove;
    const std::size_t m_closeAbove;
    const std::size_t m_write;
    std::deque<Batch> m_batches; ///< none is empty
    std::string m_spare;
    std::size_t m_queued = 0;
    std::size_t m_writing = 0;
};

} // namespace ps_ns::gateway
