#include "flexible_fixture.h"

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

constexpr const char* kPost = "executor.Post 0";
constexpr const char* kScope5 = "depth=5 interval=0 trades=0 customFields=0";
constexpr const char* kScope9 = "depth=9 interval=0 trades=0 customFields=0";

/// Who asks for a snapshot posts it to the executor: the sequences here show each post, so that one too many shows too.
class SnapshotRequests : public FlexibleSubscribe
{
protected:
    /// A first client, F, who has seen a book; from then on posts are recorded.
    void OpenWithBook()
    {
        Open();
        SendBook("X");
    }
    /// The same with a direct client, A, of another instrument.
    void OpenDirectWithBook()
    {
        handle = bench.manager->Subscribe(directDef, {5, 0, false, false}, direct, 1).first;
        bench.Run();
        SendBook("D");
    }
    void SendBook(const std::string& symbol)
    {
        bench.zel->Answer(symbol);
        bench.zel->SendImage(symbol, {{kBid, "10", "1"}, {kBid, "9", "1"}});
        bench.Run();
        bench.events.Clear();
        bench.executors->RecordPosts(bench.events);
    }
    /// What has been recorded on the queue's thread; nothing has run on the executor.
    Events TakeRequests()
    {
        bench.queue.RunAll();
        return bench.events.Take();
    }
    /// What then comes from the executor.
    Events TakeCallbacks()
    {
        bench.executors->SetOnPost(nullptr);
        bench.executors->RunAll();
        return bench.events.Take();
    }
    std::string Executed(const std::string& request, const std::string& rest) const
    {
        return LogLine(10, "SPLUNK_IGNORE | " + request + " executed. " + rest);
    }
    static std::string Changed(const std::string& from, const std::string& to)
    {
        return "PreviousSubscriptionInfo " + from + " NewSubscriptionInfo " + to;
    }
    std::string ChangeRequest(const CompositeInstrumentDef& instrument, const std::string& rest) const
    {
        return "CompositeSubscriptionMgr: ChangeScope request for instrument " + instrument.ToString() + rest;
    }

    const CompositeInstrumentDef directDef = MakeDef("D");
    const std::shared_ptr<RecordingObserver> direct = bench.MakeObserver("A");
    unsigned long handle = 0;
};

} // namespace

TEST_F(SnapshotRequests, AreNotMadeForAJoinerWhoWidensTheMergedScope)
{
    OpenWithBook();
    Subscribe(second, 2, {9, 0, false, false});
    EXPECT_EQ(
        TakeRequests(),
        (Events{
            kPost, // the client is added
            LogLine(10, Request("Subscribe", 2) + " - making OnSubscribe callback"),
            kPost, // the replay
            kPost, // data may follow it
            Executed(Request("AddScope", 2), Changed(kScope5, kScope9)), std::string("zel.ChangeScope X ") + kScope9,
            std::string("zel.ChangeScope IM_X ") + kScope9, std::string("zel.ChangeScope AI_X ") + kScope9,
            kPost, // the delivery's own merged scope
        }));
    EXPECT_EQ(TakeCallbacks(), (Events{"G.OnSubscribe id=2 X result=0 component=0 @executor",
                                       "local.OnOrderBook X 10x1+0 9x1+0 |  @executor",
                                       "G.OnOrderBook id=2 X 10x1+0 9x1+0 |  @executor"}));
    EXPECT_EQ(second->books.back()->snapshotReason, 0U);
}

TEST_F(SnapshotRequests, AreMadeOnceForAJoinerWhoLeavesTheMergedScopeAsItIs)
{
    OpenWithBook();
    Subscribe(second, 2, {1, 0, false, false});
    EXPECT_EQ(
        TakeRequests(),
        (Events{kPost, LogLine(10, Request("Subscribe", 2) + " - making OnSubscribe callback"), kPost, kPost,
                Executed(Request("AddScope", 2), std::string("No changes to SubscriptionInfo ") + kScope5), kPost}));
    EXPECT_EQ(TakeCallbacks(), (Events{"G.OnSubscribe id=2 X result=0 component=0 @executor",
                                       "G.OnOrderBook id=2 X 10x1+0 |  @executor"}));
    EXPECT_EQ(second->books.back()->snapshotReason, 110U);
}

TEST_F(SnapshotRequests, AreNotMadeForAJoinerBeforeTheFirstBook)
{
    Open();
    bench.executors->RecordPosts(bench.events);
    Subscribe(second, 2, {1, 0, false, false});
    EXPECT_EQ(TakeRequests(),
              (Events{kPost, kPost,
                      Executed(Request("AddScope", 2), std::string("No changes to SubscriptionInfo ") + kScope5)}));
}

