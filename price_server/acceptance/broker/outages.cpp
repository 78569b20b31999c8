#include "broker/soak.h"

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
        , m_chain(options)
    {
    }

    bool Run()
    {
        m_chain.SubscribeAll();
        Check("before", Clock::now() + kPatience);
        for (unsigned i = 0; i < m_options.kills; ++i)
        {
            m_chain.flow.WaitForMessages(Draw(500));
            m_chain.broker.Kill();
            CheckAllAre(true, "kill " + std::to_string(i + 1));
            std::this_thread::sleep_for(milliseconds(Draw(300)));
            m_chain.broker.Start();
            Recover("kill " + std::to_string(i + 1), m_kills);
        }
        for (unsigned i = 0; i < m_options.freezes; ++i)
        {
            m_chain.flow.WaitForMessages(Draw(500));
            m_chain.broker.Freeze();
            std::this_thread::sleep_for(
                milliseconds(100 + Draw(static_cast<std::int64_t>(m_options.longestFreeze_sec * 1000) - 100)));
            m_chain.broker.Thaw();
            Recover("freeze " + std::to_string(i + 1), m_freezes);
        }
        Print("kill", m_kills);
        Print("freeze", m_freezes);
        m_chain.CheckClients(m_verdict);
        return m_verdict.IsGood();
    }

private:
    std::uint64_t Draw(std::int64_t below)
    {
        return static_cast<std::uint64_t>(m_random.Below(std::max<std::int64_t>(below, 1)));
    }

    /// Every client's newest book says that it is stale, or that it is not, within the time of a recovery.
    void CheckAllAre(bool stale, const std::string& what)
    {
        const auto deadline = Clock::now() + m_options.recovery;
        const auto isAsWanted = [&](const std::shared_ptr<BookClient>& client) { return client->IsStale() == stale; };
        bool areAll = false;
        while (!(areAll = std::all_of(m_chain.clients.begin(), m_chain.clients.end(), isAsWanted)) &&
               Clock::now() < deadline)
        {
            std::this_thread::sleep_for(milliseconds(1));
        }
        if (!areAll)
        {
            m_verdict.Fail(what + ": a book is " + (stale ? "not stale in time" : "still stale"));
        }
    }

    /// The broker listens, or goes on, just now.
    void Recover(const std::string& what, std::vector<double>& times_ms)
    {
        const auto begin = Clock::now();
        std::this_thread::sleep_for(milliseconds(Draw(200))); // under flow
        Check(what, begin + kPatience);
        CheckAllAre(false, what);
        times_ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
        if (times_ms.back() > static_cast<double>(m_options.recovery.count()))
        {
            m_verdict.Fail(what + ": the books needed " + std::to_string(times_ms.back()) + " ms");
        }
    }

    void Check(const std::string& what, Clock::time_point deadline)
    {
        std::string difference;
        if (!m_chain.WaitUntilBooksAreEqual(deadline, difference))
        {
            m_verdict.Fail(what + ": " + difference);
        }
    }

    static void Print(const char* what, std::vector<double> times_ms)
    {
        if (!times_ms.empty())
        {
            std::sort(times_ms.begin(), times_ms.end());
            std::printf("%zu %ss; all books equal after: median %.0f ms, longest %.0f ms\n", times_ms.size(), what,
                        times_ms[times_ms.size() / 2], times_ms.back());
        }
    }

    const SoakOptions m_options;
    SeededRandom m_random;
    Chain m_chain;
    Verdict m_verdict;
    std::vector<double> m_kills;
    std::vector<double> m_freezes;
};

} // namespace

bool RunOutages(const SoakOptions& options)
{
    return Outages(options).Run();
}

} // namespace ps_ns::broker_soak
