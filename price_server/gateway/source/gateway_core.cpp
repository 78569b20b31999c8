#include "gateway_core.h"

#include "client_session.h"
#include "composite_instrument/local_observer_factory.h"
#include "logging/logging.h"
#include "price_unifier/source/composite_subscription_mgr.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace ps_ns::gateway
{
namespace
{

/// The manager holds the factory by reference until its action has run, which may be after the gateway is gone.
LocalObserverFactory& GetFactory()
{
    static LocalObserverFactory factory;
    return factory;
}

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("gateway");
    return source;
}

/// One mailbox's or session's failure is not the others'.
template <class Work>
void Guarded(Work work)
{
    try
    {
        work();
    }
    catch (const std::exception& failure)
    {
        zel::logging::Log(30, LogSource(),
                          [&](std::ostream& text) { text << "a turn has failed: " << failure.what(); });
    }
}

/// What an instrument is known by, whatever it has been renamed to.
std::string GetFirstName(const DirectoryEntry& entry)
{
    return std::to_string(entry.submarket.marketId) + ":" + entry.firstSymbol;
}

} // namespace

GatewayCore::GatewayCore(GatewayOptions options, IBackend& backend, std::function<void(std::function<void()>)> post)
    : m_options(std::move(options))
    , m_backend(backend)
    , m_post(std::move(post))
    , m_access(m_options)
{
}

GatewayCore::~GatewayCore()
{
    CloseMailboxes();
}

std::string GatewayCore::GetSymbolNow(const DirectoryEntry& entry)
{
    const std::vector<ListedInstrument>& instruments = GetInstruments();
    const auto found = m_instrumentByFirstSymbol.find(GetFirstName(entry));
    return found == m_instrumentByFirstSymbol.end() ? entry.symbol : instruments[found->second].entry.symbol;
}

const std::vector<ListedInstrument>& GatewayCore::GetInstruments()
{
    constexpr std::chrono::seconds kOldest{1}; // thousands may be added one after another
    const DirectoryVersion version = m_backend.GetDirectoryVersion();
    const auto now = std::chrono::steady_clock::now();
    // What has been renamed must not be found under its old name: that may be another instrument's by now.
    const bool isGood = m_instrumentsVersion && m_instrumentsVersion->changes == version.changes;
    if (isGood && (m_instrumentsVersion->entries == version.entries || now - m_instrumentsRead < kOldest))
    {
        return m_instruments;
    }
    m_instrumentsVersion = version;
    m_instrumentsRead = now;
    m_instruments = ListInstruments(m_backend.GetDirectoryEntries(), m_backend.GetMarkets());
    m_instrumentByName.clear();
    m_instrumentByFirstSymbol.clear();
    for (std::size_t i = 0; i < m_instruments.size(); ++i)
    {
        m_instrumentByName.emplace(m_instruments[i].GetName(), i);
        m_instrumentByFirstSymbol.emplace(GetFirstName(m_instruments[i].entry), i);
    }
    return m_instruments;
}

FoundInstrument GatewayCore::FindInstrument(const std::string& name, const Rights& rights)
{
    const std::vector<ListedInstrument>& instruments = GetInstruments();
    if (const auto found = m_instrumentByName.find(name); found != m_instrumentByName.end())
    {
        return {instruments[found->second], ""};
    }
    const bool isSymbol =
        std::any_of(instruments.begin(), instruments.end(),
                    [&](const ListedInstrument& instrument) { return instrument.entry.symbol == name; });
    if (!isSymbol && !m_nearNames.Take(RateLimit::Clock::now()))
    {
        return {std::nullopt, "there is no instrument \"" + name + "\""};
    }
    try
    {
        if (rights.markets.empty())
        {
            return {ps_ns::FindInstrument(instruments, name), ""};
        }
        std::vector<ListedInstrument> open;
        std::copy_if(instruments.begin(), instruments.end(), std::back_inserter(open),
                     [&](const ListedInstrument& instrument) { return rights.Opens(instrument.market); });
        return {ps_ns::FindInstrument(open, name), ""};
    }
    catch (const UnknownInstrument& error)
    {
        return {std::nullopt, error.what()};
    }
}

