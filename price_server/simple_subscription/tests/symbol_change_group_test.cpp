#include "simple_subscription/symbol_change_group.h"

#include <gtest/gtest.h>

#include <functional>
#include <latch>
#include <thread>

using namespace ps_ns;

namespace
{

class CountingMember final : public ISymbolChangeMember
{
public:
    void OnSymbolChangeFailed() override
    {
        ++m_failures;
        if (m_onFailure)
        {
            m_onFailure();
        }
    }

    std::atomic<int> m_failures{0};
    std::function<void()> m_onFailure;
};

} // namespace

TEST(SymbolChangeGroup, TellsEveryMemberOnceThatTheChangeHasFailed)
{
    SymbolChangeGroup group;
    const auto one = std::make_shared<CountingMember>();
    const auto other = std::make_shared<CountingMember>();
    group.Join(one);
    group.Join(other);
    EXPECT_EQ(one->m_failures, 0);

    group.Fail();
    EXPECT_EQ(one->m_failures, 1);
    EXPECT_EQ(other->m_failures, 1);

    group.Fail();
    EXPECT_EQ(one->m_failures, 1);
    EXPECT_EQ(other->m_failures, 1);
}

TEST(SymbolChangeGroup, TellsWhoJoinsAfterTheFailureAtOnce)
{
    SymbolChangeGroup group;
    group.Fail();
    const auto late = std::make_shared<CountingMember>();
    group.Join(late);
    EXPECT_EQ(late->m_failures, 1);
    group.Fail();
    EXPECT_EQ(late->m_failures, 1);
}

TEST(SymbolChangeGroup, PassesOverMembersThatAreGone)
{
    SymbolChangeGroup group;
    const auto stays = std::make_shared<CountingMember>();
    group.Join(std::make_shared<CountingMember>());
    group.Join(stays);
    group.Fail();
    EXPECT_EQ(stays->m_failures, 1);
    group.Join(std::weak_ptr<ISymbolChangeMember>());
}

TEST(SymbolChangeGroup, MayBeJoinedFromAMembersCallback)
{
    SymbolChangeGroup group;
    const auto one = std::make_shared<CountingMember>();
    const auto other = std::make_shared<CountingMember>();
    one->m_onFailure = [&] { group.Join(other); };
    group.Join(one);
    group.Fail();
    EXPECT_EQ(other->m_failures, 1);
}

TEST(SymbolChangeGroup, TellsEachMemberOnceWhenItFailsWhileTheyJoin)
{
    for (int round = 0; round < 200; ++round)
    {
        SymbolChangeGroup group;
        std::vector<std::shared_ptr<CountingMember>> members(20);
        std::latch start(2);
        std::thread joiner(
            [&]
            {
                start.arrive_and_wait();
                for (auto& member : members)
                {
                    member = std::make_shared<CountingMember>();
                    group.Join(member);
                }
            });
        start.arrive_and_wait();
        group.Fail();
        joiner.join();
        for (const auto& member : members)
        {
            ASSERT_EQ(member->m_failures, 1) << "round " << round;
        }
    }
}

TEST(SymbolChangeGroups, GiveOneGroupForAMarketAndSymbol)
{
    SymbolChangeGroups groups;
    const auto group = groups.Get(2, "A");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(groups.Get(2, "A"), group);
    EXPECT_NE(groups.Get(3, "A"), group);
    EXPECT_NE(groups.Get(2, "B"), group);
}

TEST(SymbolChangeGroups, BeginANewGroupAfterADrop)
{
    SymbolChangeGroups groups;
    const auto group = groups.Get(2, "A");
    const auto other = groups.Get(2, "B");
    group->Fail();
    groups.Drop(2, "A");
    groups.Drop(7, "never there");
    EXPECT_NE(groups.Get(2, "A"), group);
    EXPECT_EQ(groups.Get(2, "B"), other);

    const auto member = std::make_shared<CountingMember>();
    groups.Get(2, "A")->Join(member);
    EXPECT_EQ(member->m_failures, 0) << "the new change has not failed";
}

TEST(SymbolChangeGroups, KeepAFailedGroup)
{
    SymbolChangeGroups groups;
    groups.Get(2, "A")->Fail();
    const auto late = std::make_shared<CountingMember>();
    groups.Get(2, "A")->Join(late);
    EXPECT_EQ(late->m_failures, 1);
}
