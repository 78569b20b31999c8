#pragma once

#include <functional>
#include <string>
#include <utility>

namespace ps_ns
{

/// A task that runs a std::function. `Base` is the queue's task type (task.h).
template <class Base>
class ChannelTask final : public Base
{
public:
    /// `name` labels the action in the reader's error messages; it may be empty.
    ChannelTask(std::function<void()>&& action, const std::string& name)
        : m_action(std::move(action))
        , m_name(name)
    {
    }

    /// Runs the action. Throws std::bad_function_call when there is none, and whatever the action throws.
    void execute() override { m_action(); }

    const std::string& GetName() const noexcept { return m_name; }

private:
    std::function<void()> m_action;
    std::string m_name;
};

} // namespace ps_ns