bool GatewayCore::Subscribe(CompositeInstrumentDef& def, const DirectoryEntry& entry,
                            const CompositeSubscriptionInfo& scope, const std::shared_ptr<Subscriber>& subscriber,
                            unsigned long id)
{
    return m_backend.TryRequest(
        [&](CompositeSubscriptionMgr& manager)
        {
            // The request may have waited for a rename; none is made now.
            def.instrument.symbol = GetSymbolNow(entry);
            manager.Subscribe(def, scope, GetFactory(), subscriber, id);
        });
}

bool GatewayCore::ChangeScope(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& scope,
                              const std::shared_ptr<Subscriber>& subscriber, unsigned long id, bool generateSnapshot)
{
    return m_backend.TryRequest([&](CompositeSubscriptionMgr& manager)
                                { manager.ChangeScope(def, scope, subscriber, id, generateSnapshot); });
}

void GatewayCore::Unsubscribe(const CompositeInstrumentDef& def, const std::shared_ptr<Subscriber>& subscriber,
                              unsigned long id)
{
    // A server that stops ends all subscriptions anyway.
    m_backend.TryRequest([&](CompositeSubscriptionMgr& manager) { manager.Unsubscribe(def, subscriber, id); });
}

std::shared_ptr<BookStream> GatewayCore::GetStream(const std::string& instrument, std::int32_t depth)
{
    std::weak_ptr<BookStream>& known = m_streams[instrument + "/" + std::to_string(depth)];
    std::shared_ptr<BookStream> stream = known.lock();
    if (stream == nullptr)
    {
        stream = std::make_shared<BookStream>(instrument, depth);
        known = stream;
        ForgetDeadStreams();
    }
    return stream;
}

/// Clients may ask for any depth, one after another: what nobody has any more must not pile up.
void GatewayCore::ForgetDeadStreams()
{
    if (m_streams.size() < m_nextStreamCount)
    {
        return;
    }
    std::erase_if(m_streams, [](const auto& entry) { return entry.second.expired(); });
    m_nextStreamCount = std::max(kFirstStreamCount, 2 * m_streams.size());
}

SharedText GatewayCore::GetTradesText(const std::string& instrument, const SharedTrades& trades)
{
    TextCache& cache = m_trades[instrument];
    if (cache.key != trades.get())
    {
        cache = {trades.get(), trades, std::make_shared<const std::string>(FormatTrades(instrument, *trades))};
    }
    return cache.text;
}

SharedText GatewayCore::GetFieldsText(const std::string& instrument, const SharedFields& fields)
{
    TextCache& cache = m_fields[instrument];
    if (cache.key != fields.get())
    {
        cache = {fields.get(), fields, std::make_shared<const std::string>(FormatFields(instrument, *fields))};
    }
    return cache.text;
}

void GatewayCore::Enter(const std::shared_ptr<ClientSession>& session)
{
    m_sessions[session->GetNumber()] = session;
    ++m_counts.sessions;
    ++m_counts.sessionsEver;
}

void GatewayCore::Leave(std::uint64_t number)
{
    if (m_sessions.erase(number) != 0)
    {
        --m_counts.sessions;
    }
}

std::vector<std::shared_ptr<ClientSession>> GatewayCore::GetSessions() const
{
    std::vector<std::shared_ptr<ClientSession>> sessions;
    for (const auto& [number, weak] : m_sessions)
    {
        if (auto session = weak.lock())
        {
            sessions.push_back(std::move(session));
        }
    }
    return sessions;
}

// --- Mail ------------------------------------------------------------------------------------------------------------

std::shared_ptr<Mailbox> GatewayCore::GetMailbox(const CompositeInstrumentDef& def)
{
    std::weak_ptr<Mailbox>& known = m_mailboxes[CompositeInstrumentID(def)];
    std::shared_ptr<Mailbox> mailbox = known.lock();
    if (mailbox == nullptr)
    {
        mailbox = std::make_shared<Mailbox>([this](std::shared_ptr<Mailbox> woken) { Wake(std::move(woken)); });
        known = mailbox;
        ForgetDeadMailboxes();
    }
    return mailbox;
}

