#include "zel/lease_keeper.h"

#include "zel/subject_token.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{

LeaseKeeper::LeaseKeeper(ILeaseStore& store, LeaseOptions options, Events events)
    : m_store(store)
    , m_options(std::move(options))
    , m_events(std::move(events))
    , m_shards(m_options.shards)
    , m_answeredAt(store.GetStoreCount())
    , m_value(EscapeToken(m_options.session) + ' ' + EscapeToken(m_options.server) + ' ' +
              EscapeToken(m_options.address))
{
    for (Shard& shard : m_shards)
    {
        shard.cells.resize(store.GetStoreCount());
    }
}

void LeaseKeeper::Tick(TimePoint now)
{
    CheckClock(now);
    TakeAnswers(now);
    ForgetServers(now);
    m_turns = PlanTurns(now);
    for (std::uint32_t number = 0; number < m_options.shards; ++number)
    {
        CheckShard(number, now);
    }
    Balance(now);
    TellOthers(now);
    std::erase_if(m_questions, [&](const auto& asked) { return now - asked.second.sentAt > 2 * m_options.lease; });
}

void LeaseKeeper::Leave(TimePoint now)
{
    m_isLeaving = true;
    for (std::uint32_t number = 0; number < m_options.shards; ++number)
    {
        Shard& shard = m_shards[number];
        if (shard.state == State::Held)
        {
            GiveBack(number, now);
        }
        else if (shard.state == State::Claimed) // what of it is still on its way is given back when it is there
        {
            LetGo(number, now);
        }
    }
    TellOthers(now);
}

/// Time that this server has not looked at counts for little: whether it was short of processors or its clock has
/// leapt, what it watches looks unchanged for as much less. What it holds ends by its clock, the sooner the better.
void LeaseKeeper::CheckClock(TimePoint now)
{
    const std::optional<TimePoint> last = std::exchange(m_lastTick, now);
    const auto counted = m_options.GetTakeover() - m_options.lease;
    if (!last || (now >= *last && now - *last <= counted))
    {
        return;
    }
    if (now < *last)
    {
        return StartAnew(now);
    }
    const auto uncounted = now - *last - counted;
    for (auto& [session, server] : m_servers)
    {
        server.heardAt += uncounted;
    }
    for (Shard& shard : m_shards)
    {
        for (Cell& cell : shard.cells)
        {
            cell.since += uncounted;
        }
    }
}

/// What was seen before a leap back says nothing about how long ago it was.
void LeaseKeeper::StartAnew(TimePoint now)
{
    m_questions.clear();
    m_nextNotice = m_nextBalance = now;
    std::fill(m_answeredAt.begin(), m_answeredAt.end(), TimePoint{});
    for (auto& [session, server] : m_servers)
    {
        server.heardAt = now; // each has its time again to be heard
    }
    for (std::uint32_t number = 0; number < m_options.shards; ++number)
    {
        if (m_shards[number].state == State::Held)
        {
            Lose(number, now);
            continue;
        }
        Watch(number, now);
        m_shards[number].notBefore = now;
    }
}

// --- What comes in ---------------------------------------------------------------------------------------------------

void LeaseKeeper::TakeAnswers(TimePoint now)
{
    while (std::optional<ILeaseStore::Answer> answer = m_store.TakeAnswer())
    {
        if (answer->kind == ILeaseStore::Answer::Kind::Notice)
        {
            OnNotice(answer->entry.value, now);
            continue;
        }
        const auto asked = m_questions.find(answer->ticket);
        if (asked != m_questions.end())
        {
            const Question question = asked->second;
            m_questions.erase(asked);
            OnAnswer(question, std::move(*answer), now);
        }
    }
}

void LeaseKeeper::OnAnswer(const Question& question, ILeaseStore::Answer answer, TimePoint now)
{
    using Kind = ILeaseStore::Answer::Kind;
    if (answer.kind != Kind::Failed)
    {
        m_answeredAt[question.store] = now;
    }
    if (question.shard == kNoShard)
    {
        return;
    }
    switch (answer.kind)
    {
    case Kind::Read:
        return OnRead(question, std::move(answer.entry), now);
    case Kind::Written:
        return OnWritten(question, answer.entry.revision, now);
    case Kind::Refused: // by now the key is another one than we knew
    case Kind::Failed:
        m_shards[question.shard].cells[question.store].entry.reset();
        break;
    case Kind::Notice:
        break;
    }
    if (answer.kind == Kind::Refused)
    {
        Ask(question.shard, question.store, now);
    }
}

