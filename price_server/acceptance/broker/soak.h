#pragma once

#include "broker/book_client.h"
#include "broker/flow.h"
#include "composite_instrument/local_observer_factory.h"
#include "server/price_server.h"
#include "zel_testing/broker_process.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns::broker_soak
{

/// What a run is asked to do.
struct SoakOptions
{
    std::size_t instruments = 1000;
    unsigned rate = 5000; ///< messages a second
    std::uint64_t seed = 1;
    unsigned kills = 0;
    unsigned freezes = 0;
    double longestFreeze_sec = 5;
    unsigned churn = 0; ///< pairs of subscribe and unsubscribe
    unsigned switches = 0;
    unsigned renames = 0;
    /// How long after the broker listens, or goes on, every book must be the publisher's; and how long after it has
    /// gone all of them must be stale.
    std::chrono::milliseconds recovery{1000};
    unsigned leastRate = 0; ///< price messages a second that the provider must have taken in the churn
    double mostGrowth_mb = 20;
};

/// Adds up what went wrong, and says it.
class Verdict
{
public:
    void Fail(const std::string& text);
    bool IsGood() const noexcept { return m_failures == 0; }

private:
    unsigned m_failures = 0;
};

/// Publisher, broker, price server and its clients.
class Chain
{
public:
    /// `log` may be null: there is none.
    explicit Chain(const SoakOptions& options, const std::shared_ptr<zel::logging::ISink>& log = {});
    ~Chain();
    Chain(const Chain&) = delete;
    Chain& operator=(const Chain&) = delete;

    /// A client for each instrument.
    void SubscribeAll();
    /// Pauses the flow, and waits until all clients show the publisher's books; then lets it go on. False: not in time.
    bool WaitUntilBooksAreEqual(std::chrono::steady_clock::time_point deadline, std::string& difference);
    /// Nothing that was counted may have happened.
    void CheckClients(Verdict& verdict) const;

    testing_ns::BrokerProcess broker;
    Flow flow;
    PriceServer server;
    LocalObserverFactory factory;
    std::vector<std::shared_ptr<BookClient>> clients;
};

/// True when all clients show the publisher's books now; else one difference.
bool AreEqual(Flow& flow, const std::vector<std::shared_ptr<BookClient>>& clients, std::string& difference);

double GetResidentMegabytes();
/// The machine's, of the past minute.
double GetLoad();

// Each returns false when something was not as it should be; all of them print what they have seen.
bool RunOutages(const SoakOptions& options);
bool RunChurn(const SoakOptions& options);
bool RunSwitches(const SoakOptions& options);
bool RunRenames(const SoakOptions& options);

} // namespace ps_ns::broker_soak
