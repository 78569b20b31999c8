#include "mds/implied_engine.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace ps_ns
{
namespace
{

bool IsWithin(const LegReach& reach, const LevelSide& side, const BookUpdate::Change& change)
{
    return reach.isWhole || !side.IsWorse(change.price, reach.price);
}

/// Adds the levels of one side of several rules up: sorted best first, one level a price, at most `depth`.
void Combine(std::vector<BookLevel>& levels, BookSideType side, std::size_t depth)
{
    const auto isBetter = [side](const BookLevel& a, const BookLevel& b)
    { return side == BookSideType::Bid ? a.price > b.price : a.price < b.price; };
    std::stable_sort(levels.begin(), levels.end(), isBetter);
    std::size_t count = 0;
    for (const BookLevel& level : levels)
    {
        if (count != 0 && levels[count - 1].price == level.price)
        {
            std::int64_t& sum = levels[count - 1].quantity;
            sum = __builtin_add_overflow(sum, level.quantity, &sum) ? std::numeric_limits<std::int64_t>::max() : sum;
        }
        else
        {
            levels[count++] = level;
        }
    }
    levels.resize(std::min(count, depth));
}

void AppendImage(const std::vector<BookLevel>& levels, BookSideType side, std::vector<BookUpdate::Change>& changes)
{
    for (const BookLevel& level : levels)
    {
        changes.push_back({level.price, level.quantity, level.orderCount, side});
    }
}

/// What leads from one side to the other; both best first. Levels are at most a few: no need to be clever.
void AppendDifference(const std::vector<BookLevel>& before, const std::vector<BookLevel>& after, BookSideType side,
                      std::vector<BookUpdate::Change>& changes)
{
    const auto find = [](const std::vector<BookLevel>& levels, std::int64_t price) {
        return std::find_if(levels.begin(), levels.end(), [&](const BookLevel& level) { return level.price == price; });
    };
    for (const BookLevel& level : before)
    {
        if (find(after, level.price) == after.end())
        {
            changes.push_back({level.price, 0, 0, side});
        }
    }
    for (const BookLevel& level : after)
    {
        const auto known = find(before, level.price);
        if (known == before.end() || known->quantity != level.quantity)
        {
            changes.push_back({level.price, level.quantity, level.orderCount, side});
        }
    }
}

} // namespace

ImpliedEngine::ImpliedEngine(std::vector<ImpliedTarget> targets, std::size_t instruments, std::size_t depth,
                             BookOf bookOf)
    : m_depth(depth)
    , m_bookOf(std::move(bookOf))
    , m_targetsByLeg(instruments)
{
    for (const ImpliedTarget& target : targets)
    {
        const std::size_t index = m_targets.size();
        TargetState& state = m_targets.emplace_back();
        state.instrument = target.instrument;
        for (const ImpliedRecipe& recipe : target.recipes)
        {
            state.recipes.push_back({recipe, {}, {}});
            for (const InstrumentIndex leg : {recipe.first, recipe.second})
            {
                std::vector<std::size_t>& led = m_targetsByLeg[leg];
                if (led.empty() || led.back() != index)
                {
                    led.push_back(index);
                }
                m_mostUpdates = std::max(m_mostUpdates, led.size());
            }
        }
    }
}

void ImpliedEngine::Note(const MarketMessage& message)
{
    if (!message.HasBook())
    {
        return;
    }
    for (const std::size_t index : m_targetsByLeg[message.instrument])
    {
        TargetState& target = m_targets[index];
        const auto matters = [&](const RecipeState& state) { return Matters(state, message); };
        if (!target.isNoted &&
            (target.epoch != message.epoch || std::any_of(target.recipes.begin(), target.recipes.end(), matters)))
        {
            target.isNoted = true;
            m_noted.push_back(index);
        }
    }
}

bool ImpliedEngine::Matters(const RecipeState& state, const MarketMessage& message) const
{
    const bool isFirst = state.recipe.first == message.instrument;
    if (!isFirst && state.recipe.second != message.instrument)
    {
        return false;
    }
    if (message.isImage)
    {
        return true;
    }
    const LevelBook& book = m_bookOf(message.instrument);
    return std::any_of(message.changes.begin(), message.changes.end(),
                       [&](const BookUpdate::Change& change)
                       {
                           // Which side of the result this side of the leg serves.
                           const BookSideType served =
                               isFirst ? change.side : SideOfSecondLeg(state.recipe.operation, change.side);
                           const ImpliedSide& side = served == BookSideType::Bid ? state.bids : state.asks;
                           return IsWithin(isFirst ? side.first : side.second, book.GetSide(change.side), change);
                       });
}

void ImpliedEngine::Update(const MarketMessage& cause, const Publish& publish)
{
    for (const std::size_t index : m_noted)
    {
        TargetState& target = m_targets[index];
        target.isNoted = false;
        Walk(target);
        PublishTarget(target, cause, publish);
    }
    m_noted.clear();
}

void ImpliedEngine::Walk(TargetState& target)
{
    m_bids.clear();
    m_asks.clear();
    for (RecipeState& state : target.recipes)
    {
        const LevelBook& first = m_bookOf(state.recipe.first);
        const LevelBook& second = m_bookOf(state.recipe.second);
        WalkImplied(state.recipe.operation, BookSideType::Bid, first, second, m_depth, state.bids);
        WalkImplied(state.recipe.operation, BookSideType::Ask, first, second, m_depth, state.asks);
        m_bids.insert(m_bids.end(), state.bids.levels.begin(), state.bids.levels.end());
        m_asks.insert(m_asks.end(), state.asks.levels.begin(), state.asks.levels.end());
    }
    Combine(m_bids, BookSideType::Bid, m_depth);
    Combine(m_asks, BookSideType::Ask, m_depth);
}

void ImpliedEngine::PublishTarget(TargetState& target, const MarketMessage& cause, const Publish& publish)
{
    m_message.Clear();
    if (target.epoch != cause.epoch)
    {
        target.epoch = cause.epoch;
        m_message.isImage = true;
        AppendImage(m_bids, BookSideType::Bid, m_message.changes);
        AppendImage(m_asks, BookSideType::Ask, m_message.changes);
    }
    else
    {
        AppendDifference(target.bids, m_bids, BookSideType::Bid, m_message.changes);
        AppendDifference(target.asks, m_asks, BookSideType::Ask, m_message.changes);
    }
    target.bids.swap(m_bids);
    target.asks.swap(m_asks);
    if (!m_message.HasBook())
    {
        return;
    }
    m_message.instrument = target.instrument;
    m_message.epoch = cause.epoch;
    m_message.sourceTime_ns = cause.sourceTime_ns;
    m_message.receiveTime_ns = cause.receiveTime_ns;
    m_message.exchangeTime_ns = cause.exchangeTime_ns;
    m_message.venueSequence = 0;
    publish(m_message);
}

} // namespace ps_ns
