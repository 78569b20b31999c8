#include "composite_price/default_composite_price_factory.h"

#include "composite_price/custom_fields.h"
#include "composite_price/last_trade_volume.h"
#include "composite_price/merged_order_book.h"
#include "composite_price/order_book.h"
#include "composite_price/trade.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>

using namespace ps_ns;
using ps_messages_ns::StatPriceID;
using ps_messages_ns::StatQtyID;
using ps_messages_ns::StatTimeID;
using sbe_common_ns::kNullPrice;
using sbe_common_ns::kNullRawPrice;
using sbe_common_ns::Price;

// The nine operations are all that the interface's table holds.
static_assert(std::is_polymorphic_v<ICompositePriceFactory>);
static_assert(!std::has_virtual_destructor_v<ICompositePriceFactory>);
static_assert(std::is_base_of_v<ICompositePriceFactory, DefaultCompositePriceFactory>);
static_assert(sizeof(DefaultCompositePriceFactory) == sizeof(void*), "the factory has no state");

static_assert(static_cast<std::uint64_t>(kNullRawPrice) == 0xfffffffff0000000);

namespace
{

class DefaultCompositePriceFactoryTest : public testing::Test
{
protected:
    ICompositePriceFactory& GetFactory() { return m_factory; }

    double ConvertPrice(std::int64_t raw, std::uint32_t denominator)
    {
        PriceFormat format;
        format.denominator = denominator;
        const ICompositePriceFactory::PriceMap prices{{StatPriceID::Open, Price{raw}}};
        return GetFactory().CreateCustomFieldsObject(prices, {}, {}, format)->prices.at(StatPriceID::Open);
    }

private:
    DefaultCompositePriceFactory m_factory;
};

template <class Level>
void ExpectEmptySide(const BookSide<Level>& side, std::uint32_t depth, std::uint32_t size)
{
    EXPECT_EQ(side.count, 0U);
    EXPECT_EQ(side.depth, depth);
    EXPECT_EQ(side.size, size);
    EXPECT_TRUE(side.GetLevels().empty());
    ASSERT_EQ(side.GetStorage().size(), depth);
    EXPECT_TRUE(std::all_of(side.GetStorage().begin(), side.GetStorage().end(),
                            [](const Level& level) { return level == Level{}; }));
}

template <class Book>
void ExpectEmptySides(const Book& book, std::uint32_t depth, std::uint32_t size)
{
    ExpectEmptySide(book.bids, depth, size);
    ExpectEmptySide(book.asks, depth, size);
}

} // namespace

using Factory = DefaultCompositePriceFactoryTest;

TEST_F(Factory, SizesBothSidesOfAnOrderBookByTheFirstArgument)
{
    ExpectEmptySides(*GetFactory().CreateOrderBookObject(5, 10), 5, 10);
    ExpectEmptySides(*GetFactory().CreateOrderBookObject(10, 5), 10, 5);
}

TEST_F(Factory, TakesEachZeroOfAnOrderBookAsOne)
{
    ExpectEmptySides(*GetFactory().CreateOrderBookObject(0, 0), 1, 1);
    ExpectEmptySides(*GetFactory().CreateOrderBookObject(0, 7), 1, 7);
    ExpectEmptySides(*GetFactory().CreateOrderBookObject(7, 0), 7, 1);
}

TEST_F(Factory, MakesAnOrderBookOfZeros)
{
    const auto book = GetFactory().CreateOrderBookObject(5, 10);
    EXPECT_EQ(book->epoch, 0U);
    EXPECT_EQ(book->sequence, 0U);
    EXPECT_EQ(book->exchangeTime_ns, 0U);
    EXPECT_EQ(book->receiveTime_ns, 0U);
    EXPECT_EQ(book->firstVenueSequence, 0U);
    EXPECT_EQ(book->lastVenueSequence, 0U);
    EXPECT_EQ(book->updateCount, 0U);
    EXPECT_EQ(book->status, 0U);
    EXPECT_EQ(book->reserved, 0U);
}

TEST_F(Factory, MakesAMergedOrderBookByTheSameRules)
{
    ExpectEmptySides(*GetFactory().CreateMergedOrderBookObject(5, 10), 5, 10);
    ExpectEmptySides(*GetFactory().CreateMergedOrderBookObject(0, 0), 1, 1);
    ExpectEmptySides(*GetFactory().CreateMergedOrderBookObject(0, 7), 1, 7);
    ExpectEmptySides(*GetFactory().CreateMergedOrderBookObject(7, 0), 7, 1);
}

