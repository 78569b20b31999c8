#include "rename_bench.h"

#include "price_unifier/source/composite_instrument_subscription.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <thread>

using namespace ps_ns;
using namespace ps_ns::testing;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace
{

constexpr std::uint64_t kHour_ns = 3'600'000'000'000;

const CompositeInstrumentDef kClassC = MakeUsDef(1, "GOOCV");
const CompositeInstrumentDef kClassA = MakeUsDef(2, "GOOG");
const CompositeInstrumentDef kMeta = MakeUsDef(3, "FB");
const CompositeInstrumentDef kFox = MakeUsDef(4, "NWSA");

/// Rounds of messages before and after the end of a day: an hour apart, the last one a nanosecond before midnight, and
/// the first one after it at midnight.
void AddAround(RecordingWriter& recording, const std::string& lastDay, const std::vector<std::string>& symbols)
{
    const std::uint64_t midnight_ns = EndOfDay(lastDay);
    for (const std::uint64_t time_ns : {midnight_ns - 2 * kHour_ns, midnight_ns - kHour_ns, midnight_ns - 1,
                                        midnight_ns, midnight_ns + 1, midnight_ns + kHour_ns})
    {
        recording.Add(time_ns, symbols);
    }
}

constexpr int kMessagesBefore = 3 * 2; ///< of one symbol, a day's end in AddAround

RecordingWriter MakeGoogleRecording()
{
    RecordingWriter recording;
    AddAround(recording, "2014-04-02", {"GOOCV", "GOOG"});
    return recording;
}

RecordingWriter MakeRecordingOf(const std::string& symbol, const std::string& lastDay)
{
    RecordingWriter recording;
    AddAround(recording, lastDay, {symbol});
    return recording;
}

std::string Tail(const std::string& from, const std::string& to)
{
    return "oldSymbol=\"" + from + "\" newSymbol=\"" + to + "\" marketId=1";
}
std::string Waiting(int count, const std::string& from, const std::string& to)
{
    return LogLine(10, "CompositeSubscriptionMgr::ChangeSymbol: waitingResponses=" + std::to_string(count) + " " +
                           Tail(from, to));
}
std::string Resubscribing(const std::string& from, const std::string& to)
{
    return LogLine(10, "CompositeSubscriptionMgr::ChangeSymbol: all Unsubscribe responses received. Resubscribing. " +
                           Tail(from, to));
}

/// Everything of the recording, once, and nothing else.
template <class Observer>
void ExpectAllOf(RenameBench& bench, const RecordingWriter& recording, const std::string& symbol,
                 const Observer& observer)
{
    EXPECT_EQ(GetNumbers(observer.books), recording.GetNumbers(symbol)) << observer.GetName();
    EXPECT_TRUE(AreAllOf(symbol, observer.books)) << observer.GetName();
    const std::vector<std::string> trades = bench.events.Filter(observer.GetName() + ".OnTrades");
    EXPECT_EQ(trades.size(), recording.GetNumbers(symbol).size()) << observer.GetName();
    const std::string price = " " + std::to_string(RecordingWriter::GetBase(symbol)) + ".25x1 ";
    EXPECT_TRUE(std::all_of(trades.begin(), trades.end(),
                            [&](const std::string& trade) { return trade.find(price) != std::string::npos; }));
}

} // namespace

TEST(Renames, KeepTheInstrumentsApartWhenANamePassesFromOneToTheOther)
{
    const RecordingWriter recording = MakeGoogleRecording();
    std::vector<TimedRename> renames = ReadRealRenames();
    for (const bool reversesRows : {false, true})
    {
        SCOPED_TRACE(reversesRows);
        if (reversesRows)
        {
            std::reverse(renames.begin(), renames.end());
        }
        RenameBench bench(recording, renames);
        const auto directC = bench.SubscribeDirect(kClassC);
        const auto flexibleC = bench.SubscribeFlexible(kClassC, 7);
        const auto flexibleA = bench.SubscribeFlexible(kClassA, 8);
        bench.Play();

        ExpectAllOf(bench, recording, "GOOCV", *directC);
        ExpectAllOf(bench, recording, "GOOCV", *flexibleC);
        ExpectAllOf(bench, recording, "GOOG", *flexibleA);
        EXPECT_EQ(directC->books.size(), 6U + 1U); // the image under the new symbol
        EXPECT_EQ(flexibleA->books.size(), 6U + 1U);
        EXPECT_EQ(bench.Live(kClassC)->GetSymbol(), "GOOG");
        EXPECT_EQ(bench.Live(kClassA)->GetSymbol(), "GOOGL");
        EXPECT_THAT(bench.GetChangeLines(),
                    ElementsAre(Waiting(1, "GOOG", "GOOGL"), Waiting(1, "GOOCV", "GOOG"),
                                Resubscribing("GOOG", "GOOGL"), Resubscribing("GOOCV", "GOOG")));
        EXPECT_THAT(bench.events.Filter("log 30"), IsEmpty());
        EXPECT_THAT(bench.events.Filter("log 20"), IsEmpty());
    }
}

