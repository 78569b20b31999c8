#include "price_client/book.h"

#include "composite_price/fixed_point.h"
#include "price_client/client_error.h"

#include <gtest/gtest.h>

namespace ps_ns::price_client
{
namespace
{

using Outcome = Book::Outcome;

boost::json::object Parse(const std::string& text)
{
    return boost::json::parse(text).as_object();
}

const std::string kImage = R"({"type":"image","instrument":"M:S","depth":2,"epoch":3,"sequence":10,
    "exchange_time_ns":null,"receive_time_ns":"1790000000000000001","bids":[["9","1","0",2],["8.5","0","4",null]],
    "asks":[["10","3","0",1]],"missing":["implied"],"stale":[]})";

boost::json::object MakeUpdate(int epoch, int previous, int sequence, const std::string& bids,
                               const std::string& asks = "[]")
{
    return Parse(R"({"type":"update","instrument":"M:S","depth":2,"epoch":)" + std::to_string(epoch) +
                 R"(,"previous":)" + std::to_string(previous) + R"(,"sequence":)" + std::to_string(sequence) +
                 R"(,"exchange_time_ns":null,"receive_time_ns":"5","bids":)" + bids + R"(,"asks":)" + asks + "}");
}

class BookTest : public ::testing::Test
{
protected:
    BookTest() { EXPECT_EQ(book.Apply(Parse(kImage)), Outcome::Applied); }
    Book book;
};

TEST_F(BookTest, IsTheImageThatCame)
{
    EXPECT_EQ(book.FormatLine("M:S"),
              R"({"type":"book","instrument":"M:S","depth":2,"epoch":3,"sequence":10,"exchange_time_ns":null,)"
              R"("receive_time_ns":"1790000000000000001","bids":[["9","1","0",2],["8.5","0","4",null]],)"
              R"("asks":[["10","3","0",1]],"missing":["implied"],"stale":[]})");
}

TEST_F(BookTest, ChangesAddsAndRemovesLevelsAsAnUpdateSays)
{
    const auto update = MakeUpdate(3, 10, 14, R"([["9.25","0","7",1],["8.5","0","0",null]])", R"([["10","2","1",5]])");
    EXPECT_EQ(book.Apply(update), Outcome::Applied);
    EXPECT_EQ(book.GetSequence(), 14U);
    EXPECT_EQ(book.FormatLine("M:S"),
              R"({"type":"book","instrument":"M:S","depth":2,"epoch":3,"sequence":14,"exchange_time_ns":null,)"
              R"("receive_time_ns":"5","bids":[["9.25","0","7",1],["9","1","0",2]],)"
              R"("asks":[["10","2","1",5]],"missing":["implied"],"stale":[]})");
}

TEST_F(BookTest, TakesComponentsThatAreMissingOrStaleOnlyWhenAnUpdateHasThem)
{
    auto update = MakeUpdate(3, 10, 11, "[]");
    update["missing"] = boost::json::array{};
    update["stale"] = boost::json::array{"direct"};
    EXPECT_EQ(book.Apply(update), Outcome::Applied);
    EXPECT_EQ(book.Apply(MakeUpdate(3, 11, 12, "[]")), Outcome::Applied);
    const auto merged = book.MakeMergedBook();
    EXPECT_TRUE(merged->missingComponents.empty());
    EXPECT_EQ(merged->staleComponents.count(CompositeComponentType::Direct), 1U);
}

TEST_F(BookTest, NeedsAnImageOnceAfterAGapAndIgnoresUpdatesUntilItComes)
{
    EXPECT_EQ(book.Apply(MakeUpdate(3, 11, 12, "[]")), Outcome::NeedsImage);
    EXPECT_FALSE(book.IsValid());
    EXPECT_EQ(book.MakeMergedBook(), nullptr);
    EXPECT_EQ(book.Apply(MakeUpdate(3, 12, 13, "[]")), Outcome::Ignored);
    EXPECT_EQ(book.Apply(MakeUpdate(3, 10, 14, "[]")), Outcome::Ignored) << "even one that would have fitted";
    EXPECT_EQ(book.Apply(Parse(kImage)), Outcome::Applied);
    EXPECT_EQ(book.Apply(MakeUpdate(3, 10, 11, "[]")), Outcome::Applied);
}

TEST_F(BookTest, NeedsAnImageWhenAnUpdateIsOfAnotherEpoch)
{
    EXPECT_EQ(book.Apply(MakeUpdate(4, 10, 11, "[]")), Outcome::NeedsImage);
}

TEST_F(BookTest, NeedsAnImageWhenItWouldHaveMoreLevelsThanItsDepth)
{
    EXPECT_EQ(book.Apply(MakeUpdate(3, 10, 11, R"([["9.5","1","0",1]])")), Outcome::NeedsImage);
}

TEST_F(BookTest, NeedsAnImageWhenALevelGoesThatIsNotThere)
{
    EXPECT_EQ(book.Apply(MakeUpdate(3, 10, 11, R"([["7","0","0",null]])")), Outcome::NeedsImage);
}

TEST_F(BookTest, BeginsAnEpochWithAnImageOfASmallerSequence)
{
    auto image = Parse(kImage);
    image["epoch"] = 4;
    image["sequence"] = 1;
    EXPECT_EQ(book.Apply(image), Outcome::Applied);
    EXPECT_EQ(book.GetEpoch(), 4U);
    EXPECT_EQ(book.GetSequence(), 1U);
}

TEST_F(BookTest, NeedsAnImageAfterItHasForgotten)
{
    book.Forget();
    EXPECT_EQ(book.Apply(MakeUpdate(3, 10, 11, "[]")), Outcome::NeedsImage);
}

TEST_F(BookTest, IsMergedForTheLadderBestLevelFirst)
{
    const auto merged = book.MakeMergedBook();
    ASSERT_EQ(merged->bids.count, 2U);
    EXPECT_EQ(merged->bids.GetLevels()[0].price, ParsePrice("9"));
    EXPECT_EQ(merged->bids.GetLevels()[1].impliedQuantity, ParseQuantity("4"));
    EXPECT_EQ(merged->asks.GetLevels()[0].orderCount, 1U);
    EXPECT_EQ(merged->missingComponents.count(CompositeComponentType::Implied), 1U);
}

TEST_F(BookTest, RefusesWhatIsNotAsTheProtocolHasItAndStaysAsItWas)
{
    const std::string before = book.FormatLine("M:S");
    for (const char* const bids : {R"([["x","1","0",1]])", R"([["9","1","0"]])", R"([[9,"1","0",1]])", R"("none")",
                                   R"([["9","1","0",-1]])", R"([["9","1e3","0",1]])"})
    {
        auto image = Parse(kImage);
        image["bids"] = boost::json::parse(bids);
        EXPECT_THROW(book.Apply(image), ClientError) << bids;
    }
    EXPECT_EQ(book.FormatLine("M:S"), before);
}

TEST(ReadNumber, TakesNumbersAndTextsOfMoreThan53Bits)
{
    const auto object = Parse(R"({"a":7,"b":"18446744073709551615","c":"7x","d":null,"e":-1})");
    EXPECT_EQ(ReadNumber(object, "a"), 7U);
    EXPECT_EQ(ReadNumber(object, "b"), 18446744073709551615U);
    for (const char* const name : {"c", "d", "e", "f"})
    {
        EXPECT_THROW(ReadNumber(object, name), ClientError) << name;
    }
}

} // namespace
} // namespace ps_ns::price_client
