#pragma once

#include "composite_instrument/composite_instrument_id.h"
#include "composite_instrument/pending_subscription_id.h"
#include "simulation/reference_subscription.h"

#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace ps_ns::simulation
{

/// The model of the manager, written from what is required of it: every request as the few steps that it must be, with
/// the callbacks, log records and provider calls that must come of it, in their order.
///
/// Two maps are of the manager's own kind with its own hash, because the order in which they are walked is part of what
/// is required. Everything else is whatever is plainest.
class ReferenceManager
{
public:
    using Def = CompositeInstrumentDef;
    using Info = CompositeSubscriptionInfo;

    struct DirectClient
    {
        Def def;
        std::string observer;
    };
    enum class ResponseState
    {
        Awaited,
        Unsubscribed,
        Failed
    };
    struct Response
    {
        CompositeInstrumentID id;
        ResponseState state;
        int subscription;
    };
    struct Gauges
    {
        double pending = 0;
        double zel = 0;
        double mds = 0;
    };
    /// What the subscription's data callbacks have been so far, as its line in the log ends.
    using GetCounts = std::function<std::string(const ReferenceSubscription&)>;
    /// Whether the subscription says that it has received any snapshot.
    using HasSnapshot = std::function<bool(const ReferenceSubscription&)>;

    ReferenceManager(const Conditions& conditions, Expectations& expectations, GetCounts getCounts,
                     HasSnapshot hasSnapshot);

    // --- Requests, on the caller's thread ---

    std::pair<unsigned long, Result> SubscribeDirect(const Def& def, const Info& info, const std::string& observer,
                                                     unsigned long id);
    void SubscribeFlexible(const Def& def, const Info& info, const std::string& observer, unsigned long id);
    bool UnsubscribeHandle(unsigned long handle);
    void UnsubscribeFlexible(const Def& def, const std::string& observer, unsigned long id);
    bool AddScope(unsigned long handle, const Info& info, unsigned long id);
    bool RemoveScope(unsigned long handle, unsigned long id);
    bool ChangeScope(unsigned long handle, const Info& info, unsigned long id, bool generateSnapshot);
    void ChangeFlexibleScope(const Def& def, const Info& info, const std::string& observer, unsigned long id,
                             bool generateSnapshot);
    void ChangeSymbol(short marketId, const std::string& oldSymbol, const std::string& newSymbol);
    void PostCheckPending();
    void CompleteSynthetic(unsigned long handle, const Def& def);
    void NullTeardown(const Def& def);

    ReferenceProviders providers;
    std::map<unsigned long, DirectClient> byHandle;
    std::unordered_map<CompositeInstrumentID, unsigned long, CompositeInstrumentID::Hasher> handleByInstrument;
    unsigned long nextHandle = 1;
    std::unordered_map<CompositeInstrumentID, ReferenceSubscription*, CompositeInstrumentID::Hasher> live; ///< walked
    std::map<int, CompositeInstrumentID> pendingDelete;                          ///< by the subscription's number
    std::unordered_map<PendingSubscriptionID, std::vector<int>> pendingProvider; ///< walked
    std::map<short, std::map<std::string, std::string>> symbolChanges;
    std::map<short, std::map<std::string, std::vector<Response>>> symbolChangeResponses;
    std::map<unsigned long, int> syntheticByHandle; ///< filed by the test; the value means nothing
    std::unordered_map<CompositeInstrumentID, int, CompositeInstrumentID::Hasher> syntheticByInstrument;
    Gauges gauges;
    std::map<int, std::unique_ptr<ReferenceSubscription>> subscriptions; ///< all that are not deleted
    std::vector<short> executors;                   ///< the markets whose executor has been made, in that order
    bool expectsGaugeOnFlexibleUnsubscribe = false; ///< a mistake, for tests of the simulation itself

private:
    ReferenceSubscription* Find(const Def& def) const;
    ReferenceSubscription& Open(const Def& def, const Info& adjusted, const std::string& observer);
    std::string SubscribeComponents(const Def& def, ReferenceSubscription& subscription);
    void Park(const Def& def, ReferenceSubscription& subscription);
    double& GetGauge(const ReferenceSubscription& subscription);
    Info Adjust(const Def& def, const Info& info) const;

    void RunDirectSubscribe(const Def& def, const std::string& observer, unsigned long handle, const Info& info,
                            unsigned long id);
    void RunFlexibleSubscribe(const Def& def, const Info& info, const std::string& observer, unsigned long id);
    void Join(ReferenceSubscription& subscription, const Def& def, const Info& info, const std::string& observer,
              unsigned long id);
    void RunDirectUnsubscribe(const Def& def, const std::string& observer, unsigned long handle);
    void RunFlexibleUnsubscribe(const Def& def, const std::string& observer, unsigned long id);
    void RunTeardown(int subscription, const Def& def);
    void RunAddScope(const Def& def, const std::string& observer, unsigned long handle, const Info& info,
                     unsigned long id);
    void RunRemoveScope(const Def& def, const std::string& observer, unsigned long handle, unsigned long id);
    void RunChangeScope(const Def& def, const std::string& observer, unsigned long handle, const Info& info,
                        unsigned long id, bool generateSnapshot);
    void RunChangeFlexibleScope(const Def& def, const Info& info, const std::string& observer, unsigned long id,
                                bool generateSnapshot);
    void RunSymbolChange(short marketId, const std::string& oldSymbol, const std::string& newSymbol);
    void RunSymbolChangeResponse(const CompositeInstrumentID& id, int subscription, bool ok,
                                 const std::string& newSymbol, short marketId);
    void RunCheckPending();

    enum class Snapshot
    {
        Never,
        WhenThereIsOne, ///< a client joins
        WhenAsked
    };
    /// The line of a scope that has been changed, or not, and the re-targeting, or the snapshot for who has the id.
    void Retarget(ReferenceSubscription& subscription, const std::string& begin, const Info& previous,
                  Snapshot snapshot, unsigned long id);
    void ExpectSnapshot(const ReferenceSubscription& subscription, unsigned long id, bool isOptional);
    void RaiseUnsubscribe(const ReferenceSubscription& subscription, const Def& def, const std::string& observer,
                          unsigned long id);
    void RaiseChangeScope(const ReferenceSubscription& subscription, const Def& def, const std::string& observer,
                          unsigned long id);
    void RaiseSubscribe(const ReferenceSubscription& subscription, const Def& def, const std::string& observer,
                        unsigned long id, Result result, const PriceFormat& format, int component,
                        const CompositeSubscriptionState& state);
    /// A direct client's scope request that finds no subscription.
    void ReportNoSubscription(const char* operation, const char* callback, const Def& def, const std::string& observer,
                              unsigned long handle);

    Expectations& m_expectations;
    const GetCounts m_getCounts;
    const HasSnapshot m_hasSnapshot;
    int m_lastLocalObserver = 0;
    int m_lastSubscription = 0;
};

} // namespace ps_ns::simulation
