#pragma once

#include "common/data_queue.h"

#include <memory>
#include <utility>

namespace ps_ns
{
namespace detail
{
const std::shared_ptr<const zel::logging::Source>& DataQueueLogSource();
}

template <class Element>
DataQueue<Element>::DataQueue(std::string name, zel::metrics::Gauge depthGauge)
    : m_name(std::move(name))
    , m_depthGauge(std::move(depthGauge))
{
    Node* const dummy = new Node;
    m_head.value = dummy;
    m_tail.value.store(dummy);
}

template <class Element>
DataQueue<Element>::~DataQueue()
{
    while (Task* const task = take())
    {
        DisposeOf(task);
    }
    delete m_head.value;
}

template <class Element>
void DataQueue<Element>::insert(Task* task)
{
    if (m_shutdown.load())
    {
        refuse(task);
        return;
    }

    const std::uint64_t size = m_size.fetch_add(1) + 1;
    if (size > m_maxSize.load())
    {
        // Not one atomic step with the comparison: a racing producer may lower the mark by one, which is accepted.
        m_maxSize.store(m_size.load());
    }

    // Both allocations come before the lock.
    std::unique_ptr<Element> element;
    Node* node = nullptr;
    try
    {
        element.reset(new Element{task});
        node = new Node;
    }
    catch (...)
    {
        m_size.fetch_sub(1);
        DisposeOf(task);
        throw;
    }
    node->value = element.release();

    link(node);
    ++m_depthGauge;
}

template <class Element>
void DataQueue<Element>::link(Node* node) noexcept
{
    const bool isContended = m_producerLock.value.exchange(true);
    std::chrono::steady_clock::time_point begin;
    if (isContended)
    {
        begin = std::chrono::steady_clock::now();
        while (m_producerLock.value.exchange(true))
        {
        }
    }
    m_tail.value.load()->next.store(node);
    m_tail.value.store(node);
    m_producerLock.value.store(false);
    if (isContended)
    {
        noteWait(begin);
    }
}

template <class Element>
void DataQueue<Element>::noteWait(std::chrono::steady_clock::time_point begin) noexcept
{
    const auto wait = std::chrono::steady_clock::now() - begin;
    const auto wait_ns = static_cast<std::uint64_t>(std::chrono::nanoseconds(wait).count());
    std::uint64_t longest_ns = m_longestWait_ns.load();
    while (wait_ns > longest_ns && !m_longestWait_ns.compare_exchange_weak(longest_ns, wait_ns))
    {
    }
}

template <class Element>
void DataQueue<Element>::refuse(Task* task)
{
    const void* const address = task; // the task is gone when the line is written
    DisposeOf(task);
    zel::logging::Log(0, detail::DataQueueLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "DataQueue " << m_name << " @" << static_cast<const void*>(this)
                               << " is in Shutdown mode. Ignoring insert for task @" << address;
                      });
}

template <class Element>
Task* DataQueue<Element>::take()
{
    Task* task = nullptr;
    uncount(take({&task, 1}));
    return task;
}

template <class Element>
std::size_t DataQueue<Element>::take(std::span<Task*> tasks)
{
    while (m_consumerLock.value.exchange(true, std::memory_order_acquire))
    {
    }
    Node* const oldDummy = m_head.value;
    Node* newDummy = oldDummy;
    std::size_t count = 0;
    for (Node* next = nullptr; count < tasks.size() && (next = newDummy->next.load()) != nullptr; ++count)
    {
        newDummy = next;
        __builtin_prefetch(next->value); // its producer has it; it comes while the next nodes are looked at
    }
    // The last of the nodes becomes the new dummy. Its value is out then, but still written there: it is not wiped,
    // because the node's line may be on its way to the producer.
    m_head.value = newDummy;
    unpack(oldDummy, tasks.first(count)); // under the lock: another consumer would free the new dummy
    m_consumerLock.value.store(false, std::memory_order_release);
    return count;
}

template <class Element>
void DataQueue<Element>::uncount(std::size_t count) noexcept
{
    if (count != 0) // a look that found nothing leaves the line to the producers
    {
        m_size.fetch_sub(count);
        m_depthGauge -= static_cast<double>(count);
    }
}

/// Gets the tasks out of the nodes behind `dummy` and frees what held them: the dummy and all of the nodes but the
/// last, which is the new dummy.
template <class Element>
void DataQueue<Element>::unpack(Node* dummy, std::span<Task*> tasks) noexcept
{
    for (Task*& task : tasks)
    {
        Node* const node = dummy->next.load(std::memory_order_relaxed);
        const std::unique_ptr<const Element> element(node->value);
        task = element->task;
        prefetchTask(task);
        delete std::exchange(dummy, node);
    }
}

/// A task lies on two lines, which its producer has.
template <class Element>
void DataQueue<Element>::prefetchTask(const Task* task) noexcept
{
    __builtin_prefetch(task);
    __builtin_prefetch(reinterpret_cast<const char*>(task) + kCacheLineSize);
}

} // namespace ps_ns
