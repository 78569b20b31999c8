#include "replay_by_hand.h"

#include "keep.h"
#include "mds/byte_stream.h"

#include <array>
#include <charconv>
#include <functional>
#include <istream>
#include <map>
#include <memory>
#include <streambuf>
#include <string_view>
#include <unordered_map>

namespace compare
{
namespace
{

class Decompressed final : public std::streambuf
{
public:
    explicit Decompressed(const std::string& path)
        : m_stream(ps_ns::OpenByteStream(path))
    {
    }

private:
    int_type underflow() override
    {
        const std::size_t got = m_stream->Read(m_buffer.data(), m_buffer.size());
        setg(m_buffer.data(), m_buffer.data(), m_buffer.data() + got);
        return got == 0 ? traits_type::eof() : traits_type::to_int_type(m_buffer[0]);
    }

    const std::unique_ptr<ps_ns::ByteStream> m_stream;
    std::array<char, 64 * 1024> m_buffer{};
};

struct Level
{
    double price;
    double quantity;
};

struct TopOfBook
{
    std::uint64_t time_ns = 0;
    std::uint64_t sequence = 0;
    std::vector<Level> bids;
    std::vector<Level> asks;
};

class IObserver
{
public:
    virtual ~IObserver() = default;
    virtual void OnBook(const std::shared_ptr<const TopOfBook>& book) = 0;
};

class CountingObserver final : public IObserver
{
public:
    void OnBook(const std::shared_ptr<const TopOfBook>& book) override
    {
        m_last = book;
        ++m_books;
    }
    std::uint64_t GetBooks() const noexcept { return m_books; }

private:
    std::shared_ptr<const TopOfBook> m_last;
    std::uint64_t m_books = 0;
};

struct Book
{
    std::map<double, double, std::greater<>> bids;
    std::map<double, double> asks;
    bool inImage = false;
};

enum Column
{
    kTime = 0,
    kMarket = 2,
    kSymbol = 3,
    kEvent = 4,
    kSide = 5,
    kPrice = 7,
    kQuantity = 8,
    kSequence = 9,
    kLast = 10,
    kColumns = 11
};
using Row = std::array<std::string_view, kColumns>;

Row Split(std::string_view line)
{
    Row row;
    for (std::string_view& column : row)
    {
        const std::size_t comma = line.find(',');
        column = line.substr(0, comma);
        line = comma == std::string_view::npos ? std::string_view() : line.substr(comma + 1);
    }
    return row;
}

template <class Number>
Number To(std::string_view text)
{
    Number number{};
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

template <class Levels>
void Set(Levels& levels, double price, double quantity)
{
    if (quantity == 0)
    {
        levels.erase(price);
    }
    else
    {
        levels[price] = quantity;
    }
}

template <class Levels>
std::vector<Level> FirstTen(const Levels& levels)
{
    std::vector<Level> ten;
    ten.reserve(10);
    for (auto level = levels.begin(); level != levels.end() && ten.size() < 10; ++level)
    {
        ten.push_back({level->first, level->second});
    }
    return ten;
}

void Apply(Book& book, const Row& row)
{
    if (row[kEvent] == "snap" && !book.inImage)
    {
        book.bids.clear();
        book.asks.clear();
        book.inImage = true;
    }
    const auto price = To<double>(row[kPrice]);
    const auto quantity = To<double>(row[kQuantity]);
    row[kSide] == "B" ? Set(book.bids, price, quantity) : Set(book.asks, price, quantity);
}

} // namespace

std::uint64_t ReplayByHand(const std::vector<std::string>& files)
{
    CountingObserver counting;
    IObserver* observer = &counting;
    Keep(observer); // whose class the loop does not know
    std::unordered_map<std::string, Book> books;
    for (const std::string& file : files)
    {
        Decompressed decompressed(file);
        std::istream stream(&decompressed);
        std::string line;
        std::getline(stream, line); // the header
        while (std::getline(stream, line))
        {
            const Row row = Split(line);
            if (row[kEvent] == "trade")
            {
                continue;
            }
            Book& book = books[std::string(row[kMarket]) + "," + std::string(row[kSymbol])];
            Apply(book, row);
            if (row[kLast] == "1")
            {
                book.inImage = false;
                observer->OnBook(std::make_shared<const TopOfBook>(
                    TopOfBook{To<std::uint64_t>(row[kTime]), To<std::uint64_t>(row[kSequence]), FirstTen(book.bids),
                              FirstTen(book.asks)}));
            }
        }
    }
    return counting.GetBooks();
}

} // namespace compare