TEST_F(Factory, MakesAMergedOrderBookWithoutATradeAndWithEmptyContainers)
{
    const auto book = GetFactory().CreateMergedOrderBookObject(5, 10);
    EXPECT_EQ(book->lastTradePrice, -268435456.0);
    EXPECT_TRUE(book->missingComponents.empty());
    EXPECT_EQ(book->missingComponents.max_load_factor(), 1.0F);
    EXPECT_TRUE(book->staleComponents.empty());
    EXPECT_EQ(book->staleComponents.max_load_factor(), 1.0F);
    EXPECT_EQ(book->epoch, 0U);
    EXPECT_EQ(book->sequence, 0U);
    EXPECT_EQ(book->exchangeTime_ns, 0U);
    EXPECT_EQ(book->receiveTime_ns, 0U);
    EXPECT_EQ(book->venueSequence, 0U);
    EXPECT_EQ(book->snapshotReason, 0U);
}

TEST_F(Factory, MakesAFreshObjectForEachCall)
{
    EXPECT_NE(GetFactory().CreateOrderBookObject(1, 1), GetFactory().CreateOrderBookObject(1, 1));
    EXPECT_NE(GetFactory().CreateTradesObject(), GetFactory().CreateTradesObject());
    EXPECT_EQ(GetFactory().CreateOrderBookObject(1, 1).use_count(), 1);
}

TEST_F(Factory, MakesALastTradeVolumeOfItsArgumentsInOrder)
{
    const auto last = GetFactory().CreateLastTradeVolumeObject(1.5, 2.5, -0.25, 7, 9);
    EXPECT_EQ(last->price, 1.5);
    EXPECT_EQ(last->quantity, 2.5);
    EXPECT_EQ(last->netChange, -0.25);
    EXPECT_EQ(last->totalVolume, 7.0);
    EXPECT_EQ(last->time_ns, 9U);
    EXPECT_EQ(last->venueId, 0U);
    EXPECT_EQ(last->sequence, 0U);
    EXPECT_EQ(last->flags, 0U);
    EXPECT_EQ(last->aggressor, 255U);
    EXPECT_EQ(last->condition, 255U);
    EXPECT_EQ(last->phase, 255U);
}

TEST_F(Factory, TakesAVolumeAsAnUnsignedNumber)
{
    constexpr auto kMax = std::numeric_limits<unsigned long>::max();
    EXPECT_EQ(GetFactory().CreateLastTradeVolumeObject(0, 0, 0, kMax, 0)->totalVolume, 18446744073709551616.0);
    EXPECT_EQ(GetFactory().CreateLastTradeVolumeObject(0, 0, 0, 1UL << 63, 0)->totalVolume, 9223372036854775808.0);
}

TEST_F(Factory, MakesALastTradeVolumeFromATrade)
{
    Trade trade;
    trade.price = 123'450'000'000; // 12.345
    trade.quantity = 250'000'000;  // 2.5
    trade.exchangeTime_ns = 9;
    trade.receiveTime_ns = 10;
    trade.venueId = 77;
    trade.aggressor = Trade::Aggressor::Seller;
    const auto last = GetFactory().CreateLastTradeVolumeObject(trade, 1000);
    EXPECT_EQ(last->price, 12.345);
    EXPECT_EQ(last->quantity, 2.5);
    EXPECT_EQ(last->netChange, 0.0);
    EXPECT_EQ(last->totalVolume, 1000.0);
    EXPECT_EQ(last->time_ns, 9U);
    EXPECT_EQ(last->venueId, 77U);
    EXPECT_EQ(last->sequence, 0U);
    EXPECT_EQ(last->flags, 0U);
    EXPECT_EQ(last->aggressor, 2U);
    EXPECT_EQ(last->condition, 255U);
    EXPECT_EQ(last->phase, 255U);
}

TEST_F(Factory, MakesCustomFieldsWithEmptyMapsAndTheDefaultFormat)
{
    const auto fields = GetFactory().CreateCustomFieldsObject();
    EXPECT_EQ(fields->receiveTime_ns, 0U);
    EXPECT_EQ(fields->sequence, 0U);
    EXPECT_TRUE(fields->prices.empty());
    EXPECT_TRUE(fields->quantities.empty());
    EXPECT_TRUE(fields->times.empty());
    EXPECT_TRUE(fields->receiveTimes.empty());
    EXPECT_EQ(fields->priceFormat, (PriceFormat{0, false, 0, 'D', 1}));
}

