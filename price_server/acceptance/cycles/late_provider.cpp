#include "cycles/late_provider.h"

#include "composite_price/fixed_point.h"

#include <utility>

namespace ps_ns::cycles
{
namespace
{

std::shared_ptr<const BookUpdate> MakeImage()
{
    const auto image = std::make_shared<BookUpdate>();
    image->isImage = true;
    image->epoch = 1;
    image->sequence = 1;
    image->changes = {{kPriceUnitsPerOne, 1, 1, BookSideType::Bid}, {2 * kPriceUnitsPerOne, 1, 1, BookSideType::Ask}};
    return image;
}

} // namespace

LateProvider::LateProvider(const std::vector<short>& marketIds)
{
    for (const short id : marketIds)
    {
        m_directory.AddMarket(id);
    }
}

std::size_t LateProvider::AnswerWaiting()
{
    Listeners done; // let go without the lock
    const std::lock_guard lock(m_mutex);
    for (const auto& listener : m_subscribing)
    {
        listener->OnSubscribed(ps_messages_ns::SubscriptionResult::Success, PriceFormat{});
        listener->OnBook(MakeImage());
    }
    for (const auto& listener : m_unsubscribing)
    {
        listener->OnUnsubscribed(true);
    }
    const std::size_t count = m_subscribing.size() + m_unsubscribing.size();
    m_subscribed.insert(m_subscribed.end(), m_subscribing.begin(), m_subscribing.end());
    m_subscribing.clear();
    done.swap(m_unsubscribing);
    return count;
}

std::size_t LateProvider::GetListenerCount() const
{
    const std::lock_guard lock(m_mutex);
    return m_subscribing.size() + m_subscribed.size() + m_unsubscribing.size();
}

void LateProvider::Stop()
{
    Listeners left;
    const std::lock_guard lock(m_mutex);
    for (Listeners* const listeners : {&m_subscribing, &m_subscribed, &m_unsubscribing})
    {
        left.insert(left.end(), listeners->begin(), listeners->end());
        listeners->clear();
    }
}

int LateProvider::Subscribe(const ComponentRequest&, const std::shared_ptr<IComponentListener>& listener)
{
    const std::lock_guard lock(m_mutex);
    m_subscribing.push_back(listener);
    return SubscribeStatus::Subscribed;
}

void LateProvider::ChangeScope(const std::shared_ptr<IComponentListener>&, const CompositeSubscriptionInfo&) {}

void LateProvider::Unsubscribe(const std::shared_ptr<IComponentListener>& listener)
{
    const std::lock_guard lock(m_mutex);
    std::erase(m_subscribing, listener);
    std::erase(m_subscribed, listener);
    m_unsubscribing.push_back(listener);
}

} // namespace ps_ns::cycles
