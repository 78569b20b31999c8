#include "mds/implied_book.h"

#include "composite_price/fixed_point.h"

#include <algorithm>
#include <limits>
#include <optional>

namespace ps_ns
{
namespace
{

__extension__ using Wide = __int128;

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

/// For values that are not negative.
Wide DivideUp(Wide dividend, Wide divisor)
{
    return (dividend + divisor - 1) / divisor;
}

std::optional<std::int64_t> RatioPrice(BookSideType side, std::int64_t first, std::int64_t second)
{
    if (first <= 0 || second <= 0)
    {
        return std::nullopt;
    }
    const Wide scaled = static_cast<Wide>(first) * kPriceUnitsPerOne;
    const Wide price = side == BookSideType::Bid ? scaled / second : DivideUp(scaled, second);
    if (price <= 0 || price > kMax)
    {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(price);
}

std::optional<std::int64_t> ImpliedPrice(ImpliedOperation operation, BookSideType side, std::int64_t first,
                                         std::int64_t second)
{
    std::int64_t price = 0;
    switch (operation)
    {
    case ImpliedOperation::Ratio:
        return RatioPrice(side, first, second);
    case ImpliedOperation::Sum:
        return __builtin_add_overflow(first, second, &price) ? std::nullopt : std::optional(price);
    case ImpliedOperation::Difference:
        return __builtin_sub_overflow(first, second, &price) ? std::nullopt : std::optional(price);
    }
    return std::nullopt;
}

/// A walk along one leg.
class Cursor
{
public:
    explicit Cursor(const LevelSide& levels)
        : m_levels(levels)
    {
        Load();
    }

    bool IsAtEnd() const noexcept { return m_rank == m_levels.GetSize(); }
    std::int64_t GetPrice() const noexcept { return m_levels.Get(m_rank).price; }
    std::int64_t GetRemaining() const noexcept { return m_remaining; }

    /// Uses up a part of the level, and moves on when nothing is left of it.
    void Use(std::int64_t quantity)
    {
        m_remaining -= quantity;
        if (m_remaining <= 0)
        {
            MoveOn();
        }
    }
    void MoveOn()
    {
        ++m_rank;
        Load();
    }

    LegReach GetReach() const { return IsAtEnd() ? LegReach{} : LegReach{false, GetPrice()}; }

private:
    void Load()
    {
        if (!IsAtEnd())
        {
            m_remaining = m_levels.Get(m_rank).quantity;
        }
    }

    const LevelSide& m_levels;
    std::size_t m_rank = 0;
    std::int64_t m_remaining = 0;
};

std::int64_t TakeSame(Cursor& first, Cursor& second)
{
    const std::int64_t quantity = std::min(first.GetRemaining(), second.GetRemaining());
    first.Use(quantity);
    second.Use(quantity);
    return quantity;
}

/// The first leg counts in X, the second in Y. A trade of x moves x * firstPrice in Z, which buys x * firstPrice /
/// secondPrice of Y.
std::int64_t TakeConverted(Cursor& first, Cursor& second)
{
    const Wide firstPrice = first.GetPrice();
    const Wide secondPrice = second.GetPrice();
    const Wide secondAllows = second.GetRemaining() * secondPrice / firstPrice;
    if (first.GetRemaining() > secondAllows)
    {
        // What is left of the second level is worth less than the smallest quantity of the first.
        const auto quantity = static_cast<std::int64_t>(secondAllows);
        second.MoveOn();
        first.Use(quantity);
        return quantity;
    }
    const std::int64_t quantity = first.GetRemaining();
    const Wide used = DivideUp(quantity * firstPrice, secondPrice); // not more than remains: see secondAllows
    first.Use(quantity);
    second.Use(static_cast<std::int64_t>(used));
    return quantity;
}

void AddQuantity(std::vector<BookLevel>& levels, std::int64_t price, std::int64_t quantity)
{
    if (levels.empty() || levels.back().price != price)
    {
        levels.push_back({price, quantity, 0});
        return;
    }
    std::int64_t& sum = levels.back().quantity;
    sum = sum > kMax - quantity ? kMax : sum + quantity;
}

} // namespace

BookSideType SideOfSecondLeg(ImpliedOperation operation, BookSideType side) noexcept
{
    if (operation == ImpliedOperation::Sum)
    {
        return side;
    }
    return side == BookSideType::Bid ? BookSideType::Ask : BookSideType::Bid;
}

void WalkImplied(ImpliedOperation operation, BookSideType side, const LevelBook& firstBook, const LevelBook& secondBook,
                 std::size_t depth, ImpliedSide& result)
{
    result.levels.clear();
    Cursor first(firstBook.GetSide(side));
    Cursor second(secondBook.GetSide(SideOfSecondLeg(operation, side)));
    while (!first.IsAtEnd() && !second.IsAtEnd())
    {
        const auto price = ImpliedPrice(operation, side, first.GetPrice(), second.GetPrice());
        const bool isNew = result.levels.empty() || result.levels.back().price != price;
        if (!price || (isNew && result.levels.size() == depth))
        {
            break;
        }
        const std::int64_t quantity =
            operation == ImpliedOperation::Ratio ? TakeConverted(first, second) : TakeSame(first, second);
        if (quantity > 0)
        {
            AddQuantity(result.levels, *price, quantity);
        }
    }
    result.first = first.GetReach();
    result.second = second.GetReach();
}

} // namespace ps_ns
