#include "server/program.h"

#include "server/effective_config.h"
#include "server/exit_code.h"
#include "server/session.h"

#include <cstdio>
#include <exception>
#include <string>
#include <string_view>

namespace ps_ns
{
namespace
{

int Fail(ExitCode code, const std::string& text)
{
    std::fprintf(stderr, "price_server: %s\n", text.c_str());
    return code;
}

int Print(std::string_view text, int exitCode)
{
    const bool isWritten = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    return isWritten ? exitCode : Fail(ExitFailure, "standard output cannot be written");
}

int CheckConfig(const std::string& path)
{
    const std::vector<ConfigProblem> problems = CheckServerConfig(path);
    return Print(DescribeServerConfigCheck(path, problems), problems.empty() ? ExitOk : ExitConfiguration);
}

int RunAsAsked(const CommandLine& line)
{
    if (line.printsConfig)
    {
        return Print(GetBuiltInServerConfigText(), ExitOk);
    }
    if (line.checksConfig)
    {
        return CheckConfig(line.configFile);
    }
    return Session(line, MakeEffectiveConfig(line)).Run();
}

} // namespace

int RunProgram(const CommandLine& line)
{
    try
    {
        return RunAsAsked(line);
    }
    catch (const ConfigError& error)
    {
        std::fprintf(stderr, "%s\n", error.what()); // begins with the file's name and a line number
        return ExitConfiguration;
    }
    catch (const UsageError& error)
    {
        return Fail(ExitUsage, error.what());
    }
    catch (const std::exception& error)
    {
        return Fail(ExitFailure, error.what());
    }
}

} // namespace ps_ns
