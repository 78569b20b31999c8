#include "simulation/stage.h"

#include "composite_instrument/synthetic_leg.h"

#include <limits>
#include <memory>

namespace ps_ns::simulation
{
namespace
{

CompositeInstrumentDef MakeInstrument(std::uint64_t id, short market, const std::string& symbol,
                                      const std::array<bool, 3>& components)
{
    CompositeInstrumentDef def;
    def.instrumentId = id;
    def.marketId = market;
    def.submarketId = -1;
    def.instrument = {symbol, "EX"};
    def.components = components;
    return def;
}

CompositeInstrumentDef MakeSynthetic(std::uint64_t id, const std::string& symbol, double ratio)
{
    CompositeInstrumentDef def = MakeInstrument(id, 1, symbol, {true, false, false});
    auto instrument = std::make_shared<LegInstrument>();
    instrument->instrumentId = 1;
    instrument->marketId = 1;
    instrument->def = {"A", "ICE"};
    instrument->ratio = ratio;
    auto leg = std::make_shared<SyntheticLeg>();
    leg->instrument = std::move(instrument);
    def.legs.push_back(std::move(leg));
    return def;
}

std::vector<CompositeInstrumentDef> MakeInstruments()
{
    std::vector<CompositeInstrumentDef> defs{
        MakeInstrument(1, 1, "A", {true, false, false}),  MakeInstrument(1, 1, "B", {true, true, false}),
        MakeInstrument(2, 1, "B", {true, true, true}),    MakeInstrument(3, 1, "C", {true, false, false}),
        MakeInstrument(4, 1, "A", {true, false, false}),  MakeInstrument(5, 2, "A", {true, false, false}),
        MakeInstrument(6, 2, "B", {false, true, false}),  MakeInstrument(7, 1, "D", {true, false, true}),
        MakeInstrument(8, 1, "C", {false, false, false}),
    };
    defs.back().attrA = 1;
    defs.push_back(MakeSynthetic(9, "S", 1.0));
    defs.push_back(MakeSynthetic(10, "N", std::numeric_limits<double>::quiet_NaN()));
    return defs;
}

const char* GetName(ProviderType::Value provider)
{
    return provider == ProviderType::Mds ? "mds." : "zel.";
}

std::string SpellWho(const std::string& observer, const char* operation, std::optional<unsigned long> id)
{
    std::string text = observer + "." + operation + " ";
    return id ? text + "id=" + std::to_string(*id) + " " : text;
}

std::string SpellAnswer(const CompositeInstrumentDef& def, Result result, int component)
{
    return SpellDef(def) + " result=" + std::to_string(result) + " component=" + std::to_string(component);
}

} // namespace

const std::vector<CompositeInstrumentDef>& GetInstruments()
{
    static const std::vector<CompositeInstrumentDef> instruments = MakeInstruments();
    return instruments;
}

const std::vector<CompositeSubscriptionInfo>& GetScopes()
{
    static const std::vector<CompositeSubscriptionInfo> scopes{
        {1, 0, false, false}, {3, 0, true, false},    {5, 100, false, true}, {20, 0, false, false},
        {-2, 0, true, true},  {-1, 250, true, false}, {5, 0, false, false},  {200, 0, false, false}};
    return scopes;
}

const std::vector<std::string>& GetSymbols()
{
    static const std::vector<std::string> symbols{"A", "B", "C", "D", "E"};
    return symbols;
}

const std::vector<std::string>& GetDirectObserverNames()
{
    static const std::vector<std::string> names{"D0", "D1", "D2"};
    return names;
}

const std::vector<std::string>& GetFlexibleObserverNames()
{
    static const std::vector<std::string> names{"F0", "F1", "F2"};
    return names;
}

MarketDefaults GetMarketDefaults(short marketId) noexcept
{
    return marketId == 1 ? MarketDefaults{5, 20} : MarketDefaults{10, 100};
}

SubscribeOutcome Conditions::GetSubscribeOutcome(const std::string& symbol) const
{
    const auto found = subscribe.find(symbol);
    return found == subscribe.end() ? SubscribeOutcome::Subscribes : found->second;
}

std::pair<ProviderType::Value, bool> Conditions::Decide(short marketId, const std::string& symbol) const
{
    if (mdsKnows.count({marketId, symbol}) != 0)
    {
        return {ProviderType::Mds, true};
    }
    const bool zelIsRead = !hasZel || complete.count({ProviderType::Zel, marketId}) != 0;
    return {ProviderType::Zel, zelIsRead && complete.count({ProviderType::Mds, marketId}) != 0};
}

std::string GetRefusal(const std::string& symbol)
{
    return "scripted refusal of " + symbol;
}

std::string GetBreakdown(const std::string& symbol)
{
    return "scripted breakdown at " + symbol;
}

std::string GetThrownText(const std::string& observer)
{
    return observer + " throws";
}

PriceFormat GetFormat(std::uint32_t number) noexcept
{
    PriceFormat format;
    format.denominator = number % 2 == 0 ? 100 : 1000;
    return format;
}

std::string SpellDef(const CompositeInstrumentDef& def)
{
    std::string text = def.GetSymbol() + "@" + std::to_string(def.marketId) + "#" + std::to_string(def.instrumentId);
    for (const bool isWanted : def.components)
    {
        text += isWanted ? '+' : '-';
    }
    return text;
}

std::string SpellState(const CompositeSubscriptionState& state)
{
    return std::string(" state=") + (state.wantsDirect ? "+" : "-") + (state.wantsImplied ? "+" : "-") +
           (state.wantsAggregated ? "+" : "-") + (state.isStale ? " stale" : "") + (state.isLive ? " live" : "") +
           " provider=" + std::to_string(state.provider) + " epoch=" + std::to_string(state.epoch) +
           " symbol=" + state.symbol +
           (state.activeScopes.empty() && state.waitingScopes.empty() ? "" : " with scopes");
}

std::string SpellSubscribe(const std::string& observer, std::optional<unsigned long> id,
                           const CompositeInstrumentDef& def, const EventInfo& eventInfo, Result result,
                           unsigned long reserved, const PriceFormat& format, int component,
                           const CompositeSubscriptionState& state, const char* place)
{
    return SpellWho(observer, "OnSubscribe", id) + SpellAnswer(def, result, component) +
           (eventInfo == EventInfo{} ? "" : " with an event info") + (reserved == 0 ? "" : " with a number") +
           " format=" + std::to_string(format.denominator) + (format.isFractional ? "f" : "") +
           std::to_string(format.fractionDigits) + format.displayFormat + std::to_string(format.tickSize) +
           SpellState(state) + " @" + place;
}

std::string SpellUnsubscribe(const std::string& observer, std::optional<unsigned long> id,
                             const CompositeInstrumentDef& def, Result result, int component,
                             const CompositeSubscriptionState& state, const char* place)
{
    return SpellWho(observer, "OnUnsubscribe", id) + SpellAnswer(def, result, component) + SpellState(state) + " @" +
           place;
}

std::string SpellScopeAnswer(const std::string& observer, const char* operation, const char* key, unsigned long number,
                             const CompositeInstrumentDef& def, Result result, const char* place)
{
    return observer + "." + operation + " " + key + "=" + std::to_string(number) + " " + SpellDef(def) +
           " result=" + std::to_string(result) + " @" + place;
}

std::string SpellProviderCall(ProviderType::Value provider, const char* operation, int link, const std::string& symbol,
                              const std::string& rest)
{
    return GetName(provider) + std::string(operation) + " #" + std::to_string(link) + " " + symbol + rest;
}

std::string SpellLog(int level, unsigned tag, const std::string& source, std::string_view text)
{
    return "log " + std::to_string(level) + " " + std::to_string(tag) + " " + source + ": " + std::string(text);
}

std::string SpellSnapshot(const std::string& observer, unsigned long id, const CompositeInstrumentDef& def,
                          unsigned reason)
{
    return observer + " id=" + std::to_string(id) + " " + SpellDef(def) + " snapshot=" + std::to_string(reason);
}

std::string SpellScope(const CompositeSubscriptionInfo& info)
{
    return "depth=" + std::to_string(info.depth) + " interval=" + std::to_string(info.conflationInterval_ms) +
           " trades=" + (info.trades ? "1" : "0") + " customFields=" + (info.customFields ? "1" : "0");
}

} // namespace ps_ns::simulation
