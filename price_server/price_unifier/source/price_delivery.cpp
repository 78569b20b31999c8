#include "price_unifier/source/price_delivery.h"

#include "composite_price/fixed_point.h"
#include "composite_price/i_composite_price_factory.h"
#include "composite_price/trade.h"
#include "logging/logging.h"
#include "price_unifier/source/composite_subscription_mgr.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

namespace
{

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("price_delivery");
    return source;
}

constexpr std::array kComponentTypes{CompositeComponentType::Direct, CompositeComponentType::Implied,
                                     CompositeComponentType::Aggregated};

std::uint32_t ToLevels(std::int32_t depth) noexcept
{
    return depth > 0 ? static_cast<std::uint32_t>(depth) : 1;
}

} // namespace

PriceDelivery::PriceDelivery(const CompositeInstrumentDef& def, std::shared_ptr<ICompositePriceObserver> observer,
                             CompositeSubscriptionMgr* manager, const CompositeSubscriptionInfo& scope,
                             const Settings& settings, MakeTimer makeTimer, std::function<Clock::time_point()> now)
    : m_def(def)
    , m_observer(std::move(observer))
    , m_manager(manager)
    , m_factory(manager->GetPriceFactory())
    , m_settings(settings)
    , m_makeTimer(std::move(makeTimer))
    , m_now(std::move(now))
    , m_scope(scope)
    , m_lastTradePrice(sbe_common_ns::kNullPrice)
{
    for (std::size_t i = 0; i < m_components.size(); ++i)
    {
        m_components[i].isWanted = def.components[i];
    }
}

PriceDelivery::~PriceDelivery() = default;

// --- What the components deliver -------------------------------------------------------------------------------------

void PriceDelivery::OnAnswer(CompositeComponentType::Type type, SubscriptionResult::Value result,
                             const PriceFormat& format, const CompositeSubscriptionState& state)
{
    Component& component = Get(type);
    component.isAnswered = result == SubscriptionResult::Success;
    component.lastSpoke = m_now();
    ArmMonitor();
    // A later answer, after a switch or a rename, is told only when it says something else.
    if (component.toldResult == result && component.toldFormat == format)
    {
        return;
    }
    component.toldResult = result;
    component.toldFormat = format;

    const unsigned bit = 1U << static_cast<unsigned>(type);
    m_observer->OnSubscribe(m_def, EventInfo{}, result, 0, format, type, state);
    for (const auto& client : m_clients)
    {
        if (!client->isRemoved.load() && (client->repliedComponents & bit) == 0)
        {
            client->observer->OnSubscribe(client->id, m_def, EventInfo{}, result, 0, format, type, state);
        }
        client->repliedComponents &= ~bit;
    }
}

void PriceDelivery::ExpectImage(CompositeComponentType::Type type, std::uint64_t subscriptionEpoch)
{
    Component& component = Get(type);
    component.expectsImage = true;
    component.subscriptionEpoch = subscriptionEpoch;
}

void PriceDelivery::OnBook(CompositeComponentType::Type type, const BookUpdate& update)
{
    Component& component = Get(type);
    NoteSpoken(component, update.receiveTime_ns);
    if (!update.isImage && (component.expectsImage || component.epoch != update.epoch))
    {
        return; // nothing to apply it to: the image is still under way
    }
    component.expectsImage = false;
    component.hasImage = true;
    component.epoch = update.epoch;
    m_merger.Apply(type, update);
    m_exchangeTime_ns = update.exchangeTime_ns;
    m_receiveTime_ns = update.receiveTime_ns;
    m_venueSequence = update.venueSequence;
    Publish();
}

