#pragma once

#include "book_stream.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace ps_ns::gateway
{

class ClientSession;

using SharedTrades = std::shared_ptr<const std::vector<Trade>>;
using SharedFields = std::shared_ptr<const CustomFields>;

/// What the executors bring for the subscribers of one instrument, until the I/O thread takes it. What many of them are
/// told one after another is kept once, with a list of who has been told.
///
/// Bounded: when the I/O thread lags, only the latest book of each subscription and its latest fields are kept, and
/// trades are counted as lost.
///
/// Threads: Push from any; Take from the I/O thread. `wake` is called from Push, under the lock, when something waits
/// that did not before; it must not call the mailbox.
class Mailbox : public std::enable_shared_from_this<Mailbox>
{
public:
    static constexpr std::size_t kMostEvents = 1024;
    static constexpr std::size_t kMostReceivers = 256 * 1024;

    /// A message for a session, whatever has become of the subscription.
    struct SessionText
    {
        std::weak_ptr<ClientSession> session;
        std::string text;
    };
    using What = std::variant<SharedBook, SharedTrades, SharedFields, std::string, SessionText>;
    struct Event
    {
        What what;
        std::uint32_t receivers; ///< how many of Content::receivers it is for
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
        std::vector<unsigned long> receivers;       ///< ids of subscriptions, for one event after another
        std::map<unsigned long, Overflow> overflow; ///< newer than the events

        void Clear();
    };

    explicit Mailbox(std::function<void(std::shared_ptr<Mailbox>)> wake)
        : m_wake(std::move(wake))
    {
    }

    void PushBook(unsigned long subscription, const SharedBook& book);
    void PushTrades(unsigned long subscription, const SharedTrades& trades);
    void PushFields(unsigned long subscription, const SharedFields& fields);
    /// A message as it is, of a subscription.
    void PushText(unsigned long subscription, std::string text);
    void PushText(const std::weak_ptr<ClientSession>& session, std::string text);
    /// Exchanges the content for what stands in `content`, which is dropped: the memory of both is used again.
    void Take(Content& content);
    /// Nothing is taken in any more, and nobody is woken.
    void Close();

private:
    template <class Add>
    void Change(Add add);
    template <class Shared>
    void AddEvent(unsigned long subscription, const Shared& what);
    bool IsFull() const noexcept;
    /// Null when nothing has been kept of it.
    Overflow* FindOverflow(unsigned long subscription);

    const std::function<void(std::shared_ptr<Mailbox>)> m_wake;
    std::mutex m_mutex;
    Content m_content;       ///< under m_mutex
    bool m_isWoken = false;  ///< under m_mutex
    bool m_isClosed = false; ///< under m_mutex
};

} // namespace ps_ns::gateway