TEST(Renames, HappenAtMidnightAndNotBefore)
{
    RenameBench bench(MakeRecordingOf("FB", "2022-06-08"), ReadRealRenames());
    const auto client = bench.SubscribeDirect(kMeta);
    bench.Play(kMessagesBefore); // the last one a nanosecond before midnight
    EXPECT_THAT(bench.GetChangeLines(), IsEmpty());
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "FB"));
    bench.Play(1);
    EXPECT_THAT(bench.GetChangeLines(), ElementsAre(Waiting(1, "FB", "META"), Resubscribing("FB", "META")));
    EXPECT_FALSE(bench.provider->GetDirectory().Find(1, -1, "FB"));
    EXPECT_EQ(bench.provider->GetDirectory().Find(1, -1, "META")->firstSymbol, "FB");
}

TEST(Renames, FollowAChainOverTheYears)
{
    RecordingWriter recording;
    AddAround(recording, "2013-06-28", {"NWSA"});
    AddAround(recording, "2019-03-18", {"NWSA", "FB"});
    AddAround(recording, "2022-06-08", {"FB"});
    RenameBench bench(recording, ReadRealRenames());
    const auto fox = bench.SubscribeDirect(kFox);
    const auto meta = bench.SubscribeFlexible(kMeta, 3);
    bench.Play();
    ExpectAllOf(bench, recording, "NWSA", *fox);
    ExpectAllOf(bench, recording, "FB", *meta);
    EXPECT_EQ(fox->books.size(), recording.GetNumbers("NWSA").size() + 2);
    EXPECT_EQ(meta->books.size(), recording.GetNumbers("FB").size() + 1);
    EXPECT_THAT(bench.GetChangeLines(),
                ElementsAre(Waiting(1, "NWSA", "FOXA"), Resubscribing("NWSA", "FOXA"), Waiting(1, "FOXA", "TFCFA"),
                            Resubscribing("FOXA", "TFCFA"), Waiting(1, "FB", "META"), Resubscribing("FB", "META")));
}

TEST(Renames, OfSymbolsThatAreNotServedAreCountedInOneLine)
{
    RenameBench bench(MakeRecordingOf("FB", "2022-06-08"), ReadRealRenames());
    bench.Play();
    // FB only is served, and the others are years old.
    EXPECT_THAT(bench.events.Filter("log 10 13 1 symbol renames"),
                ElementsAre(LogLine(10, "symbol renames: 1 to come, 4 over before the prices begin, 0 of symbols that "
                                        "are not served")));
    RenameBench older(MakeRecordingOf("NWSA", "2013-06-28"), ReadRealRenames());
    older.Play();
    EXPECT_THAT(older.events.Filter("log 10 13 1 symbol renames"),
                ElementsAre(LogLine(10, "symbol renames: 2 to come, 0 over before the prices begin, 3 of symbols that "
                                        "are not served")));
    EXPECT_THAT(older.events.Filter("log 20"), IsEmpty());
}

TEST(Renames, DoNotTouchARecordingThatBeginsUnderTheNewSymbols)
{
    // GOOG is class C already: to make it GOOGL would be wrong.
    RecordingWriter recording;
    recording.Add(EndOfDay("2014-04-02"), {"GOOG"});
    recording.Add(EndOfDay("2014-04-03"), {"GOOG"});
    RenameBench bench(recording, ReadRealRenames());
    const auto client = bench.SubscribeDirect(kClassA);
    bench.Play();
    ExpectAllOf(bench, recording, "GOOG", *client);
    EXPECT_THAT(bench.GetChangeLines(), IsEmpty());
    EXPECT_TRUE(bench.provider->GetDirectory().Find(1, -1, "GOOG"));
}

