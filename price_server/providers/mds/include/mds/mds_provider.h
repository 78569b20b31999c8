#pragma once

#include "mds/implied_engine.h"
#include "mds/implied_rules.h"
#include "mds/market_hub.h"
#include "mds/market_source.h"
#include "mds/paced_runner.h"
#include "mds/rename_plan.h"
#include "mds/symbol_rename.h"
#include "simple_subscription/i_price_provider.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace ps_ns
{

struct MdsOptions
{
    static constexpr std::uint64_t kUsualLongestGap_ns = 5'000'000'000;
    static constexpr std::size_t kUsualUpdatesInFlight = 4096;

    double speed = 1.0; ///< 1: as the source's times say; N: N times as fast; 0: as fast as the listeners take it
    std::uint64_t longestGap_ns = kUsualLongestGap_ns; ///< a longer silence of the source is cut to this; 0: never
    /// Updates that somebody still holds; at the limit the feed waits. Images for new listeners count, but do not wait.
    std::size_t updatesInFlight = kUsualUpdatesInFlight;

    /// Dated: those that are over when the prices begin, and those of symbols that are not served, are left out
    /// (rename_plan.h).
    std::vector<TimedRename> renames;
    std::vector<ImpliedRule> impliedRules;
    bool detectsImplied = true; ///< adds the rules that names suggest
    std::size_t impliedDepth = ImpliedEngine::kUsualDepth;

    /// True: no thread, and nothing waits. Start reads the directory, and whoever owns the provider calls Step.
    bool isHandDriven = false;
    std::shared_ptr<IPaceClock> clock = std::make_shared<SteadyPaceClock>();

    /// Who makes renames one step with something of his own. Called instead of renaming at once, on the thread that
    /// renames, without a lock held; while it runs on the feed thread nothing is published. It has `make` called once,
    /// on any thread, before it returns. Empty: made at once.
    std::function<void(const std::vector<SymbolRename>& renames, const std::function<void()>& make)> renameStep;

    /// Told of the renames made at one moment; on the thread that made them, without a lock held. May be empty.
    std::function<void(const std::vector<SymbolRename>&)> onRenamed;
};

/// The in-process price provider: serves a replay or a simulation, and the books implied by it.
///
/// Threads: Start, Stop and the destructor are the owner's. Subscribe, ChangeScope, Unsubscribe and RenameNow may be
/// called from any thread, also while the feed thread runs. Listeners are called on the feed thread and from within
/// Subscribe and Unsubscribe. Step is for the owner of a hand-driven provider, and called by one thread.
///
/// Scopes: `trades` decides whether trades are delivered. Books are delivered whole and unconflated: one update object
/// serves all listeners, and each of them cuts and conflates for its clients.
///
/// Directory: read on the feed thread. Until it is complete every symbol is unknown, and Subscribe answers Failed; then
/// all markets of the source become complete at once.
class MdsProvider final : public IPriceProvider, private IPacedWork
{
public:
    explicit MdsProvider(std::unique_ptr<IMarketSource> source, MdsOptions options = {});
    /// Stops.
    ~MdsProvider() override;
    MdsProvider(const MdsProvider&) = delete;
    MdsProvider& operator=(const MdsProvider&) = delete;

    ProviderType::Value GetType() const override { return ProviderType::Mds; }
    const InstrumentDirectory& GetDirectory() const override { return m_hub.GetDirectory(); }
    void Start() override;
    void Stop() override;
    int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener) override;
    void ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                     const CompositeSubscriptionInfo& scope) override;
    /// Answers true, also after Stop.
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override;

    /// Renames at once, all of them at one moment (market_hub.h), by way of the options' renameStep. An instrument's
    /// rows and its implied rules keep working: only the name it is served under changes.
    void RenameNow(std::span<const SymbolRename> renames);

    /// Delivers the source's next message, and the implied updates that follow from it; false at the end.
    bool Step() override;

    /// The source came to its end, or failed.
    bool HasEnded() const noexcept { return m_runner.HasEnded(); }
    /// It has ended, and not as it should: the feed has thrown, or part of the source's data was damaged.
    bool HasFailed() const { return HasEnded() && (m_runner.HasFailed() || m_source->IsDamaged()); }

    /// Updates that somebody holds now, the most there ever were, and whether the feed waits for room.
    std::size_t GetInFlight() const { return m_budget.GetInFlight(); }
    std::size_t GetMostInFlight() const { return m_budget.GetMostInFlight(); }
    bool IsWaitingForRoom() const { return m_budget.IsWaiting(); }

private:
    void Prepare(const std::atomic<bool>& stop) override;
    std::optional<NextMessage> PeekNext() override;
    bool WaitForRoom() override;
    void Wake() override;
    void MakeDueRenames(std::uint64_t sourceTime_ns);
    void MakeRenamePlan(std::uint64_t begin_ns);
    void Rename(std::span<const SymbolRename> renames);

    const std::unique_ptr<IMarketSource> m_source; ///< feed thread, from Start to its end
    const MdsOptions m_options;
    MarketHub m_hub;
    InFlightBudget& m_budget;                 ///< the hub's
    std::unique_ptr<ImpliedEngine> m_implied; ///< feed thread
    std::optional<RenamePlan> m_renamePlan;   ///< feed thread: made at the first message
    std::size_t m_renameStepsMade = 0;        ///< feed thread
    MarketMessage m_message;                  ///< feed thread: filled again and again
    PacedRunner m_runner;                     ///< last: its thread uses all of the above
};

} // namespace ps_ns
