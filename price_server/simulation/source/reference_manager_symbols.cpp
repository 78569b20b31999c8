#include "reference_texts.h"
#include "simulation/reference_manager.h"

#include <algorithm>

namespace ps_ns::simulation
{

using namespace texts;
using ps_messages_ns::SubscriptionResult;

void ReferenceManager::PostCheckPending()
{
    m_expectations.PostAction([this] { RunCheckPending(); });
}

void ReferenceManager::RunCheckPending()
{
    bool hasErased = false;
    for (auto entry = pendingProvider.begin(); entry != pendingProvider.end();)
    {
        const PendingSubscriptionID& key = entry->first;
        const auto [provider, isFinal] = providers.conditions.Decide(key.marketId, key.symbol);
        if (!isFinal)
        {
            ++entry;
            continue;
        }
        m_expectations.Log(10, "MonitorPendingSymbols: marketId=" + std::to_string(key.marketId) +
                                   " submarketId=" + std::to_string(key.submarketId) + " symbol=" + Quote(key.symbol) +
                                   " finalProvider=" + std::to_string(provider));
        if (provider == ProviderType::Mds)
        {
            for (const int subscription : entry->second)
            {
                subscriptions.at(subscription)->SwitchProvider(0, ProviderType::Mds);
            }
            gauges.zel -= static_cast<double>(entry->second.size());
            gauges.mds += static_cast<double>(entry->second.size());
        }
        entry = pendingProvider.erase(entry);
        hasErased = true;
    }
    if (hasErased)
    {
        gauges.pending = static_cast<double>(pendingProvider.size());
    }
}

void ReferenceManager::ChangeSymbol(short marketId, const std::string& oldSymbol, const std::string& newSymbol)
{
    m_expectations.PostAction([=, this] { RunSymbolChange(marketId, oldSymbol, newSymbol); });
}

void ReferenceManager::RunSymbolChange(short marketId, const std::string& oldSymbol, const std::string& newSymbol)
{
    const std::string begin = "CompositeSubscriptionMgr::ChangeSymbol:";
    const std::string tail =
        "oldSymbol=" + Quote(oldSymbol) + " newSymbol=" + Quote(newSymbol) + " marketId=" + std::to_string(marketId);
    std::map<std::string, std::string>& changes = symbolChanges[marketId];
    if (const auto pending = changes.find(oldSymbol); pending != changes.end())
    {
        m_expectations.faults.Count(Fault::RenameRejected);
        m_expectations.Log(30, begin + " rejecting change. symbol=" + Quote(oldSymbol) +
                                   " is already pending a change to newSymbol=" + Quote(pending->second) +
                                   " marketId=" + std::to_string(marketId));
        return;
    }
    unsigned redirected = 0;
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
        m_expectations.faults.Count(Fault::RenameRedirected);
        m_expectations.Log(10, begin + " change to symbol=" + Quote(oldSymbol) +
                                   " in flight, pendingCount=" + Of(redirected) + " " + tail);
        return;
    }
    unsigned waiting = 0;
    for (const auto& [id, subscription] : live)
    {
        if (subscription->def.marketId != marketId || subscription->symbol != oldSymbol || subscription->isUnsubscribed)
        {
            continue;
        }
        ++waiting;
        const CompositeInstrumentID own(subscription->def);
        const int number = subscription->number;
        symbolChangeResponses[marketId][oldSymbol].push_back({own, ResponseState::Awaited, number});
        subscription->UnsubscribeDirect(
            [=, this](bool ok) {
                m_expectations.PostAction([=, this] { RunSymbolChangeResponse(own, number, ok, newSymbol, marketId); });
            });
    }
    if (waiting != 0)
    {
        changes[oldSymbol] = newSymbol;
    }
    m_expectations.Log(10, begin + " waitingResponses=" + Of(waiting) + " " + tail);
}

void ReferenceManager::RunSymbolChangeResponse(const CompositeInstrumentID& id, int subscription, bool ok,
                                               const std::string& newSymbol, short marketId)
{
    const std::string oldSymbol = subscriptions.at(subscription)->symbol;
    const auto market = symbolChangeResponses.find(id.marketId);
    if (market == symbolChangeResponses.end() || market->second.count(oldSymbol) == 0)
    {
        return;
    }
    std::vector<Response>& responses = market->second.at(oldSymbol);
    bool isAwaited = false;
    bool hasFailed = false;
    for (Response& response : responses)
    {
        response.state = !(response.id == id) ? response.state
                         : ok                 ? ResponseState::Unsubscribed
                                              : ResponseState::Failed;
        isAwaited = isAwaited || response.state == ResponseState::Awaited;
        hasFailed = hasFailed || response.state == ResponseState::Failed;
    }
    if (isAwaited)
    {
        return;
    }
    const auto log = [&](int level, const char* what, const std::string& to)
    {
        m_expectations.Log(level, std::string("CompositeSubscriptionMgr::ChangeSymbol: ") + what +
                                      "oldSymbol=" + Quote(oldSymbol) + " newSymbol=" + Quote(to) +
                                      " marketId=" + std::to_string(marketId));
    };
    if (hasFailed)
    {
        m_expectations.faults.Count(Fault::RenameStuck);
        log(30, "at least one Unsubscribe failed! Cannot resubscribe. ", newSymbol);
        return;
    }
    std::map<std::string, std::string>& changes = symbolChanges[id.marketId];
    const auto recorded = changes.find(oldSymbol);
    if (recorded == changes.end())
    {
        log(30, "no newSymbol found! Cannot resubscribe. ", newSymbol);
        return;
    }
    const std::string recordedSymbol = recorded->second;
    changes.erase(recorded);
    log(10, "all Unsubscribe responses received. Resubscribing. ", recordedSymbol);
    for (const Response& response : responses)
    {
        subscriptions.at(response.subscription)->ResubscribeDirect(recordedSymbol);
    }
    market->second.erase(oldSymbol);
}

void ReferenceManager::CompleteSynthetic(unsigned long handle, const Def& def)
{
    m_expectations.PostAction(
        [=, this]
        {
            const std::string begin = kManager + "UnifierSynthetic. OnSyntheticUnsubscribeComplete. cdef " +
                                      def.ToStringShortCached() + " handle=" + Of(handle);
            if (syntheticByHandle.erase(handle) != 0 || syntheticByInstrument.erase(CompositeInstrumentID(def)) != 0)
            {
                m_expectations.Log(0, begin + " lifecycle complete", 0);
                return;
            }
            m_expectations.Log(20, begin + " not found", 0);
        });
}

} // namespace ps_ns::simulation
