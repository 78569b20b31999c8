#pragma once

#include "zel/i_lease_store.h"
#include "zel/server_notice.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace ps_ns
{

struct LeaseOptions
{
    using Duration = std::chrono::milliseconds;

    std::uint32_t shards = 1;
    std::string server;  ///< what the server is called; people read it
    std::string session; ///< of this run of it; no two are the same
    std::string address; ///< of its gateway, for those who ask where an instrument is served
    /// A lease that has not been renewed for so long has ended for its holder.
    Duration lease{800};
    /// So long must a lease not have been renewed before another may have it. Longer than `lease`: the difference is
    /// for clocks that go at different speeds.
    Duration GetTakeover() const { return lease * 5 / 4; }
    Duration GetRenewal() const { return lease / 4; }
    /// Servers tell each other of themselves this often, and think of who is silent for long as dead.
    Duration GetNotice() const { return lease / 5; }
    Duration GetSuspicion() const { return lease / 2; }
    Duration GetDeath() const { return lease * 9 / 8; }
};

/// What a server has done with its leases since the start.
struct LeaseCounts
{
    std::uint64_t renewals = 0;  ///< rounds that a majority of the stores has confirmed
    std::uint64_t takeovers = 0; ///< leases had
    std::uint64_t dead = 0;      ///< of those: of a holder that had not given them back
    std::uint64_t losses = 0;    ///< leases that ended because they could not be renewed
    std::uint64_t given = 0;     ///< leases given back
    std::uint64_t conflicts = 0; ///< attempts in which another server was faster
};

/// What a server knows of the shards, at one moment.
struct ShardView
{
    std::uint32_t shards = 0;          ///< in all
    std::string server;                ///< this one's name
    std::vector<std::uint32_t> held;   ///< by this one
    std::vector<ServerNotice> servers; ///< all that are heard, this one first
    LeaseCounts counts;
};

/// One server's part in dividing the shards among all servers. Pure logic: time and the stores' answers come in, writes
/// and gained and lost shards go out.
///
/// A lease is one key in each of several independent stores. It is held by who has written it in a majority of them, by
/// comparing revisions; so two servers never hold it at once:
///
/// | shard | this server | left by |
/// |---|---|---|
/// | attended | hears from another that it serves it, and does nothing | its server is silent for GetSuspicion, or does not name it any more: watched |
/// | watched | reads the key in all stores, again and again | a server names it: attended; unchanged in a majority of the stores for GetTakeover, or given back, and it is this server's turn: claimed |
/// | claimed | has written its name over the revisions that it saw | a majority has taken it: held; otherwise: what was written is given back, and watched |
/// | held | served; rewritten every GetRenewal | no majority for `lease`, counted from the sending of the last write that had one: watched; given up |
///
/// Why never two: a claim is made over revisions that were read at least GetTakeover ago. Two majorities have a store
/// in common. There the holder's last confirmed write came before that read, so it was sent before it, so the holder
/// has stopped GetTakeover - lease before the claim was made. A key that a restarted store has lost is unchanged as any
/// other, from the first read on. But revisions begin anew with it: when a majority of the stores restart within one
/// lease, what was written and lost between two reads may look unchanged, and a shard have two servers for as long as a
/// lease.
///
/// Whose turn: the shards that nobody attends go, in their order, to the server that has the fewest, of several the one
/// whose session comes first; all servers see much the same and come to the same plan, and where they do not, revisions
/// decide. When every shard is attended and the largest number of one server is two or more above the smallest, the
/// largest gives one up. So a newcomer gets its share one by one, and nothing else moves.
///
/// Threads: one.
class LeaseKeeper
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Duration = LeaseOptions::Duration;

    struct Events
    {
        std::function<void(std::uint32_t shard)> onGained; ///< from now on it is served here
        /// From now on it is not. Called before another server may have it.
        std::function<void(std::uint32_t shard)> onLost;
    };

    /// The store is not owned.
    LeaseKeeper(ILeaseStore& store, LeaseOptions options, Events events);

    /// To be called at least four times in GetRenewal, and when answers have come. Of a longer pause, or of a leap of
    /// the clock, no more than GetTakeover - lease counts for what is watched.
    void Tick(TimePoint now);

    /// Gives back what is held or claimed, says so to the others, and wants nothing more. Tick goes on until HasLeft,
    /// or patience ends: what could not be given back ends by itself.
    void Leave(TimePoint now);
    bool HasLeft() const noexcept { return m_isLeaving && m_questions.empty(); }

    bool Holds(std::uint32_t shard) const { return m_shards.at(shard).state == State::Held; }
    std::uint32_t GetHeldCount() const;
    /// Servers of which nothing has been heard lately are left out.
    ShardView GetView() const;
    const LeaseCounts& GetCounts() const noexcept { return m_counts; }
    /// Servers that are heard, this one included.
    std::size_t GetServerCount() const noexcept { return m_servers.size() + 1; }

private:
    enum class State : std::uint8_t
    {
        Attended,
        Watched,
        Claimed,
        Held
    };
    /// A key in one store, as far as it is known.
    struct Cell
    {
        std::optional<LeaseEntry> entry; ///< as last read or written
        TimePoint since{};               ///< when it was first known to be so
        bool isWritten = false;          ///< in the present round, by us
    };
    struct Shard
    {
        State state = State::Attended;
        TimePoint since{};          ///< in this state
        TimePoint roundBegan{};     ///< when the last writes or reads were sent
        TimePoint validUntil{};     ///< held
        TimePoint notBefore{};      ///< watched: no claim, after one that has failed
        bool wasLeftBehind = false; ///< claimed: a holder had not given it back
        std::vector<Cell> cells;
    };
    struct Server
    {
        ServerNotice notice;
        TimePoint heardAt{};
    };
    struct Question
    {
        std::uint32_t shard = kNoShard; ///< kNoShard: asked to see whether the store answers
        unsigned store = 0;
        bool isRelease = false;
        TimePoint sentAt{};
    };
    static constexpr std::uint32_t kNoShard = 0xffffffff;

    void TakeAnswers(TimePoint now);
    void OnAnswer(const Question& question, ILeaseStore::Answer answer, TimePoint now);
    void OnNotice(const std::string& text, TimePoint now);
    void OnRead(const Question& question, LeaseEntry entry, TimePoint now);
    void OnWritten(const Question& question, std::uint64_t revision, TimePoint now);
    void ForgetServers(TimePoint now);
    void CheckClock(TimePoint now);
    void StartAnew(TimePoint now);
    void CheckShard(std::uint32_t number, TimePoint now);
    void CheckHeld(std::uint32_t number, TimePoint now);
    void CheckWatched(std::uint32_t number, TimePoint now);
    void CheckClaimed(std::uint32_t number, TimePoint now);
    void Watch(std::uint32_t number, TimePoint now);
    void Claim(std::uint32_t number, TimePoint now);
    void Gain(std::uint32_t number, TimePoint now);
    void Renew(std::uint32_t number, TimePoint now);
    void Lose(std::uint32_t number, TimePoint now);
    void GiveBack(std::uint32_t number, TimePoint now);
    void LetGo(std::uint32_t number, TimePoint now);
    void Balance(TimePoint now);
    void TellOthers(TimePoint now);
    void Ask(std::uint32_t number, unsigned store, TimePoint now);
    void AskAll(std::uint32_t number, TimePoint now);
    void Write(std::uint32_t number, unsigned store, bool isRelease, TimePoint now);
    bool IsRipe(const Cell& cell, TimePoint now) const;
    bool IsOwn(const LeaseEntry& entry) const;
    bool IsFree(const LeaseEntry& entry) const { return entry.revision == 0 || entry.value.empty(); }
    bool IsFresh(const Server& server, TimePoint now) const { return now - server.heardAt < m_options.GetSuspicion(); }
    /// The stores answer: a majority of them.
    bool IsAble(TimePoint now) const;
    /// Of this server among all that are heard, by session.
    unsigned GetPlace() const;
    bool IsMajority(unsigned stores) const { return 2 * stores > m_store.GetStoreCount(); }
    bool IsAttended(std::uint32_t number, TimePoint now) const;
    /// Of the shards that nobody attends, those that this server should have.
    std::vector<bool> PlanTurns(TimePoint now) const;
    ServerNotice MakeNotice() const;
    static std::string MakeKey(std::uint32_t number) { return "shard." + std::to_string(number); }

    ILeaseStore& m_store;
    const LeaseOptions m_options;
    const Events m_events;
    std::vector<Shard> m_shards;
    std::map<std::string, Server> m_servers; ///< by session; without this one
    std::unordered_map<LeaseTicket, Question> m_questions;
    std::vector<bool> m_turns;           ///< of this tick
    std::vector<TimePoint> m_answeredAt; ///< by store
    const std::string m_value;           ///< what we write: session, server and address
    bool m_hasNews = true;               ///< to be told
    bool m_isLeaving = false;
    LeaseTicket m_lastTicket = 0;
    LeaseCounts m_counts;
    std::optional<TimePoint> m_lastTick;
    TimePoint m_nextNotice{};
    TimePoint m_nextBalance{};
};

} // namespace ps_ns
