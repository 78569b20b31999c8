#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace ps_ns
{

/// One thing that is wrong with a configuration. The text is one line of printable characters and never long: what it
/// quotes of the file is cut and escaped.
struct ConfigProblem
{
    std::size_t line = 1; ///< counted from 1; 1 also when the file as a whole is meant (it is missing, say)
    std::string text;

    friend bool operator==(const ConfigProblem&, const ConfigProblem&) = default;
};

/// "file:line: text"
std::string Describe(const std::string& file, const ConfigProblem& problem);

/// A configuration that cannot be used. what() has one line "file:line: text" for each problem, with no line break at
/// its end.
class ConfigError : public std::runtime_error
{
public:
    ConfigError(const std::string& file, ConfigProblem problem);
    /// `problems` is not empty.
    ConfigError(const std::string& file, std::vector<ConfigProblem> problems);

    const std::vector<ConfigProblem>& GetProblems() const noexcept { return m_problems; }

private:
    std::vector<ConfigProblem> m_problems; ///< set once
};

} // namespace ps_ns
