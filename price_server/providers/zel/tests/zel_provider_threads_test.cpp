#include "zel/zel_provider.h"

#include "test_support.h"
#include "zel/wire_format.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <future>
#include <mutex>
#include <optional>

namespace ps_ns
{
namespace
{

using namespace testing_ns;
using namespace std::chrono_literals;

/// Writes down what it is asked to do. Threads: any.
class RecordingTransport final : public IProviderTransport
{
public:
    void Connect(ITransportListener& listener) override
    {
        Note("connect");
        m_listener = &listener;
        listener.OnTransportState(true);
    }
    void Stop() override {}
    void SubscribeShard(std::optional<unsigned>) override { Note("subscribe"); }
    void UnsubscribeShard(unsigned) override {}
    void SubscribeControl() override {}
    void SubscribeRequests(const std::string&) override {}
    bool Publish(const TransportAddress&, std::span<const std::byte>) override { return true; }
    bool AskForImages(std::string_view, std::span<const std::byte> request) override
    {
        if (const auto indexes = ReadImageRequest(request))
        {
            for (const std::uint32_t index : *indexes)
            {
                Note("image " + std::to_string(index));
            }
        }
        return true;
    }
    bool AskForLastValue(const TransportAddress&) override { return true; }
    bool Flush(std::chrono::milliseconds) override { return true; }
    bool IsConnected() const override { return true; }
    std::string Describe() const override { return "recording"; }

    /// As the publisher of market M.
    void Say(const WireBuffer& message)
    {
        m_listener->OnTransportMessage({TransportChannel::Control, "M", {}}, message);
    }
    bool WaitFor(const std::string& call, std::chrono::seconds patience = 20s)
    {
        std::unique_lock lock(m_mutex);
        return m_called.wait_for(lock, patience,
                                 [&] { return std::find(m_calls.begin(), m_calls.end(), call) != m_calls.end(); });
    }
    std::vector<std::string> GetCalls()
    {
        const std::lock_guard lock(m_mutex);
        return m_calls;
    }

private:
    void Note(const std::string& call)
    {
        const std::lock_guard lock(m_mutex);
        m_calls.push_back(call);
        m_called.notify_all();
    }

    ITransportListener* m_listener = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_called;
    std::vector<std::string> m_calls;
};

WireInstrument Instrument(std::uint32_t index, const char* symbol)
{
    return {index, {}, symbol, symbol, "M", {}};
}

TEST(ZelProviderThreads, ListensBeforeItConnects)
{
    auto made = std::make_unique<RecordingTransport>();
    RecordingTransport& transport = *made;
    ZelOptions options;
    options.markets = {{1, "M"}};
    options.isHandDriven = true;
    options.shards = {3, 4};
    ZelProvider provider(std::move(made), options);
    provider.Start();
    EXPECT_THAT(transport.GetCalls(), ::testing::ElementsAre("subscribe", "subscribe", "connect"));
}

TEST(ZelProviderThreads, AskForImagesWhileARenameStepWaitsForBusyExecutors)
{
    std::promise<void> isRenaming;
    std::promise<void> mayEnd;
    ZelOptions options;
    options.markets = {{1, "M"}};
    options.renameStep = [&](const std::vector<SymbolRename>&, const std::function<void()>& make)
    {
        isRenaming.set_value();
        mayEnd.get_future().wait();
        make();
    };
    auto made = std::make_unique<RecordingTransport>();
    RecordingTransport& transport = *made;
    ZelProvider provider(std::move(made), options);
    provider.Start();
    WireBuffer message;
    const std::vector<WireInstrument> listed{Instrument(0, "A"), Instrument(1, "B")};
    WriteDirectory(message, {WireKind::Directory, 0, 5, 1}, 1, listed);
    transport.Say(message);
    WriteRenames(message, {WireKind::Rename, 0, 5, 2}, std::vector<WireRename>{{0, "A", "X"}});
    transport.Say(message);
    isRenaming.get_future().wait();

    const auto listener = std::make_shared<RecordingListener>();
    EXPECT_EQ(provider.Subscribe(Request(1, "B"), listener), SubscribeStatus::Subscribed);
    EXPECT_TRUE(transport.WaitFor("image 1")) << "nobody else waits with a rename";
    EXPECT_TRUE(provider.GetDirectory().Find(1, -1, "A"));
    mayEnd.set_value();
    provider.Stop();
    EXPECT_TRUE(provider.GetDirectory().Find(1, -1, "X")) << "a step that has begun is finished";
}

} // namespace
} // namespace ps_ns
