#pragma once

#include "broker/flow.h"
#include "composite_price/merged_order_book.h"
#include "mds/level_book.h"

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ps_ns::broker_soak
{

/// Every state that the books of a flow have been in, by the time that the flow gives each message: what a client may
/// be shown. A book that was never there, as one with a level of yesterday, is found at once and not at the end.
///
/// Threads: Take on the flow's thread; the rest on any.
class FlowHistory
{
public:
    explicit FlowHistory(std::size_t instruments)
        : m_books(instruments)
        , m_states(instruments)
    {
    }

    /// Before anybody else sees the message.
    void Take(const MarketMessage& message);

    /// What is wrong with a delivered book; nothing: it is the flow's book at that time, whole.
    std::optional<std::string> FindFault(std::size_t instrument, const MergedOrderBook& shown) const;

private:
    struct State
    {
        std::uint64_t time_ns;
        std::uint64_t digest;
    };

    mutable std::mutex m_mutex;
    std::vector<LevelBook> m_books;           ///< under m_mutex
    std::vector<std::vector<State>> m_states; ///< under m_mutex; by time
};

} // namespace ps_ns::broker_soak
