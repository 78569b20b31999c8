#pragma once

#include <cstdint>

namespace ps_ns::simulation
{

/// What a number of an operation stands for: one of those that there are.
template <class Container>
const auto& Choose(const Container& container, std::uint32_t number)
{
    return container[number % container.size()];
}

} // namespace ps_ns::simulation
