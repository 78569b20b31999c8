#include "price_client/book.h"

#include "composite_price/fixed_point.h"
#include "gateway/component_name.h"
#include "price_client/client_error.h"

#include <algorithm>
#include <charconv>

namespace ps_ns::price_client
{

namespace json = boost::json;

namespace
{

[[noreturn]] void ThrowNonsense(std::string_view name)
{
    throw ClientError(ExitCode::Failure,
                      "the server sent an object whose \"" + std::string(name) + "\" is not as the protocol has it");
}

const json::array& ReadArray(const json::object& object, std::string_view name)
{
    const json::value* const value = object.if_contains(name);
    if (value == nullptr || !value->is_array())
    {
        ThrowNonsense(name);
    }
    return value->get_array();
}

template <class Parse>
std::int64_t ReadFixed(const json::value& value, std::string_view side, Parse parse)
{
    const auto units = value.is_string() ? parse(std::string_view(value.get_string())) : std::nullopt;
    return units ? *units : (ThrowNonsense(side), 0);
}

/// [price, direct quantity, implied quantity, number of orders or null]
MergedOrderBook::Level ReadLevel(const json::value& value, std::string_view side)
{
    if (!value.is_array() || value.get_array().size() < 4)
    {
        ThrowNonsense(side);
    }
    const json::array& level = value.get_array();
    boost::system::error_code error;
    const auto orders = level[3].is_null() ? 0 : level[3].to_number<std::uint32_t>(error);
    if (error)
    {
        ThrowNonsense(side);
    }
    return {ReadFixed(level[0], side, ParsePrice), ReadFixed(level[1], side, ParseQuantity),
            ReadFixed(level[2], side, ParseQuantity), orders};
}

template <class Side>
Side ReadSide(const json::object& message, std::string_view name)
{
    Side side;
    for (const json::value& value : ReadArray(message, name))
    {
        const MergedOrderBook::Level level = ReadLevel(value, name);
        side[level.price] = level;
    }
    return side;
}

/// False: it does not fit what there is.
template <class Side>
bool Change(Side& side, const json::object& message, std::string_view name)
{
    for (const json::value& value : ReadArray(message, name))
    {
        const MergedOrderBook::Level level = ReadLevel(value, name);
        if (level.directQuantity != 0 || level.impliedQuantity != 0)
        {
            side[level.price] = level;
        }
        else if (side.erase(level.price) == 0)
        {
            return false;
        }
    }
    return true;
}

template <class Side>
json::array ToArray(const Side& side)
{
    json::array levels;
    for (const auto& [price, level] : side)
    {
        levels.push_back(json::array{json::string(FormatPrice(price)),
                                     json::string(FormatQuantity(level.directQuantity)),
                                     json::string(FormatQuantity(level.impliedQuantity)),
                                     level.orderCount == 0 ? json::value(nullptr) : json::value(level.orderCount)});
    }
    return levels;
}

template <class Side>
void Fill(BookSide<MergedOrderBook::Level>& out, const Side& side)
{
    for (const auto& [price, level] : side)
    {
        out.GetStorage()[out.count++] = level;
    }
}

bool Names(const json::array& names, CompositeComponentType::Type type)
{
    return std::any_of(names.begin(), names.end(),
                       [&](const json::value& name)
                       { return name.is_string() && name.get_string() == GetComponentName(type); });
}

json::value GetOrNull(const json::object& message, std::string_view name)
{
    const json::value* const value = message.if_contains(name);
    return value == nullptr ? json::value(nullptr) : *value;
}

} // namespace

std::uint64_t ReadNumber(const json::object& object, std::string_view name)
{
    const json::value* const value = object.if_contains(name);
    std::uint64_t number = 0;
    if (value != nullptr && value->is_string())
    {
        const json::string& text = value->get_string();
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        return error == std::errc() && end == text.data() + text.size() ? number : (ThrowNonsense(name), 0);
    }
    boost::system::error_code error;
    number = value == nullptr ? 0 : value->to_number<std::uint64_t>(error);
    return value != nullptr && !error ? number : (ThrowNonsense(name), 0);
}

std::string ReadText(const json::object& object, std::string_view name)
{
    const json::value* const value = object.if_contains(name);
    if (value == nullptr || !value->is_string())
    {
        ThrowNonsense(name);
    }
    return std::string(value->get_string());
}

Book::Outcome Book::Apply(const json::object& message)
{
    if (ReadText(message, "type") == "update")
    {
        return ApplyUpdate(message);
    }
    ApplyImage(message);
    return Outcome::Applied;
}

void Book::Forget() noexcept
{
    m_state = State::Empty;
    m_bids.clear();
    m_asks.clear();
}

void Book::TakeHead(const json::object& message)
{
    m_epoch = ReadNumber(message, "epoch");
    m_sequence = ReadNumber(message, "sequence");
    m_exchangeTime = GetOrNull(message, "exchange_time_ns");
    m_receiveTime = GetOrNull(message, "receive_time_ns");
    for (const auto& [name, member] : {std::pair{"missing", &m_missing}, std::pair{"stale", &m_stale}})
    {
        if (message.contains(name)) // an update has them only when they have changed
        {
            *member = ReadArray(message, name);
        }
    }
}

void Book::ApplyImage(const json::object& message)
{
    Bids bids = ReadSide<Bids>(message, "bids");
    Asks asks = ReadSide<Asks>(message, "asks");
    m_depth = ReadNumber(message, "depth");
    TakeHead(message);
    m_bids = std::move(bids);
    m_asks = std::move(asks);
    m_state = State::Valid;
}

Book::Outcome Book::ApplyUpdate(const json::object& message)
{
    if (m_state == State::AwaitsImage)
    {
        return Outcome::Ignored;
    }
    const bool follows = m_state == State::Valid && ReadNumber(message, "epoch") == m_epoch &&
                         ReadNumber(message, "previous") == m_sequence;
    const bool fits = follows && Change(m_bids, message, "bids") && Change(m_asks, message, "asks") &&
                      m_bids.size() <= m_depth && m_asks.size() <= m_depth;
    if (!fits)
    {
        Forget();
        m_state = State::AwaitsImage;
        return Outcome::NeedsImage;
    }
    TakeHead(message);
    return Outcome::Applied;
}

std::shared_ptr<const MergedOrderBook> Book::MakeMergedBook() const
{
    if (!IsValid())
    {
        return nullptr;
    }
    const auto levels = static_cast<std::uint32_t>(std::max<std::size_t>({1, m_bids.size(), m_asks.size()}));
    auto book = std::make_shared<MergedOrderBook>(levels, levels);
    Fill(book->bids, m_bids);
    Fill(book->asks, m_asks);
    book->epoch = m_epoch;
    book->sequence = m_sequence;
    for (const CompositeComponentType::Type type : kComponents)
    {
        if (Names(m_missing, type))
        {
            book->missingComponents.insert(type);
        }
        if (Names(m_stale, type))
        {
            book->staleComponents.emplace(type, 0);
        }
    }
    return book;
}

std::string Book::FormatLine(const std::string& instrument) const
{
    return json::serialize(json::object{{"type", "book"},
                                        {"instrument", instrument},
                                        {"depth", m_depth},
                                        {"epoch", m_epoch},
                                        {"sequence", m_sequence},
                                        {"exchange_time_ns", m_exchangeTime},
                                        {"receive_time_ns", m_receiveTime},
                                        {"bids", ToArray(m_bids)},
                                        {"asks", ToArray(m_asks)},
                                        {"missing", m_missing},
                                        {"stale", m_stale}});
}

} // namespace ps_ns::price_client
