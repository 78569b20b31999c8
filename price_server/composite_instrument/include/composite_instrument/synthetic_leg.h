#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns
{

class SyntheticLeg;
/// Legs are shared and immutable once built. An empty pointer counts as an empty leg.
using SyntheticLegs = std::vector<std::shared_ptr<const SyntheticLeg>>;

/// The two texts that name an instrument.
struct InstrumentDef
{
    std::string symbol;
    std::string exchange; ///< also the name from which a leg's submarket is read, like "ICE_L" or "XYZ_7"

    friend bool operator==(const InstrumentDef&, const InstrumentDef&) = default;
};

/// A leg that is a plain instrument.
struct LegInstrument
{
    std::uint64_t instrumentId = 0;
    std::int16_t marketId = 0;
    std::int16_t submarketId = 0;
    InstrumentDef def;
    double ratio = 1.0;          ///< NaN equals nothing, itself included
    std::uint64_t expiry_ns = 0; ///< ns since 1970 UTC; 0: none
    std::uint64_t lotSize = 0;   ///< units in one lot; 0: not known
};

/// A leg that is itself a synthetic instrument.
struct SyntheticInstrumentInfo
{
    std::uint64_t instrumentId = 0;
    std::int16_t marketId = 0;
    std::int16_t submarketId = 0;
    std::uint64_t expiry_ns = 0; ///< ns since 1970 UTC; 0: none
    std::uint64_t lotSize = 0;   ///< units in one lot; 0: not known
    std::string name;
    std::map<std::uint16_t, std::string> properties; ///< takes no part in equality
    SyntheticLegs legs;
};

/// One leg of a synthetic instrument.
class SyntheticLeg
{
public:
    static constexpr std::uint32_t kInstrument = 0;
    static constexpr std::uint32_t kSynthetic = 1;

    std::uint32_t kind = kInstrument;                         ///< any other value: an empty leg
    std::shared_ptr<const LegInstrument> instrument;          ///< set when kind is kInstrument
    std::shared_ptr<const SyntheticInstrumentInfo> synthetic; ///< set when kind is kSynthetic
    std::uint32_t legParameter = 0;                           ///< takes part in equality only

    /// What identifies a leg: all zero for an empty leg.
    struct Identity
    {
        std::uint64_t instrumentId = 0;
        std::int16_t marketId = 0;
        std::int16_t submarketId = 0;
    };
    Identity GetIdentity() const noexcept;

    /// The nested legs of a synthetic leg; one shared, always empty list for every other leg.
    const SyntheticLegs& GetLegs() const;

    /// Equal in kind, parameter and record, all the way down; properties are not compared. Legs of an unknown kind have
    /// no record: they are equal when the other has none either.
    bool operator==(const SyntheticLeg& other) const;
};

/// The leg that a pointer of a leg list stands for: an empty leg when the pointer is empty.
const SyntheticLeg& GetLeg(const std::shared_ptr<const SyntheticLeg>& leg) noexcept;

/// Equal in number and pairwise by value, through the pointers: a leg with a NaN ratio is not even equal to itself.
bool HaveEqualLegs(const SyntheticLegs& a, const SyntheticLegs& b);

} // namespace ps_ns
