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
            if (callback.book != nullptr && callback.book->snapshotReason != 0)
            {
                ExpectSnapshot(marketId, callback);
            }
            ExpectThatThrowIsLogged(callback, real, i);
            continue;
        }
        if (next == model.size())
        {
            m_expectations.SkipOptional(marketId, real[i].text);
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

/// A book that is no change must have been asked for, by whom it comes to, and comes in its place.
void SimulationRun::ExpectSnapshot(short marketId, const Recorder::Data& data)
{
    const std::string text = SpellSnapshot(data.observer, data.id, data.def, data.book->snapshotReason);
    Trace(text);
    m_expectations.SkipOptional(marketId, text);
    Same("what was asked for", text, m_expectations.PeekCallback(marketId));
    m_expectations.TakeCallback(marketId);
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
    // Who has left, and comes back with the same id, begins anew.
    for (unsigned long id = 1; id <= kIdCount; ++id)
    {
        if (subscription.scopes.count(id) == 0)
        {
            m_seen.erase({subscription.number, id});
        }
    }
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
        if (seen.book != nullptr && (data.book->epoch < seen.book->epoch || data.book->sequence < seen.book->sequence))
        {
            throw Difference("an older book for " + who);
        }
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

} // namespace ps_ns::simulation
