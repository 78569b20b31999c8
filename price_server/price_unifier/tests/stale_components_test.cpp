#include "price_delivery_fixture.h"

#include <prometheus/collectable.h>
#include <prometheus/text_serializer.h>

using namespace ps_ns;
using namespace ps_ns::testing;
using namespace std::chrono_literals;

TEST_F(PriceDeliveryTest, ReportsASilentComponentAsStaleAndFreshWhenItSpeaksAgain)
{
    ManagerBench::Options options;
    options.configuration = R"(<PriceServer><General InstrumentMonitoringInterval_sec="10"/></PriceServer>)";
    Start(options);
    const auto exported = []
    { return prometheus::TextSerializer().Serialize(zel::metrics::GetCollectable()->Collect()); };
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->Run();
    bench->time.Advance(5s);
    bench->zel->SendImage("IM_X", {});
    bench->Run();
    bench->events.Clear();
    bench->time.Advance(5s);
    const Events stale = Delivered();
    ASSERT_EQ(stale.size(), 2U);
    EXPECT_EQ(stale[0], LogLine(20, def.ToString() + " is stale: component 0 has been silent for 10 s"));
    EXPECT_TRUE(stale[1].starts_with("A.OnOrderBook X 10x2+0"));
    EXPECT_EQ(observer->books.back()->staleComponents.count(CompositeComponentType::Direct), 1U);
    EXPECT_TRUE(Live().GetState().isStale);
    EXPECT_NE(exported().find("subscriptions_stale 1"), std::string::npos);

    bench->zel->SendChange("X", {{kBid, "10", "3"}});
    EXPECT_EQ(Delivered(), (Events{LogLine(10, def.ToString() + " is fresh: a component speaks again, or is gone"),
                                   "A.OnOrderBook X 10x3+0 |  @executor"}));
    EXPECT_TRUE(observer->books.back()->staleComponents.empty());
    EXPECT_FALSE(Live().GetState().isStale);
    EXPECT_NE(exported().find("subscriptions_stale 0"), std::string::npos);
}

TEST_F(PriceDeliveryTest, ReportsSilenceWhenItsTimeIsUpWheneverTheComponentSpokeLast)
{
    ManagerBench::Options options;
    options.configuration = R"(<PriceServer><General InstrumentMonitoringInterval_sec="10"/></PriceServer>)";
    Start(options);
    bench->time.Advance(1s);
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->zel->SendImage("IM_X", {});
    bench->Run();
    bench->time.Advance(9999ms);
    bench->Run();
    EXPECT_FALSE(Live().GetState().isStale);
    bench->time.Advance(1ms);
    bench->Run();
    EXPECT_TRUE(Live().GetState().isStale);
}

TEST_F(PriceDeliveryTest, ShowsAtOnceThatAFeedIsLostAndThatItIsThereAgainWithTheImage)
{
    Start();
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->zel->SendImage("IM_X", {});
    bench->Run();
    bench->events.Clear();
    bench->zel->SendStale("X", true);
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 10x2+0 |  @executor"});
    EXPECT_EQ(observer->books.back()->staleComponents.count(CompositeComponentType::Direct), 1U);
    EXPECT_EQ(observer->books.back()->staleComponents.size(), 1U);
    EXPECT_TRUE(Live().GetState().isStale);

    bench->zel->SendStale("X", false);
    bench->zel->SendImage("IM_X", {{kAsk, "12", "1"}});
    bench->Run();
    EXPECT_EQ(observer->books.back()->staleComponents.size(), 1U) << "the book is what it was until the image comes";
    EXPECT_TRUE(Live().GetState().isStale);
    bench->events.Clear();
    bench->zel->SendImage("X", {{kBid, "11", "1"}});
    EXPECT_EQ(Delivered(), (Events{LogLine(10, def.ToString() + " is fresh: a component speaks again, or is gone"),
                                   "A.OnOrderBook X 11x1+0 | 12x0+1 @executor"}));
    EXPECT_TRUE(observer->books.back()->staleComponents.empty());
    EXPECT_FALSE(Live().GetState().isStale);
}

