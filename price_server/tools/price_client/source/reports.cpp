#include "price_client/reports.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <vector>

namespace ps_ns::price_client
{

namespace json = boost::json;

namespace
{

constexpr std::uint64_t kNanosPerSecond = 1'000'000'000;
constexpr std::size_t kLabelWidth = 14;

/// Safe for a terminal.
std::string MakePrintable(std::string_view text)
{
    std::string printable(text);
    std::replace_if(
        printable.begin(), printable.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; },
        '?');
    return printable;
}

const json::value& Find(const json::object& object, std::string_view name)
{
    static const json::value kNull;
    const json::value* const value = object.if_contains(name);
    return value == nullptr ? kNull : *value;
}

/// A text, a number, true or false.
std::string Show(const json::object& object, std::string_view name)
{
    const json::value& value = Find(object, name);
    if (value.is_null())
    {
        return "?";
    }
    if (value.is_string())
    {
        return MakePrintable(value.get_string());
    }
    const double* const number = value.if_double();
    if (number != nullptr && *number > -1e15 && *number < 1e15 &&
        *number == static_cast<double>(static_cast<std::int64_t>(*number)))
    {
        return std::to_string(static_cast<std::int64_t>(*number));
    }
    return MakePrintable(json::serialize(value));
}

bool Is(const json::object& object, std::string_view name)
{
    const json::value& value = Find(object, name);
    return value.is_bool() && value.get_bool();
}

const json::object& GetObject(const json::value& value)
{
    static const json::object kEmpty;
    return value.is_object() ? value.get_object() : kEmpty;
}

const json::array& GetArray(const json::object& object, std::string_view name)
{
    static const json::array kEmpty;
    const json::value& value = Find(object, name);
    return value.is_array() ? value.get_array() : kEmpty;
}

std::uint64_t GetTime(const json::object& object, std::string_view name)
{
    const json::value& value = Find(object, name);
    std::uint64_t time_ns = 0;
    if (value.is_string())
    {
        const json::string& text = value.get_string();
        std::from_chars(text.data(), text.data() + text.size(), time_ns);
    }
    return time_ns;
}

std::string Line(const std::string& indent, const std::string& label, const std::string& text)
{
    const std::size_t width = indent.size() + label.size();
    return indent + label + std::string(width < kLabelWidth + 2 ? kLabelWidth + 2 - width : 1, ' ') + text + "\n";
}

std::string FormatDuration(std::uint64_t seconds)
{
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%llu d %02u:%02u:%02u", static_cast<unsigned long long>(seconds / 86400),
                  static_cast<unsigned>(seconds / 3600 % 24), static_cast<unsigned>(seconds / 60 % 60),
                  static_cast<unsigned>(seconds % 60));
    return text.data();
}

std::string FormatScope(const json::object& scope)
{
    const std::string interval = Show(scope, "interval_ms");
    return "depth " + Show(scope, "depth") + ", " +
           (interval == "0" ? std::string("every change") : "at most one book in " + interval + " ms") +
           (Is(scope, "trades") ? ", trades" : "") + (Is(scope, "fields") ? ", fields" : "");
}

std::string FormatComponents(const json::object& instrument)
{
    const bool hasDirect = Is(instrument, "direct");
    const bool hasImplied = Is(instrument, "implied");
    return hasDirect && hasImplied ? "direct, implied" : hasDirect ? "direct" : hasImplied ? "implied" : "none";
}

std::string FormatComponent(const json::object& component)
{
    const json::object& result = GetObject(Find(component, "result"));
    return Show(component, "symbol") + " at " + Show(component, "provider") +
           (Is(component, "is_final") ? " (final), " : " (not final yet), ") +
           (Is(component, "is_subscribed") ? "subscribed: " : "not subscribed: ") + Show(result, "code") + " " +
           Show(result, "name") + ", " + Show(result, "meaning");
}

std::string FormatSubscription(const json::object& subscription)
{
    std::string text = "\n" + Line("", "subscription", Show(subscription, "instrument"));
    text += Line("  ", "symbol", Show(subscription, "symbol"));
    text += Line("  ", "state", Show(subscription, "state"));
    text += Line("  ", "provider", Show(subscription, "provider"));
    for (const json::value& value : GetArray(subscription, "components"))
    {
        const json::object& component = GetObject(value);
        text += Line("  ", Show(component, "component"), FormatComponent(component));
    }
    text += Line("  ", "merged scope", FormatScope(GetObject(Find(subscription, "merged_scope"))));
    const json::array& holders = GetArray(subscription, "holders");
    text += Line("  ", "holders", std::to_string(holders.size()));
    for (const json::value& value : holders)
    {
        const json::object& holder = GetObject(value);
        text += Line("    ", Show(holder, "id"),
                     Show(holder, "holder") + ": " + FormatScope(GetObject(Find(holder, "scope"))));
    }
    const std::uint64_t time_ns = GetTime(subscription, "last_update_ns");
    text += Line("  ", "delivered", Show(subscription, "callbacks"));
    return text + Line("  ", "last update", time_ns == 0 ? "none yet" : FormatTime(time_ns));
}

