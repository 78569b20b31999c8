#include "counted_allocations.h"
#include "testing/manager_bench.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>

using namespace ps_ns;
using namespace ps_ns::testing;

namespace
{

/// Does nothing, so that what is allocated is not its doing.
class SilentObserver final : public IFlexiblePriceObserver
{
public:
    SilentObserver()
        : IFlexiblePriceObserver("silent")
    {
    }
    void OnSubscribe(unsigned long, const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long,
                     const PriceFormat&, CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
    }
    void OnChangeScope(unsigned long, const CompositeInstrumentDef&, Result) override {}
    void OnOrderBook(unsigned long, const CompositeInstrumentDef&,
                     const std::shared_ptr<const MergedOrderBook>&) override
    {
        ++books;
    }
    void OnTrades(unsigned long, const CompositeInstrumentDef&,
                  const std::shared_ptr<const std::vector<Trade>>&) override
    {
    }
    void OnCustomFields(unsigned long, const CompositeInstrumentDef&,
                        const std::shared_ptr<const CustomFields>&) override
    {
    }
    void OnUnsubscribe(unsigned long, const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

    std::uint64_t books = 0;
};

/// The least that an update allocates with so many clients: something grows now and then, or is made once.
std::uint64_t AllocationsOfAnUpdate(unsigned clients, unsigned interval_ms, std::uint64_t booksOfIt)
{
    ManagerBench bench;
    const CompositeInstrumentDef def = MakeDef("X");
    const auto observer = std::make_shared<SilentObserver>();
    for (unsigned long id = 1; id <= clients; ++id)
    {
        bench.manager->Subscribe(def, {5, interval_ms, false, false}, bench.factory, observer, id);
    }
    bench.Run();
    bench.zel->Answer("X");
    bench.zel->SendImage("X", {{BookSideType::Bid, "10", "1"}});
    bench.Run();
    std::uint64_t least = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t books = 0;
    for (const char* const quantity : {"2", "3", "4", "5"})
    {
        bench.zel->SendChange("X", {{BookSideType::Bid, "10", quantity}});
        const std::uint64_t booksBefore = observer->books;
        const std::uint64_t before = GetAllocations();
        bench.executors->RunAll();
        least = std::min(least, GetAllocations() - before);
        books = observer->books - booksBefore;
    }
    EXPECT_EQ(books, booksOfIt);
    return least;
}

} // namespace

TEST(DeliveryAllocations, OfAnUpdateAreAsManyForAHundredClientsAsForOne)
{
    EXPECT_EQ(AllocationsOfAnUpdate(100, 0, 100), AllocationsOfAnUpdate(1, 0, 1));
}

TEST(DeliveryAllocations, OfAnUpdateThatWaitsAreAsManyForAHundredClientsAsForOne)
{
    EXPECT_EQ(AllocationsOfAnUpdate(100, 1000, 0), AllocationsOfAnUpdate(1, 1000, 0));
}
