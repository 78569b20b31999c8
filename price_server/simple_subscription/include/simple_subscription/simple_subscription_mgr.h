#pragma once

#include "async/async_dispatcher.h"
#include "async/executor.h"
#include "composite_instrument/provider_type.h"
#include "composite_instrument/submarket.h"
#include "metrics/metrics.h"
#include "simple_subscription/i_price_provider.h"
#include "simple_subscription/market_table.h"
#include "simple_subscription/subscription_registry.h"
#include "simple_subscription/subscription_surroundings.h"
#include "simple_subscription/symbol_change_group.h"

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ps_ns
{

/// What composite subscriptions stand on: the price providers and the choice between them, the market table, the
/// executors, and the registry of all composite subscriptions.
///
/// Threads: providers are added before anything else is called. The queries and GetExecutor may be called from any
/// thread; DumpSubscriptions from the data-queue thread.
///
/// Ownership: shares the providers; deletes the composite subscriptions that are left when it dies. It outlives the
/// composite subscription manager, and dies after the providers and the executors have stopped.
class SimpleSubscriptionMgr
{
public:
    /// `executors` makes one strand for each submarket that is asked for; `timers` drives conflation and monitoring.
    SimpleSubscriptionMgr(MarketTable markets, std::shared_ptr<IExecutorFactory> executors,
                          std::shared_ptr<AsyncDispatcher> timers);
    ~SimpleSubscriptionMgr();
    SimpleSubscriptionMgr(const SimpleSubscriptionMgr&) = delete;
    SimpleSubscriptionMgr& operator=(const SimpleSubscriptionMgr&) = delete;

    /// Throws std::invalid_argument when there is one of that type already.
    void AddProvider(std::shared_ptr<IPriceProvider> provider);

    int GetProviderCount() const noexcept { return static_cast<int>(m_providers.size()); }
    bool HasProvider(ProviderType::Value type) const noexcept { return FindProvider(type) != nullptr; }
    /// Null when there is none of that type.
    IPriceProvider* FindProvider(ProviderType::Value type) const noexcept;

    /// Who serves a symbol, and whether that is final. Final: MDS, once its directory has the symbol; ZEL, once every
    /// directory that can know the market is complete and MDS' has not got it. Until then ZEL, not final.
    std::pair<ProviderType::Value, bool> GetProviderType(ProviderFunction::Value function, short marketId,
                                                         short submarketId, const std::string& symbol) const;

    /// Levels a side, and milliseconds that an emptied book is held back.
    unsigned GetDefaultOrderBookSize(short marketId) const { return m_markets.Get(marketId).defaultDepth; }
    unsigned GetMaxOrderBookSize(short marketId) const { return m_markets.Get(marketId).maxDepth; }
    unsigned GetEmptySuppressInterval(short marketId) const { return m_markets.Get(marketId).emptySuppressInterval_ms; }

    /// The executor of a submarket, made at the first request; empty when the market is not in the table. The two texts
    /// of the instrument are there for servers that split a submarket; this one does not.
    std::shared_ptr<Executor> GetExecutor(const Submarket& submarket, const std::string& exchange,
                                          const std::string& symbol);

    /// The executor of a composite subscription: its submarket's, or one common to all markets that are not in the
    /// table.
    std::shared_ptr<Executor> GetSubscriptionExecutor(const Submarket& submarket);
    /// The same executor with what else the submarket's composite subscriptions share; never null.
    std::shared_ptr<const SubscriptionSurroundings> GetSurroundings(const Submarket& submarket);

    /// Writes the composite subscriptions to the log, a line each at level 10: at most `limit` of them, 0 for all.
    void DumpSubscriptions(unsigned long limit) const;

    const MarketTable& GetMarkets() const noexcept { return m_markets; }
    SubscriptionRegistry& GetRegistry() noexcept { return m_registry; }
    SymbolChangeGroups& GetSymbolChangeGroups() noexcept { return m_symbolChangeGroups; }
    const std::shared_ptr<AsyncDispatcher>& GetTimers() const noexcept { return m_timers; }
    /// "subscriptions_stale": composite subscriptions of which a component has been silent for too long.
    const zel::metrics::Gauge& GetStaleGauge() const noexcept { return m_gauges[0]; }

private:
    const MarketTable m_markets;
    const std::shared_ptr<IExecutorFactory> m_executorFactory;
    const std::shared_ptr<AsyncDispatcher> m_timers;
    std::vector<std::shared_ptr<IPriceProvider>> m_providers; ///< constant after the start
    zel::metrics::Store<zel::metrics::Gauge, 1> m_gauges;

    std::mutex m_surroundingsMutex;
    /// Under m_surroundingsMutex.
    std::unordered_map<Submarket, std::shared_ptr<const SubscriptionSurroundings>> m_surroundings;

    SymbolChangeGroups m_symbolChangeGroups;
    SubscriptionRegistry m_registry; ///< last: it dies first, and what it deletes may still use the rest
};

} // namespace ps_ns
