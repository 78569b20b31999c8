#include "quiet_observers.h"

namespace compare
{
namespace
{

template <int kKind>
class QuietFlexibleObserver final : public ps_ns::IFlexiblePriceObserver
{
public:
    QuietFlexibleObserver()
        : IFlexiblePriceObserver("quiet")
    {
    }
    void OnSubscribe(unsigned long, const ps_ns::CompositeInstrumentDef&, const ps_ns::EventInfo&, Result,
                     unsigned long, const ps_ns::PriceFormat&, ps_ns::CompositeComponentType::Type,
                     const ps_ns::CompositeSubscriptionState&) override
    {
    }
    void OnChangeScope(unsigned long, const ps_ns::CompositeInstrumentDef&, Result) override {}
    void OnOrderBook(unsigned long, const ps_ns::CompositeInstrumentDef&,
                     const std::shared_ptr<const ps_ns::MergedOrderBook>& book) override
    {
        m_levels += book->bids.count + kKind;
    }
    void OnTrades(unsigned long, const ps_ns::CompositeInstrumentDef&,
                  const std::shared_ptr<const std::vector<ps_ns::Trade>>&) override
    {
    }
    void OnCustomFields(unsigned long, const ps_ns::CompositeInstrumentDef&,
                        const std::shared_ptr<const ps_ns::CustomFields>&) override
    {
    }
    void OnUnsubscribe(unsigned long, const ps_ns::CompositeInstrumentDef&, Result, ps_ns::CompositeComponentType::Type,
                       const ps_ns::CompositeSubscriptionState&) override
    {
    }

private:
    std::uint64_t m_levels = 0;
};

} // namespace

std::shared_ptr<ps_ns::IFlexiblePriceObserver> MakeQuietFlexibleObserver(int kind)
{
    switch (kind)
    {
    case 0:
        return std::make_shared<QuietFlexibleObserver<0>>();
    case 1:
        return std::make_shared<QuietFlexibleObserver<1>>();
    case 2:
        return std::make_shared<QuietFlexibleObserver<2>>();
    default:
        return std::make_shared<QuietFlexibleObserver<3>>();
    }
}

} // namespace compare
