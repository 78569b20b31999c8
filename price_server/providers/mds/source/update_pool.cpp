#include "mds/update_pool.h"

#include <algorithm>
#include <new>

namespace ps_ns
{

void InFlightBudget::Take()
{
    const std::lock_guard lock(m_mutex);
    ++m_inFlight;
    m_mostInFlight = std::max(m_mostInFlight, m_inFlight);
}

void InFlightBudget::GiveBack() noexcept
{
    const std::lock_guard lock(m_mutex);
    --m_inFlight;
    if (m_waiting != 0)
    {
        m_changed.notify_all();
    }
}

bool InFlightBudget::WaitForRoom(std::size_t wanted)
{
    std::unique_lock lock(m_mutex);
    const std::size_t limit = std::max(m_limit, wanted);
    ++m_waiting;
    m_changed.wait(lock, [&] { return m_isStopped || m_inFlight + wanted <= limit; });
    --m_waiting;
    return !m_isStopped;
}

void InFlightBudget::Stop()
{
    const std::lock_guard lock(m_mutex);
    m_isStopped = true;
    m_changed.notify_all();
}

std::size_t InFlightBudget::GetInFlight() const
{
    const std::lock_guard lock(m_mutex);
    return m_inFlight;
}

std::size_t InFlightBudget::GetMostInFlight() const
{
    const std::lock_guard lock(m_mutex);
    return m_mostInFlight;
}

bool InFlightBudget::IsWaiting() const
{
    const std::lock_guard lock(m_mutex);
    return m_waiting != 0;
}

BlockStore::~BlockStore()
{
    for (void* const block : m_blocks)
    {
        ::operator delete(block);
    }
}

void* BlockStore::Take(std::size_t size)
{
    {
        const std::lock_guard lock(m_mutex);
        m_size = m_size == 0 ? size : m_size;
        if (size == m_size && !m_blocks.empty())
        {
            void* const block = m_blocks.back();
            m_blocks.pop_back();
            return block;
        }
    }
    return ::operator new(size);
}

void BlockStore::GiveBack(void* block, std::size_t size) noexcept
{
    const std::lock_guard lock(m_mutex);
    if (size == m_size)
    {
        try
        {
            m_blocks.push_back(block);
            return;
        }
        catch (const std::bad_alloc&)
        {
        }
    }
    ::operator delete(block);
}

} // namespace ps_ns
