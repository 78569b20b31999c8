#include "zel/zel_provider.h"

#include "logging/logging.h"
#include "zel/zel_log.h"
#include "zel_market.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::chrono::milliseconds kTick{50};

} // namespace

ZelProvider::ZelProvider(std::unique_ptr<IProviderTransport> transport, ZelOptions options)
    : m_options(std::move(options))
    , m_transport(std::move(transport))
    , m_pools(m_options.updatesInFlight)
{
    for (const ZelMarketName& market : m_options.markets)
    {
        m_markets.push_back(std::make_unique<ZelMarket>(market.id, market.name));
        m_byName.emplace(market.name, m_markets.back().get());
        m_directory.AddMarket(market.id);
    }
    m_served.assign(m_options.shardCount, false);
}

ZelProvider::~ZelProvider()
{
    Stop();
}

void ZelProvider::Start()
{
    m_transport->Connect(*this);
    for (const unsigned shard : m_options.shards)
    {
        m_transport->SubscribeShard(shard);
    }
    if (m_options.shardCount != 0)
    {
        m_transport->SubscribeControl();
    }
    else if (m_options.shards.empty())
    {
        m_transport->SubscribeShard(std::nullopt);
    }
    if (!m_options.isHandDriven)
    {
        m_thread = std::thread([this] { Run(); });
    }
}

void ZelProvider::Stop()
{
    {
        const std::lock_guard lock(m_wakeMutex);
        m_isStopping = true;
    }
    m_wake.notify_all();
    m_pools.budget->Stop(); // a message that waits for room would hold up the transport's stop
    m_transport->Stop();
    if (m_thread.joinable())
    {
        m_thread.join();
    }
    std::unordered_map<const IComponentListener*, Subscription> left; // let go without the lock
    const ScopedRoleLock lock(m_mutex, m_role);
    m_isClosed = true;
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        for (const std::unique_ptr<ZelInstrument>& instrument : market->instruments)
        {
            instrument->feed.DropAll();
        }
    }
    left.swap(m_subscriptions);
}

ZelMarket* ZelProvider::FindMarket(std::string_view name) const
{
    const auto found = m_byName.find(std::string(name));
    return found == m_byName.end() ? nullptr : found->second;
}

ZelMarket* ZelProvider::FindMarket(short id) const
{
    const auto found = std::find_if(m_markets.begin(), m_markets.end(),
                                    [id](const std::unique_ptr<ZelMarket>& market) { return market->id == id; });
    return found == m_markets.end() ? nullptr : found->get();
}

// --- Subscriptions ---------------------------------------------------------------------------------------------------

int ZelProvider::Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    ZelMarket* const market = FindMarket(request.submarket.marketId);
    if (m_isClosed || market == nullptr || m_subscriptions.count(listener.get()) != 0)
    {
        return SubscribeStatus::Failed;
    }
    ZelInstrument* const instrument = market->FindBySymbol(request.symbol);
    if (instrument == nullptr ? market->epoch != 0 : IsServedElsewhere(*instrument))
    {
        return SubscribeStatus::Failed;
    }
    Subscription& subscription = m_subscriptions[listener.get()];
    subscription = {listener, instrument, instrument == nullptr ? market : nullptr, request.symbol,
                    request.scope.trades};
    if (instrument == nullptr)
    {
        return SubscribeStatus::Pending;
    }
    Follow(*instrument);
    instrument->feed.Join(listener, request.scope.trades, m_pools);
    return SubscribeStatus::Subscribed;
}

void ZelProvider::ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                              const CompositeSubscriptionInfo& scope)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const auto found = m_subscriptions.find(listener.get());
    if (found == m_subscriptions.end())
    {
        return;
    }
    found->second.wantsTrades = scope.trades;
    if (found->second.instrument != nullptr)
    {
        found->second.instrument->feed.SetWantsTrades(listener.get(), scope.trades);
    }
}

void ZelProvider::Unsubscribe(const std::shared_ptr<IComponentListener>& listener)
{
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        const auto found = m_subscriptions.find(listener.get());
        if (found != m_subscriptions.end())
        {
            if (found->second.instrument != nullptr)
            {
                found->second.instrument->feed.Leave(listener.get());
            }
            m_subscriptions.erase(found);
        }
    }
    listener->OnUnsubscribed(true);
}

void ZelProvider::Follow(ZelInstrument& instrument)
{
    if (instrument.state != ZelInstrument::State::Idle)
    {
        return;
    }
    if (!IsServed(instrument))
    {
        instrument.feed.SetStale(true); // until its shard is
        return;
    }
    Await(instrument);
    Wake();
}

/// From now on only an image counts.
void ZelProvider::Await(ZelInstrument& instrument)
{
    instrument.feed.SetStale(true);
    instrument.askedAt = {};
    if (instrument.state != ZelInstrument::State::Awaiting)
    {
        m_counts.followed += instrument.state == ZelInstrument::State::Idle ? 1 : 0;
        m_counts.live -= instrument.state == ZelInstrument::State::Live ? 1 : 0;
        instrument.state = ZelInstrument::State::Awaiting;
        m_awaiting.push_back(&instrument);
    }
}

