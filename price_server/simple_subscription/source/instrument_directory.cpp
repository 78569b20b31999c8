#include "simple_subscription/instrument_directory.h"

#include <algorithm>
#include <tuple>

namespace ps_ns
{

void InstrumentDirectory::Add(const DirectoryEntry& entry)
{
    AddAll({entry});
}

void InstrumentDirectory::AddAll(const std::vector<DirectoryEntry>& entries)
{
    const std::lock_guard lock(m_mutex);
    for (const DirectoryEntry& entry : entries)
    {
        const auto [place, isNew] = m_entries[entry.submarket.marketId].try_emplace(entry.symbol);
        DirectoryEntry& added = place->second;
        m_changes += isNew ? 0U : 1U;
        added = entry;
        added.firstSymbol = entry.firstSymbol.empty() ? entry.symbol : entry.firstSymbol;
    }
    ++m_version;
}

bool InstrumentDirectory::Rename(short marketId, const std::string& oldSymbol, const std::string& newSymbol)
{
    const std::lock_guard lock(m_mutex);
    // Not operator[]: a market must not become known by a rename in it.
    const auto market = m_entries.find(marketId);
    if (market == m_entries.end())
    {
        return false;
    }
    auto& symbols = market->second;
    const auto found = symbols.find(oldSymbol);
    if (found == symbols.end())
    {
        return false;
    }
    DirectoryEntry entry = std::move(found->second);
    symbols.erase(found);
    entry.symbol = newSymbol;
    symbols[newSymbol] = std::move(entry);
    ++m_changes;
    ++m_version;
    return true;
}

void InstrumentDirectory::AddMarket(short marketId)
{
    const std::lock_guard lock(m_mutex);
    m_entries.try_emplace(marketId);
}

void InstrumentDirectory::MarkComplete(short marketId)
{
    const std::lock_guard lock(m_mutex);
    m_entries.try_emplace(marketId);
    m_complete.insert(marketId);
}

bool InstrumentDirectory::CanKnow(short marketId) const
{
    const std::lock_guard lock(m_mutex);
    return m_entries.count(marketId) != 0;
}

bool InstrumentDirectory::IsComplete(short marketId) const
{
    const std::lock_guard lock(m_mutex);
    return m_complete.count(marketId) != 0;
}

bool InstrumentDirectory::IsReading(short marketId) const
{
    const std::lock_guard lock(m_mutex);
    return m_entries.count(marketId) != 0 && m_complete.count(marketId) == 0;
}

const DirectoryEntry* InstrumentDirectory::FindEntry(short marketId, short submarketId, const std::string& symbol) const
{
    const auto market = m_entries.find(marketId);
    if (market == m_entries.end())
    {
        return nullptr;
    }
    const auto entry = market->second.find(symbol);
    if (entry == market->second.end())
    {
        return nullptr;
    }
    const short known = entry->second.submarket.submarketId;
    return known == submarketId || known == -1 || submarketId == -1 ? &entry->second : nullptr;
}

std::optional<DirectoryEntry> InstrumentDirectory::Find(short marketId, short submarketId,
                                                        const std::string& symbol) const
{
    const std::lock_guard lock(m_mutex);
    const DirectoryEntry* const entry = FindEntry(marketId, submarketId, symbol);
    return entry != nullptr ? std::optional(*entry) : std::nullopt;
}

bool InstrumentDirectory::Has(short marketId, short submarketId, const std::string& symbol) const
{
    const std::lock_guard lock(m_mutex);
    return FindEntry(marketId, submarketId, symbol) != nullptr;
}

std::size_t InstrumentDirectory::GetSize() const
{
    const std::lock_guard lock(m_mutex);
    std::size_t size = 0;
    for (const auto& [market, symbols] : m_entries)
    {
        size += symbols.size();
    }
    return size;
}

std::vector<DirectoryEntry> InstrumentDirectory::GetEntries() const
{
    std::vector<DirectoryEntry> entries;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& [market, symbols] : m_entries)
        {
            for (const auto& [symbol, entry] : symbols)
            {
                entries.push_back(entry);
            }
        }
    }
    std::sort(entries.begin(), entries.end(),
              [](const DirectoryEntry& a, const DirectoryEntry& b)
              { return std::tie(a.submarket.marketId, a.symbol) < std::tie(b.submarket.marketId, b.symbol); });
    return entries;
}

} // namespace ps_ns
