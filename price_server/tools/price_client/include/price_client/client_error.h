#pragma once

#include <stdexcept>
#include <string>

namespace ps_ns::price_client
{

/// What the program's exit code says.
enum class ExitCode : int
{
    Ok = 0,            ///< done; or ended as asked: a signal, a reader that has left, --count
    Failure = 1,       ///< standard output or a file failed, the server answered nonsense, or a signal came too early
    Usage = 2,         ///< the command line makes no sense
    CannotConnect = 3, ///< nobody answers at the address, or not in time, or with a certificate that is not trusted
    Refused = 4,       ///< the server answered, and said no: token, rights, limits
    NotFound = 5       ///< there is no such instrument
};

/// Why the program ends, in words for its user. `what()` says what, and where.
class ClientError : public std::runtime_error
{
public:
    /// `mayPass`: trying again later may help.
    ClientError(ExitCode exitCode, const std::string& text, bool mayPass = false)
        : std::runtime_error(text)
        , m_exitCode(exitCode)
        , m_mayPass(mayPass)
    {
    }

    ExitCode GetExitCode() const noexcept { return m_exitCode; }
    bool MayPass() const noexcept { return m_mayPass; }

private:
    ExitCode m_exitCode;
    bool m_mayPass;
};

} // namespace ps_ns::price_client