// --- What the transport says -----------------------------------------------------------------------------------------

void ZelProvider::OnTransportState(bool isConnected)
{
    if (!isConnected)
    {
        LoseAll("the connection to the message broker is gone");
        return;
    }
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        for (const std::unique_ptr<ZelMarket>& market : m_markets)
        {
            market->wantsDirectory = true; // the publisher may have begun an epoch meanwhile
            market->directoryAskedAt = {};
        }
    }
    Wake();
}

void ZelProvider::OnTransportLoss()
{
    LoseAll("messages were dropped");
    Wake();
}

void ZelProvider::LoseAll(const char* why)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        if (!market->isLost)
        {
            Lose(*market, why);
        }
    }
}

void ZelProvider::Lose(ZelMarket& market, const char* why)
{
    market.isLost = true;
    ++m_counts.losses;
    std::size_t stale = 0;
    for (const std::unique_ptr<ZelInstrument>& instrument : market.instruments)
    {
        if (instrument->state == ZelInstrument::State::Idle)
        {
            continue;
        }
        if (instrument->feed.HasListeners())
        {
            Await(*instrument);
            ++stale;
            continue;
        }
        Await(*instrument);
        instrument->state = ZelInstrument::State::Idle;
        --m_counts.followed;
    }
    zel::logging::Log(20, ZelLogSource(),
                      [&](std::ostream& text) {
                          text << "the feed of market " << market.name << " is lost: " << why << "; " << stale
                               << " instruments are stale";
                      });
}

void ZelProvider::OnTransportMessage(const TransportAddress& from, std::span<const std::byte> payload)
{
    ZelMarket* const market = FindMarket(from.market);
    if (market == nullptr || !m_transport->IsConnected())
    {
        return; // of a market that this server does not have; or left over from a connection that is gone
    }
    if (from.channel == TransportChannel::Prices)
    {
        // What comes too fast waits here, and then with the transport, which drops what is too much even for that.
        if (m_pools.budget->WaitForRoom(2))
        {
            OnPrices(*market, payload);
        }
        return;
    }
    OnControl(*market, payload);
}

void ZelProvider::NoteRefused(const TransportAddress& from)
{
    if (m_counts.refused++ == 0)
    {
        zel::logging::Log(30, ZelLogSource(),
                          [&](std::ostream& text) {
                              text << "a message of market " << from.market
                                   << " cannot be read: it is damaged, or of another version";
                          });
    }
}

/// Notes that the market's publisher lives. False: the epoch is not the one whose directory is in use.
bool ZelProvider::IsHeard(ZelMarket& market, std::uint64_t epoch)
{
    if (epoch < market.epoch)
    {
        return false; // late, or of a publisher that another has replaced
    }
    if (epoch > market.epoch)
    {
        // Until its directory is there, what is shown gets nothing: the market is as silent as without a publisher.
        if (!std::exchange(market.wantsDirectory, true))
        {
            Wake();
        }
        return false;
    }
    market.lastHeard = m_options.now();
    if (std::exchange(market.isLost, false))
    {
        zel::logging::Log(10, ZelLogSource(),
                          [&](std::ostream& text) { text << "the feed of market " << market.name << " is there"; });
        Wake();
    }
    return true;
}

void ZelProvider::OnPrices(ZelMarket& market, std::span<const std::byte> payload)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const std::optional<WireHeader> header = ReadHeader(payload);
    if (!header)
    {
        NoteRefused({TransportChannel::Prices, market.name, {}});
        return;
    }
    if (!IsHeard(market, header->epoch))
    {
        return;
    }
    ZelInstrument* const instrument = market.FindByIndex(header->index);
    if (instrument == nullptr || instrument->state == ZelInstrument::State::Idle)
    {
        return;
    }
    ++m_counts.messages;
    if (header->kind == WireKind::Trades)
    {
        OnTrades(*instrument, header->sequence, payload);
    }
    else
    {
        OnBook(*instrument, header->sequence, payload);
    }
}

void ZelProvider::OnBook(ZelInstrument& instrument, std::uint64_t sequence, std::span<const std::byte> payload)
{
    using State = ZelInstrument::State;
    const bool isImage = static_cast<WireKind>(payload[1]) == WireKind::Image;
    if (instrument.state == State::Live && sequence <= instrument.sequence)
    {
        return; // an image that another server has asked for
    }
    if (!isImage && (instrument.state == State::Awaiting || sequence != instrument.sequence + 1))
    {
        if (instrument.state == State::Live)
        {
            ++m_counts.gaps;
            Await(instrument);
            Wake();
        }
        return;
    }
    if (!ReadBook(payload, m_message))
    {
        NoteRefused({TransportChannel::Prices, instrument.market.name, {}});
        return; // the next message shows the gap
    }
    instrument.sequence = sequence;
    if (instrument.state == State::Awaiting)
    {
        instrument.state = State::Live;
        ++m_counts.live;
        instrument.feed.SetStale(false);
    }
    m_counts.images += isImage ? 1 : 0;
    instrument.feed.Publish(m_message, m_pools);
}

