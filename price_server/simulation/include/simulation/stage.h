#pragma once

#include "composite_instrument/composite_instrument_def.h"
#include "composite_instrument/composite_subscription_info.h"
#include "composite_instrument/composite_subscription_state.h"
#include "composite_instrument/event_info.h"
#include "composite_instrument/price_format.h"
#include "composite_instrument/provider_type.h"
#include "composite_instrument/subscription_result.h"

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// What both sides of a run share: the instruments, names and scopes that requests choose from, what the providers have
/// been told to do, and how an event is spelled.
namespace ps_ns::simulation
{

/// The instruments: two that share an identity and nothing else, two that share a symbol and nothing else, one that
/// wants nothing, one on another market, synthetics with and without an identity that equals itself.
const std::vector<CompositeInstrumentDef>& GetInstruments();
/// Literal depths, both sentinels, intervals, kinds.
const std::vector<CompositeSubscriptionInfo>& GetScopes();
/// What symbols are renamed from and to.
const std::vector<std::string>& GetSymbols();
const std::vector<std::string>& GetDirectObserverNames();
const std::vector<std::string>& GetFlexibleObserverNames();
inline constexpr std::array<short, 2> kMarkets{1, 2};
inline constexpr unsigned kIdCount = 6; ///< subscription ids are 1 to this

/// The defaults of the markets.
struct MarketDefaults
{
    int defaultDepth;
    int maxDepth;
};
MarketDefaults GetMarketDefaults(short marketId) noexcept;

/// What a provider does when a component is subscribed.
enum class SubscribeOutcome
{
    Subscribes,
    AnswersAtOnce,
    RefusesAtOnce,
    Fails,
    Pends,
    AnswersSomethingElse,
    RefusesWithReason,
    Breaks,
    kCount
};

/// What a provider does when a component is unsubscribed.
enum class UnsubscribeOutcome
{
    Later,
    Ok,
    Fails,
    Throws,
    kCount
};

/// How the world outside the manager is just now. Operations change it; the providers and the model read it.
struct Conditions
{
    bool hasZel = true;
    std::map<std::string, SubscribeOutcome> subscribe; ///< by component symbol; not there: Subscribes
    std::array<UnsubscribeOutcome, 2> unsubscribe{UnsubscribeOutcome::Later, UnsubscribeOutcome::Later};
    std::set<std::pair<short, std::string>> mdsKnows;         ///< market and component symbol
    std::set<std::pair<ProviderType::Value, short>> complete; ///< directories that have been read

    SubscribeOutcome GetSubscribeOutcome(const std::string& symbol) const;
    /// Who serves a component, and whether that is final.
    std::pair<ProviderType::Value, bool> Decide(short marketId, const std::string& symbol) const;
};

inline constexpr const char* kUnsubscribeFailure = "scripted unsubscribe failure";
std::string GetRefusal(const std::string& symbol);
std::string GetBreakdown(const std::string& symbol);
std::string GetThrownText(const std::string& observer);
/// The format that a provider answers with: a few, so that some answers say the same as the one before.
PriceFormat GetFormat(std::uint32_t number) noexcept;

// --- How events are spelled ---

using Result = ps_messages_ns::SubscriptionResult::Value;

std::string SpellDef(const CompositeInstrumentDef& def);
std::string SpellState(const CompositeSubscriptionState& state);
std::string SpellSubscribe(const std::string& observer, std::optional<unsigned long> id,
                           const CompositeInstrumentDef& def, const EventInfo& eventInfo, Result result,
                           unsigned long reserved, const PriceFormat& format, int component,
                           const CompositeSubscriptionState& state, const char* place);
std::string SpellUnsubscribe(const std::string& observer, std::optional<unsigned long> id,
                             const CompositeInstrumentDef& def, Result result, int component,
                             const CompositeSubscriptionState& state, const char* place);
/// `key`: "id" for a flexible observer, "handle" for a direct one.
std::string SpellScopeAnswer(const std::string& observer, const char* operation, const char* key, unsigned long number,
                             const CompositeInstrumentDef& def, Result result, const char* place);
std::string SpellProviderCall(ProviderType::Value provider, const char* operation, int link, const std::string& symbol,
                              const std::string& rest);
std::string SpellLog(int level, unsigned tag, const std::string& source, std::string_view text);
/// A book that was asked for.
std::string SpellSnapshot(const std::string& observer, unsigned long id, const CompositeInstrumentDef& def,
                          unsigned reason);
std::string SpellScope(const CompositeSubscriptionInfo& info);

} // namespace ps_ns::simulation
