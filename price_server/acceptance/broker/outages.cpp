#include "broker/soak.h"
#include "broker/trace.h"

#include <algorithm>
#include <cstdio>
#include <thread>

namespace ps_ns::broker_soak
{
namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
constexpr auto kPatience = std::chrono::seconds(30);

/// Breaks the broker again and again, and measures how long the books need once it listens.
class Outages
{
public:
    explicit Outages(const SoakOptions& options)
        : m_options(options)
        , m_random(options.seed)
        , m_chain(options, m_trace)
    {
    }

    bool Run()
    {
        m_chain.SubscribeAll();
        Check("before", Clock::now() + kPatience);
        for (unsigned i = 0; i < m_options.kills; ++i)
        {
            m_chain.flow.WaitForMessages(Draw(500));
            m_trace->Clear();
            m_chain.broker.Kill();
            CheckAllAreStale("kill " + std::to_string(i + 1));
            std::this_thread::sleep_for(milliseconds(Draw(300)));
            m_trace->Note("--- the broker is started");
            m_chain.broker.Start();
            Recover("kill " + std::to_string(i + 1), m_kills);
        }
        for (unsigned i = 0; i < m_options.freezes; ++i)
        {
            m_chain.flow.WaitForMessages(Draw(500));
            m_trace->Clear();
            m_chain.broker.Freeze();
            const auto end =
                Clock::now() +
                milliseconds(100 + Draw(static_cast<std::int64_t>(m_options.longestFreeze_sec * 1000) - 100));
            if (end - Clock::now() > m_options.recovery)
            {
                CheckAllAreStale("freeze " + std::to_string(i + 1));
            }
            std::this_thread::sleep_until(end);
            m_trace->Note("--- the broker goes on");
            m_chain.broker.Thaw();
            Recover("freeze " + std::to_string(i + 1), m_freezes);
        }
        Print("kill", m_kills);
        Print("freeze", m_freezes);
        if (!m_goneToStale.empty())
        {
            std::printf("%zu outages; all books stale after: median %.0f ms, longest %.0f ms\n", m_goneToStale.size(),
                        GetMedian(m_goneToStale), *std::max_element(m_goneToStale.begin(), m_goneToStale.end()));
        }
        m_chain.CheckClients(m_verdict);
        return m_verdict.IsGood();
    }

private:
    std::uint64_t Draw(std::int64_t below)
    {
        return static_cast<std::uint64_t>(m_random.Below(std::max<std::int64_t>(below, 1)));
    }

    static double GetMedian(std::vector<double> times_ms)
    {
        std::sort(times_ms.begin(), times_ms.end());
        return times_ms[times_ms.size() / 2];
    }

    static double MeasureSince(Clock::time_point begin)
    {
        return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
    }

    /// The broker has gone just now.
    void CheckAllAreStale(const std::string& what)
    {
        const auto begin = Clock::now();
        WaitUntilAllAre(true, what);
        m_goneToStale.push_back(MeasureSince(begin));
        CheckTime(what + ": all books stale", m_goneToStale.back(), begin);
    }

    /// Says of a time that is too long where it has gone.
    void CheckTime(const std::string& what, double time_ms, Clock::time_point begin)
    {
        if (time_ms > static_cast<double>(m_options.recovery.count()))
        {
            m_verdict.Fail(what + " after " + std::to_string(time_ms) + " ms");
            std::printf("%s after %.0f ms, at a load of %.1f:\n", what.c_str(), time_ms, GetLoad());
            m_trace->Print(begin);
        }
    }

    /// Every client's newest book says that it is stale, or that it is not.
    void WaitUntilAllAre(bool stale, const std::string& what)
    {
        const auto deadline = Clock::now() + kPatience;
        const auto isAsWanted = [&](const std::shared_ptr<BookClient>& client) { return client->IsStale() == stale; };
        bool areAll = false;
        while (!(areAll = std::all_of(m_chain.clients.begin(), m_chain.clients.end(), isAsWanted)) &&
               Clock::now() < deadline)
        {
            std::this_thread::sleep_for(milliseconds(1));
        }
        if (!areAll)
        {
            m_verdict.Fail(what + ": a book is " + (stale ? "not stale" : "still stale"));
        }
    }

    /// The broker listens, or goes on, just now.
    void Recover(const std::string& what, std::vector<double>& times_ms)
    {
        const auto begin = Clock::now();
        std::this_thread::sleep_for(milliseconds(Draw(200))); // under flow
        Check(what, begin + kPatience);
        WaitUntilAllAre(false, what);
        times_ms.push_back(MeasureSince(begin));
        CheckTime(what + ": all books equal", times_ms.back(), begin);
    }

    void Check(const std::string& what, Clock::time_point deadline)
    {
        std::string difference;
        if (!m_chain.WaitUntilBooksAreEqual(deadline, difference))
        {
            m_verdict.Fail(what + ": " + difference);
        }
    }

    void Print(const char* what, const std::vector<double>& times_ms) const
    {
        if (times_ms.empty())
        {
            return;
        }
        const auto limit_ms = static_cast<double>(m_options.recovery.count());
        const auto over =
            std::count_if(times_ms.begin(), times_ms.end(), [limit_ms](double time) { return time > limit_ms; });
        std::printf("%zu %ss; all books equal after: median %.0f ms, longest %.0f ms; %td of them over %.0f ms; the "
                    "machine's load is %.1f\n",
                    times_ms.size(), what, GetMedian(times_ms), *std::max_element(times_ms.begin(), times_ms.end()),
                    over, limit_ms, GetLoad());
    }

    const SoakOptions m_options;
    SeededRandom m_random;
    const std::shared_ptr<Trace> m_trace = std::make_shared<Trace>();
    Chain m_chain;
    Verdict m_verdict;
    std::vector<double> m_kills;
    std::vector<double> m_freezes;
    std::vector<double> m_goneToStale;
};

} // namespace

bool RunOutages(const SoakOptions& options)
{
    return Outages(options).Run();
}

} // namespace ps_ns::broker_soak
