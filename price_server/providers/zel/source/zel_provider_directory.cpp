#include "logging/logging.h"
#include "wire_check.h"
#include "zel/instrument_shard.h"
#include "zel/subject_token.h"
#include "zel/zel_log.h"
#include "zel/zel_provider.h"
#include "zel_market.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::size_t kMostShown = 40; // bytes of a refused symbol

} // namespace

void ZelProvider::OnControl(ZelMarket& market, std::span<const std::byte> payload)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    const std::optional<WireHeader> header = ReadHeader(payload);
    if (!header)
    {
        NoteRefused(market, kUnreadable);
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
        NoteRefused(market, "a control message is of a kind that is none of that channel");
    }
}

void ZelProvider::OnHeartbeat(ZelMarket& market, std::uint64_t epoch, std::uint64_t revision,
                              std::span<const std::byte> payload)
{
    const std::optional<WireHeartbeat> heartbeat = ReadHeartbeat(payload);
    if (!heartbeat)
    {
        NoteRefused(market, kUnreadable);
        return;
    }
    if (!IsHeard(market, epoch))
    {
        return;
    }
    if (revision > market.revision)
    {
        WantDirectory(market);
    }
    for (const WireProgress& progress : heartbeat->progress)
    {
        ZelInstrument* const instrument = market.FindByIndex(progress.index);
        if (instrument != nullptr)
        {
            instrument->arrears.Promise(progress.sequence, instrument->sequence, market.lastHeard);
            NoteBehind(*instrument);
        }
    }
}

void ZelProvider::OnDirectory(ZelMarket& market, std::uint32_t part, std::uint64_t epoch, std::uint64_t revision,
                              std::span<const std::byte> payload)
{
    const bool isNews = epoch > market.epoch || (epoch == market.epoch && revision > market.revision) ||
                        (epoch < market.epoch && MayGoBack(market));
    if (!isNews)
    {
        if (IsHeard(market, epoch))
        {
            market.wantsDirectory = false;
        }
        return;
    }
    std::optional<WireDirectory> directory = ReadDirectory(payload);
    if (!directory || directory->parts > kMostDirectoryParts || epoch == std::numeric_limits<std::uint64_t>::max())
    {
        NoteRefused(market, kUnreadable);
        return;
    }
    RefuseNonsense(market, directory->instruments);
    const TimePoint now = m_options.now();
    if (std::pair(epoch, revision) < std::pair(market.incoming.epoch, market.incoming.revision) &&
        now - market.incomingSince <= m_options.longestSilence)
    {
        return; // a newer one is coming in
    }
    market.incomingSince = now;
    market.incoming.Expect(epoch, revision, directory->parts);
    market.incoming.parts[part] = std::move(directory->instruments);
    if (market.incoming.IsComplete())
    {
        AdoptDirectory(market, std::exchange(market.incoming, {}));
        market.wantsDirectory = false;
        IsHeard(market, market.epoch);
    }
}

/// Takes out the entries that nobody can use; the others stay.
void ZelProvider::RefuseNonsense(ZelMarket& market, std::vector<WireInstrument>& instruments)
{
    std::erase_if(instruments,
                  [&](const WireInstrument& listed) PS_REQUIRES(m_role)
                  {
                      const std::string fault = FindWireFault(listed);
                      if (!fault.empty())
                      {
                          NoteRefused(market, "instrument " + std::to_string(listed.index) + " of the directory (" +
                                                  EscapeToken(listed.firstSymbol.substr(0, kMostShown)) +
                                                  ") is refused: " + fault);
                      }
                      return !fault.empty();
                  });
}

/// Whether it has come from the publisher, or from what the broker keeps: a market is heard by its publisher only.
void ZelProvider::AdoptDirectory(ZelMarket& market, ZelIncoming incoming)
{
    const bool isNewEpoch = std::exchange(market.epoch, incoming.epoch) != incoming.epoch;
    market.shownEpoch = isNewEpoch ? std::max(market.shownEpoch + 1, market.epoch) : market.shownEpoch;
    market.revision = incoming.revision;
    market.byIndex.clear();
    for (const std::unique_ptr<ZelInstrument>& instrument : market.instruments)
    {
        instrument->index = ZelInstrument::kNoIndex;
    }
    std::vector<DirectoryEntry> added;
    std::vector<SymbolRename> renames;
    for (const auto& part : incoming.parts)
    {
        for (const WireInstrument& listed : *part)
        {
            if (market.FindByIndex(listed.index) != nullptr)
            {
                NoteRefused(market, "two instruments of a directory have the number " + std::to_string(listed.index));
                continue;
            }
            ZelInstrument*& known = market.byFirstSymbol[listed.firstSymbol];
            if (known != nullptr && known->index != ZelInstrument::kNoIndex)
            {
                NoteRefused(market, "an instrument is twice in a directory, as numbers " +
                                        std::to_string(known->index) + " and " + std::to_string(listed.index));
                continue;
            }
            if (known == nullptr)
            {
                market.instruments.push_back(std::make_unique<ZelInstrument>(market, listed));
                known = market.instruments.back().get();
                known->shard = m_served.empty() ? 0 : GetShard(market.name, listed.firstSymbol, m_options.shardCount);
                if (market.bySymbol.try_emplace(listed.symbol, known).second)
                {
                    added.push_back(MakeEntry(market, listed));
                }
                else
                {
                    known->symbol.clear(); // another has it still
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
            instrument->arrears.Clear();
            instrument->sequence = 0;
            if (instrument->state != ZelInstrument::State::Idle)
            {
                Await(*instrument);
            }
        }
    }
    InheritNames(market, added);
    m_directory.AddAll(added);
    m_directory.MarkComplete(market.id);
    zel::logging::Log(isNewEpoch ? 10 : 0, ZelLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "directory of market " << market.name << ": " << market.byIndex.size()
                               << " instruments, " << added.size() << " of them new, " << renames.size()
                               << " renamed; epoch " << market.epoch << " revision " << market.revision;
                      });
    if (!renames.empty())
    {
        AddRenames(std::move(renames));
    }
    AnswerWaiting(market);
    Wake();
}

/// The names of instruments that are listed no more, and will never give them up by a rename, go to those that are
/// listed under them, and with the names who listens.
void ZelProvider::InheritNames(ZelMarket& market, std::vector<DirectoryEntry>& added)
{
    for (const std::unique_ptr<ZelInstrument>& heir : market.instruments)
    {
        if (heir->index == ZelInstrument::kNoIndex || !heir->symbol.empty())
        {
            continue;
        }
        ZelInstrument*& owner = market.bySymbol[heir->listedSymbol];
        if (owner != nullptr && owner->index != ZelInstrument::kNoIndex)
        {
            continue; // its rename is on the way
        }
        ZelInstrument* const before = std::exchange(owner, heir.get());
        heir->symbol = heir->listedSymbol;
        DirectoryEntry entry = MakeEntry(market, heir->asFirstListed);
        entry.symbol = heir->symbol;
        added.push_back(std::move(entry));
        if (before == nullptr)
        {
            continue;
        }
        before->symbol.clear();
        before->feed.DropAll();
        for (auto& [listener, subscription] : m_subscriptions)
        {
            if (subscription.instrument == before)
            {
                subscription.instrument = nullptr;
                subscription.awaitedIn = &market; // AnswerWaiting finds the heir by the name
                subscription.symbol = heir->symbol;
            }
        }
    }
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

} // namespace ps_ns
