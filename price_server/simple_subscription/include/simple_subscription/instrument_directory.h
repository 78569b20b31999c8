#pragma once

#include "composite_instrument/price_format.h"
#include "composite_instrument/submarket.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace ps_ns
{

/// One instrument that a provider serves.
struct DirectoryEntry
{
    Submarket submarket;
    std::string symbol;
    std::string exchange;    ///< the venue, for people
    std::string description; ///< for people; may be empty
    PriceFormat format;
    /// The symbol that it was added under, which renames leave alone: what the instrument is known by for good. Filled
    /// in by the directory when empty.
    std::string firstSymbol{};
};

/// The instruments of one provider. A symbol is known once within a market.
///
/// Threads: any; guarded by a lock of its own.
class InstrumentDirectory
{
public:
    /// Adds an instrument, or replaces the one of the same market and symbol. Counts the market as one it can know.
    void Add(const DirectoryEntry& entry);
    /// The same for many at one moment: nobody sees some of them without the others.
    void AddAll(const std::vector<DirectoryEntry>& entries);

    /// Gives an instrument another symbol; false when the old one is not known. What had the new symbol is replaced.
    bool Rename(short marketId, const std::string& oldSymbol, const std::string& newSymbol);

    /// Declares a market whose instruments this directory can know.
    void AddMarket(short marketId);

    /// All instruments of the market have been added.
    void MarkComplete(short marketId);

    bool CanKnow(short marketId) const;
    bool IsComplete(short marketId) const;
    /// It can know the market, and there may be more to come.
    bool IsReading(short marketId) const;

    /// The entry; `submarketId` -1 on either side matches any.
    std::optional<DirectoryEntry> Find(short marketId, short submarketId, const std::string& symbol) const;
    /// Is there one? Nothing is copied.
    bool Has(short marketId, short submarketId, const std::string& symbol) const;

    std::size_t GetSize() const;
    /// Both grow after what they count: who has read them and then the entries has not missed what they count.
    std::uint64_t GetVersion() const noexcept { return m_version.load(); } ///< additions, changes, renames
    /// Of entries that were there: what was read before may name another instrument by now.
    std::uint64_t GetChangeCount() const noexcept { return m_changes.load(); }

    /// A copy of all entries, by market and symbol.
    std::vector<DirectoryEntry> GetEntries() const;

private:
    /// Under m_mutex. Null: there is none.
    const DirectoryEntry* FindEntry(short marketId, short submarketId, const std::string& symbol) const;

    std::atomic<std::uint64_t> m_version{0};
    std::atomic<std::uint64_t> m_changes{0};
    mutable std::mutex m_mutex;
    std::unordered_map<short, std::unordered_map<std::string, DirectoryEntry>> m_entries; ///< under m_mutex
    std::unordered_set<short> m_complete;                                                 ///< under m_mutex
};

} // namespace ps_ns
