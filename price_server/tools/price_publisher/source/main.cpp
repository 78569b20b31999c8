#include "price_publisher/options.h"
#include "price_publisher/program.h"

#include <cstdio>
#include <variant>

int main(int argc, char** argv)
{
    using namespace ps_ns::price_publisher;
    const auto parsed = ParseOptions(argc, argv);
    if (const auto* const answer = std::get_if<OptionsAnswer>(&parsed))
    {
        std::fputs(answer->text.c_str(), answer->isError ? stderr : stdout);
        return static_cast<int>(answer->exitCode);
    }
    return static_cast<int>(RunProgram(std::get<Options>(parsed)));
}
