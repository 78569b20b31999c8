#include "simple_subscription/market_table.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace ps_ns
{

MarketTable::MarketTable(std::vector<Market> markets)
    : m_markets(std::move(markets))
{
    for (std::size_t index = 0; index < m_markets.size(); ++index)
    {
        const Market& market = m_markets[index];
        const std::string text = "market " + std::to_string(market.id) + " \"" + market.name + "\": ";
        if (!m_indexById.emplace(market.id, index).second)
        {
            throw std::invalid_argument(text + "the id is there twice");
        }
        if (FindByName(market.name) != &market)
        {
            throw std::invalid_argument(text + "the name is there twice");
        }
        if (market.defaultDepth > market.maxDepth)
        {
            throw std::invalid_argument(text + "the default depth " + std::to_string(market.defaultDepth) +
                                        " is above the maximum " + std::to_string(market.maxDepth));
        }
    }
}

const Market& MarketTable::Get(short marketId) const
{
    static const Market kUnnamed;
    const auto found = m_indexById.find(marketId);
    return found == m_indexById.end() ? kUnnamed : m_markets[found->second];
}

const Market* MarketTable::FindByName(const std::string& name) const
{
    const auto found =
        std::find_if(m_markets.begin(), m_markets.end(), [&](const Market& market) { return market.name == name; });
    return found == m_markets.end() ? nullptr : &*found;
}

} // namespace ps_ns
