#pragma once

#include "server/command_line.h"

namespace ps_ns
{

/// Does what the command line asks for, until it is done or a signal comes; returns the exit code (exit_code.h). Data
/// goes to standard output, talk to standard error. On the main thread, before there is any other.
int RunProgram(const CommandLine& line);

} // namespace ps_ns
