#include "config/config.h"
#include "config/config_schema.h"
#include "config_test_kit.h"
#include "generated_config.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

using namespace ps_ns;

namespace
{

/// Loads the file and checks what could be loaded, as --check-config does. Returns the number of problems.
std::size_t LoadAndCheck(const std::string& path)
{
    try
    {
        return MakeSampleSchema().Check(Config::LoadFile(path)->GetDocument()).size();
    }
    catch (const ConfigError& error)
    {
        return error.GetProblems().size();
    }
}

std::string Repeat(std::string_view head, std::string_view unit, std::size_t times, std::string_view tail)
{
    std::string text(head);
    for (std::size_t count = 0; count < times; ++count)
    {
        text += unit;
    }
    return text.append(tail);
}

/// Attributes, or elements, whose names all differ and resemble a known one.
std::string Numbered(std::string_view head, std::string_view before, std::string_view after, std::size_t times,
                     std::string_view tail)
{
    std::string text(head);
    for (std::size_t count = 0; count < times; ++count)
    {
        text.append(before).append(std::to_string(count)).append(after);
    }
    return text.append(tail);
}

GeneratedConfig Text(std::string text)
{
    return {.kind = "", .head = std::move(text)};
}

GeneratedConfig Huge(std::string head, std::string unit)
{
    return {.kind = "", .head = std::move(head), .unit = std::move(unit), .size = ConfigGenerator::kHugeBytes};
}

void CheckFile(benchmark::State& state, const GeneratedConfig& file)
{
    const TemporaryFolder folder;
    const std::string path = folder.GetPath("config.xml");
    file.WriteTo(path);
    std::size_t problems = 0;
    for (auto _ : state)
    {
        problems = LoadAndCheck(path);
    }
    state.counters["problems"] = static_cast<double>(problems);
}

/// The slowest single answer among ten thousand files, and their mean.
void CheckTenThousandGeneratedFiles(benchmark::State& state)
{
    constexpr std::size_t kFiles = 10'000;
    using Milliseconds = std::chrono::duration<double, std::milli>;
    const TemporaryFolder folder;
    const std::string path = folder.GetPath("config.xml");
    for (auto _ : state)
    {
        ConfigGenerator generator(kSampleText, 20'240'808);
        Milliseconds longest{0};
        Milliseconds total{0};
        for (std::size_t index = 0; index < kFiles; ++index)
        {
            generator.Next().WriteTo(path);
            const auto start = std::chrono::steady_clock::now();
            benchmark::DoNotOptimize(LoadAndCheck(path));
            const Milliseconds took = std::chrono::steady_clock::now() - start;
            longest = std::max(longest, took);
            total += took;
        }
        state.SetIterationTime(total.count() / 1000);
        state.counters["longest_ms"] = longest.count();
        state.counters["mean_ms"] = total.count() / static_cast<double>(kFiles);
    }
}

const std::string kMarket = "<PriceServer><Markets><Market id='1' name='a'/></Markets>";

} // namespace

BENCHMARK_CAPTURE(CheckFile, valid, Text(std::string(kSampleText)))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, hole_of_100_MiB, Huge("", ""))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, elements_of_100_MiB, Huge("<PriceServer>", "<a/>"))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, nesting_of_100_MiB, Huge("", "<a>"))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, nesting_of_100_000, Text(Repeat("", "<a>", 100'000, "")))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, text_of_1_MiB, Text(Repeat(kMarket, "&amp;", 209'000, "</PriceServer>")))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, most_elements, Text(Repeat(kMarket, "<Logging/>", 19'990, "</PriceServer>")))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, most_unknown_elements, Text(Numbered(kMarket, "<Loggng", "/>", 19'990, "</PriceServer>")))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, most_unknown_attributes,
                  Text(Numbered("<PriceServer><Markets><Market id='1' name='a'", " defalth", "=''", 19'990,
                                "/></Markets></PriceServer>")))
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(CheckFile, most_wrong_values,
                  Text(Repeat("<PriceServer><Markets>", "<Market id='-'/>", 9'990, "</Markets></PriceServer>")))
    ->Unit(benchmark::kMillisecond);
BENCHMARK(CheckTenThousandGeneratedFiles)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
