#pragma once

#include "composite_price/fixed_point.h"
#include "mds/mds_provider.h"
#include "mds/recording_row.h"
#include "simple_subscription/i_component_listener.h"
#include "simple_subscription/market_table.h"

#include <zstd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ps_ns::testing_ns
{

/// A folder of the test's own, removed with everything in it.
class TemporaryFolder
{
public:
    TemporaryFolder()
    {
        std::random_device device;
        m_path = std::filesystem::temp_directory_path() /
                 ("mds_tests_" + std::to_string(device()) + std::to_string(device()));
        std::filesystem::create_directories(m_path);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(m_path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::string Write(const std::string& name, std::string_view content) const
    {
        const std::string path = (m_path / name).string();
        std::ofstream(path, std::ios::binary) << content;
        return path;
    }
    /// With the header in front of the rows.
    std::string WriteRows(const std::string& name, std::string_view rows) const
    {
        return Write(name, std::string(kRecordingHeader) + "\n" + std::string(rows));
    }
    std::string GetPath(const std::string& name) const { return (m_path / name).string(); }

private:
    std::filesystem::path m_path;
};

inline std::string Compress(std::string_view text)
{
    std::string compressed(ZSTD_compressBound(text.size()), '\0');
    compressed.resize(ZSTD_compress(compressed.data(), compressed.size(), text.data(), text.size(), 3));
    return compressed;
}

inline std::string ReadWholeFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

inline std::string DataFile(const std::string& name)
{
    return std::string(PRICE_SERVER_DATA) + "/" + name;
}

inline std::vector<std::string> DataFiles(const std::string& folder, const std::vector<std::string>& names)
{
    std::vector<std::string> files;
    for (const std::string& name : names)
    {
        files.push_back(DataFile(folder + "/" + name + ".csv.zst"));
    }
    return files;
}
inline std::vector<std::string> ThreeSegments()
{
    return DataFiles("three_segments", {"spot", "usdm", "coinm"});
}
inline std::vector<std::string> ManyInstruments()
{
    return DataFiles("many_instruments", {"krakenfutures", "bitmex", "bitflyer", "poloniex"});
}

/// Keeps what is reported.
struct Problems
{
    std::vector<std::string> texts;
    ProblemSink Sink()
    {
        return [this](const std::string& text) { texts.push_back(text); };
    }
    std::string All() const
    {
        std::string all;
        for (const std::string& text : texts)
        {
            all += text + "\n";
        }
        return all;
    }
};

inline std::int64_t P(const char* price)
{
    return ParsePrice(price).value();
}
inline std::int64_t Q(const char* quantity)
{
    return ParseQuantity(quantity).value();
}
inline BookUpdate::Change Bid(const char* price, const char* quantity)
{
    return {P(price), Q(quantity), 0, BookSideType::Bid};
}
inline BookUpdate::Change Ask(const char* price, const char* quantity)
{
    return {P(price), Q(quantity), 0, BookSideType::Ask};
}

/// A book as a text: "10x2 9x1 | 11x3", bids best first, then asks.
inline std::string Print(const LevelBook& book)
{
    std::string text;
    for (const BookSideType side : {BookSideType::Bid, BookSideType::Ask})
    {
        const LevelSide& levels = book.GetSide(side);
        for (std::size_t rank = 0; rank < levels.GetSize(); ++rank)
        {
            text += FormatPrice(levels.Get(rank).price) + "x" + FormatQuantity(levels.Get(rank).quantity) + " ";
        }
        text += side == BookSideType::Bid ? "| " : "";
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

/// Writes down every call in order; follows the book, and checks the order of epochs and sequences.
class RecordingListener : public IComponentListener
{
public:
    void OnSubscribed(ps_messages_ns::SubscriptionResult::Value result, const PriceFormat& format) override
    {
        const std::lock_guard lock(m_mutex);
        Note("subscribed " + std::to_string(result));
        m_format = format;
    }
    void OnBook(std::shared_ptr<const BookUpdate> update) override
    {
        const std::lock_guard lock(m_mutex);
        m_orderFaults += IsInOrder(*update) ? 0U : 1U;
        m_epoch = update->epoch;
        m_sequence = update->sequence;
        m_hasBook = true;
        ++m_bookCount;
        m_book.Apply(update->changes, update->isImage);
        Note(update->isImage ? "image" : "update");
        if (m_keepsUpdates)
        {
            m_updates.push_back(std::move(update));
        }
    }
    void OnTrades(std::shared_ptr<const std::vector<Trade>> trades) override
    {
        const std::lock_guard lock(m_mutex);
        m_trades.insert(m_trades.end(), trades->begin(), trades->end());
        Note("trades");
    }
    void OnCustomFields(std::shared_ptr<const CustomFields>) override {}
    void OnStale(bool isStale) override
    {
        const std::lock_guard lock(m_mutex);
        m_isStale = isStale;
        Note(isStale ? "stale" : "fresh");
    }
    void OnUnsubscribed(bool ok) override
    {
        const std::lock_guard lock(m_mutex);
        Note(ok ? "unsubscribed" : "still subscribed");
    }

    std::vector<std::string> GetCalls() const
    {
        const std::lock_guard lock(m_mutex);
        return m_calls;
    }
    std::string PrintBook() const
    {
        const std::lock_guard lock(m_mutex);
        return Print(m_book);
    }
    std::vector<std::shared_ptr<const BookUpdate>> TakeUpdates()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_updates, {});
    }
    const LevelBook& GetBook() const { return m_book; } ///< for tests without threads
    const PriceFormat& GetFormat() const { return m_format; }
    const std::vector<Trade>& GetTrades() const { return m_trades; }
    unsigned GetOrderFaults() const
    {
        const std::lock_guard lock(m_mutex);
        return m_orderFaults;
    }
    bool IsStale() const
    {
        const std::lock_guard lock(m_mutex);
        return m_isStale;
    }
    std::uint64_t GetEpoch() const { return m_epoch; }
    std::uint64_t GetSequence() const { return m_sequence; }
    std::size_t GetBookCount() const
    {
        const std::lock_guard lock(m_mutex);
        return m_bookCount;
    }
    void KeepUpdates() { m_keepsUpdates = true; }
    void KeepNoCalls() { m_keepsCalls = false; }

private:
    bool IsInOrder(const BookUpdate& update) const
    {
        if (!m_hasBook)
        {
            return update.isImage;
        }
        return update.epoch == m_epoch ? update.sequence == m_sequence + 1
                                       : update.epoch > m_epoch && update.isImage && update.sequence == 1;
    }
    void Note(std::string call)
    {
        if (m_keepsCalls)
        {
            m_calls.push_back(std::move(call));
        }
    }

    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::vector<std::shared_ptr<const BookUpdate>> m_updates;
    std::vector<Trade> m_trades;
    LevelBook m_book;
    PriceFormat m_format;
    std::uint64_t m_epoch = 0;
    std::uint64_t m_sequence = 0;
    unsigned m_orderFaults = 0;
    std::size_t m_bookCount = 0;
    bool m_hasBook = false;
    bool m_isStale = false;
    bool m_keepsUpdates = false;
    bool m_keepsCalls = true;
};

inline ComponentRequest Request(short marketId, const std::string& symbol, bool trades = true)
{
    ComponentRequest request;
    request.submarket.marketId = marketId;
    request.symbol = symbol;
    request.scope.trades = trades;
    return request;
}

inline MarketTable OneMarket(const std::string& name, short id = 1)
{
    Market market;
    market.id = id;
    market.name = name;
    return MarketTable({market});
}

inline MdsOptions HandDriven()
{
    MdsOptions options;
    options.isHandDriven = true;
    return options;
}

/// Messages that a test has written.
class ScriptedSource final : public IMarketSource
{
public:
    ScriptedSource(std::vector<SourceInstrument> instruments, std::vector<MarketMessage> messages)
        : m_instruments(std::move(instruments))
        , m_messages(std::move(messages))
    {
    }
    std::vector<short> GetMarketIds() const override { return {1}; }
    void Open(const std::atomic<bool>&) override {}
    const std::vector<SourceInstrument>& GetInstruments() const override { return m_instruments; }
    std::optional<NextMessage> Peek() override
    {
        if (m_next == m_messages.size())
        {
            return std::nullopt;
        }
        return NextMessage{m_messages[m_next].epoch, m_messages[m_next].sourceTime_ns};
    }
    bool Next(MarketMessage& message) override
    {
        if (m_next == m_messages.size())
        {
            return false;
        }
        message = m_messages[m_next++];
        return true;
    }

private:
    std::vector<SourceInstrument> m_instruments;
    std::vector<MarketMessage> m_messages;
    std::size_t m_next = 0;
};

inline SourceInstrument Listed(const std::string& symbol, short marketId = 1, unsigned digits = 2)
{
    SourceInstrument instrument;
    instrument.marketId = marketId;
    instrument.market = "M";
    instrument.symbol = symbol;
    instrument.format.fractionDigits = digits;
    return instrument;
}

inline MarketMessage BookMessage(InstrumentIndex instrument, bool isImage, std::vector<BookUpdate::Change> changes,
                                 std::uint64_t epoch = 1, std::uint64_t time_ns = 1)
{
    MarketMessage message;
    message.instrument = instrument;
    message.epoch = epoch;
    message.sourceTime_ns = message.receiveTime_ns = time_ns;
    message.isImage = isImage;
    message.changes = std::move(changes);
    return message;
}

} // namespace ps_ns::testing_ns
