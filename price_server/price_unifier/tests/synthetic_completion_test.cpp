#include "testing/manager_bench.h"

#include "price_unifier/source/synthetic_price_subscription.h"

#include <gtest/gtest.h>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

using Events = std::vector<std::string>;

class SyntheticCompletion : public ::testing::Test
{
protected:
    std::weak_ptr<SyntheticPriceSubscription> FileByHandle(unsigned long handle)
    {
        const auto subscription = std::make_shared<SyntheticPriceSubscription>(def);
        bench.Access().PendingSyntheticByHandle()[handle] = subscription;
        return subscription;
    }
    std::weak_ptr<SyntheticPriceSubscription> FileByInstrument()
    {
        const auto subscription = std::make_shared<SyntheticPriceSubscription>(def);
        bench.Access().PendingSyntheticByInstrument().emplace(CompositeInstrumentID(def), subscription);
        return subscription;
    }
    Events Complete(unsigned long handle)
    {
        bench.manager->OnSyntheticUnsubscribeComplete(handle, def);
        EXPECT_TRUE(bench.events.Take().empty()); // the action does it
        bench.Run();
        return bench.events.Take();
    }
    std::string Line(int level, unsigned long handle, const std::string& end) const
    {
        return LogLine(level, 0,
                       "CompositeSubscriptionMgr: UnifierSynthetic. OnSyntheticUnsubscribeComplete. cdef " +
                           def.ToStringShortCached() + " handle=" + std::to_string(handle) + end);
    }

    ManagerBench bench;
    const CompositeInstrumentDef def = MakeSyntheticDef("S");
};

} // namespace

TEST_F(SyntheticCompletion, DropsTheEntryOfTheHandleAndNotTheIdentitys)
{
    const auto byHandle = FileByHandle(7);
    const auto byInstrument = FileByInstrument();
    EXPECT_EQ(Complete(7), Events{Line(0, 7, " lifecycle complete")});
    EXPECT_TRUE(byHandle.expired());
    EXPECT_FALSE(byInstrument.expired());
}

TEST_F(SyntheticCompletion, DropsTheEntryOfTheIdentityWhenTheHandleIsNotFiled)
{
    const auto byHandle = FileByHandle(7);
    const auto byInstrument = FileByInstrument();
    EXPECT_EQ(Complete(0), Events{Line(0, 0, " lifecycle complete")});
    EXPECT_FALSE(byHandle.expired());
    EXPECT_TRUE(byInstrument.expired());
}

TEST_F(SyntheticCompletion, IsNotFoundTheSecondTime)
{
    FileByInstrument();
    Complete(3);
    EXPECT_EQ(Complete(3), Events{Line(20, 3, " not found")});
}

TEST_F(SyntheticCompletion, TellsNoObserverWhenNothingIsFiled)
{
    EXPECT_EQ(Complete(9), Events{Line(20, 9, " not found")});
}
