#include "composite_instrument/local_observer_factory.h"

namespace ps_ns
{
namespace
{

class SilentObserver final : public ICompositePriceObserver
{
public:
    SilentObserver()
        : ICompositePriceObserver("local")
    {
    }

    void OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long, const PriceFormat&,
                     CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
    }
    void OnAddScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnOrderBook(const CompositeInstrumentDef&, const std::shared_ptr<const MergedOrderBook>&) override {}
    void OnTrades(const CompositeInstrumentDef&, const std::shared_ptr<const std::vector<Trade>>&) override {}
    void OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&) override {}
    void OnUnsubscribe(const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }
};

} // namespace

std::shared_ptr<ICompositePriceObserver> LocalObserverFactory::CreateLocalObserver(const CompositeInstrumentDef&)
{
    return std::make_shared<SilentObserver>();
}

} // namespace ps_ns
