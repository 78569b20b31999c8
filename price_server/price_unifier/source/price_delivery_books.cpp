#include "price_unifier/source/price_delivery.h"

#include "composite_price/i_composite_price_factory.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "price_unifier/source/detail/call_observer.h"
#include "price_unifier/source/detail/callback_round.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace ps_ns
{
namespace
{

/// The depth of no scope.
constexpr std::int32_t kNoDepth = std::numeric_limits<std::int32_t>::min();

std::uint32_t ToLevels(std::int32_t depth) noexcept
{
    return depth > 0 ? static_cast<std::uint32_t>(depth) : 1;
}

} // namespace

std::uint32_t PriceDelivery::GetMergedLevels() const noexcept
{
    const std::uint32_t asked = ToLevels(m_scope.depth);
    return m_settings.maxDepth == 0 ? asked : std::min<std::uint32_t>(asked, m_settings.maxDepth);
}

std::shared_ptr<MergedOrderBook> PriceDelivery::MergeBook() const
{
    const std::uint32_t levels = GetMergedLevels();
    std::shared_ptr<MergedOrderBook> book = m_factory->CreateMergedOrderBookObject(levels, levels);
    m_merger.Merge(*book);
    book->epoch = m_current != nullptr ? m_current->epoch : 0; // while images are awaited it shows what it showed
    for (std::size_t i = 0; i < m_components.size(); ++i)
    {
        const auto type = static_cast<CompositeComponentType::Type>(i);
        const Component& component = m_components[i];
        if (m_host.IsAnswered(type) && !component.hasImage)
        {
            book->missingComponents.insert(type);
        }
        if (component.IsStale())
        {
            book->staleComponents.emplace(type, component.lastReceiveTime_ns);
        }
        if (!component.expectsImage)
        {
            book->epoch = std::max(book->epoch, m_host.GetSubscriptionEpoch(type));
        }
    }
    book->lastTradePrice = m_lastTradePrice;
    book->exchangeTime_ns = m_exchangeTime_ns;
    book->receiveTime_ns = m_receiveTime_ns;
    book->venueSequence = m_venueSequence;
    return book;
}

void PriceDelivery::Publish()
{
    std::shared_ptr<MergedOrderBook> book = MergeBook();
    if (HoldsBackEmpty(*book))
    {
        return;
    }
    if (m_settings.skipUnchangedSnapshots && m_current != nullptr && book->epoch == m_current->epoch &&
        book->ShowsSameAs(*m_current))
    {
        return;
    }
    PublishAs(std::move(book));
}

void PriceDelivery::PublishAs(std::shared_ptr<MergedOrderBook> book)
{
    book->sequence = ++m_sequence;
    m_current = std::move(book);
    Deliver();
}

bool PriceDelivery::HoldsBackEmpty(const MergedOrderBook& book)
{
    const bool isEmpty = book.bids.count == 0 && book.asks.count == 0;
    const bool wasFilled = m_current != nullptr && (m_current->bids.count != 0 || m_current->asks.count != 0);
    if (!isEmpty || !wasFilled || m_settings.emptySuppressInterval_ms == 0)
    {
        m_holdsBackEmpty = false;
        return false;
    }
    if (!std::exchange(m_holdsBackEmpty, true))
    {
        if (m_emptyTimer == nullptr)
        {
            m_emptyTimer = m_host.MakeTimer("EmptySuppress",
                                            [this]
                                            {
                                                if (std::exchange(m_holdsBackEmpty, false))
                                                {
                                                    PublishAs(MergeBook());
                                                }
                                            });
        }
        m_emptyTimer->Run(m_settings.emptySuppressInterval_ms);
    }
    return true;
}

detail::CallbackRound PriceDelivery::MakeRound() noexcept
{
    return {*m_manager, &CompositeSubscriptionMgr::UpdateSnapshotTime, m_counts.books};
}

void PriceDelivery::Deliver()
{
    const std::shared_ptr<const MergedOrderBook> book = m_current; // a callback must not lose it to what it sets off
    detail::CallbackRound round = MakeRound();
    DeliverOwn(book, round);
    DeliverToClients(book, round);
}

/// The loop that every update of every instrument goes through: what most clients want, every change of the same view,
/// takes no look-up, no counted reference of its own and no look at the clock.
void PriceDelivery::DeliverToClients(const std::shared_ptr<const MergedOrderBook>& book, detail::CallbackRound& round)
{
    std::shared_ptr<const MergedOrderBook> cut; // held like the book
    const std::shared_ptr<const MergedOrderBook>* view = &book;
    std::int32_t depth = kNoDepth;
    std::uint64_t sequence = 0;
    std::uint64_t calls = 0;
    for (std::size_t i = 0; i < m_clients.size(); ++i)
    {
        ClientScope& client = *m_clients[i];
        if (!client.isActive || client.isRemoved.load(std::memory_order_relaxed))
        {
            continue;
        }
        if (client.info.depth != depth)
        {
            depth = client.info.depth;
            view = &book;
            if (IsCut(depth))
            {
                round.Pause();
                cut = GetView(depth);
                view = &cut;
            }
            sequence = (*view)->sequence;
            round.Resume();
        }
        if (client.viewSequence == sequence)
        {
            continue; // nothing new at this depth
        }
        if (client.hasInterval || sequence < client.sentSequence)
        {
            round.Pause();
            DeliverTo(m_clients[i], round);
            round.Resume();
            continue;
        }
        client.viewSequence = sequence;
        client.sentSequence = sequence;
        ++calls;
        CallObserver(client.observer->GetName(), [&] { client.observer->OnOrderBook(client.id, m_def, *view); });
    }
    round.Count(calls);
}

/// True when the view is what the client had last.
bool PriceDelivery::HasView(const ClientScope& client,
                            const std::shared_ptr<const MergedOrderBook>& view) const noexcept
{
    if (client.hasInterval)
    {
        return client.pace.delivered == view;
    }
    return view != nullptr && client.viewSequence == view->sequence;
}

void PriceDelivery::NoteDelivered(ClientScope& client, const std::shared_ptr<const MergedOrderBook>& view)
{
    if (client.hasInterval)
    {
        client.pace.delivered = view;
    }
    else
    {
        client.viewSequence = view->sequence;
    }
}

template <class Later>
bool PriceDelivery::MustWait(DeliveryPace& pace, unsigned interval_ms, const Later& later)
{
    if (interval_ms == 0)
    {
        return false;
    }
    const Clock::time_point now = m_host.Now();
    if (pace.isWaiting || now >= pace.nextTime)
    {
        return pace.isWaiting;
    }
    if (pace.timer == nullptr)
    {
        pace.timer = m_host.MakeTimer("Conflation",
                                      [&pace, later]
                                      {
                                          if (std::exchange(pace.isWaiting, false))
                                          {
                                              later();
                                          }
                                      });
    }
    pace.isWaiting = true;
    pace.timer->Run(static_cast<unsigned>(std::chrono::ceil<std::chrono::milliseconds>(pace.nextTime - now).count()));
    return true;
}

void PriceDelivery::DeliverOwn(const std::shared_ptr<const MergedOrderBook>& book, detail::CallbackRound& round)
{
    const auto later = [this]
    {
        const std::shared_ptr<const MergedOrderBook> newest = m_current;
        if (IsNews(m_ownPace, newest))
        {
            detail::CallbackRound own = MakeRound();
            SendOwn(newest, own);
        }
    };
    if (m_ownSequence != book->sequence && !MustWait(m_ownPace, m_scope.conflationInterval_ms, later))
    {
        SendOwn(book, round);
    }
}

void PriceDelivery::DeliverTo(const std::shared_ptr<ClientScope>& client, detail::CallbackRound& round)
{
    const std::shared_ptr<const MergedOrderBook>& book = GetView(client->info.depth);
    if (HasView(*client, book))
    {
        return; // nothing new at this depth
    }
    if (!client->hasInterval)
    {
        Send(*client, book, round);
        return;
    }
    const auto later = [this, weak = std::weak_ptr<ClientScope>(client)]
    {
        const auto held = weak.lock();
        if (held != nullptr && IsNews(held->pace, GetView(held->info.depth)))
        {
            detail::CallbackRound own = MakeRound();
            Send(*held, GetView(held->info.depth), own);
        }
    };
    if (!MustWait(client->pace, client->info.conflationInterval_ms, later))
    {
        Send(*client, book, round);
    }
}

void PriceDelivery::NoteSent(DeliveryPace& pace, unsigned interval_ms,
                             const std::shared_ptr<const MergedOrderBook>& book)
{
    pace.isWaiting = false;
    if (interval_ms == 0)
    {
        pace.delivered.reset();
    }
    else
    {
        pace.delivered = book;
        pace.nextTime = m_host.Now() + std::chrono::milliseconds(interval_ms);
    }
}

bool PriceDelivery::IsNews(const DeliveryPace& pace, const std::shared_ptr<const MergedOrderBook>& book) const
{
    if (pace.delivered == nullptr || pace.delivered == book)
    {
        return pace.delivered == nullptr;
    }
    return !m_settings.skipUnchangedSnapshots || pace.delivered->epoch != book->epoch ||
           !book->ShowsSameAs(*pace.delivered);
}

void PriceDelivery::SendOwn(const std::shared_ptr<const MergedOrderBook>& book, detail::CallbackRound& round)
{
    m_ownSequence = book->sequence;
    NoteSent(m_ownPace, m_scope.conflationInterval_ms, book);
    round.Resume();
    CallObserver(m_observer->GetName(), [&] { m_observer->OnOrderBook(m_def, book); });
    round.Count(1);
}

void PriceDelivery::Send(ClientScope& client, const std::shared_ptr<const MergedOrderBook>& book,
                         detail::CallbackRound& round)
{
    if (client.isRemoved.load() || book == nullptr)
    {
        return;
    }
    std::shared_ptr<const MergedOrderBook> held = book;
    if (client.hasInterval)
    {
        NoteSent(client.pace, client.info.conflationInterval_ms, held);
    }
    else
    {
        client.viewSequence = held->sequence;
    }
    if (held->sequence < client.sentSequence)
    {
        // A view that has long shown the same, for a client who has had newer books at another depth: it must not go
        // back, so it gets the same levels out of the newest book.
        const std::shared_ptr<MergedOrderBook> newest = m_current->Cut(ToLevels(client.info.depth));
        newest->snapshotReason = held->snapshotReason;
        held = newest;
    }
    client.sentSequence = held->sequence;
    round.Resume();
    CallObserver(client.observer->GetName(), [&] { client.observer->OnOrderBook(client.id, m_def, held); });
    round.Count(1);
    round.Pause();
}

bool PriceDelivery::IsCut(std::int32_t depth) const noexcept
{
    return m_current != nullptr && ToLevels(depth) < m_current->bids.depth;
}

const std::shared_ptr<const MergedOrderBook>& PriceDelivery::GetView(std::int32_t depth)
{
    if (!IsCut(depth))
    {
        return m_current;
    }
    const std::uint32_t levels = ToLevels(depth);
    auto view = std::find_if(m_views.begin(), m_views.end(), [&](const DepthView& v) { return v.depth == levels; });
    if (view == m_views.end())
    {
        view = m_views.insert(m_views.end(), DepthView{levels, nullptr, nullptr});
    }
    if (view->source != m_current)
    {
        std::shared_ptr<const MergedOrderBook> cut = m_current->Cut(levels);
        const bool isSame = m_settings.skipUnchangedSnapshots && view->book != nullptr &&
                            cut->epoch == view->book->epoch && cut->ShowsSameAs(*view->book);
        if (!isSame)
        {
            view->book = std::move(cut);
        }
        view->source = m_current;
    }
    return view->book;
}

void PriceDelivery::DropUnusedViews()
{
    std::erase_if(m_views,
                  [&](const DepthView& view)
                  {
                      return std::none_of(m_clients.begin(), m_clients.end(),
                                          [&](const auto& client)
                                          { return ToLevels(client->info.depth) == view.depth; });
                  });
}

} // namespace ps_ns
