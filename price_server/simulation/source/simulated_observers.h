#pragma once

#include "composite_instrument/i_composite_price_observer.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "composite_instrument/local_observer_factory.h"
#include "simulation/simulated_world.h"

namespace ps_ns::simulation
{

/// Observers that record, and throw when they owe it.
class SimulatedObserver final : public ICompositePriceObserver
{
public:
    SimulatedObserver(std::string name, Recorder& recorder)
        : ICompositePriceObserver(std::move(name))
        , m_recorder(recorder)
    {
    }

    void OnSubscribe(const CompositeInstrumentDef& def, const EventInfo& eventInfo, Result result,
                     unsigned long reserved, const PriceFormat& format, CompositeComponentType::Type component,
                     const CompositeSubscriptionState& state) override
    {
        m_recorder.AddCallback(GetName(), SpellSubscribe(GetName(), std::nullopt, def, eventInfo, result, reserved,
                                                         format, component, state, m_recorder.GetPlace()));
    }
    void OnAddScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override
    {
        AddScopeAnswer("OnAddScope", def, handle, result);
    }
    void OnChangeScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override
    {
        AddScopeAnswer("OnChangeScope", def, handle, result);
    }
    void OnRemoveScope(const CompositeInstrumentDef& def, unsigned long handle, Result result) override
    {
        AddScopeAnswer("OnRemoveScope", def, handle, result);
    }
    void OnOrderBook(const CompositeInstrumentDef& def, const std::shared_ptr<const MergedOrderBook>& book) override
    {
        m_recorder.AddData({Recorder::DataKind::Book, GetName(), 0, def, book, false, false});
    }
    void OnTrades(const CompositeInstrumentDef& def, const std::shared_ptr<const std::vector<Trade>>&) override
    {
        m_recorder.AddData({Recorder::DataKind::Trades, GetName(), 0, def, nullptr, false, false});
    }
    void OnCustomFields(const CompositeInstrumentDef& def, const std::shared_ptr<const CustomFields>&) override
    {
        m_recorder.AddData({Recorder::DataKind::CustomFields, GetName(), 0, def, nullptr, false, false});
    }
    void OnUnsubscribe(const CompositeInstrumentDef& def, Result result, CompositeComponentType::Type component,
                       const CompositeSubscriptionState& state) override
    {
        m_recorder.AddCallback(
            GetName(), SpellUnsubscribe(GetName(), std::nullopt, def, result, component, state, m_recorder.GetPlace()));
    }

private:
    void AddScopeAnswer(const char* operation, const CompositeInstrumentDef& def, unsigned long handle, Result result)
    {
        m_recorder.AddCallback(
            GetName(), SpellScopeAnswer(GetName(), operation, "handle", handle, def, result, m_recorder.GetPlace()));
    }

    Recorder& m_recorder;
};

class SimulatedFlexibleObserver final : public IFlexiblePriceObserver
{
public:
    SimulatedFlexibleObserver(std::string name, Recorder& recorder)
        : IFlexiblePriceObserver(std::move(name))
        , m_recorder(recorder)
    {
    }

    void OnSubscribe(unsigned long id, const CompositeInstrumentDef& def, const EventInfo& eventInfo, Result result,
                     unsigned long reserved, const PriceFormat& format, CompositeComponentType::Type component,
                     const CompositeSubscriptionState& state) override
    {
        m_recorder.AddCallback(GetName(), SpellSubscribe(GetName(), id, def, eventInfo, result, reserved, format,
                                                         component, state, m_recorder.GetPlace()));
    }
    void OnChangeScope(unsigned long id, const CompositeInstrumentDef& def, Result result) override
    {
        m_recorder.AddCallback(
            GetName(), SpellScopeAnswer(GetName(), "OnChangeScope", "id", id, def, result, m_recorder.GetPlace()));
    }
    void OnOrderBook(unsigned long id, const CompositeInstrumentDef& def,
                     const std::shared_ptr<const MergedOrderBook>& book) override
    {
        m_recorder.AddData({Recorder::DataKind::Book, GetName(), id, def, book, false, false});
    }
    void OnTrades(unsigned long id, const CompositeInstrumentDef& def,
                  const std::shared_ptr<const std::vector<Trade>>&) override
    {
        m_recorder.AddData({Recorder::DataKind::Trades, GetName(), id, def, nullptr, false, false});
    }
    void OnCustomFields(unsigned long id, const CompositeInstrumentDef& def,
                        const std::shared_ptr<const CustomFields>&) override
    {
        m_recorder.AddData({Recorder::DataKind::CustomFields, GetName(), id, def, nullptr, false, false});
    }
    void OnUnsubscribe(unsigned long id, const CompositeInstrumentDef& def, Result result,
                       CompositeComponentType::Type component, const CompositeSubscriptionState& state) override
    {
        m_recorder.AddCallback(GetName(),
                               SpellUnsubscribe(GetName(), id, def, result, component, state, m_recorder.GetPlace()));
    }

private:
    Recorder& m_recorder;
};

class SimulatedObserverFactory final : public LocalObserverFactory
{
public:
    explicit SimulatedObserverFactory(Recorder& recorder)
        : m_recorder(recorder)
    {
    }
    std::shared_ptr<ICompositePriceObserver> CreateLocalObserver(const CompositeInstrumentDef& def) override
    {
        m_recorder.AddCallback("factory",
                               "factory.CreateLocalObserver " + SpellDef(def) + " @" + m_recorder.GetPlace());
        return std::make_shared<SimulatedObserver>("local" + std::to_string(++m_made), m_recorder);
    }

private:
    Recorder& m_recorder;
    int m_made = 0;
};

} // namespace ps_ns::simulation
