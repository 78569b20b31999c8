#include "composite_instrument/subscription_result.h"

#include "composite_instrument/composite_component_type.h"
#include "composite_instrument/event_info.h"
#include "composite_instrument/price_format.h"
#include "composite_instrument/provider_type.h"
#include "composite_instrument/subscription_ex.h"

#include <gtest/gtest.h>

#include <set>
#include <string_view>
#include <utility>
#include <vector>

using namespace ps_ns;
using ps_messages_ns::SubscriptionResult;

namespace
{

const std::vector<std::pair<int, std::string_view>> kNamesByNumber{
    {0, "Success"},
    {12, "DuplicateSubscription"},
    {13, "NoSubscription"},
    {17, "DirectSubscriptionFailed"},
    {23, "DuplicateSubscriptionId"},
    {24, "UnknownSubscriptionId"},
    {25, "SubscribeComponentsFailed"},
    {63, "Refused"},
    {100, "Accepted"},
    {255, "None"},
};

} // namespace

TEST(SubscriptionResult, HasANameForEachNumber)
{
    for (const auto& [number, name] : kNamesByNumber)
    {
        EXPECT_EQ(SubscriptionResult::GetName(static_cast<SubscriptionResult::Value>(number)), name);
    }
}

TEST(SubscriptionResult, HasAMeaningOfItsOwnForEachNumber)
{
    std::set<std::string_view> meanings;
    for (const auto& [number, name] : kNamesByNumber)
    {
        const auto meaning = SubscriptionResult::GetMeaning(static_cast<SubscriptionResult::Value>(number));
        EXPECT_TRUE(meaning.ends_with('.')) << name;
        EXPECT_TRUE(meanings.insert(meaning).second) << name;
    }
}

TEST(SubscriptionResult, SaysSoWhenItDoesNotKnowANumber)
{
    EXPECT_EQ(SubscriptionResult::GetName(static_cast<SubscriptionResult::Value>(99)), "Unknown");
    EXPECT_EQ(SubscriptionResult::GetMeaning(static_cast<SubscriptionResult::Value>(99)),
              "Not a result that this server gives.");
}

TEST(Values, KeepTheirFixedNumbers)
{
    EXPECT_EQ(static_cast<int>(ScopeUnchanged), 110);
    EXPECT_EQ(static_cast<int>(ProviderType::Zel), 0);
    EXPECT_EQ(static_cast<int>(ProviderType::Mds), 1);
    EXPECT_EQ(static_cast<int>(ProviderFunction::Prices), 0);
    EXPECT_EQ(static_cast<int>(CompositeComponentType::Direct), 0);
    EXPECT_EQ(static_cast<int>(CompositeComponentType::Implied), 1);
    EXPECT_EQ(static_cast<int>(CompositeComponentType::Aggregated), 2);
}

TEST(Values, OfTheManagersConstantRecordsAreTheDefaults)
{
    EXPECT_EQ(PriceFormat(), (PriceFormat{0, false, 0, 'D', 1}));
    EXPECT_EQ(EventInfo(), (EventInfo{0, 0, 0}));
}

TEST(SubscriptionEx, NeverHasAnEmptyText)
{
    EXPECT_STREQ(SubscriptionEx("no such symbol").what(), "no such symbol");
    EXPECT_STREQ(SubscriptionEx("").what(), "subscription failed for an unnamed reason");
}
