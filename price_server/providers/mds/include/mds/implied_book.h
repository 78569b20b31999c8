#pragma once

#include "mds/level_book.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ps_ns
{

/// How the prices of two legs make the price of another instrument.
enum class ImpliedOperation : std::uint8_t
{
    Ratio,     ///< first / second: X_Y from X_Z and Y_Z; traded in units of X
    Sum,       ///< first + second: the near month from the spread and the far month
    Difference ///< first - second: a spread from near and far month; the far month from the near one and the spread
};

/// How deep the walk for one side looked into a leg. What lies further away cannot change the result.
struct LegReach
{
    bool isWhole = true;    ///< to the end: everything matters, new levels there too
    std::int64_t price = 0; ///< else: levels worse than this price do not matter
};

/// One side of an implied book.
struct ImpliedSide
{
    std::vector<BookLevel> levels; ///< best first
    LegReach first;
    LegReach second;
};

/// The leg's side that the result's side trades against: of the first leg always the same, of the second one the other
/// side unless the prices are added.
BookSideType SideOfSecondLeg(ImpliedOperation operation, BookSideType side) noexcept;

/// Works out one side of an implied book by walking both legs from their best levels: each pair of levels gives a price
/// and the smaller of the two quantities; what is used up gives way to the next level. At most `depth` prices.
///
/// Exact: whole numbers only, 128 bits between. A ratio is rounded to the price unit, bids down and asks up, so that an
/// implied price never promises more than the legs keep; quantities are rounded down. The second leg's quantity of a
/// ratio is converted into units of the first.
///
/// The walk ends where a price leaves the range of prices, and where a ratio meets a price that is not positive. A leg
/// with nothing on the needed side gives an empty side.
void WalkImplied(ImpliedOperation operation, BookSideType side, const LevelBook& first, const LevelBook& second,
                 std::size_t depth, ImpliedSide& result);

} // namespace ps_ns
