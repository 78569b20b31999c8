// Many clients of a gateway: how many updates a second it fans out, beside other engines that fan out the same texts on
// the same machine; how soon they arrive; what sessions cost in memory; and whether stalled clients hurt the others.

#include "bench_server.h"
#include "load_clients.h"
#include "peers.h"

#include <CLI/CLI.hpp>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

using namespace ps_ns::gateway_bench;

namespace
{

using Clock = std::chrono::steady_clock;

struct Settings
{
    std::size_t sessions = 100;
    std::size_t subscriptions = 10; ///< of a session
    std::size_t instruments = 10;
    std::size_t stalled = 10;
    std::uint64_t window = 800; ///< updates that have not reached every client; bounds what waits in a server
    std::uint64_t rate = 20'000;
    double seconds = 3;
    int runs = 7;
};

double GetMedian(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

double GetQuantile_us(std::vector<std::uint64_t>& values, double quantile)
{
    if (values.empty())
    {
        return 0;
    }
    const auto index = static_cast<std::size_t>(quantile * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(index), values.end());
    return static_cast<double>(values[index]) / 1000;
}

double GetSeconds(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

/// Reads until nothing has come for a while.
void Settle(LoadClients& clients)
{
    std::uint64_t before = ~std::uint64_t{0};
    for (auto quiet = Clock::now(); GetSeconds(quiet) < 0.3;)
    {
        clients.Poll(20);
        if (clients.GetBytes() != before)
        {
            before = clients.GetBytes();
            quiet = Clock::now();
        }
    }
}

/// Connects the sessions and subscribes each to its share of the instruments, one after another.
void Fill(IPeer& peer, LoadClients& clients, const Settings& settings)
{
    for (std::size_t session = 0; session < settings.sessions; ++session)
    {
        const std::size_t client = peer.Connect(clients);
        for (std::size_t i = 0; i < settings.subscriptions; ++i)
        {
            peer.Subscribe(clients, client, (session * settings.subscriptions + i) % settings.instruments);
        }
        clients.Poll(0);
    }
    Settle(clients);
    clients.Reset();
}

using Make = std::function<std::unique_ptr<IPeer>(std::size_t)>;

const std::vector<Make> kPeers{StartGateway, StartNats, StartRedis};

struct Throughput
{
    std::vector<double> perSecond;
    std::vector<double> perProcessorSecond;
    double bytes = 0; ///< of a delivery
};

/// As many as it takes, with a bounded number under way.
void RunThroughput(IPeer& peer, const Settings& settings, Throughput& result)
{
    LoadClients clients(peer.GetFraming());
    Fill(peer, clients, settings);
    constexpr std::uint64_t kStep = 100;
    std::uint64_t published = 0;
    const double processor = GetProcessorTime_s(peer.GetProcess());
    const auto begin = Clock::now();
    auto progress = begin;
    std::uint64_t seen = 0;
    while (GetSeconds(begin) < settings.seconds || clients.GetFewestDeliveries() < published)
    {
        while (GetSeconds(begin) < settings.seconds &&
               published + kStep <= clients.GetFewestDeliveries() + settings.window)
        {
            peer.Publish(kStep);
            published += kStep;
        }
        clients.Poll(10);
        if (clients.GetDeliveries() != seen)
        {
            seen = clients.GetDeliveries();
            progress = Clock::now();
        }
        if (GetSeconds(progress) > 5)
        {
            throw std::runtime_error(std::string(peer.GetName()) + ": " +
                                     std::to_string(published - clients.GetFewestDeliveries()) + " of " +
                                     std::to_string(published) + " updates have not come");
        }
    }
    const auto deliveries = static_cast<double>(clients.GetDeliveries());
    result.perSecond.push_back(deliveries / GetSeconds(begin));
    result.perProcessorSecond.push_back(deliveries / (GetProcessorTime_s(peer.GetProcess()) - processor));
    result.bytes = static_cast<double>(clients.GetBytes()) / deliveries;
}

int CompareThroughput(const Settings& settings)
{
    std::map<std::string, Throughput> results;
    for (int run = 0; run < settings.runs; ++run)
    {
        for (const Make& make : kPeers)
        {
            const auto peer = make(settings.instruments);
            RunThroughput(*peer, settings, results[peer->GetName()]);
            std::cerr << peer->GetName() << ": " << results[peer->GetName()].perSecond.back() / 1e6 << " M/s\n";
        }
    }
    const double ours = GetMedian(results["gateway"].perSecond);
    const double oursPerProcessor = GetMedian(results["gateway"].perProcessorSecond);
    std::cout << "deliveries to " << settings.sessions << " clients, median of " << settings.runs << " runs\n"
              << "peer            M a second   gateway ahead   M a second of its processor   gateway ahead   bytes\n";
    for (const auto& [name, result] : results)
    {
        const double perSecond = GetMedian(result.perSecond);
        const double perProcessor = GetMedian(result.perProcessorSecond);
        std::cout << std::left << std::setw(15) << name << std::right << std::fixed << std::setprecision(2)
                  << std::setw(11) << perSecond / 1e6 << std::setw(14) << ours / perSecond << " x" << std::setw(28)
                  << perProcessor / 1e6 << std::setw(14) << oursPerProcessor / perProcessor << " x" << std::setw(8)
                  << std::setprecision(0) << result.bytes << '\n';
    }
    return 0;
}

/// So many updates a second, while the clients read.
void RunPaced(IPeer& peer, LoadClients& clients, std::uint64_t rate, double seconds)
{
    peer.BeginPace(rate, static_cast<std::uint64_t>(seconds * 1000));
    for (const auto begin = Clock::now(); GetSeconds(begin) < seconds;)
    {
        clients.Poll(10);
    }
    peer.EndPace();
    Settle(clients);
}

int CompareLatency(const Settings& settings)
{
    std::map<std::string, std::map<std::string, std::vector<double>>> results;
    for (int run = 0; run < settings.runs; ++run)
    {
        for (const Make& make : kPeers)
        {
            const auto peer = make(settings.instruments);
            LoadClients clients(peer->GetFraming());
            Fill(*peer, clients, settings);
            RunPaced(*peer, clients, settings.rate, settings.seconds);
            auto& latencies = clients.Latencies_ns();
            auto& result = results[peer->GetName()];
            result["p50"].push_back(GetQuantile_us(latencies, 0.5));
            result["p99"].push_back(GetQuantile_us(latencies, 0.99));
            result["arrived"].push_back(
                static_cast<double>(clients.GetDeliveries()) /
                (static_cast<double>(settings.rate) * settings.seconds * static_cast<double>(settings.sessions)));
            std::cerr << peer->GetName() << ": p99 " << result["p99"].back() << " us\n";
        }
    }
    std::cout << "from the source to " << settings.sessions << " clients at " << settings.rate
              << " updates a second, median of " << settings.runs << " runs\n"
              << "peer              p50 us     p99 us   arrived\n";
    for (auto& [name, result] : results)
    {
        std::cout << std::left << std::setw(15) << name << std::right << std::fixed << std::setprecision(0)
                  << std::setw(9) << GetMedian(result["p50"]) << std::setw(11) << GetMedian(result["p99"])
                  << std::setprecision(1) << std::setw(9) << 100 * GetMedian(result["arrived"]) << "%\n";
    }
    return 0;
}

int MeasureSessions(const Settings& settings)
{
    const auto peer = StartGateway(settings.instruments);
    LoadClients clients(peer->GetFraming());
    const double empty = GetResident_bytes(peer->GetProcess());
    Settings bare = settings;
    bare.subscriptions = 0;
    auto begin = Clock::now();
    Fill(*peer, clients, bare);
    const double connected = GetResident_bytes(peer->GetProcess());
    std::cout << settings.sessions << " sessions in " << GetSeconds(begin) << " s; "
              << (connected - empty) / static_cast<double>(settings.sessions) / 1024 << " KiB each\n";
    begin = Clock::now();
    for (std::size_t session = 0; session < settings.sessions; ++session)
    {
        for (std::size_t i = 0; i < settings.subscriptions; ++i)
        {
            peer->Subscribe(clients, session, (session * settings.subscriptions + i) % settings.instruments);
        }
        clients.Poll(0);
    }
    Settle(clients);
    const auto subscriptions = static_cast<double>(settings.sessions * settings.subscriptions);
    const double subscribed = GetResident_bytes(peer->GetProcess());
    std::cout << subscriptions << " subscriptions of " << settings.instruments << " instruments in "
              << GetSeconds(begin) << " s; " << (subscribed - connected) / subscriptions / 1024 << " KiB each\n";
    const double idle = GetProcessorTime_s(peer->GetProcess());
    for (const auto quiet = Clock::now(); GetSeconds(quiet) < settings.seconds;)
    {
        clients.Poll(10);
    }
    std::cout << "idle: " << 100 * (GetProcessorTime_s(peer->GetProcess()) - idle) / settings.seconds
              << " % of a core\n";
    clients.Reset();
    const double busy = GetProcessorTime_s(peer->GetProcess());
    RunPaced(*peer, clients, settings.rate, settings.seconds);
    std::cout << settings.rate << " updates a second for " << settings.seconds
              << " s: " << static_cast<double>(clients.GetDeliveries()) / settings.seconds
              << " deliveries a second, p50 " << GetQuantile_us(clients.Latencies_ns(), 0.5) << " us, p99 "
              << GetQuantile_us(clients.Latencies_ns(), 0.99) << " us, "
              << 100 * (GetProcessorTime_s(peer->GetProcess()) - busy) / settings.seconds << " % of a core; "
              << GetResident_bytes(peer->GetProcess()) / 1024 / 1024 << " MiB in memory\n";
    return 0;
}

/// Slices with stalled clients and without, one after another, on one gateway.
int MeasureStalled(const Settings& settings)
{
    const auto peer = StartGateway(settings.instruments);
    LoadClients clients(peer->GetFraming());
    Fill(*peer, clients, settings);
    std::map<bool, std::vector<double>> p99;
    double most = 0;
    std::size_t closed = 0;
    for (int run = 0; run < settings.runs; ++run)
    {
        for (const bool isStalled : {false, true})
        {
            std::vector<std::size_t> sleepers;
            const double before = GetResident_bytes(peer->GetProcess());
            for (std::size_t i = 0; isStalled && i < settings.stalled; ++i)
            {
                sleepers.push_back(peer->Connect(clients));
                for (std::size_t instrument = 0; instrument < settings.subscriptions; ++instrument)
                {
                    peer->Subscribe(clients, sleepers.back(), instrument);
                }
                clients.SetStalled(sleepers.back(), true);
            }
            clients.Reset();
            RunPaced(*peer, clients, settings.rate, settings.seconds);
            p99[isStalled].push_back(GetQuantile_us(clients.Latencies_ns(), 0.99));
            if (isStalled)
            {
                most = std::max(most, (GetResident_bytes(peer->GetProcess()) - before) /
                                          static_cast<double>(settings.stalled));
            }
            for (const std::size_t sleeper : sleepers)
            {
                closed += clients.WakeToEnd(sleeper) ? 1U : 0U;
            }
            std::cerr << (isStalled ? "with" : "without") << ": p99 " << p99[isStalled].back() << " us\n";
        }
    }
    const double without = GetMedian(p99[false]);
    std::cout << settings.sessions << " healthy clients at " << settings.rate << " updates a second: p99 " << without
              << " us; beside " << settings.stalled << " stalled ones " << GetMedian(p99[true]) << " us ("
              << GetMedian(p99[true]) / without << " x); each of those took " << most / 1024 << " KiB at most; "
              << closed << " of " << settings.stalled * static_cast<std::size_t>(settings.runs)
              << " were closed by the gateway\n";
    return 0;
}

} // namespace

int main(int count, char** words)
{
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);

    Settings settings;
    std::size_t served = 0;
    CLI::App app("Loads a gateway with many clients, beside nats-server and redis-server where these are installed.");
    app.add_option("--serve", served, "be the gateway, with so many instruments; for this program itself");
    app.add_option("--sessions", settings.sessions, "clients")->capture_default_str();
    app.add_option("--subscriptions", settings.subscriptions, "of each client")->capture_default_str();
    app.add_option("--instruments", settings.instruments, "that there are")->capture_default_str();
    app.add_option("--stalled", settings.stalled, "clients that do not read")->capture_default_str();
    app.add_option("--window", settings.window, "updates under way")->capture_default_str();
    app.add_option("--rate", settings.rate, "updates a second")->capture_default_str();
    app.add_option("--seconds", settings.seconds, "of a run")->capture_default_str();
    app.add_option("--runs", settings.runs, "of each peer, in turn")->capture_default_str();
    CLI::App* const throughput = app.add_subcommand("throughput", "as many as each can, side by side");
    CLI::App* const latency = app.add_subcommand("latency", "at a rate, side by side");
    CLI::App* const sessions = app.add_subcommand("sessions", "what many sessions cost");
    CLI::App* const stalled = app.add_subcommand("stalled", "whether stalled clients hurt the others");
    app.fallthrough();
    CLI11_PARSE(app, count, words);
    try
    {
        if (served != 0)
        {
            return Serve(served);
        }
        if (*throughput)
        {
            return CompareThroughput(settings);
        }
        if (*latency)
        {
            return CompareLatency(settings);
        }
        if (*sessions)
        {
            return MeasureSessions(settings);
        }
        if (*stalled)
        {
            return MeasureStalled(settings);
        }
        std::cerr << "gateway_load: throughput, latency, sessions or stalled? See --help.\n";
        return 2;
    }
    catch (const std::exception& error)
    {
        std::cerr << "gateway_load: " << error.what() << '\n';
        return 1;
    }
}
