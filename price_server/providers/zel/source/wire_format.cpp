#include "zel/wire_format.h"

#include "wire_cursor.h"

namespace ps_ns
{
namespace
{

constexpr std::size_t kLevelSize = 20;
constexpr std::size_t kTradeSize = 41;
constexpr std::size_t kInstrumentSize = 18 + 4 * sizeof(std::uint16_t); // with empty texts
constexpr std::size_t kRenameSize = 4 + 2 * sizeof(std::uint16_t);
constexpr std::size_t kProgressSize = 12;

template <class Number>
void Store(std::byte* at, Number value) noexcept
{
    std::memcpy(at, &value, sizeof value);
}

template <class Number>
Number Load(const std::byte* at) noexcept
{
    Number value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

void StoreLevels(std::byte* at, const std::vector<BookUpdate::Change>& changes, BookSideType side) noexcept
{
    for (const BookUpdate::Change& change : changes)
    {
        if (change.side == side)
        {
            Store(at, change.price);
            Store(at + 8, change.quantity);
            Store(at + 16, change.orderCount);
            at += kLevelSize;
        }
    }
}

/// The whole of it is there. False: a quantity is none.
bool LoadLevels(const std::byte* at, std::span<BookUpdate::Change> changes, BookSideType side) noexcept
{
    for (BookUpdate::Change& change : changes)
    {
        change.price = Load<std::int64_t>(at);
        change.quantity = Load<std::int64_t>(at + 8);
        change.orderCount = Load<std::uint32_t>(at + 16);
        change.side = side;
        at += kLevelSize;
        if (change.quantity < 0)
        {
            return false;
        }
    }
    return true;
}

/// Behind the header of a message of that kind; nothing else passes.
std::optional<WireReader> ReadBody(WireBytes bytes, WireKind kind) noexcept
{
    const std::optional<WireHeader> header = ReadHeader(bytes);
    if (!header || header->kind != kind)
    {
        return std::nullopt;
    }
    return WireReader(bytes.subspan(kWireHeaderSize));
}

WireInstrument ReadInstrument(WireReader& reader)
{
    WireInstrument instrument;
    instrument.index = reader.Get<std::uint32_t>();
    instrument.format.denominator = reader.Get<std::uint32_t>();
    instrument.format.isFractional = reader.Get<std::uint8_t>() != 0;
    instrument.format.fractionDigits = reader.Get<std::uint32_t>();
    instrument.format.displayFormat = static_cast<char>(reader.Get<std::uint8_t>());
    instrument.format.tickSize = reader.Get<std::uint32_t>();
    instrument.firstSymbol = reader.GetText();
    instrument.symbol = reader.GetText();
    instrument.exchange = reader.GetText();
    instrument.description = reader.GetText();
    return instrument;
}

} // namespace

// --- Writing ---------------------------------------------------------------------------------------------------------

void WriteBook(WireBuffer& to, const WireHeader& header, const MarketMessage& message)
{
    const auto bids = static_cast<std::size_t>(std::count_if(message.changes.begin(), message.changes.end(),
                                                             [](const BookUpdate::Change& change)
                                                             { return change.side == BookSideType::Bid; }));
    WireWriter writer(to, header);
    writer.Put(message.exchangeTime_ns);
    writer.Put(message.receiveTime_ns);
    writer.Put(message.venueSequence);
    writer.PutCount(bids);
    writer.PutCount(message.changes.size() - bids);
    std::byte* const levels = writer.Extend(message.changes.size() * kLevelSize);
    StoreLevels(levels, message.changes, BookSideType::Bid);
    StoreLevels(levels + bids * kLevelSize, message.changes, BookSideType::Ask);
}

void WriteTrades(WireBuffer& to, const WireHeader& header, std::span<const Trade> trades)
{
    WireWriter writer(to, header);
    writer.PutCount(trades.size());
    for (const Trade& trade : trades)
    {
        writer.Put(trade.price);
        writer.Put(trade.quantity);
        writer.Put(trade.exchangeTime_ns);
        writer.Put(trade.receiveTime_ns);
        writer.Put(trade.venueId);
        writer.Put(static_cast<std::uint8_t>(trade.aggressor));
    }
}

void WriteDirectory(WireBuffer& to, const WireHeader& header, std::uint32_t parts,
                    std::span<const WireInstrument> instruments)
{
    WireWriter writer(to, header);
    writer.Put(parts);
    writer.PutCount(instruments.size());
    for (const WireInstrument& instrument : instruments)
    {
        writer.Put(instrument.index);
        writer.Put(instrument.format.denominator);
        writer.Put(static_cast<std::uint8_t>(instrument.format.isFractional));
        writer.Put(instrument.format.fractionDigits);
        writer.Put(static_cast<std::uint8_t>(instrument.format.displayFormat));
        writer.Put(instrument.format.tickSize);
        writer.PutText(instrument.firstSymbol);
        writer.PutText(instrument.symbol);
        writer.PutText(instrument.exchange);
        writer.PutText(instrument.description);
    }
}

void WriteRenames(WireBuffer& to, const WireHeader& header, std::span<const WireRename> renames)
{
    WireWriter writer(to, header);
    writer.PutCount(renames.size());
    for (const WireRename& rename : renames)
    {
        writer.Put(rename.index);
        writer.PutText(rename.oldSymbol);
        writer.PutText(rename.newSymbol);
    }
}

void WriteHeartbeat(WireBuffer& to, const WireHeader& header, const WireHeartbeat& heartbeat)
{
    WireWriter writer(to, header);
    writer.Put(heartbeat.sendTime_ns);
    writer.PutCount(heartbeat.progress.size());
    for (const WireProgress& progress : heartbeat.progress)
    {
        writer.Put(progress.index);
        writer.Put(progress.sequence);
    }
}

void WriteDirectoryRequest(WireBuffer& to, const WireHeader& header)
{
    const WireWriter writer(to, header);
}

void WriteImageRequest(WireBuffer& to, const WireHeader& header, std::span<const std::uint32_t> indexes)
{
    WireWriter writer(to, header);
    writer.PutCount(indexes.size());
    for (const std::uint32_t index : indexes)
    {
        writer.Put(index);
    }
}

std::size_t GetWireSize(const WireInstrument& instrument) noexcept
{
    return kInstrumentSize + instrument.firstSymbol.size() + instrument.symbol.size() + instrument.exchange.size() +
           instrument.description.size();
}

// --- Reading ---------------------------------------------------------------------------------------------------------

std::optional<WireHeader> ReadHeader(WireBytes bytes) noexcept
{
    WireReader reader(bytes);
    const auto version = reader.Get<std::uint8_t>();
    const auto kind = reader.Get<std::uint8_t>();
    static_cast<void>(reader.Get<std::uint16_t>());
    WireHeader header;
    header.kind = static_cast<WireKind>(kind);
    header.index = reader.Get<std::uint32_t>();
    header.epoch = reader.Get<std::uint64_t>();
    header.sequence = reader.Get<std::uint64_t>();
    const bool isKind = kind >= static_cast<std::uint8_t>(WireKind::Directory) &&
                        kind <= static_cast<std::uint8_t>(WireKind::ImageRequest);
    if (!reader.IsGood() || version != kWireVersion || !isKind)
    {
        return std::nullopt;
    }
    return header;
}

bool ReadBook(WireBytes bytes, MarketMessage& message)
{
    const std::optional<WireHeader> header = ReadHeader(bytes);
    if (!header || (header->kind != WireKind::Image && header->kind != WireKind::Update))
    {
        return false;
    }
    WireReader reader(bytes.subspan(kWireHeaderSize));
    message.Clear();
    message.epoch = header->epoch;
    message.isImage = header->kind == WireKind::Image;
    message.exchangeTime_ns = reader.Get<std::uint64_t>();
    message.receiveTime_ns = reader.Get<std::uint64_t>();
    message.venueSequence = reader.Get<std::uint64_t>();
    const std::uint64_t bids = reader.Get<std::uint32_t>();
    const std::uint64_t asks = reader.Get<std::uint32_t>();
    if (!reader.IsGood() || reader.GetRest().size() != (bids + asks) * kLevelSize)
    {
        return false;
    }
    message.changes.resize(bids + asks);
    const std::span changes(message.changes);
    const std::byte* const levels = reader.GetRest().data();
    return LoadLevels(levels, changes.first(bids), BookSideType::Bid) &&
           LoadLevels(levels + bids * kLevelSize, changes.subspan(bids), BookSideType::Ask);
}

bool ReadTrades(WireBytes bytes, std::vector<Trade>& trades)
{
    trades.clear();
    std::optional<WireReader> reader = ReadBody(bytes, WireKind::Trades);
    if (!reader)
    {
        return false;
    }
    const std::size_t count = reader->GetCount(kTradeSize);
    trades.resize(count);
    for (Trade& trade : trades)
    {
        trade.price = reader->Get<std::int64_t>();
        trade.quantity = reader->Get<std::int64_t>();
        trade.exchangeTime_ns = reader->Get<std::uint64_t>();
        trade.receiveTime_ns = reader->Get<std::uint64_t>();
        trade.venueId = reader->Get<std::uint64_t>();
        const auto aggressor = reader->Get<std::uint8_t>();
        if (aggressor > static_cast<std::uint8_t>(Trade::Aggressor::Seller) || trade.quantity < 0)
        {
            return false;
        }
        trade.aggressor = static_cast<Trade::Aggressor>(aggressor);
    }
    return reader->IsWhole();
}

std::optional<WireDirectory> ReadDirectory(WireBytes bytes)
{
    std::optional<WireReader> reader = ReadBody(bytes, WireKind::Directory);
    if (!reader)
    {
        return std::nullopt;
    }
    WireDirectory directory;
    directory.parts = reader->Get<std::uint32_t>();
    const std::size_t count = reader->GetCount(kInstrumentSize);
    directory.instruments.reserve(count);
    for (std::size_t i = 0; i < count && reader->IsGood(); ++i)
    {
        directory.instruments.push_back(ReadInstrument(*reader));
        if (directory.instruments.back().index >= kMostWireInstruments)
        {
            return std::nullopt;
        }
    }
    const bool isPart = directory.parts != 0 && ReadHeader(bytes)->index < directory.parts;
    return reader->IsWhole() && isPart ? std::optional(std::move(directory)) : std::nullopt;
}

std::optional<std::vector<WireRename>> ReadRenames(WireBytes bytes)
{
    std::optional<WireReader> reader = ReadBody(bytes, WireKind::Rename);
    if (!reader)
    {
        return std::nullopt;
    }
    std::vector<WireRename> renames(reader->GetCount(kRenameSize));
    for (WireRename& rename : renames)
    {
        rename.index = reader->Get<std::uint32_t>();
        rename.oldSymbol = reader->GetText();
        rename.newSymbol = reader->GetText();
    }
    return reader->IsWhole() ? std::optional(std::move(renames)) : std::nullopt;
}

std::optional<WireHeartbeat> ReadHeartbeat(WireBytes bytes)
{
    std::optional<WireReader> reader = ReadBody(bytes, WireKind::Heartbeat);
    if (!reader)
    {
        return std::nullopt;
    }
    WireHeartbeat heartbeat;
    heartbeat.sendTime_ns = reader->Get<std::uint64_t>();
    heartbeat.progress.resize(reader->GetCount(kProgressSize));
    for (WireProgress& progress : heartbeat.progress)
    {
        progress.index = reader->Get<std::uint32_t>();
        progress.sequence = reader->Get<std::uint64_t>();
    }
    return reader->IsWhole() ? std::optional(std::move(heartbeat)) : std::nullopt;
}

std::optional<std::vector<std::uint32_t>> ReadImageRequest(WireBytes bytes)
{
    std::optional<WireReader> reader = ReadBody(bytes, WireKind::ImageRequest);
    if (!reader)
    {
        return std::nullopt;
    }
    std::vector<std::uint32_t> indexes(reader->GetCount(sizeof(std::uint32_t)));
    for (std::uint32_t& index : indexes)
    {
        index = reader->Get<std::uint32_t>();
    }
    return reader->IsWhole() ? std::optional(std::move(indexes)) : std::nullopt;
}

} // namespace ps_ns
