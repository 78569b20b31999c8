#include "simulated_provider.h"

#include "composite_instrument/subscription_ex.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace ps_ns::simulation
{

using ps_messages_ns::SubscriptionResult;

SimulatedProvider::SimulatedProvider(ProviderType::Value type, const Conditions& conditions, Recorder& recorder,
                                     int& lastLink)
    : m_type(type)
    , m_conditions(conditions)
    , m_recorder(recorder)
    , m_lastLink(lastLink)
{
    for (const short market : kMarkets)
    {
        m_directory.AddMarket(market);
    }
}

std::shared_ptr<IComponentListener> SimulatedProvider::Find(int link) const
{
    const auto found = m_links.find(link);
    return found == m_links.end() ? nullptr : found->second.listener;
}

std::shared_ptr<IComponentListener> SimulatedProvider::Release(int link)
{
    const auto found = m_links.find(link);
    if (found == m_links.end())
    {
        return nullptr;
    }
    std::shared_ptr<IComponentListener> listener = std::move(found->second.listener);
    m_links.erase(found);
    return listener;
}

std::size_t SimulatedProvider::GetLivingListeners() const
{
    return static_cast<std::size_t>(
        std::count_if(m_all.begin(), m_all.end(), [](const auto& listener) { return !listener.expired(); }));
}

void SimulatedProvider::Stop()
{
    m_isStopped = true;
    const std::map<int, Link> links = std::exchange(m_links, {});
}

int SimulatedProvider::Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener)
{
    if (m_isStopped)
    {
        return SubscribeStatus::Failed;
    }
    const int link = ++m_lastLink;
    std::ostringstream rest;
    rest << " market=" << request.submarket.marketId << " component=" << static_cast<int>(request.component) << " "
         << request.scope;
    m_recorder.Add(SpellProviderCall(m_type, "Subscribe", link, request.symbol, rest.str()));
    m_all.push_back(listener);

    const SubscribeOutcome outcome = m_conditions.GetSubscribeOutcome(request.symbol);
    switch (outcome)
    {
    case SubscribeOutcome::Fails:
        return SubscribeStatus::Failed;
    case SubscribeOutcome::RefusesWithReason:
        throw SubscriptionEx(GetRefusal(request.symbol));
    case SubscribeOutcome::Breaks:
        throw std::runtime_error(GetBreakdown(request.symbol));
    case SubscribeOutcome::AnswersAtOnce:
        listener->OnSubscribed(SubscriptionResult::Success, GetFormat(0));
        break;
    case SubscribeOutcome::RefusesAtOnce:
        listener->OnSubscribed(SubscriptionResult::DirectSubscriptionFailed, GetFormat(0));
        break;
    default:
        break;
    }
    m_links[link] = {request.symbol, listener};
    constexpr int kSomethingElse = 7;
    return outcome == SubscribeOutcome::Pends                  ? static_cast<int>(SubscribeStatus::Pending)
           : outcome == SubscribeOutcome::AnswersSomethingElse ? kSomethingElse
                                                               : static_cast<int>(SubscribeStatus::Subscribed);
}

std::map<int, SimulatedProvider::Link>::iterator
SimulatedProvider::FindLink(const std::shared_ptr<IComponentListener>& listener)
{
    return std::find_if(m_links.begin(), m_links.end(),
                        [&](const auto& entry) { return entry.second.listener == listener; });
}

void SimulatedProvider::ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                                    const CompositeSubscriptionInfo& scope)
{
    const auto found = FindLink(listener);
    if (found == m_links.end())
    {
        m_recorder.Add("a change of scope for nothing");
        return;
    }
    std::ostringstream rest;
    rest << " " << scope;
    m_recorder.Add(SpellProviderCall(m_type, "ChangeScope", found->first, found->second.symbol, rest.str()));
}

void SimulatedProvider::Unsubscribe(const std::shared_ptr<IComponentListener>& listener)
{
    const auto found = FindLink(listener);
    if (found == m_links.end())
    {
        m_recorder.Add("an unsubscribe of nothing");
        listener->OnUnsubscribed(true);
        return;
    }
    m_recorder.Add(SpellProviderCall(m_type, "Unsubscribe", found->first, found->second.symbol, ""));
    const UnsubscribeOutcome outcome = m_conditions.unsubscribe[static_cast<std::size_t>(m_type)];
    if (outcome == UnsubscribeOutcome::Later)
    {
        return;
    }
    m_links.erase(found);
    if (outcome == UnsubscribeOutcome::Throws)
    {
        throw std::runtime_error(kUnsubscribeFailure);
    }
    listener->OnUnsubscribed(outcome == UnsubscribeOutcome::Ok);
}

} // namespace ps_ns::simulation
