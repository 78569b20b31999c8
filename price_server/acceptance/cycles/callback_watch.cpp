#include "cycles/callback_watch.h"

#include "base/queue_thread.h"

#include <algorithm>

namespace ps_ns::cycles
{

void Bell::Ring()
{
    const std::lock_guard lock(m_mutex);
    m_rung.notify_all();
}

CallbackWatch::CallbackWatch(const void* queue, std::vector<std::thread::id> poolThreads,
                             const std::vector<short>& marketIds)
    : m_queue(queue)
    , m_poolThreads(std::move(poolThreads))
{
    for (const short id : marketIds)
    {
        m_isBusy[id].store(false);
    }
}

void CallbackWatch::Fault(const std::string& text)
{
    constexpr std::size_t kFaultsKept = 20;
    m_faultCount.fetch_add(1);
    const std::lock_guard lock(m_mutex);
    if (m_faults.size() < kFaultsKept)
    {
        m_faults.push_back(text);
    }
}

std::string CallbackWatch::PrintFaults() const
{
    const std::lock_guard lock(m_mutex);
    std::string text = std::to_string(m_faultCount.load()) + " faults";
    for (const std::string& fault : m_faults)
    {
        text += "\n  " + fault;
    }
    return text;
}

void CallbackWatch::ExpectQueueThread(const std::string& callback)
{
    if (!IsQueueThread(m_queue))
    {
        Fault(callback + " did not come on the queue thread");
    }
}

CallbackWatch::OnExecutor::OnExecutor(CallbackWatch& watch, short marketId, const char* callback)
    : m_isBusy(watch.m_isBusy.at(marketId))
{
    const auto& pool = watch.m_poolThreads;
    if (std::find(pool.begin(), pool.end(), std::this_thread::get_id()) == pool.end())
    {
        watch.Fault(std::string(callback) + " did not come on an executor");
    }
    if (m_isBusy.exchange(true))
    {
        watch.Fault(std::string(callback) + " came while another callback of its market ran");
    }
}

void Delivery::Ask(std::int32_t depth, bool trades)
{
    maxDepth.store(std::max(maxDepth.load(), depth));
    wantsTrades.store(wantsTrades.load() || trades);
}

void Delivery::NoteData(CallbackWatch& watch, const std::string& who)
{
    if (isRemoved.load() && ++dataAfterRemoval > 1)
    {
        watch.Fault(who + ": data has begun to come after its removal");
    }
}

void Delivery::NoteBook(CallbackWatch& watch, Bell& bell, const std::string& who, const MergedOrderBook& book)
{
    watch.books.fetch_add(1, std::memory_order_relaxed);
    NoteData(watch, who);
    const auto describe = [&]
    {
        return who + ": book of epoch " + std::to_string(book.epoch) + " sequence " + std::to_string(book.sequence) +
               ", before it epoch " + std::to_string(epoch) + " sequence " + std::to_string(sequence);
    };
    if (isGone.load())
    {
        watch.Fault(describe() + ", after its end");
    }
    if (book.epoch < epoch || (book.epoch == epoch && book.sequence < sequence))
    {
        watch.Fault(describe() + ": it goes backwards");
    }
    const auto depth = static_cast<std::uint32_t>(maxDepth.load());
    if (book.bids.count > depth || book.asks.count > depth)
    {
        watch.Fault(describe() + ": deeper than asked for");
    }
    epoch = book.epoch;
    sequence = book.sequence;
    newestEpoch.store(epoch);
    if (epoch >= awaitedEpoch.load())
    {
        bell.Ring();
    }
}

void Delivery::NoteTrades(CallbackWatch& watch, const std::string& who, const std::vector<Trade>& list)
{
    watch.trades.fetch_add(1, std::memory_order_relaxed);
    NoteData(watch, who);
    if (isGone.load() || !wantsTrades.load() || list.empty())
    {
        watch.Fault(who + ": trades after its end, that nobody asked for, or none");
    }
}

void Delivery::NoteAnswer(CallbackWatch& watch, const std::string& who, CompositeComponentType::Type component)
{
    watch.answers.fetch_add(1, std::memory_order_relaxed);
    ++answers[static_cast<std::size_t>(component)];
    if (isGone.load())
    {
        watch.Fault(who + ": an answer after its end");
    }
}

void Delivery::NoteFailure(CallbackWatch& watch, const std::string& who, Request request)
{
    watch.failures.fetch_add(1, std::memory_order_relaxed);
    failures[request].fetch_add(1);
    if (isGone.load())
    {
        watch.Fault(who + ": a failure after its end");
    }
}

} // namespace ps_ns::cycles
