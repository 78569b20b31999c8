#include "client_session_fixture.h"

namespace ps_ns::gateway
{
namespace
{

// --- Slow clients ---

TEST_F(ClientSessionTest, GetsOnlyTheLatestBookWhenItIsSlow)
{
    Open("a", "BTC");
    Stall();
    SendBooks("BTC", 10);
    EXPECT_EQ(TakeWithoutPongs(), "conflated 9, update 11");
    EXPECT_EQ(session->GetView().conflated, 9U);
    SendBooks("BTC", 1);
    EXPECT_EQ(Take(), "update 12");
}

TEST_F(ClientSessionTest, IsNotToldOfBooksLeftOutWhenNoneWas)
{
    Open("a", "BTC");
    Stall();
    SendBooks("BTC", 1);
    EXPECT_EQ(TakeWithoutPongs(), "update 2");
}

TEST_F(ClientSessionTest, CountsWhatIsLeftOutOfBooksThatCameTogether)
{
    Open("a", "BTC");
    Stall();
    RunIo();
    for (int i = 0; i < 10; ++i)
    {
        const std::string quantity = std::to_string(++quantities);
        backend.bench.mds->SendChange("BTC", {{BookSideType::Bid, "100", quantity.c_str()}});
        Run();
    }
    EXPECT_EQ(TakeWithoutPongs(), "conflated 9, update 11");
}

TEST_F(ClientSessionTest, ServesWhoHasWaitedLongestFirst)
{
    Open("a", "BTC");
    Open("b", "ETH");
    Open("c", "XRP");
    for (const std::vector<const char*>& order : {std::vector<const char*>{"ETH", "XRP", "BTC"}, {"XRP", "BTC", "ETH"}})
    {
        Stall();
        for (const char* symbol : order)
        {
            SendBooks(symbol, 1);
        }
        SendBooks(order[0], 1); // that it waits again does not put it behind
        std::string seen;
        for (const json::object& object : Drain(*session))
        {
            seen += object.at("type") == "update" ? std::string(object.at("instrument").as_string()) + " " : "";
        }
        EXPECT_EQ(seen, "ONE:" + std::string(order[0]) + " ONE:" + order[1] + " ONE:" + order[2] + " ");
    }
}

TEST_F(ClientSessionTest, GetsAnImageWhenItWakesFromALongSleep)
{
    Open("a", "BTC");
    Stall();
    SendBooks("BTC", 3);
    session->ForgetSent();
    SendBooks("BTC", 1);
    EXPECT_EQ(TakeWithoutPongs(), "conflated 3, image 5");
}

TEST_F(ClientSessionTest, AnImageThatItAsksForWhileItIsSlowIsNoBookLeftOut)
{
    Open("a", "BTC");
    Stall();
    SendBooks("BTC", 1);
    session->OnMessage(R"({"type":"change","request":"c","subscription":"a","image":true})");
    EXPECT_EQ(TakeWithoutPongs(), "result 100, image 2");
}

TEST_F(ClientSessionTest, IsToldOfTradesThatAreLost)
{
    Open("a", "BTC", R"(,"kinds":["book","trades"])");
    std::size_t sent = 0;
    while (session->GetView().lostTrades == 0)
    {
        ASSERT_LT(++sent, 1000U);
        backend.bench.mds->SendTrade("BTC", "100", "1");
        Run();
        RunIo();
    }
    for (int i = 0; i < 4; ++i)
    {
        backend.bench.mds->SendTrade("BTC", "100", "1");
        Run();
        RunIo();
    }
    EXPECT_FALSE(session->GetEnd()) << "trades alone do not end a session";
    Objects objects = Drain(*session);
    EXPECT_EQ(objects.size(), sent - 1 + 1);
    EXPECT_EQ(Summarize({objects.back()}), "gap 5");
    backend.bench.mds->SendTrade("BTC", "100", "1");
    Run();
    EXPECT_EQ(Take(), "trades");
}

TEST_F(ClientSessionTest, KeepsTheLatestFieldsWhenItIsSlow)
{
    Open("a", "BTC", R"(,"kinds":["fields"])");
    backend.bench.mds->SendCustomFields("BTC");
    Run();
    EXPECT_EQ(Take(), "fields");
    Stall();
    for (int i = 0; i < 3; ++i)
    {
        backend.bench.mds->SendCustomFields("BTC");
        Run();
        RunIo();
    }
    EXPECT_EQ(TakeWithoutPongs(), "fields");
}

TEST_F(ClientSessionTest, EndsWhenItHasTooMuchUnsent)
{
    std::string text;
    for (int i = 0; i < 20'000; ++i)
    {
        text += "{}\n";
    }
    session->OnMessage(text);
    ASSERT_TRUE(session->GetEnd());
    EXPECT_EQ(session->GetEnd()->code, 1013);
    EXPECT_LT(session->GetView().unsent_bytes, 81'000U) << "no more is made than may wait";
}

// --- What sessions share ---

TEST_F(ClientSessionTest, GetsTheSameTextsAsOtherSessionsWithTheSameBooks)
{
    Open("a", "BTC");
    const auto other = MakeSession();
    other->OnMessage(R"({"type":"subscribe","request":"x","instrument":"ONE:BTC"})");
    Run();
    SendBooks("BTC", 1);
    Drain(*session);
    Drain(*other); // from now on both have the same book
    SendBooks("BTC", 1);
    const std::string text = ToText(session->BeginWrite());
    EXPECT_EQ(text, ToText(other->BeginWrite()));
    EXPECT_NE(text.find(R"("type":"update")"), std::string::npos);
    other->End();
    Run();
}

// --- Books that come faster than they are taken ---

TEST_F(ClientSessionTest, GetsEachOfTheBooksThatCameTogether)
{
    Open("a", "BTC");
    SendChanges("BTC", 5);
    EXPECT_EQ(Take(), "update 2, update 3, update 4, update 5, update 6");
}

TEST_F(ClientSessionTest, GetsEachOfHundredsOfBooksThatCameTogether)
{
    GatewayCore wide{GatewayOptions{}, backend, [this](std::function<void()> task) { posted.push_back(task); }};
    const auto other = std::make_shared<ClientSession>(wide, 1, "test", Identity{"anybody", {}}, [] {});
    other->OnMessage(R"({"type":"subscribe","request":"x","instrument":"ONE:BTC"})");
    Run();
    SendImage("BTC", 3);
    EXPECT_EQ(Summarize(Drain(*other)), "result 100, image 1");
    SendChanges("BTC", 200);
    const Objects objects = Drain(*other);
    ASSERT_EQ(objects.size(), 200U);
    for (std::size_t i = 0; i < objects.size(); ++i)
    {
        EXPECT_EQ(objects[i].at("previous").as_int64() + 1, objects[i].at("sequence").as_int64());
        EXPECT_EQ(objects[i].at("sequence").as_int64(), static_cast<std::int64_t>(i) + 2);
    }
    other->End();
    Run();
}

TEST_F(ClientSessionTest, GoesOnFromItsOwnBookWhateverOthersHave)
{
    Open("a", "BTC");
    SendChanges("BTC", 2);
    const auto other = MakeSession();
    other->OnMessage(R"({"type":"subscribe","request":"x","instrument":"ONE:BTC"})");
    Run();
    SendChanges("BTC", 2); // the newcomer's first is an image
    RunIo();
    EXPECT_EQ(Summarize(Write(*session)), "update 2, update 3, update 4, update 5");
    EXPECT_EQ(Summarize(Write(*other)), "result 100, result 0, image 3, update 4, update 5");
    other->OnMessage(R"({"type":"change","request":"c","subscription":"x","image":true})");
    SendChanges("BTC", 2);
    RunIo();
    EXPECT_EQ(Summarize(Write(*session)), "update 6, update 7");
    EXPECT_EQ(Summarize(Write(*other)), "result 100, image 5, update 6, update 7");
    other->End();
    Run();
}

TEST_F(ClientSessionTest, ConflatesInTheMidstOfBooksThatCameTogether)
{
    Open("a", "BTC");
    for (int i = 0; i < 3; ++i)
    {
        session->OnMessage(R"({"type":"ping","request":"0123456789012345678901234567890123456789"})");
    }
    SendChanges("BTC", 40); // far beyond the mark
    const std::string seen = TakeWithoutPongs();
    EXPECT_EQ(seen.rfind("update 2, update 3", 0), 0U) << seen;
    EXPECT_NE(seen.find("conflated "), std::string::npos) << seen;
    EXPECT_EQ(seen.substr(seen.size() - 9), "update 41") << seen;
}

TEST_F(ClientSessionTest, CutsBooksThatCameTogetherToADepthThatHasBecomeSmaller)
{
    Open("a", "BTC", R"(,"depth":3)", 3);
    SendChanges("BTC", 2);
    session->OnMessage(R"({"type":"change","request":"c","subscription":"a","depth":1})");
    const Objects objects = Drain(*session);
    EXPECT_EQ(Summarize(objects), "result 100, image 1, update 2, update 3");
    for (const json::object& object : objects)
    {
        if (object.contains("depth") && object.contains("bids"))
        {
            EXPECT_EQ(object.at("depth").as_int64(), 1);
            EXPECT_LE(object.at("bids").as_array().size(), 1U);
        }
    }
}

TEST_F(ClientSessionTest, LeavesNoStreamsBehindHoweverManyDepthsItTries)
{
    for (int i = 0; i < 10'000; ++i)
    {
        core.GetStream("ONE:BTC", i);
    }
    EXPECT_LT(core.GetStreamCount(), 600U);
    const auto held = core.GetStream("ONE:BTC", 5);
    EXPECT_EQ(core.GetStream("ONE:BTC", 5), held);
}

} // namespace
} // namespace ps_ns::gateway
