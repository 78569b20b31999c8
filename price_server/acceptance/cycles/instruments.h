#pragma once

#include "composite_instrument/composite_instrument_def.h"
#include "cycles/replay_server.h"

#include <string>
#include <vector>

namespace ps_ns::cycles
{

inline constexpr unsigned kContestedIdentities = 3; ///< of each symbol
inline constexpr const char* kLatePrefix = "LATE_";
inline constexpr const char* kLaterPrefix = "LATER_";

/// Who asks for an instrument, and what may happen to it.
enum class Use
{
    Shared,    ///< flexible clients only: no request fails that is not meant to
    Contested, ///< direct clients too, who take it away from the others; its symbol changes under it
    Renamed,   ///< as Shared; renamed at the provider too, and somebody always has it
    Late       ///< as Shared; now and then the undeciding provider's, now and then the other's
};

struct Instrument
{
    Use use = Use::Shared;
    CompositeInstrumentDef def;
};

/// The instruments of a run.
struct Instruments
{
    explicit Instruments(ReplayServer& server);

    std::vector<Instrument> shared;
    Instrument deep; ///< shared; thousands of levels
    std::vector<Instrument> contested;
    std::vector<Instrument> renamed; ///< one for each client thread
    std::vector<Instrument> late;
    std::vector<std::string> lateHomes; ///< the symbols that the late ones have at the provider when they are not late
    std::vector<bool> isLate;           ///< queue thread: which of them are
};

} // namespace ps_ns::cycles