TEST_F(Factory, CopiesCustomFieldsWhole)
{
    CustomFields fields;
    fields.receiveTime_ns = 1;
    fields.sequence = 2;
    fields.prices[StatPriceID::High] = 3.5;
    fields.quantities[StatQtyID::Volume] = 4;
    fields.times[StatTimeID::SessionStart] = 5;
    fields.receiveTimes[StatTimeID::LastTrade] = 6;
    fields.priceFormat = {7, true, 8, 'F', 9};
    const auto copy = GetFactory().CreateCustomFieldsObject(fields);
    EXPECT_EQ(*copy, fields);
    copy->prices.clear();
    EXPECT_EQ(fields.prices.size(), 1U);
}

TEST_F(Factory, DividesRawPricesByTheDenominator)
{
    EXPECT_EQ(ConvertPrice(12345, 100), 123.45);
    EXPECT_EQ(ConvertPrice(-12345, 100), -123.45);
    EXPECT_EQ(ConvertPrice(0, 100), 0.0);
    EXPECT_EQ(ConvertPrice(7, 1), 7.0);
    EXPECT_EQ(ConvertPrice(4294967295, 4294967295), 1.0);
}

TEST_F(Factory, KeepsTheNullPriceWhateverTheDenominator)
{
    for (const std::uint32_t denominator : {0U, 1U, 100U, 4294967295U})
    {
        EXPECT_EQ(ConvertPrice(kNullRawPrice, denominator), -268435456.0) << denominator;
    }
    EXPECT_EQ(ConvertPrice(kNullRawPrice - 100, 100), -2684355.56);
    EXPECT_EQ(ConvertPrice(kNullRawPrice + 100, 100), -2684353.56);
}

TEST_F(Factory, LetsADenominatorOfZeroGiveInfiniteAndNaNPrices)
{
    EXPECT_EQ(ConvertPrice(1, 0), std::numeric_limits<double>::infinity());
    EXPECT_EQ(ConvertPrice(-1, 0), -std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(ConvertPrice(0, 0)));
}

TEST_F(Factory, CopiesTheOtherMapsAndTheFormatBesideRawPrices)
{
    const PriceFormat format{100, true, 2, 'F', 5};
    const ICompositePriceFactory::PriceMap prices{
        {StatPriceID::Last, Price{kNullRawPrice}}, {StatPriceID::Open, Price{50}}, {StatPriceID::Low, Price{-50}}};
    const ICompositePriceFactory::QuantityMap quantities{{StatQtyID::Volume, 1.5}, {StatQtyID::OpenInterest, -2}};
    const ICompositePriceFactory::TimeMap times{{StatTimeID::SessionStart, 11}};
    const auto fields = GetFactory().CreateCustomFieldsObject(prices, quantities, times, format);
    EXPECT_EQ(fields->prices,
              (ICompositePriceFactory::DoublePriceMap{
                  {StatPriceID::Open, 0.5}, {StatPriceID::Low, -0.5}, {StatPriceID::Last, kNullPrice}}));
    EXPECT_EQ(fields->quantities, quantities);
    EXPECT_EQ(fields->times, times);
    EXPECT_TRUE(fields->receiveTimes.empty());
    EXPECT_EQ(fields->priceFormat, format);
    EXPECT_EQ(fields->receiveTime_ns, 0U);
    EXPECT_EQ(fields->sequence, 0U);
}

TEST_F(Factory, CopiesDoublePricesUnchanged)
{
    const PriceFormat format{100, false, 2, 'D', 1};
    const ICompositePriceFactory::DoublePriceMap prices{{StatPriceID::Open, 12345.0}, {StatPriceID::Last, kNullPrice}};
    const ICompositePriceFactory::TimeMap times{{StatTimeID::LastTrade, 12}};
    const auto fields = GetFactory().CreateCustomFieldsObject(prices, {{StatQtyID::Volume, 3}}, times, format);
    EXPECT_EQ(fields->prices, prices);
    EXPECT_EQ(fields->quantities, (ICompositePriceFactory::QuantityMap{{StatQtyID::Volume, 3}}));
    EXPECT_EQ(fields->times, times);
    EXPECT_TRUE(fields->receiveTimes.empty());
    EXPECT_EQ(fields->priceFormat, format);
}

TEST_F(Factory, MakesNoTrades)
{
    EXPECT_TRUE(GetFactory().CreateTradesObject()->empty());
}
