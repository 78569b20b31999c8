#include "price_unifier/source/composite_instrument_subscription.h"
#include "simulation_run.h"

#include "composite_price/fixed_point.h"
#include "logging/logging.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <sstream>

namespace ps_ns::simulation
{

using ps_messages_ns::SubscriptionResult;

namespace
{

/// FNV-1a, over everything that happens.
std::uint64_t Hash(std::uint64_t hash, const std::string& text)
{
    for (const char c : text)
    {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    }
    return (hash ^ '\n') * 1099511628211U;
}

CompositeSubscriptionInfo Widest(const CompositeSubscriptionInfo& a, const CompositeSubscriptionInfo& b)
{
    return CompositeSubscriptionInfo::Merge(a, b);
}

/// A book as text, levels from the best: what the model works out and what a client has been given.
template <class Levels>
std::string SpellLevels(const Levels& levels)
{
    std::ostringstream text;
    for (const auto& level : levels)
    {
        text << level.price / kPriceUnitsPerOne << 'x' << level.directQuantity / kQuantityUnitsPerOne << '+'
             << level.impliedQuantity / kQuantityUnitsPerOne << ' ';
    }
    return text.str();
}

/// What the newest images of the components make together, cut to a depth.
std::string MergeImages(const std::vector<std::pair<int, BookUpdate>>& images, std::size_t depth)
{
    std::map<std::int64_t, MergedOrderBook::Level, std::greater<>> bids;
    std::map<std::int64_t, MergedOrderBook::Level> asks;
    for (const auto& [component, image] : images)
    {
        for (const BookUpdate::Change& change : image.changes)
        {
            MergedOrderBook::Level& level = change.side == BookSideType::Bid ? bids[change.price] : asks[change.price];
            level.price = change.price;
            (component == CompositeComponentType::Implied ? level.impliedQuantity : level.directQuantity) +=
                change.quantity;
        }
    }
    const auto cut = [depth](const auto& side)
    {
        std::vector<MergedOrderBook::Level> levels;
        for (const auto& [price, level] : side)
        {
            if (levels.size() < depth)
            {
                levels.push_back(level);
            }
        }
        return levels;
    };
    return SpellLevels(cut(bids)) + "| " + SpellLevels(cut(asks));
}

} // namespace

template <class Value>
void SimulationRun::Same(const char* what, const Value& real, const Value& model) const
{
    if (!(real == model))
    {
        std::ostringstream text;
        text << what << ": the manager has " << real << ", the model " << model;
        throw Difference(text.str());
    }
}

template void SimulationRun::Same(const char*, const bool&, const bool&) const;
template void SimulationRun::Same(const char*, const int&, const int&) const;
template void SimulationRun::Same(const char*, const unsigned long&, const unsigned long&) const;

void SimulationRun::Trace(const std::string& event)
{
    ++result.eventCount;
    result.traceHash = Hash(result.traceHash, event);
    if (m_options.keepsTrace)
    {
        result.trace.push_back("  " + event);
    }
}

// --- Events ----------------------------------------------------------------------------------------------------------

void SimulationRun::CompareEvents()
{
    const std::vector<Recorder::Entry> real = m_world.recorder.TakeEntries();
    const std::vector<Recorder::Data> data = m_world.recorder.TakeData();
    const std::vector<std::string> model = m_expectations.TakeEvents();
    for (std::size_t i = 0; i < std::max(real.size(), model.size()); ++i)
    {
        const std::string was = i >= real.size() ? "nothing"
                                : real[i].data >= 0
                                    ? "data for " + data[static_cast<std::size_t>(real[i].data)].observer
                                    : real[i].text;
        Trace(was);
        Same("what happens next", was, i < model.size() ? model[i] : std::string("nothing"));
    }
    for (const auto& [id, subscription] : m_model.live)
    {
        Widen(*subscription);
    }
}

void SimulationRun::CompareExecutorEvents(short marketId)
{
    const std::vector<Recorder::Entry> real = m_world.recorder.TakeEntries();
    const std::vector<Recorder::Data> data = m_world.recorder.TakeData();
    std::vector<std::string> model;
    std::size_t next = 0;
    for (std::size_t i = 0; i < real.size(); ++i)
    {
        if (real[i].data >= 0)
        {
            const Recorder::Data& callback = data[static_cast<std::size_t>(real[i].data)];
            JudgeData(callback);
            ExpectThatThrowIsLogged(callback, real, i);
            continue;
        }
        if (next == model.size())
        {
            if (!m_expectations.HasCallbacks(marketId))
            {
                throw Difference("a callback that the model does not have: " + real[i].text);
            }
            model = m_expectations.TakeCallback(marketId);
            next = 0;
        }
        Trace(real[i].text);
        Same("what happens next on the executor", real[i].text, model[next]);
        ++next;
    }
    if (next != model.size())
    {
        throw Difference("missing on the executor: " + model[next]);
    }
}

void SimulationRun::ExpectThatThrowIsLogged(const Recorder::Data& data, const std::vector<Recorder::Entry>& entries,
                                            std::size_t& index)
{
    if (!data.throws)
    {
        return;
    }
    m_expectations.faults.Count(Fault::ObserverThrewOnExecutor);
    if (!zel::logging::IsEnabled(30))
    {
        return;
    }
    ++index;
    Same("what follows an observer that throws at data",
         index < entries.size() && entries[index].data < 0 ? entries[index].text : std::string("nothing"),
         SpellLog(30, 13, "price_delivery",
                  data.def.ToString() + ": observer " + data.observer + " threw: " + GetThrownText(data.observer)));
}

// --- Data: who may get it, how much of it, and of which kind ---------------------------------------------------------

SimulationRun::Seen& SimulationRun::GetSeen(int subscription, unsigned long id, const CompositeSubscriptionInfo& info)
{
    Seen& seen = m_seen[{subscription, id}];
    if (!std::exchange(seen.isWide, true))
    {
        seen.widest = info;
    }
    return seen;
}

void SimulationRun::Widen(const ReferenceSubscription& subscription)
{
    const bool isIdle = IsIdle(subscription.def.marketId);
    const auto widen = [&](unsigned long id, const CompositeSubscriptionInfo& info)
    {
        Seen& seen = GetSeen(subscription.number, id, info);
        seen.widest = isIdle ? info : Widest(seen.widest, info);
    };
    widen(0, subscription.mergedScope);
    for (const unsigned long id : subscription.clients)
    {
        widen(id, subscription.scopes.at(id).info);
    }
}

void SimulationRun::JudgeData(const Recorder::Data& data)
{
    const std::string who = data.observer + " id=" + std::to_string(data.id) + " of " + data.def.ToString();
    if (!data.isOnExecutor)
    {
        throw Difference("data off the executor for " + who);
    }
    const auto live = m_model.live.find(CompositeInstrumentID(data.def));
    if (live == m_model.live.end())
    {
        throw Difference("data after the end for " + who);
    }
    const ReferenceSubscription& subscription = *live->second;
    const auto scope = subscription.scopes.find(data.id);
    if (data.id == 0 ? subscription.observer != data.observer
                     : scope == subscription.scopes.end() || scope->second.observer != data.observer)
    {
        throw Difference("data for somebody who is not, or no longer, a client: " + who);
    }
    Seen& seen = GetSeen(subscription.number, data.id, data.id == 0 ? subscription.mergedScope : scope->second.info);
    Counts& counts = m_counts[subscription.number];
    switch (data.kind)
    {
    case Recorder::DataKind::Trades:
        ++counts.trades;
        Trace("trades for " + who);
        if (!seen.widest.trades)
        {
            throw Difference("trades for a client that did not ask: " + who);
        }
        return;
    case Recorder::DataKind::CustomFields:
        ++counts.customFields;
        Trace("custom fields for " + who);
        if (!seen.widest.customFields)
        {
            throw Difference("custom fields for a client that did not ask: " + who);
        }
        return;
    case Recorder::DataKind::Book:
        ++counts.books;
        Trace("book for " + who + " " + SpellLevels(data.book->bids.GetLevels()) + "| " +
              SpellLevels(data.book->asks.GetLevels()));
        JudgeBook(data, std::max(1, seen.widest.depth));
        seen.book = data.book;
        return;
    }
}

void SimulationRun::JudgeBook(const Recorder::Data& data, int depth)
{
    const auto count = std::max(data.book->bids.count, data.book->asks.count);
    if (count > static_cast<unsigned>(depth))
    {
        throw Difference(data.observer + " asked for " + std::to_string(depth) + " levels and got " +
                         std::to_string(count));
    }
}

/// Sends a fresh image on every link of the subscriptions that are whole, and sees what it makes with every client.
void SimulationRun::CompareBooks()
{
    m_world.recorder.dataThrowsOwed.clear();
    std::vector<const ReferenceSubscription*> whole;
    for (const auto& [id, subscription] : m_model.live)
    {
        const auto isWhole = [&](const ReferenceSubscription::Component& component) {
            return !component.isWanted ||
                   (component.link != 0 && m_model.providers.links.at(component.link).isAnswered);
        };
        const auto hasPrices = [](const ReferenceSubscription::Answer& answer)
        { return answer.result == SubscriptionResult::None || answer.result == SubscriptionResult::Success; };
        const auto isServed = [](const ReferenceSubscription::Component& component) { return component.link != 0; };
        if (!subscription->isUnsubscribed &&
            std::any_of(subscription->components.begin(), subscription->components.end(), isServed) &&
            std::all_of(subscription->components.begin(), subscription->components.end(), isWhole) &&
            std::all_of(subscription->answers.begin(), subscription->answers.end(), hasPrices))
        {
            whole.push_back(subscription);
        }
    }
    constexpr unsigned kLevels = 25;
    for (const ReferenceSubscription* const subscription : whole)
    {
        for (const ReferenceSubscription::Component& component : subscription->components)
        {
            if (component.link != 0)
            {
                m_world.SendBook(component.link, true, kLevels, static_cast<unsigned>(component.link));
            }
        }
    }
    RunEverything();
    // Longer than any interval by which a book can be held back.
    m_world.time.Advance(std::chrono::seconds(1));
    RunEverything();
    for (const ReferenceSubscription* const subscription : whole)
    {
        CompareBooksOf(*subscription);
    }
}

void SimulationRun::CompareBooksOf(const ReferenceSubscription& subscription)
{
    constexpr unsigned kLevels = 25;
    std::vector<std::pair<int, BookUpdate>> images;
    for (std::size_t i = 0; i < subscription.components.size(); ++i)
    {
        if (const int link = subscription.components[i].link; link != 0)
        {
            images.emplace_back(static_cast<int>(i), MakeBook(link, true, kLevels, static_cast<unsigned>(link)));
        }
    }
    const auto most =
        std::min(std::max(1, subscription.mergedScope.depth), GetMarketDefaults(subscription.def.marketId).maxDepth);
    const auto compare = [&](unsigned long id, int depth, const std::string& who)
    {
        const auto& book = m_seen[{subscription.number, id}].book;
        const std::string what =
            "the last book of " + who + " id=" + std::to_string(id) + " of " + subscription.def.ToString();
        Same(what.c_str(),
             book == nullptr ? std::string("none")
                             : SpellLevels(book->bids.GetLevels()) + "| " + SpellLevels(book->asks.GetLevels()),
             MergeImages(images, static_cast<std::size_t>(std::min(std::max(1, depth), most))));
    };
    compare(0, subscription.mergedScope.depth, subscription.observer);
    for (const unsigned long id : subscription.clients)
    {
        compare(id, subscription.scopes.at(id).info.depth, subscription.scopes.at(id).observer);
    }
}

// --- State -----------------------------------------------------------------------------------------------------------

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
