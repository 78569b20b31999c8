#pragma once

#include "composite_instrument/i_composite_price_observer.h"
#include "composite_price/fixed_point.h"
#include "composite_price/merged_order_book.h"
#include "mds/byte_stream.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns::golden
{

using InstrumentName = std::pair<std::string, std::string>; // market, symbol
using Rows = std::vector<std::string>;                      // "B 0 61837.63 3.78826"
/// The rows of each instrument at each time.
using GoldenBooks = std::map<InstrumentName, std::map<std::uint64_t, Rows>>;

struct Golden
{
    GoldenBooks books;
    std::size_t rowCount = 0;
};

inline Golden ReadGolden(const std::string& path)
{
    std::string text;
    std::string part(65'536, '\0');
    const auto stream = OpenByteStream(path);
    while (const std::size_t got = stream->Read(part.data(), part.size()))
    {
        text.append(part, 0, got);
    }
    Golden golden;
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line); // ts_ns,market,symbol,seq,side,level,price,qty
    for (; std::getline(lines, line); ++golden.rowCount)
    {
        std::istringstream fields(line);
        std::string time, market, symbol, sequence, side, level, price, quantity;
        for (std::string* const field : {&time, &market, &symbol, &sequence, &side, &level, &price, &quantity})
        {
            std::getline(fields, *field, ',');
        }
        golden.books[{market, symbol}][std::stoull(time)].push_back(side + " " + level + " " + price + " " + quantity);
    }
    return golden;
}

inline Rows ToRows(const MergedOrderBook& book)
{
    Rows rows;
    const auto add = [&](const char* side, const BookSide<MergedOrderBook::Level>& levels)
    {
        for (std::uint32_t i = 0; i < levels.count; ++i)
        {
            const MergedOrderBook::Level& level = levels.GetLevels()[i];
            rows.push_back(std::string(side) + " " + std::to_string(i) + " " + FormatPrice(level.price) + " " +
                           FormatQuantity(level.directQuantity + level.impliedQuantity));
        }
    };
    add("B", book.bids);
    add("S", book.asks);
    return rows;
}

/// Remembers the last merged book of each time that it is asked to watch.
class GoldenObserver final : public ICompositePriceObserver
{
public:
    GoldenObserver(const std::map<std::uint64_t, Rows>& wanted, std::map<std::uint64_t, Rows>& seen)
        : ICompositePriceObserver("golden")
        , m_wanted(wanted)
        , m_seen(seen)
    {
    }
    void OnOrderBook(const CompositeInstrumentDef&, const std::shared_ptr<const MergedOrderBook>& book) override
    {
        if (m_wanted.count(book->receiveTime_ns) != 0)
        {
            m_seen[book->receiveTime_ns] = ToRows(*book); // a later one of the same time replaces it
        }
        latest = book;
        books.fetch_add(1);
    }
    void OnSubscribe(const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long, const PriceFormat&,
                     CompositeComponentType::Type, const CompositeSubscriptionState&) override
    {
        isAnswered.store(true);
    }
    void OnAddScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnChangeScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnRemoveScope(const CompositeInstrumentDef&, unsigned long, Result) override {}
    void OnTrades(const CompositeInstrumentDef&, const std::shared_ptr<const std::vector<Trade>>&) override {}
    void OnCustomFields(const CompositeInstrumentDef&, const std::shared_ptr<const CustomFields>&) override {}
    void OnUnsubscribe(const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

    std::shared_ptr<const MergedOrderBook> latest;
    std::atomic<std::uint64_t> books{0};
    std::atomic<bool> isAnswered{false};

private:
    const std::map<std::uint64_t, Rows>& m_wanted;
    std::map<std::uint64_t, Rows>& m_seen;
};

/// Paths below the folder of recorded data, each with the usual ending.
inline std::vector<std::string> Files(const std::string& folder, const std::vector<std::string>& names)
{
    std::vector<std::string> files;
    for (const std::string& name : names)
    {
        files.push_back(std::string(PRICE_SERVER_DATA) + "/" + folder + "/" + name + ".csv.zst");
    }
    return files;
}

} // namespace ps_ns::golden
