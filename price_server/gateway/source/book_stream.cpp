#include "book_stream.h"

#include "outbound_queue.h"

#include "composite_price/fixed_point.h"
#include "composite_price/price.h"
#include "gateway/component_name.h"

#include <boost/json.hpp>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>

namespace ps_ns::gateway
{

namespace json = boost::json;

namespace
{

using Level = MergedOrderBook::Level;
using Side = BookSide<Level>;

/// Appends to one text: a book is written millions of times, and a tree of JSON values costs ten times as much. Only
/// texts of our own and numbers go through here; names of clients and venues are escaped by the library.
class Writer
{
public:
    explicit Writer(const char* type, const std::string& instrument)
    {
        constexpr std::size_t kUsualSize = 1024;
        m_text.reserve(kUsualSize);
        m_text.append("{\"type\":\"").append(type).append("\",\"instrument\":");
        m_text.append(json::serialize(json::string(instrument)));
    }
    Writer& Number(const char* name, std::uint64_t number)
    {
        Name(name).append(std::to_string(number));
        return *this;
    }
    Writer& Time(const char* name, std::uint64_t time_ns)
    {
        if (time_ns == 0)
        {
            Name(name).append("null");
        }
        else
        {
            Name(name).append(1, '"').append(std::to_string(time_ns)).append(1, '"');
        }
        return *this;
    }
    std::string& Name(const char* name) { return m_text.append(",\"").append(name).append("\":"); }
    void AppendLevel(const Level& level, bool& isFirst)
    {
        m_text.append(std::exchange(isFirst, false) ? "[\"" : ",[\"").append(FormatPrice(level.price));
        m_text.append("\",\"").append(FormatQuantity(level.directQuantity));
        m_text.append("\",\"").append(FormatQuantity(level.impliedQuantity));
        m_text.append("\",").append(level.orderCount == 0 ? "null" : std::to_string(level.orderCount)).append(1, ']');
    }
    template <class Has>
    void Components(const char* name, Has has)
    {
        Name(name).append(1, '[');
        bool isFirst = true;
        for (const auto type : kComponents)
        {
            if (has(type))
            {
                m_text.append(std::exchange(isFirst, false) ? "\"" : ",\"")
                    .append(GetComponentName(type))
                    .append(1, '"');
            }
        }
        m_text.append(1, ']');
    }
    std::string& Text() noexcept { return m_text; }
    std::string Finish()
    {
        m_text.append(1, '}');
        if (m_text.size() >= OutboundBatch::kShareFrom_bytes)
        {
            m_text.shrink_to_fit(); // it may wait in many queues
        }
        return std::move(m_text);
    }

private:
    std::string m_text;
};

void WriteHead(Writer& writer, std::int32_t depth, const MergedOrderBook& book, const MergedOrderBook* previous)
{
    writer.Number("depth", static_cast<std::uint64_t>(depth)).Number("epoch", book.epoch);
    if (previous != nullptr)
    {
        writer.Number("previous", previous->sequence);
    }
    writer.Number("sequence", book.sequence)
        .Time("exchange_time_ns", book.exchangeTime_ns)
        .Time("receive_time_ns", book.receiveTime_ns);
}

void WriteSide(Writer& writer, const char* name, const Side& side)
{
    writer.Name(name).append(1, '[');
    bool isFirst = true;
    for (const Level& level : side.GetLevels())
    {
        writer.AppendLevel(level, isFirst);
    }
    writer.Text().append(1, ']');
}

/// Both sides are sorted, best first: one walk finds what is new, what differs and what is gone.
template <class IsBetter>
void WriteChanges(Writer& writer, const char* name, const Side& before, const Side& after, IsBetter isBetter)
{
    writer.Name(name).append(1, '[');
    bool isFirst = true;
    const auto old = before.GetLevels();
    const auto now = after.GetLevels();
    auto o = old.begin();
    auto n = now.begin();
    while (o != old.end() || n != now.end())
    {
        if (n == now.end() || (o != old.end() && isBetter(o->price, n->price)))
        {
            writer.AppendLevel(Level{o->price, 0, 0, 0}, isFirst);
            ++o;
        }
        else if (o == old.end() || isBetter(n->price, o->price))
        {
            writer.AppendLevel(*n, isFirst);
            ++n;
        }
        else
        {
            if (!(*o == *n))
            {
                writer.AppendLevel(*n, isFirst);
            }
            ++o;
            ++n;
        }
    }
    writer.Text().append(1, ']');
}

void WriteComponents(Writer& writer, const MergedOrderBook& book)
{
    writer.Components("missing", [&](auto type) { return book.missingComponents.count(type) != 0; });
    writer.Components("stale", [&](auto type) { return book.staleComponents.count(type) != 0; });
}

json::value NumberOrNull(std::uint64_t number)
{
    return number == 0 ? json::value(nullptr) : json::value(std::to_string(number));
}

json::value ToValue(double value)
{
    const bool isThere = std::isfinite(value) && value != sbe_common_ns::kNullPrice;
    return isThere ? json::value(value) : json::value(nullptr);
}

json::value ToValue(unsigned long time_ns)
{
    return NumberOrNull(time_ns);
}

template <class Map>
json::object ToObject(const Map& map)
{
    json::object object;
    for (const auto& [id, value] : map)
    {
        object[std::to_string(static_cast<int>(id))] = ToValue(value);
    }
    return object;
}

} // namespace

void BookRun::Begin(const SharedBook& book)
{
    books.clear();
    isOneAfterAnother = true;
    levels = 0;
    Add(book);
}

void BookRun::Add(const SharedBook& book)
{
    isOneAfterAnother =
        isOneAfterAnother &&
        (books.empty() || (books.back()->epoch == book->epoch && books.back()->sequence < book->sequence));
    levels = std::max(levels, std::max(book->bids.count, book->asks.count));
    books.push_back(book);
}

const Lines& BookStream::GetUpdates(const SharedBook& previous, const BookRun& run)
{
    if (m_runPrevious == previous && m_runFirst == run.books.front() && m_runLast == run.books.back())
    {
        return m_run;
    }
    m_runPrevious.reset(); // should writing fail, this is nobody's
    std::string text;
    const MergedOrderBook* before = previous.get();
    for (const SharedBook& book : run.books)
    {
        const std::string update = FormatUpdate(m_instrument, m_depth, *before, *book);
        if (text.empty())
        {
            constexpr std::size_t kMore = 32; // of a longer one
            text.reserve(std::min((update.size() + kMore) * run.books.size(), OutboundQueue::kWriteBytes));
        }
        text.append(text.empty() ? "" : "\n").append(update);
        before = book.get();
    }
    text.shrink_to_fit();
    m_run = {std::make_shared<const std::string>(std::move(text)), run.books.size()};
    m_runPrevious = previous;
    m_runFirst = run.books.front();
    m_runLast = run.books.back();
    return m_run;
}

const SharedText& BookStream::GetMessage(const SharedBook& previous, const SharedBook& book)
{
    if (m_book != book)
    {
        m_book = book;
        m_image.reset();
        m_updates.clear();
    }
    if (previous == nullptr || previous->epoch != book->epoch || previous->sequence >= book->sequence)
    {
        if (m_image == nullptr)
        {
            m_image = std::make_shared<const std::string>(FormatImage(m_instrument, m_depth, *book));
        }
        return m_image;
    }
    const auto known =
        std::find_if(m_updates.begin(), m_updates.end(), [&](const auto& update) { return update.first == previous; });
    if (known != m_updates.end())
    {
        return known->second;
    }
    m_updates.emplace_back(previous,
                           std::make_shared<const std::string>(FormatUpdate(m_instrument, m_depth, *previous, *book)));
    return m_updates.back().second;
}

std::string FormatImage(const std::string& instrument, std::int32_t depth, const MergedOrderBook& book)
{
    Writer writer("image", instrument);
    WriteHead(writer, depth, book, nullptr);
    WriteSide(writer, "bids", book.bids);
    WriteSide(writer, "asks", book.asks);
    WriteComponents(writer, book);
    return writer.Finish();
}

std::string FormatUpdate(const std::string& instrument, std::int32_t depth, const MergedOrderBook& previous,
                         const MergedOrderBook& book)
{
    Writer writer("update", instrument);
    WriteHead(writer, depth, book, &previous);
    WriteChanges(writer, "bids", previous.bids, book.bids, std::greater<>());
    WriteChanges(writer, "asks", previous.asks, book.asks, std::less<>());
    if (previous.missingComponents != book.missingComponents || previous.staleComponents != book.staleComponents)
    {
        WriteComponents(writer, book);
    }
    return writer.Finish();
}

std::string FormatTrades(const std::string& instrument, const std::vector<Trade>& trades)
{
    json::array array;
    for (const Trade& trade : trades)
    {
        array.push_back(
            json::object{{"price", FormatPrice(trade.price)},
                         {"quantity", FormatQuantity(trade.quantity)},
                         {"aggressor", trade.aggressor == Trade::Aggressor::Buyer    ? json::value("buyer")
                                       : trade.aggressor == Trade::Aggressor::Seller ? json::value("seller")
                                                                                     : json::value(nullptr)},
                         {"exchange_time_ns", NumberOrNull(trade.exchangeTime_ns)},
                         {"receive_time_ns", NumberOrNull(trade.receiveTime_ns)},
                         {"id", NumberOrNull(trade.venueId)}});
    }
    return json::serialize(json::object{{"type", "trades"}, {"instrument", instrument}, {"trades", std::move(array)}});
}

std::string FormatFields(const std::string& instrument, const CustomFields& fields)
{
    return json::serialize(json::object{{"type", "fields"},
                                        {"instrument", instrument},
                                        {"prices", ToObject(fields.prices)},
                                        {"quantities", ToObject(fields.quantities)},
                                        {"times", ToObject(fields.times)}});
}

} // namespace ps_ns::gateway
