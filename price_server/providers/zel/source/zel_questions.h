#pragma once

#include "zel/wire_format.h"
#include "zel/zel_provider.h"

#include <cstdint>
#include <string>

namespace ps_ns
{

/// To a market's publisher.
struct ZelProvider::Question
{
    std::string market;
    WireBuffer bytes;
};

/// To the broker: for an image, or, without an instrument, for a part of the directory.
struct ZelProvider::LastValueQuestion
{
    std::string market;
    std::string instrument; ///< as it was first listed
    std::uint32_t part = 0;
};

} // namespace ps_ns
