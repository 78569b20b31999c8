#include "composite_instrument/property_map.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

using namespace ps_ns;

namespace
{

using Entries = std::vector<std::pair<std::uint16_t, std::string>>;
const std::string kLong = "a text that does not fit into the string itself";

template <class Map>
Entries GetEntries(const Map& map)
{
    return {map.begin(), map.end()};
}

} // namespace

static_assert(std::is_nothrow_move_constructible_v<PropertyMap> && std::is_nothrow_move_assignable_v<PropertyMap>);
static_assert(sizeof(PropertyMap) == sizeof(void*));

TEST(PropertyMap, IsEmptyAtFirst)
{
    const PropertyMap map;
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.size(), 0U);
    EXPECT_EQ(map.begin(), map.end());
    EXPECT_FALSE(map.contains(0));
    EXPECT_EQ(map, PropertyMap());
}

TEST(PropertyMap, KeepsItsEntriesInAscendingOrder)
{
    const PropertyMap map{{3, kLong}, {1, "one"}, {2, "two"}};
    EXPECT_EQ(GetEntries(map), (Entries{{1, "one"}, {2, "two"}, {3, kLong}}));
}

TEST(PropertyMap, TakesTheFirstOfSeveralEntriesWithOneNumber)
{
    const PropertyMap map{{1, "one"}, {1, "another"}};
    EXPECT_EQ(GetEntries(map), (Entries{{1, "one"}}));
}

TEST(PropertyMap, FindsWhatIsThereAndNothingElse)
{
    const PropertyMap map{{1, "one"}, {3, kLong}};
    EXPECT_EQ(map.at(3), kLong);
    EXPECT_EQ(map.find(1)->second, "one");
    for (const std::uint16_t absent : std::vector<std::uint16_t>{0, 2, 4, 65'535})
    {
        EXPECT_EQ(map.find(absent), map.end());
        EXPECT_THROW(static_cast<void>(map.at(absent)), std::out_of_range);
    }
}

TEST(PropertyMap, CopiesEachTextAndIsApartFromItsCopy)
{
    PropertyMap map{{1, "one"}, {3, kLong}};
    PropertyMap copy = map;
    EXPECT_EQ(copy, map);
    copy[1] = "changed";
    map[2] = "two";
    EXPECT_EQ(GetEntries(copy), (Entries{{1, "changed"}, {3, kLong}}));
    EXPECT_EQ(GetEntries(map), (Entries{{1, "one"}, {2, "two"}, {3, kLong}}));
    copy = map;
    EXPECT_EQ(copy, map);
    const PropertyMap& self = copy;
    copy = self;
    EXPECT_EQ(copy, map);
}

TEST(PropertyMap, LeavesNothingBehindWhenItIsMoved)
{
    PropertyMap map{{1, kLong}};
    const PropertyMap taken = std::move(map);
    EXPECT_EQ(taken.at(1), kLong);
    EXPECT_TRUE(map.empty()); // NOLINT(bugprone-use-after-move)
    map[2] = "two";
    EXPECT_EQ(GetEntries(map), (Entries{{2, "two"}}));
}

TEST(PropertyMap, DiffersInANumberOrATextOrTheirCount)
{
    const PropertyMap map{{1, "one"}, {2, "two"}};
    EXPECT_NE(map, (PropertyMap{{1, "one"}}));
    EXPECT_NE(map, (PropertyMap{{1, "one"}, {3, "two"}}));
    EXPECT_NE(map, (PropertyMap{{1, "one"}, {2, "Two"}}));
    EXPECT_EQ(map, (PropertyMap{{2, "two"}, {1, "one"}}));
}

RC_GTEST_PROP(PropertyMap, DoesWhatAStandardMapDoes, (const std::vector<std::pair<std::uint8_t, std::uint8_t>>& steps))
{
    PropertyMap map;
    std::map<std::uint16_t, std::string> model;
    for (const auto& [what, value] : steps)
    {
        const auto number = static_cast<std::uint16_t>(value % 12);
        const std::string text = std::to_string(value) + (what % 2 == 0 ? kLong : "");
        switch (what % 5)
        {
        case 0:
        case 1:
            map[number] = text;
            model[number] = text;
            break;
        case 2:
            RC_ASSERT(map.emplace(number, text).second == model.emplace(number, text).second);
            break;
        case 3:
            RC_ASSERT(map.erase(number) == model.erase(number));
            break;
        default:
            RC_ASSERT(map.contains(number) == (model.count(number) != 0));
        }
        RC_ASSERT(map.size() == model.size());
        RC_ASSERT(map.empty() == model.empty());
        RC_ASSERT(GetEntries(map) == GetEntries(model));
    }
}
