#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_instrument/composite_instrument_def.h"
#include "composite_instrument/composite_subscription_state.h"
#include "composite_instrument/event_info.h"
#include "composite_instrument/price_format.h"
#include "composite_instrument/subscription_result.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns
{

class CustomFields;
class MergedOrderBook;
class Trade;

/// A client of the direct interface.
///
/// Threads: a refused or failed request is reported on the data-queue thread; what the components answer, and the data,
/// arrive on the composite subscription's executor. An implementation must not block either.
///
/// Ownership: held by shared pointer until the subscription is gone. Data arrives as shared pointers to constant
/// objects: one object, many readers; keep the pointer to keep the object.
///
/// Failure: what a callback throws on the data-queue thread ends the action that called it, and is logged; no request
/// is repeated for it.
class ICompositePriceObserver
{
public:
    using Result = ps_messages_ns::SubscriptionResult::Value;

    explicit ICompositePriceObserver(std::string name)
        : m_name(std::move(name))
    {
    }

    // The virtual operations come in this order, the destructor first: it is what the interface's other users expect.
    virtual ~ICompositePriceObserver() = default;
    ICompositePriceObserver(const ICompositePriceObserver&) = delete;
    ICompositePriceObserver& operator=(const ICompositePriceObserver&) = delete;

    /// One component has answered the subscribe, or (12, 25) the request as a whole has failed. `format` says how the
    /// component's raw prices are to be read. `eventInfo` is all zero and `reserved` is 0 when the manager calls.
    virtual void OnSubscribe(const CompositeInstrumentDef& def, const EventInfo& eventInfo, Result result,
                             unsigned long reserved, const PriceFormat& format, CompositeComponentType::Type component,
                             const CompositeSubscriptionState& state) = 0;

    /// A scope could not be added (13, 23), changed (13, 24) or removed (13, 24). Success is not reported.
    virtual void OnAddScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) = 0;
    virtual void OnChangeScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) = 0;
    virtual void OnRemoveScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) = 0;

    /// The merged book after a change, cut to the merged scope's depth.
    virtual void OnOrderBook(const CompositeInstrumentDef& def, const std::shared_ptr<const MergedOrderBook>& book) = 0;
    /// Trades in the order of the venue, when the merged scope asks for them.
    virtual void OnTrades(const CompositeInstrumentDef& def,
                          const std::shared_ptr<const std::vector<Trade>>& trades) = 0;
    /// Custom fields (statistics of the session), when the merged scope asks for them.
    virtual void OnCustomFields(const CompositeInstrumentDef& def,
                                const std::shared_ptr<const CustomFields>& fields) = 0;

    /// An unsubscribe failed (13).
    virtual void OnUnsubscribe(const CompositeInstrumentDef& def, Result result, CompositeComponentType::Type component,
                               const CompositeSubscriptionState& state) = 0;

    /// The name in log lines.
    const std::string& GetName() const noexcept { return m_name; }

protected:
    const std::string m_name;
};

} // namespace ps_ns
