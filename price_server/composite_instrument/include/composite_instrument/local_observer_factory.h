#pragma once

#include "composite_instrument/i_composite_price_observer.h"

#include <memory>

namespace ps_ns
{

/// Makes the observer that a flexible client's composite subscription has of its own. The first flexible client of an
/// instrument supplies it; data reaches the clients themselves through their IFlexiblePriceObserver.
///
/// Threads: called on the data-queue thread, after the client's Subscribe has returned.
/// Ownership: the manager holds a reference only. The factory must outlive the requests made with it.
class LocalObserverFactory
{
public:
    virtual ~LocalObserverFactory() = default;

    /// An observer that takes note of nothing, unless a client's factory knows better. Never null.
    virtual std::shared_ptr<ICompositePriceObserver> CreateLocalObserver(const CompositeInstrumentDef& def);
};

} // namespace ps_ns
