#pragma once

#include "book_stream.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace ps_ns::gateway
{

/// What one session has still to be sent, in bytes: it knows when books are to conflate, when trades are to be dropped,
/// and when the session is too slow to go on.
///
/// Threads: the gateway's I/O thread.
class OutboundQueue
{
public:
    /// The marks of Limits: above the first books conflate, above the second the session ends.
    OutboundQueue(std::size_t conflateAbove_bytes, std::size_t closeAbove_bytes)
        : m_conflateAbove(conflateAbove_bytes)
        , m_closeAbove(closeAbove_bytes)
    {
    }

    void Push(SharedText text);
    void Push(std::string text) { Push(std::make_shared<const std::string>(std::move(text))); }

    bool IsEmpty() const noexcept { return m_texts.empty(); }
    /// Books are to wait, so that only the latest of each is sent.
    bool MustConflate() const noexcept { return GetUnsent() > m_conflateAbove; }
    /// There is room for another text below the mark at which the session ends.
    bool HasRoomFor(std::size_t bytes) const noexcept { return GetUnsent() + bytes <= m_closeAbove; }
    bool IsOverfull() const noexcept { return GetUnsent() > m_closeAbove; }
    /// Queued, and being written.
    std::size_t GetUnsent() const noexcept { return m_queued + m_writing; }

    /// Takes texts for one write: as many as fit `most_bytes`, and at least one. They count as unsent until
    /// FinishWrite.
    std::vector<SharedText> BeginWrite(std::size_t most_bytes);
    void FinishWrite() noexcept { m_writing = 0; }
    /// Lets everything go that is not being written.
    void Clear() noexcept;

private:
    const std::size_t m_conflateAbove;
    const std::size_t m_closeAbove;
    std::deque<SharedText> m_texts;
    std::size_t m_queued = 0;
    std::size_t m_writing = 0;
};

} // namespace ps_ns::gateway
