#include "testing/scripted_provider.h"

#include "composite_price/fixed_point.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace ps_ns::testing
{

ScriptedProvider::ScriptedProvider(ProviderType::Value type, EventLog& events)
    : m_type(type)
    , m_events(events)
{
}

void ScriptedProvider::Record(const std::string& text)
{
    m_events.Add((m_type == ProviderType::Mds ? "mds." : "zel.") + text);
}

void ScriptedProvider::Returns(const std::string& symbol, int status)
{
    m_script[symbol].push_back([status] { return status; });
}

void ScriptedProvider::Throws(const std::string& symbol, std::function<void()> thrower)
{
    m_script[symbol].push_back(
        [thrower = std::move(thrower)]
        {
            thrower();
            return 0;
        });
}

std::vector<std::shared_ptr<IComponentListener>> ScriptedProvider::GetListeners(const std::string& symbol) const
{
    std::vector<std::shared_ptr<IComponentListener>> listeners;
    for (const Listener& entry : m_listeners)
    {
        if (entry.symbol == symbol)
        {
            listeners.push_back(entry.listener);
        }
    }
    return listeners;
}

void ScriptedProvider::Answer(const std::string& symbol, ps_messages_ns::SubscriptionResult::Value result,
                              const PriceFormat& format)
{
    for (const auto& listener : GetListeners(symbol))
    {
        listener->OnSubscribed(result, format);
    }
}

void ScriptedProvider::SendImage(const std::string& symbol, const std::vector<Level>& levels)
{
    Send(symbol, true, levels);
}

void ScriptedProvider::SendStaleImage(const std::string& symbol, const std::vector<Level>& levels)
{
    Send(symbol, true, levels, true);
}

void ScriptedProvider::SendChange(const std::string& symbol, const std::vector<Level>& levels)
{
    Send(symbol, false, levels);
}

void ScriptedProvider::Send(const std::string& symbol, bool isImage, const std::vector<Level>& levels, bool isStale)
{
    const auto update = std::make_shared<BookUpdate>();
    update->isImage = isImage;
    update->isStale = isStale;
    update->epoch = m_epoch;
    update->sequence = ++m_sequences[symbol];
    for (const Level& level : levels)
    {
        update->changes.push_back(
            {ParsePrice(level.price).value(), ParseQuantity(level.quantity).value(), 0, level.side});
    }
    for (const auto& listener : GetListeners(symbol))
    {
        listener->OnBook(update);
    }
}

void ScriptedProvider::SendTrade(const std::string& symbol, const char* price, const char* quantity)
{
    auto trades = std::make_shared<std::vector<Trade>>(1);
    trades->front().price = ParsePrice(price).value();
    trades->front().quantity = ParseQuantity(quantity).value();
    for (const auto& listener : GetListeners(symbol))
    {
        listener->OnTrades(trades);
    }
}

void ScriptedProvider::SendCustomFields(const std::string& symbol)
{
    const auto fields = std::make_shared<CustomFields>();
    for (const auto& listener : GetListeners(symbol))
    {
        listener->OnCustomFields(fields);
    }
}

void ScriptedProvider::SendStale(const std::string& symbol, bool isStale)
{
    for (const auto& listener : GetListeners(symbol))
    {
        listener->OnStale(isStale);
    }
}

bool ScriptedProvider::AnswerUnsubscribe(const std::string& symbol, bool ok)
{
    const auto found = std::find_if(m_unsubscribing.begin(), m_unsubscribing.end(),
                                    [&](const Listener& entry) { return entry.symbol == symbol; });
    if (found == m_unsubscribing.end())
    {
        return false;
    }
    const std::shared_ptr<IComponentListener> listener = std::move(found->listener);
    m_unsubscribing.erase(found);
    listener->OnUnsubscribed(ok);
    return true;
}

void ScriptedProvider::DropUnsubscribes()
{
    const std::vector<Listener> dropped = std::exchange(m_unsubscribing, {});
}

std::vector<std::shared_ptr<IComponentListener>> ScriptedProvider::GetUnsubscribing(const std::string& symbol) const
{
    std::vector<std::shared_ptr<IComponentListener>> listeners;
    for (const Listener& entry : m_unsubscribing)
    {
        if (entry.symbol == symbol)
        {
            listeners.push_back(entry.listener);
        }
    }
    return listeners;
}

std::size_t ScriptedProvider::GetListenerCount(const std::string& symbol) const
{
    return GetListeners(symbol).size();
}

std::vector<std::string> ScriptedProvider::GetWaitingUnsubscribeSymbols() const
{
    std::vector<std::string> symbols;
    std::transform(m_unsubscribing.begin(), m_unsubscribing.end(), std::back_inserter(symbols),
                   [](const Listener& entry) { return entry.symbol; });
    return symbols;
}

std::vector<std::string> ScriptedProvider::GetSubscribedSymbols() const
{
    std::vector<std::string> symbols;
    std::transform(m_listeners.begin(), m_listeners.end(), std::back_inserter(symbols),
                   [](const Listener& entry) { return entry.symbol; });
    return symbols;
}

void ScriptedProvider::Stop()
{
    const std::vector<Listener> listeners = std::exchange(m_listeners, {});
    DropUnsubscribes();
}

int ScriptedProvider::Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener)
{
    std::ostringstream text;
    text << "Subscribe " << request.symbol << " component=" << static_cast<int>(request.component) << " "
         << request.scope;
    Record(text.str());

    int status = SubscribeStatus::Subscribed;
    if (const auto script = m_script.find(request.symbol); script != m_script.end() && !script->second.empty())
    {
        const std::function<int()> next = std::move(script->second.front());
        script->second.pop_front();
        status = next();
    }
    if (status != SubscribeStatus::Failed)
    {
        m_listeners.push_back({request.symbol, listener});
    }
    return status;
}

void ScriptedProvider::ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                                   const CompositeSubscriptionInfo& scope)
{
    for (const Listener& entry : m_listeners)
    {
        if (entry.listener == listener)
        {
            std::ostringstream text;
            text << "ChangeScope " << entry.symbol << " " << scope;
            Record(text.str());
        }
    }
}

void ScriptedProvider::Unsubscribe(const std::shared_ptr<IComponentListener>& listener)
{
    const auto found = std::find_if(m_listeners.begin(), m_listeners.end(),
                                    [&](const Listener& entry) { return entry.listener == listener; });
    if (found == m_listeners.end())
    {
        listener->OnUnsubscribed(true);
        return;
    }
    Record("Unsubscribe " + found->symbol);
    const Listener entry = std::move(*found);
    m_listeners.erase(found);
    switch (unsubscribeAnswer)
    {
    case UnsubscribeAnswer::Later:
        m_unsubscribing.push_back(entry);
        break;
    case UnsubscribeAnswer::Ok:
        listener->OnUnsubscribed(true);
        break;
    case UnsubscribeAnswer::Failed:
        listener->OnUnsubscribed(false);
        break;
    case UnsubscribeAnswer::Throw:
        throw std::runtime_error("scripted unsubscribe failure");
    }
}

} // namespace ps_ns::testing
