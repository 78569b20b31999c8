#pragma once

#include <chrono>
#include <functional>

namespace ps_ns::price_client
{

/// How long to wait before the next attempt: a quarter of a second, then twice as long each time, up to ten seconds;
/// each a little different, so that many clients of a server that has been restarted do not come all at once.
class BackOff
{
public:
    static constexpr std::chrono::milliseconds kFirst{250};
    static constexpr std::chrono::milliseconds kLongest{10'000};

    /// `random` gives numbers from 0 to 1.
    explicit BackOff(std::function<double()> random);

    /// From three quarters to five quarters of the time that is due.
    std::chrono::milliseconds Next();
    void Reset() noexcept { m_due = kFirst; }

private:
    const std::function<double()> m_random;
    std::chrono::milliseconds m_due = kFirst;
};

} // namespace ps_ns::price_client
