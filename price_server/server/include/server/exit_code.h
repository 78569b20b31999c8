#pragma once

namespace ps_ns
{

/// What the program's exit code says.
enum ExitCode : int
{
    ExitOk = 0,            ///< ended as asked: a signal, the end of a recording or of the time, a reader that left
    ExitFailure = 1,       ///< could not run, or not go on: a file that cannot be read, a feed that has failed
    ExitUsage = 2,         ///< the command line makes no sense
    ExitConfiguration = 3, ///< the configuration file is wrong
    ExitSecondSignal = 130 ///< a second signal came before the stop was done
};

} // namespace ps_ns
