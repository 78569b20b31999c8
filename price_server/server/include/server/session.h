#pragma once

#include "server/effective_config.h"
#include "server/exit_code.h"
#include "server/output_writer.h"
#include "server/price_server.h"
#include "server/price_views.h"
#include "server/service_notifier.h"
#include "server/stop_signals.h"
#include "server/terminal.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns
{

/// One run of the program: a server, what it shows, and how it ends.
///
/// Threads: the main thread's; signals come on a thread of their own.
class Session
{
public:
    /// `line` says what to show; what to run on is in `effective`.
    Session(const CommandLine& line, EffectiveConfig effective);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// Until the end that was asked for, or a signal. Returns the exit code; throws std::runtime_error when the server
    /// cannot run, or an instrument is not known.
    int Run();

private:
    using Clock = std::chrono::steady_clock;

    void OnFirstSignal();
    void OnSecondSignal();
    PriceServerOptions MakeServerOptions();
    bool WaitForDirectory();
    std::vector<ListedInstrument> ChooseWatched(const std::vector<ListedInstrument>& instruments) const;
    void StartWatch(const std::vector<ListedInstrument>& watched);
    void Talk(std::size_t instruments, const std::vector<ListedInstrument>& watched) const;
    void RunUntilEnd();
    bool IsAtEnd(Clock::time_point end);
    bool HasFailed() const;
    void Draw();
    std::vector<std::string> RenderFrame();
    int Finish();
    void LeaveLadder();

    const CommandLine& m_line;
    const EffectiveConfig m_effective;
    const bool m_watches;      ///< something is shown
    const bool m_showsLadders; ///< on a terminal
    const bool m_holdsLog;     ///< the log would be written over the ladders
    const bool m_hasColors;

    std::atomic<OutputWriter*> m_released{nullptr}; ///< whose writers a signal lets go
    StopSignals m_signals;                          ///< before anything that has a thread
    OutputWriter m_writer;
    const std::shared_ptr<HeldRecords> m_held = std::make_shared<HeldRecords>();
    std::shared_ptr<LadderState> m_ladders; ///< null when none are shown
    ServiceNotifier m_notifier;             ///< before the server, whose queue thread uses it
    PriceServer m_server;
    std::string m_lastFrame;
    bool m_isOnScreen = false;
};

} // namespace ps_ns
