#include "logging/sinks.h"
#include "test_support.h"
#include "zel/nats_transport.h"
#include "zel/zel_provider.h"
#include "zel/zel_publisher.h"
#include "zel_testing/broker_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::SizeIs;

constexpr auto kPatience = 30s;

bool WaitUntil(const std::function<bool()>& isSo)
{
    for (const auto end = std::chrono::steady_clock::now() + kPatience; std::chrono::steady_clock::now() < end;)
    {
        if (isSo())
        {
            return true;
        }
        std::this_thread::sleep_for(5ms);
    }
    return isSo();
}

class Folder
{
public:
    Folder() { EXPECT_NE(::mkdtemp(m_name.data()), nullptr); }
    ~Folder() { std::filesystem::remove_all(m_name); }
    const std::string& GetName() const { return m_name; }

private:
    std::string m_name = (std::filesystem::temp_directory_path() / "ps_last_values_XXXXXX").string();
};

/// With JetStream in memory.
struct KeepingBroker
{
    Folder folder;
    BrokerProcess broker{{"-js", "-sd", folder.GetName()}};
};

/// What the log is told about last values, from level 20 on, while it lives.
class Complaints
{
public:
    Complaints() = default;
    ~Complaints() { zel::logging::Logger::SetSink(m_before); }
    Complaints(const Complaints&) = delete;
    Complaints& operator=(const Complaints&) = delete;

    std::vector<std::string> Get() const
    {
        std::vector<std::string> texts;
        for (const zel::logging::CapturedRecord& record : m_sink->GetRecords())
        {
            if (record.level >= 20 && (record.text.find("last values") != std::string::npos ||
                                       record.text.find("zel_last") != std::string::npos))
            {
                texts.push_back(record.text);
            }
        }
        return texts;
    }

private:
    const std::shared_ptr<zel::logging::CapturingSink> m_sink = std::make_shared<zel::logging::CapturingSink>();
    const std::shared_ptr<zel::logging::ISink> m_before = zel::logging::Logger::SetSink(m_sink);
};

/// A publisher of A and B. It goes as if killed: nothing is saved at the end.
class Publisher
{
public:
    explicit Publisher(const std::string& url, std::int64_t bytes = 1'000'000, const std::string& price = "10")
        : m_transport(MakeOptions(url, bytes))
        , m_publisher(m_transport)
        , m_thread([this, price] { Run(price); })
    {
    }
    ~Publisher()
    {
        m_isStopping = true;
        m_thread.join();
        m_transport.Stop();
    }
    std::uint64_t GetKept() const { return m_publisher.GetCounts().kept; }
    bool IsConnected() const { return m_publisher.IsConnected(); }

private:
    static NatsOptions MakeOptions(const std::string& url, std::int64_t bytes)
    {
        NatsOptions options;
        options.url = url;
        options.lastValuesBytes = bytes;
        return options;
    }
    void Run(const std::string& price)
    {
        m_publisher.Start({Listed("A"), Listed("B/b")});
        m_publisher.Publish(BookMessage(0, true, {Bid(price.c_str(), "1")}));
        m_publisher.Publish(BookMessage(1, true, {Ask(price.c_str(), "2")}));
        while (!m_isStopping)
        {
            m_publisher.WaitForWork(std::chrono::steady_clock::now() + 5ms);
            m_publisher.Tick();
        }
    }

    NatsTransport m_transport;
    ZelPublisher m_publisher;
    std::atomic<bool> m_isStopping{false};
    std::thread m_thread;
};

std::unique_ptr<ZelProvider> StartProvider(const std::string& url)
{
    NatsOptions nats;
    nats.url = url;
    ZelOptions options;
    options.markets = {{1, "M"}};
    auto provider = std::make_unique<ZelProvider>(std::make_unique<NatsTransport>(nats), options);
    provider->Start();
    return provider;
}

std::shared_ptr<RecordingListener> Subscribe(ZelProvider& provider, const std::string& symbol)
{
    auto listener = std::make_shared<RecordingListener>();
    EXPECT_NE(provider.Subscribe(Request(1, symbol, true), listener), SubscribeStatus::Failed);
    return listener;
}

