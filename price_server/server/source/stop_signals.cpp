#include "server/stop_signals.h"

#include "server/exit_code.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace ps_ns
{
namespace
{

int Require(int descriptor, const char* what)
{
    if (descriptor < 0)
    {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return descriptor;
}

} // namespace

StopSignals::StopSignals(std::function<void()> onFirst, std::function<void()> onSecond)
    : m_onFirst(std::move(onFirst))
    , m_onSecond(std::move(onSecond))
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
    {
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    m_signals = Require(::signalfd(-1, &signals, SFD_CLOEXEC), "signalfd");
    m_end = Require(::eventfd(0, EFD_CLOEXEC), "eventfd");
    m_thread = std::thread([this] { Run(); });
}

StopSignals::~StopSignals()
{
    const std::uint64_t one = 1;
    while (::write(m_end, &one, sizeof one) < 0 && errno == EINTR)
    {
    }
    m_thread.join();
    ::close(m_signals);
    ::close(m_end);
}

bool StopSignals::WaitFor(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    return m_requested.wait_for(lock, time, [this] { return m_isRequested.load(); });
}

void StopSignals::Run()
{
    std::chrono::steady_clock::time_point firstTime;
    for (;;)
    {
        std::array<pollfd, 2> ready{{{m_signals, POLLIN, 0}, {m_end, POLLIN, 0}}};
        if (::poll(ready.data(), ready.size(), -1) < 0)
        {
            continue;
        }
        signalfd_siginfo info{};
        if (ready[0].revents != 0 && ::read(m_signals, &info, sizeof info) > 0)
        {
            const auto now = std::chrono::steady_clock::now();
            if (m_isRequested.load() && now - firstTime < kSameRequest)
            {
                continue;
            }
            if (m_isRequested.load())
            {
                m_onSecond();
                ::_exit(ExitSecondSignal);
            }
            firstTime = now;
            m_onFirst();
            const std::lock_guard lock(m_mutex);
            m_isRequested.store(true);
            m_requested.notify_all();
        }
        else if (ready[1].revents != 0)
        {
            return;
        }
    }
}

} // namespace ps_ns
