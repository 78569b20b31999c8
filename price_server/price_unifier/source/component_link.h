#pragma once

#include "composite_instrument/composite_component_type.h"
#include "price_unifier/source/subscription_core.h"
#include "simple_subscription/i_component_listener.h"

#include <atomic>
#include <memory>

namespace ps_ns
{

/// One component's subscription with one provider: takes what the provider delivers and hands it to the core, until it
/// is detached. From then on only the answer to the unsubscribe matters, and the core's gate gets it exactly once,
/// even if the provider lets the link go without one.
///
/// Threads: the listener operations come from the provider's, Detach from the data-queue thread.
class ComponentLink final : public IComponentListener, public std::enable_shared_from_this<ComponentLink>
{
public:
    ComponentLink(CompositeComponentType::Type component, std::shared_ptr<SubscriptionCore> core);
    ~ComponentLink() override;

    /// Takes in nothing more, and expects the answer to an unsubscribe, if it has not been let go already.
    void Detach(bool forSymbolChange);
    /// Takes in nothing more, and owes nothing: the provider never had it.
    void Abandon() { m_core->Exclude(m_isLive); }

    void OnSubscribed(ps_messages_ns::SubscriptionResult::Value result, const PriceFormat& format) override;
    void OnBook(std::shared_ptr<const BookUpdate> update) override;
    void OnTrades(std::shared_ptr<const std::vector<Trade>> trades) override;
    void OnCustomFields(std::shared_ptr<const CustomFields> fields) override;
    void OnStale(bool isStale) override;
    void OnUnsubscribed(bool ok) override;

private:
    /// Runs `call(link, core)` on the executor, unless the link is detached by then.
    template <class Call>
    void DeliverIfLive(Call call);

    const std::shared_ptr<SubscriptionCore> m_core;
    const CompositeComponentType::Type m_component;
    std::atomic<bool> m_isLive{true};
    std::atomic<bool> m_forSymbolChange{false};
    std::atomic<bool> m_owesAnswer{false};
};

} // namespace ps_ns
