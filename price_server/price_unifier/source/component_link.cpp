#include "price_unifier/source/component_link.h"

#include <utility>

namespace ps_ns
{

ComponentLink::ComponentLink(CompositeComponentType::Type component, std::shared_ptr<SubscriptionCore> core)
    : m_core(std::move(core))
    , m_component(component)
{
}

ComponentLink::~ComponentLink()
{
    // Let go without an answer: the unsubscribe has failed, as far as anybody knows.
    OnUnsubscribed(false);
}

void ComponentLink::Detach(bool forSymbolChange)
{
    m_forSymbolChange.store(forSymbolChange);
    m_core->ExcludeAndExpect(m_isLive, forSymbolChange);
    m_owesAnswer.store(true);
}

template <class Call>
void ComponentLink::DeliverIfLive(Call call)
{
    if (!m_isLive.load())
    {
        return;
    }
    m_core->Run(
        [self = shared_from_this(), call = std::move(call)](SubscriptionCore& core)
        {
            if (self->m_isLive.load())
            {
                call(*self, core);
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
        [update = std::move(update)](ComponentLink& link, SubscriptionCore& core)
        {
            core.GetDelivery().OnBook(link.m_component, *update);
            core.NoteSnapshot();
        });
}

void ComponentLink::OnTrades(std::shared_ptr<const std::vector<Trade>> trades)
{
    DeliverIfLive([trades = std::move(trades)](ComponentLink& link, SubscriptionCore& core)
                  { core.GetDelivery().OnTrades(link.m_component, trades); });
}

void ComponentLink::OnCustomFields(std::shared_ptr<const CustomFields> fields)
{
    DeliverIfLive([fields = std::move(fields)](ComponentLink& link, SubscriptionCore& core)
                  { core.GetDelivery().OnCustomFields(link.m_component, fields); });
}

void ComponentLink::OnStale(bool isStale)
{
    DeliverIfLive(
        [isStale](ComponentLink& link, SubscriptionCore& core)
        {
            if (PriceDelivery* const delivery = core.FindDelivery()) // without one there is nothing to be out of date
            {
                delivery->OnStale(link.m_component, isStale);
            }
        });
}

void ComponentLink::OnUnsubscribed(bool ok)
{
    if (m_owesAnswer.exchange(false))
    {
        m_core->GetGate().OnAnswer(m_forSymbolChange.load(), ok);
    }
}

} // namespace ps_ns
