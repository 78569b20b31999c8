#include "rename_bench.h"

#include "composite_price/fixed_point.h"
#include "config/config.h"
#include "mds/recording_row.h"
#include "mds/replay_source.h"
#include "price_unifier/source/composite_instrument_subscription.h"
#include "server/rename_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace ps_ns::testing
{

std::vector<TimedRename> ReadRealRenames()
{
    const RenameFile file = ReadRenameFile(std::string(PRICE_SERVER_DATA) + "/renames/symbol_renames.csv");
    for (const ConfigProblem& problem : file.problems)
    {
        ADD_FAILURE() << Describe("symbol_renames.csv", problem);
    }
    std::vector<TimedRename> renames;
    for (const RenameFile::Row& row : file.rows)
    {
        renames.push_back({row.time_ns, {-1, row.oldSymbol, row.newSymbol}});
    }
    return renames;
}

std::uint64_t EndOfDay(const std::string& day)
{
    return ParseLastDay(day).value();
}

RenameFolder::RenameFolder()
{
    std::string name = (std::filesystem::temp_directory_path() / "renames_XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr)
    {
        throw std::runtime_error("no temporary folder can be made: " + name);
    }
    m_path = name;
}

RenameFolder::~RenameFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string RenameFolder::Write(const std::string& name, const std::string& text) const
{
    const std::string path = (m_path / name).string();
    std::ofstream(path) << text;
    return path;
}

int RecordingWriter::GetBase(const std::string& symbol)
{
    static const std::map<std::string, int> kBases{{"GOOCV", 500}, {"GOOG", 1100}, {"FB", 190}, {"NWSA", 30}};
    return kBases.at(symbol);
}

void RecordingWriter::Add(std::uint64_t time_ns, const std::vector<std::string>& symbols)
{
    m_text = m_text.empty() ? std::string(kRecordingHeader) + "\n" : m_text;
    for (const std::string& symbol : symbols)
    {
        std::vector<std::uint64_t>& numbers = m_numbers[symbol];
        const std::string number = std::to_string(m_next);
        const std::string start = std::to_string(time_ns) + ",,US," + symbol + ",";
        // Each book has a bid of its own size, and an ask that wanders within the range.
        const std::string event = numbers.empty() ? "snap" : "book";
        const std::string level = numbers.empty() ? "0" : "";
        const std::string bid = std::to_string(GetBase(symbol)) + ".25";
        const std::string ask = std::to_string(GetBase(symbol) + 1 + static_cast<int>(m_next % 8)) + ".5";
        m_text += start + event + ",B," + level + "," + bid + "," + number + "," + number + ",0\n";
        m_text += start + event + ",S," + level + "," + ask + "," + number + "," + number + ",1\n";
        m_text += start + "trade,B,," + bid + ",1," + number + ",1\n";
        numbers.push_back(m_next++);
    }
}

std::vector<std::uint64_t> GetNumbers(const std::vector<std::shared_ptr<const MergedOrderBook>>& books)
{
    std::vector<std::uint64_t> numbers;
    for (const auto& book : books)
    {
        numbers.push_back(book->venueSequence);
    }
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers;
}

bool AreAllOf(const std::string& symbol, const std::vector<std::shared_ptr<const MergedOrderBook>>& books)
{
    const std::int64_t low = RecordingWriter::GetBase(symbol) * kPriceUnitsPerOne;
    const std::int64_t high = low + 10 * kPriceUnitsPerOne;
    return std::all_of(books.begin(), books.end(),
                       [&](const auto& book)
                       {
                           const auto isInRange = [&](const BookSide<MergedOrderBook::Level>& side)
                           {
                               const auto levels = side.GetLevels();
                               return side.count != 0 &&
                                      std::all_of(levels.begin(), levels.end(),
                                                  [&](const auto& level)
                                                  { return level.price >= low && level.price < high; });
                           };
                           return isInRange(book->bids) && isInRange(book->asks);
                       });
}

CompositeInstrumentDef MakeUsDef(std::uint64_t identity, const std::string& symbol)
{
    CompositeInstrumentDef def;
    def.instrumentId = identity;
    def.marketId = 1;
    def.instrument = {symbol, "US"};
    return def;
}

RenameBench::RenameBench(const RecordingWriter& recording, std::vector<TimedRename> renames, bool startsProvider)
{
    const MarketTable markets({{1, "US", 10, 100, 0}});
    MdsOptions options;
    options.isHandDriven = true;
    options.renames = std::move(renames);
    options.renameStep = [this](const auto& together, const auto& make) { MakeStep(together, make); };
    ReplayOptions replay;
    replay.files = {m_folder.Write("us.csv", recording.GetText())};
    provider = std::make_shared<MdsProvider>(std::make_unique<ReplaySource>(replay, markets), options);
    simple = std::make_unique<SimpleSubscriptionMgr>(markets, executors, std::make_shared<AsyncDispatcher>("test"));
    simple->AddProvider(provider);
    manager = std::make_unique<CompositeSubscriptionMgr>(simple.get());
    manager->UnitTestInit(Config::LoadText("<PriceServer/>", "test"), &queue.Get(),
                          std::make_shared<DefaultCompositePriceFactory>());
    relay = std::make_unique<RenameRelay>(*manager, queue.Get(), clients, [this] { executors->RunAll(); });
    if (startsProvider)
    {
        provider->Start();
    }
}

RenameBench::~RenameBench()
{
    manager->Shutdown();
    provider->Stop();
    queue.RunAll();
    queue.Get().shutdown();
    executors->Stop();
    relay.reset();
    manager.reset();
    simple.reset();
}

/// As RenameRelay::Run, but that the test's thread is the queue's too.
void RenameBench::MakeStep(const std::vector<SymbolRename>& renames, const std::function<void()>& make)
{
    bool isDone = false;
    relay->Post(renames, make, [&isDone] { isDone = true; });
    for (int task = 0; !isDone; ++task)
    {
        ++tasksOfRenames;
        beforeTask(task);
        ASSERT_TRUE(queue.RunOne());
    }
}

std::shared_ptr<RecordingObserver> RenameBench::SubscribeDirect(const CompositeInstrumentDef& def)
{
    const auto observer = std::make_shared<RecordingObserver>("D" + def.GetSymbol(), events, &queue.Get());
    EXPECT_EQ(manager->Subscribe(def, {5, 0, true, false}, observer, 1).second,
              ps_messages_ns::SubscriptionResult::Accepted);
    Run();
    return observer;
}

std::shared_ptr<RecordingFlexibleObserver> RenameBench::SubscribeFlexible(const CompositeInstrumentDef& def,
                                                                          unsigned long id)
{
    const auto observer = std::make_shared<RecordingFlexibleObserver>("F" + def.GetSymbol(), events, &queue.Get());
    manager->Subscribe(def, {5, 0, true, false}, factory, observer, id);
    Run();
    return observer;
}

void RenameBench::Run()
{
    while (queue.RunAll() + executors->RunAll() != 0)
    {
    }
}

void RenameBench::Play()
{
    while (provider->Step())
    {
        Run();
    }
}

void RenameBench::Play(int messages)
{
    for (; messages > 0; --messages)
    {
        ASSERT_TRUE(provider->Step());
        Run();
    }
}

CompositeInstrumentSubscription* RenameBench::Live(const CompositeInstrumentDef& def)
{
    return CompositeSubscriptionMgrTestAccess(*manager).Subscriptions().at(CompositeInstrumentID(def));
}

} // namespace ps_ns::testing
