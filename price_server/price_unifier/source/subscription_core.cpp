#include "price_unifier/source/subscription_core.h"

#include "price_unifier/source/detail/call_observer.h"

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
                                   const Settings& settings, Surroundings surroundings, IUnsubscribeOwner* owner)
    : DeliveryHost(std::move(def), observer, manager, scope, settings)
    , m_surroundings(std::move(surroundings))
    , m_gate(owner)
{
}

SubscriptionCore::~SubscriptionCore()
{
    if (m_staleComponents != 0)
    {
        zel::metrics::Gauge staleGauge = m_surroundings->staleGauge;
        --staleGauge;
    }
}

PriceDelivery& SubscriptionCore::GetDelivery()
{
    if (m_delivery == nullptr)
    {
        m_delivery = std::make_unique<PriceDelivery>(*this);
    }
    return *m_delivery;
}

void SubscriptionCore::OnStaleChanged(bool isStale)
{
    const bool wasStale = m_staleComponents != 0;
    m_staleComponents = static_cast<std::uint8_t>(m_staleComponents + (isStale ? 1 : -1));
    if (wasStale == (m_staleComponents != 0))
    {
        return;
    }
    zel::metrics::Gauge staleGauge = m_surroundings->staleGauge;
    if (isStale)
    {
        ++staleGauge;
    }
    else
    {
        --staleGauge;
    }
    const std::lock_guard lock(m_gate.GetMutex());
    m_state.isStale = isStale;
}

std::shared_ptr<AsyncTask> SubscriptionCore::MakeTimer(const char* name, std::function<void()> onExpiry)
{
    return std::make_shared<ExecutorTimer>(name, m_surroundings->timers, m_surroundings->executor,
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
    ChangingState changing;
    {
        const std::lock_guard lock(m_gate.GetMutex());
        changing = m_state;
    }
    return MakeState(changing);
}

CompositeSubscriptionState SubscriptionCore::MakeState(const ChangingState& changing) const
{
    CompositeSubscriptionState state(m_def.components);
    state.isStale = changing.isStale;
    state.provider = changing.provider;
    state.epoch = changing.epoch;
    if (changing.epoch != 0)
    {
        state.symbol = changing.newSymbol != nullptr ? *changing.newSymbol : m_def.GetSymbol();
    }
    return state;
}

ComponentAnswers SubscriptionCore::GetAnswers() const
{
    const std::lock_guard lock(m_gate.GetMutex());
    return CopyAnswers();
}

/// Under the gate's mutex.
ComponentAnswers SubscriptionCore::CopyAnswers() const
{
    return {m_components.Get(CompositeComponentType::Direct).lastAnswer,
            m_components.Get(CompositeComponentType::Implied).lastAnswer,
            m_components.Get(CompositeComponentType::Aggregated).lastAnswer};
}

ComponentAnswers SubscriptionCore::AddClient(const std::shared_ptr<ClientScope>& client)
{
    // Under the lock, so that an answer either is in what we return, or is posted after the client has been added.
    const std::lock_guard lock(m_gate.GetMutex());
    Run([client](SubscriptionCore& core) { core.GetDelivery().AddClient(client); });
    return CopyAnswers();
}

void SubscriptionCore::ActivateClient(std::shared_ptr<ClientScope> client, bool hadSnapshotAtJoin)
{
    // With a snapshot at the join the manager asks for an image itself; without one, the first might have come since.
    Run([client = std::move(client), hadSnapshotAtJoin](SubscriptionCore& core)
        { core.GetDelivery().ActivateClient(*client, !hadSnapshotAtJoin); });
}

void SubscriptionCore::RemoveClient(std::shared_ptr<ClientScope> client)
{
    Run([client = std::move(client)](SubscriptionCore& core) { core.GetDelivery().RemoveClient(*client); });
}

void SubscriptionCore::ChangeClient(std::shared_ptr<ClientScope> client, const CompositeSubscriptionInfo& info)
{
    Run([client = std::move(client), info](SubscriptionCore& core) { core.GetDelivery().ChangeClient(*client, info); });
}

void SubscriptionCore::SetMergedScope(const CompositeSubscriptionInfo& scope)
{
    Run(
        [scope](SubscriptionCore& core)
        {
            core.m_deliveredScope = scope;
            if (core.m_delivery != nullptr)
            {
                core.m_delivery->OnMergedScope();
            }
        });
}

void SubscriptionCore::GenerateSnapshot(std::uint32_t reason, std::shared_ptr<ClientScope> client)
{
    Run(
        [reason, client = std::move(client)](SubscriptionCore& core)
        {
            if (core.m_delivery != nullptr)
            {
                core.m_delivery->GenerateSnapshot(reason, client.get());
            }
        });
}

void SubscriptionCore::BeginEpoch(CompositeComponentType::Type component, ProviderType::Value provider,
                                  const std::shared_ptr<const std::string>& newSymbol)
{
    std::uint32_t epoch = 0;
    {
        const std::lock_guard lock(m_gate.GetMutex());
        epoch = ++m_state.epoch;
        m_state.provider = static_cast<std::int8_t>(provider);
        m_state.newSymbol = newSymbol;
    }
    Run(
        [component, epoch](SubscriptionCore& core)
        {
            core.m_components.Get(component).epoch = epoch;
            if (core.m_delivery != nullptr)
            {
                core.m_delivery->ExpectImage(component);
            }
        });
}

void SubscriptionCore::Silence() noexcept
{
    m_isSilent.store(true);
}

void SubscriptionCore::Exclude(std::atomic<bool>& isLive)
{
    const std::lock_guard lock(m_gate.GetMutex());
    isLive.store(false);
}

void SubscriptionCore::ExcludeAndExpect(std::atomic<bool>& isLive, bool forSymbolChange)
{
    const std::lock_guard lock(m_gate.GetMutex());
    isLive.store(false);
    m_gate.Expect(forSymbolChange);
}

void SubscriptionCore::OnAnswer(const std::atomic<bool>& isLive, CompositeComponentType::Type component,
                                ps_messages_ns::SubscriptionResult::Value result, const PriceFormat& format)
{
    const std::lock_guard lock(m_gate.GetMutex());
    if (!isLive.load())
    {
        return;
    }
    const ComponentAnswer answer{result, format};
    ComponentAnswer& known = m_components.Get(component).lastAnswer;
    // A later answer, after a switch or a rename, is told only when it says something else. Answers run in the order
    // in which they are posted here, so what is known is what will have been told by then.
    Run([component, answer, changing = m_state, isNews = answer != known](SubscriptionCore& core)
        { core.TakeAnswer(component, answer, changing, isNews); });
    known = answer;
}

/// On the executor.
void SubscriptionCore::TakeAnswer(CompositeComponentType::Type component, const ComponentAnswer& answer,
                                  const ChangingState& changing, bool isNews)
{
    const bool isSuccess = answer.result == ps_messages_ns::SubscriptionResult::Success;
    m_components.Get(component).isAnswered = isSuccess;
    if (m_settings.monitoringInterval_sec != 0)
    {
        GetDelivery().NoteAnswer(component);
    }
    if (isNews)
    {
        const CompositeSubscriptionState state = MakeState(changing);
        detail::CallObserver(
            m_def, m_observer->GetName(),
            [&] { m_observer->OnSubscribe(m_def, EventInfo{}, answer.result, 0, answer.format, component, state); });
        if (m_delivery != nullptr)
        {
            m_delivery->TellClients(component, answer.result, answer.format, state);
        }
    }
    if (!isSuccess && m_delivery != nullptr)
    {
        m_delivery->ForgetBook(component);
    }
}

} // namespace ps_ns
