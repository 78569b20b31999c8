#pragma once

#include <stdexcept>
#include <string>

namespace ps_ns
{

/// A subscription could not be made; what() says why, and is never empty.
class SubscriptionEx : public std::runtime_error
{
public:
    explicit SubscriptionEx(const std::string& why)
        : std::runtime_error(why.empty() ? std::string("subscription failed for an unnamed reason") : why)
    {
    }
};

} // namespace ps_ns
