#pragma once

#include "composite_instrument/local_observer_factory.h"
#include "composite_price/default_composite_price_factory.h"
#include "config/config.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "quiet_observers.h"
#include "simple_subscription/simple_subscription_mgr.h"
#include "testing/hand_driven_executors.h"
#include "testing/hand_driven_queue.h"

#include <memory>
#include <unordered_set>

namespace compare
{

/// Takes every subscription, answers it at once and never delivers: what is measured is the manager and the composite
/// subscription, with all that it keeps before its first price.
class QuietProvider final : public ps_ns::IPriceProvider
{
public:
    ps_ns::ProviderType::Value GetType() const override { return ps_ns::ProviderType::Zel; }
    const ps_ns::InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override {}
    int Subscribe(const ps_ns::ComponentRequest&, const std::shared_ptr<ps_ns::IComponentListener>& listener) override
    {
        listener->OnSubscribed(ps_messages_ns::SubscriptionResult::Success, {});
        return ps_ns::SubscribeStatus::Subscribed; // the subscription holds its listener itself
    }
    void ChangeScope(const std::shared_ptr<ps_ns::IComponentListener>&,
                     const ps_ns::CompositeSubscriptionInfo&) override
    {
    }
    void Unsubscribe(const std::shared_ptr<ps_ns::IComponentListener>& listener) override
    {
        listener->OnUnsubscribed(true);
    }

private:
    ps_ns::InstrumentDirectory m_directory;
};

/// The project's manager, with everything it posts run at once on the calling thread: queue, then executors. Direct
/// clients have handles, flexible ones ids.
class LiveManager
{
public:
    LiveManager()
        : m_simple(ps_ns::MarketTable({{1, "ONE", 5, 20, 0}}), m_executors,
                   std::make_shared<ps_ns::AsyncDispatcher>("compare"))
        , m_manager(std::make_unique<ps_ns::CompositeSubscriptionMgr>(&m_simple))
    {
        m_simple.AddProvider(std::make_shared<QuietProvider>());
        m_manager->UnitTestInit(ps_ns::Config::LoadText("<PriceServer/>", "compare"), &m_queue.Get(),
                                std::make_shared<ps_ns::DefaultCompositePriceFactory>());
    }
    ~LiveManager()
    {
        Run();
        m_executors->Stop();
        m_manager.reset();
    }
    LiveManager(const LiveManager&) = delete;
    LiveManager& operator=(const LiveManager&) = delete;

    std::uint64_t Subscribe(const ps_ns::CompositeInstrumentDef& def)
    {
        const std::uint64_t handle = m_manager->Subscribe(def, {5, 0, false, false}, m_observer, 1).first;
        Run();
        return handle;
    }
    void ChangeScope(std::uint64_t handle, std::int32_t depth)
    {
        m_manager->ChangeScope(handle, {depth, 0, false, false}, 1, false);
        Run();
    }
    void Unsubscribe(std::uint64_t handle)
    {
        m_manager->Unsubscribe(handle);
        Run();
    }
    void Join(const ps_ns::CompositeInstrumentDef& def, unsigned long id)
    {
        m_manager->Subscribe(def, {5, 0, false, false}, m_factory, m_flexibleObserver, id);
        Run();
    }
    void ChangeScope(const ps_ns::CompositeInstrumentDef& def, unsigned long id, std::int32_t depth)
    {
        m_manager->ChangeScope(def, {depth, 0, false, false}, m_flexibleObserver, id, false);
        Run();
    }
    void Leave(const ps_ns::CompositeInstrumentDef& def, unsigned long id)
    {
        m_manager->Unsubscribe(def, m_flexibleObserver, id);
        Run();
    }

private:
    void Run()
    {
        while (m_queue.RunAll() + m_executors->RunAll() != 0)
        {
        }
    }

    ps_ns::testing::HandDrivenQueue m_queue;
    const std::shared_ptr<ps_ns::testing::HandDrivenExecutors> m_executors =
        std::make_shared<ps_ns::testing::HandDrivenExecutors>();
    ps_ns::SimpleSubscriptionMgr m_simple;
    std::unique_ptr<ps_ns::CompositeSubscriptionMgr> m_manager;
    ps_ns::LocalObserverFactory m_factory;
    const std::shared_ptr<ps_ns::IFlexiblePriceObserver> m_flexibleObserver = MakeQuietFlexibleObserver(0);
    const std::shared_ptr<ps_ns::ICompositePriceObserver> m_observer = std::make_shared<QuietObserver>();
};

} // namespace compare
