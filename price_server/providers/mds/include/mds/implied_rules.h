#pragma once

#include "mds/implied_book.h"
#include "mds/market_source.h"

#include <string>
#include <vector>

namespace ps_ns
{

/// How the book of `symbol` follows from two others of its market.
struct ImpliedRule
{
    short marketId = -1;
    std::string symbol;
    ImpliedOperation operation = ImpliedOperation::Ratio;
    std::string firstLeg;
    std::string secondLeg;

    friend bool operator==(const ImpliedRule&, const ImpliedRule&) = default;
};

/// Finds the rules that the names of listed instruments suggest, market by market:
///
/// | listed | rule |
/// |---|---|
/// | X_Y, X_Z, Y_Z | X_Y = X_Z / Y_Z |
/// | A-M1-M2, A-M1, A-M2 (a calendar spread: buys M1, sells M2) | A-M1-M2 = A-M1 - A-M2; A-M1 = A-M1-M2 + A-M2; A-M2 =
/// A-M1 - A-M1-M2 |
///
/// An outright that several spreads lead to has a rule for each; their books add up.
std::vector<ImpliedRule> DetectImpliedRules(const std::vector<SourceInstrument>& instruments);

/// A rule with numbers for names.
struct ImpliedRecipe
{
    ImpliedOperation operation;
    InstrumentIndex first;
    InstrumentIndex second;
};

/// An implied instrument, and all rules that lead to it.
struct ImpliedTarget
{
    InstrumentIndex instrument;
    std::vector<ImpliedRecipe> recipes;
};

/// Resolves rules against the listed instruments, and appends to those one implied instrument ("IM_" + symbol) for each
/// symbol that has a rule. A rule whose legs are not listed, or are one and the same, or whose implied name is taken,
/// is reported and left out.
std::vector<ImpliedTarget> ResolveImpliedRules(const std::vector<ImpliedRule>& rules,
                                               std::vector<SourceInstrument>& instruments);

} // namespace ps_ns
