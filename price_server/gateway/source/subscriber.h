#pragma once

#include "composite_instrument/i_flexible_price_observer.h"
#include "gateway/protocol.h"
#include "mailbox.h"

#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace ps_ns::gateway
{

/// One subscription of one session, as the price manager sees it: a flexible client with an id of its own. It only
/// hands on.
///
/// Threads: the manager's and the executors'; SetRequest from the I/O thread.
class Subscriber final : public IFlexiblePriceObserver
{
public:
    /// `name` appears in the manager's log; `request` is who hears of what the manager answers.
    Subscriber(std::string name, std::string request, std::shared_ptr<Mailbox> mailbox,
               std::weak_ptr<ClientSession> session)
        : IFlexiblePriceObserver(std::move(name))
        , m_subscribeRequest(request)
        , m_lastRequest(std::move(request))
        , m_mailbox(std::move(mailbox))
        , m_session(std::move(session))
    {
    }

    /// The request under way: a failure that comes now is its.
    void SetRequest(std::string request)
    {
        const std::lock_guard lock(m_mutex);
        m_lastRequest = std::move(request);
    }

    void OnSubscribe(unsigned long id, const CompositeInstrumentDef&, const EventInfo&, Result result, unsigned long,
                     const PriceFormat& format, CompositeComponentType::Type component,
                     const CompositeSubscriptionState&) override
    {
        m_mailbox->PushText(id, FormatComponentResult(m_subscribeRequest, result, component, format));
    }
    void OnChangeScope(unsigned long id, const CompositeInstrumentDef&, Result result) override
    {
        m_mailbox->PushText(id, FormatResult(GetRequest(), result));
    }
    void OnOrderBook(unsigned long id, const CompositeInstrumentDef&, const SharedBook& book) override
    {
        m_mailbox->PushBook(id, book);
    }
    void OnTrades(unsigned long id, const CompositeInstrumentDef&, const SharedTrades& trades) override
    {
        m_mailbox->PushTrades(id, trades);
    }
    void OnCustomFields(unsigned long id, const CompositeInstrumentDef&, const SharedFields& fields) override
    {
        m_mailbox->PushFields(id, fields);
    }
    void OnUnsubscribe(unsigned long, const CompositeInstrumentDef&, Result result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
        m_mailbox->PushText(m_session, FormatResult(GetRequest(), result));
    }

private:
    std::string GetRequest()
    {
        const std::lock_guard lock(m_mutex);
        return m_lastRequest;
    }

    const std::string m_subscribeRequest;
    std::mutex m_mutex;
    std::string m_lastRequest; ///< under m_mutex
    const std::shared_ptr<Mailbox> m_mailbox;
    const std::weak_ptr<ClientSession> m_session;
};

} // namespace ps_ns::gateway