void LeaseKeeper::OnNotice(const std::string& text, TimePoint now)
{
    std::optional<ServerNotice> notice = ReadNotice(text);
    if (!notice || notice->session == m_options.session)
    {
        return;
    }
    if (notice->isLeaving)
    {
        m_servers.erase(notice->session);
        return;
    }
    std::erase_if(notice->shards, [this](std::uint32_t shard) { return shard >= m_options.shards; });
    Server& server = m_servers[notice->session];
    server.notice = std::move(*notice);
    server.heardAt = now;
}

void LeaseKeeper::OnRead(const Question& question, LeaseEntry entry, TimePoint now)
{
    Shard& shard = m_shards[question.shard];
    Cell& cell = shard.cells[question.store];
    if (!cell.entry || *cell.entry != entry)
    {
        cell.entry = std::move(entry);
        cell.since = now;
    }
    if (IsOwn(*cell.entry) && (shard.state == State::Watched || shard.state == State::Attended))
    {
        Write(question.shard, question.store, true, now); // left over from what is held no more
    }
}

void LeaseKeeper::OnWritten(const Question& question, std::uint64_t revision, TimePoint now)
{
    Shard& shard = m_shards[question.shard];
    Cell& cell = shard.cells[question.store];
    cell.entry = {revision, question.isRelease ? "" : m_value};
    cell.since = now;
    if (question.isRelease)
    {
        return;
    }
    if (shard.state != State::Claimed && shard.state != State::Held)
    {
        Write(question.shard, question.store, true, now); // too late
        return;
    }
    cell.isWritten = cell.isWritten || question.sentAt == shard.roundBegan;
    const auto written =
        std::count_if(shard.cells.begin(), shard.cells.end(), [](const Cell& other) { return other.isWritten; });
    const TimePoint validUntil = shard.roundBegan + m_options.lease;
    if (IsMajority(static_cast<unsigned>(written)) && validUntil > now && validUntil > shard.validUntil)
    {
        shard.validUntil = validUntil;
        ++m_counts.renewals;
        if (shard.state == State::Claimed)
        {
            Gain(question.shard, now);
        }
    }
}

void LeaseKeeper::ForgetServers(TimePoint now)
{
    std::erase_if(m_servers, [&](const auto& server) { return now - server.second.heardAt > m_options.GetDeath(); });
}

// --- All of them -----------------------------------------------------------------------------------------------------

/// One at a time, and only while all are attended: what has been given up must have been taken first.
void LeaseKeeper::Balance(TimePoint now)
{
    if (m_isLeaving || now < m_nextBalance || m_servers.empty())
    {
        return;
    }
    std::size_t least = m_options.shards;
    std::pair<std::size_t, std::string> largest{GetHeldCount(), m_options.session};
    for (const auto& [session, server] : m_servers)
    {
        if (!IsFresh(server, now))
        {
            return; // who may be dead is waited for
        }
        least = std::min(least, server.notice.shards.size());
        largest = std::max(largest, std::pair(server.notice.shards.size(), session));
    }
    const auto isOpen = [&](std::uint32_t number)
    { return m_shards[number].state != State::Held && !IsAttended(number, now); };
    for (std::uint32_t number = 0; number < m_options.shards; ++number)
    {
        if (isOpen(number))
        {
            return;
        }
    }
    if (largest.second != m_options.session || largest.first < least + 2)
    {
        return;
    }
    m_nextBalance = now + m_options.GetRenewal();
    for (std::uint32_t number = m_options.shards; number-- > 0;)
    {
        if (m_shards[number].state == State::Held)
        {
            return GiveBack(number, now);
        }
    }
}

std::vector<bool> LeaseKeeper::PlanTurns(TimePoint now) const
{
    std::map<std::string, std::size_t> counts;
    for (const auto& [session, server] : m_servers)
    {
        if (IsFresh(server, now))
        {
            counts[session] = server.notice.shards.size();
        }
    }
    std::size_t& own = counts[m_options.session];
    own = static_cast<std::size_t>(
        std::count_if(m_shards.begin(), m_shards.end(),
                      [](const Shard& shard) { return shard.state == State::Held || shard.state == State::Claimed; }));
    std::vector<bool> turns(m_options.shards, false);
    for (std::uint32_t number = 0; number < m_options.shards; ++number)
    {
        const Shard& shard = m_shards[number];
        if (shard.state == State::Held || shard.state == State::Claimed || IsAttended(number, now))
        {
            continue;
        }
        const auto next =
            std::min_element(counts.begin(), counts.end(),
                             [](const auto& left, const auto& right) { return left.second < right.second; });
        ++next->second;
        // Who should have taken it may not be able to: then anybody may, one after the other.
        const auto patience = 2 * m_options.GetTakeover() + GetPlace() * m_options.GetRenewal();
        turns[number] =
            next->first == m_options.session || (shard.state == State::Watched && now - shard.since > patience);
    }
    return turns;
}