TEST(Renames, LetTwoInstrumentsChangePlaces)
{
    const RecordingWriter recording = MakeGoogleRecording();
    const std::uint64_t midnight_ns = EndOfDay("2014-04-02");
    RenameBench bench(recording, {{midnight_ns, {1, "GOOCV", "GOOG"}}, {midnight_ns, {1, "GOOG", "GOOCV"}}});
    const auto classC = bench.SubscribeDirect(kClassC);
    const auto classA = bench.SubscribeFlexible(kClassA, 8);
    bench.Play();
    ExpectAllOf(bench, recording, "GOOCV", *classC);
    ExpectAllOf(bench, recording, "GOOG", *classA);
    EXPECT_EQ(bench.Live(kClassC)->GetSymbol(), "GOOG");
    EXPECT_EQ(bench.Live(kClassA)->GetSymbol(), "GOOCV");
    // The first steps aside, and is redirected before anybody has asked for the name that nobody bears.
    EXPECT_THAT(bench.GetChangeLines(), ElementsAre(HasSubstr("waitingResponses=1 oldSymbol=\"GOOCV\""),
                                                    Waiting(1, "GOOG", "GOOCV"), HasSubstr("in flight, pendingCount=1"),
                                                    Resubscribing("GOOCV", "GOOG"), Resubscribing("GOOG", "GOOCV")));
    EXPECT_THAT(bench.events.Filter("DGOOCV.OnSubscribe"),
                ElementsAre("DGOOCV.OnSubscribe GOOCV result=0 component=0 @executor"));
    EXPECT_THAT(bench.events.Filter("log 30"), IsEmpty());
}

TEST(Renames, LetThreeInstrumentsChangePlacesInACircle)
{
    RecordingWriter recording;
    AddAround(recording, "2014-04-02", {"GOOCV", "GOOG", "FB"});
    const std::uint64_t midnight_ns = EndOfDay("2014-04-02");
    RenameBench bench(
        recording,
        {{midnight_ns, {1, "GOOCV", "GOOG"}}, {midnight_ns, {1, "GOOG", "FB"}}, {midnight_ns, {1, "FB", "GOOCV"}}});
    const auto classC = bench.SubscribeDirect(kClassC);
    const auto classA = bench.SubscribeDirect(kClassA);
    const auto meta = bench.SubscribeDirect(kMeta);
    bench.Play();
    ExpectAllOf(bench, recording, "GOOCV", *classC);
    ExpectAllOf(bench, recording, "GOOG", *classA);
    ExpectAllOf(bench, recording, "FB", *meta);
    EXPECT_EQ(bench.Live(kClassC)->GetSymbol(), "GOOG");
    EXPECT_EQ(bench.Live(kClassA)->GetSymbol(), "FB");
    EXPECT_EQ(bench.Live(kMeta)->GetSymbol(), "GOOCV");
}

TEST(Renames, GiveALaterClientOfTheSameIdentityTheNewSymbolInItsState)
{
    const RecordingWriter recording = MakeRecordingOf("FB", "2022-06-08");
    RenameBench bench(recording, ReadRealRenames());
    const auto first = bench.SubscribeDirect(kMeta);
    bench.Play(kMessagesBefore + 2);
    // The instrument is joined by its identity; its definition stays the first client's.
    const auto later = bench.SubscribeFlexible(MakeUsDef(3, "META"), 9);
    EXPECT_EQ(later->lastState.symbol, "META");
    EXPECT_EQ(first->lastState.symbol, "FB"); // a rename is not reported to those who are subscribed
    ASSERT_FALSE(later->books.empty());
    EXPECT_GT(later->books.back()->epoch, first->books.front()->epoch);
    const std::size_t atJoin = later->books.size();
    bench.Play();
    ExpectAllOf(bench, recording, "FB", *first);
    EXPECT_EQ(later->books.size(), atJoin + 2);
    EXPECT_TRUE(AreAllOf("FB", later->books));
}

