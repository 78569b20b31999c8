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

/// A client of the flexible interface: many of them share one composite subscription, each under subscription ids of
/// its own choice and with a scope of its own for each.
///
/// Threads: all callbacks of one instrument come on its composite subscription's executor, in one order; the exception
/// is a report that there is no subscription (13), which has no executor and comes on the data-queue thread.
///
/// Ownership and data: as for ICompositePriceObserver. After a scope has been removed, nothing more arrives for it.
class IFlexiblePriceObserver
{
public:
    using Result = ps_messages_ns::SubscriptionResult::Value;

    explicit IFlexiblePriceObserver(std::string name)
        : m_name(std::move(name))
    {
    }

    // The virtual operations come in this order, the destructor first: it is what the interface's other users expect.
    virtual ~IFlexiblePriceObserver() = default;
    IFlexiblePriceObserver(const IFlexiblePriceObserver&) = delete;
    IFlexiblePriceObserver& operator=(const IFlexiblePriceObserver&) = delete;

    /// One component has answered, now or before this client joined; or the request as a whole has failed (17, 23).
    virtual void OnSubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                             const EventInfo& eventInfo, Result result, unsigned long reserved,
                             const PriceFormat& format, CompositeComponentType::Type component,
                             const CompositeSubscriptionState& state) = 0;

    /// A change of scope failed (13, 24). Success is not reported.
    virtual void OnChangeScope(unsigned long subscriptionId, const CompositeInstrumentDef& def, Result result) = 0;

    /// The merged book, cut to this scope's depth, at most once in this scope's interval.
    virtual void OnOrderBook(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                             const std::shared_ptr<const MergedOrderBook>& book) = 0;
    /// Trades in the order of the venue, when this scope asks for them; never conflated.
    virtual void OnTrades(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                          const std::shared_ptr<const std::vector<Trade>>& trades) = 0;
    /// Custom fields, when this scope asks for them.
    virtual void OnCustomFields(unsigned long subscriptionId, const CompositeInstrumentDef& def,
                                const std::shared_ptr<const CustomFields>& fields) = 0;

    /// An unsubscribe failed (13, 24). Success is not reported.
    virtual void OnUnsubscribe(unsigned long subscriptionId, const CompositeInstrumentDef& def, Result result,
                               CompositeComponentType::Type component, const CompositeSubscriptionState& state) = 0;

    /// The name in log lines.
    const std::string& GetName() const noexcept { return m_name; }

protected:
    const std::string m_name;
};

} // namespace ps_ns
