#pragma once

#include "composite_instrument/i_composite_price_observer.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "composite_price/merged_order_book.h"

#include <cstdint>
#include <memory>

namespace compare
{

/// Looks at each book, and does nothing else.
class QuietObserver final : public ps_ns::ICompositePriceObserver
{
public:
    QuietObserver()
        : ICompositePriceObserver("quiet")
    {
    }
    void OnSubscribe(const ps_ns::CompositeInstrumentDef&, const ps_ns::EventInfo&, Result, unsigned long,
                     const ps_ns::PriceFormat&, ps_ns::CompositeComponentType::Type,
                     const ps_ns::CompositeSubscriptionState&) override
    {
    }
    void OnAddScope(const ps_ns::CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const ps_ns::CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const ps_ns::CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnOrderBook(const ps_ns::CompositeInstrumentDef&,
                     const std::shared_ptr<const ps_ns::MergedOrderBook>& book) override
    {
        levels += book->bids.count;
        ++books;
    }
    void OnTrades(const ps_ns::CompositeInstrumentDef&,
                  const std::shared_ptr<const std::vector<ps_ns::Trade>>&) override
    {
    }
    void OnCustomFields(const ps_ns::CompositeInstrumentDef&,
                        const std::shared_ptr<const ps_ns::CustomFields>&) override
    {
    }
    void OnUnsubscribe(const ps_ns::CompositeInstrumentDef&, Result, ps_ns::CompositeComponentType::Type,
                       const ps_ns::CompositeSubscriptionState&) override
    {
    }

    std::uint64_t levels = 0;
    std::uint64_t books = 0;
};

/// One of four classes that do the same: `kind` from 0 to 3.
std::shared_ptr<ps_ns::IFlexiblePriceObserver> MakeQuietFlexibleObserver(int kind);

} // namespace compare
