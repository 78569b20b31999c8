#include "broker/soak.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <thread>

namespace ps_ns::broker_soak
{
namespace
{

using Clock = std::chrono::steady_clock;
constexpr auto kPatience = std::chrono::seconds(30);
constexpr unsigned kStep = 5;   // instruments that are renamed at one moment, the last one to the first one's old name
constexpr unsigned kBatch = 20; // steps between two comparisons
constexpr std::uint64_t kBetween = 40; // messages between two steps

bool WaitForSymbols(const Chain& chain, const std::set<std::string>& symbols)
{
    const auto deadline = Clock::now() + kPatience;
    while (Clock::now() < deadline)
    {
        std::set<std::string> known;
        for (const DirectoryEntry& entry : chain.server.GetDirectoryEntries())
        {
            known.insert(entry.symbol);
        }
        if (known == symbols)
        {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

} // namespace

/// Names pass from one instrument to the next under flow; clients' books stay their instruments'.
bool RunRenames(const SoakOptions& options)
{
    Verdict verdict;
    Chain chain(options);
    chain.SubscribeAll();
    std::vector<std::string> symbols;
    for (std::size_t i = 0; i < options.instruments; ++i)
    {
        symbols.push_back(GetSymbol(i));
    }
    SeededRandom random(options.seed);
    unsigned made = 0;
    double longest_ms = 0;
    for (unsigned step = 1; made < options.renames; ++step)
    {
        const auto first =
            static_cast<std::size_t>(random.Below(static_cast<std::int64_t>(options.instruments - kStep)));
        chain.flow.WaitForMessages(kBetween);
        std::vector<SymbolRename> renames;
        for (unsigned i = 0; i < kStep; ++i)
        {
            const bool passesOn = i + 1 < kStep;
            renames.push_back(
                {kMarketId, symbols[first + i], passesOn ? symbols[first + i + 1] : "R" + std::to_string(step)});
        }
        chain.flow.RunOnThread([&](ZelPublisher& publisher)
                               { made += static_cast<unsigned>(publisher.Rename(renames).size()); });
        for (unsigned i = 0; i < kStep; ++i)
        {
            symbols[first + i] = renames[i].newSymbol;
        }
        if (step % kBatch != 0 && made < options.renames)
        {
            continue;
        }
        const auto begin = Clock::now();
        if (!WaitForSymbols(chain, {symbols.begin(), symbols.end()}))
        {
            verdict.Fail("the names are not the publisher's after " + std::to_string(made) + " renames");
        }
        std::string difference;
        if (!chain.WaitUntilBooksAreEqual(Clock::now() + kPatience, difference))
        {
            verdict.Fail("after " + std::to_string(made) + " renames " + difference);
        }
        longest_ms = std::max(longest_ms, std::chrono::duration<double, std::milli>(Clock::now() - begin).count());
    }
    std::printf("%u renames in steps of %u; the longest wait for %u steps and equal books: %.0f ms\n", made, kStep,
                kBatch, longest_ms);
    chain.CheckClients(verdict);
    return verdict.IsGood();
}

} // namespace ps_ns::broker_soak
