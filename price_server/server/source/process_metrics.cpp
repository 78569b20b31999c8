#include "server/process_metrics.h"

#include "metric_family.h"

#include <prometheus/collectable.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/resource.h>
#include <unistd.h>

namespace ps_ns
{
namespace
{

std::string ReadFile(const char* path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// In seconds since 1970. The clock's own steps move it: it is asked once.
double GetStartTime(const ProcessStat& stat)
{
    timespec sinceBoot{};
    ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
    const double boot_sec = static_cast<double>(sinceBoot.tv_sec) + static_cast<double>(sinceBoot.tv_nsec) / 1e9;
    const double start_sec = static_cast<double>(stat.start_ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    const std::chrono::duration<double> now = std::chrono::system_clock::now().time_since_epoch();
    return now.count() - (boot_sec - start_sec);
}

class ProcessMetrics final : public prometheus::Collectable
{
public:
    ProcessMetrics()
    {
        if (const auto stat = ParseProcessStat(ReadFile("/proc/self/stat")))
        {
            m_start_sec = GetStartTime(*stat);
        }
    }

    std::vector<prometheus::MetricFamily> Collect() const override
    {
        std::vector<prometheus::MetricFamily> families;
        if (const auto stat = ParseProcessStat(ReadFile("/proc/self/stat")))
        {
            AddStat(*stat, families);
        }
        AddDescriptors(families);
        return families;
    }

private:
    void AddStat(const ProcessStat& stat, std::vector<prometheus::MetricFamily>& families) const
    {
        const double tick_sec = 1.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
        families.push_back(MakeCounterFamily("process_cpu_seconds_total",
                                             "Processor time in user and kernel mode, in seconds.",
                                             static_cast<double>(stat.cpu_ticks) * tick_sec));
        families.push_back(
            MakeGaugeFamily("process_resident_memory_bytes", "Resident memory.",
                            static_cast<double>(stat.resident_pages) * static_cast<double>(::sysconf(_SC_PAGESIZE))));
        families.push_back(MakeGaugeFamily("process_virtual_memory_bytes", "Virtual memory.",
                                           static_cast<double>(stat.virtual_bytes)));
        families.push_back(MakeGaugeFamily("process_start_time_seconds",
                                           "When the process started, in seconds since 1970 UTC.", m_start_sec));
    }

    static void AddDescriptors(std::vector<prometheus::MetricFamily>& families)
    {
        std::error_code error;
        const std::filesystem::directory_iterator open("/proc/self/fd", error);
        if (!error)
        {
            const auto count = std::distance(begin(open), end(open)) - 1; // less the one that looks
            families.push_back(
                MakeGaugeFamily("process_open_fds", "Open file descriptors.", static_cast<double>(count)));
        }
        rlimit limit{};
        if (::getrlimit(RLIMIT_NOFILE, &limit) == 0)
        {
            families.push_back(MakeGaugeFamily("process_max_fds", "The most file descriptors that may be open.",
                                               static_cast<double>(limit.rlim_cur)));
        }
    }

    double m_start_sec = 0; ///< set once
};

} // namespace

std::optional<ProcessStat> ParseProcessStat(const std::string& text)
{
    const std::size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string::npos)
    {
        return std::nullopt;
    }
    // The fields behind the name, as proc(5) counts them from 3.
    constexpr int kFirst = 3;
    constexpr int kUserTime = 14;
    constexpr int kSystemTime = 15;
    constexpr int kStartTime = 22;
    constexpr int kVirtualSize = 23;
    constexpr int kResidentSize = 24;
    std::istringstream fields(text.substr(nameEnd + 1));
    std::vector<std::uint64_t> numbers(kResidentSize + 1);
    for (int field = kFirst; field <= kResidentSize; ++field)
    {
        std::string word;
        if (!(fields >> word))
        {
            return std::nullopt;
        }
        numbers[static_cast<std::size_t>(field)] = std::strtoull(word.c_str(), nullptr, 10);
    }
    return ProcessStat{numbers[kUserTime] + numbers[kSystemTime], numbers[kStartTime], numbers[kVirtualSize],
                       numbers[kResidentSize]};
}

std::shared_ptr<prometheus::Collectable> MakeProcessMetrics()
{
    return std::make_shared<ProcessMetrics>();
}

} // namespace ps_ns
