#include "composite_instrument/composite_instrument_def.h"
#include "test_legs.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>
#include <vector>

using namespace ps_ns;
using namespace ps_ns::test;

TEST(CompositeInstrumentDef, IsSyntheticWhenItHasLegs)
{
    EXPECT_FALSE(MakeDef().IsSyntheticComposite());
    EXPECT_TRUE(MakeDef({MakeEmptyLeg()}).IsSyntheticComposite());
}

TEST(CompositeInstrumentDef, PrintsOnOneLine)
{
    EXPECT_EQ(MakeDef().ToString(), "BTCUSDT market=2 submarket=-1 id=42 exchange=USDM");
    EXPECT_EQ(MakeDef({MakeEmptyLeg(), nullptr}).ToString(),
              "BTCUSDT market=2 submarket=-1 id=42 exchange=USDM legs=2");
    EXPECT_EQ(CompositeInstrumentDef().ToString(), " market=0 submarket=-1 id=0 exchange=");
}

TEST(CompositeInstrumentDef, PrintsAShortForm)
{
    EXPECT_EQ(MakeDef().ToStringShortCached(), "BTCUSDT@2");
    EXPECT_EQ(MakeDef({MakeEmptyLeg()}).ToStringShortCached(), "BTCUSDT@2");
}

TEST(CompositeInstrumentDef, PrintsTheShortFormForSeveralThreadsAtOnce)
{
    constexpr int kThreads = 4;
    const CompositeInstrumentDef def = MakeDef();
    std::latch start(kThreads);
    std::vector<std::string> last(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread)
    {
        threads.emplace_back(
            [&, thread]
            {
                start.arrive_and_wait();
                for (int round = 0; round < 1000; ++round)
                {
                    last[static_cast<std::size_t>(thread)] = def.ToStringShortCached();
                }
            });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(last, std::vector<std::string>(kThreads, "BTCUSDT@2"));
}

TEST(CompositeInstrumentDef, PrintsTheShortFormOfWhatItHoldsNow)
{
    CompositeInstrumentDef def = MakeDef();
    EXPECT_EQ(def.ToStringShortCached(), "BTCUSDT@2");
    def.instrument.symbol = "XBTUSDT";
    EXPECT_EQ(def.ToStringShortCached(), "XBTUSDT@2");
}

TEST(CompositeInstrumentDef, CopiesItsTextsAndSharesItsLegs)
{
    const Leg leg = MakeInstrumentLeg(7, 2, -1);
    CompositeInstrumentDef def = MakeDef({leg});
    def.properties[1] = "a";
    CompositeInstrumentDef copy = def;
    copy.instrument.symbol = "ETHUSDT";
    copy.properties[1] = "b";
    EXPECT_EQ(def.GetSymbol(), "BTCUSDT");
    EXPECT_EQ(def.properties.at(1), "a");
    ASSERT_EQ(copy.legs.size(), 1U);
    EXPECT_EQ(copy.legs[0], leg);
    EXPECT_EQ(leg.use_count(), 3);
}
