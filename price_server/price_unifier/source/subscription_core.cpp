#include "price_unifier/source/subscription_core.h"

#include <utility>

namespace ps_ns
{
namespace
{

/// A timer whose expiry runs on an executor. Who owns it may die there at any time: the posted task asks first.
class ExecutorTimer final : public AsyncTask
{
public:
    ExecutorTimer(const char* name, const std::shared_ptr<AsyncDispatcher>& timers, std::shared_ptr<Executor> executor,
                  std::function<void()> onExpiry)
        : AsyncTask(name, timers, [this] { return PostExpiry(); })
        , m_executor(std::move(executor))
        , m_onExpiry(std::move(onExpiry))
    {
    }

private:
    bool PostExpiry()
    {
        m_executor->Post(
            [weak = weak_from_this()]
            {
                if (const auto held = weak.lock())
                {
                    static_cast<ExecutorTimer&>(*held).m_onExpiry();
                }
            });
        return true;
    }

    const std::shared_ptr<Executor> m_executor;
    const std::function<void()> m_onExpiry;
};

} // namespace

SubscriptionCore::SubscriptionCore(CompositeInstrumentDef&& def,
                                   const std::shared_ptr<ICompositePriceObserver>& observer,
                                   CompositeSubscriptionMgr* manager, const CompositeSubscriptionInfo& scope,
                                   const PriceDelivery::Settings& settings, std::shared_ptr<Executor> executor,
                                   std::shared_ptr<AsyncDispatcher> timers, zel::metrics::Gauge staleGauge)
    : m_def(std::move(def))
    , m_executor(std::move(executor))
    , m_timers(std::move(timers))
    , m_staleGauge(std::move(staleGauge))
    , m_delivery(
          m_def, observer, manager, scope, settings,
          [this](const char* name, std::function<void()> onExpiry) { return MakeTimer(name, std::move(onExpiry)); },
          [this] { return m_timers->Now(); })
{
    m_delivery.onStaleChanged = [this](bool isStale) { OnStaleChanged(isStale); };
}

SubscriptionCore::~SubscriptionCore()
{
    if (m_staleComponents != 0)
    {
        --m_staleGauge;
    }
}

void SubscriptionCore::OnStaleChanged(bool isStale)
{
    const bool wasStale = m_staleComponents != 0;
    m_staleComponents = isStale ? m_staleComponents + 1 : m_staleComponents - 1;
    if (wasStale == (m_staleComponents != 0))
    {
        return;
    }
    if (isStale)
    {
        ++m_staleGauge;
    }
    else
    {
        --m_staleGauge;
    }
    const std::lock_guard lock(m_mutex);
    m_state.isStale = isStale;
}

std::shared_ptr<AsyncTask> SubscriptionCore::MakeTimer(const char* name, std::function<void()> onExpiry)
{
    return std::make_shared<ExecutorTimer>(name, m_timers, m_executor,
                                           [weak = weak_from_this(), onExpiry = std::move(onExpiry)]
                                           {
                                               const auto core = weak.lock();
                                               if (core != nullptr && !core->m_isSilent.load())
                                               {
                                                   onExpiry();
                                               }
                                           });
}

CompositeSubscriptionState SubscriptionCore::GetState() const
{
    const std::lock_guard lock(m_mutex);
    return MakeState();
}

/// Under m_mutex.
CompositeSubscriptionState SubscriptionCore::MakeState() const
{
    CompositeSubscriptionState state(m_def.components);
    state.isStale = m_state.isStale;
    state.provider = m_state.provider;
    state.epoch = m_state.epoch;
    if (m_state.epoch != 0)
    {
        state.symbol = m_state.isRenamed ? m_state.symbol : m_def.GetSymbol();
    }
    return state;
}

ComponentAnswers SubscriptionCore::GetAnswers() const
{
    const std::lock_guard lock(m_mutex);
    return m_answers;
}

ComponentAnswers SubscriptionCore::AddClient(const std::shared_ptr<ClientScope>& client)
{
    // Under the lock, so that an answer either is in what we return, or is posted after the client has been added.
    const std::lock_guard lock(m_mutex);
    Deliver([client](PriceDelivery& delivery) { delivery.AddClient(client); });
    return m_answers;
}

void SubscriptionCore::ActivateClient(std::shared_ptr<ClientScope> client, bool hadSnapshotAtJoin)
{
    // With a snapshot at the join the manager asks for an image itself; without one, the first might have come since.
    Deliver([client = std::move(client), hadSnapshotAtJoin](PriceDelivery& delivery)
            { delivery.ActivateClient(*client, !hadSnapshotAtJoin); });
}

void SubscriptionCore::RemoveClient(std::shared_ptr<ClientScope> client)
{
    Deliver([client = std::move(client)](PriceDelivery& delivery) { delivery.RemoveClient(*client); });
}

void SubscriptionCore::ChangeClient(std::shared_ptr<ClientScope> client, const CompositeSubscriptionInfo& info)
{
    Deliver([client = std::move(client), info](PriceDelivery& delivery) { delivery.ChangeClient(*client, info); });
}

void SubscriptionCore::SetMergedScope(const CompositeSubscriptionInfo& scope)
{
    Deliver([scope](PriceDelivery& delivery) { delivery.SetMergedScope(scope); });
}

void SubscriptionCore::GenerateSnapshot(std::uint32_t reason, std::shared_ptr<ClientScope> client)
{
    Deliver([reason, client = std::move(client)](PriceDelivery& delivery)
            { delivery.GenerateSnapshot(reason, client.get()); });
}

void SubscriptionCore::BeginEpoch(CompositeComponentType::Type component, ProviderType::Value provider,
                                  const std::string& symbol)
{
    std::uint64_t epoch = 0;
    {
        const std::lock_guard lock(m_mutex);
        epoch = ++m_state.epoch;
        m_state.provider = provider;
        m_state.isRenamed = symbol != m_def.GetSymbol();
        m_state.symbol = m_state.isRenamed ? symbol : std::string();
    }
    Deliver([component, epoch](PriceDelivery& delivery) { delivery.ExpectImage(component, epoch); });
}

void SubscriptionCore::Silence() noexcept
{
    m_isSilent.store(true);
}

void SubscriptionCore::Exclude(std::atomic<bool>& isLive)
{
    const std::lock_guard lock(m_mutex);
    isLive.store(false);
}

void SubscriptionCore::OnAnswer(const std::atomic<bool>& isLive, CompositeComponentType::Type component,
                                ps_messages_ns::SubscriptionResult::Value result, const PriceFormat& format)
{
    const std::lock_guard lock(m_mutex);
    if (!isLive.load())
    {
        return;
    }
    m_answers[static_cast<std::size_t>(component)] = {result, format};
    Deliver([component, result, format, state = MakeState()](PriceDelivery& delivery)
            { delivery.OnAnswer(component, result, format, state); });
}

} // namespace ps_ns
