#include "price_unifier/source/composite_subscription_mgr.h"

#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/detail/manager_log.h"

#include <algorithm>

namespace ps_ns
{

/// The states of a change, by market and old symbol:
///
/// | state | held in | entered by | left by |
/// |---|---|---|---|
/// | idle | neither map | start; the last response, when none failed | a request with a matching subscription |
/// | waiting | both maps, a response awaited | the request | the last response |
/// | redirected | as waiting, another new symbol | a request to change this change's new symbol | as waiting |
/// | stuck | both maps, a response failed | the last response | nothing: later requests are rejected |

namespace
{

/// The tail that all lines about a change have: what becomes what, on which market.
void WriteChange(std::ostream& text, const std::string& oldSymbol, const std::string& newSymbol, short marketId)
{
    text << "oldSymbol=\"" << oldSymbol << "\" newSymbol=\"" << newSymbol << "\" marketId=" << marketId;
}

} // namespace

void CompositeSubscriptionMgr::ChangeSymbol(short marketId, const std::string& oldSymbol, const std::string& newSymbol)
{
    Post([this, marketId, oldSymbol = oldSymbol, newSymbol = newSymbol]
         { RunSymbolChange(marketId, oldSymbol, newSymbol); });
}

void CompositeSubscriptionMgr::RunSymbolChange(short marketId, const std::string& oldSymbol,
                                               const std::string& newSymbol)
{
    AssertOnQueueThread(m_dataQueue);
    auto& changes = m_symbolChanges[marketId];
    if (const auto pending = changes.find(oldSymbol); pending != changes.end())
    {
        detail::LogManager(30,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr::ChangeSymbol: rejecting change."
                                    << " symbol=\"" << oldSymbol << "\" is already pending a change to"
                                    << " newSymbol=\"" << pending->second << "\" marketId=" << marketId;
                           });
        return;
    }

    // A change to the old symbol is in flight: it goes straight on to the new one, and nothing is unsubscribed, even if
    // live subscriptions bear the old symbol already.
    std::size_t redirected = 0;
    for (auto& [from, to] : changes)
    {
        if (to == oldSymbol)
        {
            to = newSymbol;
            ++redirected;
        }
    }
    if (redirected != 0)
    {
        detail::LogManager(10,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr::ChangeSymbol:"
                                    << " change to symbol=\"" << oldSymbol
                                    << "\" in flight, pendingCount=" << redirected << " ";
                               WriteChange(text, oldSymbol, newSymbol, marketId);
                           });
        return;
    }

    std::size_t waiting = 0;
    for (const auto& [id, subscription] : m_subscriptionByCompositeInstrumentID)
    {
        if (subscription->GetDefinition().marketId != marketId || subscription->GetSymbol() != oldSymbol ||
            subscription->GetLifeState() == CompositeInstrumentSubscription::DirectUnsubscribed)
        {
            continue;
        }
        ++waiting;
        m_symbolChangeResponses[marketId][oldSymbol].responses.push_back(
            {CompositeInstrumentID(subscription->GetDefinition()), SubscriptionChangeResponse::Awaited, subscription});
        // It may answer before this returns: the answer only posts.
        subscription->UnsubscribeDirect(
            [this, subscription = subscription, newSymbol, marketId](const CompositeInstrumentID& answering, bool ok)
            {
                Post([this, answering, subscription, ok, newSymbol, marketId]
                     { RunSymbolChangeResponse(answering, subscription, ok, newSymbol, marketId); });
            });
    }
    if (waiting != 0)
    {
        changes[oldSymbol] = newSymbol;
    }
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << "CompositeSubscriptionMgr::ChangeSymbol: waitingResponses=" << waiting << " ";
                           WriteChange(text, oldSymbol, newSymbol, marketId);
                       });
}

void CompositeSubscriptionMgr::RunSymbolChangeResponse(const CompositeInstrumentID& id,
                                                       CompositeInstrumentSubscription* subscription, bool ok,
                                                       const std::string& newSymbol, short marketId)
{
    AssertOnQueueThread(m_dataQueue);
    // A copy: resubscribing gives the subscription its new symbol.
    const std::string oldSymbol = subscription->GetSymbol();
    const auto market = m_symbolChangeResponses.find(id.marketId);
    if (market == m_symbolChangeResponses.end())
    {
        return;
    }
    const auto change = market->second.find(oldSymbol);
    if (change == market->second.end())
    {
        return;
    }

    std::vector<SubscriptionChangeResponse>& responses = change->second.responses;
    for (SubscriptionChangeResponse& response : responses)
    {
        if (response.id == id)
        {
            response.state = ok ? SubscriptionChangeResponse::Unsubscribed : SubscriptionChangeResponse::Failed;
        }
    }
    const auto hasState = [&](int state)
    {
        return std::any_of(responses.begin(), responses.end(),
                           [state](const SubscriptionChangeResponse& response) { return response.state == state; });
    };
    if (hasState(SubscriptionChangeResponse::Awaited))
    {
        return;
    }
    if (hasState(SubscriptionChangeResponse::Failed))
    {
        // Both entries stay on purpose: the symbol remains marked, and later changes of it are rejected.
        detail::LogManager(30,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr::ChangeSymbol: at least one Unsubscribe failed!"
                                    << " Cannot resubscribe. ";
                               WriteChange(text, oldSymbol, newSymbol, marketId);
                           });
        return;
    }

    auto& changes = m_symbolChanges[id.marketId];
    const auto recorded = changes.find(oldSymbol);
    if (recorded == changes.end())
    {
        detail::LogManager(30,
                           [&](std::ostream& text)
                           {
                               text << "CompositeSubscriptionMgr::ChangeSymbol: no newSymbol found!"
                                    << " Cannot resubscribe. ";
                               WriteChange(text, oldSymbol, newSymbol, marketId);
                           });
        return;
    }
    // Not always the symbol of this request: a later one may have redirected the change.
    const std::string recordedSymbol = std::move(recorded->second);
    changes.erase(recorded);
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << "CompositeSubscriptionMgr::ChangeSymbol: all Unsubscribe responses received."
                                << " Resubscribing. ";
                           WriteChange(text, oldSymbol, recordedSymbol, marketId);
                       });
    for (const SubscriptionChangeResponse& response : responses)
    {
        response.subscription->ResubscribeDirect(recordedSymbol);
    }
    market->second.erase(change);
}

} // namespace ps_ns