void PriceDelivery::OnTrades(CompositeComponentType::Type type, const std::shared_ptr<const std::vector<Trade>>& trades)
{
    NoteSpoken(Get(type), trades->empty() ? 0 : trades->back().receiveTime_ns);
    if (type == CompositeComponentType::Direct && !trades->empty())
    {
        m_lastTradePrice = static_cast<double>(trades->back().price) / static_cast<double>(kPriceUnitsPerOne);
    }
    if (!m_scope.trades)
    {
        return;
    }
    Timed(true, [&] { m_observer->OnTrades(m_def, trades); });
    for (const auto& client : m_clients)
    {
        if (client->isActive && client->info.trades && !client->isRemoved.load())
        {
            Timed(true, [&] { client->observer->OnTrades(client->id, m_def, trades); });
        }
    }
}

void PriceDelivery::OnCustomFields(const std::shared_ptr<const CustomFields>& fields)
{
    if (!m_scope.customFields)
    {
        return;
    }
    m_observer->OnCustomFields(m_def, fields);
    m_counts.customFields.fetch_add(1, std::memory_order_relaxed);
    for (const auto& client : m_clients)
    {
        if (client->isActive && client->info.customFields && !client->isRemoved.load())
        {
            client->observer->OnCustomFields(client->id, m_def, fields);
            m_counts.customFields.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

// --- Books -----------------------------------------------------------------------------------------------------------

std::shared_ptr<MergedOrderBook> PriceDelivery::MergeBook(std::uint32_t reason) const
{
    const std::uint32_t levels = ToLevels(m_scope.depth);
    std::shared_ptr<MergedOrderBook> book = m_factory->CreateMergedOrderBookObject(levels, levels);
    m_merger.Merge(*book);
    for (const auto type : kComponentTypes)
    {
        const Component& component = m_components[static_cast<std::size_t>(type)];
        if (component.isAnswered && !component.hasImage)
        {
            book->missingComponents.insert(type);
        }
        if (component.isStale)
        {
            book->staleComponents.emplace(type, component.lastReceiveTime_ns);
        }
        if (!component.expectsImage)
        {
            book->epoch = std::max(book->epoch, component.subscriptionEpoch);
        }
    }
    book->lastTradePrice = m_lastTradePrice;
    book->exchangeTime_ns = m_exchangeTime_ns;
    book->receiveTime_ns = m_receiveTime_ns;
    book->venueSequence = m_venueSequence;
    book->snapshotReason = reason;
    return book;
}

void PriceDelivery::Publish()
{
    const std::shared_ptr<MergedOrderBook> book = MergeBook(0);
    if (HoldsBackEmpty(*book))
    {
        return;
    }
    if (m_settings.skipUnchangedSnapshots && m_current != nullptr && book->epoch == m_current->epoch &&
        book->ShowsSameAs(*m_current))
    {
        return;
    }
    book->sequence = ++m_sequence;
    m_current = book;
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
    if (!m_holdsBackEmpty)
    {
        m_holdsBackEmpty = true;
        if (m_emptyTimer == nullptr)
        {
            m_emptyTimer = m_makeTimer("EmptySuppress",
                                       [this]
                                       {
                                           if (m_holdsBackEmpty)
                                           {
                                               m_holdsBackEmpty = false;
                                               const auto emptied = MergeBook(0);
                                               emptied->sequence = ++m_sequence;
                                               m_current = emptied;
                                               Deliver();
                                           }
                                       });
        }
        m_emptyTimer->Run(m_settings.emptySuppressInterval_ms);
    }
    return true;
}

void PriceDelivery::Deliver()
{
    DeliverOwn();
    for (const auto& client : m_clients)
    {
        if (client->isActive)
        {
            DeliverTo(client);
        }
    }
}

void PriceDelivery::DeliverOwn()
{
    if (m_ownPace.delivered != m_current &&
        IsDue(m_ownPace, m_scope.conflationInterval_ms, [this] { SendOwn(m_current); }))
    {
        SendOwn(m_current);
    }
}

void PriceDelivery::DeliverTo(const std::shared_ptr<ClientScope>& client)
{
    const std::shared_ptr<const MergedOrderBook>& book = GetView(client->info.depth);
    if (client->pace.delivered == book)
    {
        return; // nothing new at this depth
    }
    const auto later = [this, weak = std::weak_ptr<ClientScope>(client)]
    {
        if (const auto held = weak.lock())
        {
            Send(*held, GetView(held->info.depth));
        }
    };
    if (IsDue(client->pace, client->info.conflationInterval_ms, later))
    {
        Send(*client, book);
    }
}

bool PriceDelivery::IsDue(DeliveryPace& pace, unsigned interval_ms, std::function<void()> later)
{
    if (interval_ms == 0)
    {
        pace.isWaiting = false;
        return true;
    }
    const Clock::time_point now = m_now();
    if (pace.isWaiting)
    {
        return false;
    }
    if (now >= pace.nextTime)
    {
        pace.nextTime = now + std::chrono::milliseconds(interval_ms);
        return true;
    }
    if (pace.timer == nullptr)
    {
        pace.timer = m_makeTimer("Conflation",
                                 [this, &pace, later = std::move(later)]
                                 {
                                     if (std::exchange(pace.isWaiting, false))
                                     {
                                         later();
                                     }
                                 });
    }
    pace.isWaiting = true;
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(pace.nextTime - now);
    pace.nextTime += std::chrono::milliseconds(interval_ms);
    pace.timer->Run(static_cast<unsigned>(rest.count()));
    return false;
}

void PriceDelivery::SendOwn(const std::shared_ptr<const MergedOrderBook>& book)
{
    m_ownPace.delivered = book;
    Timed(false, [&] { m_observer->OnOrderBook(m_def, book); });
}

void PriceDelivery::Send(ClientScope& client, const std::shared_ptr<const MergedOrderBook>& book)
{
    if (client.isRemoved.load() || book == nullptr)
    {
        return;
    }
    client.pace.delivered = book;
    client.wantsImage = false;
    // A copy of the pointer: the callback must not lose its book to a change of the views.
    const std::shared_ptr<const MergedOrderBook> held = book;
    Timed(false, [&] { client.observer->OnOrderBook(client.id, m_def, held); });
}

const std::shared_ptr<const MergedOrderBook>& PriceDelivery::GetView(std::int32_t depth)
{
    const std::uint32_t levels = ToLevels(depth);
    if (m_current == nullptr || levels >= m_current->bids.depth)
    {
        return m_current;
    }
    auto view = std::find_if(m_views.begin(), m_views.end(), [&](const DepthView& v) { return v.depth == levels; });
    if (view == m_views.end())
    {
        view = m_views.insert(m_views.end(), DepthView{levels, nullptr, nullptr});
    }
    if (view->source != m_current)
    {
        view->source = m_current;
        std::shared_ptr<const MergedOrderBook> cut = m_current->Cut(levels);
        const bool isSame = m_settings.skipUnchangedSnapshots && view->book != nullptr &&
                            cut->epoch == view->book->epoch && cut->ShowsSameAs(*view->book);
        if (!isSame)
        {
            view->book = std::move(cut);
        }
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

template <class Call>
void PriceDelivery::Timed(bool isTrade, const Call& call)
{
    const auto begin = std::chrono::steady_clock::now();
    call();
    const auto duration =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - begin);
    const auto duration_ns = static_cast<unsigned long>(duration.count());
    if (isTrade)
    {
        m_manager->UpdateTradesTime(duration_ns);
        m_counts.trades.fetch_add(1, std::memory_order_relaxed);
    }
    else
    {
        m_manager->UpdateSnapshotTime(duration_ns);
        m_counts.books.fetch_add(1, std::memory_order_relaxed);
    }
}

// --- Clients ---------------------------------------------------------------------------------------------------------

void PriceDelivery::AddClient(const std::shared_ptr<ClientScope>& client)
{
    m_clients.push_back(client);
}

void PriceDelivery::ActivateClient(ClientScope& client, bool sendImage)
{
    client.isActive = true;
    if (sendImage)
    {
        Send(client, GetView(client.info.depth));
    }
}

void PriceDelivery::RemoveClient(const ClientScope& client)
{
    std::erase_if(m_clients, [&](const auto& other) { return other.get() == &client; });
    DropUnusedViews();
}

void PriceDelivery::ChangeClient(ClientScope& client, const CompositeSubscriptionInfo& info)
{
    client.info = info;
    client.wantsImage = true;
    client.pace.isWaiting = false;
    client.pace.nextTime = {};
    DropUnusedViews();
}

void PriceDelivery::SetMergedScope(const CompositeSubscriptionInfo& scope)
{
    m_scope = scope;
    m_ownPace.isWaiting = false;
    m_ownPace.nextTime = {};
    if (m_current == nullptr)
    {
        return;
    }
    const std::shared_ptr<MergedOrderBook> book = MergeBook(0);
    book->sequence = ++m_sequence;
    m_current = book;
    for (const auto& client : m_clients)
    {
        // Who did not ask for it, and sees what it saw before, is left alone.
        const auto& view = GetView(client->info.depth);
        if (!client->wantsImage && client->pace.delivered != nullptr && view->ShowsSameAs(*client->pace.delivered))
        {
            client->pace.delivered = view;
        }
    }
    Deliver();
}

void PriceDelivery::GenerateSnapshot(std::uint32_t reason, bool toOwnObserver)
{
    if (m_current == nullptr)
    {
        return;
    }
    const std::shared_ptr<MergedOrderBook> book = MergeBook(reason);
    book->sequence = m_sequence; // it shows what the newest book shows
    if (toOwnObserver)
    {
        SendOwn(book);
        m_ownPace.delivered = m_current;
    }
    for (const auto& client : m_clients)
    {
        if (client->isActive && client->wantsImage)
        {
            const std::uint32_t levels = ToLevels(client->info.depth);
            Send(*client, levels < book->bids.depth ? book->Cut(levels) : book);
            client->pace.delivered = GetView(client->info.depth);
        }
    }
}

// --- Monitoring ------------------------------------------------------------------------------------------------------

void PriceDelivery::NoteSpoken(Component& component, std::uint64_t receiveTime_ns)
{
    if (m_settings.monitoringInterval_sec == 0)
    {
        return;
    }
    component.lastSpoke = m_now();
    component.lastReceiveTime_ns = receiveTime_ns;
    if (component.isStale)
    {
        component.isStale = false;
        onStaleChanged(false);
        zel::logging::Log(10, LogSource(),
                          [&](std::ostream& text)
                          { text << m_def.ToString() << " is fresh: a component speaks again"; });
    }
}

void PriceDelivery::ArmMonitor()
{
    if (m_settings.monitoringInterval_sec == 0 || m_monitorTimer != nullptr)
    {
        return;
    }
    m_monitorTimer = m_makeTimer("InstrumentMonitor", [this] { OnMonitor(); });
    m_monitorTimer->Run(m_settings.monitoringInterval_sec * 1000);
}

void PriceDelivery::OnMonitor()
{
    const auto interval = std::chrono::seconds(m_settings.monitoringInterval_sec);
    const Clock::time_point now = m_now();
    bool hasChanged = false;
    for (const auto type : kComponentTypes)
    {
        Component& component = Get(type);
        if (component.isAnswered && !component.isStale && now - component.lastSpoke >= interval)
        {
            component.isStale = true;
            hasChanged = true;
            onStaleChanged(true);
            zel::logging::Log(20, LogSource(),
                              [&](std::ostream& text)
                              {
                                  text << m_def.ToString() << " is stale: component " << static_cast<int>(type)
                                       << " has been silent for " << m_settings.monitoringInterval_sec << " s";
                              });
        }
    }
    if (hasChanged && m_current != nullptr)
    {
        Publish();
    }
    m_monitorTimer->Run(m_settings.monitoringInterval_sec * 1000);
}

} // namespace ps_ns
