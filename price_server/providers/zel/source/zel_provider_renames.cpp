#include "logging/logging.h"
#include "wire_check.h"
#include "zel/zel_log.h"
#include "zel/zel_provider.h"
#include "zel_market.h"

#include <set>
#include <utility>

namespace ps_ns
{

void ZelProvider::OnRename(ZelMarket& market, std::uint64_t epoch, std::uint64_t revision,
                           std::span<const std::byte> payload)
{
    const std::optional<std::vector<WireRename>> renames = ReadRenames(payload);
    if (!renames)
    {
        NoteRefused(market, kUnreadable);
        return;
    }
    if (!IsHeard(market, epoch) || revision <= market.revision)
    {
        return;
    }
    if (revision != market.revision + 1)
    {
        WantDirectory(market); // one has been missed: the directory tells of all
        return;
    }
    market.revision = revision;
    std::vector<SymbolRename> step;
    for (const WireRename& rename : *renames)
    {
        ZelInstrument* const instrument = market.FindByIndex(rename.index);
        if (const std::string fault = FindWireFault(rename); !fault.empty())
        {
            NoteRefused(market, "a rename is refused: " + fault);
        }
        else if (instrument != nullptr)
        {
            step.push_back({market.id, std::exchange(instrument->listedSymbol, rename.newSymbol), rename.newSymbol});
        }
    }
    if (!step.empty())
    {
        AddRenames(std::move(step));
    }
}

// --- Renames: on a thread of their own -------------------------------------------------------------------------------

void ZelProvider::AddRenames(std::vector<SymbolRename> step)
{
    m_renames.push_back(std::move(step));
    {
        const std::lock_guard lock(m_wakeMutex);
        m_hasRenames = true;
    }
    m_renamesWake.notify_all();
}

/// A step may wait for executors and for the queue: nothing else waits with it.
void ZelProvider::RunRenames()
{
    while (true)
    {
        {
            std::unique_lock lock(m_wakeMutex);
            m_renamesWake.wait(lock, [this] { return m_hasRenames || m_isStopping; });
            if (m_isStopping)
            {
                return;
            }
            m_hasRenames = false;
        }
        MakeRenames();
    }
}

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

/// An instrument that is listed under a name that another still has, or has taken, gets it as soon as it is free.
void ZelProvider::NameTheNameless(ZelMarket& market)
{
    for (const std::unique_ptr<ZelInstrument>& instrument : market.instruments)
    {
        if (instrument->symbol.empty() && instrument->index == ZelInstrument::kNoIndex)
        {
            continue; // listed no more: it has no claim to a name that has gone to another
        }
        const std::string name = instrument->symbol.empty() ? instrument->listedSymbol : instrument->symbol;
        if (market.bySymbol.try_emplace(name, instrument.get()).second)
        {
            instrument->symbol = name;
            DirectoryEntry entry = MakeEntry(market, instrument->asFirstListed);
            entry.symbol = name;
            m_directory.Add(entry);
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
