#pragma once

#include "composite_instrument/composite_component_type.h"

#include <array>

namespace ps_ns
{

inline constexpr std::array kComponents{CompositeComponentType::Direct, CompositeComponentType::Implied,
                                        CompositeComponentType::Aggregated};

/// For people and for JSON.
constexpr const char* GetComponentName(CompositeComponentType::Type type) noexcept
{
    constexpr std::array kNames{"direct", "implied", "aggregated"};
    return kNames[static_cast<std::size_t>(type)];
}

} // namespace ps_ns
