#pragma once

#include "base/thread_annotations.h"
#include "mds/instrument_feed.h"
#include "mds/market_source.h"
#include "mds/symbol_rename.h"
#include "mds/text_hash.h"
#include "mds/update_pools.h"
#include "simple_subscription/i_price_provider.h"

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ps_ns
{

/// What a provider knows an implied instrument by: this before the symbol. It must agree with impliedSymbolPrefix of
/// the composite subscription manager, a room that providers do not see.
inline constexpr std::string_view kImpliedPrefix = "IM_";

/// All instruments of a provider, by number and by symbol; subscriptions and renames.
///
/// Threads: Publish and GetBook on the one feed thread; the rest on any. Locks are taken in the order hub, instrument,
/// pool or directory, and no lock is held while anything is waited for.
class MarketHub
{
public:
    explicit MarketHub(std::size_t updatesInFlight)
        : m_pools(updatesInFlight)
    {
    }

    /// Takes in all instruments, by number, and lists them in the directory. Once, before the first Publish.
    void Install(const std::vector<SourceInstrument>& instruments);

    void Publish(MarketMessage& message) { m_feeds[message.instrument]->Publish(message, m_pools); }
    const LevelBook& GetBook(InstrumentIndex instrument) const { return m_feeds[instrument]->GetBook(); }

    int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener);
    void ChangeScope(const std::shared_ptr<IComponentListener>& listener, const CompositeSubscriptionInfo& scope);
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener);
    /// Lets all listeners go, and refuses new ones.
    void Close();

    /// Renames at one moment: every old name is looked up before any new name is given, so that a name may be passed
    /// on. An implied instrument goes with its symbol. Who listens under an old name hears nothing more until it
    /// unsubscribes; so does who listened to an instrument that loses its name to another. Returns the renames that
    /// were made; unknown symbols are reported.
    std::vector<SymbolRename> Rename(std::span<const SymbolRename> renames);

    InstrumentDirectory& GetDirectory() noexcept { return m_directory; }
    const InstrumentDirectory& GetDirectory() const noexcept { return m_directory; }
    InFlightBudget& GetBudget() noexcept { return *m_pools.budget; }

private:
    struct Subscription
    {
        std::shared_ptr<IComponentListener> listener;
        InstrumentIndex instrument; ///< kNoInstrument: its name has gone to another
    };
    struct Move
    {
        InstrumentIndex instrument;
        SymbolRename rename;
    };

    std::vector<Move> TakeOldNames(std::span<const SymbolRename> renames) PS_REQUIRES(m_role);
    bool TakeOldName(const SymbolRename& rename, std::vector<Move>& moves) PS_REQUIRES(m_role);
    void DropImplied(short marketId, const std::string& symbol) PS_REQUIRES(m_role);
    void GiveNewName(const Move& move) PS_REQUIRES(m_role);
    void Detach(InstrumentIndex instrument) PS_REQUIRES(m_role);

    InstrumentDirectory m_directory;
    UpdatePools m_pools;
    std::vector<std::unique_ptr<InstrumentFeed>>
        m_feeds; ///< constant after Install; only names lead other threads here

    std::mutex m_mutex;
    Role m_role; ///< of m_mutex
    std::map<short, TextMap<InstrumentIndex>> m_bySymbol PS_GUARDED_BY(m_role);
    std::unordered_map<const IComponentListener*, Subscription> m_subscriptions PS_GUARDED_BY(m_role);
    bool m_isClosed PS_GUARDED_BY(m_role) = false;
};

} // namespace ps_ns
