#include "price_unifier/source/composite_subscription_mgr.h"

#include "price_unifier/source/composite_instrument_subscription.h"
#include "price_unifier/source/detail/manager_log.h"

namespace ps_ns
{

using ps_messages_ns::SubscriptionResult;

namespace
{

/// The lines that the three requests on a direct client's scopes write; `operation` is "AddScope" and the like.
class DirectScopeLines
{
public:
    DirectScopeLines(const char* operation, const CompositeInstrumentDef& def, const ICompositePriceObserver& observer,
                     unsigned long handle)
        : m_operation(operation)
        , m_def(def)
        , m_observer(observer)
        , m_handle(handle)
    {
    }

    void NoSubscription() const
    {
        detail::LogManager(
            20, [&](std::ostream& text)
            { Begin(text) << " (observer=" << m_observer.GetName() << ") failed - there is no subscription"; });
    }

    void Failed(const char* why, unsigned long subscriptionId) const
    {
        detail::LogManager(20, [&](std::ostream& text)
                           { BeginWithHandle(text) << " failed - " << why << " subscription_id=" << subscriptionId; });
    }

    void Changed(const CompositeSubscriptionInfo& previous, const CompositeSubscriptionInfo& newAggregate) const
    {
        detail::LogManager(10,
                           [&](std::ostream& text)
                           {
                               text << detail::kIndexerSkips;
                               BeginWithHandle(text) << " executed. PreviousSubscriptionInfo " << previous
                                                     << " NewSubscriptionInfo " << newAggregate;
                           });
    }

    void Unchanged(const CompositeSubscriptionInfo& previous, bool generateSnapshot) const
    {
        detail::LogManager(10,
                           [&](std::ostream& text)
                           {
                               text << detail::kIndexerSkips;
                               BeginWithHandle(text) << " executed. No changes to SubscriptionInfo " << previous
                                                     << (generateSnapshot ? " Generating a snapshot" : "");
                           });
    }

private:
    std::ostream& Begin(std::ostream& text) const
    {
        return text << "CompositeSubscriptionMgr: " << m_operation << " request for instrument " << m_def.ToString();
    }
    std::ostream& BeginWithHandle(std::ostream& text) const
    {
        return Begin(text) << " handle=" << m_handle << " (observer=" << m_observer.GetName() << ")";
    }

    const char* m_operation;
    const CompositeInstrumentDef& m_def;
    const ICompositePriceObserver& m_observer;
    unsigned long m_handle;
};

/// Re-targets the subscription when its merged scope has changed, and generates a snapshot when it has not and one is
/// asked for. The line comes first.
void ApplyMergedScope(CompositeInstrumentSubscription& subscription, const DirectScopeLines& lines,
                      const CompositeSubscriptionInfo& previous, const CompositeSubscriptionInfo& newAggregate,
                      bool generateSnapshot)
{
    if (!CompositeSubscriptionInfo::IsSameScope(newAggregate, previous))
    {
        lines.Changed(previous, newAggregate);
        subscription.ChangeScope(newAggregate);
        return;
    }
    lines.Unchanged(previous, generateSnapshot);
    if (generateSnapshot)
    {
        subscription.GenerateMergedSnapshotViaExecutor(GenerateSnapshotReason::ScopeUnchanged);
    }
}

} // namespace

CompositeInstrumentSubscription* CompositeSubscriptionMgr::FindSubscription(const CompositeInstrumentDef& def) const
{
    AssertOnQueueThread(m_dataQueue);
    const auto entry = m_subscriptionByCompositeInstrumentID.find(CompositeInstrumentID(def));
    return entry == m_subscriptionByCompositeInstrumentID.end() ? nullptr : entry->second;
}

void CompositeSubscriptionMgr::AddScopeImpl(const CompositeInstrumentDef& def,
                                            const std::shared_ptr<ICompositePriceObserver>& observer,
                                            unsigned long handle, const CompositeSubscriptionInfo& info,
                                            unsigned long subscriptionId,
                                            const std::shared_ptr<IFlexiblePriceObserver>& flexibleObserver)
{
    Post(
        [this, def = def, observer = observer, handle, info, subscriptionId, flexibleObserver = flexibleObserver]
        {
            const DirectScopeLines lines("AddScope", def, *observer, handle);
            CompositeInstrumentSubscription* const subscription = FindSubscription(def);
            if (subscription == nullptr)
            {
                observer->OnAddScope(def, handle, SubscriptionResult::NoSubscription);
                lines.NoSubscription();
                return;
            }
            const CompositeSubscriptionInfo previous = subscription->GetMergedScope();
            CompositeSubscriptionInfo newAggregate;
            if (!subscription->AddScope(GetAdjustedCompositeSubscriptionInfo(def, info), subscriptionId,
                                        flexibleObserver, newAggregate))
            {
                observer->OnAddScope(def, handle, SubscriptionResult::DuplicateSubscriptionId);
                lines.Failed("duplicate", subscriptionId);
                return;
            }
            ApplyMergedScope(*subscription, lines, previous, newAggregate, false);
        });
}

void CompositeSubscriptionMgr::RemoveScopeImpl(const CompositeInstrumentDef& def,
                                               const std::shared_ptr<ICompositePriceObserver>& observer,
                                               unsigned long handle, unsigned long subscriptionId)
{
    Post(
        [this, def = def, observer = observer, handle, subscriptionId]
        {
            const DirectScopeLines lines("RemoveScope", def, *observer, handle);
            CompositeInstrumentSubscription* const subscription = FindSubscription(def);
            if (subscription == nullptr)
            {
                observer->OnRemoveScope(def, handle, SubscriptionResult::NoSubscription);
                lines.NoSubscription();
                return;
            }
            const CompositeSubscriptionInfo previous = subscription->GetMergedScope();
            CompositeSubscriptionInfo newAggregate;
            if (!subscription->RemoveScope(subscriptionId, newAggregate))
            {
                observer->OnRemoveScope(def, handle, SubscriptionResult::UnknownSubscriptionId);
                lines.Failed("unknown", subscriptionId);
                return;
            }
            // The last scope's removal does not end the subscription: a direct handle does.
            ApplyMergedScope(*subscription, lines, previous, newAggregate, false);
        });
}

void CompositeSubscriptionMgr::ChangeScopeImpl(const CompositeInstrumentDef& def,
                                               const std::shared_ptr<ICompositePriceObserver>& observer,
                                               unsigned long handle, const CompositeSubscriptionInfo& info,
                                               unsigned long subscriptionId, bool generateSnapshot)
{
    Post(
        [this, def = def, observer = observer, handle, info, subscriptionId, generateSnapshot]
        {
            const DirectScopeLines lines("ChangeScope", def, *observer, handle);
            CompositeInstrumentSubscription* const subscription = FindSubscription(def);
            if (subscription == nullptr)
            {
                observer->OnChangeScope(def, handle, SubscriptionResult::NoSubscription);
                lines.NoSubscription();
                return;
            }
            const CompositeSubscriptionInfo previous = subscription->GetMergedScope();
            CompositeSubscriptionInfo newAggregate;
            if (!subscription->ChangeScope(GetAdjustedCompositeSubscriptionInfo(def, info), subscriptionId,
                                           newAggregate))
            {
                observer->OnChangeScope(def, handle, SubscriptionResult::UnknownSubscriptionId);
                lines.Failed("unknown", subscriptionId);
                return;
            }
            ApplyMergedScope(*subscription, lines, previous, newAggregate, generateSnapshot);
        });
}

} // namespace ps_ns
