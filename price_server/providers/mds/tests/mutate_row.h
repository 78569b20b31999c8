#pragma once

#include "mds/seeded_random.h"

#include <string>
#include <string_view>

namespace ps_ns::testing_ns
{

/// One to three random edits of a good row: characters replaced, removed, doubled.
inline std::string Mutate(std::string row, SeededRandom& random)
{
    constexpr std::string_view kAlphabet = ",.-0123456789BSxe\r ";
    for (std::int64_t edit = random.Below(3) + 1; edit > 0 && !row.empty(); --edit)
    {
        const auto at = static_cast<std::size_t>(random.Below(static_cast<std::int64_t>(row.size())));
        const char c = kAlphabet[static_cast<std::size_t>(random.Below(static_cast<std::int64_t>(kAlphabet.size())))];
        switch (random.Below(3))
        {
        case 0:
            row[at] = c;
            break;
        case 1:
            row.erase(at, 1);
            break;
        default:
            row.insert(at, 1, c);
        }
    }
    return row;
}

} // namespace ps_ns::testing_ns
