#include "server/price_watch.h"

#include "gateway/component_name.h"
#include "logging/logging.h"
#include "server/price_server.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

using ps_messages_ns::SubscriptionResult;

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("price_watch");
    return source;
}

/// The client of one watched instrument.
class WatchObserver final : public ICompositePriceObserver
{
public:
    WatchObserver(std::string name, std::size_t instrument, std::size_t components, std::shared_ptr<IPriceView> view,
                  std::shared_ptr<AnswerCount> answers)
        : ICompositePriceObserver(std::move(name))
        , m_instrument(instrument)
        , m_components(components)
        , m_view(std::move(view))
        , m_answers(std::move(answers))
    {
    }

    void OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result result, unsigned long,
                     const PriceFormat& format, CompositeComponentType::Type component,
                     const CompositeSubscriptionState&) override;
    void OnOrderBook(const CompositeInstrumentDef&, const std::shared_ptr<const MergedOrderBook>& book) override
    {
        m_view->OnBook(m_instrument, book);
    }
    void OnTrades(const CompositeInstrumentDef&, const std::shared_ptr<const std::vector<Trade>>& trades) override
    {
        m_view->OnTrades(m_instrument, *trades);
    }
    void OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&) override {}

    // A watch does not change its scope, and ends with the server.
    void OnAddScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnUnsubscribe(const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

private:
    const std::size_t m_instrument;
    const std::size_t m_components;
    const std::shared_ptr<IPriceView> m_view;
    const std::shared_ptr<AnswerCount> m_answers;
};

void WatchObserver::OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result result, unsigned long,
                                const PriceFormat& format, CompositeComponentType::Type component,
                                const CompositeSubscriptionState&)
{
    if (result == SubscriptionResult::Success)
    {
        m_view->OnFormat(m_instrument, format);
        m_answers->Note(1);
        return;
    }
    const bool isWhole =
        result == SubscriptionResult::DuplicateSubscription || result == SubscriptionResult::SubscribeComponentsFailed;
    zel::logging::Log(30, LogSource(),
                      [&](std::ostream& text)
                      {
                          text << m_name << ", " << (isWhole ? "all components" : GetComponentName(component)) << ": "
                               << SubscriptionResult::GetMeaning(result);
                      });
    m_answers->Note(isWhole ? m_components : 1);
}

} // namespace

void AnswerCount::Expect(std::size_t answers)
{
    const std::lock_guard lock(m_mutex);
    m_missing += answers;
}

void AnswerCount::Note(std::size_t answers)
{
    const std::lock_guard lock(m_mutex);
    m_missing -= std::min(m_missing, answers);
    m_changed.notify_all();
}

bool AnswerCount::WaitForAll(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return m_missing == 0; });
}

PriceWatch::PriceWatch(PriceServer& server, std::shared_ptr<IPriceView> view)
    : m_server(server)
    , m_view(std::move(view))
{
}

void PriceWatch::Add(const ListedInstrument& instrument, std::int32_t depth)
{
    const CompositeInstrumentDef def = MakeDefinition(instrument);
    const auto components = static_cast<std::size_t>(std::count(def.components.begin(), def.components.end(), true));
    CompositeSubscriptionInfo scope;
    scope.depth = depth;
    scope.trades = true;
    const auto observer =
        std::make_shared<WatchObserver>(instrument.GetName(), m_count++, components, m_view, m_answers);
    m_answers->Expect(components);
    auto result = SubscriptionResult::Refused;
    m_server.TryRequest([&](CompositeSubscriptionMgr& manager)
                        { result = manager.Subscribe(def, scope, observer, 1).second; });
    if (result != SubscriptionResult::Accepted)
    {
        throw std::runtime_error(instrument.GetName() + ": " + std::string(SubscriptionResult::GetMeaning(result)));
    }
}

} // namespace ps_ns
