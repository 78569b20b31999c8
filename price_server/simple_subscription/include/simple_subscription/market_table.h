#pragma once

#include <string>
#include <unordered_map>
#include <vector>

namespace ps_ns
{

/// A market and what its composite subscriptions get when the client does not say.
struct Market
{
    static constexpr unsigned kUsualDefaultDepth = 10;
    static constexpr unsigned kUsualMaxDepth = 1000;

    short id = 0;
    std::string name;
    unsigned defaultDepth = kUsualDefaultDepth;
    unsigned maxDepth = kUsualMaxDepth;
    unsigned emptySuppressInterval_ms = 0; ///< an emptied book is held back that long; 0: not at all
};

/// The markets of the server. Constant once built.
class MarketTable
{
public:
    MarketTable() = default;
    /// Throws std::invalid_argument, naming the market, when an id or a name is there twice, or the default depth is
    /// above the maximum.
    explicit MarketTable(std::vector<Market> markets);

    /// The market, or an unnamed one with the usual values when there is none with this id.
    const Market& Get(short marketId) const;
    /// Null when there is none.
    const Market* FindByName(const std::string& name) const;
    bool Has(short marketId) const { return m_indexById.count(marketId) != 0; }
    const std::vector<Market>& GetAll() const noexcept { return m_markets; }

private:
    std::vector<Market> m_markets;
    std::unordered_map<short, std::size_t> m_indexById;
};

} // namespace ps_ns
