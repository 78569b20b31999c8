#pragma once

#include "mds/instrument_feed.h"
#include "mds/update_pools.h"
#include "simple_subscription/i_price_provider.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace ps_ns::broker_soak
{

/// A provider of type MDS that has the books of all the flow's instruments from the beginning, and lists them one by
/// one: what is not listed yet is undecided, and served by ZEL meanwhile.
///
/// Threads: Take on the flow's thread; the rest on any.
class LateMds final : public IPriceProvider
{
public:
    explicit LateMds(const std::vector<SourceInstrument>& instruments);

    /// A message of the flow.
    void Take(const MarketMessage& message);
    void List(std::size_t instrument);
    void MarkComplete();

    ProviderType::Value GetType() const override { return ProviderType::Mds; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override;
    int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener) override;
    void ChangeScope(const std::shared_ptr<IComponentListener>&, const CompositeSubscriptionInfo&) override {}
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override;
    std::size_t GetSubscriptionCount() const;

private:
    static constexpr std::size_t kInFlight = 1 << 20; ///< nobody waits for room

    InstrumentDirectory m_directory;
    UpdatePools m_pools{kInFlight};
    std::vector<std::unique_ptr<InstrumentFeed>> m_feeds;
    MarketMessage m_message; ///< the flow's thread
    mutable std::mutex m_mutex;
    std::unordered_map<const IComponentListener*, InstrumentFeed*> m_subscriptions; ///< under m_mutex
};

} // namespace ps_ns::broker_soak
