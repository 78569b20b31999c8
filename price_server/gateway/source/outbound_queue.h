#pragma once

#include "shared_text.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns::gateway
{

/// Texts for one write: each on a line, without an end of the last one. Short texts are copied behind one another; long
/// ones, which other sessions have in their queues as well, are shared, and written from where they stand.
///
/// Threads: one at a time.
class OutboundBatch
{
public:
    /// Shorter texts are copied: to hand one more part to the system takes about as long as that.
    static constexpr std::size_t kShareFrom_bytes = 2048;

    /// A line, or so many of them.
    void Append(std::string_view text, std::uint64_t lines);
    void Append(const SharedText& text, std::uint64_t lines);
    /// Room for short texts of so many bytes: growing, it would take up to twice that.
    void Reserve(std::size_t bytes) { m_own.reserve(bytes); }
    /// Forgets the texts. Memory for a few short ones is used again.
    void Clear() noexcept;

    bool IsEmpty() const noexcept { return m_lines == 0; }
    std::size_t GetSize() const noexcept { return m_size; }
    std::size_t GetPartCount() const noexcept { return m_parts.size(); }
    std::uint64_t GetLineCount() const noexcept { return m_lines; }
    /// Calls `take` with one part of the text after another. They stay while the batch does, unchanged and where it is.
    template <class Take>
    void ForEachPart(Take take) const;

private:
    struct Part
    {
        SharedText shared;     ///< null: it stands in m_own
        std::size_t begin = 0; ///< in m_own
        std::size_t size = 0;
    };

    void AppendOwn(std::string_view text);
    void EndLine();

    std::vector<Part> m_parts;
    std::string m_own;
    std::size_t m_size = 0;
    std::uint64_t m_lines = 0;
};

template <class Take>
void OutboundBatch::ForEachPart(Take take) const
{
    for (const Part& part : m_parts)
    {
        take(part.shared != nullptr ? std::string_view(*part.shared)
                                    : std::string_view(m_own).substr(part.begin, part.size));
    }
}

/// What one session has still to be sent, in bytes: it knows when books are to conflate, when trades are to be dropped,
/// and when the session is too slow to go on. Texts wait as they will be written, many of them in one write.
///
/// Threads: the gateway's I/O thread.
class OutboundQueue
{
public:
    /// Of one write: progress is seen by what a client has taken.
    static constexpr std::size_t kWriteBytes = 64 * 1024;

    /// The marks of Limits: above the first books conflate, above the second the session ends.
    OutboundQueue(std::size_t conflateAbove_bytes, std::size_t closeAbove_bytes, std::size_t write_bytes = kWriteBytes)
        : m_conflateAbove(conflateAbove_bytes)
        , m_closeAbove(closeAbove_bytes)
        , m_write(write_bytes)
    {
    }

    /// A line, or so many of them.
    void Push(std::string_view text, std::uint64_t lines = 1) { PushText(text, text.size(), lines); }
    void Push(const SharedText& text, std::uint64_t lines = 1) { PushText(text, text->size(), lines); }

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
    OutboundBatch BeginWrite();
    /// The batch comes back: its memory is used again.
    void FinishWrite(OutboundBatch written) noexcept;
    /// Lets everything go that is not being written.
    void Clear() noexcept;

private:
    template <class Text>
    void PushText(const Text& text, std::size_t bytes, std::uint64_t lines);

    const std::size_t m_conflateAbove;
    const std::size_t m_closeAbove;
    const std::size_t m_write;
    std::deque<OutboundBatch> m_batches; ///< none is empty
    OutboundBatch m_spare;
    std::size_t m_queued = 0;
    std::size_t m_writing = 0;
};

} // namespace ps_ns::gateway
