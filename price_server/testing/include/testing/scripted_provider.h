#pragma once

#include "simple_subscription/i_price_provider.h"
#include "testing/event_log.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns::testing
{

/// A provider that does what the test tells it: what it answers at once, what it answers later, what it sends. Every
/// call is recorded, like "mds.Subscribe BTC component=0 depth=5 interval=0 trades=0 customFields=0".
///
/// Threads: one.
class ScriptedProvider final : public IPriceProvider
{
public:
    /// Records under "zel" or "mds", after its type.
    ScriptedProvider(ProviderType::Value type, EventLog& events);

    // --- The script ---

    /// What the next Subscribe calls of a symbol return, in order; when there is no more, SubscribeStatus::Subscribed.
    void Returns(const std::string& symbol, int status);
    /// What the next Subscribe call of a symbol throws.
    void Throws(const std::string& symbol, std::function<void()> thrower);

    enum class UnsubscribeAnswer
    {
        Later,  ///< by AnswerUnsubscribe
        Ok,     ///< at once, inside the call
        Failed, ///< at once
        Throw   ///< the call throws, and nothing is answered
    };
    UnsubscribeAnswer unsubscribeAnswer = UnsubscribeAnswer::Ok;

    InstrumentDirectory& Directory() noexcept { return m_directory; }

    // --- What it tells the listeners of a symbol: the newest one, or all ---

    void Answer(const std::string& symbol,
                ps_messages_ns::SubscriptionResult::Value result = ps_messages_ns::SubscriptionResult::Success,
                const PriceFormat& format = {});
    /// A full image, or a change, of levels written as price and quantity in whole units; quantity 0 removes.
    struct Level
    {
        BookSideType side;
        const char* price;
        const char* quantity;
    };
    void SendImage(const std::string& symbol, const std::vector<Level>& levels);
    /// Of what was known last, while there is no feed.
    void SendStaleImage(const std::string& symbol, const std::vector<Level>& levels);
    void SendChange(const std::string& symbol, const std::vector<Level>& levels);
    void SendTrade(const std::string& symbol, const char* price, const char* quantity);
    void SendCustomFields(const std::string& symbol);
    /// The feed is lost, or there again.
    void SendStale(const std::string& symbol, bool isStale);
    /// Starts over: the next image opens a new epoch.
    void NextEpoch() noexcept { ++m_epoch; }
    /// Answers the oldest unsubscribe of a symbol that waits; false when none does.
    bool AnswerUnsubscribe(const std::string& symbol, bool ok = true);
    /// Lets go of all listeners whose unsubscribe waits, without an answer.
    void DropUnsubscribes();

    /// The listeners of a symbol whose unsubscribe waits, the oldest first: tests tell them what was under way when the
    /// unsubscribe came.
    std::vector<std::shared_ptr<IComponentListener>> GetUnsubscribing(const std::string& symbol) const;

    std::size_t GetListenerCount(const std::string& symbol) const;
    std::size_t GetWaitingUnsubscribes() const noexcept { return m_unsubscribing.size(); }
    std::vector<std::string> GetWaitingUnsubscribeSymbols() const;
    std::vector<std::string> GetSubscribedSymbols() const;

    // --- IPriceProvider ---

    ProviderType::Value GetType() const override { return m_type; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override;
    int Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener) override;
    void ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                     const CompositeSubscriptionInfo& scope) override;
    void Unsubscribe(const std::shared_ptr<IComponentListener>& listener) override;

private:
    struct Listener
    {
        std::string symbol;
        std::shared_ptr<IComponentListener> listener;
    };

    void Record(const std::string& text);
    void Send(const std::string& symbol, bool isImage, const std::vector<Level>& levels, bool isStale = false);
    /// A copy: a listener may subscribe or unsubscribe meanwhile.
    std::vector<std::shared_ptr<IComponentListener>> GetListeners(const std::string& symbol) const;

    const ProviderType::Value m_type;
    EventLog& m_events;
    InstrumentDirectory m_directory;
    std::map<std::string, std::deque<std::function<int()>>> m_script;
    std::vector<Listener> m_listeners;
    std::vector<Listener> m_unsubscribing;
    std::uint64_t m_epoch = 1;
    std::map<std::string, std::uint64_t> m_sequences;
};

} // namespace ps_ns::testing
