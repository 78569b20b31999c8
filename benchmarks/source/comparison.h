#pragma once

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

namespace compare
{

/// What one run of one alternative measured: figures by name, like {"CPU a message, ns", 132.0}.
using Figures = std::vector<std::pair<std::string, double>>;

/// One way to do the work.
struct Alternative
{
    std::string name;
    std::function<Figures()> run; ///< does all of the work once, and measures it
};

/// The same work done in several ways. The first alternative is this project's; the others are its peers. Figures of
/// the same name are comparable, and smaller ones are better, unless the name says "a second".
struct Comparison
{
    std::string group;
    std::string name;
    std::vector<Alternative> alternatives;
};

/// One figure of one alternative, over all rounds.
struct Result
{
    std::string group;
    std::string comparison;
    std::string alternative;
    std::string figure;
    double median = 0;
    double spread = 0; ///< distance of the quartiles over the median
    double ratio = 1; ///< the project's median over this one's, as paired within the rounds: the median of those ratios
    double ratioSpread = 0;
    std::size_t rounds = 0;
};

/// Runs the alternatives of each comparison in turn, round after round, so that what disturbs the machine disturbs all
/// of them; the first round warms up and does not count. Prints each comparison to `out` when it is done.
class Runner
{
public:
    Runner(std::size_t rounds, std::string filter, std::ostream& out);

    /// False when the filter leaves it out: what it would run on need not be made then.
    bool IsWanted(const std::string& group, const std::string& name) const;
    void Run(const Comparison& comparison);

    const std::vector<Result>& GetResults() const noexcept { return m_results; }
    /// The results with what they were measured on and with, as one JSON object.
    void WriteJson(const std::string& file) const;

private:
    void Print(std::size_t first) const;

    const std::size_t m_rounds;
    const std::string m_filter;
    std::ostream& m_out;
    std::vector<Result> m_results;
};

/// The subjects of the program, each in a source file of its own.
void CompareQueues(Runner& runner);
void ComparePacedQueues(Runner& runner);
void CompareKeys(Runner& runner);
void CompareMerge(Runner& runner);
void CompareDelivery(Runner& runner);
void CompareRequests(Runner& runner);
void CompareLifeCycles(Runner& runner);
void CompareReplay(Runner& runner);

} // namespace compare
