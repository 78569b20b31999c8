#include "composite_instrument/i_composite_price_observer.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "composite_instrument/local_observer_factory.h"
#include "composite_price/i_composite_price_factory.h"
#include "testing/manager_bench.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

/// The place of a virtual operation in its class's table, as the Itanium C++ ABI writes it into a pointer to member:
/// the first word is the offset in bytes plus one (on ARM the offset itself; the one is in the second word).
template <class Member>
std::size_t GetSlot(Member member)
{
    std::array<std::ptrdiff_t, 2> words{};
    static_assert(sizeof(member) == sizeof(words));
    std::memcpy(words.data(), &member, sizeof(words));
#if defined(__aarch64__) || defined(__arm__)
    const bool isVirtual = (words[1] & 1) != 0;
    const std::ptrdiff_t offset = words[0];
#else
    const bool isVirtual = (words[0] & 1) != 0;
    const std::ptrdiff_t offset = words[0] - 1;
#endif
    EXPECT_TRUE(isVirtual);
    return static_cast<std::size_t>(offset) / sizeof(void*);
}

/// A destructor takes two slots: one destroys, one also frees.
constexpr std::size_t kBehindDestructor = 2;

std::ptrdiff_t GetDistance(const void* from, const void* to)
{
    return static_cast<const std::byte*>(to) - static_cast<const std::byte*>(from);
}

} // namespace

TEST(VirtualSlots, OfACompositePriceObserverComeInTheOrderThatItsUsersExpect)
{
    using Observer = ICompositePriceObserver;
    EXPECT_EQ(GetSlot(&Observer::OnSubscribe), kBehindDestructor);
    EXPECT_EQ(GetSlot(&Observer::OnAddScope), kBehindDestructor + 1);
    EXPECT_EQ(GetSlot(&Observer::OnChangeScope), kBehindDestructor + 2);
    EXPECT_EQ(GetSlot(&Observer::OnRemoveScope), kBehindDestructor + 3);
    EXPECT_EQ(GetSlot(&Observer::OnOrderBook), kBehindDestructor + 4);
    EXPECT_EQ(GetSlot(&Observer::OnTrades), kBehindDestructor + 5);
    EXPECT_EQ(GetSlot(&Observer::OnCustomFields), kBehindDestructor + 6);
    EXPECT_EQ(GetSlot(&Observer::OnUnsubscribe), kBehindDestructor + 7);
}

TEST(VirtualSlots, OfAFlexiblePriceObserverComeInTheOrderThatItsUsersExpect)
{
    using Observer = IFlexiblePriceObserver;
    EXPECT_EQ(GetSlot(&Observer::OnSubscribe), kBehindDestructor);
    EXPECT_EQ(GetSlot(&Observer::OnChangeScope), kBehindDestructor + 1);
    EXPECT_EQ(GetSlot(&Observer::OnOrderBook), kBehindDestructor + 2);
    EXPECT_EQ(GetSlot(&Observer::OnTrades), kBehindDestructor + 3);
    EXPECT_EQ(GetSlot(&Observer::OnCustomFields), kBehindDestructor + 4);
    EXPECT_EQ(GetSlot(&Observer::OnUnsubscribe), kBehindDestructor + 5);
}

TEST(VirtualSlots, OfALocalObserverFactoryHoldItsOneOperationBehindTheDestructor)
{
    EXPECT_EQ(GetSlot(&LocalObserverFactory::CreateLocalObserver), kBehindDestructor);
}

TEST(VirtualSlots, OfAPriceFactoryAreItsNineOperationsAndNoDestructor)
{
    using Factory = ICompositePriceFactory;
    using Fields = std::shared_ptr<CustomFields>;
    using Volume = std::shared_ptr<LastTradeVolume>;
    EXPECT_EQ(GetSlot(static_cast<Volume (Factory::*)(double, double, double, unsigned long, unsigned long)>(
                  &Factory::CreateLastTradeVolumeObject)),
              0U);
    EXPECT_EQ(
        GetSlot(static_cast<Volume (Factory::*)(const Trade&, unsigned long)>(&Factory::CreateLastTradeVolumeObject)),
        1U);
    EXPECT_EQ(GetSlot(&Factory::CreateOrderBookObject), 2U);
    EXPECT_EQ(GetSlot(&Factory::CreateMergedOrderBookObject), 3U);
    EXPECT_EQ(GetSlot(static_cast<Fields (Factory::*)()>(&Factory::CreateCustomFieldsObject)), 4U);
    EXPECT_EQ(GetSlot(static_cast<Fields (Factory::*)(const CustomFields&)>(&Factory::CreateCustomFieldsObject)), 5U);
    EXPECT_EQ(GetSlot(static_cast<Fields (Factory::*)(const Factory::PriceMap&, const Factory::QuantityMap&,
                                                      const Factory::TimeMap&, const PriceFormat&)>(
                  &Factory::CreateCustomFieldsObject)),
              6U);
    EXPECT_EQ(GetSlot(static_cast<Fields (Factory::*)(const Factory::DoublePriceMap&, const Factory::QuantityMap&,
                                                      const Factory::TimeMap&, const PriceFormat&)>(
                  &Factory::CreateCustomFieldsObject)),
              7U);
    EXPECT_EQ(GetSlot(&Factory::CreateTradesObject), 8U);
}

TEST(ObserverLayout, HasTheNameAsTheFirstDataMember)
{
    ManagerBench bench;
    const auto observer = bench.MakeObserver("A");
    const auto flexible = bench.MakeFlexibleObserver("F");
    const ICompositePriceObserver* const direct = observer.get();
    const IFlexiblePriceObserver* const shared = flexible.get();
    constexpr auto kBehindTable = static_cast<std::ptrdiff_t>(sizeof(void*));
    EXPECT_EQ(GetDistance(direct, &direct->GetName()), kBehindTable);
    EXPECT_EQ(GetDistance(shared, &shared->GetName()), kBehindTable);
}
