#include "price_client/back_off.h"
#include "price_client/client_error.h"
#include "price_client/feed.h"

#include <gtest/gtest.h>

namespace ps_ns::price_client
{
namespace
{

using Lines = std::vector<std::string>;

/// Records all calls in one sequence.
class RecordingView final : public IFeedView
{
public:
    explicit RecordingView(Lines& calls)
        : m_calls(calls)
    {
    }
    void OnName(std::size_t i, const std::string& name) override { Add(i, "name " + name); }
    void OnDigits(std::size_t i, unsigned digits) override { Add(i, "digits " + std::to_string(digits)); }
    void OnObject(std::string_view type, std::string_view) override
    {
        m_calls.push_back("object " + std::string(type));
    }
    void OnBook(std::size_t i, const Book& book) override { Add(i, "book " + std::to_string(book.GetSequence())); }
    void OnTrades(std::size_t i, const boost::json::object&) override { Add(i, "trades"); }
    void OnLost() override { m_calls.emplace_back("lost"); }

private:
    void Add(std::size_t i, const std::string& what) { m_calls.push_back(std::to_string(i) + " " + what); }
    Lines& m_calls;
};

const std::string kHello = R"({"type":"hello","protocol":1,"authenticated":true})";
const std::string kAccepted =
    R"({"type":"result","request":"s0.1","code":100,"name":"Accepted","meaning":"m","instrument":"M:S","depth":2})";
const std::string kImage = R"({"type":"image","instrument":"M:S","depth":2,"epoch":1,"sequence":5,"bids":[],"asks":[],)"
                           R"("missing":[],"stale":[]})";
const std::string kGap =
    R"({"type":"update","instrument":"M:S","depth":2,"epoch":1,"previous":6,"sequence":7,"bids":[],"asks":[]})";

class FeedTest : public ::testing::Test
{
protected:
    std::string Hear(const std::string& message) { return feed.OnMessage(message, now); }
    void Begin()
    {
        Hear(kHello);
        Hear(kAccepted + "\n" + kImage);
        calls.clear();
    }
    ClientError Refuse(const std::string& message)
    {
        try
        {
            Hear(message);
        }
        catch (const ClientError& error)
        {
            return error;
        }
        ADD_FAILURE() << "nothing was thrown";
        return {ExitCode::Ok, ""};
    }
    static std::string MakeError(const std::string& code, const std::string& request = "\"s0.1\"")
    {
        return R"({"type":"error","request":)" + request + R"(,"code":")" + code +
               R"(","where":"w","message":"what happened"})";
    }

    Lines calls;
    RecordingView view{calls};
    Feed::Clock::time_point now{};
    Feed feed{{{"S"}, "2", 40, {"book", "trades"}, ""}, view, [this](const std::string& text) {
                  calls.push_back("talk " + text);
              }};
};

TEST_F(FeedTest, SubscribesOnceTheServerHasGreeted)
{
    EXPECT_FALSE(feed.WasGreeted());
    EXPECT_EQ(Hear(kHello), R"({"type":"subscribe","request":"s0.1","instrument":"S","interval_ms":40,"depth":2,)"
                            R"("kinds":["book","trades"]})");
    EXPECT_TRUE(feed.WasGreeted());
}

TEST_F(FeedTest, HandsOnNamesDecimalsBooksAndTradesInTheOrderOfTheirObjects)
{
    Hear(kHello);
    Hear(kAccepted + "\n" +
         R"({"type":"result","request":"s0.1","code":0,"name":"Success","meaning":"m","component":"direct",)"
         R"("format":{"denominator":10,"fraction_digits":1,"tick_size":1}})" +
         "\n" + kImage + "\n" + R"({"type":"trades","instrument":"M:S","trades":[]})");
    EXPECT_EQ(calls, (Lines{"0 name M:S", "0 digits 1", "object image", "0 book 5", "object trades", "0 trades"}));
    EXPECT_TRUE(feed.HasPrices());
}

TEST_F(FeedTest, AsksForOneImageAfterAGapAndTakesIt)
{
    Begin();
    EXPECT_EQ(Hear(kGap), R"({"type":"change","request":"image-2-s0.1","subscription":"s0.1","image":true})");
    EXPECT_EQ(Hear(kGap), "") << "it has been asked for";
    EXPECT_EQ(Hear(kImage), "");
    EXPECT_EQ(calls, (Lines{"object update", "object update", "object image", "0 book 5"}));
}

TEST_F(FeedTest, PassesOverBooksOfAnotherInstrumentOrDepth)
{
    Begin();
    std::string other = kImage;
    Hear(other.replace(other.find("M:S"), 3, "M:T"));
    std::string deeper = kImage;
    Hear(deeper.replace(deeper.find("\"depth\":2"), 9, "\"depth\":9"));
    EXPECT_EQ(calls, (Lines{"object image"}));
}

TEST_F(FeedTest, EndsWithTheNamesThatTheServerGivesWhenAnInstrumentIsUnknown)
{
    Hear(kHello);
    const ClientError error = Refuse(MakeError("unknown_instrument"));
    EXPECT_EQ(error.GetExitCode(), ExitCode::NotFound);
    EXPECT_FALSE(error.MayPass());
    EXPECT_STREQ(error.what(), "what happened");
}

TEST_F(FeedTest, GoesOnTryingWhenAnInstrumentThatWasKnownIsUnknownInANewSession)
{
    Begin();
    feed.OnLost();
    Hear(kHello);
    EXPECT_TRUE(Refuse(MakeError("unknown_instrument", "\"s0.2\"")).MayPass());
}

