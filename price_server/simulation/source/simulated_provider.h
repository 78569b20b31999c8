#pragma once

#include "simple_subscription/i_price_provider.h"
#include "simulation/simulated_world.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns::simulation
{

/// A provider that does what the conditions say, and counts its links together with the other one.
class SimulatedProvider final : public IPriceProvider
{
public:
    SimulatedProvider(ProviderType::Value type, const Conditions& conditions, Recorder& recorder, int& lastLink);

    InstrumentDirectory& Directory() noexcept { return m_directory; }
    std::shared_ptr<IComponentListener> Find(int link) const;
    /// Lets go of a link; the caller may still answer through what it gets.
    std::shared_ptr<IComponentListener> Release(int link);
    /// All that ever were, to see that they are gone at the end.
    std::size_t GetLivingListeners() const;

    ProviderType::Value GetType() const override { return m_type; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override;
    int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener) override;
    void ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                     const CompositeSubscriptionInfo& scope) override;
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override;

private:
    struct Link
    {
        std::string symbol;
        std::shared_ptr<IComponentListener> listener;
    };
    std::map<int, Link>::iterator FindLink(const std::shared_ptr<IComponentListener>& listener);

    const ProviderType::Value m_type;
    const Conditions& m_conditions;
    Recorder& m_recorder;
    int& m_lastLink;
    InstrumentDirectory m_directory;
    bool m_isStopped = false;
    std::map<int, Link> m_links;
    std::vector<std::weak_ptr<IComponentListener>> m_all;
};

} // namespace ps_ns::simulation
