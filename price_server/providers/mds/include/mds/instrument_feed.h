#pragma once

#include "base/thread_annotations.h"
#include "composite_instrument/price_format.h"
#include "mds/feed_book.h"
#include "mds/market_source.h"
#include "mds/update_pools.h"
#include "simple_subscription/i_component_listener.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace ps_ns
{

/// One instrument: its present book, its sequence, and who listens to it. All listeners of an update share one object.
///
/// Threads: one feed thread publishes; listeners come and go on any other. Listeners are called under the
/// instrument's lock, which is what makes "the image first, then every later update" and "nothing after the end" hold;
/// they hand on and return, by their contract.
class InstrumentFeed
{
public:
    explicit InstrumentFeed(const PriceFormat& format)
        : m_format(format)
    {
    }

    /// Applies a message to the book and delivers it. The first change of an epoch that is no image becomes one: the
    /// book is then known as far as messages have told it. Takes the message's buffers in exchange for empty ones when
    /// somebody listens. What is published while the book is stale must be an image, and says that it is stale. Feed
    /// thread only.
    void Publish(MarketMessage& message, UpdatePools& pools);

    /// Whether the book may be out of date; the listeners are told of changes, and fresh is told right before the image
    /// that makes it so. While it is stale, who joins gets no image, unless one was published meanwhile. Feed thread
    /// only.
    void SetStale(bool isStale);

    /// While the book is stale: delivers it as an image that says so, and gives it to who joins. Nothing without a
    /// book, or when it is fresh. Feed thread only.
    void ShowStale(UpdatePools& pools);

    /// The present book, which is kept sorted from the first call on. Feed thread only.
    const LevelBook& GetBook() PS_NO_THREAD_ANALYSIS;

    /// Tells the listener OnSubscribed, then that it is stale or not at all, then the present book if there is one that
    /// may be shown; updates follow.
    void Join(std::shared_ptr<IComponentListener> listener, bool wantsTrades, UpdatePools& pools);
    void SetWantsTrades(const IComponentListener* listener, bool wantsTrades);
    /// No call to the listener runs, or comes, once this has returned.
    void Leave(const IComponentListener* listener);
    /// Everybody leaves.
    void DropAll();
    bool HasListeners() const;

private:
    struct Slot
    {
        std::shared_ptr<IComponentListener> listener;
        bool wantsTrades;
    };

    void PublishBook(MarketMessage& message, UpdatePools& pools) PS_REQUIRES(m_role);
    void PublishTrades(MarketMessage& message, UpdatePools& pools) PS_REQUIRES(m_role);
    void SendImage(IComponentListener& listener, UpdatePools& pools) PS_REQUIRES(m_role);

    const PriceFormat m_format;
    mutable std::mutex m_mutex;
    mutable Role m_role; ///< of m_mutex

    /// Written by the feed thread under the lock: that thread reads without it, all others with it.
    FeedBook m_book PS_GUARDED_BY(m_role);
    bool m_hasImage PS_GUARDED_BY(m_role) = false;
    bool m_isStale PS_GUARDED_BY(m_role) = false;
    bool m_hasStaleImage PS_GUARDED_BY(m_role) = false; ///< the last book message came while it was stale
    std::uint64_t m_epoch PS_GUARDED_BY(m_role) = 0;
    std::uint64_t m_sequence PS_GUARDED_BY(m_role) = 0;
    std::uint64_t m_exchangeTime_ns PS_GUARDED_BY(m_role) = 0; ///< of the last book message, as the next two
    std::uint64_t m_receiveTime_ns PS_GUARDED_BY(m_role) = 0;
    std::uint64_t m_venueSequence PS_GUARDED_BY(m_role) = 0;
    std::vector<Slot> m_slots PS_GUARDED_BY(m_role);
};

} // namespace ps_ns
