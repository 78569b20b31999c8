#include "config/detail/nearest_name.h"

#include <algorithm>
#include <numeric>

namespace ps_ns::detail
{

namespace
{

char ToLower(char character)
{
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

} // namespace

std::size_t EditDistance(std::string_view left, std::string_view right, std::uint64_t& work)
{
    work += (left.size() + 1) * (right.size() + 1);
    std::vector<std::size_t> row(right.size() + 1); // distances of the part of `left` so far to each part of `right`
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < left.size(); ++i)
    {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < right.size(); ++j)
        {
            const std::size_t replaced = diagonal + (ToLower(left[i]) == ToLower(right[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

std::string_view FindNearest(std::string_view name, const std::vector<std::string_view>& known, std::uint64_t& work)
{
    std::string_view nearest;
    std::size_t best = name.size() / 4 + 2;
    for (const std::string_view candidate : known)
    {
        const std::size_t longer = std::max(name.size(), candidate.size());
        const std::size_t shorter = std::min(name.size(), candidate.size());
        ++work;
        if (longer > kMaxComparedBytes || longer - shorter >= best)
        {
            continue;
        }
        const std::size_t distance = EditDistance(name, candidate, work);
        // A name that shares no character with the candidate is not a misspelling of it.
        if (distance < best && distance < longer)
        {
            best = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

} // namespace ps_ns::detail
