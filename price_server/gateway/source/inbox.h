#pragma once

#include "book_stream.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <variant>
#include <vector>

namespace ps_ns::gateway
{

using SharedTrades = std::shared_ptr<const std::vector<Trade>>;
using SharedFields = std::shared_ptr<const CustomFields>;

/// What the executors bring for one session, until the I/O thread takes it.
///
/// Bounded: when the session lags, or much waits already, only the latest book of each subscription and its latest
/// fields are kept, and trades are counted as lost.
///
/// Threads: Push from any; Take from the I/O thread. `wake` is called from Push, without the lock, when something waits
/// that did not before.
class Inbox
{
public:
    static constexpr unsigned long kWholeSession = 0; ///< no subscription has this id
    static constexpr std::size_t kMostEvents = 1024;

    struct Event
    {
        unsigned long subscription;
        std::variant<SharedBook, SharedTrades, SharedFields, std::string> what; ///< a text: a message as it is
    };
    /// What has been kept of a subscription instead of events.
    struct Overflow
    {
        SharedBook book;                ///< null: none
        std::uint64_t skippedBooks = 0; ///< beside the one that is kept
        std::uint64_t lostTrades = 0;
        SharedFields fields; ///< null: none
    };
    struct Content
    {
        std::vector<Event> events;
        std::map<unsigned long, Overflow> overflow; ///< newer than the events
    };

    explicit Inbox(std::function<void()> wake)
        : m_wake(std::move(wake))
    {
    }

    void PushBook(unsigned long subscription, SharedBook book);
    void PushTrades(unsigned long subscription, SharedTrades trades);
    void PushFields(unsigned long subscription, SharedFields fields);
    /// `subscription` may be kWholeSession: the text is wanted whatever has become of the subscription.
    void PushText(unsigned long subscription, std::string text);
    Content Take();

    /// The session has more unsent than it should: books are to be kept as the latest only.
    void SetConflating(bool isConflating) noexcept { m_isConflating.store(isConflating, std::memory_order_relaxed); }
    /// Nothing is taken in any more.
    void Close();

private:
    template <class Add>
    void Change(Add add);

    const std::function<void()> m_wake;
    std::atomic<bool> m_isConflating{false};
    std::mutex m_mutex;
    Content m_content;       ///< under m_mutex
    bool m_isWoken = false;  ///< under m_mutex
    bool m_isClosed = false; ///< under m_mutex
};

} // namespace ps_ns::gateway
