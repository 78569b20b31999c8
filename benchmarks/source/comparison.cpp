#include "comparison.h"

#include <boost/json.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <thread>

#include <sys/utsname.h>

namespace compare
{
namespace
{

#ifdef PRICE_SERVER_MIMALLOC
constexpr const char* kHeap = "mimalloc"; // of the project and of its peers
#else
constexpr const char* kHeap = "the C library's";
#endif

/// The value below which `part` of the sorted values lie.
double Quantile(const std::vector<double>& sorted, double part)
{
    const double at = part * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<std::size_t>(at);
    const std::size_t above = std::min(below + 1, sorted.size() - 1);
    return sorted[below] + (at - static_cast<double>(below)) * (sorted[above] - sorted[below]);
}

struct Summary
{
    double median;
    double spread;
};

Summary Summarise(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const double median = Quantile(values, 0.5);
    return {median, median == 0 ? 0 : (Quantile(values, 0.75) - Quantile(values, 0.25)) / std::abs(median)};
}

/// The values of one figure, by alternative and round.
using Samples = std::vector<std::vector<double>>;

std::string ReadProcessor()
{
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);)
    {
        if (line.rfind("model name", 0) == 0)
        {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown";
}

std::string ReadLoad()
{
    std::ifstream file("/proc/loadavg");
    std::string load;
    std::getline(file, load);
    return load;
}

std::string Now()
{
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm utc{};
    gmtime_r(&now, &utc);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

} // namespace

Runner::Runner(std::size_t rounds, std::string filter, std::ostream& out)
    : m_rounds(rounds)
    , m_filter(std::move(filter))
    , m_out(out)
{
}

bool Runner::IsWanted(const std::string& group, const std::string& name) const
{
    return (group + "/" + name).find(m_filter) != std::string::npos;
}

void Runner::Run(const Comparison& comparison)
{
    if (!IsWanted(comparison.group, comparison.name))
    {
        return;
    }
    const std::size_t count = comparison.alternatives.size();
    std::vector<std::string> order; // of the figures, as they first come
    std::map<std::string, Samples> samples;
    for (std::size_t round = 0; round <= m_rounds; ++round)
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            const std::size_t alternative = (i + round) % count;
            for (const auto& [figure, value] : comparison.alternatives[alternative].run())
            {
                if (samples.count(figure) == 0)
                {
                    order.push_back(figure);
                    samples[figure].resize(count);
                }
                if (round != 0)
                {
                    samples[figure][alternative].push_back(value);
                }
            }
        }
    }

    const std::size_t first = m_results.size();
    for (const std::string& figure : order)
    {
        const std::vector<double>& ours = samples[figure][0];
        for (std::size_t alternative = 0; alternative < count; ++alternative)
        {
            const std::vector<double>& values = samples[figure][alternative];
            if (values.empty())
            {
                continue;
            }
            Result result{comparison.group, comparison.name, comparison.alternatives[alternative].name, figure};
            const Summary summary = Summarise(values);
            result.median = summary.median;
            result.spread = summary.spread;
            result.rounds = values.size();
            if (values.size() == ours.size())
            {
                std::vector<double> ratios;
                for (std::size_t round = 0; round < values.size(); ++round)
                {
                    ratios.push_back(values[round] == 0 ? 0 : ours[round] / values[round]);
                }
                const Summary ratio = Summarise(ratios);
                result.ratio = ratio.median;
                result.ratioSpread = ratio.spread;
            }
            m_results.push_back(result);
        }
    }
    Print(first);
}

void Runner::Print(std::size_t first) const
{
    std::string figure;
    for (std::size_t i = first; i < m_results.size(); ++i)
    {
        const Result& result = m_results[i];
        if (i == first)
        {
            m_out << "\n" << result.group << ": " << result.comparison << "\n";
        }
        if (result.figure != figure)
        {
            figure = result.figure;
            m_out << "  " << figure << "\n";
        }
        char line[200];
        std::snprintf(line, sizeof(line), "    %-44s %14.1f  +-%4.0f %%   ours is %7.2f x  +-%4.0f %%\n",
                      result.alternative.c_str(), result.median, result.spread * 100, result.ratio,
                      result.ratioSpread * 100);
        m_out << line;
    }
    m_out << std::flush;
}

void Runner::WriteJson(const std::string& file) const
{
    boost::json::array results;
    for (const Result& result : m_results)
    {
        results.push_back({{"group", result.group},
                           {"comparison", result.comparison},
                           {"alternative", result.alternative},
                           {"figure", result.figure},
                           {"median", result.median},
                           {"spread", result.spread},
                           {"ratio", result.ratio},
                           {"ratio_spread", result.ratioSpread},
                           {"rounds", result.rounds}});
    }
    utsname system{};
    uname(&system);
    const boost::json::object all{{"date", Now()},
                                  {"processor", ReadProcessor()},
                                  {"cores", std::thread::hardware_concurrency()},
                                  {"system", std::string(system.sysname) + " " + system.release},
                                  {"compiler", __VERSION__},
                                  {"heap", kHeap},
                                  {"load_at_end", ReadLoad()},
                                  {"rounds", m_rounds},
                                  {"results", results}};
    std::ofstream out(file);
    out << boost::json::serialize(all) << "\n";
    if (!out.flush())
    {
        throw std::runtime_error("cannot write " + file);
    }
}

} // namespace compare
