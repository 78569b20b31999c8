#include "client_session.h"

#include "gateway_core.h"
#include "price_unifier/source/composite_instrument_subscription.h"
#include "testing/manager_bench.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace ps_ns::gateway
{
namespace
{

namespace json = boost::json;
using testing::ManagerBench;
using Objects = std::vector<json::object>;

/// A server whose queue and executors run when the test says so.
class BenchBackend final : public IBackend
{
public:
    bool TryRequest(const std::function<void(CompositeSubscriptionMgr&)>& request) override
    {
        if (isOpen)
        {
            request(*bench.manager);
        }
        return isOpen;
    }
    bool RunOnQueue(std::function<void(CompositeSubscriptionMgr&, SimpleSubscriptionMgr&)>) override { return false; }
    const MarketTable& GetMarkets() const override { return bench.simple->GetMarkets(); }
    std::vector<DirectoryEntry> GetDirectoryEntries() const override { return bench.mds->Directory().GetEntries(); }
    DirectoryVersion GetDirectoryVersion() const override
    {
        return {bench.mds->Directory().GetVersion(), bench.mds->Directory().GetChangeCount()};
    }
    std::vector<ProviderView> GetProviders() const override { return {}; }
    bool IsReady() const override { return isReady; }

    ManagerBench bench{ManagerBench::Options{.withZel = false}};
    bool isOpen = true;
    bool isReady = true;
};

GatewayOptions MakeOptions()
{
    GatewayOptions options;
    options.tokens = {{"one", "token-one", {{"ONE"}, false}}};
    options.limits.conflate_bytes = 2000;
    options.limits.close_bytes = 80'000;
    options.limits.subscriptions = 3;
    return options;
}

/// What a session has to send, as objects.
Objects Write(ClientSession& session)
{
    Objects objects;
    while (session.HasOutput())
    {
        std::string batch = session.BeginWrite();
        std::istringstream lines(batch);
        for (std::string line; std::getline(lines, line);)
        {
            objects.push_back(json::parse(line).as_object());
        }
        session.FinishWrite(std::move(batch));
    }
    return objects;
}

/// "image 1", "error unknown_instrument", "result 100" and so on.
std::string Summarize(const Objects& objects)
{
    std::string text;
    for (const json::object& object : objects)
    {
        text += (text.empty() ? "" : ", ") + std::string(object.at("type").as_string());
        for (const char* member : {"code", "sequence", "count", "lost"})
        {
            if (const json::value* const value = object.if_contains(member))
            {
                text += " " + (value->is_string() ? std::string(value->as_string()) : json::serialize(*value));
            }
        }
    }
    return text;
}

class ClientSessionTest : public ::testing::Test
{
protected:
    ClientSessionTest()
    {
        for (const char* symbol : {"BTC", "ETH", "XRP", "SOL"})
        {
            ManagerBench::List(*backend.bench.mds, testing::MakeDef(symbol, 1));
        }
        ManagerBench::List(*backend.bench.mds, testing::MakeDef("OIL", 2));
        backend.bench.CompleteDirectories();
    }
    ~ClientSessionTest() override
    {
        session->End();
        Run();
    }

    std::shared_ptr<ClientSession> MakeSession(std::optional<Identity> identity = Identity{"anybody", {}})
    {
        return std::make_shared<ClientSession>(core, core.MakeSessionNumber(), "test", std::move(identity),
                                               [this] { ++wakes; });
    }

    void Run() { backend.bench.Run(); }
    /// What the I/O thread has been asked to do.
    void RunIo()
    {
        while (!posted.empty())
        {
            const auto task = std::move(posted.front());
            posted.pop_front();
            task();
        }
    }
    Objects Drain(ClientSession& of)
    {
        RunIo();
        return Write(of);
    }
    std::string Say(const std::string& text)
    {
        session->OnMessage(text);
        return Summarize(Drain(*session));
    }
    std::string Subscribe(const std::string& request, const std::string& instrument, const std::string& rest = "")
    {
        return Say(R"({"type":"subscribe","request":")" + request + R"(","instrument":")" + instrument + "\"" + rest +
                   "}");
    }
    std::string Change(const std::string& subscription, const std::string& rest)
    {
        return Say(R"({"type":"change","request":"c","subscription":")" + subscription + "\"," + rest + "}");
    }
    std::string Unsubscribe(const std::string& subscription)
    {
        return Say(R"({"type":"unsubscribe","request":"u","subscription":")" + subscription + "\"}");
    }
    /// Subscribed, answered, and with a first book of `levels` a side.
    void Open(const std::string& request, const std::string& symbol, const std::string& rest = "", int levels = 3)
    {
        Subscribe(request, "ONE:" + symbol, rest);
        Run();
        backend.bench.mds->Answer(symbol);
        SendImage(symbol, levels);
        Drain(*session);
    }
    void SendImage(const std::string& symbol, int levels)
    {
        std::vector<std::string> prices;
        for (int i = 0; i < 2 * levels; ++i)
        {
            prices.push_back(std::to_string(100 + i));
        }
        std::vector<testing::ScriptedProvider::Level> image;
        for (int i = 0; i < levels; ++i)
        {
            image.push_back({BookSideType::Bid, prices[static_cast<std::size_t>(levels - 1 - i)].c_str(), "1"});
            image.push_back({BookSideType::Ask, prices[static_cast<std::size_t>(levels + i)].c_str(), "1"});
        }
        backend.bench.mds->SendImage(symbol, image);
        Run();
    }
    void SendBooks(const std::string& symbol, int count)
    {
        for (int i = 0; i < count; ++i)
        {
            const std::string quantity = std::to_string(++quantities);
            backend.bench.mds->SendChange(symbol, {{BookSideType::Bid, "100", quantity.c_str()}});
            Run();
            RunIo();
        }
    }
    /// All at once, as far as the I/O thread sees.
    void SendChanges(const std::string& symbol, int count)
    {
        for (int i = 0; i < count; ++i)
        {
            const std::string quantity = std::to_string(++quantities);
            backend.bench.mds->SendChange(symbol, {{BookSideType::Bid, "100", quantity.c_str()}});
            Run();
        }
    }
    std::string Take() { return Summarize(Drain(*session)); }
    /// The session has more unsent than its mark: the client does not read.
    void Stall()
    {
        for (int i = 0; i < 30; ++i)
        {
            session->OnMessage(R"({"type":"ping","request":"0123456789012345678901234567890123456789"})");
        }
    }
    /// What comes of it without the pongs that Stall has queued.
    std::string TakeWithoutPongs()
    {
        Objects objects = Drain(*session);
        std::erase_if(objects, [](const json::object& object) { return object.at("type") == "pong"; });
        return Summarize(objects);
    }

    int wakes = 0;
    std::deque<std::function<void()>> posted;
    int quantities = 1;
    BenchBackend backend;
    GatewayCore core{MakeOptions(), backend, [this](std::function<void()> task) { posted.push_back(std::move(task)); }};
    std::shared_ptr<ClientSession> session = MakeSession();
};

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
    const std::string text = session->BeginWrite();
    EXPECT_EQ(text, other->BeginWrite());
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
