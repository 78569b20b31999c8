#include "broker/soak.h"

#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <unistd.h>

namespace ps_ns::broker_soak
{
namespace
{

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(60);
constexpr auto kLook = std::chrono::milliseconds(2);

ServerConfig MakeConfig(const std::string& broker, int logLevel)
{
    ServerConfig config = MakeBuiltInServerConfig();
    config.markets = {{kMarketId, kMarket}};
    config.mds.reset();
    config.gateway.reset();
    config.logging.level = logLevel;
    config.zel.emplace().url = broker;
    return config;
}

PriceServerOptions MakeOptions(std::shared_ptr<zel::logging::ISink> log)
{
    PriceServerOptions options;
    options.logSink = std::move(log);
    return options;
}

} // namespace

void Verdict::Fail(const std::string& text)
{
    constexpr unsigned kMostSaid = 20;
    if (m_failures++ < kMostSaid)
    {
        std::fprintf(stderr, "FAILED: %s\n", text.c_str());
    }
}

double GetResidentMegabytes()
{
    std::ifstream file("/proc/self/statm");
    std::uint64_t all = 0;
    std::uint64_t resident = 0;
    file >> all >> resident;
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
}

bool AreEqual(Flow& flow, const std::vector<std::shared_ptr<BookClient>>& clients, std::string& difference)
{
    bool areEqual = true;
    flow.RunOnThread(
        [&](ZelPublisher& publisher)
        {
            for (InstrumentIndex i = 0; i < clients.size() && areEqual; ++i)
            {
                areEqual = clients[i]->Shows(publisher.GetBook(i));
                difference = areEqual ? "" : GetSymbol(i) + ": " + clients[i]->Describe(publisher.GetBook(i));
            }
        });
    return areEqual;
}

double GetLoad()
{
    double load = 0;
    std::ifstream("/proc/loadavg") >> load;
    return load;
}

Chain::Chain(const SoakOptions& options, const std::shared_ptr<zel::logging::ISink>& log)
    : flow({broker.GetUrl(), options.instruments, options.rate, options.seed, {}})
    , server(MakeConfig(broker.GetUrl(), log == nullptr ? 100 : 0), MakeOptions(log))
{
    server.Start();
    const auto deadline = Clock::now() + kPatience;
    while (!server.IsDirectoryComplete())
    {
        if (Clock::now() > deadline)
        {
            throw std::runtime_error("the directory has not come");
        }
        std::this_thread::sleep_for(kLook);
    }
}

Chain::~Chain()
{
    server.Stop();
}

void Chain::SubscribeAll()
{
    for (std::size_t i = 0; i < flow.GetInstruments().size(); ++i)
    {
        clients.push_back(std::make_shared<BookClient>());
        server.TryRequest([&](CompositeSubscriptionMgr& manager)
                          { manager.Subscribe(MakeFlowDefinition(i), MakeWholeScope(), factory, clients.back(), 1); });
    }
}

bool Chain::WaitUntilBooksAreEqual(Clock::time_point deadline, std::string& difference)
{
    flow.Pause();
    bool areEqual = false;
    while (!(areEqual = AreEqual(flow, clients, difference)) && Clock::now() < deadline)
    {
        std::this_thread::sleep_for(kLook);
    }
    flow.Resume();
    return areEqual;
}

void Chain::CheckClients(Verdict& verdict) const
{
    std::uint64_t books = 0;
    for (std::size_t i = 0; i < clients.size(); ++i)
    {
        books += clients[i]->GetBookCount();
        if (clients[i]->GetFaults() != 0 || clients[i]->GetFailures() != 0)
        {
            verdict.Fail(GetSymbol(i) + ": " + std::to_string(clients[i]->GetFaults()) + " books out of order, " +
                         std::to_string(clients[i]->GetFailures()) + " failed answers");
        }
    }
    std::printf("%zu clients, %llu books delivered, %llu messages published\n", clients.size(),
                static_cast<unsigned long long>(books), static_cast<unsigned long long>(flow.GetMessageCount()));
}

} // namespace ps_ns::broker_soak
