#pragma once

#include "async/async_task.h"
#include "composite_instrument/composite_component_type.h"
#include "composite_instrument/composite_instrument_def.h"
#include "composite_instrument/composite_subscription_info.h"
#include "composite_instrument/price_format.h"
#include "composite_instrument/subscription_result.h"
#include "price_unifier/source/wanted_components.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

namespace ps_ns
{

class CompositeSubscriptionMgr;
class ICompositePriceObserver;

/// How often the observers of one composite subscription were called back with data. From any thread.
struct CallbackCounts
{
    std::atomic<std::uint64_t> books{0};
    std::atomic<std::uint64_t> trades{0};
    std::atomic<std::uint64_t> customFields{0};
};

/// What a component has answered to its subscribe, if anything.
struct ComponentAnswer
{
    ps_messages_ns::SubscriptionResult::Value result = ps_messages_ns::SubscriptionResult::None;
    PriceFormat format;

    friend bool operator==(const ComponentAnswer&, const ComponentAnswer&) = default;
};

/// What a composite subscription knows for its delivery before there is one: a PriceDelivery is made with the first
/// price or the first flexible client, and most subscriptions of a large server are quiet.
///
/// Threads: what is constant, and the counts, may be read from any thread; the rest is the executor's. The operations
/// are called on the executor.
/// Ownership: the host has the delivery, and outlives it.
class DeliveryHost
{
public:
    using Clock = std::chrono::steady_clock;

    struct Settings
    {
        bool skipUnchangedSnapshots = false; ///< a book that shows the same as the last one is not delivered again
        unsigned maxDepth = 0;               ///< levels that a merged book has at most, whatever a scope asks for
        unsigned emptySuppressInterval_ms = 0;
        unsigned monitoringInterval_sec = 0; ///< 0: off
    };

    DeliveryHost(const DeliveryHost&) = delete;
    DeliveryHost& operator=(const DeliveryHost&) = delete;

    const CompositeInstrumentDef& GetDefinition() const noexcept { return m_def; }
    const std::shared_ptr<ICompositePriceObserver>& GetObserver() const noexcept { return m_observer; }
    CompositeSubscriptionMgr* GetManager() const noexcept { return m_manager; }
    const Settings& GetSettings() const noexcept { return m_settings; }
    CallbackCounts& GetCounts() noexcept { return m_counts; }
    const CallbackCounts& GetCounts() const noexcept { return m_counts; }

    /// The merged scope that is delivered now.
    const CompositeSubscriptionInfo& GetDeliveredScope() const noexcept { return m_deliveredScope; }
    /// Has the component answered, with success?
    bool IsAnswered(CompositeComponentType::Type component) const noexcept
    {
        return m_components.Get(component).isAnswered;
    }
    /// What merged books carry once the component's present subscription has brought its image.
    std::uint64_t GetSubscriptionEpoch(CompositeComponentType::Type component) const noexcept
    {
        return m_components.Get(component).epoch;
    }

    /// A timer that runs a function on the executor.
    virtual std::shared_ptr<AsyncTask> MakeTimer(const char* name, std::function<void()> onExpiry) = 0;
    virtual Clock::time_point Now() const = 0;
    /// A component has become stale, or fresh.
    virtual void OnStaleChanged(bool isStale) = 0;

protected:
    DeliveryHost(CompositeInstrumentDef&& def, const std::shared_ptr<ICompositePriceObserver>& observer,
                 CompositeSubscriptionMgr* manager, const CompositeSubscriptionInfo& scope, const Settings& settings)
        : m_def(std::move(def))
        , m_observer(observer)
        , m_manager(manager)
        , m_settings(settings)
        , m_components(m_def.components)
        , m_deliveredScope(scope)
    {
    }
    virtual ~DeliveryHost() = default;

    struct Component
    {
        ComponentAnswer lastAnswer; ///< under the core's lock
        std::uint32_t epoch = 0;    ///< the executor's
        bool isAnswered = false;    ///< the executor's
    };

    const CompositeInstrumentDef m_def;
    const std::shared_ptr<ICompositePriceObserver> m_observer;
    CompositeSubscriptionMgr* const m_manager;
    const Settings m_settings;
    CallbackCounts m_counts;
    WantedComponents<Component> m_components;
    CompositeSubscriptionInfo m_deliveredScope;
    // The core's own; they fill what would be padding.
    std::atomic<bool> m_isSilent{false};
    std::atomic<bool> m_hasSnapshot{false};
    std::uint8_t m_staleComponents = 0; ///< executor only, and the destructor
};

} // namespace ps_ns