TEST(NatsLastValues, ShowTheBooksOfADeadPublisherAndFreshOnesOfItsHeir)
{
    KeepingBroker test;
    {
        Publisher publisher(test.broker.GetUrl());
        ASSERT_TRUE(WaitUntil([&] { return publisher.GetKept() >= 2; }));
    }
    const auto provider = StartProvider(test.broker.GetUrl());
    ASSERT_TRUE(WaitUntil([&] { return provider->GetDirectory().IsComplete(1); }));
    EXPECT_EQ(provider->GetDirectory().GetSize(), 2U);
    const auto a = Subscribe(*provider, "A");
    const auto b = Subscribe(*provider, "B/b");
    ASSERT_TRUE(WaitUntil([&] { return a->GetBookCount() != 0 && b->GetBookCount() != 0; }));
    EXPECT_EQ(a->PrintBook(), "10x1 |");
    EXPECT_EQ(b->PrintBook(), "| 10x2");
    EXPECT_TRUE(a->IsStale());
    EXPECT_TRUE(b->IsStale());
    EXPECT_EQ(provider->GetCounts().lastValues, 2U);
    EXPECT_EQ(provider->GetCounts().live, 0U);

    Publisher heir(test.broker.GetUrl(), 1'000'000, "30");
    ASSERT_TRUE(WaitUntil([&] { return !a->IsStale() && !b->IsStale() && b->PrintBook() == "| 30x2"; }));
    EXPECT_EQ(a->PrintBook(), "30x1 |");
    EXPECT_EQ(a->GetOrderFaults(), 0U);
    provider->Stop();
}

TEST(NatsLastValues, AreThereAgainWhenTheBrokerWasRestarted)
{
    KeepingBroker test;
    Publisher publisher(test.broker.GetUrl());
    ASSERT_TRUE(WaitUntil([&] { return publisher.GetKept() >= 2; }));
    test.broker.Kill();
    ASSERT_TRUE(WaitUntil([&] { return !publisher.IsConnected(); }));
    const std::uint64_t before = publisher.GetKept();
    test.broker.Start();
    EXPECT_TRUE(WaitUntil([&] { return publisher.GetKept() >= before + 2; }));
}

TEST(NatsLastValues, AreNoFailureOfABrokerThatKeepsNothing)
{
    const Complaints complaints;
    BrokerProcess broker;
    Publisher publisher(broker.GetUrl());
    const auto provider = StartProvider(broker.GetUrl());
    ASSERT_TRUE(WaitUntil([&] { return provider->GetDirectory().IsComplete(1); }));
    const auto a = Subscribe(*provider, "A");
    EXPECT_TRUE(WaitUntil([&] { return a->PrintBook() == "10x1 |" && !a->IsStale(); }));
    EXPECT_TRUE(WaitUntil([&] { return complaints.Get().size() == 1; }));
    EXPECT_THAT(complaints.Get().at(0), HasSubstr("keeps no last values: it has no JetStream"));
    EXPECT_EQ(publisher.GetKept(), 0U);
    provider->Stop();
}

TEST(NatsLastValues, AreNoFailureForWhoHasNoRight)
{
    Folder folder;
    const std::string file = folder.GetName() + "/broker.conf";
    std::ofstream(file)
        << "jetstream { store_dir: \"" << folder.GetName()
        << "\" }\nauthorization { default_permissions: { publish: [\"zel.prices.>\", \"zel.control.*\", "
           "\"zel.requests.*\"], subscribe: [\"zel.>\"] }, users: [ { user: u, password: p } ] }\n";
    BrokerProcess broker({"-c", file});
    const Complaints complaints;
    const std::string url = "nats://u:p@" + broker.GetUrl().substr(std::string("nats://").size());
    Publisher publisher(url);
    const auto provider = StartProvider(url);
    ASSERT_TRUE(WaitUntil([&] { return provider->GetDirectory().IsComplete(1); }));
    const auto a = Subscribe(*provider, "A");
    EXPECT_TRUE(WaitUntil([&] { return a->PrintBook() == "10x1 |" && !a->IsStale(); }));
    EXPECT_TRUE(WaitUntil([&] { return !complaints.Get().empty(); }));
    EXPECT_THAT(complaints.Get(), SizeIs(1)) << "the publisher's question for the stream";
    EXPECT_EQ(publisher.GetKept(), 0U);
    provider->Stop();
}

} // namespace
} // namespace ps_ns
