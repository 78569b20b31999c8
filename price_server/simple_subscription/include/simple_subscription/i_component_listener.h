#pragma once

#include "composite_instrument/composite_component_type.h"
#include "composite_instrument/price_format.h"
#include "composite_instrument/subscription_result.h"
#include "composite_price/custom_fields.h"
#include "composite_price/trade.h"
#include "simple_subscription/book_update.h"

#include <memory>
#include <vector>

namespace ps_ns
{

/// Who receives one component's prices: made for one subscribe, and not used for another. Its address is the
/// subscription's identity towards the provider.
///
/// Threads: the provider calls from one of its threads at a time for one listener, or from within Subscribe,
/// ChangeScope or Unsubscribe. Implementations hand on and return: they neither block nor call the provider.
///
/// Order: OnSubscribed once; then an image, updates, trades, fields and staleness in any mixture; OnUnsubscribed once,
/// as the last call, after Unsubscribe.
class IComponentListener
{
public:
    virtual ~IComponentListener() = default;

    /// The subscribe's result: Success, or why there will be no data. `format` says how the venue quotes.
    virtual void OnSubscribed(ps_messages_ns::SubscriptionResult::Value result, const PriceFormat& format) = 0;
    virtual void OnBook(std::shared_ptr<const BookUpdate> update) = 0;
    virtual void OnTrades(std::shared_ptr<const std::vector<Trade>> trades) = 0;
    virtual void OnCustomFields(std::shared_ptr<const CustomFields> fields) = 0;
    /// True: the provider has lost its feed, or part of it, and what has been delivered may be out of date. False: it
    /// has it again; the image that makes the book good comes next. For providers that can lose a feed. Meanwhile there
    /// may be images that say themselves that they are stale (BookUpdate::isStale): the last that was known.
    virtual void OnStale(bool isStale) { static_cast<void>(isStale); }
    /// The answer to Unsubscribe; false: the provider could not, and data may go on.
    virtual void OnUnsubscribed(bool ok) = 0;
};

} // namespace ps_ns
