#include "clocks.h"
#include "comparison.h"
#include "composite_price/default_composite_price_factory.h"
#include "config/config.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "price_unifier/source/price_delivery.h"
#include "quiet_observers.h"
#include "sample_books.h"
#include "sample_def.h"
#include "simple_subscription/simple_subscription_mgr.h"
#include "testing/hand_driven_executors.h"
#include "testing/hand_driven_queue.h"

#include <memory>
#include <vector>

namespace compare
{
namespace
{

using ps_ns::MergedOrderBook;
using ps_ns::PriceDelivery;

constexpr int kUpdates = 2000;

/// A manager for the delivery to note its callbacks' times with.
struct Manager
{
    Manager()
        : simple(ps_ns::MarketTable({{1, "ONE", 5, 20, 0}}), std::make_shared<ps_ns::testing::HandDrivenExecutors>(),
                 std::make_shared<ps_ns::AsyncDispatcher>("compare"))
        , manager(&simple)
    {
        manager.UnitTestInit(ps_ns::Config::LoadText("<PriceServer/>", "compare"), &queue.Get(),
                             std::make_shared<ps_ns::DefaultCompositePriceFactory>());
    }
    ps_ns::testing::HandDrivenQueue queue;
    ps_ns::SimpleSubscriptionMgr simple;
    ps_ns::CompositeSubscriptionMgr manager;
};

using Observers = std::vector<std::shared_ptr<ps_ns::IFlexiblePriceObserver>>;

Observers MakeObservers(std::size_t count, bool areMixed)
{
    Observers observers;
    for (std::size_t i = 0; i < count; ++i)
    {
        observers.push_back(MakeQuietFlexibleObserver(areMixed ? static_cast<int>(i * 7 % 4) : 0));
    }
    return observers;
}

/// Two images that take turns: each replaces the whole book, as many levels as clients ask for.
struct Images
{
    const ps_ns::BookUpdate even = MakeImage(0, 0);
    const ps_ns::BookUpdate odd = MakeImage(0, 1);
    const ps_ns::BookUpdate& Get(int update) const { return update % 2 == 0 ? even : odd; }
};

constexpr ps_ns::CompositeSubscriptionInfo kScope{10, 0, false, false};

/// What the composite subscription is to its delivery: one component, which has answered.
class Host final : public ps_ns::DeliveryHost
{
public:
    explicit Host(ps_ns::CompositeSubscriptionMgr& manager)
        : DeliveryHost(MakeSampleDef(1), std::make_shared<QuietObserver>(), &manager, kScope, {true, 20, 0, 0})
    {
        m_components.Get(ps_ns::CompositeComponentType::Direct).isAnswered = true;
    }
    std::shared_ptr<ps_ns::AsyncTask> MakeTimer(const char*, std::function<void()>) override { return nullptr; }
    Clock::time_point Now() const override { return Clock::now(); }
    void OnStaleChanged(bool) override {}
};

/// The project's delivery, from an update of one component to the last observer.
class OurDelivery
{
public:
    explicit OurDelivery(const Observers& observers)
        : m_host(m_manager.manager)
        , m_delivery(m_host)
    {
        unsigned long id = 0;
        for (const auto& observer : observers)
        {
            const auto client = std::make_shared<ps_ns::ClientScope>(++id, observer, kScope);
            m_delivery.AddClient(client);
            m_delivery.ActivateClient(*client, true);
        }
    }

    double Update_ns()
    {
        return MeasureCpu_ns(
                   [&]
                   {
                       for (int update = 0; update < kUpdates; ++update)
                       {
                           m_delivery.OnBook(ps_ns::CompositeComponentType::Direct, m_images.Get(update));
                       }
                   }) /
               kUpdates;
    }

private:
    Manager m_manager;
    const Images m_images;
    Host m_host;
    PriceDelivery m_delivery;
};

/// What an update costs before anybody hears of it: the book is merged into an object of its own.
class Update
{
public:
    std::shared_ptr<const MergedOrderBook> Make(int update)
    {
        m_merger.Apply(ps_ns::CompositeComponentType::Direct, m_images.Get(update));
        auto book = std::make_shared<MergedOrderBook>(kLevels, kLevels);
        m_merger.Merge(*book);
        return book;
    }

private:
    const Images m_images;
    ps_ns::BookMerger m_merger;
};

/// The floors: the same update, and then nothing but a loop of calls.
template <class Deliver>
double FloorUpdate_ns(const Observers& observers, Deliver deliver)
{
    Update updates;
    const ps_ns::CompositeInstrumentDef def = MakeSampleDef(1);
    return MeasureCpu_ns(
               [&]
               {
                   for (int update = 0; update < kUpdates; ++update)
                   {
                       const std::shared_ptr<const MergedOrderBook> book = updates.Make(update);
                       unsigned long id = 0;
                       for (const auto& observer : observers)
                       {
                           deliver(*observer, ++id, def, book);
                       }
                   }
               }) /
           kUpdates;
}

/// `measure(observers)`: nanoseconds of an update.
template <class Measure>
Alternative DeliverTo(const std::string& name, std::size_t count, bool areMixed, Measure measure)
{
    return {name, [=]
            {
                const double all_ns = measure(MakeObservers(count, areMixed));
                const double alone_ns = measure(Observers());
                return Figures{{"an update to all, ns", all_ns},
                               {"an observer more, ns", (all_ns - alone_ns) / static_cast<double>(count)}};
            }};
}

} // namespace

void CompareDelivery(Runner& runner)
{
    using Observer = ps_ns::IFlexiblePriceObserver;
    using Def = ps_ns::CompositeInstrumentDef;
    using Book = std::shared_ptr<const MergedOrderBook>;
    const auto ours = [](const Observers& observers) { return OurDelivery(observers).Update_ns(); };
    const auto byReference = [](const Observers& observers)
    {
        return FloorUpdate_ns(observers, [](Observer& observer, unsigned long id, const Def& def, const Book& book)
                              { observer.OnOrderBook(id, def, book); });
    };
    const auto byPointerCopy = [](const Observers& observers)
    {
        return FloorUpdate_ns(observers,
                              [](Observer& observer, unsigned long id, const Def& def, const Book& book)
                              {
                                  const Book copy = book;
                                  observer.OnOrderBook(id, def, copy);
                              });
    };
    const auto byBookCopy = [](const Observers& observers)
    {
        return FloorUpdate_ns(observers, [](Observer& observer, unsigned long id, const Def& def, const Book& book)
                              { observer.OnOrderBook(id, def, book->Cut(kLevels)); });
    };
    for (const bool areMixed : {false, true})
    {
        for (const std::size_t count : {std::size_t{1}, std::size_t{10}, std::size_t{100}, std::size_t{1000}})
        {
            runner.Run({"delivery",
                        "to " + std::to_string(count) + (areMixed ? " observers of four classes" : " observers"),
                        {DeliverTo("PriceDelivery", count, areMixed, ours),
                         DeliverTo("floor: virtual calls", count, areMixed, byReference),
                         DeliverTo("a shared_ptr copy each", count, areMixed, byPointerCopy),
                         DeliverTo("a book copy each", count, areMixed, byBookCopy)}});
        }
    }
}

} // namespace compare
