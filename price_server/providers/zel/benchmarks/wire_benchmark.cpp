/// The messages of recorded markets in three encodings: bytes, and time to write and to read them. Each read ends with
/// the same MarketMessage. Data: the recordings in PRICE_SERVER_DATA.

#include "mds/recording_scan.h"
#include "mds/replay_source.h"
#include "zel/wire_format.h"

#ifdef PS_WITH_PEERS
#include "peer_book.pb.h"
#include "peer_book_generated.h"
#endif

#include <benchmark/benchmark.h>

#include <atomic>
#include <string>
#include <vector>

namespace ps_ns
{
namespace
{

/// Book messages of all recordings: updates, or images.
std::vector<MarketMessage> ReadRecorded(bool images)
{
    std::vector<std::string> files;
    for (const char* const name :
         {"three_segments/spot", "three_segments/usdm", "three_segments/coinm", "many_instruments/bitflyer",
          "many_instruments/bitmex", "many_instruments/krakenfutures", "many_instruments/poloniex"})
    {
        files.push_back(std::string(PRICE_SERVER_DATA) + "/" + name + ".csv.zst");
    }
    const std::atomic<bool> stop{false};
    ReplaySource source({files, false, true}, MakeMarketTable(ScanRecordings(files, KeepSilent(), stop)), KeepSilent());
    source.Open(stop);
    std::vector<MarketMessage> messages;
    for (MarketMessage message; source.Next(message);)
    {
        if (message.HasBook() && message.isImage == images)
        {
            messages.push_back(message);
        }
    }
    return messages;
}

const std::vector<MarketMessage>& GetRecorded(bool images)
{
    static const std::vector<MarketMessage> updates = ReadRecorded(false);
    static const std::vector<MarketMessage> all = ReadRecorded(true);
    return images ? all : updates;
}

struct HandLaid
{
    using Bytes = WireBuffer;
    static void Write(const MarketMessage& message, std::uint64_t sequence, Bytes& to)
    {
        const WireKind kind = message.isImage ? WireKind::Image : WireKind::Update;
        WriteBook(to, {kind, message.instrument, 1'723'161'254'087'896'568, sequence}, message);
    }
    static bool Read(const Bytes& bytes, MarketMessage& message) { return ReadBook(bytes, message); }
};

#ifdef PS_WITH_PEERS

struct ProtocolBuffers
{
    using Bytes = std::string;
    static void Write(const MarketMessage& message, std::uint64_t sequence, Bytes& to)
    {
        static peer_proto::Book book;
        book.Clear();
        book.set_index(message.instrument);
        book.set_epoch(1'723'161'254'087'896'568);
        book.set_sequence(sequence);
        book.set_is_image(message.isImage);
        book.set_exchange_time_ns(message.exchangeTime_ns);
        book.set_receive_time_ns(message.receiveTime_ns);
        book.set_venue_sequence(message.venueSequence);
        std::uint32_t bids = 0;
        for (const BookSideType side : {BookSideType::Bid, BookSideType::Ask})
        {
            for (const BookUpdate::Change& change : message.changes)
            {
                if (change.side == side)
                {
                    bids += side == BookSideType::Bid ? 1U : 0U;
                    book.add_prices(change.price);
                    book.add_quantities(static_cast<std::uint64_t>(change.quantity));
                    book.add_orders(change.orderCount);
                }
            }
        }
        book.set_bids(bids);
        book.SerializeToString(&to);
    }
    static bool Read(const Bytes& bytes, MarketMessage& message)
    {
        static peer_proto::Book book;
        if (!book.ParseFromString(bytes))
        {
            return false;
        }
        message.Clear();
        message.isImage = book.is_image();
        message.epoch = book.epoch();
        message.exchangeTime_ns = book.exchange_time_ns();
        message.receiveTime_ns = book.receive_time_ns();
        message.venueSequence = book.venue_sequence();
        for (int i = 0; i < book.prices_size(); ++i)
        {
            message.changes.push_back(
                {book.prices(i), static_cast<std::int64_t>(book.quantities(i)), book.orders(i),
                 static_cast<std::uint32_t>(i) < book.bids() ? BookSideType::Bid : BookSideType::Ask});
        }
        return true;
    }
};

struct FlatBuffers
{
    using Bytes = std::vector<std::uint8_t>;
    static void Write(const MarketMessage& message, std::uint64_t sequence, Bytes& to)
    {
        static flatbuffers::FlatBufferBuilder builder(1 << 20);
        static std::vector<peer_flat::Level> levels[2];
        builder.Clear();
        levels[0].clear();
        levels[1].clear();
        for (const BookUpdate::Change& change : message.changes)
        {
            levels[change.side == BookSideType::Bid ? 0 : 1].emplace_back(change.price, change.quantity,
                                                                          change.orderCount);
        }
        const auto bids = builder.CreateVectorOfStructs(levels[0]);
        const auto asks = builder.CreateVectorOfStructs(levels[1]);
        builder.Finish(peer_flat::CreateBook(builder, message.instrument, 1'723'161'254'087'896'568, sequence,
                                             message.isImage, message.exchangeTime_ns, message.receiveTime_ns,
                                             message.venueSequence, bids, asks));
        to.assign(builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize());
    }
    static bool Read(const Bytes& bytes, MarketMessage& message)
    {
        flatbuffers::Verifier verifier(bytes.data(), bytes.size()); // bytes of the network are checked
        if (!peer_flat::VerifyBookBuffer(verifier))
        {
            return false;
        }
        const peer_flat::Book& book = *peer_flat::GetBook(bytes.data());
        message.Clear();
        message.isImage = book.is_image();
        message.epoch = book.epoch();
        message.exchangeTime_ns = book.exchange_time_ns();
        message.receiveTime_ns = book.receive_time_ns();
        message.venueSequence = book.venue_sequence();
        for (const peer_flat::Level* const level : *book.bids())
        {
            message.changes.push_back({level->price(), level->quantity(), level->orders(), BookSideType::Bid});
        }
        for (const peer_flat::Level* const level : *book.asks())
        {
            message.changes.push_back({level->price(), level->quantity(), level->orders(), BookSideType::Ask});
        }
        return true;
    }
};

#endif

template <class Encoding>
void BM_Write(benchmark::State& state)
{
    const std::vector<MarketMessage>& messages = GetRecorded(state.range(0) != 0);
    typename Encoding::Bytes bytes;
    std::size_t next = 0;
    for (auto _ : state)
    {
        Encoding::Write(messages[next], next, bytes);
        benchmark::DoNotOptimize(bytes.data());
        next = next + 1 == messages.size() ? 0 : next + 1;
    }
}

template <class Encoding>
void BM_Read(benchmark::State& state)
{
    const std::vector<MarketMessage>& messages = GetRecorded(state.range(0) != 0);
    std::vector<typename Encoding::Bytes> encoded(messages.size());
    double bytes = 0;
    double levels = 0;
    for (std::size_t i = 0; i < messages.size(); ++i)
    {
        Encoding::Write(messages[i], i, encoded[i]);
        bytes += static_cast<double>(encoded[i].size());
        levels += static_cast<double>(messages[i].changes.size());
    }
    MarketMessage message;
    std::size_t next = 0;
    for (auto _ : state)
    {
        if (!Encoding::Read(encoded[next], message))
        {
            state.SkipWithError("a message cannot be read");
        }
        benchmark::DoNotOptimize(message.changes.data());
        next = next + 1 == messages.size() ? 0 : next + 1;
    }
    const auto count = static_cast<double>(messages.size());
    state.counters["messages"] = count;
    state.counters["bytes"] = bytes / count;
    state.counters["levels"] = levels / count;
}

BENCHMARK_TEMPLATE(BM_Write, HandLaid)->ArgName("images")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_Read, HandLaid)->ArgName("images")->Arg(0)->Arg(1);
#ifdef PS_WITH_PEERS
BENCHMARK_TEMPLATE(BM_Write, ProtocolBuffers)->ArgName("images")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_Read, ProtocolBuffers)->ArgName("images")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_Write, FlatBuffers)->ArgName("images")->Arg(0)->Arg(1);
BENCHMARK_TEMPLATE(BM_Read, FlatBuffers)->ArgName("images")->Arg(0)->Arg(1);
#endif

} // namespace
} // namespace ps_ns

BENCHMARK_MAIN();