TEST_F(PriceDeliveryTest, StaysStaleWhateverAProviderSaysWithoutItsFeed)
{
    Start();
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->zel->SendStale("X", true);
    bench->zel->SendTrade("X", "10", "1");
    bench->zel->SendChange("X", {{kBid, "10", "3"}});
    bench->Run();
    EXPECT_EQ(observer->books.back()->staleComponents.count(CompositeComponentType::Direct), 1U);
    EXPECT_TRUE(Live().GetState().isStale);
}

TEST_F(PriceDeliveryTest, IsStaleWithAnImageThatSaysSoUntilOneComesThatDoesNot)
{
    Start();
    bench->zel->SendStale("X", true);
    bench->zel->SendStaleImage("X", {{kBid, "10", "2"}});
    bench->Run();
    ASSERT_FALSE(observer->books.empty());
    EXPECT_EQ(observer->books.back()->staleComponents.count(CompositeComponentType::Direct), 1U);
    EXPECT_TRUE(Live().GetState().isStale);
    bench->zel->SendStaleImage("X", {{kBid, "10", "3"}});
    bench->Run();
    EXPECT_TRUE(Live().GetState().isStale) << "a later one is no better";
    bench->zel->SendStale("X", false);
    bench->zel->SendImage("X", {{kBid, "11", "1"}});
    bench->Run();
    EXPECT_TRUE(observer->books.back()->staleComponents.empty());
    EXPECT_FALSE(Live().GetState().isStale);
}

TEST_F(PriceDeliveryTest, IsNotStaleBeforeItHasShownAnything)
{
    Start();
    bench->zel->SendStale("X", true);
    bench->zel->SendImage("IM_X", {{kAsk, "12", "1"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X  | 12x0+1 @executor"});
    EXPECT_EQ(observer->books.back()->missingComponents.count(CompositeComponentType::Direct), 1U);
    EXPECT_TRUE(observer->books.back()->staleComponents.empty());
    EXPECT_FALSE(Live().GetState().isStale);
    bench->zel->SendStale("X", false);
    bench->zel->SendImage("X", {{kBid, "11", "1"}});
    EXPECT_EQ(Delivered(), Events{"A.OnOrderBook X 11x1+0 | 12x0+1 @executor"}) << "and nothing is fresh again";
}

TEST_F(PriceDeliveryTest, SaysThatItIsStaleSinceTheFeedWasLostAndNotSinceATradeAfterIt)
{
    ManagerBench::Options options;
    options.configuration = R"(<PriceServer><General SkipUnchangedSnapshots="1"/></PriceServer>)";
    Start(options);
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->zel->SendImage("IM_X", {{kAsk, "12", "1"}});
    bench->zel->SendStale("X", true);
    bench->Run();
    const auto stale = observer->books.back()->staleComponents;
    bench->zel->SendTrade("X", "10", "1");
    bench->Run();
    const std::size_t before = observer->books.size();
    bench->zel->SendImage("IM_X", {{kAsk, "12", "1"}});
    bench->Run();
    EXPECT_EQ(observer->books.size(), before) << "nothing has changed";
    EXPECT_EQ(observer->books.back()->staleComponents, stale);
}

TEST_F(PriceDeliveryTest, ForgetsALostFeedWithTheImageOfAnotherProvider)
{
    Start();
    bench->zel->SendImage("X", {{kBid, "10", "2"}});
    bench->zel->SendStale("X", true);
    bench->Run();
    ManagerBench::List(*bench->mds, def);
    Live().SwitchProvider(CompositeComponentType::Direct, ProviderType::Mds);
    bench->Run();
    bench->mds->Answer("X");
    bench->zel->SendImage("IM_X", {{kAsk, "13", "1"}});
    bench->Run();
    EXPECT_EQ(observer->books.back()->staleComponents.count(CompositeComponentType::Direct), 1U)
        << "the old provider's levels are still there";
    bench->mds->SendImage("X", {{kBid, "12", "1"}});
    bench->Run();
    EXPECT_EQ(observer->books.back()->staleComponents.count(CompositeComponentType::Direct), 0U);
    EXPECT_FALSE(Live().GetState().isStale);
}