bool LeaseKeeper::IsAttended(std::uint32_t number, TimePoint now) const
{
    return std::any_of(m_servers.begin(), m_servers.end(),
                       [&](const auto& server)
                       {
                           const auto& shards = server.second.notice.shards;
                           return IsFresh(server.second, now) &&
                                  std::binary_search(shards.begin(), shards.end(), number);
                       });
}

/// A server that does not get at the stores is silent: nobody gives it anything then.
void LeaseKeeper::TellOthers(TimePoint now)
{
    if (!m_hasNews && now < m_nextNotice)
    {
        return;
    }
    m_hasNews = false;
    m_nextNotice = now + m_options.GetNotice();
    if (IsAble(now) || m_isLeaving)
    {
        m_store.Tell(WriteNotice(MakeNotice()));
    }
    if (!m_isLeaving)
    {
        for (unsigned store = 0; store < m_store.GetStoreCount(); ++store)
        {
            Ask(kNoShard, store, now);
        }
    }
}

bool LeaseKeeper::IsAble(TimePoint now) const
{
    return IsMajority(static_cast<unsigned>(std::count_if(
        m_answeredAt.begin(), m_answeredAt.end(),
        [&](TimePoint answeredAt) { return answeredAt != TimePoint{} && now - answeredAt < m_options.lease; })));
}

ServerNotice LeaseKeeper::MakeNotice() const
{
    ServerNotice notice{m_options.session, m_options.server, m_options.address, m_isLeaving, {}};
    for (std::uint32_t number = 0; number < m_options.shards; ++number)
    {
        if (m_shards[number].state == State::Held)
        {
            notice.shards.push_back(number);
        }
    }
    return notice;
}

ShardView LeaseKeeper::GetView() const
{
    ShardView view{m_options.shards, m_options.server, {}, {MakeNotice()}, m_counts};
    view.held = view.servers.front().shards;
    for (const auto& [session, server] : m_servers)
    {
        if (m_lastTick && IsFresh(server, *m_lastTick))
        {
            view.servers.push_back(server.notice);
        }
    }
    return view;
}

std::uint32_t LeaseKeeper::GetHeldCount() const
{
    return static_cast<std::uint32_t>(
        std::count_if(m_shards.begin(), m_shards.end(), [](const Shard& shard) { return shard.state == State::Held; }));
}

unsigned LeaseKeeper::GetPlace() const
{
    return static_cast<unsigned>(std::distance(m_servers.begin(), m_servers.lower_bound(m_options.session)));
}

// --- The stores ------------------------------------------------------------------------------------------------------

bool LeaseKeeper::IsRipe(const Cell& cell, TimePoint now) const
{
    const bool isGivenBack = cell.entry && cell.entry->revision != 0 && cell.entry->value.empty();
    return isGivenBack || (cell.entry && now - cell.since >= m_options.GetTakeover());
}

bool LeaseKeeper::IsOwn(const LeaseEntry& entry) const
{
    return entry.revision != 0 && entry.value == m_value;
}

void LeaseKeeper::Ask(std::uint32_t number, unsigned store, TimePoint now)
{
    m_questions[++m_lastTicket] = {number, store, false, now};
    m_store.Read(m_lastTicket, store, number == kNoShard ? "servers" : MakeKey(number));
}

void LeaseKeeper::AskAll(std::uint32_t number, TimePoint now)
{
    m_shards[number].roundBegan = now;
    for (unsigned store = 0; store < m_store.GetStoreCount(); ++store)
    {
        Ask(number, store, now);
    }
}

/// Over the revision that is known.
void LeaseKeeper::Write(std::uint32_t number, unsigned store, bool isRelease, TimePoint now)
{
    m_questions[++m_lastTicket] = {number, store, isRelease, now};
    m_store.Write(m_lastTicket, store, MakeKey(number), isRelease ? "" : m_value,
                  m_shards[number].cells[store].entry->revision);
}

} // namespace ps_ns
