#include "cycles/instruments.h"

#include <cstdint>
#include <utility>

namespace ps_ns::cycles
{

namespace
{

/// Markets and symbols.
using Names = std::vector<std::pair<const char*, const char*>>;

} // namespace

Instruments::Instruments(ReplayServer& server)
{
    std::uint64_t nextInstrumentId = 1;
    const auto make = [&](Use use, const std::string& market, const std::string& symbol)
    {
        Instrument instrument{use, {}};
        instrument.def.instrumentId = nextInstrumentId++;
        instrument.def.marketId = server.GetMarketId(market);
        instrument.def.instrument = {symbol, market};
        return instrument;
    };
    for (const auto& [market, symbol] : Names{{"POLONIEX", "BTC_USDT"},
                                              {"POLONIEX", "BCH_BTC"},
                                              {"POLONIEX", "SOL_USDT"},
                                              {"KRAKENFUT", "FI_XBTUSD_210730"},
                                              {"KRAKENFUT", "FI_ETHUSD_210730"},
                                              {"BITMEX", "ADAUSDT"},
                                              {"BITMEX", "SOLUSDT"},
                                              {"BITFLYER", "BTC_USD"}})
    {
        shared.push_back(make(Use::Shared, market, symbol));
    }
    shared[1].def.components = {true, true, false}; // there is an implied book of this cross
    deep = make(Use::Shared, "BITMEX", "XBTUSD");
    for (const auto& [market, symbol] : Names{{"POLONIEX", "BCH_USDT"},
                                              {"POLONIEX", "GRT_USDT"},
                                              {"KRAKENFUT", "FI_ETHUSD_211231"},
                                              {"KRAKENFUT", "FI_BCHUSD_210924"},
                                              {"BITMEX", "BCHUSD"},
                                              {"BITMEX", "UNIUSDT"},
                                              {"BITFLYER", "BTCJPY17DEC2021"},
                                              {"BITFLYER", "BTCJPY24DEC2021"}})
    {
        // Neighbours change symbols with each other, under all their identities.
        for (std::uint8_t identity = 0; identity < kContestedIdentities; ++identity)
        {
            contested.push_back(make(Use::Contested, market, symbol));
            contested.back().def.attrA = identity;
        }
    }
    for (const auto& [market, symbol] : Names{{"POLONIEX", "USDJ_USDT"},
                                              {"KRAKENFUT", "FI_XRPUSD_210924"},
                                              {"BITMEX", "EOSUSDT"},
                                              {"BITFLYER", "BCH_BTC"}})
    {
        renamed.push_back(make(Use::Renamed, market, symbol));
    }
    for (const auto& [market, symbol] : Names{{"POLONIEX", "MDT_BTC"},
                                              {"KRAKENFUT", "FI_BCHUSD_210730"},
                                              {"BITMEX", "MATICUSDT"},
                                              {"BITMEX", "TRXUSDT"}})
    {
        late.push_back(make(Use::Late, market, std::string(kLatePrefix) + symbol));
        lateHomes.push_back(symbol);
    }
    isLate.resize(late.size());
}

} // namespace ps_ns::cycles
