#include "price_unifier/source/composite_instrument_subscription.h"
#include "simulation_run.h"

#include <string>
#include <utility>

namespace ps_ns::simulation
{

std::string SimulationRun::GetCounts(const ReferenceSubscription& subscription) const
{
    const auto found = m_counts.find(subscription.number);
    const Counts counts = found == m_counts.end() ? Counts{} : found->second;
    return "books=" + std::to_string(counts.books) + " trades=" + std::to_string(counts.trades) +
           " customFields=" + std::to_string(counts.customFields);
}

void SimulationRun::CompareState()
{
    CompareSubscriptions();
    CompareHandles();
    ComparePending();
    CompareChanges();
    CompareGauges();
    Same("waiting actions", m_world.queue.GetWaiting(), m_expectations.GetActionCount());
}

void SimulationRun::CompareSubscriptions()
{
    const auto& real = m_world.Access().Subscriptions();
    Same("live subscriptions", real.size(), m_model.live.size());
    for (const auto& [id, model] : m_model.live)
    {
        const auto found = real.find(id);
        const std::string text = model->def.ToString();
        Same((text + " is live").c_str(), found != real.end(), true);
        const CompositeInstrumentSubscription& subscription = *found->second;
        const auto bound = m_realByNumber.try_emplace(model->number, found->second).first;
        Same((text + " is the same one").c_str(), bound->second == found->second, true);
        Same((text + " merged scope").c_str(), SpellScope(subscription.GetMergedScope()),
             SpellScope(model->mergedScope));
        Same((text + " union of the scopes").c_str(), SpellScope(subscription.GetMergedScope()),
             SpellScope(model->MergeScopes()));
        Same((text + " symbol").c_str(), subscription.GetSymbol(), model->symbol);
        Same((text + " provider").c_str(), static_cast<int>(subscription.GetProviderType()),
             static_cast<int>(model->provider));
        Same((text + " state").c_str(), static_cast<int>(subscription.GetLifeState()), model->isUnsubscribed ? 1 : 0);
        for (unsigned long scopeId = 1; scopeId <= kIdCount; ++scopeId)
        {
            CompositeInstrumentSubscription::ScopeEntry scope;
            const bool isThere = subscription.GetScope(scopeId, scope);
            const auto expected = model->scopes.find(scopeId);
            Same((text + " has the id").c_str(), isThere, expected != model->scopes.end());
            if (isThere)
            {
                const auto& [info, observer] = scope;
                Same((text + " scope").c_str(), SpellScope(info), SpellScope(expected->second.info));
                Same((text + " scope's observer").c_str(), observer == nullptr ? std::string() : observer->GetName(),
                     expected->second.observer);
            }
        }
    }
}

void SimulationRun::CompareHandles()
{
    auto access = m_world.Access();
    const auto& byHandle = access.SubscriptionByHandle();
    Same("handles", byHandle.size(), m_model.byHandle.size());
    for (const auto& [handle, client] : m_model.byHandle)
    {
        const auto found = byHandle.find(handle);
        Same("a handle is there", found != byHandle.end(), true);
        Same("a handle's observer", std::get<1>(found->second)->GetName(), client.observer);
        Same("a handle's instrument", SpellDef(std::get<0>(found->second)), SpellDef(client.def));
    }
    Same("identities with a handle", access.HandleByInstrument().size(), m_model.handleByInstrument.size());
    for (const auto& [id, handle] : m_model.handleByInstrument)
    {
        // One that is not even equal to itself is not found on either side.
        const auto found = access.HandleByInstrument().find(id);
        Same("an identity is found", found != access.HandleByInstrument().end(), id == id);
        if (id == id)
        {
            Same("an identity's handle", found->second, handle);
        }
    }
    Same("the next handle", static_cast<unsigned long>(access.NextHandle()), m_model.nextHandle);
    Same("synthetics by handle", access.PendingSyntheticByHandle().size(), m_model.syntheticByHandle.size());
    for (const auto& [handle, filed] : m_model.syntheticByHandle)
    {
        Same("a synthetic is filed by its handle", access.PendingSyntheticByHandle().count(handle), std::size_t{1});
    }
    for (const auto& [id, filed] : m_model.syntheticByInstrument)
    {
        Same("a synthetic is filed by its identity", access.PendingSyntheticByInstrument().count(id),
             id == id ? std::size_t{1} : std::size_t{0});
    }
    Same("synthetics by identity", access.PendingSyntheticByInstrument().size(), m_model.syntheticByInstrument.size());
}

void SimulationRun::ComparePending()
{
    auto access = m_world.Access();
    const auto& deleting = access.PendingDelete();
    Same("subscriptions in the pending-delete list", deleting.size(), m_model.pendingDelete.size());
    for (const auto& [number, id] : m_model.pendingDelete)
    {
        // One that comes and goes between two comparisons has not been seen live.
        const auto bound = m_realByNumber.find(number);
        if (bound == m_realByNumber.end())
        {
            continue;
        }
        const auto found = deleting.find(const_cast<CompositeInstrumentSubscription*>(bound->second));
        Same("a subscription is in the pending-delete list", found != deleting.end(), true);
        Same("its identity is the definition's", found->second == id, true);
    }
    const auto& undecided = access.PendingProvider();
    Same("symbols without a provider", undecided.size(), m_model.pendingProvider.size());
    for (const auto& [key, numbers] : m_model.pendingProvider)
    {
        const auto found = undecided.find(key);
        Same("a symbol waits for its provider", found != undecided.end(), true);
        Same("who waits for it", found->second.size(), numbers.size());
        for (std::size_t i = 0; i < numbers.size(); ++i)
        {
            const auto bound = m_realByNumber.find(numbers[i]);
            Same("who waits for it, in its order", bound == m_realByNumber.end() || bound->second == found->second[i],
                 true);
        }
    }
}

void SimulationRun::CompareChanges()
{
    auto access = m_world.Access();
    Same("markets with changes", access.SymbolChanges().size(), m_model.symbolChanges.size());
    for (const auto& [market, changes] : m_model.symbolChanges)
    {
        const auto& real = access.SymbolChanges().at(market);
        Same("changes in flight", real.size(), changes.size());
        for (const auto& [from, to] : changes)
        {
            const auto found = real.find(from);
            Same(("the change of " + from).c_str(), found == real.end() ? std::string("none") : found->second, to);
        }
    }
    Same("markets with responses", access.SymbolChangeResponses().size(), m_model.symbolChangeResponses.size());
    for (const auto& [market, changes] : m_model.symbolChangeResponses)
    {
        const auto& real = access.SymbolChangeResponses().at(market);
        Same("changes with responses", real.size(), changes.size());
        for (const auto& [from, expected] : changes)
        {
            const auto& responses = real.at(from).responses;
            Same("responses", responses.size(), expected.size());
            for (std::size_t i = 0; i < expected.size(); ++i)
            {
                Same("a response's state", responses[i].state, static_cast<int>(expected[i].state));
                Same("a response's identity", responses[i].id == expected[i].id, true);
                const auto bound = m_realByNumber.find(expected[i].subscription);
                Same("a response's subscription",
                     bound != m_realByNumber.end() && bound->second == responses[i].subscription, true);
            }
        }
    }
}

void SimulationRun::CompareGauges()
{
    CompositeSubscriptionMgr& manager = *m_world.manager;
    Same("the gauge of undecided symbols", manager.SubscriptionPendingGaugeInstance().Get(), m_model.gauges.pending);
    Same("the gauge of ZEL", manager.SubscriptionGaugeInstance(ProviderType::Zel).Get(), m_model.gauges.zel);
    Same("the gauge of MDS", manager.SubscriptionGaugeInstance(ProviderType::Mds).Get(), m_model.gauges.mds);
}

void SimulationRun::CompareLeftovers()
{
    std::string text;
    for (const std::string& left : m_world.End())
    {
        text += (text.empty() ? "" : "; ") + left;
    }
    if (!text.empty())
    {
        throw Difference(text);
    }
}

} // namespace ps_ns::simulation
