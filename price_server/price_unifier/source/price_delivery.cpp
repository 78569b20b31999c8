#include "price_unifier/source/price_delivery.h"

#include "composite_price/custom_fields.h"
#include "composite_price/fixed_point.h"
#include "composite_price/trade.h"
#include "logging/logging.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "price_unifier/source/detail/call_observer.h"
#include "price_unifier/source/detail/callback_round.h"

#include <algorithm>
#include <limits>
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

} // namespace

void detail::LogObserverThrew(const CompositeInstrumentDef& def, const std::string& name, const char* what)
{
    zel::logging::Log(30, LogSource(),
                      [&](std::ostream& text)
                      {
                          text << def.ToString() << ": observer " << name
                               << " threw: " << (what != nullptr ? what : "something that is no exception");
                      });
}

PriceDelivery::PriceDelivery(DeliveryHost& host)
    : m_host(host)
    , m_def(host.GetDefinition())
    , m_observer(host.GetObserver())
    , m_manager(host.GetManager())
    , m_settings(host.GetSettings())
    , m_scope(host.GetDeliveredScope())
    , m_counts(host.GetCounts())
    , m_factory(m_manager->GetPriceFactory())
    , m_lastTradePrice(sbe_common_ns::kNullPrice)
{
}

PriceDelivery::~PriceDelivery() = default;

// --- What the components deliver -------------------------------------------------------------------------------------

void PriceDelivery::NoteAnswer(CompositeComponentType::Type type)
{
    Get(type).lastSpoke = m_host.Now();
    ArmMonitor();
}

void PriceDelivery::TellClients(CompositeComponentType::Type type, SubscriptionResult::Value result,
                                const PriceFormat& format, const CompositeSubscriptionState& state)
{
    if (m_clients.empty())
    {
        return; // who comes later is told by replay
    }
    Get(type).told.reset(new Answer{result, format, state});
    for (const auto& client : m_clients)
    {
        TellAnswer(*client, type);
    }
}

void PriceDelivery::TellAnswer(ClientScope& client, CompositeComponentType::Type type)
{
    const unsigned bit = 1U << static_cast<unsigned>(type);
    if (!client.isActive)
    {
        client.owedAnswers |= bit; // older ones are being replayed to it, and must not come after this one
        return;
    }
    client.owedAnswers &= ~bit;
    if (client.isRemoved.load())
    {
        return;
    }
    const Answer& told = *Get(type).told;
    CallObserver(client.observer->GetName(),
                 [&] {
                     client.observer->OnSubscribe(client.id, m_def, EventInfo{}, told.result, 0, told.format, type,
                                                  told.state);
                 });
}

void PriceDelivery::ForgetBook(CompositeComponentType::Type type)
{
    Component& component = Get(type);
    NoteFresh(component);
    if (!component.hasImage)
    {
        return;
    }
    component.hasImage = false;
    component.expectsImage = true;
    m_merger.Clear(type);
    Publish();
}

void PriceDelivery::ExpectImage(CompositeComponentType::Type type)
{
    Get(type).expectsImage = true;
}

