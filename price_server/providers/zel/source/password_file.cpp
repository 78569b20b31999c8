#include "zel/password_file.h"

#include <fstream>
#include <stdexcept>

namespace ps_ns
{

std::string ReadPasswordFile(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    line.erase(line.find_last_not_of(" \t\r") + 1);
    if (line.empty())
    {
        throw std::runtime_error("there is no password in " + path);
    }
    return line;
}

} // namespace ps_ns
