// The states of one shard; the table is in the header.
#include "zel/lease_keeper.h"

#include <algorithm>

namespace ps_ns
{

void LeaseKeeper::CheckShard(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    switch (shard.state)
    {
    case State::Held:
        return CheckHeld(number, now);
    case State::Claimed:
        return CheckClaimed(number, now);
    case State::Attended:
    case State::Watched:
        break;
    }
    if (IsAttended(number, now))
    {
        shard.state = State::Attended;
    }
    else if (shard.state == State::Attended)
    {
        Watch(number, now);
    }
    else
    {
        CheckWatched(number, now);
    }
}

void LeaseKeeper::Watch(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    shard.state = State::Watched;
    shard.since = now;
    for (Cell& cell : shard.cells)
    {
        cell = {};
    }
    AskAll(number, now);
}

void LeaseKeeper::CheckWatched(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    const auto ripe =
        std::count_if(shard.cells.begin(), shard.cells.end(), [&](const Cell& cell) { return IsRipe(cell, now); });
    if (!m_isLeaving && m_turns[number] && now >= shard.notBefore && IsMajority(static_cast<unsigned>(ripe)))
    {
        Claim(number, now);
    }
    else if (now - shard.roundBegan >= m_options.GetRenewal())
    {
        AskAll(number, now);
    }
}

void LeaseKeeper::Claim(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    shard.state = State::Claimed;
    shard.since = shard.roundBegan = now;
    shard.validUntil = {};
    shard.wasLeftBehind = false;
    for (unsigned store = 0; store < shard.cells.size(); ++store)
    {
        Cell& cell = shard.cells[store];
        cell.isWritten = false;
        if (IsRipe(cell, now))
        {
            shard.wasLeftBehind = shard.wasLeftBehind || !IsFree(*cell.entry);
            Write(number, store, false, now);
        }
    }
}

void LeaseKeeper::Gain(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    shard.state = State::Held;
    shard.since = now;
    ++m_counts.takeovers;
    m_counts.dead += shard.wasLeftBehind ? 1 : 0;
    m_hasNews = true;
    m_events.onGained(number);
}

/// Another was faster, or the stores do not answer: nobody is to wait for us.
void LeaseKeeper::CheckClaimed(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    if (now - shard.since < m_options.GetRenewal())
    {
        return;
    }
    ++m_counts.conflicts;
    LetGo(number, now);
    shard.notBefore = now + (1 + GetPlace()) * m_options.GetRenewal() / 2;
    Watch(number, now);
}

void LeaseKeeper::CheckHeld(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    if (now >= shard.validUntil)
    {
        Lose(number, now);
    }
    else if (now - shard.roundBegan >= m_options.GetRenewal())
    {
        Renew(number, now);
    }
}

void LeaseKeeper::Renew(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    shard.roundBegan = now;
    for (unsigned store = 0; store < shard.cells.size(); ++store)
    {
        Cell& cell = shard.cells[store];
        cell.isWritten = false;
        if (cell.entry && (IsOwn(*cell.entry) || IsFree(*cell.entry)))
        {
            Write(number, store, false, now);
        }
        else
        {
            Ask(number, store, now);
        }
    }
}

void LeaseKeeper::Lose(std::uint32_t number, TimePoint now)
{
    ++m_counts.losses;
    m_hasNews = true;
    m_events.onLost(number);
    Watch(number, now);
    m_shards[number].notBefore = now + m_options.GetTakeover();
}

void LeaseKeeper::GiveBack(std::uint32_t number, TimePoint now)
{
    ++m_counts.given;
    m_hasNews = true;
    m_events.onLost(number); // first
    m_shards[number].notBefore = now + m_options.GetTakeover();
    LetGo(number, now);
}

/// Claimed or held before: from now on watched, and what bears our name is given back.
void LeaseKeeper::LetGo(std::uint32_t number, TimePoint now)
{
    Shard& shard = m_shards[number];
    shard.state = State::Watched;
    shard.since = shard.roundBegan = now;
    for (unsigned store = 0; store < shard.cells.size(); ++store)
    {
        if (shard.cells[store].entry && IsOwn(*shard.cells[store].entry))
        {
            Write(number, store, true, now);
        }
    }
}

} // namespace ps_ns
