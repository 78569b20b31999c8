#include "server/price_gate.h"

namespace ps_ns
{

bool PriceGate::WaitUntilOpen()
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_state != State::Closed; });
    return m_state == State::Open;
}

void PriceGate::Set(State state)
{
    const std::lock_guard lock(m_mutex);
    m_state = m_state == State::Abandoned ? State::Abandoned : state;
    m_changed.notify_all();
}

bool GatedSource::Enter()
{
    m_isOpen = m_isOpen || m_gate->WaitUntilOpen();
    return m_isOpen;
}

std::optional<NextMessage> GatedSource::Peek()
{
    return Enter() ? m_source->Peek() : std::nullopt;
}

bool GatedSource::Next(MarketMessage& message)
{
    return Enter() && m_source->Next(message);
}

} // namespace ps_ns
