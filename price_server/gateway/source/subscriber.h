#pragma once

#include "composite_instrument/i_flexible_price_observer.h"
#include "gateway/protocol.h"
#include "inbox.h"

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
    Subscriber(std::string name, std::string request, std::shared_ptr<Inbox> inbox)
        : IFlexiblePriceObserver(std::move(name))
        , m_subscribeRequest(request)
        , m_lastRequest(std::move(request))
        , m_inbox(std::move(inbox))
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
        m_inbox->PushText(id, FormatComponentResult(m_subscribeRequest, result, component, format));
    }
    void OnChangeScope(unsigned long id, const CompositeInstrumentDef&, Result result) override
    {
        m_inbox->PushText(id, FormatResult(GetRequest(), result));
    }
    void OnOrderBook(unsigned long id, const CompositeInstrumentDef&, const SharedBook& book) override
    {
        m_inbox->PushBook(id, book);
    }
    void OnTrades(unsigned long id, const CompositeInstrumentDef&, const SharedTrades& trades) override
    {
        m_inbox->PushTrades(id, trades);
    }
    void OnCustomFields(unsigned long id, const CompositeInstrumentDef&, const SharedFields& fields) override
    {
        m_inbox->PushFields(id, fields);
    }
    void OnUnsubscribe(unsigned long, const CompositeInstrumentDef&, Result result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
        m_inbox->PushText(Inbox::kWholeSession, FormatResult(GetRequest(), result));
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
    const std::shared_ptr<Inbox> m_inbox;
};

} // namespace ps_ns::gateway
