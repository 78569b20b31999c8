#pragma once

#include "composite_price/custom_fields.h"
#include "composite_price/merged_order_book.h"
#include "composite_price/trade.h"
#include "shared_text.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns::gateway
{

using SharedBook = std::shared_ptr<const MergedOrderBook>;

/// Books that came one after another for the same subscriptions.
struct BookRun
{
    std::vector<SharedBook> books; ///< at least one
    bool isOneAfterAnother = true; ///< in one epoch, each with a larger sequence
    std::uint32_t levels = 0;      ///< of the larger side of any of them

    void Begin(const SharedBook& book);
    void Add(const SharedBook& book);
};

/// Messages as lines, without an end of the last one.
struct Lines
{
    SharedText text;
    std::uint64_t count = 0;
};

/// The books of one instrument at one depth as messages: each is written once, however many sessions get it. What has
/// changed since a book is written once for all sessions that had that book before.
///
/// Threads: the gateway's I/O thread. Shared by the subscriptions with this instrument and depth.
class BookStream
{
public:
    BookStream(std::string instrument, std::int32_t depth)
        : m_instrument(std::move(instrument))
        , m_depth(depth)
    {
    }

    /// What takes a client from `previous` (null: it has none) to `book`: an update, or an image when there is none to
    /// go on from, or a new epoch begins.
    /// It stays until the next call.
    const SharedText& GetMessage(const SharedBook& previous, const SharedBook& book);

    /// Updates that take a client from `previous` through all books of a run, which go on from it. They stay until the
    /// next call.
    const Lines& GetUpdates(const SharedBook& previous, const BookRun& run);

    const std::string& GetInstrument() const noexcept { return m_instrument; }
    std::int32_t GetDepth() const noexcept { return m_depth; }

private:
    const std::string m_instrument;
    const std::int32_t m_depth;

    /// The messages about the newest book; older ones are made again, which happens to the slow only.
    SharedBook m_book;
    SharedText m_image;
    std::vector<std::pair<SharedBook, SharedText>> m_updates; ///< by the book before
    /// The updates of the run that was asked for last.
    SharedBook m_runPrevious;
    SharedBook m_runFirst;
    SharedBook m_runLast;
    Lines m_run;
};

/// Writes messages of the protocol. docs/protocol.md says what is in them.
std::string FormatImage(const std::string& instrument, std::int32_t depth, const MergedOrderBook& book);
std::string FormatUpdate(const std::string& instrument, std::int32_t depth, const MergedOrderBook& previous,
                         const MergedOrderBook& book);
std::string FormatTrades(const std::string& instrument, const std::vector<Trade>& trades);
std::string FormatFields(const std::string& instrument, const CustomFields& fields);

} // namespace ps_ns::gateway
