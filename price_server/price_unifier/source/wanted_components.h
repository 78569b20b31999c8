#pragma once

#include "composite_instrument/composite_component_type.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace ps_ns
{

/// A record for each component that a definition wants. Nearly all definitions want one, whose record lies in place;
/// the first of several that wants more has a block for all of them.
///
/// Threads: where a record lies is constant; who may use what it holds is up to its user.
template <class Record>
class WantedComponents
{
public:
    using Flags = std::array<bool, CompositeComponentType::kCount>;

    explicit WantedComponents(const Flags& wanted)
        : m_first(static_cast<std::uint8_t>(FindFirst(wanted)))
    {
        for (std::size_t i = m_first + std::size_t{1}; i < wanted.size(); ++i)
        {
            if (wanted[i] && m_others == nullptr)
            {
                m_others = std::make_unique<Records>();
            }
        }
    }

    /// Of a component that is wanted.
    Record& Get(CompositeComponentType::Type component) noexcept
    {
        const auto index = static_cast<std::size_t>(component);
        return index == m_first || m_others == nullptr ? m_record : (*m_others)[index];
    }
    /// What is there of a component that is not wanted is an empty record.
    const Record& Get(CompositeComponentType::Type component) const noexcept
    {
        static const Record kNone;
        const auto index = static_cast<std::size_t>(component);
        if (index == m_first)
        {
            return m_record;
        }
        return m_others != nullptr ? (*m_others)[index] : kNone;
    }

private:
    using Records = std::array<Record, CompositeComponentType::kCount>;

    static std::size_t FindFirst(const Flags& wanted) noexcept
    {
        std::size_t first = 0;
        while (first + 1 < wanted.size() && !wanted[first])
        {
            ++first;
        }
        return first;
    }

    [[no_unique_address]] Record m_record; ///< of m_first, which may lie in its padding
    const std::uint8_t m_first;
    std::unique_ptr<Records> m_others; ///< null: there are none
};

} // namespace ps_ns
