#include "simulation/faults.h"

namespace ps_ns::simulation
{

std::string_view GetName(Fault fault) noexcept
{
    static constexpr std::array<std::string_view, kFaultCount> names{
        "direct subscribe of an instrument that has a handle",
        "direct subscribe of an instrument that is subscribed",
        "subscription id that is taken",
        "observer that did not subscribe the id",
        "unknown handle",
        "unknown subscription id",
        "instrument that is not subscribed",
        "synthetic instrument",
        "handle whose identity is not even equal to itself",
        "components that cannot be subscribed",
        "provider that refuses with a reason",
        "provider that breaks down in subscribe",
        "component that is answered with a refusal",
        "provider that is not decided",
        "provider that is switched",
        "unsubscribe that fails",
        "unsubscribe that throws",
        "unsubscribe that is never answered",
        "answer that comes after the unsubscribe",
        "rename of a symbol under rename",
        "rename of what a rename leads to",
        "rename that is stuck",
        "unsubscribe under a rename",
        "observer that throws on the data queue",
        "observer that throws on the executor",
        "factory that throws",
        "teardown of nothing",
        "request after the queue was shut down",
        "end in the middle of everything",
    };
    return names[static_cast<std::size_t>(fault)];
}

} // namespace ps_ns::simulation
