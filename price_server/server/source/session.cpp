#include "server/session.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace ps_ns
{
namespace
{

using std::chrono::milliseconds;

constexpr std::size_t kWatchedUnasked = 3;
constexpr std::size_t kOutputCapacity = 1 << 20; // bytes
constexpr milliseconds kRedraw{100};
constexpr milliseconds kLook{10}; // how often an end is looked for
constexpr milliseconds kAnswerPatience{5000};
constexpr milliseconds kBrokerPatience{1000}; // before its absence is talked of
constexpr milliseconds kOutputPatience{500};  // for a reader that does not read, when the program is to stop

/// A replay that does not follow the clock can wait for whoever reads; everything else goes on without him.
OutputWriter::WhenFull ChooseWhenFull(const ServerConfig& config)
{
    const bool followsNoClock = config.mds && config.mds->replay && config.mds->replay->speed == 0;
    return followsNoClock ? OutputWriter::WhenFull::Wait : OutputWriter::WhenFull::Drop;
}

std::string JoinNames(const std::vector<ListedInstrument>& instruments)
{
    std::string names;
    for (const ListedInstrument& instrument : instruments)
    {
        names += (names.empty() ? "" : ", ") + instrument.GetName();
    }
    return names;
}

} // namespace

Session::Session(const CommandLine& line, EffectiveConfig effective)
    : m_line(line)
    , m_effective(std::move(effective))
    , m_watches(!line.watched.empty() || line.configFile.empty())
    , m_showsLadders(m_watches && IsLadderTerminal(STDOUT_FILENO))
    , m_holdsLog(m_showsLadders && ::isatty(STDERR_FILENO) == 1 && m_effective.config.logging.file.empty())
    , m_hasColors(WantsColors())
    , m_signals([this] { OnFirstSignal(); }, [this] { OnSecondSignal(); })
    , m_writer(STDOUT_FILENO, kOutputCapacity, ChooseWhenFull(m_effective.config))
    , m_server(m_effective.config, MakeServerOptions())
{
    m_released.store(&m_writer);
}

Session::~Session()
{
    m_writer.Release();
    m_server.Stop();
    LeaveLadder();
    m_released.store(nullptr);
}

/// Whoever waits for a reader holds up the stop.
void Session::OnFirstSignal()
{
    if (OutputWriter* const writer = m_released.load())
    {
        m_server.BeginDrain(); // at once, whatever the main thread waits for
        writer->Release();
    }
}

void Session::OnSecondSignal()
{
    if (m_showsLadders)
    {
        const std::string text = LeaveScreen();
        static_cast<void>(::write(STDOUT_FILENO, text.data(), text.size()) + 1);
    }
}

PriceServerOptions Session::MakeServerOptions()
{
    PriceServerOptions options;
    options.logSink = m_holdsLog ? m_held : nullptr;
    options.alignsStarts = m_effective.alignsStarts;
    options.holdsPrices = m_watches;
    options.takesAnyPort = m_effective.takesAnyPort;
    options.onQueueAlive = [this] { m_notifier.Ping(ServiceNotifier::Clock::now()); };
    return options;
}

int Session::Run()
{
    m_server.Start();
    if (!WaitForDirectory())
    {
        return Finish();
    }
    const auto instruments = ListInstruments(m_server.GetDirectoryEntries(), m_server.GetMarkets());
    const std::vector<ListedInstrument> watched = ChooseWatched(instruments);
    Talk(instruments.size(), watched);
    m_notifier.Ready(std::to_string(instruments.size()) + " instruments" +
                     (m_server.GetUrl().empty() ? "" : " at " + m_server.GetUrl()));
    if (m_watches)
    {
        StartWatch(watched);
    }
    RunUntilEnd();
    return Finish();
}

/// False: a signal came first.
bool Session::WaitForDirectory()
{
    const auto begin = Clock::now();
    bool hasSpoken = !m_effective.config.zel || m_effective.config.mds;
    while (!m_server.IsDirectoryComplete())
    {
        if (!hasSpoken && Clock::now() - begin > kBrokerPatience)
        {
            hasSpoken = true;
            std::fprintf(stderr, "price_server: waiting for instruments from the message broker. Ctrl+C ends.\n");
        }
        if (m_signals.WaitFor(milliseconds(1)))
        {
            return false;
        }
        if (m_server.HasEnded() && !m_server.IsDirectoryComplete())
        {
            throw std::runtime_error("the market data feed has failed before its instruments were known; see the log");
        }
    }
    return true;
}

std::vector<ListedInstrument> Session::ChooseWatched(const std::vector<ListedInstrument>& instruments) const
{
    if (!m_watches || m_line.watched.empty())
    {
        return m_watches ? ChooseInstruments(instruments, kWatchedUnasked) : std::vector<ListedInstrument>{};
    }
    std::vector<ListedInstrument> watched;
    for (const std::string& text : m_line.watched)
    {
        const ListedInstrument& instrument = FindInstrument(instruments, text);
        const bool isThere =
            std::any_of(watched.begin(), watched.end(),
                        [&](const ListedInstrument& other) { return other.GetName() == instrument.GetName(); });
        if (!isThere)
        {
            watched.push_back(instrument);
        }
    }
    return watched;
}

void Session::Talk(std::size_t instruments, const std::vector<ListedInstrument>& watched) const
{
    if (!m_showsLadders)
    {
        const std::string names = watched.empty() ? "none" : JoinNames(watched);
        std::fprintf(stderr, "price_server: %zu instruments; watching %s. Ctrl+C ends.\n", instruments, names.c_str());
        if (const std::string url = m_server.GetUrl(); !url.empty())
        {
            std::fprintf(stderr, "price_server: page and prices at %s\n", url.c_str());
        }
    }
}

void Session::StartWatch(const std::vector<ListedInstrument>& watched)
{
    std::shared_ptr<IPriceView> view;
    if (m_showsLadders)
    {
        view = m_ladders = std::make_shared<LadderState>(watched);
        m_isOnScreen = m_writer.Write(EnterScreen());
    }
    else
    {
        view = std::make_shared<JsonView>(watched, m_writer);
    }
    PriceWatch watch(m_server, std::move(view));
    for (const ListedInstrument& instrument : watched)
    {
        watch.Add(instrument, m_line.depth);
    }
    if (!watch.WaitForAnswers(kAnswerPatience))
    {
        throw std::runtime_error("not all components of the watched instruments have answered in time");
    }
    m_server.ReleasePrices();
}

void Session::RunUntilEnd()
{
    const auto begin = Clock::now();
    const double longest_sec = 1e9; // the clock's own type reaches no further than some hundred years
    const auto duration = std::chrono::duration<double>(m_line.duration_sec.value_or(longest_sec));
    const auto end = begin + std::chrono::duration_cast<Clock::duration>(duration);
    Clock::time_point nextRedraw = begin;
    while (!IsAtEnd(end) && !m_signals.WaitFor(kLook))
    {
        if (m_ladders != nullptr && Clock::now() >= nextRedraw)
        {
            nextRedraw = Clock::now() + kRedraw;
            Draw();
        }
    }
}

bool Session::IsAtEnd(Clock::time_point end)
{
    if (m_writer.GetError() != 0 || Clock::now() >= end)
    {
        return true;
    }
    if (!m_effective.endsWithPrices || !m_server.HasEnded())
    {
        return false;
    }
    m_server.DrainExecutors();
    // The end of a recording is not the end of what a reader is still to get.
    while (!m_writer.IsIdle() && m_writer.GetError() == 0 && !m_signals.WaitFor(kLook))
    {
    }
    return true;
}

void Session::Draw()
{
    std::string frame = DrawScreen(RenderFrame());
    if (frame != m_lastFrame && m_writer.IsIdle()) // a slow terminal gets fewer frames
    {
        m_lastFrame = frame;
        m_writer.Write(std::move(frame));
    }
}

std::vector<std::string> Session::RenderFrame()
{
    std::uint64_t updates = 0;
    const std::vector<LadderView> views = m_ladders->GetViews(updates);
    std::string footer = m_held->GetNewest();
    if (footer.empty())
    {
        footer = std::to_string(updates) + " updates" + (m_server.HasEnded() ? ", no more to come" : "") +
                 (m_server.GetUrl().empty() ? "" : ". Page: " + m_server.GetUrl()) + ". Ctrl+C ends.";
    }
    return RenderLadders(views, footer, GetScreenSize(STDOUT_FILENO), m_hasColors);
}

int Session::Finish()
{
    if (m_ladders != nullptr)
    {
        Draw();
    }
    const bool hasFailed = HasFailed();
    m_notifier.Stopping();
    m_writer.Release();
    m_server.Stop();
    LeaveLadder();
    m_writer.Close(kOutputPatience);
    if (const std::uint64_t dropped = m_writer.GetDroppedCount(); dropped != 0)
    {
        std::fprintf(stderr, "price_server: %llu lines were dropped: the reader was too slow\n",
                     static_cast<unsigned long long>(dropped));
    }
    const int error = m_writer.GetError();
    if (error != 0 && error != EPIPE)
    {
        std::fprintf(stderr, "price_server: standard output cannot be written: %s\n", std::strerror(error));
        return ExitFailure;
    }
    if (hasFailed)
    {
        std::fprintf(stderr, "price_server: the market data feed has failed; see the log\n");
        return ExitFailure;
    }
    return ExitOk;
}

/// Who waits for the end of the prices is told when it is not the right one.
bool Session::HasFailed() const
{
    return m_effective.endsWithPrices && m_server.HasFailed();
}

/// Brings the terminal's own screen back, with the last picture and what was logged meanwhile.
void Session::LeaveLadder()
{
    if (!std::exchange(m_isOnScreen, false))
    {
        return;
    }
    std::string text = LeaveScreen();
    if (m_ladders != nullptr)
    {
        std::uint64_t updates = 0;
        auto lines = RenderLadders(m_ladders->GetViews(updates), "", GetScreenSize(STDOUT_FILENO), m_hasColors);
        while (!lines.empty() && lines.back().empty())
        {
            lines.pop_back();
        }
        for (const std::string& line : lines)
        {
            text += line + "\r\n";
        }
    }
    m_writer.Write(std::move(text));
    m_writer.Close(kOutputPatience);
    for (const std::string& line : m_held->GetAll())
    {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

} // namespace ps_ns
