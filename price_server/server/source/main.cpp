#include "server/command_line.h"
#include "server/program.h"

#include <cstdio>
#include <variant>

int main(int argc, char** argv)
{
    const auto parsed = ps_ns::ParseCommandLine(argc, argv);
    if (const auto* const answer = std::get_if<ps_ns::CommandLineAnswer>(&parsed))
    {
        std::fputs(answer->text.c_str(), answer->isError ? stderr : stdout);
        return answer->exitCode;
    }
    return ps_ns::RunProgram(std::get<ps_ns::CommandLine>(parsed));
}
