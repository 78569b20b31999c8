#include "price_client/back_off.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace ps_ns::price_client
{

BackOff::BackOff(std::function<double()> random)
    : m_random(std::move(random))
{
}

std::chrono::milliseconds BackOff::Next()
{
    const auto due = static_cast<double>(m_due.count());
    m_due = std::min(2 * m_due, kLongest);
    return std::chrono::milliseconds(std::lround(due * (0.75 + m_random() / 2)));
}

} // namespace ps_ns::price_client
