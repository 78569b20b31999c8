#include "mds/implied_rules.h"

#include "composite_price/fixed_point.h"
#include "logging/logging.h"
#include "mds/market_hub.h"
#include "mds/problem_log.h"
#include "mds/recording_scan.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <utility>

namespace ps_ns
{
namespace
{

using Symbols = std::set<std::string>;

std::vector<std::string> SplitAt(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t at = 0; at <= text.size(); ++at)
    {
        if (at == text.size() || text[at] == separator)
        {
            parts.push_back(text.substr(begin, at - begin));
            begin = at + 1;
        }
    }
    return parts;
}

void DetectCrosses(short marketId, const Symbols& symbols, std::vector<ImpliedRule>& rules)
{
    std::map<std::string, std::vector<std::string>> quotesByBase;
    for (const std::string& symbol : symbols)
    {
        if (const auto parts = SplitAt(symbol, '_'); parts.size() == 2)
        {
            quotesByBase[parts[0]].push_back(parts[1]);
        }
    }
    for (const auto& [base, quotes] : quotesByBase)
    {
        for (const std::string& quote : quotes)
        {
            const auto other = quotesByBase.find(quote);
            if (other == quotesByBase.end() || quote == base)
            {
                continue;
            }
            for (const std::string& common : other->second)
            {
                if (common != base && symbols.count(base + '_' + common) != 0)
                {
                    rules.push_back({marketId, base + '_' + quote, ImpliedOperation::Ratio, base + '_' + common,
                                     quote + '_' + common});
                }
            }
        }
    }
}

void DetectSpreads(short marketId, const Symbols& symbols, std::vector<ImpliedRule>& rules)
{
    for (const std::string& spread : symbols)
    {
        const auto parts = SplitAt(spread, '-');
        if (parts.size() != 3 || parts[1] == parts[2])
        {
            continue;
        }
        const std::string first = parts[0] + '-' + parts[1];
        const std::string second = parts[0] + '-' + parts[2];
        if (symbols.count(first) != 0 && symbols.count(second) != 0)
        {
            rules.push_back({marketId, spread, ImpliedOperation::Difference, first, second});
            rules.push_back({marketId, first, ImpliedOperation::Sum, spread, second});
            rules.push_back({marketId, second, ImpliedOperation::Difference, first, spread});
        }
    }
}

using IndexByName = std::map<std::pair<short, std::string>, InstrumentIndex>;

void ReportRule(const ImpliedRule& rule, const std::string& why)
{
    zel::logging::Log(30, MdsLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "implied " << rule.symbol << " from " << rule.firstLeg << " and " << rule.secondLeg
                               << " on market " << rule.marketId << " is left out: " << why;
                      });
}

std::optional<ImpliedRecipe> ResolveLegs(const ImpliedRule& rule, const IndexByName& listed)
{
    const auto first = listed.find({rule.marketId, rule.firstLeg});
    const auto second = listed.find({rule.marketId, rule.secondLeg});
    if (first == listed.end() || second == listed.end())
    {
        ReportRule(rule, "there is no " + (first == listed.end() ? rule.firstLeg : rule.secondLeg));
        return std::nullopt;
    }
    if (first == second)
    {
        ReportRule(rule, "both legs are the same");
        return std::nullopt;
    }
    return ImpliedRecipe{rule.operation, first->second, second->second};
}

SourceInstrument MakeImpliedInstrument(const ImpliedRule& rule, const SourceInstrument& first,
                                       const SourceInstrument& second)
{
    SourceInstrument implied{rule.marketId, first.market, std::string(kImpliedPrefix) + rule.symbol, first.format};
    if (rule.operation == ImpliedOperation::Ratio)
    {
        implied.format = MakePriceFormat(kPriceDecimals);
    }
    else if (second.format.fractionDigits > first.format.fractionDigits)
    {
        implied.format = second.format;
    }
    return implied;
}

} // namespace

std::vector<ImpliedRule> DetectImpliedRules(const std::vector<SourceInstrument>& instruments)
{
    std::map<short, Symbols> symbolsByMarket;
    for (const SourceInstrument& instrument : instruments)
    {
        symbolsByMarket[instrument.marketId].insert(instrument.symbol);
    }
    std::vector<ImpliedRule> rules;
    for (const auto& [marketId, symbols] : symbolsByMarket)
    {
        DetectCrosses(marketId, symbols, rules);
        DetectSpreads(marketId, symbols, rules);
    }
    return rules;
}

std::vector<ImpliedTarget> ResolveImpliedRules(const std::vector<ImpliedRule>& rules,
                                               std::vector<SourceInstrument>& instruments)
{
    IndexByName listed;
    for (const SourceInstrument& instrument : instruments)
    {
        listed.emplace(std::pair(instrument.marketId, instrument.symbol), static_cast<InstrumentIndex>(listed.size()));
    }
    std::map<std::pair<short, std::string>, std::size_t> targetByName;
    std::vector<ImpliedTarget> targets;
    for (const ImpliedRule& rule : rules)
    {
        const std::string name = std::string(kImpliedPrefix) + rule.symbol;
        const auto recipe = ResolveLegs(rule, listed);
        if (!recipe)
        {
            continue;
        }
        if (listed.count({rule.marketId, name}) != 0)
        {
            ReportRule(rule, "there is an instrument " + name + " already");
            continue;
        }
        const auto [target, isNew] = targetByName.try_emplace(std::pair(rule.marketId, name), targets.size());
        if (isNew)
        {
            targets.push_back({static_cast<InstrumentIndex>(instruments.size()), {}});
            instruments.push_back(MakeImpliedInstrument(rule, instruments[recipe->first], instruments[recipe->second]));
        }
        targets[target->second].recipes.push_back(*recipe);
    }
    return targets;
}

} // namespace ps_ns
