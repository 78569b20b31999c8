#include "composite_instrument/composite_subscription_info.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace ps_ns;

namespace
{

using Info = CompositeSubscriptionInfo;

std::string Print(const Info& info)
{
    std::ostringstream text;
    text << info;
    return text.str();
}

} // namespace

TEST(CompositeSubscriptionInfo, AsksForTheDefaultDepthAndNothingElseByDefault)
{
    const Info info;
    EXPECT_EQ(info.depth, -2);
    EXPECT_EQ(info.conflationInterval_ms, 0U);
    EXPECT_FALSE(info.trades);
    EXPECT_FALSE(info.customFields);
}

TEST(CompositeSubscriptionInfo, IsTheSameScopeWhenAllFourFieldsAgree)
{
    const Info info{5, 100, true, false};
    EXPECT_TRUE(Info::IsSameScope(info, {5, 100, true, false}));
    EXPECT_FALSE(Info::IsSameScope(info, {6, 100, true, false}));
    EXPECT_FALSE(Info::IsSameScope(info, {5, 101, true, false}));
    EXPECT_FALSE(Info::IsSameScope(info, {5, 100, false, false}));
    EXPECT_FALSE(Info::IsSameScope(info, {5, 100, true, true}));
}

TEST(CompositeSubscriptionInfo, MergesToTheLargerDepthTheSmallerIntervalAndEitherFlag)
{
    EXPECT_EQ(Info::Merge({5, 100, true, false}, {10, 50, false, true}), (Info{10, 50, true, true}));
    EXPECT_EQ(Info::Merge({10, 50, false, false}, {5, 100, false, false}), (Info{10, 50, false, false}));
    EXPECT_EQ(Info::Merge({1, 0, false, false}, {1, 100, false, false}).conflationInterval_ms, 0U);
    EXPECT_EQ(Info::Merge({7, 9, true, true}, {7, 9, true, true}), (Info{7, 9, true, true}));
}

TEST(CompositeSubscriptionInfo, PrintsOnOneLine)
{
    EXPECT_EQ(Print({5, 0, false, true}), "depth=5 interval=0 trades=0 customFields=1");
    EXPECT_EQ(Print({-1, 4294967295U, true, false}), "depth=-1 interval=4294967295 trades=1 customFields=0");
    EXPECT_EQ(Print({}), "depth=-2 interval=0 trades=0 customFields=0");
}

TEST(CompositeSubscriptionInfo, PrintsFlagsAsNumbersWhateverTheStreamIsSetTo)
{
    std::ostringstream text;
    text << std::boolalpha << Info{5, 0, true, false};
    EXPECT_EQ(text.str(), "depth=5 interval=0 trades=1 customFields=0");
}
