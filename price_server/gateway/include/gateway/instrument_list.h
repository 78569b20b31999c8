#pragma once

#include "composite_instrument/composite_instrument_def.h"
#include "simple_subscription/instrument_directory.h"
#include "simple_subscription/market_table.h"

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

/// An instrument that clients can ask for, put together from what the providers' directories list of it.
struct ListedInstrument
{
    DirectoryEntry entry; ///< with the venue's own symbol
    std::string market;
    bool hasDirect = false;
    bool hasImplied = false; ///< the directory lists it with the implied prefix too

    /// "SPOT:BTCUSDT"
    std::string GetName() const { return market + ":" + entry.symbol; }
};

/// A text that names no instrument, or more than one; what() says which ones are near.
class UnknownInstrument : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The instruments of the directories' entries, by market and symbol. What is listed under a component's prefix is a
/// part of the instrument without it.
std::vector<ListedInstrument> ListInstruments(const std::vector<DirectoryEntry>& entries, const MarketTable& markets);

/// The instrument that "SYMBOL" or "MARKET:SYMBOL" names. Throws UnknownInstrument.
const ListedInstrument& FindInstrument(const std::vector<ListedInstrument>& instruments, std::string_view text);

/// At most `count` instruments to show to somebody who has asked for none: first those with more than one component,
/// each of another asset.
std::vector<ListedInstrument> ChooseInstruments(const std::vector<ListedInstrument>& instruments, std::size_t count);

/// A definition that wants the components that there are. The same instrument always gets the same identity, also under
/// a new symbol; an instrument that has taken over another one's symbol does not get that one's identity.
CompositeInstrumentDef MakeDefinition(const ListedInstrument& instrument);

} // namespace ps_ns
