#pragma once

#include "mds/market_source.h"
#include "test_support.h"
#include "zel/zel_provider.h"
#include "zel/zel_publisher.h"
#include "zel_testing/memory_broker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace ps_ns::testing_ns
{

/// A publisher and a provider with a broker in memory between them; time, delivery and ticks in the test's hand.
class ZelBench
{
public:
    explicit ZelBench(std::vector<SourceInstrument> instruments = {Listed("A"), Listed("B"), Listed("C")},
                      ZelOptions options = {})
        : publisherTransport(broker.MakeTransport())
        , listed(std::move(instruments))
    {
        options.isHandDriven = true;
        options.now = [this] { return now; };
        if (options.markets.empty())
        {
            options.markets = {{1, "M"}, {2, "N"}};
        }
        std::unique_ptr<MemoryTransport> transport = broker.MakeTransport();
        providerTransport = transport.get();
        provider = std::make_unique<ZelProvider>(std::move(transport), std::move(options));
    }
    ~ZelBench()
    {
        provider->Stop();
        publisherTransport->Stop();
    }

    void StartPublisher()
    {
        ZelPublisherOptions options;
        options.now = [this] { return now; };
        options.wallTime_ns = [this] { return ++wallTime_ns; };
        publisher = std::make_unique<ZelPublisher>(*publisherTransport, options);
        publisher->Start(listed);
    }
    /// Another process takes the publisher's place: it has the books, and begins an epoch.
    void RestartPublisher()
    {
        const std::unique_ptr<ZelPublisher> old = std::move(publisher);
        StartPublisher();
        publisher->Tick();
        for (std::size_t i = 0; i < listed.size(); ++i)
        {
            MarketMessage image;
            image.instrument = static_cast<InstrumentIndex>(i);
            image.isImage = true;
            old->GetBook(image.instrument).WriteImage(image.changes);
            publisher->Publish(image);
        }
    }
    /// Lets both do what is due, until nothing is left to do. Time stands still.
    void Settle()
    {
        std::size_t done = 0;
        do
        {
            provider->Tick();
            done = broker.Deliver();
            done += publisher != nullptr ? publisher->Tick() : 0;
        } while (done != 0 || !broker.waiting.empty());
        provider->Tick();
    }
    /// As time goes by, in steps that are short enough for nobody to count as silent.
    void Pass(std::chrono::milliseconds time)
    {
        for (; time.count() > 0; time -= std::chrono::milliseconds(50))
        {
            now += std::chrono::milliseconds(50);
            Settle();
        }
    }
    void Start()
    {
        provider->Start();
        StartPublisher();
        Settle();
    }

    std::shared_ptr<RecordingListener> Subscribe(const std::string& symbol, int status = SubscribeStatus::Subscribed,
                                                 short marketId = 1, bool trades = true)
    {
        auto listener = std::make_shared<RecordingListener>();
        EXPECT_EQ(provider->Subscribe(Request(marketId, symbol, trades), listener), status) << symbol;
        return listener;
    }
    void Publish(InstrumentIndex instrument, bool isImage, std::vector<BookUpdate::Change> changes)
    {
        publisher->Publish(BookMessage(instrument, isImage, std::move(changes), 1, ++messageTime_ns));
    }
    void PublishTrade(InstrumentIndex instrument, std::uint64_t id)
    {
        MarketMessage message;
        message.instrument = instrument;
        Trade& trade = message.trades.emplace_back();
        trade.price = P("1");
        trade.quantity = Q("1");
        trade.venueId = id;
        publisher->Publish(message);
    }
    std::string PublishedBook(InstrumentIndex instrument) const { return Print(publisher->GetBook(instrument)); }

    MemoryBroker broker;
    std::unique_ptr<MemoryTransport> publisherTransport;
    MemoryTransport* providerTransport = nullptr; ///< the provider's
    const std::vector<SourceInstrument> listed;
    ZelOptions::Clock::time_point now{std::chrono::hours(1)};
    std::uint64_t wallTime_ns = 1'000'000;
    std::uint64_t messageTime_ns = 0;
    std::unique_ptr<ZelPublisher> publisher;
    std::unique_ptr<ZelProvider> provider;
};

} // namespace ps_ns::testing_ns
