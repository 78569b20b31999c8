#pragma once

#include "composite_instrument/synthetic_leg.h"

#include <boost/container/flat_map.hpp>
#include <boost/container/vector.hpp>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace ps_ns
{

/// Texts by number. All of them lie in one block, where a tree would take one for each: definitions are copied with
/// each request. Adding and erasing invalidates iterators and references.
using Properties = boost::container::flat_map<
    std::uint16_t, std::string, std::less<>,
    boost::container::vector<std::pair<std::uint16_t, std::string>,
                             std::allocator<std::pair<std::uint16_t, std::string>>,
                             boost::container::vector_options_t<boost::container::stored_size<std::uint16_t>>>>;

/// A client's definition of a composite instrument: either one tradable instrument, or a synthetic one built from legs.
/// A plain value; copying copies the strings and the map and shares the legs.
struct CompositeInstrumentDef
{
    // What the instrument's identity is made of (composite_instrument_id.h). What the attributes mean is the client's
    // business: they tell apart what otherwise looks alike.
    std::uint64_t instrumentId = 0;
    std::int16_t marketId = 0;
    std::uint8_t attrA = 0;
    std::uint8_t attrB = 0;
    std::uint32_t attrC = 0;
    std::int8_t attrD = 0;
    std::int16_t submarketId = -1;

    std::array<bool, 3> components{true, false, false}; ///< wanted: direct, implied, aggregated; here it takes no room

    std::uint64_t attrE = 0; ///< of the identity, too

    InstrumentDef instrument; ///< symbol and product / exchange
    std::string currency;
    Properties properties;
    SyntheticLegs legs; ///< not empty: a synthetic instrument

    std::uint64_t expiry_ns = 0; ///< ns since 1970 UTC; 0: none
    std::uint64_t lotSize = 0;   ///< units in one lot; 0: not known
    double contractSize = 1.0;   ///< of the underlying asset
    double strike = 0.0;
    std::uint32_t flags = 0;
    std::uint32_t priority = 0;
    std::int64_t createTime_ns = 0;
    std::int64_t changeTime_ns = 0;
    std::uint16_t segment = 0;
    std::uint16_t assetClass = 0;

    const std::string& GetSymbol() const noexcept { return instrument.symbol; }

    bool IsSyntheticComposite() const noexcept { return !legs.empty(); }

    /// One line for the log, like "BTCUSDT market=2 submarket=-1 id=7 exchange=USDM"; a synthetic one adds " legs=2".
    std::string ToString() const;

    /// The short form, like "BTCUSDT@2". Safe to call from several threads on one object: it is made afresh, since a
    /// text kept in the definition would need a lock, and would be copied into every action.
    std::string ToStringShortCached() const;
};

} // namespace ps_ns
