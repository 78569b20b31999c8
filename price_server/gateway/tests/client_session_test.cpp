#include "client_session_fixture.h"

namespace ps_ns::gateway
{
namespace
{

// --- Subscribing ---

TEST_F(ClientSessionTest, AnswersASubscribeThenBringsAnImageThenUpdates)
{
    EXPECT_EQ(Subscribe("a", "ONE:BTC"), "result 100");
    Run();
    backend.bench.mds->Answer("BTC");
    Run();
    EXPECT_EQ(Take(), "result 0");
    SendImage("BTC", 3);
    EXPECT_EQ(Take(), "image 1");
    SendBooks("BTC", 2);
    EXPECT_EQ(Take(), "update 2, update 3");
}

TEST_F(ClientSessionTest, SaysThatThereMayBeSomethingToWriteAtTheEndOfATurn)
{
    Open("a", "BTC");
    const int before = wakes;
    SendImage("BTC", 4);
    SendImage("BTC", 3);
    RunIo();
    EXPECT_EQ(wakes, before + 1) << "once for all that has come by then";
}

TEST_F(ClientSessionTest, TakesARequestIdOnlyOnceUntilItIsFree)
{
    Subscribe("a", "ONE:BTC");
    EXPECT_EQ(Subscribe("a", "ONE:ETH"), "error duplicate_request");
    EXPECT_EQ(Unsubscribe("a"), "result 100");
    EXPECT_EQ(Subscribe("a", "ONE:ETH"), "result 100");
}

TEST_F(ClientSessionTest, HasOneSubscriptionOfAnInstrumentAndDepth)
{
    Subscribe("a", "ONE:BTC");
    EXPECT_EQ(Subscribe("b", "ONE:BTC", R"(,"depth":5)"), "error duplicate_subscription") << "5 is the default here";
    EXPECT_EQ(Subscribe("b", "ONE:BTC", R"(,"depth":20)"), "result 100");
    EXPECT_EQ(Subscribe("c", "ONE:BTC", R"(,"depth":"max")"), "error duplicate_subscription") << "20 is the most here";
    EXPECT_EQ(Subscribe("c", "ONE:BTC", R"(,"depth":1000)"), "error duplicate_subscription");
}

TEST_F(ClientSessionTest, RefusesWhatThereIsNot)
{
    EXPECT_EQ(Subscribe("a", "ONE:NOTHING"), "error unknown_instrument");
    EXPECT_EQ(Change("a", R"("depth":5)"), "error unknown_subscription");
    EXPECT_EQ(Unsubscribe("a"), "error unknown_subscription");
    for (const char* symbol : {"BTC", "ETH", "XRP"})
    {
        EXPECT_EQ(Subscribe(symbol, std::string("ONE:") + symbol), "result 100");
    }
    EXPECT_EQ(Subscribe("d", "ONE:SOL"), "error too_many_subscriptions");
    Unsubscribe("ETH");
    EXPECT_EQ(Subscribe("d", "ONE:SOL"), "result 100");
}

TEST_F(ClientSessionTest, SaysThatTheServerIsNotReadyWhileTheInstrumentMayStillBecomeKnown)
{
    backend.isReady = false;
    EXPECT_EQ(Subscribe("a", "ONE:NEW"), "error not_ready");
    EXPECT_EQ(Subscribe("a", "ONE:BTC"), "result 100") << "what is known already can be had";
    ManagerBench::List(*backend.bench.mds, testing::MakeDef("NEW", 1));
    backend.isReady = true;
    EXPECT_EQ(Subscribe("b", "ONE:NOTHING"), "error unknown_instrument");
}

TEST_F(ClientSessionTest, NamesTheSubscriptionThatThereIsAlready)
{
    Subscribe("first", "ONE:BTC");
    session->OnMessage(R"({"type":"subscribe","request":"second","instrument":"ONE:BTC"})");
    const Objects objects = Drain(*session);
    ASSERT_EQ(objects.size(), 1U);
    EXPECT_EQ(objects[0].at("code"), "duplicate_subscription");
    EXPECT_EQ(objects[0].at("subscription"), "first");
    EXPECT_NE(objects[0].at("message").as_string().find("called \"first\""), std::string::npos);
}

TEST_F(ClientSessionTest, SuggestsNearNamesOnlySoOften)
{
    std::size_t suggestions = 0;
    for (int i = 0; i < 50; ++i)
    {
        session->OnMessage(R"({"type":"subscribe","request":"a","instrument":"ONE:BTX"})");
        const Objects objects = Drain(*session);
        ASSERT_EQ(objects.size(), 1U);
        EXPECT_EQ(objects[0].at("code"), "unknown_instrument");
        suggestions += objects[0].at("message").as_string().find("ONE:BTC") != std::string::npos ? 1U : 0U;
    }
    EXPECT_GE(suggestions, 1U);
    EXPECT_LE(suggestions, 20U);
    EXPECT_EQ(Subscribe("a", "BTC"), "result 100") << "a symbol alone is no wrong name";
}

TEST_F(ClientSessionTest, FindsAnInstrumentUnderTheNameThatItHasNow)
{
    Subscribe("a", "ONE:BTC"); // the list has been read
    ASSERT_TRUE(backend.bench.mds->Directory().Rename(1, "ETH", "OLD"));
    ASSERT_TRUE(backend.bench.mds->Directory().Rename(1, "XRP", "ETH"));
    EXPECT_EQ(Subscribe("b", "ONE:XRP"), "error unknown_instrument");
    session->OnMessage(R"({"type":"subscribe","request":"c","instrument":"ONE:ETH"})");
    Drain(*session);
    Run();
    CompositeInstrumentDef renamed;
    backend.bench.simple->GetRegistry().ForEach(
        [&](const EnrolledSubscription& enrolled)
        {
            const auto& def = dynamic_cast<const CompositeInstrumentSubscription&>(enrolled).GetDefinition();
            renamed = def.GetSymbol() == "ETH" ? def : renamed;
        });
    DirectoryEntry xrp;
    xrp.submarket = {1, -1};
    xrp.symbol = xrp.firstSymbol = "XRP";
    EXPECT_EQ(renamed.instrumentId, MakeDefinition({xrp, "ONE", true, false}).instrumentId) << "XRP's identity";
}

TEST_F(ClientSessionTest, IsToldOfARenameThatWasMadeWhileItWantedNoBooks)
{
    Open("a", "BTC");
    Change("a", R"("kinds":["trades"])");
    Run();
    ASSERT_TRUE(backend.bench.mds->Directory().Rename(1, "BTC", "NEW"));
    backend.bench.manager->ChangeSymbol(1, "BTC", "NEW");
    Run();
    backend.bench.mds->Answer("NEW");
    backend.bench.mds->SendImage("NEW", {{BookSideType::Bid, "7", "1"}});
    Run();
    Drain(*session);
    const std::string seen = Change("a", R"("kinds":["book"])");
    EXPECT_EQ(seen.rfind("result 100, renamed, image", 0), 0U) << seen;
}

TEST_F(ClientSessionTest, SubscribesTheNewSymbolWhenARenameIsMadeWhileTheRequestWaits)
{
    backend.beforeRequest = [&] { ASSERT_TRUE(backend.bench.mds->Directory().Rename(1, "BTC", "NEW")); };
    EXPECT_EQ(Subscribe("a", "ONE:BTC"), "result 100");
    Run();
    EXPECT_EQ(backend.bench.mds->GetListenerCount("NEW"), 1U);
    EXPECT_EQ(backend.bench.mds->GetListenerCount("BTC"), 0U);
}

TEST_F(ClientSessionTest, SaysThatTheServerIsNotReadyAndChangesNothing)
{
    backend.isOpen = false;
    EXPECT_EQ(Subscribe("a", "ONE:BTC"), "error not_ready");
    backend.isOpen = true;
    EXPECT_EQ(Subscribe("a", "ONE:BTC"), "result 100") << "the id is free";
    backend.isOpen = false;
    EXPECT_EQ(Change("a", R"("depth":7)"), "error not_ready");
    backend.isOpen = true;
    EXPECT_EQ(Subscribe("b", "ONE:BTC", R"(,"depth":7)"), "result 100") << "its depth is what it was";
}

TEST_F(ClientSessionTest, SendsNothingOfASubscriptionAfterTheAnswerToItsUnsubscribe)
{
    Subscribe("a", "ONE:BTC");
    Run();
    backend.bench.mds->Answer("BTC");
    SendImage("BTC", 3); // all of this waits in the mailbox
    session->OnMessage(R"({"type":"unsubscribe","request":"u","subscription":"a"})");
    EXPECT_EQ(Take(), "result 100");
    Run();
    EXPECT_EQ(Take(), "");
}

TEST_F(ClientSessionTest, DoesNotTakeALateAnswerForThatOfANewSubscriptionOfTheSameName)
{
    session->OnMessage(R"({"type":"subscribe","request":"a","instrument":"ONE:BTC"})");
    Run();
    backend.bench.mds->Answer("BTC", ps_messages_ns::SubscriptionResult::DirectSubscriptionFailed);
    Run();
    session->OnMessage("{\"type\":\"unsubscribe\",\"request\":\"u\",\"subscription\":\"a\"}\n"
                       R"({"type":"subscribe","request":"a","instrument":"ONE:ETH"})");
    EXPECT_EQ(Take(), "result 100, result 100, result 100");
}

TEST_F(ClientSessionTest, GivesEverythingBackAtItsEnd)
{
    Open("a", "BTC");
    Open("b", "ETH");
    EXPECT_EQ(backend.bench.mds->GetListenerCount("BTC"), 1U);
    session->End();
    Run();
    EXPECT_EQ(backend.bench.mds->GetListenerCount("BTC"), 0U);
    EXPECT_EQ(backend.bench.mds->GetListenerCount("ETH"), 0U);
    EXPECT_FALSE(session->HasOutput());
    session->OnMessage(R"({"type":"ping","request":"p"})");
    EXPECT_FALSE(session->HasOutput());
}

// --- Who may what ---

TEST_F(ClientSessionTest, DemandsATokenFirst)
{
    session = MakeSession(std::nullopt);
    EXPECT_EQ(Say(R"({"type":"ping","request":"p"})"), "error unauthenticated");
    EXPECT_EQ(Subscribe("a", "ONE:BTC"), "error unauthenticated");
    session->OnMessage(R"({"type":"ping","request":"whose"})");
    EXPECT_EQ(Drain(*session).front().at("request"), "whose");
    EXPECT_EQ(Say(R"({"type":"authenticate"})"), "error bad_member");
    EXPECT_EQ(Say(R"({"type":"authenticate","token":"token-one"})"), "authenticated");
    EXPECT_EQ(Subscribe("a", "ONE:BTC"), "result 100");
    EXPECT_EQ(Subscribe("b", "TWO:OIL"), "error forbidden");
    EXPECT_EQ(Say(R"({"type":"authenticate","token":"token-one"})"), "error bad_type");
}

TEST_F(ClientSessionTest, HearsNothingOfInstrumentsOfMarketsThatItsTokenDoesNotOpen)
{
    session = MakeSession(Identity{"one", {{"ONE"}, false}});
    session->OnMessage(R"({"type":"subscribe","request":"a","instrument":"OIL"})");
    session->OnMessage(R"({"type":"subscribe","request":"b","instrument":"TWO:OI"})");
    for (const json::object& error : Drain(*session))
    {
        EXPECT_EQ(error.at("code"), "unknown_instrument");
        EXPECT_EQ(std::string(error.at("message").as_string()).find("TWO:OIL"), std::string::npos)
            << error.at("message");
    }
}

TEST_F(ClientSessionTest, EndsWithAWrongToken)
{
    session = MakeSession(std::nullopt);
    session->OnMessage(
        "{\"type\":\"authenticate\",\"token\":\"wrong\"}\n{\"type\":\"authenticate\",\"token\":\"token-one\"}");
    ASSERT_TRUE(session->GetEnd());
    EXPECT_EQ(session->GetEnd()->code, 1008);
    EXPECT_FALSE(session->IsAuthenticated());
    EXPECT_EQ(core.Counts().refusedTokens, 1U);
}

TEST_F(ClientSessionTest, SaysWhoseRequestIsOneTooMany)
{
    std::string text;
    for (int i = 0; i < 205; ++i)
    {
        text += R"({"type":"ping","request":")" + std::to_string(i) + "\"}\n";
    }
    session->OnMessage(text);
    const Objects objects = Drain(*session);
    ASSERT_EQ(objects.size(), 205U);
    EXPECT_EQ(objects[199].at("type"), "pong");
    EXPECT_EQ(objects[204].at("code"), "too_many_requests");
    EXPECT_EQ(objects[204].at("request"), "204");
}

// --- Changing ---

TEST_F(ClientSessionTest, GetsAnImageWhenItAsksForOne)
{
    Open("a", "BTC");
    EXPECT_EQ(Change("a", R"("image":true)"), "result 100, image 1");
    SendBooks("BTC", 1);
    EXPECT_EQ(Take(), "update 2");
}

TEST_F(ClientSessionTest, GetsAnImageAtItsNewDepth)
{
    Open("a", "BTC", R"(,"depth":4)", 6);
    session->OnMessage(R"({"type":"change","request":"c","subscription":"a","depth":2})");
    const Objects objects = Drain(*session);
    ASSERT_EQ(Summarize(objects), "result 100, image 1");
    EXPECT_EQ(objects[1].at("depth"), 2);
    EXPECT_EQ(objects[1].at("bids").as_array().size(), 2U);
    EXPECT_EQ(Subscribe("b", "ONE:BTC", R"(,"depth":4)"), "result 100") << "that depth is free";
    EXPECT_EQ(Change("a", R"("depth":4)"), "error duplicate_subscription");
}

TEST_F(ClientSessionTest, GetsTheDeeperLevelsOfItsNewDepth)
{
    Open("a", "BTC", R"(,"depth":2)", 6);
    Change("a", R"("depth":5)");
    Run();
    SendImage("BTC", 6);
    const Objects objects = Drain(*session);
    ASSERT_FALSE(objects.empty());
    std::size_t bids = 2;
    for (const json::object& object : objects)
    {
        EXPECT_EQ(object.at("depth"), 5);
        bids = object.at("type") == "image" ? object.at("bids").as_array().size()
                                            : bids + object.at("bids").as_array().size();
    }
    EXPECT_EQ(bids, 5U);
}

TEST_F(ClientSessionTest, GetsNoBooksUnlessItWantsThemAndAnImageAtOnceWhenItDoes)
{
    Open("a", "BTC", R"(,"kinds":["trades"])");
    SendBooks("BTC", 2);
    EXPECT_EQ(Take(), "");
    backend.bench.mds->SendTrade("BTC", "100", "1");
    Run();
    EXPECT_EQ(Take(), "trades");
    EXPECT_EQ(Change("a", R"("kinds":["book"])"), "result 100, image 3");
}

TEST_F(ClientSessionTest, IsNotToldOfBooksLeftOutThatItDoesNotWant)
{
    Open("a", "BTC", R"(,"kinds":["trades"])");
    Stall();
    SendBooks("BTC", 5);
    backend.bench.mds->SendTrade("BTC", "100", "1");
    Run();
    EXPECT_EQ(TakeWithoutPongs(), "trades");
    EXPECT_EQ(session->GetView().conflated, 0U);
}

} // namespace
} // namespace ps_ns::gateway
