#pragma once

#include "composite_instrument/i_composite_price_observer.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "cycles/callback_watch.h"

#include <cstddef>
#include <memory>
#include <string>

namespace ps_ns::cycles
{

/// A direct client of one handle, or the own observer of a flexible client's composite subscription; judges each
/// callback by the rules of docs/threads.md.
class WatchedObserver final : public ICompositePriceObserver
{
public:
    WatchedObserver(const std::string& name, CallbackWatch& watch, Bell& bell);
    ~WatchedObserver() override;

    void OnSubscribe(const CompositeInstrumentDef& def, const EventInfo& eventInfo, Result result,
                     unsigned long reserved, const PriceFormat& format, CompositeComponentType::Type component,
                     const CompositeSubscriptionState& state) override;
    void OnAddScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override;
    void OnChangeScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override;
    void OnRemoveScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override;
    void OnOrderBook(const CompositeInstrumentDef& def, const std::shared_ptr<const MergedOrderBook>& book) override;
    void OnTrades(const CompositeInstrumentDef& def, const std::shared_ptr<const std::vector<Trade>>& trades) override;
    void OnCustomFields(const CompositeInstrumentDef& def, const std::shared_ptr<const CustomFields>& fields) override;
    void OnUnsubscribe(const CompositeInstrumentDef& def, Result result, CompositeComponentType::Type component,
                       const CompositeSubscriptionState& state) override;

    Delivery delivery;

private:
    void NoteScopeFailure(const char* callback, Delivery::Request request, Result result, Result otherResult);

    CallbackWatch& m_watch;
    Bell& m_bell;
};

/// A flexible client with the ids firstId, firstId + 1, ...; each is used for one subscribe that is meant to succeed.
class WatchedFlexibleObserver final : public IFlexiblePriceObserver
{
public:
    WatchedFlexibleObserver(const std::string& name, CallbackWatch& watch, Bell& bell, unsigned long firstId,
                            std::size_t idCount);
    ~WatchedFlexibleObserver() override;

    void OnSubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def, const EventInfo& eventInfo,
                     Result result, unsigned long reserved, const PriceFormat& format,
                     CompositeComponentType::Type component, const CompositeSubscriptionState& state) override;
    void OnChangeScope(unsigned long subscriptionId, const CompositeInstrumentDef& def, Result result) override;
    void OnOrderBook(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                     const std::shared_ptr<const MergedOrderBook>& book) override;
    void OnTrades(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                  const std::shared_ptr<const std::vector<Trade>>& trades) override;
    void OnCustomFields(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                        const std::shared_ptr<const CustomFields>& fields) override;
    void OnUnsubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def, Result result,
                       CompositeComponentType::Type component, const CompositeSubscriptionState& state) override;

    unsigned long GetFirstId() const noexcept { return m_firstId; }
    Delivery& Get(unsigned long subscriptionId) { return m_deliveries[subscriptionId - m_firstId]; }

private:
    std::string Who(unsigned long subscriptionId) const;
    void NoteFailure(unsigned long subscriptionId, const CompositeInstrumentDef& def, const char* callback,
                     Delivery::Request request, Result result);

    CallbackWatch& m_watch;
    Bell& m_bell;
    const unsigned long m_firstId;
    const std::unique_ptr<Delivery[]> m_deliveries;
};

} // namespace ps_ns::cycles
