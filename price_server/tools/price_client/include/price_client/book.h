#pragma once

#include "composite_price/merged_order_book.h"

#include <boost/json.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns::price_client
{

/// One instrument's book, put together from images and updates by the rule of docs/protocol.md: an update applies when
/// its epoch and its previous sequence are those of the last object; otherwise an image is needed, and updates are
/// ignored until it comes. An update that leaves too many levels, or takes away one that is not there, needs an image
/// too.
///
/// Threads: one.
class Book
{
public:
    enum class Outcome
    {
        Applied,
        NeedsImage, ///< nothing was applied: ask for an image. Said once, until it has come
        Ignored     ///< waits for the image
    };

    /// An object of type "image" or "update". Throws ClientError when it is not as the protocol has it.
    Outcome Apply(const boost::json::object& message);
    /// A new session: nothing applies any more but an image.
    void Forget() noexcept;

    bool IsValid() const noexcept { return m_state == State::Valid; }
    std::uint64_t GetEpoch() const noexcept { return m_epoch; }
    std::uint64_t GetSequence() const noexcept { return m_sequence; }

    /// For the ladder. Null: there is no book.
    std::shared_ptr<const MergedOrderBook> MakeMergedBook() const;
    /// The whole book: {"type":"book", "instrument", "depth", "epoch", "sequence", "exchange_time_ns",
    /// "receive_time_ns", "bids", "asks", "missing", "stale"}, levels as in an image. No line break.
    std::string FormatLine(const std::string& instrument) const;

private:
    using Level = MergedOrderBook::Level;
    using Bids = std::map<std::int64_t, Level, std::greater<>>;
    using Asks = std::map<std::int64_t, Level>;
    enum class State
    {
        Empty, ///< an image comes by itself
        Valid,
        AwaitsImage
    };

    void ApplyImage(const boost::json::object& message);
    Outcome ApplyUpdate(const boost::json::object& message);
    void TakeHead(const boost::json::object& message);

    State m_state = State::Empty;
    std::uint64_t m_epoch = 0;
    std::uint64_t m_sequence = 0;
    std::uint64_t m_depth = 0;
    boost::json::value m_exchangeTime;
    boost::json::value m_receiveTime;
    boost::json::array m_missing;
    boost::json::array m_stale;
    Bids m_bids;
    Asks m_asks;
};

/// A whole number that JSON may have as a number or, beyond 53 bits, as a text. Throws ClientError.
std::uint64_t ReadNumber(const boost::json::object& object, std::string_view name);
/// Throws ClientError.
std::string ReadText(const boost::json::object& object, std::string_view name);

} // namespace ps_ns::price_client
