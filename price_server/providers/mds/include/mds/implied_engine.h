#pragma once

#include "mds/implied_book.h"
#include "mds/implied_rules.h"
#include "mds/market_source.h"

#include <cstddef>
#include <functional>
#include <vector>

namespace ps_ns
{

/// Keeps the implied books up with their legs, and says what changed in them.
///
/// A leg's change that lies deeper than the last walk looked is passed over: it cannot change the result.
///
/// Threads: the feed thread.
class ImpliedEngine
{
public:
    static constexpr std::size_t kUsualDepth = 10;

    using BookOf = std::function<const LevelBook&(InstrumentIndex)>;
    using Publish = std::function<void(MarketMessage&)>;

    /// `instruments` is the number of all instruments; `depth` the most levels a side.
    ImpliedEngine(std::vector<ImpliedTarget> targets, std::size_t instruments, std::size_t depth, BookOf bookOf);

    /// Before a leg's message is applied to its book: notes what it may change.
    void Note(const MarketMessage& message);

    /// Afterwards: works out what was noted, and publishes each implied book that is not as before: the changes only,
    /// or an image where a new epoch begins. `cause` gives the times.
    void Update(const MarketMessage& cause, const Publish& publish);

    /// The most updates that one message can lead to.
    std::size_t GetMostUpdates() const noexcept { return m_mostUpdates; }

private:
    struct RecipeState
    {
        ImpliedRecipe recipe;
        ImpliedSide bids;
        ImpliedSide asks;
    };
    struct TargetState
    {
        InstrumentIndex instrument = kNoInstrument;
        std::vector<RecipeState> recipes;
        std::vector<BookLevel> bids; ///< as published, best first
        std::vector<BookLevel> asks;
        std::uint64_t epoch = 0;
        bool isNoted = false;
    };

    bool Matters(const RecipeState& state, const MarketMessage& message) const;
    void Walk(TargetState& target);
    void PublishTarget(TargetState& target, const MarketMessage& cause, const Publish& publish);

    const std::size_t m_depth;
    const BookOf m_bookOf;
    std::vector<TargetState> m_targets;
    std::vector<std::vector<std::size_t>> m_targetsByLeg;
    std::vector<std::size_t> m_noted;
    std::size_t m_mostUpdates = 0;
    // Buffers that are filled again and again.
    std::vector<BookLevel> m_bids;
    std::vector<BookLevel> m_asks;
    MarketMessage m_message;
};

} // namespace ps_ns
