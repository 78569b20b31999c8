#include "choose.h"
#include "simulation_run.h"

#include <array>
#include <memory>

namespace ps_ns::simulation
{

void SimulationRun::DoDirectSubscribe(const Numbers& n, bool isLeg)
{
    const CompositeInstrumentDef& def = ChooseInstrument(n[0]);
    const CompositeSubscriptionInfo& info = Choose(GetScopes(), n[1]);
    const std::size_t observer = n[2] % GetDirectObserverNames().size();
    const unsigned long id = n[3] % kIdCount + 1;
    const auto& real = m_world.directObservers[observer];
    const auto answer = isLeg ? m_world.manager->SyntheticLegSubscribe(n[3], def, info, real, id)
                              : m_world.manager->Subscribe(def, info, real, id);
    const auto expected = m_model.SubscribeDirect(def, info, GetDirectObserverNames()[observer], id);
    Same("the handle of a subscribe", answer.first, expected.first);
    Same("the answer to a subscribe", static_cast<int>(answer.second), static_cast<int>(expected.second));
}

void SimulationRun::DoHandleRequest(const Operation& operation)
{
    const Numbers& n = operation.numbers;
    const unsigned long handle = ChooseHandle(n[0]);
    const CompositeSubscriptionInfo& info = Choose(GetScopes(), n[1]);
    const unsigned long id = n[2] % kIdCount + 1;
    const bool flag = n[3] % 2 != 0;
    CompositeSubscriptionMgr& manager = *m_world.manager;
    switch (operation.kind)
    {
    case OperationKind::UnsubscribeHandle:
        return Same("the answer to an unsubscribe", manager.Unsubscribe(handle), m_model.UnsubscribeHandle(handle));
    case OperationKind::AddScope:
        return Same("the answer to AddScope", manager.AddScope(handle, info, id), m_model.AddScope(handle, info, id));
    case OperationKind::RemoveScope:
        return Same("the answer to RemoveScope", manager.RemoveScope(handle, id), m_model.RemoveScope(handle, id));
    default:
        return Same("the answer to ChangeScope", manager.ChangeScope(handle, info, id, flag),
                    m_model.ChangeScope(handle, info, id, flag));
    }
}

bool SimulationRun::DoRequest(const Operation& operation)
{
    const Numbers& n = operation.numbers;
    CompositeSubscriptionMgr& manager = *m_world.manager;
    const CompositeSubscriptionInfo& info = Choose(GetScopes(), n[3] / 2);
    switch (operation.kind)
    {
    case OperationKind::SubscribeDirect:
    case OperationKind::SubscribeLeg:
        DoDirectSubscribe(n, operation.kind == OperationKind::SubscribeLeg);
        return true;
    case OperationKind::UnsubscribeHandle:
    case OperationKind::AddScope:
    case OperationKind::RemoveScope:
    case OperationKind::ChangeScope:
        DoHandleRequest(operation);
        return true;
    case OperationKind::SubscribeFlexible:
    {
        const CompositeInstrumentDef& def = ChooseInstrument(n[0]);
        const std::size_t observer = n[1] % GetFlexibleObserverNames().size();
        const unsigned long id = n[2] % kIdCount + 1;
        manager.Subscribe(def, info, *m_world.factory, m_world.flexibleObservers[observer], id);
        m_model.SubscribeFlexible(def, info, GetFlexibleObserverNames()[observer], id);
        return true;
    }
    case OperationKind::UnsubscribeFlexible:
    {
        const auto [def, observer, id] = ChooseClient(n);
        manager.Unsubscribe(*def, m_world.flexibleObservers[observer], id);
        m_model.UnsubscribeFlexible(*def, GetFlexibleObserverNames()[observer], id);
        return true;
    }
    case OperationKind::ChangeFlexibleScope:
    {
        const auto [def, observer, id] = ChooseClient(n);
        const bool flag = n[3] % 2 != 0;
        manager.ChangeScope(*def, info, m_world.flexibleObservers[observer], id, flag);
        m_model.ChangeFlexibleScope(*def, info, GetFlexibleObserverNames()[observer], id, flag);
        return true;
    }
    case OperationKind::ChangeSymbol:
    {
        const short market = n[0] % 4 == 0 ? kMarkets[1] : kMarkets[0];
        manager.ChangeSymbol(market, Choose(GetSymbols(), n[1]), Choose(GetSymbols(), n[2]));
        m_model.ChangeSymbol(market, Choose(GetSymbols(), n[1]), Choose(GetSymbols(), n[2]));
        return true;
    }
    case OperationKind::CheckPending:
        m_model.PostCheckPending();
        ActionCenter<CompositeSubscriptionMgr::Queue, Task>(&m_world.queue.Get(), nullptr)
            .ExecuteAction([&manager] { manager.CheckProviderPendingSubscriptions(); }, "");
        return true;
    case OperationKind::NullTeardown:
        m_model.NullTeardown(ChooseInstrument(n[0]));
        manager.OnUnsubscribeCompositeSubscription(nullptr, ChooseInstrument(n[0]));
        return true;
    case OperationKind::FileSynthetic:
    case OperationKind::CompleteSynthetic:
        DoSynthetic(operation);
        return true;
    default:
        return false;
    }
}

void SimulationRun::DoSynthetic(const Operation& operation)
{
    const Numbers& n = operation.numbers;
    const CompositeInstrumentDef& def = ChooseInstrument(n[0]);
    const unsigned long handle = n[1] % 4;
    if (operation.kind == OperationKind::CompleteSynthetic)
    {
        m_world.manager->OnSyntheticUnsubscribeComplete(handle, def);
        m_model.CompleteSynthetic(handle, def);
    }
    else if (n[2] % 2 == 0)
    {
        m_world.Access().PendingSyntheticByHandle().try_emplace(handle, nullptr);
        m_model.syntheticByHandle.try_emplace(handle, 0);
    }
    else
    {
        m_world.Access().PendingSyntheticByInstrument().try_emplace(CompositeInstrumentID(def), nullptr);
        m_model.syntheticByInstrument.try_emplace(CompositeInstrumentID(def), 0);
    }
}

} // namespace ps_ns::simulation
