#pragma once

#include "simple_subscription/i_price_provider.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace ps_ns::cycles
{

/// A provider of type ZEL whose directory is never complete: what the other one does not know stays undecided with it.
/// It takes every symbol, and answers nothing before somebody asks it to: subscribes with success and an image of one
/// level a side, unsubscribes with true.
///
/// Threads: any; listeners are called under its lock, as a listener's contract allows.
class LateProvider final : public IPriceProvider
{
public:
    explicit LateProvider(const std::vector<short>& marketIds);

    /// Gives the answers that are owed; returns how many there were.
    std::size_t AnswerWaiting();
    std::size_t GetListenerCount() const;

    ProviderType::Value GetType() const override { return ProviderType::Zel; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override;
    int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener) override;
    void ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                     const CompositeSubscriptionInfo& scope) override;
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override;

private:
    using Listeners = std::vector<std::shared_ptr<IComponentListener>>;

    InstrumentDirectory m_directory;
    mutable std::mutex m_mutex;
    // All under m_mutex.
    Listeners m_subscribing;
    Listeners m_subscribed;
    Listeners m_unsubscribing;
};

} // namespace ps_ns::cycles
