#include "price_unifier/source/composite_subscription_mgr.h"

#include "price_unifier/source/composite_instrument_subscription.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <cmath>
#include <limits>

namespace ps_ns
{
namespace
{

enum GaugeIndex : unsigned
{
    PendingGauge = 0,
    ZelGauge = 1,
    MdsGauge = 2
};

struct GaugeText
{
    const char* name;
    const char* help;
};

// The last two are registered and never moved: this edition has no synthetics.
constexpr std::array<GaugeText, 5> kGauges{{
    {"unifier_subscriptions_pending_provider", "number of subscriptions pending provider selection logic"},
    {"unifier_subscriptions_zel", "number of subscriptions using the ZEL provider"},
    {"unifier_subscriptions_mds", "number of subscriptions using the in-process MDS provider"},
    {"unifier_subscriptions_synthetic", "number of subscriptions using the unifier synthetics feature"},
    {"unifier_subscriptions_synthetic_flexible",
     "number of subscriptions using the unifier synthetics feature on the flexible api"},
}};

/// The nearest whole number, halves away from zero; 0 for what is not positive.
std::uint64_t ToCount(double value) noexcept
{
    if (!(value > 0))
    {
        return 0;
    }
    const double rounded = std::round(value);
    constexpr double kTooLarge = 18446744073709551616.0; // 2^64
    return rounded < kTooLarge ? static_cast<std::uint64_t>(rounded) : std::numeric_limits<std::uint64_t>::max();
}

} // namespace

void CompositeSubscriptionMgr::RegisterGauges()
{
    for (unsigned index = 0; index < kGauges.size(); ++index)
    {
        m_gauges.Create(index, zel::metrics::Metric{kGauges[index].name, kGauges[index].help, {}});
    }
}

zel::metrics::Gauge& CompositeSubscriptionMgr::SubscriptionGaugeInstance(ProviderType::Value provider)
{
    return m_gauges[provider == ProviderType::Mds ? MdsGauge : ZelGauge];
}

zel::metrics::Gauge&
CompositeSubscriptionMgr::SubscriptionGaugeInstance(const CompositeInstrumentSubscription* subscription)
{
    return SubscriptionGaugeInstance(subscription->GetProviderType());
}

zel::metrics::Gauge& CompositeSubscriptionMgr::SubscriptionPendingGaugeInstance()
{
    return m_gauges[PendingGauge];
}

std::pair<std::uint64_t, std::uint64_t> CompositeSubscriptionMgr::GetSubscriptionCounts()
{
    const double zel = SubscriptionGaugeInstance(ProviderType::Zel).Get();
    const double mds = SubscriptionGaugeInstance(ProviderType::Mds).Get();
    return {ToCount(zel), ToCount(mds)};
}

void CompositeSubscriptionMgr::UpdateSnapshotTime(unsigned long duration_ns)
{
    m_snapshotCallbackTime.Update(duration_ns);
}

void CompositeSubscriptionMgr::UpdateTradesTime(unsigned long duration_ns)
{
    m_tradesCallbackTime.Update(duration_ns);
}

const CallbackTimeStats& CompositeSubscriptionMgr::GetSnapshotCallbackTime() const
{
    return m_snapshotCallbackTime;
}

const CallbackTimeStats& CompositeSubscriptionMgr::GetTradesCallbackTime() const
{
    return m_tradesCallbackTime;
}

CallbackTimeStats CompositeSubscriptionMgr::GetAndResetSnapshotCallbackTime()
{
    return m_snapshotCallbackTime.GetAndReset();
}

CallbackTimeStats CompositeSubscriptionMgr::GetAndResetTradesCallbackTime()
{
    return m_tradesCallbackTime.GetAndReset();
}

void CompositeSubscriptionMgr::DumpSubscriptions(unsigned long limit) const
{
    Post([this, limit] { m_simpleSubscriptionMgr->DumpSubscriptions(limit); });
}

} // namespace ps_ns
