#include "gateway_core.h"

#include "client_session.h"
#include "composite_instrument/local_observer_factory.h"
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

} // namespace

GatewayCore::GatewayCore(GatewayOptions options, IBackend& backend, std::function<void(std::function<void()>)> post)
    : m_options(std::move(options))
    , m_backend(backend)
    , m_post(std::move(post))
    , m_access(m_options)
{
}

GatewayCore::~GatewayCore() = default;

const std::vector<ListedInstrument>& GatewayCore::GetInstruments()
{
    constexpr std::chrono::seconds kOld{1};
    return ReadInstruments(kOld);
}

std::string GatewayCore::GetSymbolNow(const DirectoryEntry& entry)
{
    // Young enough to know a rename that has just been made, and old enough to serve all sessions that meet it.
    constexpr std::chrono::milliseconds kOld{20};
    const std::vector<ListedInstrument>& instruments = ReadInstruments(kOld);
    const auto found = std::find_if(instruments.begin(), instruments.end(),
                                    [&](const ListedInstrument& instrument)
                                    {
                                        return instrument.entry.submarket.marketId == entry.submarket.marketId &&
                                               instrument.entry.firstSymbol == entry.firstSymbol;
                                    });
    return found == instruments.end() ? entry.symbol : found->entry.symbol;
}

const std::vector<ListedInstrument>& GatewayCore::ReadInstruments(std::chrono::milliseconds oldest)
{
    const auto now = std::chrono::steady_clock::now();
    if (m_instruments.empty() || now - m_instrumentsRead >= oldest)
    {
        m_instrumentsRead = now;
        m_instruments = ListInstruments(m_backend.GetDirectoryEntries(), m_backend.GetMarkets());
        m_instrumentByName.clear();
        for (std::size_t i = 0; i < m_instruments.size(); ++i)
        {
            m_instrumentByName.emplace(m_instruments[i].GetName(), i);
        }
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

bool GatewayCore::Subscribe(const CompositeInstrumentDef& def, const CompositeSubscriptionInfo& scope,
                            const std::shared_ptr<Subscriber>& subscriber, unsigned long id)
{
    return m_backend.TryRequest([&](CompositeSubscriptionMgr& manager)
                                { manager.Subscribe(def, scope, GetFactory(), subscriber, id); });
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

void GatewayCore::Schedule(std::function<void()> pump)
{
    {
        const std::lock_guard lock(m_mutex);
        m_scheduled.push_back(std::move(pump));
        if (m_scheduled.size() > 1)
        {
            return;
        }
    }
    m_post([this] { RunScheduled(); });
}

void GatewayCore::RunScheduled()
{
    std::vector<std::function<void()>> scheduled;
    {
        const std::lock_guard lock(m_mutex);
        scheduled.swap(m_scheduled);
    }
    for (const auto& pump : scheduled)
    {
        pump();
    }
}

} // namespace ps_ns::gateway
