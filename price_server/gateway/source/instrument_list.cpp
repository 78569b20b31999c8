#include "gateway/instrument_list.h"

#include "composite_instrument/composite_component_type.h"
#include "config/detail/nearest_name.h"
#include "price_unifier/source/symbol_prefixes.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <map>
#include <set>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::size_t kNamesInMessages = 3;
constexpr std::size_t kMostCompared = 4000;  // letter by letter; a wrong name must not cost the others' time
constexpr std::size_t kMostSearched = 50000; // for the text as it is

std::string Join(const std::vector<std::string>& names, const std::string& lastSeparator)
{
    std::string text;
    for (std::size_t i = 0; i < names.size(); ++i)
    {
        text += (i == 0 ? "" : i + 1 == names.size() ? lastSeparator : ", ") + names[i];
    }
    return text;
}

std::string ToLower(std::string_view text)
{
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
    return lower;
}

/// 0: its name contains the text; otherwise how many characters of symbol or name are different, if that is wanted.
std::size_t GetDistance(const ListedInstrument& instrument, const std::string& lowerText, bool compares)
{
    const std::string name = instrument.GetName();
    if (ToLower(name).find(lowerText) != std::string::npos)
    {
        return 0;
    }
    std::uint64_t work = 0;
    return compares ? std::min(detail::EditDistance(instrument.entry.symbol, lowerText, work),
                               detail::EditDistance(name, lowerText, work))
                    : std::numeric_limits<std::size_t>::max();
}

/// The names nearest to a text, nearest first, and none that is much further than the first; none when all are far.
std::vector<std::string> FindNear(const std::vector<ListedInstrument>& instruments, std::string_view text)
{
    const std::string lowerText = ToLower(text.substr(0, detail::kMaxComparedBytes));
    std::set<std::pair<std::size_t, std::string>> near;
    for (std::size_t i = 0; i < std::min(instruments.size(), kMostSearched); ++i)
    {
        const ListedInstrument& instrument = instruments[i];
        const std::size_t distance = GetDistance(instrument, lowerText, i < kMostCompared);
        if (distance <= std::max<std::size_t>(2, lowerText.size() / 3))
        {
            near.emplace(distance, instrument.GetName());
        }
    }
    std::vector<std::string> names;
    for (auto it = near.begin();
         it != near.end() && names.size() < kNamesInMessages && it->first <= near.begin()->first + 1; ++it)
    {
        names.push_back(it->second);
    }
    return names;
}

[[noreturn]] void ThrowUnknown(const std::vector<ListedInstrument>& instruments, std::string_view text)
{
    std::string message = "there is no instrument \"" + std::string(text) + "\"";
    if (const std::vector<std::string> near = FindNear(instruments, text); !near.empty())
    {
        throw UnknownInstrument(message + "; near are " + Join(near, " and "));
    }
    std::vector<std::string> some;
    for (std::size_t i = 0; i < std::min(instruments.size(), kNamesInMessages); ++i)
    {
        some.push_back(instruments[i].GetName());
    }
    message += "; there are " + std::to_string(instruments.size());
    throw UnknownInstrument(message + (some.empty() ? "" : ", such as " + Join(some, " and ")));
}

/// The asset that a symbol begins with: up to the first '-', '_' or '/'.
std::string GetAsset(const ListedInstrument& instrument)
{
    return instrument.market + ":" + instrument.entry.symbol.substr(0, instrument.entry.symbol.find_first_of("-_/"));
}

/// Without a component's prefix.
std::string GetFirstSymbol(const DirectoryEntry& entry)
{
    const std::string& symbol = entry.firstSymbol.empty() ? entry.symbol : entry.firstSymbol;
    return symbol.starts_with(impliedSymbolPrefix) ? symbol.substr(impliedSymbolPrefix.size()) : symbol;
}

} // namespace

std::vector<ListedInstrument> ListInstruments(const std::vector<DirectoryEntry>& entries, const MarketTable& markets)
{
    std::map<std::pair<std::string, std::string>, ListedInstrument> listed;
    for (const DirectoryEntry& entry : entries)
    {
        if (entry.symbol.starts_with(aggregatorSymbolPrefix))
        {
            continue;
        }
        const bool isImplied = entry.symbol.starts_with(impliedSymbolPrefix);
        const std::string symbol = isImplied ? entry.symbol.substr(impliedSymbolPrefix.size()) : entry.symbol;
        const std::string& market = markets.Get(entry.submarket.marketId).name;
        ListedInstrument& instrument = listed[{market, symbol}];
        if (!isImplied || !instrument.hasDirect)
        {
            instrument.entry = entry;
            instrument.entry.symbol = symbol;
        }
        instrument.market = market;
        (isImplied ? instrument.hasImplied : instrument.hasDirect) = true;
    }
    std::vector<ListedInstrument> instruments;
    for (auto& [name, instrument] : listed)
    {
        instruments.push_back(std::move(instrument));
    }
    return instruments;
}

const ListedInstrument& FindInstrument(const std::vector<ListedInstrument>& instruments, std::string_view text)
{
    std::vector<const ListedInstrument*> found;
    for (const ListedInstrument& instrument : instruments)
    {
        if (instrument.GetName() == text)
        {
            return instrument;
        }
        if (instrument.entry.symbol == text)
        {
            found.push_back(&instrument);
        }
    }
    if (found.empty())
    {
        ThrowUnknown(instruments, text);
    }
    if (found.size() > 1)
    {
        std::vector<std::string> names;
        for (const ListedInstrument* instrument : found)
        {
            names.push_back(instrument->GetName());
        }
        throw UnknownInstrument("\"" + std::string(text) + "\" is on several markets: say " + Join(names, " or "));
    }
    return *found.front();
}

std::vector<ListedInstrument> ChooseInstruments(const std::vector<ListedInstrument>& instruments, std::size_t count)
{
    std::vector<ListedInstrument> chosen;
    std::set<std::string> assets;
    for (const bool wantsBoth : {true, false})
    {
        for (const ListedInstrument& instrument : instruments)
        {
            const bool hasBoth = instrument.hasDirect && instrument.hasImplied;
            if (chosen.size() < count && hasBoth == wantsBoth && assets.insert(GetAsset(instrument)).second)
            {
                chosen.push_back(instrument);
            }
        }
    }
    return chosen;
}

CompositeInstrumentDef MakeDefinition(const ListedInstrument& instrument)
{
    // FNV-1a, 64 bits, over market and first symbol.
    std::uint64_t identity = 0xcbf29ce484222325;
    for (const char c : instrument.market + ":" + GetFirstSymbol(instrument.entry))
    {
        identity = (identity ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    }
    CompositeInstrumentDef def;
    def.instrumentId = identity;
    def.marketId = instrument.entry.submarket.marketId;
    def.submarketId = instrument.entry.submarket.submarketId;
    def.instrument = {instrument.entry.symbol, instrument.entry.exchange};
    def.components = {};
    def.components[CompositeComponentType::Direct] = instrument.hasDirect;
    def.components[CompositeComponentType::Implied] = instrument.hasImplied;
    return def;
}

} // namespace ps_ns
