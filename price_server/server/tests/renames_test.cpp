#include "child_process.h"
#include "composite_instrument/local_observer_factory.h"
#include "composite_price/fixed_point.h"
#include "composite_price/merged_order_book.h"
#include "gateway/instrument_list.h"
#include "program_test_kit.h"
#include "server/exit_code.h"
#include "server/price_server.h"
#include "server/rename_file.h"

#include <boost/json.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

namespace ps_ns
{
namespace
{

using ::testing::HasSubstr;

template <class Condition>
bool WaitFor(Condition condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition() && std::chrono::steady_clock::now() < deadline)
    {
        std::this_thread::yield();
    }
    return condition();
}

constexpr std::uint64_t kMinute_ns = 60'000'000'000;
constexpr int kRoundsBefore = 40;
constexpr int kRounds = 100;

/// Class C quotes from 500 on, class A from 1100 on; a round a minute, the 41st at midnight.
std::string MakeRecording()
{
    std::string text = "ts_ns,exch_ms,market,symbol,event,side,level,price,qty,seq,last\n";
    const std::uint64_t midnight_ns = ParseLastDay("2014-04-02").value();
    for (int round = 0; round < kRounds; ++round)
    {
        const std::uint64_t time_ns =
            midnight_ns - kRoundsBefore * kMinute_ns + static_cast<std::uint64_t>(round) * kMinute_ns;
        for (const auto& [symbol, price] : {std::pair("GOOCV", "500.5"), std::pair("GOOG", "1100.5")})
        {
            text += std::to_string(time_ns) + ",,US," + symbol + (round == 0 ? ",snap,B,0," : ",book,B,,") + price +
                    "," + std::to_string(round + 1) + "," + std::to_string(round + 1) + ",1\n";
        }
    }
    return text;
}

/// Keeps books. Threads: calls come one at a time; read when the executors have run dry.
class BookKeeper final : public IFlexiblePriceObserver
{
public:
    BookKeeper()
        : IFlexiblePriceObserver("keeper")
    {
    }
    void OnSubscribe(unsigned long, const CompositeInstrumentDef&, const EventInfo&, Result, unsigned long,
                     const PriceFormat&, CompositeComponentType::Type, const CompositeSubscriptionState& state) override
    {
        const std::lock_guard lock(m_mutex);
        m_symbol = state.symbol;
    }
    void OnChangeScope(unsigned long, const CompositeInstrumentDef&, Result) override {}
    void OnOrderBook(unsigned long, const CompositeInstrumentDef&,
                     const std::shared_ptr<const MergedOrderBook>& book) override
    {
        const std::lock_guard lock(m_mutex);
        m_books.push_back(book);
    }
    void OnTrades(unsigned long, const CompositeInstrumentDef&,
                  const std::shared_ptr<const std::vector<Trade>>&) override
    {
    }
    void OnCustomFields(unsigned long, const CompositeInstrumentDef&,
                        const std::shared_ptr<const CustomFields>&) override
    {
    }
    void OnUnsubscribe(unsigned long, const CompositeInstrumentDef&, Result, CompositeComponentType::Type,
                       const CompositeSubscriptionState&) override
    {
    }

    std::string GetSymbol() const
    {
        const std::lock_guard lock(m_mutex);
        return m_symbol;
    }
    std::size_t GetCount() const
    {
        const std::lock_guard lock(m_mutex);
        return m_books.size();
    }
    bool AllBidsAre(const char* price) const
    {
        const std::lock_guard lock(m_mutex);
        return std::all_of(m_books.begin(), m_books.end(),
                           [&](const auto& book) {
                               return book->bids.count == 1 &&
                                      book->bids.GetLevels()[0].price == ParsePrice(price).value();
                           });
    }
    /// The rounds, without the image that a rename repeats.
    std::size_t CountRounds() const
    {
        const std::lock_guard lock(m_mutex);
        std::vector<std::uint64_t> rounds;
        for (const auto& book : m_books)
        {
            rounds.push_back(book->venueSequence);
        }
        rounds.erase(std::unique(rounds.begin(), rounds.end()), rounds.end());
        return rounds.size();
    }

private:
    mutable std::mutex m_mutex;
    std::string m_symbol;
    std::vector<std::shared_ptr<const MergedOrderBook>> m_books;
};

class ServerRenames : public ::testing::Test
{
protected:
    static std::string RenamesFile() { return GetRecording("renames/symbol_renames.csv"); }

