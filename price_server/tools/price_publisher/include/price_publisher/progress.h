#pragma once

#include "zel/zel_publisher.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace ps_ns::price_publisher
{

/// What a line of progress tells of.
struct ProgressSample
{
    ZelPublisherCounts counts;
    bool isConnected = false;
    bool hasEnded = false;           ///< the recording is over
    std::uint64_t sourceTime_ns = 0; ///< of the prices, since 1970 UTC; 0: none yet
    std::chrono::steady_clock::time_point time{};
};

/// A line for people, without its end: state, time of the prices, totals, and rates since `before`. With colours only
/// when `hasColors`.
std::string FormatProgress(const ProgressSample& sample, const ProgressSample& before, bool hasColors);

/// The last line: what was done in all.
std::string FormatSummary(const ZelPublisherCounts& counts);

/// "12,345,678".
std::string GroupDigits(std::uint64_t number);
/// "1.2 MB", with a unit that leaves one to three digits in front of the point.
std::string FormatBytes(double bytes);

} // namespace ps_ns::price_publisher
