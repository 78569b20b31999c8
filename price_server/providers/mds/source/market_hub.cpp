#include "mds/market_hub.h"

#include "logging/logging.h"
#include "mds/problem_log.h"

namespace ps_ns
{

void MarketHub::Install(const std::vector<SourceInstrument>& instruments)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    std::vector<DirectoryEntry> entries;
    for (const SourceInstrument& instrument : instruments)
    {
        const auto index = static_cast<InstrumentIndex>(m_feeds.size());
        m_feeds.push_back(std::make_unique<InstrumentFeed>(instrument.format));
        m_bySymbol[instrument.marketId][instrument.symbol] = index;

        DirectoryEntry entry;
        entry.submarket.marketId = instrument.marketId;
        entry.symbol = instrument.symbol;
        entry.exchange = instrument.market;
        entry.description = instrument.symbol.starts_with(kImpliedPrefix) ? "implied" : "";
        entry.format = instrument.format;
        entries.push_back(std::move(entry));
    }
    // At one moment: who finds an instrument finds its implied one too.
    m_directory.AddAll(entries);
}

int MarketHub::Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const auto market = m_bySymbol.find(request.submarket.marketId);
    if (m_isClosed || market == m_bySymbol.end())
    {
        return SubscribeStatus::Failed;
    }
    const auto found = market->second.find(request.symbol);
    if (found == market->second.end() ||
        !m_subscriptions.try_emplace(listener.get(), Subscription{listener, found->second}).second)
    {
        return SubscribeStatus::Failed;
    }
    m_feeds[found->second]->Join(listener, request.scope.trades, m_pools);
    return SubscribeStatus::Subscribed;
}

void MarketHub::ChangeScope(const std::shared_ptr<IComponentListener>& listener, const CompositeSubscriptionInfo& scope)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const auto found = m_subscriptions.find(listener.get());
    if (found != m_subscriptions.end() && found->second.instrument != kNoInstrument)
    {
        m_feeds[found->second.instrument]->SetWantsTrades(listener.get(), scope.trades);
    }
}

void MarketHub::Unsubscribe(const std::shared_ptr<IComponentListener>& listener)
{
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        const auto found = m_subscriptions.find(listener.get());
        if (found != m_subscriptions.end())
        {
            if (found->second.instrument != kNoInstrument)
            {
                m_feeds[found->second.instrument]->Leave(listener.get());
            }
            m_subscriptions.erase(found);
        }
    }
    listener->OnUnsubscribed(true);
}

void MarketHub::Close()
{
    std::unordered_map<const IComponentListener*, Subscription> left; // let go without the lock
    const ScopedRoleLock lock(m_mutex, m_role);
    m_isClosed = true;
    for (const std::unique_ptr<InstrumentFeed>& feed : m_feeds)
    {
        feed->DropAll();
    }
    left.swap(m_subscriptions);
}

std::vector<SymbolRename> MarketHub::Rename(std::span<const SymbolRename> renames)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const std::vector<Move> moves = TakeOldNames(renames);
    std::vector<SymbolRename> made;
    for (const Move& move : moves)
    {
        GiveNewName(move);
        made.push_back(move.rename);
    }
    for (const SymbolRename& step : OrderRenames(made))
    {
        m_directory.Rename(step.marketId, step.oldSymbol, step.newSymbol);
    }
    return made;
}

std::vector<MarketHub::Move> MarketHub::TakeOldNames(std::span<const SymbolRename> renames)
{
    std::vector<Move> moves;
    for (const SymbolRename& rename : renames)
    {
        if (rename.oldSymbol == rename.newSymbol)
        {
            continue;
        }
        if (!TakeOldName(rename, moves))
        {
            zel::logging::Log(20, MdsLogSource(),
                              [&](std::ostream& text)
                              {
                                  text << "rename of " << rename.oldSymbol << " to " << rename.newSymbol
                                       << " on market " << rename.marketId << ": there is no such instrument";
                              });
            continue;
        }
        const std::string prefix(kImpliedPrefix);
        TakeOldName({rename.marketId, prefix + rename.oldSymbol, prefix + rename.newSymbol}, moves);
    }
    return moves;
}

bool MarketHub::TakeOldName(const SymbolRename& rename, std::vector<Move>& moves)
{
    auto& symbols = m_bySymbol[rename.marketId];
    const auto found = symbols.find(rename.oldSymbol);
    if (found == symbols.end())
    {
        return false;
    }
    moves.push_back({found->second, rename});
    symbols.erase(found);
    return true;
}

void MarketHub::GiveNewName(const Move& move)
{
    InstrumentIndex& owner =
        m_bySymbol[move.rename.marketId].try_emplace(move.rename.newSymbol, kNoInstrument).first->second;
    if (owner != kNoInstrument)
    {
        zel::logging::Log(20, MdsLogSource(),
                          [&](std::ostream& text)
                          {
                              text << "rename of " << move.rename.oldSymbol << " to " << move.rename.newSymbol
                                   << " on market " << move.rename.marketId
                                   << ": the instrument of that name is not served any more";
                          });
        Detach(owner);
        DropImplied(move.rename.marketId, move.rename.newSymbol);
    }
    owner = move.instrument;
    Detach(move.instrument);
}

/// An instrument that loses its name loses its implied book's name with it: who has the name now must not get it.
void MarketHub::DropImplied(short marketId, const std::string& symbol)
{
    auto& symbols = m_bySymbol[marketId];
    if (const auto implied = symbols.find(std::string(kImpliedPrefix) + symbol); implied != symbols.end())
    {
        Detach(implied->second);
        symbols.erase(implied);
    }
}

void MarketHub::Detach(InstrumentIndex instrument)
{
    m_feeds[instrument]->DropAll();
    for (auto& [listener, subscription] : m_subscriptions)
    {
        if (subscription.instrument == instrument)
        {
            subscription.instrument = kNoInstrument;
        }
    }
}

} // namespace ps_ns
