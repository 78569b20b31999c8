#include "mds/rename_plan.h"

#include <algorithm>
#include <map>
#include <set>
#include <tuple>
#include <utility>

namespace ps_ns
{
namespace
{

using Symbols = std::set<std::string>;

/// Follows the symbols of each market from the first moment to the last.
class Planner
{
public:
    explicit Planner(const std::vector<SourceInstrument>& instruments)
    {
        for (const SourceInstrument& instrument : instruments)
        {
            m_symbols[instrument.marketId].insert(instrument.symbol);
        }
    }

    void Open(std::uint64_t time_ns)
    {
        m_step = {time_ns, {}};
        m_taken.clear();
        m_given.clear();
    }

    void Add(const SymbolRename& asked)
    {
        bool isServed = false;
        bool isPlanned = false;
        for (const auto& [marketId, symbols] : m_symbols)
        {
            if ((asked.marketId == marketId || asked.marketId == kEveryMarket) && symbols.count(asked.oldSymbol) != 0)
            {
                isServed = true;
                isPlanned = Plan({marketId, asked.oldSymbol, asked.newSymbol}) || isPlanned;
            }
        }
        ++(isPlanned ? plan.planned : isServed ? plan.contradictory : plan.notServed);
    }

    /// The step's new symbols hold from the next one on.
    void Close()
    {
        for (const SymbolRename& rename : m_step.renames)
        {
            m_symbols[rename.marketId].erase(rename.oldSymbol);
        }
        for (const SymbolRename& rename : m_step.renames)
        {
            m_symbols[rename.marketId].insert(rename.newSymbol);
        }
        if (!m_step.renames.empty())
        {
            plan.steps.push_back(std::move(m_step));
        }
    }

    RenamePlan plan;

private:
    static constexpr short kEveryMarket = -1;

    /// True: it is part of the step, perhaps on another one's account.
    bool Plan(const SymbolRename& rename)
    {
        const auto name = [&](const std::string& symbol) { return std::pair(rename.marketId, symbol); };
        const auto taken = m_taken.find(name(rename.oldSymbol));
        if (taken != m_taken.end())
        {
            return taken->second == rename.newSymbol;
        }
        if (!m_given.insert(name(rename.newSymbol)).second)
        {
            return false;
        }
        m_taken.emplace(name(rename.oldSymbol), rename.newSymbol);
        m_step.renames.push_back(rename);
        return true;
    }

    std::map<short, Symbols> m_symbols;
    RenameStep m_step;
    std::map<std::pair<short, std::string>, std::string> m_taken; ///< of this step: new symbol by market and old one
    std::set<std::pair<short, std::string>> m_given;              ///< of this step: new symbols by market
};

} // namespace

std::string RenamePlan::ToString() const
{
    std::string text = std::to_string(planned) + " to come, " + std::to_string(over) +
                       " over before the prices begin, " + std::to_string(notServed) +
                       " of symbols that are not served";
    if (contradictory != 0)
    {
        text += ", " + std::to_string(contradictory) + " left out: they contradict others of the same moment";
    }
    return text;
}

RenamePlan PlanRenames(std::vector<TimedRename> renames, const std::vector<SourceInstrument>& instruments,
                       std::uint64_t begin_ns)
{
    std::stable_sort(renames.begin(), renames.end(),
                     [](const TimedRename& a, const TimedRename& b) { return a.time_ns < b.time_ns; });
    const auto firstToCome = std::find_if(renames.begin(), renames.end(),
                                          [&](const TimedRename& rename) { return rename.time_ns > begin_ns; });
    Planner planner(instruments);
    planner.plan.over = static_cast<std::size_t>(firstToCome - renames.begin());
    for (auto next = firstToCome; next != renames.end();)
    {
        const std::uint64_t time_ns = next->time_ns;
        planner.Open(time_ns);
        for (; next != renames.end() && next->time_ns == time_ns; ++next)
        {
            planner.Add(next->rename);
        }
        planner.Close();
    }
    return std::move(planner.plan);
}

} // namespace ps_ns
