#include "price_unifier/source/composite_subscription_mgr.h"

#include "composite_price/i_composite_price_factory.h"
#include "config/composite_node.h"
#include "config/config.h"
#include "price_unifier/source/detail/manager_log.h"
#include "price_unifier/source/synthetic_price_subscription.h"
#include "simple_subscription/simple_subscription_mgr.h"

#include <boost/property_tree/ptree.hpp>

namespace ps_ns
{
namespace detail
{

const std::shared_ptr<const zel::logging::Source>& ManagerLogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("composite_subscription_mgr");
    return source;
}

} // namespace detail

namespace
{

/// The section of a configuration; an empty one when there is none.
std::shared_ptr<CompositeNode> FindSection(const Config& config, const std::string& section)
{
    // A configuration whose root is the section itself is recognised by the first eight characters of its name.
    constexpr std::size_t kComparedLength = 8;
    const bool rootIsSection = config.GetRootName() == section.substr(0, kComparedLength);
    const std::string path = rootIsSection ? section : config.GetRootName() + "." + section;
    if (const auto child = config.GetTree().get_child_optional(path))
    {
        return std::make_shared<CompositeNode>(section, *child);
    }
    return std::make_shared<CompositeNode>(section);
}

} // namespace

CompositeSubscriptionMgr::CompositeSubscriptionMgr(SimpleSubscriptionMgr* simpleSubscriptionMgr)
    : m_simpleSubscriptionMgr(simpleSubscriptionMgr)
{
}

CompositeSubscriptionMgr::~CompositeSubscriptionMgr()
{
    delete m_actionCenter;
}

bool CompositeSubscriptionMgr::Init(const std::shared_ptr<Config>& config, Queue* queue,
                                    std::shared_ptr<ICompositePriceFactory> factory)
{
    m_config = config;
    const std::shared_ptr<CompositeNode> general = FindSection(*config, "General");
    // The default read here is false although the member starts true: a configuration without the attribute switches
    // skipping off. That is meant.
    m_skipUnchangedSnapshots = general->GetAttrValue<bool>("SkipUnchangedSnapshots", false, nullptr);
    m_instrumentMonitoringInterval_sec =
        general->GetAttrValue<unsigned int>("InstrumentMonitoringInterval_sec", 0, nullptr);
    detail::LogManager(10,
                       [&](std::ostream& text)
                       {
                           text << "CompositeSubscriptionMgr::Init"
                                << " skipUnchangedSnapshots=" << (m_skipUnchangedSnapshots ? "true" : "false")
                                << " instrumentMonitoringInterval_sec=" << m_instrumentMonitoringInterval_sec;
                       });

    m_asyncDispatcher = std::make_shared<AsyncDispatcher>("CompositeSubscriptionMgr");
    m_dataQueue = queue;
    // A second Init leaves the first action center behind on purpose: requests posted through it may be under way.
    m_actionCenter = new ActionCenter<Queue, Task>(m_dataQueue, m_asyncDispatcher);
    m_priceFactory = std::move(factory);

    if (m_simpleSubscriptionMgr->GetProviderCount() > 1 && m_simpleSubscriptionMgr->HasProvider(ProviderType::Mds) &&
        m_monitorPendingSymbolsPeriod != 0)
    {
        // The action does nothing, on purpose: the pending check is driven from outside. It is a callable that does
        // nothing rather than an empty function, which would throw on the queue's thread at every tick.
        const auto task = std::make_shared<ChannelPeriodicTask<Queue, Task>>(
            "MonitorPendingSymbolsTask", m_asyncDispatcher, [] {}, m_dataQueue, m_monitorPendingSymbolsPeriod);
        m_periodicTasks[0] = task;
        task->Run(m_monitorPendingSymbolsPeriod);
    }

    RegisterGauges();
    return true;
}

bool CompositeSubscriptionMgr::UnitTestInit(const std::shared_ptr<Config>& config, Queue* queue,
                                            std::shared_ptr<ICompositePriceFactory> factory)
{
    m_monitorPendingSymbolsPeriod = 0;
    return Init(config, queue, std::move(factory));
}

void CompositeSubscriptionMgr::Start() {}

void CompositeSubscriptionMgr::Shutdown()
{
    for (std::shared_ptr<AsyncTask>& task : m_periodicTasks)
    {
        if (task != nullptr)
        {
            task->Cancel();
            task.reset();
        }
    }
    m_asyncDispatcher->Shutdown();
}

std::shared_ptr<ICompositePriceFactory> CompositeSubscriptionMgr::GetPriceFactory() const
{
    return m_priceFactory;
}

std::shared_ptr<TimerTask<CompositeSubscriptionMgr::Queue, Task>>
CompositeSubscriptionMgr::StartTimer(std::function<void()> action, long delay_ms, const std::string& name) const
{
    // The low 32 bits count: that is what a timer's interval has room for.
    const auto delay = static_cast<std::uint32_t>(delay_ms);
    auto task =
        std::make_shared<TimerTask<Queue, Task>>(name, m_asyncDispatcher, std::move(action), delay, m_dataQueue);
    task->Run(delay);
    return task;
}

void CompositeSubscriptionMgr::Post(std::function<void()> action) const
{
    m_actionCenter->ExecuteAction(std::move(action), "");
}

} // namespace ps_ns
