#include "resident.h"

#include "floor_manager.h"
#include "live_manager.h"
#include "sample_def.h"

#include <cstdio>
#include <fstream>
#include <iostream>
#include <stdexcept>

#include <unistd.h>

namespace compare
{
namespace
{

double ReadResident_bytes()
{
    std::ifstream file("/proc/self/statm");
    double size = 0;
    double resident = 0;
    file >> size >> resident;
    return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

template <class Manager>
void Print(std::size_t live, bool isFlexible)
{
    Manager manager;
    constexpr std::uint64_t kWarmUp = 1000; // what is allocated once, whatever comes
    const auto add = [&](std::uint64_t id)
    {
        if (isFlexible)
        {
            manager.Join(MakeSampleDef(id), 1);
        }
        else
        {
            manager.Subscribe(MakeSampleDef(id));
        }
    };
    for (std::uint64_t id = 0; id < kWarmUp; ++id)
    {
        add(id);
    }
    const double before = ReadResident_bytes();
    for (std::uint64_t id = kWarmUp; id < kWarmUp + live; ++id)
    {
        add(id);
    }
    std::cout << (ReadResident_bytes() - before) / static_cast<double>(live) << std::endl;
    ::_exit(0); // taking a million of them down is not what is measured
}

} // namespace

int PrintResident(const std::string& what, std::size_t live)
{
    const bool isFlexible = what.starts_with("flexible");
    if (what.ends_with("manager"))
    {
        Print<LiveManager>(live, isFlexible);
    }
    if (what.ends_with("floor"))
    {
        Print<FloorManager>(live, isFlexible);
    }
    return 2;
}

double MeasureResident_bytes(const std::string& what, std::size_t live)
{
    const std::string self = "/proc/" + std::to_string(::getpid()) + "/exe"; // in the child, "self" is the shell
    const std::string command = self + " --resident '" + what + "' --live " + std::to_string(live);
    FILE* const pipe = ::popen(command.c_str(), "r");
    double bytes = 0;
    const bool isRead = pipe != nullptr && std::fscanf(pipe, "%lf", &bytes) == 1;
    if (pipe != nullptr)
    {
        ::pclose(pipe);
    }
    if (!isRead)
    {
        throw std::runtime_error("cannot measure memory by " + command);
    }
    return bytes;
}

} // namespace compare