TEST(Renames, GiveALaterClientWithAnIdentityOfItsOwnTheInstrumentThatBearsTheName)
{
    const RecordingWriter recording = MakeGoogleRecording();
    RenameBench bench(recording, ReadRealRenames());
    bench.SubscribeDirect(kClassA);
    bench.Play(kMessagesBefore * 2 + 2);
    const auto newGoog = bench.SubscribeDirect(MakeUsDef(11, "GOOG"));
    const auto googl = bench.SubscribeDirect(MakeUsDef(12, "GOOGL"));
    bench.Play();
    EXPECT_TRUE(AreAllOf("GOOCV", newGoog->books));
    EXPECT_TRUE(AreAllOf("GOOG", googl->books));
    EXPECT_EQ(GetNumbers(newGoog->books).back(), recording.GetNumbers("GOOCV").back());
    EXPECT_EQ(GetNumbers(googl->books).back(), recording.GetNumbers("GOOG").back());
    // The name that nobody bears any more:
    bench.SubscribeDirect(MakeUsDef(13, "GOOCV"));
    bench.SubscribeFlexible(MakeUsDef(14, "GOOCV"), 5);
    EXPECT_THAT(bench.events.Filter("DGOOCV.On"), ElementsAre("DGOOCV.OnSubscribe GOOCV result=25 component=0 @queue"));
    EXPECT_THAT(bench.events.Filter("FGOOCV.On"),
                ElementsAre("FGOOCV.OnSubscribe id=5 GOOCV result=17 component=0 @executor"));
}

TEST(Renames, GoByTheIdentityOfALaterClientNotByTheNameThatItAsksFor)
{
    RenameBench bench(MakeGoogleRecording(), ReadRealRenames());
    bench.SubscribeDirect(kClassA);
    bench.Play(kMessagesBefore * 2 + 2);
    // Class A's identity with class C's present name: who makes identities of names meets the wrong instrument.
    const auto mistaken = bench.SubscribeFlexible(MakeUsDef(2, "GOOG"), 9);
    bench.Play();
    EXPECT_EQ(mistaken->lastState.symbol, "GOOGL");
    EXPECT_FALSE(mistaken->books.empty());
    EXPECT_TRUE(AreAllOf("GOOG", mistaken->books));
}

/// Ends a subscription of class A at each moment of the step that renames it: no one may come to harm.
class UnsubscribeDuringRename : public ::testing::TestWithParam<bool>
{
protected:
    /// The number of moments there are.
    int UnsubscribeBefore(int moment)
    {
        const bool isDirect = GetParam();
        const RecordingWriter recording = MakeGoogleRecording();
        RenameBench bench(recording, ReadRealRenames());
        const auto classC = bench.SubscribeDirect(kClassC);
        unsigned long handle = 0;
        std::shared_ptr<RecordingFlexibleObserver> flexible;
        if (isDirect)
        {
            const auto observer = std::make_shared<RecordingObserver>("leaving", bench.events, &bench.queue.Get());
            handle = bench.manager->Subscribe(kClassA, {5, 0, true, false}, observer, 1).first;
            bench.Run();
        }
        else
        {
            flexible = bench.SubscribeFlexible(kClassA, 8);
        }
        EXPECT_EQ(bench.simple->GetRegistry().GetSize(), 2U);
        bench.beforeTask = [&](int task)
        {
            if (task == moment)
            {
                isDirect ? static_cast<void>(bench.manager->Unsubscribe(handle))
                         : bench.manager->Unsubscribe(kClassA, flexible, 8);
            }
        };
        bench.Play();
        ExpectAllOf(bench, recording, "GOOCV", *classC);
        EXPECT_EQ(bench.Live(kClassC)->GetSymbol(), "GOOG");
        EXPECT_EQ(bench.simple->GetRegistry().GetSize(), moment < bench.tasksOfRenames ? 1U : 2U);
        EXPECT_TRUE(CompositeSubscriptionMgrTestAccess(*bench.manager).PendingDelete().empty() ||
                    moment >= bench.tasksOfRenames);
        EXPECT_TRUE(CompositeSubscriptionMgrTestAccess(*bench.manager).SymbolChanges()[1].empty());
        EXPECT_TRUE(CompositeSubscriptionMgrTestAccess(*bench.manager).SymbolChangeResponses()[1].empty());
        EXPECT_THAT(bench.events.Filter("log 30"), IsEmpty());
        // The identity is free again, and its instrument bears the new name.
        if (moment < bench.tasksOfRenames)
        {
            EXPECT_TRUE(AreAllOf("GOOG", bench.SubscribeDirect(MakeUsDef(2, "GOOGL"))->books));
        }
        return bench.tasksOfRenames;
    }
};

