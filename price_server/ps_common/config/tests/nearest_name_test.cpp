#include "config/detail/nearest_name.h"

#include <gtest/gtest.h>

using namespace ps_ns::detail;

namespace
{

std::size_t Distance(std::string_view left, std::string_view right)
{
    std::uint64_t work = 0;
    return EditDistance(left, right, work);
}

std::string_view Nearest(std::string_view name, const std::vector<std::string_view>& known)
{
    std::uint64_t work = 0;
    return FindNearest(name, known, work);
}

} // namespace

TEST(EditDistance, CountsInsertionsDeletionsAndReplacements)
{
    EXPECT_EQ(Distance("", ""), 0U);
    EXPECT_EQ(Distance("", "abc"), 3U);
    EXPECT_EQ(Distance("abc", ""), 3U);
    EXPECT_EQ(Distance("kitten", "sitting"), 3U);
    EXPECT_EQ(Distance("sitting", "kitten"), 3U);
    EXPECT_EQ(Distance("flaw", "lawn"), 2U);
}

TEST(EditDistance, TakesUpperAndLowerCaseAsTheSame)
{
    EXPECT_EQ(Distance("MARKETS", "Markets"), 0U);
    EXPECT_EQ(Distance("@[", "`{"), 2U);
}

TEST(NearestName, IsTheOneWithTheFewestDifferences)
{
    EXPECT_EQ(Nearest("defaltDepth", {"id", "defaultDepth", "maxDepth"}), "defaultDepth");
    EXPECT_EQ(Nearest("Market", {"Markets", "Marker"}), "Markets");
    EXPECT_EQ(Nearest("ID", {"name", "id"}), "id");
}

TEST(NearestName, IsNoneWhenTooMuchIsDifferent)
{
    EXPECT_EQ(Nearest("colour", {"id", "name", "defaultDepth"}), "");
    EXPECT_EQ(Nearest("x", {"id"}), "");
    EXPECT_EQ(Nearest("ab", {"cd"}), "");
    EXPECT_EQ(Nearest("anything", {}), "");
}

TEST(NearestName, DoesNotCompareEndlessNames)
{
    std::uint64_t work = 0;
    const std::string endless(1'000'000, 'x');
    const std::string other(1'000'000, 'y');
    EXPECT_EQ(FindNearest(endless, {other, "id"}, work), "");
    EXPECT_EQ(work, 2U);
}
