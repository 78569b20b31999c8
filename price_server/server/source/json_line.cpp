#include "server/json_line.h"

#include "composite_price/fixed_point.h"
#include "composite_price/merged_order_book.h"
#include "composite_price/trade.h"
#include "gateway/component_name.h"

#include <boost/json.hpp>

#include <algorithm>
#include <cstdint>

namespace ps_ns
{

namespace json = boost::json;

namespace
{

/// 0 stands for "not known".
json::value NumberOrNull(std::uint64_t number, const json::storage_ptr& memory)
{
    return number == 0 ? json::value(nullptr, memory) : json::value(std::to_string(number), memory);
}

json::array ToArray(const BookSide<MergedOrderBook::Level>& side, const json::storage_ptr& memory)
{
    json::array levels(memory);
    levels.reserve(side.count);
    for (const MergedOrderBook::Level& level : side.GetLevels())
    {
        json::object object(memory);
        object["price"] = FormatPrice(level.price);
        object["direct"] = FormatQuantity(level.directQuantity);
        object["implied"] = FormatQuantity(level.impliedQuantity);
        object["orders"] = level.orderCount == 0 ? json::value(nullptr) : json::value(level.orderCount);
        levels.push_back(std::move(object));
    }
    return levels;
}

/// Components by name, in the order of their numbers, which hash tables do not have.
template <class Has>
json::array ToNames(Has has, const json::storage_ptr& memory)
{
    json::array names(memory);
    for (const CompositeComponentType::Type type : kComponents)
    {
        if (has(type))
        {
            names.push_back(json::string(GetComponentName(type), memory));
        }
    }
    return names;
}

json::object ToObject(const Trade& trade, const json::storage_ptr& memory)
{
    json::object object(memory);
    object["price"] = FormatPrice(trade.price);
    object["quantity"] = FormatQuantity(trade.quantity);
    object["aggressor"] = trade.aggressor == Trade::Aggressor::Buyer    ? json::value("buyer")
                          : trade.aggressor == Trade::Aggressor::Seller ? json::value("seller")
                                                                        : json::value(nullptr);
    object["exchange_time_ns"] = NumberOrNull(trade.exchangeTime_ns, memory);
    object["receive_time_ns"] = NumberOrNull(trade.receiveTime_ns, memory);
    object["id"] = NumberOrNull(trade.venueId, memory);
    return object;
}

} // namespace

std::string MakeUtf8(std::string text)
{
    boost::system::error_code error;
    json::parse(json::serialize(json::string(text)), error); // the parser is strict
    if (error)
    {
        std::replace_if(
            text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; }, '?');
    }
    return text;
}

std::string FormatBookLine(const std::string& market, const std::string& symbol, const MergedOrderBook& book)
{
    json::monotonic_resource arena; // one line's objects, freed together
    const json::storage_ptr memory(&arena);
    json::object line(memory);
    line["type"] = "book";
    line["market"] = market;
    line["symbol"] = symbol;
    line["epoch"] = book.epoch;
    line["sequence"] = book.sequence;
    line["exchange_time_ns"] = NumberOrNull(book.exchangeTime_ns, memory);
    line["receive_time_ns"] = NumberOrNull(book.receiveTime_ns, memory);
    line["venue_sequence"] = NumberOrNull(book.venueSequence, memory);
    line["bids"] = ToArray(book.bids, memory);
    line["asks"] = ToArray(book.asks, memory);
    line["missing"] = ToNames([&](auto type) { return book.missingComponents.count(type) != 0; }, memory);
    line["stale"] = ToNames([&](auto type) { return book.staleComponents.count(type) != 0; }, memory);
    return json::serialize(line) + "\n";
}

std::string FormatTradesLine(const std::string& market, const std::string& symbol, const std::vector<Trade>& trades)
{
    json::monotonic_resource arena;
    const json::storage_ptr memory(&arena);
    json::object line(memory);
    line["type"] = "trades";
    line["market"] = market;
    line["symbol"] = symbol;
    json::array array(memory);
    for (const Trade& trade : trades)
    {
        array.push_back(ToObject(trade, memory));
    }
    line["trades"] = std::move(array);
    return json::serialize(line) + "\n";
}

} // namespace ps_ns
