#pragma once

#include <memory>
#include <string>
#include <vector>

namespace ps_ns
{

class MergedOrderBook;
class Trade;

/// The text when it is UTF-8; otherwise with '?' for what is not ASCII: a feed may call an instrument anything.
std::string MakeUtf8(std::string text);

/// How updates are written for programs: one JSON object a line, with its line break. Names are given in
/// UTF-8.
///
/// Prices and quantities are decimal strings, exactly as the book has them. Times are nanoseconds since 1970 UTC; they
/// and the venue's own numbers are strings too, since a JSON number keeps only 53 bits in many readers. What is not
/// known is null.
///
/// A book: {"type":"book", "market", "symbol", "epoch", "sequence", "exchange_time_ns", "receive_time_ns",
/// "venue_sequence", "bids", "asks", "missing", "stale"}. A level: {"price", "direct", "implied", "orders"}, best level
/// first; "direct" and "implied" are quantities. "missing" and "stale" name components: "direct", "implied",
/// "aggregated".
std::string FormatBookLine(const std::string& market, const std::string& symbol, const MergedOrderBook& book);

/// {"type":"trades", "market", "symbol", "trades"}, a trade being {"price", "quantity", "aggressor",
/// "exchange_time_ns", "receive_time_ns", "id"}, in the venue's order. "aggressor" is "buyer", "seller" or null.
std::string FormatTradesLine(const std::string& market, const std::string& symbol, const std::vector<Trade>& trades);

} // namespace ps_ns
