#include "price_unifier/source/scope_table.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <utility>

using namespace ps_ns;

namespace
{

using Depths = std::map<unsigned long, std::int32_t>;

Depths GetDepths(const ScopeTable& table)
{
    Depths depths;
    table.ForEach([&](const Scope& scope) { EXPECT_TRUE(depths.emplace(scope.id, scope.info.depth).second); });
    return depths;
}

Scope MakeScope(unsigned long id, std::int32_t depth)
{
    return {id, {depth, 0, false, false}, nullptr};
}

} // namespace

TEST(ScopeTable, KnowsNothingAtFirst)
{
    ScopeTable table;
    EXPECT_TRUE(table.IsEmpty());
    EXPECT_EQ(table.GetSize(), 0U);
    EXPECT_EQ(table.Find(0), nullptr); // the id of a default scope
    EXPECT_EQ(GetDepths(table), Depths());
}

TEST(ScopeTable, GivesAScopeItsPlaceBackWhenItComesAgain)
{
    ScopeTable table;
    for (std::int32_t depth = 1; depth <= 3; ++depth)
    {
        table.Add(MakeScope(7, depth));
        EXPECT_EQ(GetDepths(table), (Depths{{7, depth}}));
        EXPECT_EQ(table.Remove(*table.Find(7)).info.depth, depth);
        EXPECT_TRUE(table.IsEmpty());
    }
}

TEST(ScopeTable, LetsGoOfTheClientThatIsRemoved)
{
    const auto client = std::make_shared<ClientScope>(1, nullptr, CompositeSubscriptionInfo{});
    ScopeTable table;
    table.Add({1, {}, client});
    table.Add(MakeScope(2, 5));
    EXPECT_EQ(table.Remove(*table.Find(1)).client, client);
    EXPECT_EQ(client.use_count(), 1);
    EXPECT_EQ(GetDepths(table), (Depths{{2, 5}}));
}

TEST(ScopeTable, DoesWhatAMapDoes)
{
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round)
    {
        ScopeTable table;
        Depths model;
        for (int step = 0; step < 60; ++step)
        {
            const auto id = static_cast<unsigned long>(random() % 9);
            Scope* const scope = table.Find(id);
            ASSERT_EQ(scope != nullptr, model.count(id) != 0);
            if (scope == nullptr)
            {
                table.Add(MakeScope(id, step));
                model.emplace(id, step);
            }
            else if (random() % 3 == 0)
            {
                scope->info.depth = step;
                model[id] = step;
            }
            else
            {
                EXPECT_EQ(table.Remove(*scope).info.depth, model[id]);
                model.erase(id);
            }
            ASSERT_EQ(GetDepths(table), model);
            ASSERT_EQ(table.GetSize(), model.size());
            ASSERT_EQ(table.IsEmpty(), model.empty());
        }
    }
}
