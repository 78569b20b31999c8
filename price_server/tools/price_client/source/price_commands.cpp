#include "price_commands.h"

#include "price_client/client_error.h"
#include "price_client/feed.h"
#include "price_client/feed_runner.h"
#include "price_client/loop.h"
#include "price_client/views.h"
#include "server/output_writer.h"
#include "server/stop_signals.h"
#include "server/terminal.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace ps_ns::price_client
{
namespace
{

using std::chrono::milliseconds;

constexpr std::size_t kOutputCapacity = 1 << 20; // bytes
constexpr milliseconds kTick{100};
constexpr milliseconds kLook{10};
constexpr milliseconds kOutputPatience{500}; // for a reader that does not read, when the program is to stop
constexpr unsigned kWatchInterval_ms = 100;  // nobody sees more
constexpr const char* kWatchDepth = "10";

void TalkToStderr(const std::string& text)
{
    std::fprintf(stderr, "price_client: %s\n", text.c_str());
}

/// Standard output, and who may ask for the end: signals, and a reader that has gone.
class Run
{
public:
    explicit Run(std::function<void()> onSecondSignal)
        : m_signals([this] { OnSignal(); }, std::move(onSecondSignal))
        , m_writer(STDOUT_FILENO, kOutputCapacity, OutputWriter::WhenFull::Wait)
    {
        m_released.store(&m_writer);
    }
    ~Run() { m_released.store(nullptr); }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    Loop& GetLoop() noexcept { return m_loop; }
    OutputWriter& GetWriter() noexcept { return m_writer; }

    /// A reader that has gone ends the run.
    void LookAtReader()
    {
        if (m_writer.GetError() != 0)
        {
            m_loop.RequestStop();
        }
    }

    /// Waits for the reader, who gets everything unless a signal comes. Throws ClientError when he could not.
    void Finish()
    {
        while (!m_writer.IsIdle() && m_writer.GetError() == 0 && !m_signals.WaitFor(kLook))
        {
        }
        m_writer.Close(kOutputPatience);
        if (const int error = m_writer.GetError(); error != 0 && error != EPIPE)
        {
            throw ClientError(ExitCode::Failure,
                              std::string("standard output cannot be written: ") + std::strerror(error));
        }
    }

private:
    /// Whoever waits for a reader holds up the end.
    void OnSignal()
    {
        if (OutputWriter* const writer = m_released.load())
        {
            writer->Release();
        }
        m_loop.RequestStop();
    }

    std::atomic<OutputWriter*> m_released{nullptr};
    Loop m_loop;
    StopSignals m_signals; ///< before anything that has a thread, and behind what a signal reaches
    OutputWriter m_writer;
};

FeedRequest MakeRequest(const Options& options)
{
    FeedRequest request;
    request.instruments = options.instruments;
    request.depth = options.depth;
    request.interval_ms = options.interval_ms.value_or(0);
    request.kinds = options.kinds;
    request.token = options.access.token;
    return request;
}

/// Covers the terminal from the first thing there is to show until it is destroyed; then the last picture stays, with
/// what was said meanwhile.
class WatchScreen
{
public:
    WatchScreen(Run& run, LadderScreen& ladders)
        : m_run(run)
        , m_ladders(ladders)
        , m_holdsTalk(::isatty(STDERR_FILENO) == 1)
        , m_hasColors(WantsColors())
    {
    }
    ~WatchScreen() { Leave(); }
    WatchScreen(const WatchScreen&) = delete;
    WatchScreen& operator=(const WatchScreen&) = delete;

    void Talk(const std::string& text)
    {
        if (!m_isOnScreen || !m_holdsTalk)
        {
            return TalkToStderr(text);
        }
        m_held.push_back(text);
        if (m_held.size() > kMostHeld)
        {
            m_held.erase(m_held.begin());
        }
    }

    void Draw()
    {
        if (!m_ladders.HasNames() || !m_run.GetWriter().IsIdle()) // a slow terminal gets fewer frames
        {
            return;
        }
        if (!std::exchange(m_isOnScreen, true))
        {
            m_run.GetWriter().Write(EnterScreen());
        }
        const std::string said = m_held.empty() ? "" : "; " + m_held.back();
        const std::string footer = std::to_string(m_ladders.GetUpdateCount()) + " updates. Ctrl+C ends" + said;
        std::string frame = DrawScreen(m_ladders.Render(footer, GetScreenSize(STDOUT_FILENO), m_hasColors));
        if (frame != m_lastFrame)
        {
            m_lastFrame = frame;
            m_run.GetWriter().Write(std::move(frame));
        }
    }

private:
    static constexpr std::size_t kMostHeld = 200;

    void Leave()
    {
        if (!std::exchange(m_isOnScreen, false))
        {
            return;
        }
        std::string text = LeaveScreen();
        auto lines = m_ladders.Render("", GetScreenSize(STDOUT_FILENO), m_hasColors);
        while (!lines.empty() && lines.back().empty())
        {
            lines.pop_back();
        }
        for (const std::string& line : lines)
        {
            text += line + "\r\n";
        }
        m_run.GetWriter().Write(std::move(text));
        m_run.GetWriter().Close(kOutputPatience);
        for (const std::string& line : m_held)
        {
            TalkToStderr(line);
        }
    }

    Run& m_run;
    LadderScreen& m_ladders;
    const bool m_holdsTalk; ///< it would be written over the ladders
    const bool m_hasColors;
    std::vector<std::string> m_held;
    std::string m_lastFrame;
    bool m_isOnScreen = false;
};

void UncoverTerminal()
{
    const std::string text = LeaveScreen();
    static_cast<void>(::write(STDOUT_FILENO, text.data(), text.size()) + 1);
}

} // namespace

void RunWatch(const Options& options)
{
    if (!IsLadderTerminal(STDOUT_FILENO))
    {
        throw ClientError(ExitCode::Usage, "watch draws on a terminal, and standard output is none: use subscribe");
    }
    FeedRequest request = MakeRequest(options);
    request.depth = options.depth.empty() ? kWatchDepth : options.depth;
    request.interval_ms = options.interval_ms.value_or(kWatchInterval_ms);
    request.kinds = {"book", "trades"};

    LadderScreen ladders(options.instruments);
    Run run(&UncoverTerminal);
    {
        WatchScreen screen(run, ladders);
        const auto talk = [&screen](const std::string& text) { screen.Talk(text); };
        Feed feed(std::move(request), ladders, talk);
        const Ticker ticker(run.GetLoop(), kTick,
                            [&]
                            {
                                run.LookAtReader();
                                screen.Draw();
                            });
        RunFeed(run.GetLoop(), options.access, feed, talk);
    }
    run.Finish();
}

void RunSubscribe(const Options& options)
{
    Run run([] {});
    std::uint64_t written = 0;
    LineView view(options.writesBooks, options.instruments.size(),
                  [&](std::string line)
                  {
                      if (options.count && written >= *options.count)
                      {
                          return;
                      }
                      run.GetWriter().Write(std::move(line));
                      ++written;
                      if (options.count && written == *options.count)
                      {
                          run.GetLoop().RequestStop();
                      }
                  });
    Feed feed(MakeRequest(options), view, TalkToStderr);
    const Ticker ticker(run.GetLoop(), kTick, [&run] { run.LookAtReader(); });
    RunFeed(run.GetLoop(), options.access, feed, TalkToStderr);
    run.Finish();
}

} // namespace ps_ns::price_client
