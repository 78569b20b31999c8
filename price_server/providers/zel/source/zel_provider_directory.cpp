#include "logging/logging.h"
#include "zel/instrument_shard.h"
#include "zel/zel_log.h"
#include "zel/zel_provider.h"
#include "zel_market.h"

#include <algorithm>
#include <set>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::uint32_t kMostParts = 10'000;

DirectoryEntry MakeEntry(const ZelMarket& market, const WireInstrument& listed)
{
    DirectoryEntry entry;
    entry.submarket.marketId = market.id;
    entry.symbol = listed.symbol;
    entry.exchange = listed.exchange.empty() ? market.name : listed.exchange;
    entry.description = listed.description;
    entry.format = listed.format;
    entry.firstSymbol = listed.firstSymbol;
    return entry;
}

} // namespace

void ZelProvider::OnControl(ZelMarket& market, std::span<const std::byte> payload)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const std::optional<WireHeader> header = ReadHeader(payload);
    if (!header)
    {
        NoteRefused({TransportChannel::Control, market.name, {}});
        return;
    }
    switch (header->kind)
    {
    case WireKind::Heartbeat:
        return OnHeartbeat(market, header->epoch, header->sequence, payload);
    case WireKind::Directory:
        return OnDirectory(market, header->index, header->epoch, header->sequence, payload);
    case WireKind::Rename:
        return OnRename(market, header->epoch, header->sequence, payload);
    default:
        NoteRefused({TransportChannel::Control, market.name, {}});
    }
}

void ZelProvider::OnHeartbeat(ZelMarket& market, std::uint64_t epoch, std::uint64_t revision,
                              std::span<const std::byte> payload)
{
    const std::optional<WireHeartbeat> heartbeat = ReadHeartbeat(payload);
    if (!heartbeat)
    {
        NoteRefused({TransportChannel::Control, market.name, {}});
        return;
    }
    if (!IsHeard(market, epoch))
    {
        return;
    }
    if (revision > market.revision)
    {
        market.wantsDirectory = true;
        Wake();
    }
    for (const WireProgress& progress : heartbeat->progress)
    {
        ZelInstrument* const instrument = market.FindByIndex(progress.index);
        if (instrument == nullptr || progress.sequence <= instrument->promised)
        {
            continue;
        }
        if (instrument->sequence >= instrument->promised)
        {
            instrument->promisedSince = market.lastHeard; // so far it had everything
        }
        instrument->promised = progress.sequence;
    }
}

void ZelProvider::OnDirectory(ZelMarket& market, std::uint32_t part, std::uint64_t epoch, std::uint64_t revision,
                              std::span<const std::byte> payload)
{
    const bool isNews = epoch > market.epoch || (epoch == market.epoch && revision > market.revision);
    if (!isNews)
    {
        if (IsHeard(market, epoch))
        {
            market.wantsDirectory = false;
        }
        return;
    }
    std::optional<WireDirectory> directory = ReadDirectory(payload);
    if (!directory || directory->parts > kMostParts)
    {
        NoteRefused({TransportChannel::Control, market.name, {}});
        return;
    }
    if (std::pair(epoch, revision) < std::pair(market.incomingEpoch, market.incomingRevision))
    {
        return;
    }
    if (market.incomingEpoch != epoch || market.incomingRevision != revision ||
        market.incoming.size() != directory->parts)
    {
        market.incomingEpoch = epoch;
        market.incomingRevision = revision;
        market.incoming.assign(directory->parts, std::nullopt);
    }
    market.incoming[part] = std::move(directory->instruments);
    if (std::all_of(market.incoming.begin(), market.incoming.end(),
                    [](const auto& instruments) { return instruments.has_value(); }))
    {
        AdoptDirectory(market);
    }
}

void ZelProvider::AdoptDirectory(ZelMarket& market)
{
    const bool isNewEpoch = std::exchange(market.epoch, market.incomingEpoch) != market.incomingEpoch;
    market.revision = market.incomingRevision;
    market.wantsDirectory = false;
    market.byIndex.clear();
    for (const std::unique_ptr<ZelInstrument>& instrument : market.instruments)
    {
        instrument->index = ZelInstrument::kNoIndex;
    }
    std::vector<DirectoryEntry> added;
    std::vector<SymbolRename> renames;
    for (auto& part : std::exchange(market.incoming, {}))
    {
        for (const WireInstrument& listed : *part)
        {
            ZelInstrument*& known = market.byFirstSymbol[listed.firstSymbol];
            if (known == nullptr)
            {
                market.instruments.push_back(std::make_unique<ZelInstrument>(market, listed));
                known = market.instruments.back().get();
                known->shard =
                    m_served.empty() ? 0 : GetShard(market.name, listed.firstSymbol, m_options.shardCount);
                if (market.bySymbol.try_emplace(listed.symbol, known).second)
                {
                    added.push_back(MakeEntry(market, listed));
                }
            }
            else if (known->listedSymbol != listed.symbol)
            {
                renames.push_back({market.id, known->listedSymbol, listed.symbol});
            }
            known->listedSymbol = listed.symbol;
            known->index = listed.index;
            market.byIndex.resize(std::max<std::size_t>(market.byIndex.size(), listed.index + 1));
            market.byIndex[listed.index] = known;
        }
    }
    for (const std::unique_ptr<ZelInstrument>& instrument : market.instruments)
    {
        if (isNewEpoch)
        {
            instrument->promised = 0;
            if (instrument->state != ZelInstrument::State::Idle)
            {
                Await(*instrument);
            }
        }
    }
    m_directory.AddAll(added);
    m_directory.MarkComplete(market.id);
    IsHeard(market, market.epoch);
    zel::logging::Log(isNewEpoch ? 10 : 0, ZelLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "directory of market " << market.name << ": " << market.byIndex.size()
                               << " instruments, " << added.size() << " of them new, " << renames.size()
                               << " renamed; epoch " << market.epoch << " revision " << market.revision;
                      });
    if (!renames.empty())
    {
        m_renames.push_back(std::move(renames));
    }
    AnswerWaiting(market);
    Wake();
}