TEST_F(FeedTest, TellsRefusalsThatMayPassFromOthers)
{
    Hear(kHello);
    EXPECT_TRUE(Refuse(MakeError("not_ready")).MayPass());
    const ClientError error = Refuse(MakeError("forbidden"));
    EXPECT_FALSE(error.MayPass());
    EXPECT_EQ(error.GetExitCode(), ExitCode::Refused);
    EXPECT_STREQ(error.what(), "S: what happened (forbidden)");
    EXPECT_EQ(Refuse(MakeError("bad_json", "null")).GetExitCode(), ExitCode::Refused);
}

TEST_F(FeedTest, SubscribesAgainAfterAWhileWhatTheServerHasLost)
{
    Begin();
    Hear(R"({"type":"result","request":"s0.1","code":13,"name":"NoSubscription","meaning":"gone"})");
    EXPECT_EQ(calls, (Lines{"talk M:S: gone (13 NoSubscription); asking again soon"}));
    EXPECT_EQ(feed.OnTick(now + Feed::kResubscribeAfter - std::chrono::milliseconds(1)), "");
    EXPECT_EQ(feed.OnTick(now + Feed::kResubscribeAfter),
              R"({"type":"unsubscribe","request":"end-s0.1","subscription":"s0.1"})"
              "\n"
              R"({"type":"subscribe","request":"s0.2","instrument":"S","interval_ms":40,"depth":2,)"
              R"("kinds":["book","trades"]})");
    EXPECT_EQ(Hear(MakeError("unknown_subscription", "\"end-s0.1\"")), "") << "what it no longer had";
    EXPECT_EQ(feed.OnTick(now + 2 * Feed::kResubscribeAfter), "") << "once";
}

TEST_F(FeedTest, SaysWhichComponentFailedAndKeepsTheRest)
{
    Begin();
    Hear(R"({"type":"result","request":"s0.1","code":17,"name":"DirectSubscriptionFailed","meaning":"no",)"
         R"("component":"implied"})");
    EXPECT_EQ(calls, (Lines{"talk M:S, implied: no (17 DirectSubscriptionFailed)"}));
    EXPECT_EQ(feed.OnTick(now + Feed::kResubscribeAfter), "");
}

TEST_F(FeedTest, BeginsANewSessionWithNewRequestsAndNeedsItsImage)
{
    Begin();
    feed.OnLost();
    EXPECT_EQ(calls, Lines{"lost"});
    EXPECT_FALSE(feed.HasPrices());
    EXPECT_NE(Hear(kHello).find("\"request\":\"s0.2\""), std::string::npos);
    std::string accepted = kAccepted;
    Hear(accepted.replace(accepted.find("s0.1"), 4, "s0.2"));
    EXPECT_NE(Hear(kGap).find("\"image\":true"), std::string::npos);
}

TEST_F(FeedTest, FollowsARename)
{
    Begin();
    Hear(R"({"type":"renamed","instrument":"M:S","symbol":"T","epoch":2})");
    EXPECT_EQ(calls, (Lines{"object renamed", "talk M:S is called M:T now", "0 name M:T"}));
    std::string image = kImage;
    Hear(image.replace(image.find("M:S"), 3, "M:T"));
    EXPECT_EQ(calls.back(), "0 book 5");
    feed.OnLost();
    EXPECT_NE(Hear(kHello).find("\"instrument\":\"M:T\""), std::string::npos);
}

TEST_F(FeedTest, SaysHowManyTradesWereLost)
{
    Begin();
    Hear(R"({"type":"gap","instrument":"M:S","kind":"trades","lost":17})");
    EXPECT_EQ(calls, (Lines{"object gap", "talk M:S: 17 trades lost"}));
}

TEST_F(FeedTest, RefusesAnotherProtocolAndWhatIsNoJson)
{
    EXPECT_EQ(Refuse(R"({"type":"hello","protocol":2,"authenticated":true})").GetExitCode(), ExitCode::Failure);
    EXPECT_EQ(Refuse("<html>").GetExitCode(), ExitCode::Failure);
    EXPECT_EQ(Refuse("[1]").GetExitCode(), ExitCode::Failure);
}

TEST_F(FeedTest, EndsWhenTheServerWantsATokenAndThereIsNone)
{
    EXPECT_EQ(Refuse(R"({"type":"hello","protocol":1,"authenticated":false})").GetExitCode(), ExitCode::Refused);
}

TEST(FeedWithAToken, ShowsItAgainWhenTheHandshakeDidNotCarryIt)
{
    Lines calls;
    RecordingView view(calls);
    Feed feed({{"S"}, "", 0, {}, "secret"}, view, [](const std::string&) {});
    EXPECT_EQ(feed.OnMessage(R"({"type":"hello","protocol":1,"authenticated":false})", {}),
              R"({"type":"authenticate","token":"secret"})"
              "\n"
              R"({"type":"subscribe","request":"s0.1","instrument":"S","interval_ms":0})");
}

TEST(BackOff, DoublesUpToTheLongestAndBeginsAnew)
{
    using std::chrono::milliseconds;
    BackOff backOff([] { return 0.5; });
    for (const int due : {250, 500, 1000, 2000, 4000, 8000, 10000, 10000})
    {
        EXPECT_EQ(backOff.Next(), milliseconds(due));
    }
    backOff.Reset();
    EXPECT_EQ(backOff.Next(), milliseconds(250));
}

TEST(BackOff, IsALittleDifferentEachTime)
{
    EXPECT_EQ(BackOff([] { return 0.0; }).Next(), std::chrono::milliseconds(188));
    EXPECT_EQ(BackOff([] { return 1.0; }).Next(), std::chrono::milliseconds(313));
}

} // namespace
} // namespace ps_ns::price_client
