#include "composite_instrument/pending_subscription_id.h"
#include "test_legs.h"

#include <gtest/gtest.h>

#include <limits>
#include <unordered_map>

using namespace ps_ns;

// The expected values were worked out apart from this code, with a second writing of the mixing step.

namespace
{
const std::hash<PendingSubscriptionID> kHash;
}

TEST(TextHash, OfAnEmptyTextIsZero)
{
    EXPECT_EQ(HashText(""), 0U);
}

TEST(TextHash, TakesTheCharactersInOrder)
{
    EXPECT_EQ(HashText("A"), 0x7887670f6731e86c);
    EXPECT_EQ(HashText("BTCUSDT"), 0xbbbd3bc8c848ba08);
    EXPECT_NE(HashText("BTC"), HashText("CTB"));
}

TEST(TextHash, TakesBytesFrom0x80OnAsNegativeNumbers)
{
    EXPECT_EQ(HashText("\x80\xff\x7f\xc3\xa9"), 0x6468e89f657b7c28);
}

TEST(TextHash, TakesAZeroByteAsACharacter)
{
    EXPECT_EQ(HashText(std::string(1, '\0')), 0xe6546b64);
}

TEST(PendingSubscriptionID, HashesMarketSubmarketAndSymbol)
{
    EXPECT_EQ(kHash(PendingSubscriptionID(2, -1, "BTCUSDT")), 0x465e9f40b8b248cc);
}

TEST(PendingSubscriptionID, HashesAnEmptySymbolAsZero)
{
    EXPECT_EQ(kHash(PendingSubscriptionID(2, -1, "")), 0xce355f75b9321f6d);
    EXPECT_EQ(kHash(PendingSubscriptionID(0, 0, "")), 0xf7f700b40aaacbdc);
}

TEST(PendingSubscriptionID, HashesNegativeIdsBySignExtension)
{
    EXPECT_EQ(kHash(PendingSubscriptionID(std::numeric_limits<std::int16_t>::min(), -7, "\x80\xff")),
              0x71c0f65e78078b52);
}

TEST(PendingSubscriptionID, IsEqualInAllThreeFieldsOrNotAtAll)
{
    const PendingSubscriptionID id(2, -1, "BTCUSDT");
    EXPECT_TRUE(id == PendingSubscriptionID(2, -1, "BTCUSDT"));
    EXPECT_FALSE(id == PendingSubscriptionID(3, -1, "BTCUSDT"));
    EXPECT_FALSE(id == PendingSubscriptionID(2, 0, "BTCUSDT"));
    EXPECT_FALSE(id == PendingSubscriptionID(2, -1, "BTCUSD"));
}

TEST(PendingSubscriptionID, TakesItsFieldsFromADefinition)
{
    const CompositeInstrumentDef def = test::MakeDef();
    EXPECT_TRUE(PendingSubscriptionID(def) == PendingSubscriptionID(2, -1, "BTCUSDT"));
}

TEST(PendingSubscriptionID, IsTheKeyOfAMap)
{
    std::unordered_map<PendingSubscriptionID, int> map;
    map.emplace(PendingSubscriptionID(2, -1, "A"), 1);
    map.emplace(PendingSubscriptionID(2, -1, "B"), 2);
    EXPECT_FALSE(map.emplace(PendingSubscriptionID(2, -1, "A"), 3).second);
    EXPECT_EQ(map.at(PendingSubscriptionID(2, -1, "B")), 2);
}
