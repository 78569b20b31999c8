#include "simulation/operations.h"

#include <algorithm>
#include <istream>
#include <numeric>
#include <ostream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace ps_ns::simulation
{
namespace
{

struct KindText
{
    std::string_view name;
    unsigned weight; ///< how often it is chosen, beside the others
};

constexpr std::array<KindText, static_cast<std::size_t>(OperationKind::kCount)> kKinds{{
    {"subscribe_direct", 60},
    {"subscribe_leg", 5},
    {"subscribe_flexible", 120},
    {"unsubscribe_handle", 45},
    {"unsubscribe_flexible", 70},
    {"add_scope", 20},
    {"remove_scope", 20},
    {"change_scope", 20},
    {"change_flexible_scope", 40},
    {"change_symbol", 45},
    {"check_pending", 35},
    {"file_synthetic", 4},
    {"complete_synthetic", 6},
    {"null_teardown", 2},
    {"run_queue", 260},
    {"run_executor", 160},
    {"run_everything", 12},
    {"pass_time", 15},
    {"answer_subscribe", 90},
    {"answer_unsubscribe", 70},
    {"drop_unsubscribe", 10},
    {"answer_too_late", 8},
    {"send_book", 60},
    {"send_trade", 12},
    {"send_custom_fields", 12},
    {"set_subscribe_outcome", 30},
    {"set_unsubscribe_outcome", 6},
    {"make_observer_throw", 5},
    {"make_data_observer_throw", 5},
    {"make_factory_throw", 3},
    {"learn_symbol", 14},
    {"complete_market", 4},
    {"set_log_level", 3},
    {"shut_down_queue", 1},
}};

OperationKind Choose(std::uint64_t random)
{
    static const unsigned total = std::accumulate(kKinds.begin(), kKinds.end(), 0U,
                                                  [](unsigned sum, const KindText& kind) { return sum + kind.weight; });
    auto left = static_cast<unsigned>(random % total);
    std::size_t kind = 0;
    while (left >= kKinds[kind].weight)
    {
        left -= kKinds[kind++].weight;
    }
    return static_cast<OperationKind>(kind);
}

bool ReadFlag(std::istringstream& words, std::string_view name, std::size_t line)
{
    std::string word;
    words >> word;
    if (word == std::string(name) + "=0" || word == std::string(name) + "=1")
    {
        return word.back() == '1';
    }
    throw std::runtime_error("line " + std::to_string(line) + ": \"" + word + "\" found, \"" + std::string(name) +
                             "=0\" or \"=1\" expected");
}

Operation ReadOperation(std::istringstream& words, std::size_t line)
{
    std::string word;
    words >> word;
    const auto found =
        std::find_if(kKinds.begin(), kKinds.end(), [&](const KindText& kind) { return kind.name == word; });
    if (found == kKinds.end())
    {
        throw std::runtime_error("line " + std::to_string(line) + ": there is no operation \"" + word + "\"");
    }
    Operation operation;
    operation.kind = static_cast<OperationKind>(found - kKinds.begin());
    for (std::uint32_t& number : operation.numbers)
    {
        if (!(words >> number))
        {
            throw std::runtime_error("line " + std::to_string(line) + ": \"" + word + "\" has " +
                                     std::to_string(operation.numbers.size()) + " numbers");
        }
    }
    return operation;
}

} // namespace

std::string_view GetName(OperationKind kind) noexcept
{
    return kKinds[static_cast<std::size_t>(kind)].name;
}

Scenario MakeScenario(std::uint64_t seed, std::size_t operationCount)
{
    // The engine's numbers are fixed by the language; the library's distributions are not, and are not used.
    std::mt19937_64 random(seed);
    Scenario scenario;
    scenario.withZel = random() % 8 != 0;
    scenario.knowsDirectory = random() % 2 != 0;
    scenario.skipsUnchanged = random() % 2 != 0;
    scenario.endsSettled = random() % 4 != 0;
    scenario.operations.resize(operationCount);
    for (Operation& operation : scenario.operations)
    {
        operation.kind = Choose(random());
        for (std::uint32_t& number : operation.numbers)
        {
            number = static_cast<std::uint32_t>(random() % 1000);
        }
    }
    return scenario;
}

void WriteScenario(std::ostream& out, const Scenario& scenario)
{
    out << "setup zel=" << (scenario.withZel ? 1 : 0) << " directory=" << (scenario.knowsDirectory ? 1 : 0)
        << " skip=" << (scenario.skipsUnchanged ? 1 : 0) << " settled=" << (scenario.endsSettled ? 1 : 0) << '\n';
    for (const Operation& operation : scenario.operations)
    {
        out << GetName(operation.kind);
        for (const std::uint32_t number : operation.numbers)
        {
            out << ' ' << number;
        }
        out << '\n';
    }
}

Scenario ReadScenario(std::istream& in)
{
    Scenario scenario;
    std::string text;
    std::size_t line = 0;
    while (std::getline(in, text))
    {
        std::istringstream words(text);
        if (++line == 1)
        {
            std::string word;
            if (!(words >> word) || word != "setup")
            {
                throw std::runtime_error("line 1: \"" + word + "\" found, \"setup\" expected");
            }
            scenario.withZel = ReadFlag(words, "zel", line);
            scenario.knowsDirectory = ReadFlag(words, "directory", line);
            scenario.skipsUnchanged = ReadFlag(words, "skip", line);
            scenario.endsSettled = ReadFlag(words, "settled", line);
        }
        else if (!text.empty())
        {
            scenario.operations.push_back(ReadOperation(words, line));
        }
    }
    if (line == 0)
    {
        throw std::runtime_error("line 1: nothing found, \"setup\" expected");
    }
    return scenario;
}

} // namespace ps_ns::simulation
