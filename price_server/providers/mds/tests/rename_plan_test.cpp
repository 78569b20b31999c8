#include "mds/rename_plan.h"

#include "test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace ps_ns
{

static bool operator==(const RenameStep& a, const RenameStep& b)
{
    return a.time_ns == b.time_ns && a.renames == b.renames;
}

namespace
{

using namespace testing_ns;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::vector<SourceInstrument> kClasses{Listed("GOOCV"), Listed("GOOG"), Listed("FB", 2)};

TEST(RenamePlan, MakesOneStepOfTheRenamesOfOneMomentWhateverTheirOrder)
{
    const SymbolRename classC{1, "GOOCV", "GOOG"};
    const SymbolRename classA{1, "GOOG", "GOOGL"};
    EXPECT_THAT(PlanRenames({{100, classC}, {100, classA}}, kClasses, 1).steps,
                ElementsAre(RenameStep{100, {classC, classA}}));
    EXPECT_THAT(PlanRenames({{100, classA}, {100, classC}}, kClasses, 1).steps,
                ElementsAre(RenameStep{100, {classA, classC}}));
}

TEST(RenamePlan, LeavesOutWhatIsOverWhenThePricesBegin)
{
    // The recording calls class C GOOG already: GOOG must not become GOOGL a second time.
    const RenamePlan plan =
        PlanRenames({{100, {1, "GOOCV", "GOOG"}}, {100, {1, "GOOG", "GOOGL"}}}, {Listed("GOOG"), Listed("GOOGL")}, 100);
    EXPECT_THAT(plan.steps, IsEmpty());
    EXPECT_EQ(plan.ToString(), "0 to come, 2 over before the prices begin, 0 of symbols that are not served");
}

TEST(RenamePlan, CountsSymbolsThatAreNotServedThen)
{
    const RenamePlan plan =
        PlanRenames({{100, {1, "NONE", "A"}}, {100, {1, "A", "B"}}, {100, {1, "FB", "META"}}}, kClasses, 1);
    EXPECT_THAT(plan.steps, IsEmpty());
    EXPECT_EQ(plan.notServed, 3U); // FB is on the other market
}

TEST(RenamePlan, FollowsAChainOverTheYearsWhateverItsOrder)
{
    const SymbolRename first{1, "NWSA", "FOXA"};
    const SymbolRename second{1, "FOXA", "TFCFA"};
    const RenamePlan plan = PlanRenames({{300, second}, {200, first}}, {Listed("NWSA")}, 1);
    EXPECT_THAT(plan.steps, ElementsAre(RenameStep{200, {first}}, RenameStep{300, {second}}));
    EXPECT_EQ(plan.planned, 2U);
}

TEST(RenamePlan, RenamesOnEveryMarketThatHasTheSymbolWhenNoneIsNamed)
{
    const RenamePlan plan = PlanRenames({{100, {-1, "X", "Y"}}}, {Listed("X", 1), Listed("X", 3), Listed("Z", 2)}, 1);
    EXPECT_THAT(plan.steps, ElementsAre(RenameStep{100, {{1, "X", "Y"}, {3, "X", "Y"}}}));
    EXPECT_EQ(plan.planned, 1U);
}

TEST(RenamePlan, TakesEqualRenamesForOneAndCountsThoseThatContradictTheFirst)
{
    const SymbolRename good{1, "GOOG", "GOOGL"};
    const RenamePlan plan =
        PlanRenames({{100, good}, {100, good}, {100, {1, "GOOG", "ELSE"}}, {100, {1, "GOOCV", "GOOGL"}}}, kClasses, 1);
    EXPECT_THAT(plan.steps, ElementsAre(RenameStep{100, {good}}));
    EXPECT_EQ(plan.ToString(), "2 to come, 0 over before the prices begin, 0 of symbols that are not served, 2 left "
                               "out: they contradict others of the same moment");
}

TEST(RenamePlan, LetsSymbolsChangePlaces)
{
    const SymbolRename there{1, "GOOCV", "GOOG"};
    const SymbolRename back{1, "GOOG", "GOOCV"};
    const RenamePlan plan = PlanRenames({{100, there}, {100, back}, {200, {1, "GOOG", "LATER"}}}, kClasses, 1);
    EXPECT_THAT(plan.steps, ElementsAre(RenameStep{100, {there, back}}, RenameStep{200, {{1, "GOOG", "LATER"}}}));
}

} // namespace
} // namespace ps_ns