TEST_P(UnsubscribeDuringRename, HarmsNothingAtAnyMomentOfTheStep)
{
    const int moments = UnsubscribeBefore(1000); // never
    ASSERT_EQ(moments, 7);                       // try, two changes, rename, two resubscribes, done
    for (int moment = 0; moment < moments; ++moment)
    {
        SCOPED_TRACE("before task " + std::to_string(moment));
        UnsubscribeBefore(moment);
    }
}

INSTANTIATE_TEST_SUITE_P(Renames, UnsubscribeDuringRename, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Direct" : "Flexible"; });

TEST(Renames, DecideASymbolThatIsStillUndecidedUnderItsOldName)
{
    const RecordingWriter recording = MakeRecordingOf("FB", "2022-06-08");
    RenameBench bench(recording, ReadRealRenames(), false);
    const auto client = bench.SubscribeDirect(kMeta); // nobody knows yet who serves it
    EXPECT_EQ(bench.manager->SubscriptionPendingGaugeInstance().Get(), 1);
    bench.provider->Start();
    bench.Play();
    EXPECT_EQ(bench.manager->SubscriptionPendingGaugeInstance().Get(), 0);
    EXPECT_EQ(bench.Live(kMeta)->GetSymbol(), "META");
    EXPECT_EQ(bench.Live(kMeta)->GetProviderType(), ProviderType::Mds);
    // Nobody decided before the rename: its books begin there.
    const std::vector<std::uint64_t>& numbers = recording.GetNumbers("FB");
    EXPECT_EQ(GetNumbers(client->books), std::vector<std::uint64_t>(numbers.begin() + 2, numbers.end()));
}

namespace
{

/// A client in the middle of a request, on a thread of its own, until it dies.
class RequestInProgress
{
public:
    explicit RequestInProgress(ClientGate& clients)
    {
        clients.Open();
        m_client = std::thread(
            [this, &clients]
            {
                clients.Pass(
                    [this]
                    {
                        m_isInside.set_value();
                        m_mayLeave.get_future().wait();
                    });
            });
        m_isInside.get_future().wait();
    }
    ~RequestInProgress()
    {
        m_mayLeave.set_value();
        m_client.join();
    }
    RequestInProgress(const RequestInProgress&) = delete;
    RequestInProgress& operator=(const RequestInProgress&) = delete;

private:
    std::promise<void> m_isInside;
    std::promise<void> m_mayLeave;
    std::thread m_client;
};

} // namespace

TEST(RenameRelay, LetsARequestThatIsBeingMadeGoFirstAndWaitsForNobody)
{
    RenameBench bench(MakeGoogleRecording(), {});
    int made = 0;
    int done = 0;
    {
        const RequestInProgress request(bench.clients);
        bench.relay->Post(
            {{1, "GOOG", "GOOGL"}}, [&] { ++made; }, [&] { ++done; });
        for (int task = 0; task < 100; ++task)
        {
            ASSERT_TRUE(bench.queue.RunOne());
        }
        EXPECT_THAT(bench.GetChangeLines(), IsEmpty());
    }
    bench.queue.RunAll();
    EXPECT_THAT(bench.GetChangeLines(), ElementsAre(Waiting(0, "GOOG", "GOOGL")));
    EXPECT_EQ(made, 1);
    EXPECT_EQ(done, 1);
}

TEST(RenameRelay, GoesOnInTheEndAlthoughARequestDoesNotEnd)
{
    RenameBench bench(MakeGoogleRecording(), {});
    int done = 0;
    const RequestInProgress request(bench.clients);
    bench.relay->Post(
        {{1, "GOOG", "GOOGL"}}, [] {}, [&] { ++done; });
    bench.queue.RunAll();
    EXPECT_EQ(done, 1);
    EXPECT_THAT(bench.events.Filter("log 20"), ElementsAre(HasSubstr("while clients make requests")));
}

TEST(RenameRelay, DoesNotWaitForAQueueThatIsShutDown)
{
    RenameBench bench(MakeGoogleRecording(), {});
    bench.queue.Get().shutdown();
    bool isMade = false;
    bench.relay->Run({{1, "GOOG", "GOOGL"}}, [&] { isMade = true; });
    EXPECT_FALSE(isMade);
}
