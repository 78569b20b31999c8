#include "price_publisher/progress.h"

#include <array>
#include <cstdio>
#include <ctime>

namespace ps_ns::price_publisher
{
namespace
{

constexpr const char* kGreen = "\x1b[32m";
constexpr const char* kRed = "\x1b[31m";
constexpr const char* kPlain = "\x1b[0m";

std::string FormatTime(std::uint64_t time_ns)
{
    const auto seconds = static_cast<std::time_t>(time_ns / 1'000'000'000);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return text.data();
}

double PerSecond(std::uint64_t now, std::uint64_t before, std::chrono::duration<double> time)
{
    return time.count() > 0 ? static_cast<double>(now - before) / time.count() : 0;
}

} // namespace

std::string GroupDigits(std::uint64_t number)
{
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3; at -= 3)
    {
        text.insert(at - 3, ",");
    }
    return text;
}

std::string FormatBytes(double bytes)
{
    constexpr std::array kUnits{"B", "kB", "MB", "GB", "TB"};
    std::size_t unit = 0;
    for (; bytes >= 999.95 && unit + 1 < kUnits.size(); ++unit)
    {
        bytes /= 1000;
    }
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
    return text.data();
}

std::string FormatProgress(const ProgressSample& sample, const ProgressSample& before, bool hasColors)
{
    const std::chrono::duration<double> time = sample.time - before.time;
    const std::string state = !sample.isConnected ? "no broker" : sample.hasEnded ? "ended" : "publishing";
    std::string line = hasColors ? (sample.isConnected ? kGreen : kRed) + state + kPlain : state;
    line += sample.sourceTime_ns == 0 ? "" : "  " + FormatTime(sample.sourceTime_ns);
    line += "  " + GroupDigits(sample.counts.messages) + " messages, ";
    line += GroupDigits(static_cast<std::uint64_t>(PerSecond(sample.counts.messages, before.counts.messages, time)));
    line += "/s, " + FormatBytes(PerSecond(sample.counts.bytes, before.counts.bytes, time)) + "/s, ";
    line += GroupDigits(sample.counts.images) + " images";
    line += sample.counts.unsent == 0 ? "" : ", " + GroupDigits(sample.counts.unsent) + " unsent";
    return line;
}

std::string FormatSummary(const ZelPublisherCounts& counts)
{
    return GroupDigits(counts.messages) + " messages and " + GroupDigits(counts.images) + " images, " +
           FormatBytes(static_cast<double>(counts.bytes)) + " in all; " + GroupDigits(counts.unsent) +
           " messages without a broker; " + GroupDigits(counts.connections) + " connections";
}

} // namespace ps_ns::price_publisher