/// Those who have subscribed before the directory was known.
void ZelProvider::AnswerWaiting(ZelMarket& market)
{
    for (auto entry = m_subscriptions.begin(); entry != m_subscriptions.end();)
    {
        Subscription& subscription = entry->second;
        if (subscription.awaitedIn != &market)
        {
            ++entry;
            continue;
        }
        subscription.awaitedIn = nullptr;
        subscription.instrument = market.FindBySymbol(subscription.symbol);
        if (subscription.instrument != nullptr && IsServedElsewhere(*subscription.instrument))
        {
            subscription.instrument = nullptr;
        }
        if (subscription.instrument != nullptr)
        {
            Follow(*subscription.instrument);
            subscription.instrument->feed.Join(subscription.listener, subscription.wantsTrades, m_pools);
        }
        else
        {
            subscription.listener->OnSubscribed(ps_messages_ns::SubscriptionResult::DirectSubscriptionFailed, {});
        }
        ++entry;
    }
}

void ZelProvider::OnRename(ZelMarket& market, std::uint64_t epoch, std::uint64_t revision,
                           std::span<const std::byte> payload)
{
    const std::optional<std::vector<WireRename>> renames = ReadRenames(payload);
    if (!renames)
    {
        NoteRefused({TransportChannel::Control, market.name, {}});
        return;
    }
    if (!IsHeard(market, epoch) || revision <= market.revision)
    {
        return;
    }
    if (revision != market.revision + 1)
    {
        market.wantsDirectory = true; // one has been missed: the directory tells of all
        Wake();
        return;
    }
    market.revision = revision;
    std::vector<SymbolRename> step;
    for (const WireRename& rename : *renames)
    {
        if (ZelInstrument* const instrument = market.FindByIndex(rename.index))
        {
            step.push_back({market.id, std::exchange(instrument->listedSymbol, rename.newSymbol), rename.newSymbol});
        }
    }
    if (!step.empty())
    {
        m_renames.push_back(std::move(step));
        Wake();
    }
}

// --- Renames: on the provider's own thread ---------------------------------------------------------------------------

void ZelProvider::MakeRenames()
{
    std::vector<std::vector<SymbolRename>> steps;
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        steps.swap(m_renames);
    }
    for (const std::vector<SymbolRename>& step : steps)
    {
        if (m_options.renameStep)
        {
            m_options.renameStep(step, [this, &step] { Rename(step); });
        }
        else
        {
            Rename(step);
        }
    }
}

/// All old names are taken before any new one is given, so that a name may be passed on.
void ZelProvider::Rename(const std::vector<SymbolRename>& renames)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    std::vector<std::pair<ZelInstrument*, SymbolRename>> moves;
    for (const SymbolRename& rename : renames)
    {
        ZelMarket& market = *FindMarket(rename.marketId);
        const auto found = market.bySymbol.find(rename.oldSymbol);
        if (found != market.bySymbol.end() && rename.oldSymbol != rename.newSymbol)
        {
            moves.emplace_back(found->second, rename);
            market.bySymbol.erase(found);
        }
    }
    std::vector<SymbolRename> made;
    for (const auto& [instrument, rename] : moves)
    {
        ZelInstrument*& owner = instrument->market.bySymbol[rename.newSymbol];
        if (owner != nullptr)
        {
            Detach(*owner);
            owner->symbol.clear();
        }
        owner = instrument;
        instrument->symbol = rename.newSymbol;
        Detach(*instrument);
        made.push_back(rename);
    }
    m_counts.renames += made.size();
    std::set<ZelMarket*> markets;
    for (const auto& [instrument, rename] : moves)
    {
        markets.insert(&instrument->market);
    }
    for (const SymbolRename& step : OrderRenames(made))
    {
        m_directory.Rename(step.marketId, step.oldSymbol, step.newSymbol);
        zel::logging::Log(10, ZelLogSource(),
                          [&](std::ostream& text) {
                              text << "renamed " << step.oldSymbol << " to " << step.newSymbol << " on market "
                                   << step.marketId;
                          });
    }
    for (ZelMarket* const market : markets)
    {
        NameTheNameless(*market);
    }
}

/// An instrument that was listed under a name that another still had gets it as soon as it is free.
void ZelProvider::NameTheNameless(ZelMarket& market)
{
    for (const std::unique_ptr<ZelInstrument>& instrument : market.instruments)
    {
        if (!instrument->symbol.empty() && market.bySymbol.try_emplace(instrument->symbol, instrument.get()).second)
        {
            m_directory.Add(MakeEntry(market, instrument->asFirstListed));
        }
    }
}

/// Who listens under a name that has gone hears nothing more until it unsubscribes.
void ZelProvider::Detach(ZelInstrument& instrument)
{
    instrument.feed.DropAll();
    for (auto& [listener, subscription] : m_subscriptions)
    {
        if (subscription.instrument == &instrument)
        {
            subscription.instrument = nullptr;
        }
    }
}

} // namespace ps_ns
