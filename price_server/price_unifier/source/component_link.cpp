#include "price_unifier/source/component_link.h"

#include <utility>

namespace ps_ns
{

ComponentLink::ComponentLink(CompositeComponentType::Type component, std::shared_ptr<SubscriptionCore> core,
                             std::shared_ptr<UnsubscribeGate> gate)
    : m_component(component)
    , m_core(std::move(core))
    , m_gate(std::move(gate))
{
}

ComponentLink::~ComponentLink()
{
    // Let go without an answer: the unsubscribe has failed, as far as anybody knows.
    OnUnsubscribed(false);
}

void ComponentLink::Detach(bool forSymbolChange)
{
    m_core->Exclude(m_isLive);
    m_forSymbolChange.store(forSymbolChange);
    m_gate->Expect(forSymbolChange);
    m_owesAnswer.store(true);
}

template <class Call>
void ComponentLink::DeliverIfLive(Call call)
{
    if (!m_isLive.load())
    {
        return;
    }
    m_core->Deliver(
        [self = shared_from_this(), call = std::move(call)](PriceDelivery& delivery)
        {
            if (self->m_isLive.load())
            {
                call(*self, delivery);
            }
        });
}

void ComponentLink::OnSubscribed(ps_messages_ns::SubscriptionResult::Value result, const PriceFormat& format)
{
    m_core->OnAnswer(m_isLive, m_component, result, format);
}

void ComponentLink::OnBook(std::shared_ptr<const BookUpdate> update)
{
    DeliverIfLive(
        [update = std::move(update)](ComponentLink& link, PriceDelivery& delivery)
        {
            delivery.OnBook(link.m_component, *update);
            link.m_core->NoteSnapshot();
        });
}

void ComponentLink::OnTrades(std::shared_ptr<const std::vector<Trade>> trades)
{
    DeliverIfLive([trades = std::move(trades)](ComponentLink& link, PriceDelivery& delivery)
                  { delivery.OnTrades(link.m_component, trades); });
}

void ComponentLink::OnCustomFields(std::shared_ptr<const CustomFields> fields)
{
    DeliverIfLive([fields = std::move(fields)](ComponentLink& link, PriceDelivery& delivery)
                  { delivery.OnCustomFields(link.m_component, fields); });
}

void ComponentLink::OnStale(bool isStale)
{
    DeliverIfLive([isStale](ComponentLink& link, PriceDelivery& delivery)
                  { delivery.OnStale(link.m_component, isStale); });
}

void ComponentLink::OnUnsubscribed(bool ok)
{
    if (m_owesAnswer.exchange(false))
    {
        m_gate->OnAnswer(m_forSymbolChange.load(), ok);
    }
}

} // namespace ps_ns
