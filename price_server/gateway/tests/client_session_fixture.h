#pragma once

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
#include <utility>
#include <vector>

namespace ps_ns::gateway
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
        std::exchange(beforeRequest, [] {})();
        if (isOpen)
        {
            request(*bench.manager);
        }
        return isOpen;
    }
    bool RunOnQueue(std::function<void(CompositeSubscriptionMgr&, SimpleSubscriptionMgr&)> task) override
    {
        if (isOpen)
        {
            tasks.push_back([this, task = std::move(task)] { task(*bench.manager, *bench.simple); });
        }
        return isOpen;
    }
    const MarketTable& GetMarkets() const override { return bench.simple->GetMarkets(); }
    std::vector<DirectoryEntry> GetDirectoryEntries() const override { return bench.mds->Directory().GetEntries(); }
    DirectoryVersion GetDirectoryVersion() const override
    {
        return {bench.mds->Directory().GetVersion(), bench.mds->Directory().GetChangeCount()};
    }
    std::vector<ProviderView> GetProviders() const override { return {}; }
    bool IsReady() const override { return isReady; }

    ManagerBench bench{ManagerBench::Options{.withZel = false}};
    std::deque<std::function<void()>> tasks;     ///< for the queue thread
    std::function<void()> beforeRequest = [] {}; ///< while the next request waits to be made
    bool isOpen = true;
    bool isReady = true;
};

inline GatewayOptions MakeOptions()
{
    GatewayOptions options;
    options.tokens = {{"one", "token-one", {{"ONE"}, false}}};
    options.limits.conflate_bytes = 2000;
    options.limits.close_bytes = 80'000;
    options.limits.subscriptions = 3;
    return options;
}

inline std::string ToText(const OutboundBatch& batch)
{
    std::string text;
    batch.ForEachPart([&](std::string_view part) { text += part; });
    return text;
}

/// What a session has to send, as objects.
inline Objects Write(ClientSession& session)
{
    Objects objects;
    while (session.HasOutput())
    {
        OutboundBatch batch = session.BeginWrite();
        std::istringstream lines(ToText(batch));
        for (std::string line; std::getline(lines, line);)
        {
            objects.push_back(json::parse(line).as_object());
        }
        session.FinishWrite(std::move(batch));
    }
    return objects;
}

/// "image 1", "error unknown_instrument", "result 100" and so on.
inline std::string Summarize(const Objects& objects)
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

} // namespace ps_ns::gateway
