#pragma once

#include "broker/flow.h"
#include "composite_instrument/composite_instrument_def.h"
#include "composite_instrument/i_flexible_price_observer.h"
#include "composite_price/merged_order_book.h"
#include "mds/level_book.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace ps_ns::broker_soak
{

/// A client of one instrument: keeps the newest book, and counts what must not be.
///
/// Threads: any.
class BookClient final : public IFlexiblePriceObserver
{
public:
    BookClient()
        : IFlexiblePriceObserver("broker_soak")
    {
    }

    /// Shows the same levels.
    bool Shows(const LevelBook& book) const;
    /// For messages of a failure.
    std::string Describe(const LevelBook& book) const;
    std::uint64_t GetBookCount() const noexcept { return m_books.load(); }
    /// The newest book says that it may be out of date.
    bool IsStale() const;
    /// Books that went back in epoch or sequence.
    std::uint64_t GetFaults() const noexcept { return m_faults.load(); }
    /// Called with each book, one at a time; set before it subscribes. May be empty.
    std::function<void(const MergedOrderBook&)> onBook;
    /// Failed answers.
    std::uint64_t GetFailures() const noexcept { return m_failures.load(); }

    void OnSubscribe(unsigned long, const CompositeInstrumentDef&, const EventInfo&, Result result, unsigned long,
                     const PriceFormat&, CompositeComponentType::Type, const CompositeSubscriptionState&) override;
    void OnChangeScope(unsigned long, const CompositeInstrumentDef&, Result) override { m_failures.fetch_add(1); }
    void OnOrderBook(unsigned long, const CompositeInstrumentDef&,
                     const std::shared_ptr<const MergedOrderBook>& book) override;
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
        m_failures.fetch_add(1);
    }

private:
    mutable std::mutex m_mutex;
    std::shared_ptr<const MergedOrderBook> m_book; ///< under m_mutex
    std::atomic<std::uint64_t> m_books{0};
    std::atomic<std::uint64_t> m_faults{0};
    std::atomic<std::uint64_t> m_failures{0};
};

/// An instrument of the flow that wants its direct component only.
CompositeInstrumentDef MakeFlowDefinition(std::size_t instrument);
/// Everything, unconflated.
CompositeSubscriptionInfo MakeWholeScope();

} // namespace ps_ns::broker_soak
