#include "mds/market_simulation.h"

#include "composite_price/fixed_point.h"
#include "mds/recording_scan.h"

#include <algorithm>
#include <array>
#include <utility>

namespace ps_ns
{
namespace
{

struct AssetKind
{
    const char* name;
    unsigned decimals;
    std::uint32_t tick_raw; ///< in units of 10^-decimals
    std::int64_t mean_ticks;
    std::int64_t carry_ticks; ///< from one expiry to the next
};

constexpr std::array<AssetKind, 3> kAssets{
    {{"GOLD", 1, 1, 26'500, 180},   // 2650.0, a tick is 0.1
     {"CRUDE", 2, 1, 7'200, -45},   // 72.00, a tick is 0.01, the far month is cheaper
     {"WHEAT", 2, 25, 2'240, 30}}}; // 560.00, a tick is 0.25
constexpr std::array<const char*, 3> kExpiries{"MAR27", "JUN27", "SEP27"};

constexpr std::int64_t kAssetReach_ticks = 60; ///< how far the fair price may be from its mean
constexpr std::int64_t kInstrumentReach_ticks = 4;
constexpr std::int64_t kFirstLevels = 10;
constexpr std::size_t kFewestLevels = 4;
constexpr std::size_t kMostLevels = 30;
constexpr std::uint64_t kNsPerSecond = 1'000'000'000;

BookSideType OppositeOf(BookSideType side)
{
    return side == BookSideType::Bid ? BookSideType::Ask : BookSideType::Bid;
}

/// A step away from the other side.
std::int64_t Outwards(BookSideType side)
{
    return side == BookSideType::Bid ? -1 : 1;
}

} // namespace

MarketSimulation::MarketSimulation(SimulationOptions options)
    : m_options(std::move(options))
    , m_random(m_options.seed)
    , m_time_ns(m_options.startTime_ns)
{
}

void MarketSimulation::Open(const std::atomic<bool>& stop)
{
    static_cast<void>(stop); // quick
    for (std::size_t kind = 0; kind < kAssets.size(); ++kind)
    {
        AddAsset(kind);
    }
}

void MarketSimulation::AddAsset(std::size_t kind)
{
    const std::string name = kAssets[kind].name;
    Asset& asset = m_assets.emplace_back();
    asset.firstInstrument = m_states.size();
    for (std::size_t near = 0; near < kExpiries.size(); ++near)
    {
        const auto months = static_cast<std::int64_t>(near);
        AddInstrument(name + '-' + kExpiries[near], kind, kAssets[kind].mean_ticks + months * kAssets[kind].carry_ticks,
                      true);
    }
    for (std::size_t near = 0; near < kExpiries.size(); ++near)
    {
        for (std::size_t far = near + 1; far < kExpiries.size(); ++far)
        {
            const auto months = static_cast<std::int64_t>(far - near);
            AddInstrument(name + '-' + kExpiries[near] + '-' + kExpiries[far], kind,
                          -months * kAssets[kind].carry_ticks, false);
        }
    }
    asset.instruments = m_states.size() - asset.firstInstrument;
}

void MarketSimulation::AddInstrument(const std::string& symbol, std::size_t kind, std::int64_t mean_ticks,
                                     bool followsAsset)
{
    PriceFormat format = MakePriceFormat(kAssets[kind].decimals);
    format.tickSize = kAssets[kind].tick_raw;
    m_instruments.push_back({m_options.marketId, m_options.market, symbol, format});

    Instrument& instrument = m_states.emplace_back();
    instrument.tick = kPriceUnitsPerOne / format.denominator * format.tickSize;
    instrument.mean_ticks = mean_ticks;
    instrument.followsAsset = followsAsset;
}

std::optional<NextMessage> MarketSimulation::Peek()
{
    if (m_states.empty() || (m_options.messages != 0 && m_count == m_options.messages))
    {
        return std::nullopt;
    }
    return NextMessage{1, m_time_ns};
}

bool MarketSimulation::Next(MarketMessage& message)
{
    if (!Peek())
    {
        return false;
    }
    message.Clear();
    message.epoch = 1;
    message.sourceTime_ns = message.receiveTime_ns = message.exchangeTime_ns = m_time_ns;
    message.venueSequence = ++m_count;
    if (m_count <= m_states.size())
    {
        message.instrument = static_cast<InstrumentIndex>(m_count - 1);
        FillImage(m_states[message.instrument], message);
    }
    else
    {
        FillChange(message);
    }
    AdvanceTime();
    return true;
}

/// From half to one and a half of the mean interval.
void MarketSimulation::AdvanceTime()
{
    const std::uint64_t interval_ns = kNsPerSecond / std::max<std::uint32_t>(m_options.messagesPerSecond, 1);
    m_time_ns += interval_ns / 2 + m_random.Next() % (interval_ns + 1);
}

void MarketSimulation::FillImage(Instrument& instrument, MarketMessage& message)
{
    message.isImage = true;
    for (const BookSideType side : {BookSideType::Bid, BookSideType::Ask})
    {
        for (std::int64_t level = 1; level <= kFirstLevels; ++level)
        {
            const std::int64_t ticks = instrument.mean_ticks + Outwards(side) * level;
            message.changes.push_back({ticks * instrument.tick, DrawQuantity(), 0, side});
        }
    }
    instrument.book.Apply(message.changes, true);
}

void MarketSimulation::FillChange(MarketMessage& message)
{
    Asset& asset = m_assets[static_cast<std::size_t>(m_random.Below(static_cast<std::int64_t>(m_assets.size())))];
    const auto ofAsset = static_cast<std::size_t>(m_random.Below(static_cast<std::int64_t>(asset.instruments)));
    message.instrument = static_cast<InstrumentIndex>(asset.firstInstrument + ofAsset);
    Instrument& instrument = m_states[message.instrument];

    constexpr std::int64_t kMessagesPerMove = 8;
    if (m_random.Once(kMessagesPerMove))
    {
        Wander(asset.deviation_ticks, kAssetReach_ticks);
    }
    if (m_random.Once(kMessagesPerMove))
    {
        Wander(instrument.deviation_ticks, kInstrumentReach_ticks);
    }
    const std::int64_t fair = GetFair(asset, instrument);
    if (TradeThrough(instrument, fair, message))
    {
        return;
    }
    const BookSideType side = m_random.Once(2) ? BookSideType::Bid : BookSideType::Ask;
    const std::size_t levels = instrument.book.GetSide(side).GetSize();
    constexpr std::int64_t kActions = 20; // 11 orders, 7 cancels, 2 trades
    const std::int64_t action = m_random.Below(kActions);
    if (levels < kFewestLevels || (levels < kMostLevels && action < 11))
    {
        AddOrder(instrument, side, fair, message);
    }
    else if (action < 18)
    {
        CancelOrder(instrument, side, message);
    }
    else
    {
        TakeBest(instrument, side, message);
    }
}

/// One tick up or down; back to the mean the likelier, the further away it is.
void MarketSimulation::Wander(std::int64_t& deviation_ticks, std::int64_t reach_ticks)
{
    deviation_ticks += m_random.Below(2 * reach_ticks) < reach_ticks + deviation_ticks ? -1 : 1;
}

std::int64_t MarketSimulation::GetFair(const Asset& asset, const Instrument& instrument) const
{
    return instrument.mean_ticks + instrument.deviation_ticks + (instrument.followsAsset ? asset.deviation_ticks : 0);
}

/// Trades with a best level that the fair price has reached; false: there is none.
bool MarketSimulation::TradeThrough(Instrument& instrument, std::int64_t fair, MarketMessage& message)
{
    const std::int64_t price = fair * instrument.tick;
    for (const BookSideType side : {BookSideType::Bid, BookSideType::Ask})
    {
        const LevelSide& levels = instrument.book.GetSide(side);
        if (!levels.IsEmpty() && !levels.IsWorse(levels.Get(0).price, price))
        {
            TakeBest(instrument, side, message);
            return true;
        }
    }
    return false;
}

void MarketSimulation::TakeBest(Instrument& instrument, BookSideType side, MarketMessage& message)
{
    const BookLevel best = instrument.book.GetSide(side).Get(0);
    const std::int64_t quantity = std::min(best.quantity, 2 * DrawQuantity());
    Change(instrument, side, best.price, best.quantity - quantity, message);

    Trade& trade = message.trades.emplace_back();
    trade.price = best.price;
    trade.quantity = quantity;
    trade.exchangeTime_ns = trade.receiveTime_ns = m_time_ns;
    trade.venueId = ++m_tradeCount;
    trade.aggressor = OppositeOf(side) == BookSideType::Bid ? Trade::Aggressor::Buyer : Trade::Aggressor::Seller;
}

/// Near the fair price likelier than away from it.
void MarketSimulation::AddOrder(Instrument& instrument, BookSideType side, std::int64_t fair, MarketMessage& message)
{
    std::int64_t distance = 1;
    while (distance < static_cast<std::int64_t>(kMostLevels) && !m_random.Once(4))
    {
        ++distance;
    }
    const std::int64_t price = (fair + Outwards(side) * distance) * instrument.tick;
    const LevelSide& levels = instrument.book.GetSide(side);
    std::int64_t present = 0;
    for (std::size_t rank = 0; rank < levels.GetSize(); ++rank)
    {
        present = levels.Get(rank).price == price ? levels.Get(rank).quantity : present;
    }
    Change(instrument, side, price, present + DrawQuantity(), message);
}

/// A whole level, or half of it.
void MarketSimulation::CancelOrder(Instrument& instrument, BookSideType side, MarketMessage& message)
{
    const LevelSide& levels = instrument.book.GetSide(side);
    const bool isFull = levels.GetSize() >= kMostLevels; // then the worst goes
    const std::size_t rank =
        isFull ? levels.GetSize() - 1
               : static_cast<std::size_t>(m_random.Below(static_cast<std::int64_t>(levels.GetSize())));
    const BookLevel level = levels.Get(rank);
    const std::int64_t half = level.quantity / kQuantityUnitsPerOne / 2 * kQuantityUnitsPerOne;
    Change(instrument, side, level.price, !isFull && m_random.Once(2) ? half : 0, message);
}

void MarketSimulation::Change(Instrument& instrument, BookSideType side, std::int64_t price, std::int64_t quantity,
                              MarketMessage& message)
{
    message.changes.push_back({price, quantity, 0, side});
    instrument.book.Apply({&message.changes.back(), 1}, false);
}

/// 1 to 25 lots, small ones likelier.
std::int64_t MarketSimulation::DrawQuantity()
{
    return (1 + m_random.Below(5) * m_random.Below(7)) * kQuantityUnitsPerOne;
}

} // namespace ps_ns