std::string FormatShardServer(const json::object& shard)
{
    const json::object& server = GetObject(Find(shard, "served_by"));
    if (server.empty())
    {
        return ", served by nobody just now";
    }
    return Is(shard, "is_here") ? ", served here"
                                : ", served by " + Show(server, "server") + " at " + Show(server, "address");
}

using Row = std::vector<std::string>;

std::string FormatTable(const std::vector<Row>& rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const Row& row : rows)
    {
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::string text;
    for (const Row& row : rows)
    {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            line += row[i] + std::string(widths[i] - row[i].size() + 2, ' ');
        }
        text += line.erase(line.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

} // namespace

std::string FormatTime(std::uint64_t time_ns)
{
    const auto seconds = static_cast<std::time_t>(time_ns / kNanosPerSecond);
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 32> date{};
    std::strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &parts);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%s.%09llu UTC", date.data(),
                  static_cast<unsigned long long>(time_ns % kNanosPerSecond));
    return text.data();
}

std::string FormatStatus(const json::object& status)
{
    const std::uint64_t started_ns = GetTime(status, "started_ns");
    const std::uint64_t now_ns = GetTime(status, "time_ns");
    std::string text =
        Line("", "server", Show(status, "server") + " " + Show(status, "version") + " (" + Show(status, "build") + ")");
    text += Line("", "ready", Is(status, "ready") ? "yes" : "no");
    text += Line("", "started", started_ns == 0 ? "?" : FormatTime(started_ns));
    text += Line("", "up", now_ns < started_ns ? "?" : FormatDuration((now_ns - started_ns) / kNanosPerSecond));
    text += Line("", "sessions", Show(status, "sessions") + " now, " + Show(status, "sessions_ever") + " ever");
    text += Line("", "instruments", Show(status, "instruments"));
    for (const json::value& value : GetArray(status, "markets"))
    {
        const json::object& market = GetObject(value);
        text += Line("", "market " + Show(market, "id"),
                     Show(market, "name") + ", depth " + Show(market, "default_depth") + ", at most " +
                         Show(market, "max_depth"));
    }
    const json::object& gauges = GetObject(Find(status, "gauges"));
    text += gauges.empty() ? "" : "\n";
    std::vector<Row> rows;
    for (const auto& gauge : gauges)
    {
        rows.push_back({MakePrintable(gauge.key()), Show(gauges, gauge.key())});
    }
    std::sort(rows.begin(), rows.end());
    return rows.empty() ? text : text + FormatTable(rows);
}

std::string FormatExplanation(const json::object& explanation)
{
    const json::object& identity = GetObject(Find(explanation, "identity"));
    std::string text = Line("", "instrument", Show(explanation, "instrument"));
    text += Line("", "exchange", Show(explanation, "exchange"));
    text += Line("", "identity",
                 "instrument " + Show(identity, "instrument_id") + ", market " + Show(identity, "market_id") +
                     ", submarket " + Show(identity, "submarket_id"));
    text += Line("", "components", FormatComponents(explanation));
    if (const json::object& shard = GetObject(Find(explanation, "shard")); !shard.empty())
    {
        text += Line("", "shard", Show(shard, "number") + FormatShardServer(shard));
    }
    const json::array& subscriptions = GetArray(explanation, "subscriptions");
    if (subscriptions.empty())
    {
        return text + "\nnot subscribed: nobody asks for it now\n";
    }
    for (const json::value& subscription : subscriptions)
    {
        text += FormatSubscription(GetObject(subscription));
    }
    return text;
}

std::string FormatInstruments(const json::array& instruments)
{
    std::vector<Row> rows{{"INSTRUMENT", "EXCHANGE", "COMPONENTS", "DESCRIPTION"}};
    for (const json::value& value : instruments)
    {
        const json::object& instrument = GetObject(value);
        rows.push_back({Show(instrument, "instrument"), Show(instrument, "exchange"), FormatComponents(instrument),
                        Show(instrument, "description")});
    }
    return FormatTable(rows);
}

std::string FormatNames(const json::array& instruments)
{
    std::string text;
    for (const json::value& value : instruments)
    {
        text += Show(GetObject(value), "instrument") + "\n";
    }
    return text;
}

std::string FormatLines(const json::array& objects)
{
    std::string text;
    for (const json::value& value : objects)
    {
        text += json::serialize(value) + "\n";
    }
    return text;
}

} // namespace ps_ns::price_client
