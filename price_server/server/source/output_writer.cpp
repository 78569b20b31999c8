#include "server/output_writer.h"

#include <algorithm>
#include <cerrno>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace ps_ns
{
namespace
{

/// A pipe that polls as writable takes this much without blocking.
constexpr std::size_t kChunk = 4096;
constexpr int kPoll_ms = 20;

} // namespace

OutputWriter::OutputWriter(int descriptor, std::size_t capacity, WhenFull whenFull)
    : m_descriptor(descriptor)
    , m_capacity(capacity)
    , m_waits(whenFull == WhenFull::Wait)
    , m_thread([this] { Run(); })
{
}

OutputWriter::~OutputWriter()
{
    Close(std::chrono::milliseconds(0));
}

bool OutputWriter::Write(std::string text)
{
    std::unique_lock lock(m_mutex);
    const auto hasRoom = [&] { return m_queued == 0 || m_queued + text.size() <= m_capacity; };
    m_changed.wait(lock, [&] { return !m_waits || m_isClosed || m_error != 0 || hasRoom(); });
    if (m_isClosed || m_error != 0)
    {
        return false;
    }
    if (!hasRoom())
    {
        ++m_dropped;
        return false;
    }
    m_queued += text.size();
    m_texts.push_back(std::move(text));
    m_changed.notify_all();
    return true;
}

void OutputWriter::Release()
{
    const std::lock_guard lock(m_mutex);
    m_waits = false;
    m_changed.notify_all();
}

void OutputWriter::Close(std::chrono::milliseconds patience)
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_isClosed)
        {
            m_deadline = Clock::now() + patience;
        }
        m_isClosed = true;
        m_changed.notify_all();
    }
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

bool OutputWriter::IsIdle() const
{
    const std::lock_guard lock(m_mutex);
    return m_queued == 0;
}

int OutputWriter::GetError() const
{
    const std::lock_guard lock(m_mutex);
    return m_error;
}

std::uint64_t OutputWriter::GetDroppedCount() const
{
    const std::lock_guard lock(m_mutex);
    return m_dropped;
}

void OutputWriter::Run()
{
    std::unique_lock lock(m_mutex);
    for (;;)
    {
        m_changed.wait(lock, [this] { return m_isClosed || !m_texts.empty(); });
        if (m_texts.empty())
        {
            return;
        }
        std::string text;
        while (!m_texts.empty() && text.size() < kChunk)
        {
            text += m_texts.front();
            m_texts.pop_front();
        }
        lock.unlock();
        const bool isWritten = WriteOut(text);
        lock.lock();
        m_queued -= text.size();
        m_changed.notify_all();
        if (!isWritten)
        {
            return;
        }
    }
}

/// False: it cannot, or may not any more.
bool OutputWriter::WriteOut(const std::string& text)
{
    std::size_t written = 0;
    while (written < text.size())
    {
        if (!MayGoOn())
        {
            return false;
        }
        pollfd ready{m_descriptor, POLLOUT, 0};
        if (::poll(&ready, 1, kPoll_ms) <= 0)
        {
            continue;
        }
        const ssize_t count = ::write(m_descriptor, text.data() + written, std::min(kChunk, text.size() - written));
        if (count >= 0)
        {
            written += static_cast<std::size_t>(count);
        }
        else if (errno != EINTR && errno != EAGAIN)
        {
            const int error = errno;
            const std::lock_guard lock(m_mutex);
            m_error = error;
            return false;
        }
    }
    return true;
}

bool OutputWriter::MayGoOn()
{
    const std::lock_guard lock(m_mutex);
    return !m_isClosed || Clock::now() < m_deadline;
}

} // namespace ps_ns
