#pragma once

#include "composite_instrument/i_composite_price_observer.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "price_unifier/source/book_merger.h"
#include "price_unifier/source/client_scope.h"
#include "price_unifier/source/delivery_host.h"
#include "simple_subscription/book_update.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns
{

class ICompositePriceFactory;

namespace detail
{
class CallbackRound;
} // namespace detail

/// The part of a composite subscription that runs on its executor: merges what the components deliver and hands it to
/// the subscription's own observer, once for each change, and then to each flexible client with its own depth and
/// interval. Everybody who wants the same depth gets the same object.
///
/// It is made when there is something to deliver, or somebody to deliver to (delivery_host.h).
///
/// Threads: the executor's only.
///
/// Conflation: a recipient with an interval gets at most one book in that time, and the newest one when it is over. Its
/// own observer goes by the merged scope's interval. Trades are never conflated.
class PriceDelivery
{
public:
    using Clock = DeliveryHost::Clock;
    using Settings = DeliveryHost::Settings;

    explicit PriceDelivery(DeliveryHost& host);
    ~PriceDelivery();
    PriceDelivery(const PriceDelivery&) = delete;
    PriceDelivery& operator=(const PriceDelivery&) = delete;

    // --- Clients ---

    void AddClient(const std::shared_ptr<ClientScope>& client);
    /// Data may go to the client from now on; `sendImage`: the present book at once.
    void ActivateClient(ClientScope& client, bool sendImage);
    void RemoveClient(const ClientScope& client);
    void ChangeClient(ClientScope& client, const CompositeSubscriptionInfo& info);
    /// The host has another merged scope: the own observer, and the clients who see something else than before, get a
    /// new book.
    void OnMergedScope();
    /// The newest book again, to one client, or to the own observer when there is no client.
    void GenerateSnapshot(std::uint32_t reason, ClientScope* client);

    // --- What the components deliver ---

    /// A component has answered: its silence counts from now on.
    void NoteAnswer(CompositeComponentType::Type component);
    /// The own observer has been told another answer: so is each client who has not got it by replay.
    void TellClients(CompositeComponentType::Type component, ps_messages_ns::SubscriptionResult::Value result,
                     const PriceFormat& format, const CompositeSubscriptionState& state);
    /// The component has no prices any more: no image will come that could replace what it showed.
    void ForgetBook(CompositeComponentType::Type component);
    void OnBook(CompositeComponentType::Type component, const BookUpdate& update);
    void OnTrades(CompositeComponentType::Type component, const std::shared_ptr<const std::vector<Trade>>& trades);
    void OnCustomFields(CompositeComponentType::Type component, const std::shared_ptr<const CustomFields>& fields);

    /// The component's provider has lost its feed: what is shown is out of date from now until the next image, whoever
    /// brings that. That the feed is there again changes nothing by itself.
    void OnStale(CompositeComponentType::Type component, bool isStale);

    /// The component is subscribed anew (another provider, another symbol): its book stays until the new image replaces
    /// it, and only an image can come first. Merged books carry the host's new epoch from that image on.
    void ExpectImage(CompositeComponentType::Type component);

    /// When the newest update in the book reached the provider, ns since 1970 UTC; 0: none yet.
    std::uint64_t GetReceiveTime_ns() const noexcept { return m_receiveTime_ns; }
    bool HasSnapshot() const noexcept { return m_current != nullptr; }

private:
    /// What the clients were told of a component.
    struct Answer
    {
        ps_messages_ns::SubscriptionResult::Value result;
        PriceFormat format;
        CompositeSubscriptionState state;
    };
    struct Component
    {
        bool hasImage = false;
        bool expectsImage = true;
        bool isSilent = false;    ///< for longer than the monitoring interval
        bool hasLostFeed = false; ///< as its provider says
        bool IsStale() const noexcept { return isSilent || hasLostFeed; }
        std::uint64_t epoch = 0; ///< the provider's
        Clock::time_point lastSpoke{};
        std::uint64_t lastReceiveTime_ns = 0;
        std::unique_ptr<const Answer> told; ///< null: nothing yet
    };

    /// The merged book as clients of one depth see it.
    struct DepthView
    {
        std::uint32_t depth;
        std::shared_ptr<const MergedOrderBook> source; ///< what `book` was cut from
        std::shared_ptr<const MergedOrderBook> book;
    };

    Component& Get(CompositeComponentType::Type component) { return m_components[static_cast<std::size_t>(component)]; }

    std::uint32_t GetMergedLevels() const noexcept;
    std::shared_ptr<MergedOrderBook> MergeBook() const;
    void PublishAs(std::shared_ptr<MergedOrderBook> book);
    void Publish();
    bool HoldsBackEmpty(const MergedOrderBook& book);
    detail::CallbackRound MakeRound() noexcept;
    void Deliver();
    // The caller holds the book: a callback must not lose it to what it sets off.
    void DeliverOwn(const std::shared_ptr<const MergedOrderBook>& book, detail::CallbackRound& round);
    void DeliverToClients(const std::shared_ptr<const MergedOrderBook>& book, detail::CallbackRound& round);
    void DeliverTo(const std::shared_ptr<ClientScope>& client, detail::CallbackRound& round);
    bool HasView(const ClientScope& client, const std::shared_ptr<const MergedOrderBook>& view) const noexcept;
    void NoteDelivered(ClientScope& client, const std::shared_ptr<const MergedOrderBook>& view);
    /// True when the recipient has to wait for its interval: its timer is armed then, and runs `later`.
    template <class Later> // a function object on the heap is for the first time only
    bool MustWait(DeliveryPace& pace, unsigned interval_ms, const Later& later);
    void NoteSent(DeliveryPace& pace, unsigned interval_ms, const std::shared_ptr<const MergedOrderBook>& book);
    /// False when the recipient has that book, or one that shows the same and such are skipped.
    bool IsNews(const DeliveryPace& pace, const std::shared_ptr<const MergedOrderBook>& book) const;
    void SendOwn(const std::shared_ptr<const MergedOrderBook>& book, detail::CallbackRound& round);
    void Send(ClientScope& client, const std::shared_ptr<const MergedOrderBook>& book, detail::CallbackRound& round);
    void TellAnswer(ClientScope& client, CompositeComponentType::Type type);
    /// True when clients of that depth see less than all of the newest book.
    bool IsCut(std::int32_t depth) const noexcept;
    const std::shared_ptr<const MergedOrderBook>& GetView(std::int32_t depth);
    void DropUnusedViews();

    void NoteSpoken(Component& component, std::uint64_t receiveTime_ns);
    void NoteFresh(Component& component);
    /// Notes either reason to be stale, and tells when the component has become stale or fresh by it.
    void SetStale(Component& component, bool& reason, bool isStale);
    void ArmMonitor();
    void OnMonitor();
    void RunMonitorAfter(Clock::duration time);
    /// Calls an observer; what it throws is logged, so that those behind it are served.
    template <class Call>
    void CallObserver(const std::string& name, const Call& call);

    DeliveryHost& m_host;
    // The host's.
    const CompositeInstrumentDef& m_def;
    const std::shared_ptr<ICompositePriceObserver>& m_observer;
    CompositeSubscriptionMgr* const m_manager;
    const Settings& m_settings;
    const CompositeSubscriptionInfo& m_scope; ///< the merged one
    CallbackCounts& m_counts;

    const std::shared_ptr<ICompositePriceFactory> m_factory;
    std::array<Component, CompositeComponentType::kCount> m_components;
    BookMerger m_merger;
    std::shared_ptr<const MergedOrderBook> m_current; ///< the newest; null: none yet
    std::uint64_t m_sequence = 0;
    std::uint64_t m_exchangeTime_ns = 0;
    std::uint64_t m_receiveTime_ns = 0;
    std::uint64_t m_venueSequence = 0;
    double m_lastTradePrice;

    DeliveryPace m_ownPace;
    std::uint64_t m_ownSequence = 0; ///< of the book that the own observer had last; 0: none yet
    std::vector<std::shared_ptr<ClientScope>> m_clients;
    std::vector<DepthView> m_views;

    std::shared_ptr<AsyncTask> m_emptyTimer;
    bool m_holdsBackEmpty = false;
    std::shared_ptr<AsyncTask> m_monitorTimer;
};

} // namespace ps_ns