/// Trades have no image: they are passed on whatever the book's state is, once each.
void ZelProvider::OnTrades(ZelInstrument& instrument, std::uint64_t sequence, std::span<const std::byte> payload)
{
    m_message.Clear();
    if (!ReadTrades(payload, m_message.trades))
    {
        NoteRefused({TransportChannel::Prices, instrument.market.name, {}});
        return;
    }
    if (instrument.state == ZelInstrument::State::Live)
    {
        if (sequence <= instrument.sequence)
        {
            return;
        }
        if (sequence != instrument.sequence + 1)
        {
            ++m_counts.gaps;
            Await(instrument);
            Wake();
        }
        instrument.sequence = sequence;
    }
    instrument.feed.Publish(m_message, m_pools);
}

// --- The provider's own thread ---------------------------------------------------------------------------------------

struct ZelProvider::Question
{
    std::string market;
    WireBuffer bytes;
};

void ZelProvider::Wake()
{
    {
        const std::lock_guard lock(m_wakeMutex);
        m_isWoken = true;
    }
    m_wake.notify_all();
}

void ZelProvider::Run()
{
    while (true)
    {
        {
            std::unique_lock lock(m_wakeMutex);
            m_wake.wait_for(lock, kTick, [this] { return m_isWoken || m_isStopping; });
            if (m_isStopping)
            {
                return;
            }
            m_isWoken = false;
        }
        Tick();
    }
}

void ZelProvider::Tick()
{
    std::vector<Question> questions;
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        const TimePoint now = m_options.now();
        CheckSilence(now);
        CheckArrears(now);
        if (m_transport->IsConnected())
        {
            questions = CollectQuestions(now);
        }
    }
    for (const Question& question : questions)
    {
        m_transport->AskForImages(question.market, question.bytes); // what does not get through is asked again
    }
    MakeRenames();
}

void ZelProvider::CheckSilence(TimePoint now)
{
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        if (!market->isLost && now - market->lastHeard > m_options.longestSilence)
        {
            Lose(*market, "its publisher is silent");
        }
    }
}

/// Finds those whose last messages were lost, with none behind that would show the gap.
void ZelProvider::CheckArrears(TimePoint now)
{
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        for (const std::unique_ptr<ZelInstrument>& instrument : market->instruments)
        {
            if (instrument->state == ZelInstrument::State::Live && instrument->sequence < instrument->promised &&
                now - instrument->promisedSince > m_options.longestArrears)
            {
                ++m_counts.gaps;
                Await(*instrument);
            }
        }
    }
}

std::vector<ZelProvider::Question> ZelProvider::CollectQuestions(TimePoint now)
{
    constexpr std::size_t kMostInOne = 10'000;
    std::vector<Question> questions;
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        if (market->wantsDirectory && now - market->directoryAskedAt > m_options.askAgain)
        {
            market->directoryAskedAt = now;
            WriteDirectoryRequest(questions.emplace_back(Question{market->name, {}}).bytes,
                                  {WireKind::DirectoryRequest, 0, market->epoch, market->revision});
        }
    }
    std::map<ZelMarket*, std::vector<std::uint32_t>> wanted;
    std::erase_if(m_awaiting,
                  [&](ZelInstrument* instrument)
                  {
                      if (instrument->state != ZelInstrument::State::Awaiting)
                      {
                          return true;
                      }
                      const bool canAsk = !instrument->market.isLost && instrument->index != ZelInstrument::kNoIndex;
                      if (canAsk && now - instrument->askedAt > m_options.askAgain)
                      {
                          instrument->askedAt = now;
                          wanted[&instrument->market].push_back(instrument->index);
                      }
                      return false;
                  });
    for (auto& [market, indexes] : wanted)
    {
        m_counts.imagesAsked += indexes.size();
        for (std::span<const std::uint32_t> rest = indexes; !rest.empty();)
        {
            const auto part = rest.first(std::min(rest.size(), kMostInOne));
            WriteImageRequest(questions.emplace_back(Question{market->name, {}}).bytes,
                              {WireKind::ImageRequest, 0, market->epoch, market->revision}, part);
            rest = rest.subspan(part.size());
        }
    }
    return questions;
}

ZelCounts ZelProvider::GetCounts() const
{
    const ScopedRoleLock lock(m_mutex, m_role);
    ZelCounts counts = m_counts;
    counts.marketsLost = static_cast<std::uint64_t>(std::count_if(
        m_markets.begin(), m_markets.end(), [](const std::unique_ptr<ZelMarket>& market) { return market->isLost; }));
    return counts;
}

} // namespace ps_ns
