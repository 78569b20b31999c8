#include "zel/zel_provider.h"
#include "zel_market.h"

namespace ps_ns
{

bool ZelProvider::IsServed(const ZelInstrument& instrument) const
{
    return m_served.empty() || m_served[instrument.shard];
}

bool ZelProvider::IsServedElsewhere(const ZelInstrument& instrument) const
{
    return !IsServed(instrument) && m_options.isServedElsewhere && m_options.isServedElsewhere(instrument.shard);
}

void ZelProvider::ServeShard(std::uint32_t shard)
{
    m_transport->SubscribeShard(shard); // before images are asked for
    const ScopedRoleLock lock(m_mutex, m_role);
    m_served.at(shard) = true;
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        for (const std::unique_ptr<ZelInstrument>& instrument : market->instruments)
        {
            if (instrument->shard == shard && instrument->feed.HasListeners())
            {
                Follow(*instrument);
            }
        }
    }
}

void ZelProvider::LeaveShard(std::uint32_t shard)
{
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        m_served.at(shard) = false;
        for (const std::unique_ptr<ZelMarket>& market : m_markets)
        {
            for (const std::unique_ptr<ZelInstrument>& instrument : market->instruments)
            {
                if (instrument->shard == shard && instrument->state != ZelInstrument::State::Idle)
                {
                    Await(*instrument); // its listeners hear that it is stale
                    instrument->state = ZelInstrument::State::Idle;
                    --m_counts.followed;
                    --market->awaited;
                }
            }
        }
    }
    m_transport->UnsubscribeShard(shard);
}

} // namespace ps_ns