    std::shared_ptr<BookKeeper> Subscribe(PriceServer& server, const std::string& symbol, unsigned long id)
    {
        const auto instruments = ListInstruments(server.GetDirectoryEntries(), server.GetMarkets());
        const CompositeInstrumentDef def = MakeDefinition(FindInstrument(instruments, symbol));
        CompositeSubscriptionInfo scope;
        scope.depth = 5;
        auto keeper = std::make_shared<BookKeeper>();
        EXPECT_TRUE(server.TryRequest([&](CompositeSubscriptionMgr& manager)
                                      { manager.Subscribe(def, scope, m_factory, keeper, id); }));
        EXPECT_TRUE(WaitFor([&] { return !keeper->GetSymbol().empty(); }));
        return keeper;
    }

    const TemporaryFolder m_folder;
    const std::string m_recording = m_folder.Write("us.csv", MakeRecording());
    LocalObserverFactory m_factory;
};

TEST_F(ServerRenames, GoOnUnderTheNewSymbolsForThoseWhoAreSubscribedAndForThoseWhoCome)
{
    const std::string path = m_folder.Write(
        "server.xml", "<PriceServer><Logging level='100'/><Markets><Market id='4' name='US'/></Markets><Providers><Mds>"
                      "<Replay speed='0'><File path='us.csv'/></Replay><Renames><File path='" +
                          RenamesFile() + "'/></Renames></Mds></Providers></PriceServer>");
    PriceServerOptions options;
    options.holdsPrices = true;
    PriceServer server(LoadServerConfig(path), options);
    server.Start();
    ASSERT_TRUE(WaitFor([&] { return server.IsDirectoryComplete(); }));
    const auto classC = Subscribe(server, "GOOCV", 1);
    const auto classA = Subscribe(server, "GOOG", 2);
    server.ReleasePrices();
    ASSERT_TRUE(WaitFor([&] { return server.HasEnded(); }));

    // The one that is called GOOG now is the one that was GOOCV, by name and by identity.
    const auto laterC = Subscribe(server, "GOOG", 3);
    const auto laterA = Subscribe(server, "US:GOOGL", 4);
    EXPECT_TRUE(WaitFor([&] { return laterC->GetCount() != 0 && laterA->GetCount() != 0; }));
    server.DrainExecutors();
    EXPECT_EQ(laterC->GetSymbol(), "GOOG");
    EXPECT_EQ(laterA->GetSymbol(), "GOOGL");
    for (const auto& ofClassC : {classC, laterC})
    {
        EXPECT_TRUE(ofClassC->AllBidsAre("500.5"));
    }
    for (const auto& ofClassA : {classA, laterA})
    {
        EXPECT_TRUE(ofClassA->AllBidsAre("1100.5"));
    }
    EXPECT_EQ(classC->GetCount(), kRounds + 1U);
    EXPECT_EQ(classA->GetCount(), kRounds + 1U);
    EXPECT_EQ(classC->CountRounds(), static_cast<std::size_t>(kRounds));
    EXPECT_EQ(classA->CountRounds(), static_cast<std::size_t>(kRounds));
    server.TryRequest([&](CompositeSubscriptionMgr& manager)
                      { EXPECT_EQ(manager.GetSubscriptionCounts(), (std::pair<std::uint64_t, std::uint64_t>(0, 2))); });
    EXPECT_THROW(FindInstrument(ListInstruments(server.GetDirectoryEntries(), server.GetMarkets()), "GOOCV"),
                 UnknownInstrument);
}

TEST_F(ServerRenames, AreLoggedByTheProviderAndTheManager)
{
    ChildProcess program({"--replay", m_recording, "--renames", RenamesFile(), "--rename", "US:GOOGL", "ABC",
                          "2014-04-03T00:30:00Z", "--speed", "max", "--watch", "GOOCV", "GOOG", "--depth", "1"});
    ASSERT_EQ(program.WaitForExit(), ExitOk) << program.GetErrors();
    const std::string& log = program.GetErrors();
    EXPECT_THAT(log, HasSubstr("symbol renames: 3 to come, 1 over before the prices begin, 2 of symbols that are not "
                               "served"));
    const std::size_t changeOfA = log.find("waitingResponses=1 oldSymbol=\"GOOG\" newSymbol=\"GOOGL\"");
    const std::size_t changeOfC = log.find("waitingResponses=1 oldSymbol=\"GOOCV\" newSymbol=\"GOOG\"");
    const std::size_t second = log.find("Resubscribing. oldSymbol=\"GOOGL\" newSymbol=\"ABC\"");
    ASSERT_NE(changeOfA, std::string::npos) << log;
    ASSERT_NE(changeOfC, std::string::npos) << log;
    ASSERT_NE(second, std::string::npos) << log;
    EXPECT_LT(changeOfA, changeOfC);
    EXPECT_LT(changeOfC, second);

    std::map<std::string, std::size_t> books;
    std::istringstream lines(program.GetOutput());
    for (std::string line; std::getline(lines, line);)
    {
        const boost::json::object book = boost::json::parse(line).as_object();
        const std::string symbol(book.at("symbol").as_string());
        const auto price = book.at("bids").as_array().at(0).at("price").as_string();
        EXPECT_EQ(price, symbol == "GOOCV" ? "500.5" : "1100.5");
        ++books[symbol];
    }
    EXPECT_EQ(books["GOOCV"], kRounds + 1U);
    EXPECT_EQ(books["GOOG"], kRounds + 2U);
}

TEST_F(ServerRenames, EndTheProgramWhenTheirFileIsBadSayingWhere)
{
    const std::string file = m_folder.Write("bad.csv", std::string(kRenameFileHeader) + "\na,FB,META,2022-06-31,f\n");
    ChildProcess program({"--replay", m_recording, "--renames", file});
    EXPECT_EQ(program.WaitForExit(), ExitConfiguration);
    EXPECT_THAT(program.GetErrors(),
                HasSubstr(file + ":2: last_day_old_symbol \"2022-06-31\": expected is a day YYYY-MM-DD"));

    ChildProcess wrong({"--replay", m_recording, "--rename", "FB", "META", "soon"});
    EXPECT_EQ(wrong.WaitForExit(), ExitUsage);
    EXPECT_THAT(wrong.GetErrors(), HasSubstr("--rename FB META soon: \"soon\" is neither a day"));
}

TEST_F(ServerRenames, StopTheServerAsFastAsEverWhenItIsRenaming)
{
    ServerConfig config = MakeQuietConfig(1000);
    config.markets = {{1, "US"}};
    config.mds->simulation.reset();
    config.mds->replay.emplace();
    config.mds->replay->speed = 0;
    config.mds->replay->loop = true;
    config.mds->replay->files = {m_recording};
    const std::uint64_t midnight_ns = ParseLastDay("2014-04-02").value();
    for (std::uint64_t minute = 0; minute < 50; ++minute)
    {
        const std::uint64_t time_ns = midnight_ns + minute * kMinute_ns;
        config.mds->renames.push_back({std::nullopt, "GOOCV", "GOOG", time_ns});
        config.mds->renames.push_back({1, "GOOG", "GOOCV", time_ns});
    }
    for (int run = 0; run < 20; ++run)
    {
        PriceServer server(config);
        server.Start();
        ASSERT_TRUE(WaitFor([&] { return server.IsDirectoryComplete(); }));
        for (int look = 0; look < run; ++look)
        {
            std::this_thread::yield();
        }
        const auto begin = std::chrono::steady_clock::now();
        server.Stop();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)) << "run " << run;
    }
}

} // namespace
} // namespace ps_ns
