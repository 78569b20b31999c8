#pragma once

/// What travels between publishers and price servers, byte by byte. Hand-laid: fixed places, little-endian, no padding,
/// nothing optional (docs/decisions/0014). The market of a message is in its address, not in its bytes.
///
/// Every message begins with the same 24 bytes:
///
/// | bytes | field | meaning |
/// |---|---|---|
/// | 0 | version | kWireVersion; a reader refuses any other |
/// | 1 | kind | WireKind |
/// | 2..3 | reserved | 0 |
/// | 4..7 | index | the instrument's number in the market's directory; of a directory: the number of this part |
/// | 8..15 | epoch | of the publisher: ns since 1970 UTC when it (re)connected; a larger one is newer |
/// | 16..23 | sequence | of the instrument within the epoch; of directory, rename, heartbeat: the directory's revision |
///
/// Then, by kind ("text": 16 bits of length, and so many bytes):
///
/// | kind | behind the header |
/// |---|---|
/// | image, update | exchangeTime u64, receiveTime u64, venueSequence u64, bids u32, asks u32; each level: price i64, quantity i64, orders u32 |
/// | trades | count u32; each: price i64, quantity i64, exchangeTime u64, receiveTime u64, venueId u64, aggressor u8 |
/// | directory | parts u32, count u32; each: index u32, denominator u32, isFractional u8, fractionDigits u32, displayFormat u8, tickSize u32, texts firstSymbol, symbol, exchange, description |
/// | rename | count u32; each: index u32, texts old symbol, new symbol |
/// | heartbeat | sendTime u64, count u32; each: index u32, sequence u64: the instruments that have moved lately |
/// | directory request | nothing |
/// | image request | count u32; each: index u32 |
///
/// Prices and quantities are whole numbers of the units of fixed_point.h. Bids come before asks; within a side the
/// order of the venue is kept.
///
/// Quantities are not negative. Texts are UTF-8 without control characters; symbols have 1 to 255 bytes.
///
/// Failure: reading is bounds-checked and total. Whatever the bytes are, a reader answers false or nothing, allocates
/// no more than a small multiple of the bytes' number, and touches nothing outside of them.

#include "composite_instrument/price_format.h"
#include "mds/market_source.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ps_ns
{

using WireBytes = std::span<const std::byte>;
/// Filled again and again by the writers, which replace what was in it.
using WireBuffer = std::vector<std::byte>;

inline constexpr std::uint8_t kWireVersion = 1;
inline constexpr std::size_t kWireHeaderSize = 24;
/// A broker refuses more than 1 MiB in one message; this leaves room for the subject.
inline constexpr std::size_t kLargestWireMessage = 1'000'000;
/// Directories with larger numbers are refused: numbers are places in an array.
inline constexpr std::uint32_t kMostWireInstruments = 1'000'000;
/// What a price server takes of an entry of a directory; whatever has more is passed over.
inline constexpr std::size_t kMostWireNameBytes = 255; ///< of symbols and exchanges
inline constexpr std::size_t kMostWireDescriptionBytes = 1024;
inline constexpr std::uint32_t kMostWireFractionDigits = 10; ///< prices have no more (fixed_point.h)

enum class WireKind : std::uint8_t
{
    Directory = 1,
    Image = 2,
    Update = 3,
    Trades = 4,
    Rename = 5,
    Heartbeat = 6,
    DirectoryRequest = 7,
    ImageRequest = 8
};

struct WireHeader
{
    WireKind kind = WireKind::Heartbeat;
    std::uint32_t index = 0;
    std::uint64_t epoch = 0;
    std::uint64_t sequence = 0;

    friend bool operator==(const WireHeader&, const WireHeader&) = default;
};

struct WireInstrument
{
    std::uint32_t index = 0;
    PriceFormat format;
    std::string firstSymbol; ///< what the instrument is known by for good
    std::string symbol;      ///< what it is called now
    std::string exchange;
    std::string description;

    friend bool operator==(const WireInstrument&, const WireInstrument&) = default;
};

/// One part of a market's directory. All parts bear the same epoch and revision.
struct WireDirectory
{
    std::uint32_t parts = 1; ///< in all, at least one
    std::vector<WireInstrument> instruments;

    friend bool operator==(const WireDirectory&, const WireDirectory&) = default;
};

struct WireRename
{
    std::uint32_t index = 0;
    std::string oldSymbol;
    std::string newSymbol;

    friend bool operator==(const WireRename&, const WireRename&) = default;
};

/// The last sequence of an instrument that has moved: who has less, and gets no more, has missed something.
struct WireProgress
{
    std::uint32_t index = 0;
    std::uint64_t sequence = 0;

    friend bool operator==(const WireProgress&, const WireProgress&) = default;
};

struct WireHeartbeat
{
    std::uint64_t sendTime_ns = 0; ///< the publisher's clock, since 1970 UTC
    std::vector<WireProgress> progress;

    friend bool operator==(const WireHeartbeat&, const WireHeartbeat&) = default;
};

// --- Writing. The header's kind must be the one that the name says. ---

/// `message`'s book part: an image when it says so. Its instrument and epoch are not looked at.
void WriteBook(WireBuffer& to, const WireHeader& header, const MarketMessage& message);
void WriteTrades(WireBuffer& to, const WireHeader& header, std::span<const Trade> trades);
void WriteDirectory(WireBuffer& to, const WireHeader& header, std::uint32_t parts,
                    std::span<const WireInstrument> instruments);
void WriteRenames(WireBuffer& to, const WireHeader& header, std::span<const WireRename> renames);
void WriteHeartbeat(WireBuffer& to, const WireHeader& header, const WireHeartbeat& heartbeat);
void WriteDirectoryRequest(WireBuffer& to, const WireHeader& header);
void WriteImageRequest(WireBuffer& to, const WireHeader& header, std::span<const std::uint32_t> indexes);

/// Bytes that the directory entry takes: to cut a directory into parts.
std::size_t GetWireSize(const WireInstrument& instrument) noexcept;

// --- Reading. False, or nothing: the bytes are no such message of this version; what has been filled means nothing.
// ---

/// Of any kind. Enough to pass over a message that nobody waits for.
std::optional<WireHeader> ReadHeader(WireBytes bytes) noexcept;
/// An image or an update: times, `isImage`, changes and epoch of `message`, whose vectors are used again.
bool ReadBook(WireBytes bytes, MarketMessage& message);
/// Appends nothing: replaces `trades`.
bool ReadTrades(WireBytes bytes, std::vector<Trade>& trades);
std::optional<WireDirectory> ReadDirectory(WireBytes bytes);
std::optional<std::vector<WireRename>> ReadRenames(WireBytes bytes);
std::optional<WireHeartbeat> ReadHeartbeat(WireBytes bytes);
std::optional<std::vector<std::uint32_t>> ReadImageRequest(WireBytes bytes);

} // namespace ps_ns
