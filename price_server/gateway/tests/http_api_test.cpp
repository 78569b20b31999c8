#include "http_api.h"

#include "client_session_fixture.h"
#include "testing/recording_observers.h"

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns::gateway
{
namespace
{

/// Requests to the interface of a server whose queue and I/O thread run when the test says so.
class HttpApiTest : public ::testing::Test
{
protected:
    void SubscribeInstruments(int count)
    {
        const auto observer = backend.bench.MakeObserver("o");
        for (int i = 0; i < count; ++i)
        {
            CompositeInstrumentDef def;
            def.instrumentId = static_cast<std::uint64_t>(++m_last);
            def.marketId = 1;
            def.instrument = {"S" + std::to_string(m_last), "X"};
            handles.push_back(backend.bench.manager->Subscribe(def, {5, 0, false, false}, observer, 1).first);
        }
        backend.bench.Run();
    }

    /// The answer comes into `answers`.
    void Ask(const std::string& path, std::map<std::string, std::string, std::less<>> parameters = {})
    {
        HttpQuery query;
        query.path = path;
        query.parameters = std::move(parameters);
        query.identity = Identity{"all", {}};
        api.Handle(query, [this](HttpAnswer answer) { answers.push_back(std::move(answer)); });
    }
    /// One action of the queue, then everything that it has posted to the I/O thread.
    void RunOne()
    {
        std::exchange(backend.tasks.front(), nullptr)();
        backend.tasks.pop_front();
        RunPosted();
    }
    int RunAll()
    {
        int count = 0;
        for (; !backend.tasks.empty(); ++count)
        {
            RunOne();
        }
        return count;
    }
    void RunPosted()
    {
        while (!posted.empty())
        {
            const std::function<void()> task = std::move(posted.front());
            posted.pop_front();
            task();
        }
    }
    static std::map<std::string, int> CountInstruments(const HttpAnswer& answer)
    {
        std::map<std::string, int> counts;
        const json::value body = json::parse(answer.body);
        for (const json::value& subscription : body.at("subscriptions").as_array())
        {
            ++counts[std::string(subscription.at("instrument").as_string())];
        }
        return counts;
    }

    BenchBackend backend;
    std::deque<std::function<void()>> posted;
    GatewayCore core{{}, backend, [this](std::function<void()> task) { posted.push_back(std::move(task)); }};
    const StaticFiles files{""};
    HttpApi api{core, files, [this](std::function<void()> task) { posted.push_back(std::move(task)); }};
    std::vector<HttpAnswer> answers;
    std::vector<unsigned long> handles;

private:
    int m_last = 0;
};

TEST_F(HttpApiTest, ReadsALongListInSlicesAndFindsEachSubscriptionOnce)
{
    SubscribeInstruments(1300);
    Ask("/api/v1/subscriptions");
    EXPECT_EQ(backend.tasks.size(), 1U) << "one action at a time: others get their turn";
    EXPECT_EQ(RunAll(), 3);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].status, 200U);
    const std::map<std::string, int> counts = CountInstruments(answers[0]);
    EXPECT_EQ(counts.size(), 1300U);
    for (const auto& [instrument, count] : counts)
    {
        EXPECT_EQ(count, 1) << instrument;
    }
}

TEST_F(HttpApiTest, ListsWhatStaysWhileOthersComeAndGoBetweenSlices)
{
    SubscribeInstruments(1300);
    Ask("/api/v1/subscriptions");
    RunOne();
    for (int i = 0; i < 300; ++i)
    {
        backend.bench.manager->Unsubscribe(handles[static_cast<std::size_t>(i)]);
    }
    SubscribeInstruments(200);
    RunAll();
    ASSERT_EQ(answers.size(), 1U);
    const std::map<std::string, int> counts = CountInstruments(answers[0]);
    for (int i = 301; i <= 1300; ++i)
    {
        EXPECT_EQ(counts.count("ONE:S" + std::to_string(i)), 1U) << i;
    }
}

TEST_F(HttpApiTest, ReadsOneListAfterAnotherAndTellsWhoIsTooMuchToComeAgain)
{
    SubscribeInstruments(2);
    for (int i = 0; i < 33; ++i)
    {
        Ask("/api/v1/subscriptions");
    }
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].status, 503U);
    EXPECT_NE(answers[0].body.find("busy"), std::string::npos);
    EXPECT_EQ(answers[0].headers.back(), (std::pair<std::string, std::string>("Retry-After", "1")));
    EXPECT_EQ(backend.tasks.size(), 1U);
    EXPECT_EQ(RunAll(), 32);
    ASSERT_EQ(answers.size(), 33U);
    EXPECT_EQ(answers.back().status, 200U);
    Ask("/api/v1/subscriptions", {{"symbol", "S2"}});
    RunAll();
    EXPECT_EQ(CountInstruments(answers.back()), (std::map<std::string, int>{{"ONE:S2", 1}}));
}

TEST_F(HttpApiTest, AnswersWhenTheServerDropsTheActionOrTakesNone)
{
    SubscribeInstruments(1300);
    Ask("/api/v1/subscriptions");
    Ask("/api/v1/subscriptions");
    RunOne();
    backend.tasks.clear(); // as a queue that is shut down does
    RunPosted();
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].status, 503U);
    backend.isOpen = false;
    RunOne(); // the second list's first slice; it cannot have another
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[1].status, 503U);
    Ask("/api/v1/subscriptions");
    RunPosted();
    ASSERT_EQ(answers.size(), 3U);
    EXPECT_NE(answers[2].body.find("not_ready"), std::string::npos);
}

TEST_F(HttpApiTest, TellsAllWhoWaitThatTheServerStops)
{
    SubscribeInstruments(1300);
    Ask("/api/v1/subscriptions");
    Ask("/api/v1/subscriptions");
    RunOne();
    api.EndReadings();
    ASSERT_EQ(answers.size(), 2U);
    EXPECT_EQ(answers[0].status, 503U);
    EXPECT_EQ(answers[1].status, 503U);
    RunAll();
    EXPECT_EQ(answers.size(), 2U) << "what is read to its end is nobody's";
    Ask("/api/v1/subscriptions");
    EXPECT_EQ(answers.size(), 3U);
    EXPECT_EQ(answers[2].status, 503U);
}

} // namespace
} // namespace ps_ns::gateway
