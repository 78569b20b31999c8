#pragma once

#include "mds/mds_provider.h"
#include "server/client_gate.h"
#include "server/rename_relay.h"
#include "testing/manager_bench.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace ps_ns::testing
{

/// Renames of the recorded data's file of real ones: when each old symbol ends.
std::vector<TimedRename> ReadRealRenames();
/// The first moment after a day in UTC, "2014-04-02".
std::uint64_t EndOfDay(const std::string& day);

/// A folder that is removed with its content.
class RenameFolder
{
public:
    RenameFolder();
    ~RenameFolder();
    RenameFolder(const RenameFolder&) = delete;
    RenameFolder& operator=(const RenameFolder&) = delete;
    std::string Write(const std::string& name, const std::string& text) const;

private:
    std::filesystem::path m_path;
};

/// Writes a recording of market "US". Each instrument quotes in a range of its own, [base, base + 10), so that a book
/// says whose it is; a message's number is the venue sequence of its book and the id of its trade.
class RecordingWriter
{
public:
    /// One book and one trade of each symbol, at one moment.
    void Add(std::uint64_t time_ns, const std::vector<std::string>& symbols);
    const std::string& GetText() const noexcept { return m_text; }
    /// The numbers of a symbol's messages.
    const std::vector<std::uint64_t>& GetNumbers(const std::string& symbol) const { return m_numbers.at(symbol); }
    /// The lower end of its range, in whole units.
    static int GetBase(const std::string& symbol);

private:
    std::string m_text;
    std::map<std::string, std::vector<std::uint64_t>> m_numbers;
    std::uint64_t m_next = 1;
};

/// What a client has got, without the books that come twice because a rename's image repeats the last one.
std::vector<std::uint64_t> GetNumbers(const std::vector<std::shared_ptr<const MergedOrderBook>>& books);
/// All levels lie in the symbol's range, and none is missing.
bool AreAllOf(const std::string& symbol, const std::vector<std::shared_ptr<const MergedOrderBook>>& books);

/// The instrument with an identity of its own, whatever it is called.
CompositeInstrumentDef MakeUsDef(std::uint64_t identity, const std::string& symbol);

/// A manager over a replay with renames, everything in the test's hand.
class RenameBench
{
public:
    RenameBench(const RecordingWriter& recording, std::vector<TimedRename> renames, bool startsProvider = true);
    ~RenameBench();
    RenameBench(const RenameBench&) = delete;
    RenameBench& operator=(const RenameBench&) = delete;

    std::shared_ptr<RecordingObserver> SubscribeDirect(const CompositeInstrumentDef& def);
    std::shared_ptr<RecordingFlexibleObserver> SubscribeFlexible(const CompositeInstrumentDef& def, unsigned long id);
    void Run();
    void Play();
    /// So many messages: a book and its trade are two.
    void Play(int messages);
    std::vector<std::string> GetChangeLines() { return events.Filter("log 10 13 1 CompositeSubscriptionMgr::Change"); }
    CompositeInstrumentSubscription* Live(const CompositeInstrumentDef& def);

    /// Called before each of the queue's tasks while a rename is made, with their number from 0.
    std::function<void(int)> beforeTask = [](int) {};
    int tasksOfRenames = 0;

    EventLog events;
    LogCapture capture{events};
    HandDrivenTime time;
    ClientGate clients; // outlives the queue: a step that never runs lets go of it
    HandDrivenQueue queue;
    RecordingObserverFactory factory{events, &queue.Get()};
    std::shared_ptr<HandDrivenExecutors> executors = std::make_shared<HandDrivenExecutors>();
    std::shared_ptr<MdsProvider> provider;
    std::unique_ptr<SimpleSubscriptionMgr> simple;
    std::unique_ptr<CompositeSubscriptionMgr> manager;
    std::unique_ptr<RenameRelay> relay;

private:
    void MakeStep(const std::vector<SymbolRename>& renames, const std::function<void()>& make);

    RenameFolder m_folder;
};

} // namespace ps_ns::testing
