#include "config/config_error.h"

#include <utility>

namespace ps_ns
{

namespace
{

std::string DescribeAll(const std::string& file, const std::vector<ConfigProblem>& problems)
{
    std::string text;
    for (const ConfigProblem& problem : problems)
    {
        text += (text.empty() ? "" : "\n") + Describe(file, problem);
    }
    return text;
}

} // namespace

std::string Describe(const std::string& file, const ConfigProblem& problem)
{
    return file + ":" + std::to_string(problem.line) + ": " + problem.text;
}

ConfigError::ConfigError(const std::string& file, ConfigProblem problem)
    : ConfigError(file, std::vector<ConfigProblem>{std::move(problem)})
{
}

ConfigError::ConfigError(const std::string& file, std::vector<ConfigProblem> problems)
    : std::runtime_error(DescribeAll(file, problems))
    , m_problems(std::move(problems))
{
}

} // namespace ps_ns