void PriceDelivery::OnBook(CompositeComponentType::Type type, const BookUpdate& update)
{
    Component& component = Get(type);
    NoteSpoken(component, update.receiveTime_ns);
    if (!update.isImage && (component.expectsImage || component.epoch != update.epoch))
    {
        return; // nothing to apply it to: the image is still under way
    }
    if (update.isImage)
    {
        SetStale(component, component.hasLostFeed, update.isStale);
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
    Component& component = Get(type);
    NoteSpoken(component, trades->empty() ? component.lastReceiveTime_ns : trades->back().receiveTime_ns);
    if (type == CompositeComponentType::Direct && !trades->empty())
    {
        m_lastTradePrice = static_cast<double>(trades->back().price) / static_cast<double>(kPriceUnitsPerOne);
    }
    if (!m_scope.trades)
    {
        return;
    }
    detail::CallbackRound round(*m_manager, &CompositeSubscriptionMgr::UpdateTradesTime, m_counts.trades);
    round.Resume();
    CallObserver(m_observer->GetName(), [&] { m_observer->OnTrades(m_def, trades); });
    round.Count(1);
    for (const auto& client : m_clients)
    {
        if (client->isActive && client->info.trades && !client->isRemoved.load())
        {
            CallObserver(client->observer->GetName(), [&] { client->observer->OnTrades(client->id, m_def, trades); });
            round.Count(1);
        }
    }
}

void PriceDelivery::OnCustomFields(CompositeComponentType::Type type, const std::shared_ptr<const CustomFields>& fields)
{
    NoteSpoken(Get(type), fields->receiveTime_ns);
    if (!m_scope.customFields)
    {
        return;
    }
    CallObserver(m_observer->GetName(), [&] { m_observer->OnCustomFields(m_def, fields); });
    m_counts.customFields.fetch_add(1, std::memory_order_relaxed);
    for (const auto& client : m_clients)
    {
        if (client->isActive && client->info.customFields && !client->isRemoved.load())
        {
            CallObserver(client->observer->GetName(),
                         [&] { client->observer->OnCustomFields(client->id, m_def, fields); });
            m_counts.customFields.fetch_add(1, std::memory_order_relaxed);
        }
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
    for (const auto type : kComponentTypes)
    {
        if ((client.owedAnswers & (1U << static_cast<unsigned>(type))) != 0)
        {
            TellAnswer(client, type);
        }
    }
    if (sendImage)
    {
        detail::CallbackRound round = MakeRound();
        Send(client, GetView(client.info.depth), round);
    }
}

void PriceDelivery::RemoveClient(const ClientScope& client)
{
    std::erase_if(m_clients, [&](const auto& other) { return other.get() == &client; });
    DropUnusedViews();
}

void PriceDelivery::ChangeClient(ClientScope& client, const CompositeSubscriptionInfo& info)
{
    const bool wasWaiting = std::exchange(client.pace.isWaiting, false);
    client.SetInfo(info);
    client.pace.nextTime = {};
    client.pace.delivered.reset(); // the next book comes in any case, even if it shows the same
    client.viewSequence = 0;
    DropUnusedViews();
    if (wasWaiting && client.isActive)
    {
        detail::CallbackRound round = MakeRound();
        Send(client, GetView(info.depth), round);
    }
}

void PriceDelivery::OnMergedScope()
{
    m_ownPace.isWaiting = false;
    m_ownPace.nextTime = {};
    // What each client without an interval has had is known by its sequence only: find the books while they are there.
    std::vector<std::shared_ptr<const MergedOrderBook>> delivered;
    delivered.reserve(m_clients.size());
    for (const auto& client : m_clients)
    {
        const bool hasInterval = client->info.conflationInterval_ms != 0;
        const auto had = hasInterval ? client->pace.delivered : GetView(client->info.depth);
        delivered.push_back(hasInterval || HasView(*client, had) ? had : nullptr);
    }
    // What is seen at the whole depth comes without a view: an old one must not show up again when the depth grows.
    std::erase_if(m_views, [this](const DepthView& view) { return view.depth >= GetMergedLevels(); });
    if (m_current == nullptr)
    {
        return;
    }
    detail::CallbackRound round = MakeRound();
    if (!m_holdsBackEmpty)
    {
        std::shared_ptr<MergedOrderBook> book = MergeBook();
        book->sequence = ++m_sequence;
        m_current = std::move(book);
    }
    // While an emptied book is held back, this is the book that waited for the old scope's interval, if one did.
    DeliverOwn(std::shared_ptr(m_current), round);
    round.Pause();
    for (std::size_t i = 0; i < m_clients.size(); ++i)
    {
        const std::shared_ptr<ClientScope> client = m_clients[i];
        const std::shared_ptr<const MergedOrderBook> view = GetView(client->info.depth);
        const auto had = i < delivered.size() ? delivered[i] : nullptr;
        if (had != nullptr && view->epoch == had->epoch && view->ShowsSameAs(*had))
        {
            NoteDelivered(*client, view); // sees what it saw before
        }
        else if (client->isActive)
        {
            DeliverTo(client, round);
        }
    }
}

void PriceDelivery::GenerateSnapshot(std::uint32_t reason, ClientScope* client)
{
    if (m_current == nullptr || (client != nullptr && !client->isActive))
    {
        return;
    }
    const std::shared_ptr<const MergedOrderBook> newest = client != nullptr ? GetView(client->info.depth) : m_current;
    const std::shared_ptr<MergedOrderBook> snapshot = newest->Cut(newest->bids.depth);
    snapshot->snapshotReason = reason;
    detail::CallbackRound round = MakeRound();
    if (client != nullptr)
    {
        Send(*client, snapshot, round);
        NoteDelivered(*client, newest);
    }
    else
    {
        SendOwn(snapshot, round);
        if (m_ownPace.delivered != nullptr)
        {
            m_ownPace.delivered = newest; // the snapshot shows the same
        }
    }
}

// --- Monitoring ------------------------------------------------------------------------------------------------------

void PriceDelivery::NoteSpoken(Component& component, std::uint64_t receiveTime_ns)
{
    if (!component.hasLostFeed)
    {
        component.lastReceiveTime_ns = receiveTime_ns; // what is stale is so since it last was not
    }
    if (m_settings.monitoringInterval_sec == 0)
    {
        return;
    }
    component.lastSpoke = m_host.Now();
    SetStale(component, component.isSilent, false);
}

/// It is gone, or begins anew.
void PriceDelivery::NoteFresh(Component& component)
{
    SetStale(component, component.isSilent, false);
    SetStale(component, component.hasLostFeed, false);
}

void PriceDelivery::SetStale(Component& component, bool& reason, bool isStale)
{
    const bool wasStale = component.IsStale();
    reason = isStale;
    if (wasStale == component.IsStale())
    {
        return;
    }
    m_host.OnStaleChanged(component.IsStale());
    if (wasStale)
    {
        zel::logging::Log(10, LogSource(),
                          [&](std::ostream& text)
                          { text << m_def.ToString() << " is fresh: a component speaks again, or is gone"; });
    }
}

void PriceDelivery::OnStale(CompositeComponentType::Type type, bool isStale)
{
    Component& component = Get(type);
    if (!isStale || !component.hasImage)
    {
        return; // it is fresh with the image that comes next; and what shows nothing yet is missing, not out of date
    }
    const bool wasStale = component.IsStale();
    SetStale(component, component.hasLostFeed, true);
    if (!wasStale && m_current != nullptr)
    {
        Publish();
    }
}

void PriceDelivery::ArmMonitor()
{
    if (m_settings.monitoringInterval_sec == 0 || m_monitorTimer != nullptr)
    {
        return;
    }
    m_monitorTimer = m_host.MakeTimer("InstrumentMonitor", [this] { OnMonitor(); });
    RunMonitorAfter(std::chrono::seconds(m_settings.monitoringInterval_sec));
}

/// Never early: what is looked at then has been silent for all of its time.
void PriceDelivery::RunMonitorAfter(Clock::duration time)
{
    const auto time_ms = std::chrono::ceil<std::chrono::milliseconds>(time).count();
    m_monitorTimer->Run(static_cast<unsigned>(std::clamp<std::int64_t>(time_ms, 1, std::numeric_limits<int>::max())));
}

void PriceDelivery::OnMonitor()
{
    const auto interval = std::chrono::seconds(m_settings.monitoringInterval_sec);
    const Clock::time_point now = m_host.Now();
    Clock::duration untilNext = interval;
    bool hasChanged = false;
    for (const auto type : kComponentTypes)
    {
        Component& component = Get(type);
        if (!m_host.IsAnswered(type) || component.IsStale())
        {
            continue;
        }
        if (const Clock::duration silence = now - component.lastSpoke; silence < interval)
        {
            untilNext = std::min(untilNext, interval - silence);
        }
        else
        {
            hasChanged = true;
            SetStale(component, component.isSilent, true);
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
    RunMonitorAfter(untilNext);
}

} // namespace ps_ns
