#include "broker/flow_history.h"

#include <algorithm>

namespace ps_ns::broker_soak
{
namespace
{

class Digest
{
public:
    void Add(std::uint64_t number) noexcept
    {
        constexpr std::uint64_t kPrime = 0x100000001b3;
        for (int shift = 0; shift < 64; shift += 8)
        {
            m_value = (m_value ^ ((number >> shift) & 0xff)) * kPrime;
        }
    }
    std::uint64_t Get() const noexcept { return m_value; }

private:
    std::uint64_t m_value = 0xcbf29ce484222325;
};

std::uint64_t GetDigest(const LevelBook& book)
{
    Digest digest;
    for (const BookSideType type : {BookSideType::Bid, BookSideType::Ask})
    {
        const LevelSide& side = book.GetSide(type);
        digest.Add(side.GetSize());
        for (std::size_t rank = 0; rank < side.GetSize(); ++rank)
        {
            digest.Add(static_cast<std::uint64_t>(side.Get(rank).price));
            digest.Add(static_cast<std::uint64_t>(side.Get(rank).quantity));
        }
    }
    return digest.Get();
}

std::uint64_t GetDigest(const MergedOrderBook& book)
{
    Digest digest;
    for (const auto* const side : {&book.bids, &book.asks})
    {
        digest.Add(side->count);
        for (std::uint32_t rank = 0; rank < side->count; ++rank)
        {
            digest.Add(static_cast<std::uint64_t>(side->GetLevels()[rank].price));
            digest.Add(static_cast<std::uint64_t>(side->GetLevels()[rank].directQuantity));
        }
    }
    return digest.Get();
}

} // namespace

void FlowHistory::Take(const MarketMessage& message)
{
    const std::lock_guard lock(m_mutex);
    LevelBook& book = m_books.at(message.instrument);
    book.Apply(message.changes, message.isImage);
    m_states[message.instrument].push_back({message.receiveTime_ns, GetDigest(book)});
}

std::optional<std::string> FlowHistory::FindFault(std::size_t instrument, const MergedOrderBook& shown) const
{
    if (!shown.missingComponents.empty())
    {
        return "a book that is not whole";
    }
    const std::lock_guard lock(m_mutex);
    const std::vector<State>& states = m_states.at(instrument);
    const auto found =
        std::lower_bound(states.begin(), states.end(), shown.receiveTime_ns,
                         [](const State& state, std::uint64_t time_ns) { return state.time_ns < time_ns; });
    if (found == states.end() || found->time_ns != shown.receiveTime_ns)
    {
        return "a book of a message that there never was";
    }
    return found->digest == GetDigest(shown) ? std::nullopt
                                             : std::optional<std::string>("a book that the publisher never had");
}

} // namespace ps_ns::broker_soak
