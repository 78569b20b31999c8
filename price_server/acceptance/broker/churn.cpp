#include "broker/soak.h"

#include <algorithm>
#include <cstdio>
#include <thread>

namespace ps_ns::broker_soak
{
namespace
{

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(30);
constexpr unsigned kBatch = 200;

/// One more client, who stays until it has seen prices.
void WaitForABook(Chain& chain, std::size_t instrument, Verdict& verdict)
{
    constexpr unsigned long kId = 1'000'000'000;
    const CompositeInstrumentDef def = MakeFlowDefinition(instrument);
    const auto client = std::make_shared<BookClient>();
    chain.server.TryRequest([&](CompositeSubscriptionMgr& manager)
                            { manager.Subscribe(def, MakeWholeScope(), chain.factory, client, kId); });
    const auto deadline = Clock::now() + kPatience;
    while (client->GetBookCount() == 0 && Clock::now() < deadline)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (client->GetBookCount() == 0)
    {
        verdict.Fail(GetSymbol(instrument) + " has no book");
    }
    chain.server.TryRequest([&](CompositeSubscriptionMgr& manager) { manager.Unsubscribe(def, client, kId); });
}

/// Everything is followed from now on, though nobody is left who listens.
void FollowAll(Chain& chain, Verdict& verdict)
{
    chain.SubscribeAll();
    const auto deadline = Clock::now() + kPatience;
    const auto hasBook = [](const std::shared_ptr<BookClient>& client) { return client->GetBookCount() != 0; };
    while (!std::all_of(chain.clients.begin(), chain.clients.end(), hasBook) && Clock::now() < deadline)
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (!std::all_of(chain.clients.begin(), chain.clients.end(), hasBook))
    {
        verdict.Fail("an instrument has no book at first");
    }
    for (std::size_t i = 0; i < chain.clients.size(); ++i)
    {
        chain.server.TryRequest([&](CompositeSubscriptionMgr& manager)
                                { manager.Unsubscribe(MakeFlowDefinition(i), chain.clients[i], 1); });
    }
    chain.clients.clear();
}

} // namespace

/// Clients come and go while the messages of all instruments flow: no crash, and memory stays what it is.
bool RunChurn(const SoakOptions& options)
{
    Verdict verdict;
    Chain chain(options);
    std::string difference;
    double begin_mb = 0;
    FollowAll(chain, verdict);
    const auto begin = Clock::now();
    const std::uint64_t published = chain.flow.GetMessageCount();
    const std::uint64_t taken = chain.server.GetBrokerMessageCount();
    SeededRandom random(options.seed);
    for (unsigned pair = 0; pair < options.churn; ++pair)
    {
        const auto instrument = static_cast<std::size_t>(random.Below(static_cast<std::int64_t>(options.instruments)));
        const CompositeInstrumentDef def = MakeFlowDefinition(instrument);
        const auto client = std::make_shared<BookClient>();
        chain.server.TryRequest(
            [&](CompositeSubscriptionMgr& manager)
            {
                manager.Subscribe(def, MakeWholeScope(), chain.factory, client, pair + 1);
                manager.Unsubscribe(def, client, pair + 1);
            });
        if (pair % kBatch == kBatch - 1)
        {
            WaitForABook(chain, instrument, verdict); // behind all that has been asked for
        }
        if (pair == options.churn / 5)
        {
            begin_mb = GetResidentMegabytes(); // buffers have found their sizes
        }
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    const double end_mb = GetResidentMegabytes();
    const double sent = static_cast<double>(chain.flow.GetMessageCount() - published) / seconds;
    const double rate = static_cast<double>(chain.server.GetBrokerMessageCount() - taken) / seconds;
    std::printf(
        "%u pairs in %.1f s; messages a second: %.0f published, %.0f taken by the provider, %u at least; resident "
        "%.1f MB after a fifth, %.1f MB at the end; the machine's load is %.1f\n",
        options.churn, seconds, sent, rate, options.leastRate, begin_mb, end_mb, GetLoad());
    if (rate < options.leastRate)
    {
        verdict.Fail("the provider has taken " + std::to_string(rate) + " messages a second");
    }
    if (end_mb - begin_mb > options.mostGrowth_mb)
    {
        verdict.Fail("memory has grown");
    }
    chain.SubscribeAll();
    if (!chain.WaitUntilBooksAreEqual(Clock::now() + std::chrono::seconds(30), difference))
    {
        verdict.Fail("afterwards " + difference);
    }
    chain.CheckClients(verdict);
    return verdict.IsGood();
}

} // namespace ps_ns::broker_soak