void GatewayCore::ForgetDeadMailboxes()
{
    if (m_mailboxes.size() < m_nextMailboxCount)
    {
        return;
    }
    std::erase_if(m_mailboxes, [](const auto& entry) { return entry.second.expired(); });
    m_nextMailboxCount = std::max(kFirstStreamCount, 2 * m_mailboxes.size());
}

void GatewayCore::CloseMailboxes()
{
    for (const auto& [identity, weak] : m_mailboxes)
    {
        if (const auto mailbox = weak.lock())
        {
            mailbox->Close();
        }
    }
}

/// From any thread. One post serves all that are woken until it runs.
void GatewayCore::Wake(std::shared_ptr<Mailbox> mailbox)
{
    {
        const std::lock_guard lock(m_mutex);
        m_woken.push_back(std::move(mailbox));
        if (m_woken.size() > 1)
        {
            return;
        }
    }
    m_post([this] { TakeMail(); });
}

/// One turn: all that has come, for all sessions; then each session writes once.
void GatewayCore::TakeMail()
{
    std::vector<std::shared_ptr<Mailbox>> woken;
    {
        const std::lock_guard lock(m_mutex);
        woken.swap(m_woken);
    }
    for (const auto& mailbox : woken)
    {
        Guarded(
            [&]
            {
                mailbox->Take(m_content);
                Distribute(m_content);
            });
    }
    m_content.Clear();
    m_run.books.clear();
    for (const auto& session : std::exchange(m_turn, {}))
    {
        Guarded([&] { session->FinishTurn(); });
    }
}

void GatewayCore::Distribute(const Mailbox::Content& content)
{
    const unsigned long* receiver = content.receivers.data();
    for (auto event = content.events.begin(); event != content.events.end();)
    {
        if (const auto* const message = std::get_if<Mailbox::SessionText>(&event->what))
        {
            if (const auto session = message->session.lock())
            {
                session->TakeText(message->text);
                AddToTurn(*session);
            }
        }
        const std::span<const unsigned long> receivers(receiver, event->receivers);
        if (std::holds_alternative<SharedBook>(event->what))
        {
            const auto end = FindRun(event, content.events.end(), receivers);
            DistributeRun(receivers);
            receiver += receivers.size() * static_cast<std::size_t>(end - event);
            event = end;
            continue;
        }
        for (const unsigned long id : receivers)
        {
            if (const SubscriptionSlots::Slot* const slot = m_slots.Find(id))
            {
                slot->session->Take(*slot->subscription, event->what);
                AddToTurn(*slot->session);
            }
        }
        receiver += receivers.size();
        ++event;
    }
    for (const auto& [id, overflow] : content.overflow)
    {
        if (const SubscriptionSlots::Slot* const slot = m_slots.Find(id))
        {
            slot->session->Take(*slot->subscription, overflow);
            AddToTurn(*slot->session);
        }
    }
}

/// Collects in m_run the books from `event` on that are for the same subscriptions; returns the event behind them.
GatewayCore::EventIterator GatewayCore::FindRun(EventIterator event, EventIterator end,
                                                std::span<const unsigned long> receivers)
{
    constexpr std::size_t kMost = 64;
    m_run.Begin(std::get<SharedBook>(event->what));
    const unsigned long* next = receivers.data() + receivers.size();
    for (++event; event != end && m_run.books.size() < kMost; ++event, next += receivers.size())
    {
        const auto* const book = std::get_if<SharedBook>(&event->what);
        if (book == nullptr || event->receivers != receivers.size() ||
            !std::equal(receivers.begin(), receivers.end(), next))
        {
            break;
        }
        m_run.Add(*book);
    }
    return event;
}

void GatewayCore::DistributeRun(std::span<const unsigned long> receivers)
{
    for (const unsigned long id : receivers)
    {
        if (const SubscriptionSlots::Slot* const slot = m_slots.Find(id))
        {
            slot->session->Take(*slot->subscription, m_run);
            AddToTurn(*slot->session);
        }
    }
}

void GatewayCore::AddToTurn(ClientSession& session)
{
    if (session.EnterTurn())
    {
        m_turn.push_back(session.shared_from_this());
    }
}

} // namespace ps_ns::gateway