TEST_F(SnapshotRequests, AreNotMadeByAFlexibleChangeOfTheMergedScopeWhateverItsFlagSays)
{
    OpenWithBook();
    const std::string changed = ChangeRequest(def, " (observer=F)");
    const auto retargets = [&](const std::string& from, const std::string& to)
    {
        return Events{Executed(changed, Changed(from, to)), "zel.ChangeScope X " + to, "zel.ChangeScope IM_X " + to,
                      "zel.ChangeScope AI_X " + to};
    };
    std::string from = kScope5;
    for (const bool generateSnapshot : {false, true})
    {
        const std::string to = generateSnapshot ? kScope5 : kScope9;
        bench.executors->RecordPosts(bench.events);
        bench.manager->ChangeScope(def, {generateSnapshot ? 5 : 9, 0, false, false}, first, 1, generateSnapshot);
        Events expected = retargets(from, to);
        expected.insert(expected.begin(), kPost); // the client's scope
        expected.push_back(kPost);                // the merged one
        EXPECT_EQ(TakeRequests(), expected);
        EXPECT_EQ(TakeCallbacks(), (Events{"local.OnOrderBook X 10x1+0 9x1+0 |  @executor",
                                           "F.OnOrderBook id=1 X 10x1+0 9x1+0 |  @executor"}));
        EXPECT_EQ(first->books.back()->snapshotReason, 0U);
        from = to;
    }
}

TEST_F(SnapshotRequests, AreMadeByAFlexibleChangeOfAnUnchangedMergedScopeOnlyWhenItsFlagSaysSo)
{
    OpenWithBook();
    const std::string unchanged = std::string("No changes to SubscriptionInfo ") + kScope5;
    bench.manager->ChangeScope(def, {5, 0, false, false}, first, 1, false);
    EXPECT_EQ(TakeRequests(), (Events{kPost, Executed(ChangeRequest(def, " (observer=F)"), unchanged)}));
    bench.manager->ChangeScope(def, {5, 0, false, false}, first, 1, true);
    EXPECT_EQ(
        TakeRequests(),
        (Events{kPost, Executed(ChangeRequest(def, " (observer=F)"), unchanged) + " Generating a snapshot", kPost}));
    EXPECT_EQ(TakeCallbacks(), Events{"F.OnOrderBook id=1 X 10x1+0 9x1+0 |  @executor"});
    EXPECT_EQ(first->books.back()->snapshotReason, 110U);
}

TEST_F(SnapshotRequests, AreNotMadeByADirectChangeOfTheMergedScopeWhateverItsFlagSays)
{
    OpenDirectWithBook();
    const std::string request = ChangeRequest(directDef, " handle=1 (observer=A)");
    bench.manager->ChangeScope(handle, {9, 0, false, false}, 1, false);
    EXPECT_EQ(TakeRequests(), (Events{Executed(request, Changed(kScope5, kScope9)),
                                      std::string("zel.ChangeScope D ") + kScope9, kPost}));
    bench.manager->ChangeScope(handle, {5, 0, false, false}, 1, true);
    EXPECT_EQ(TakeRequests(), (Events{Executed(request, Changed(kScope9, kScope5)),
                                      std::string("zel.ChangeScope D ") + kScope5, kPost}));
    EXPECT_EQ(TakeCallbacks(),
              (Events{"A.OnOrderBook D 10x1+0 9x1+0 |  @executor", "A.OnOrderBook D 10x1+0 9x1+0 |  @executor"}));
    EXPECT_EQ(direct->books.back()->snapshotReason, 0U);
}

TEST_F(SnapshotRequests, AreMadeByADirectChangeOfAnUnchangedMergedScopeOnlyWhenItsFlagSaysSo)
{
    OpenDirectWithBook();
    const std::string line = Executed(ChangeRequest(directDef, " handle=1 (observer=A)"),
                                      std::string("No changes to SubscriptionInfo ") + kScope5);
    bench.manager->ChangeScope(handle, {5, 0, false, false}, 1, false);
    EXPECT_EQ(TakeRequests(), Events{line});
    bench.manager->ChangeScope(handle, {5, 0, false, false}, 1, true);
    EXPECT_EQ(TakeRequests(), (Events{line + " Generating a snapshot", kPost}));
}

TEST_F(SnapshotRequests, AreNeverMadeByAddingOrRemovingADirectScope)
{
    OpenDirectWithBook();
    const auto line = [&](const std::string& operation, const std::string& rest)
    {
        return Executed("CompositeSubscriptionMgr: " + operation + " request for instrument " + directDef.ToString() +
                            " handle=1 (observer=A)",
                        rest);
    };
    const std::string unchanged = std::string("No changes to SubscriptionInfo ") + kScope5;
    bench.manager->AddScope(handle, {3, 0, false, false}, 2);
    bench.manager->RemoveScope(handle, 2);
    EXPECT_EQ(TakeRequests(), (Events{line("AddScope", unchanged), line("RemoveScope", unchanged)}));
    bench.manager->AddScope(handle, {9, 0, false, false}, 2);
    bench.manager->RemoveScope(handle, 2);
    EXPECT_EQ(
        TakeRequests(),
        (Events{line("AddScope", Changed(kScope5, kScope9)), std::string("zel.ChangeScope D ") + kScope9, kPost,
                line("RemoveScope", Changed(kScope9, kScope5)), std::string("zel.ChangeScope D ") + kScope5, kPost}));
}
