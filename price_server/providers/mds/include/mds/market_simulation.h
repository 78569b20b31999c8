#pragma once

#include "mds/level_book.h"
#include "mds/market_source.h"
#include "mds/seeded_random.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ps_ns
{

struct SimulationOptions
{
    std::uint64_t seed = 1;
    short marketId = 1;
    std::string market = "SIM";
    std::uint32_t messagesPerSecond = 1000;
    std::uint64_t startTime_ns = 1'798'761'600'000'000'000; ///< 2027-01-01 00:00 UTC
    std::uint64_t messages = 0;                             ///< ends after so many; 0: never
};

/// A market that a seed determines: three assets, each with outrights of three expiries (GOLD-MAR27) and the calendar
/// spreads between them (GOLD-MAR27-JUN27: buys the first, sells the second; its price may be negative).
///
/// Each asset has a fair price that wanders about its mean, and each instrument a small one of its own on top. Orders
/// arrive on both sides of it and are cancelled again; what the fair price has run over is traded away, so that books
/// follow it and never cross. The same options give the same messages, on every machine: no floating point, and no
/// distribution of the standard library.
///
/// Threads: as IMarketSource.
class MarketSimulation final : public IMarketSource
{
public:
    explicit MarketSimulation(SimulationOptions options);

    std::vector<short> GetMarketIds() const override { return {m_options.marketId}; }
    void Open(const std::atomic<bool>& stop) override;
    const std::vector<SourceInstrument>& GetInstruments() const override { return m_instruments; }
    std::optional<NextMessage> Peek() override;
    bool Next(MarketMessage& message) override;

private:
    struct Asset
    {
        std::int64_t deviation_ticks = 0; ///< of the fair price from its mean
        std::size_t firstInstrument = 0;
        std::size_t instruments = 0;
    };
    struct Instrument
    {
        std::int64_t tick = 0; ///< in price units
        std::int64_t mean_ticks = 0;
        bool followsAsset = true; ///< an outright; a spread's legs move together
        std::int64_t deviation_ticks = 0;
        LevelBook book;
    };

    void AddAsset(std::size_t kind);
    void AddInstrument(const std::string& symbol, std::size_t kind, std::int64_t mean_ticks, bool followsAsset);
    void FillImage(Instrument& instrument, MarketMessage& message);
    void FillChange(MarketMessage& message);
    void Wander(std::int64_t& deviation_ticks, std::int64_t reach_ticks);
    std::int64_t GetFair(const Asset& asset, const Instrument& instrument) const;
    bool TradeThrough(Instrument& instrument, std::int64_t fair, MarketMessage& message);
    void TakeBest(Instrument& instrument, BookSideType side, MarketMessage& message);
    void AddOrder(Instrument& instrument, BookSideType side, std::int64_t fair, MarketMessage& message);
    void CancelOrder(Instrument& instrument, BookSideType side, MarketMessage& message);
    void Change(Instrument& instrument, BookSideType side, std::int64_t price, std::int64_t quantity,
                MarketMessage& message);
    std::int64_t DrawQuantity();
    void AdvanceTime();

    const SimulationOptions m_options;
    SeededRandom m_random;
    std::vector<SourceInstrument> m_instruments;
    std::vector<Asset> m_assets;
    std::vector<Instrument> m_states; ///< by instrument
    std::uint64_t m_time_ns;          ///< of the next message
    std::uint64_t m_count = 0;        ///< messages so far
    std::uint64_t m_tradeCount = 0;
};

} // namespace ps_ns
