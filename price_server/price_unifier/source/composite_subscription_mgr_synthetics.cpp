#include "price_unifier/source/composite_subscription_mgr.h"

#include "price_unifier/source/detail/manager_log.h"
#include "price_unifier/source/synthetic_price_subscription.h"
#include "simple_subscription/simple_subscription_mgr.h"

namespace ps_ns
{
namespace
{

/// The submarket that an exchange's name says; -1 when it says none.
short GetSubmarketId(const std::string& exchange)
{
    if (exchange == "ICE" || exchange == "ICE_L")
    {
        return 1;
    }
    if (exchange == "ICEO" || exchange == "ICE_LO")
    {
        return 2;
    }
    const std::size_t size = exchange.size();
    if (size > 2 && exchange[size - 2] == '_' && exchange[size - 1] >= '0' && exchange[size - 1] <= '9')
    {
        return static_cast<short>(exchange[size - 1] - '0');
    }
    return -1;
}

} // namespace

Submarket GetSyntheticExecutorSubmarket(const CompositeInstrumentDef& def)
{
    if (def.legs.empty())
    {
        return {-1, -1};
    }
    const SyntheticLeg& leg = GetLeg(def.legs.front());
    const bool isInstrument = leg.kind == SyntheticLeg::kInstrument && leg.instrument != nullptr;
    return {leg.GetIdentity().marketId, isInstrument ? GetSubmarketId(leg.instrument->def.exchange) : short{-1}};
}

std::shared_ptr<Executor> CompositeSubscriptionMgr::GetSyntheticExecutor(const CompositeInstrumentDef& def)
{
    const InstrumentDef instrument = def.instrument;
    const Submarket submarket = GetSyntheticExecutorSubmarket(def);
    std::shared_ptr<Executor> executor =
        m_simpleSubscriptionMgr->GetExecutor(submarket, instrument.exchange, instrument.symbol);
    if (executor == nullptr)
    {
        detail::LogManager({30, detail::kSyntheticTag},
                           [&](std::ostream& text)
                           {
                               text << detail::kSyntheticPrefix << "no executor for leg0 submarket="
                                    << "market_id=" << submarket.marketId << " submarket_id=" << submarket.submarketId
                                    << " " << def.ToString();
                           });
    }
    return executor;
}

bool CompositeSubscriptionMgr::IsSyntheticSupported(const CompositeInstrumentDef& def) const
{
    const auto [provider, isFinal] = m_simpleSubscriptionMgr->GetProviderType(ProviderFunction::Prices, def.marketId,
                                                                              def.submarketId, def.GetSymbol());
    return provider != ProviderType::Mds && isFinal && def.IsSyntheticComposite();
}

void CompositeSubscriptionMgr::FlexibleSyntheticSubscribe(const CompositeInstrumentDef& def,
                                                          const CompositeSubscriptionInfo&, LocalObserverFactory&,
                                                          const std::shared_ptr<IFlexiblePriceObserver>&, unsigned long)
{
    // Another text than the direct interface's refusal: that is meant.
    detail::LogManager(
        {30, detail::kSyntheticTag}, [&](std::ostream& text)
        { text << detail::kSyntheticPrefix << "request for " << def.ToString() << " not supported on windows"; });
}

void CompositeSubscriptionMgr::FlexibleSyntheticChangeScope(const CompositeInstrumentDef&,
                                                            const CompositeSubscriptionInfo&,
                                                            const std::shared_ptr<IFlexiblePriceObserver>&,
                                                            unsigned long, bool)
{
}

void CompositeSubscriptionMgr::FlexibleSyntheticUnsubscribe(const CompositeInstrumentDef&,
                                                            const std::shared_ptr<IFlexiblePriceObserver>&,
                                                            unsigned long)
{
}

void CompositeSubscriptionMgr::SyntheticUnsubscribeImpl(std::shared_ptr<SyntheticPriceSubscription>, unsigned long) {}

void CompositeSubscriptionMgr::FlexibleSyntheticUnsubscribeImpl(std::shared_ptr<SyntheticPriceSubscription>) {}

std::shared_ptr<SyntheticPriceSubscription>
CompositeSubscriptionMgr::GetSyntheticPriceSubscription(unsigned long, const CompositeInstrumentDef&) const
{
    return {};
}

std::shared_ptr<SyntheticPriceSubscription>
CompositeSubscriptionMgr::GetFlexibleSyntheticPriceSubscription(const CompositeInstrumentDef&) const
{
    return {};
}

ICompositePriceObserver* GetLocalObserverShimFromSynthetic(SyntheticPriceSubscription&)
{
    return nullptr;
}

void CompositeSubscriptionMgr::OnSyntheticUnsubscribeComplete(unsigned long handle, const CompositeInstrumentDef& def)
{
    Post([this, handle, def = def] { RunSyntheticUnsubscribeComplete(handle, def); });
}

void CompositeSubscriptionMgr::RunSyntheticUnsubscribeComplete(unsigned long handle, const CompositeInstrumentDef& def)
{
    AssertOnQueueThread(m_dataQueue);
    // The handle wins: when it is filed, the identity is left alone even if it is filed too.
    const bool found = m_pendingSyntheticUnsubscribeByHandle.erase(handle) != 0 ||
                       m_pendingSyntheticUnsubscribeByCompositeInstrumentID.erase(CompositeInstrumentID(def)) != 0;
    detail::LogManager({found ? 0 : 20, detail::kSyntheticTag},
                       [&](std::ostream& text)
                       {
                           text << detail::kSyntheticPrefix << "OnSyntheticUnsubscribeComplete."
                                << " cdef " << def.ToStringShortCached() << " handle=" << handle
                                << (found ? " lifecycle complete" : " not found");
                       });
}

} // namespace ps_ns
