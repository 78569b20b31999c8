#include "zel_testing/lease_world.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace ps_ns::testing_ns
{
namespace
{

constexpr LeaseWorld::Duration kStep{5};
constexpr LeaseKeeper::TimePoint kBegin{std::chrono::hours(1)};

} // namespace

struct LeaseWorld::Server
{
    std::string name;
    bool isFrozen = false;
    bool isGone = false;
    bool isLeaving = false;
    bool isCutFromServers = false;
    std::vector<bool> isCutFrom; ///< by store
    std::chrono::microseconds clock{0};
    unsigned speed = 1000;
    std::deque<ILeaseStore::Answer> answers;
    std::set<std::uint32_t> serves;
    std::unique_ptr<ILeaseStore> client;
    std::unique_ptr<LeaseKeeper> keeper;

    LeaseKeeper::TimePoint GetNow() const { return kBegin + clock; }
};

class LeaseWorld::Client final : public ILeaseStore
{
public:
    Client(LeaseWorld& world, Server& server)
        : m_world(world)
        , m_server(server)
    {
    }

    unsigned GetStoreCount() const override { return static_cast<unsigned>(m_world.m_stores.size()); }
    void Read(LeaseTicket ticket, unsigned store, const std::string& key) override
    {
        Ask(ticket, store,
            [key](Store& asked)
            {
                const auto found = asked.keys.find(key);
                return Answer{Answer::Kind::Read, 0, found == asked.keys.end() ? LeaseEntry{} : found->second};
            });
    }
    void Write(LeaseTicket ticket, unsigned store, const std::string& key, const std::string& value,
               std::uint64_t expected) override
    {
        Ask(ticket, store,
            [key, value, expected](Store& asked)
            {
                LeaseEntry& entry = asked.keys[key];
                if (entry.revision != expected)
                {
                    return Answer{Answer::Kind::Refused, 0, {}};
                }
                entry = {++asked.sequence, value};
                return Answer{Answer::Kind::Written, 0, {entry.revision, {}}};
            });
    }
    void Tell(const std::string& notice) override
    {
        for (auto& [name, server] : m_world.m_servers)
        {
            m_world.After(
                [from = &m_server, to = server.get(), notice]
                {
                    if (!from->isCutFromServers && !to->isCutFromServers)
                    {
                        to->answers.push_back({Answer::Kind::Notice, 0, {0, notice}});
                    }
                });
        }
    }
    std::optional<Answer> TakeAnswer() override
    {
        if (m_server.answers.empty())
        {
            return std::nullopt;
        }
        Answer answer = std::move(m_server.answers.front());
        m_server.answers.pop_front();
        return answer;
    }
    void WaitForAnswer(std::chrono::milliseconds) override {}

private:
    /// There and back; each way may be cut.
    void Ask(LeaseTicket ticket, unsigned store, std::function<Answer(Store&)> act)
    {
        m_world.After(
            [this, ticket, store, act = std::move(act)]
            {
                Store& asked = m_world.m_stores[store];
                if (m_server.isCutFrom[store])
                {
                    return;
                }
                Answer answer = asked.isUp ? act(asked) : Answer{};
                answer.ticket = ticket;
                m_world.After(
                    [this, store, answer]
                    {
                        if (!m_server.isCutFrom[store])
                        {
                            m_server.answers.push_back(answer);
                        }
                    });
            });
    }

    LeaseWorld& m_world;
    Server& m_server;
};

LeaseWorld::LeaseWorld(unsigned stores, std::uint32_t shards, std::uint64_t seed)
    : m_shards(shards)
    , m_random(seed)
    , m_stores(stores)
{
}

LeaseWorld::~LeaseWorld() = default;

void LeaseWorld::StartServer(const std::string& name)
{
    auto server = std::make_unique<Server>();
    Server& made = *server;
    made.name = name;
    made.isCutFrom.assign(m_stores.size(), false);
    made.client = std::make_unique<Client>(*this, made);
    LeaseOptions options;
    options.shards = m_shards;
    options.server = name;
    options.session = name + "." + std::to_string(++m_runs);
    options.address = "http://" + name;
    options.lease = lease;
    made.keeper =
        std::make_unique<LeaseKeeper>(*made.client, options,
                                      LeaseKeeper::Events{[&made](std::uint32_t shard) { made.serves.insert(shard); },
                                                          [&made](std::uint32_t shard) { made.serves.erase(shard); }});
    m_servers[name] = std::move(server);
}

LeaseWorld::Server* LeaseWorld::Find(const std::string& name) const
{
    const auto found = m_servers.find(name);
    if (found == m_servers.end())
    {
        throw std::logic_error("there is no server " + name);
    }
    return found->second.get();
}

void LeaseWorld::KillServer(const std::string& name)
{
    Find(name)->isGone = true;
    m_gone.push_back(std::move(m_servers[name]));
    m_servers.erase(name);
}

void LeaseWorld::StopServer(const std::string& name)
{
    Server& server = *Find(name);
    server.isLeaving = true;
    server.keeper->Leave(server.GetNow());
}

void LeaseWorld::Freeze(const std::string& name)
{
    Find(name)->isFrozen = true;
}

void LeaseWorld::Thaw(const std::string& name)
{
    Find(name)->isFrozen = false;
    Find(name)->keeper->Tick(Find(name)->GetNow());
}

void LeaseWorld::LeapClock(const std::string& name, Duration by)
{
    Find(name)->clock += by;
}

void LeaseWorld::SetClockSpeed(const std::string& name, unsigned thousandths)
{
    Find(name)->speed = thousandths;
}

void LeaseWorld::KillStore(unsigned store)
{
    m_stores[store] = {false, m_stores[store].run + 1, 0, {}};
}

void LeaseWorld::StartStore(unsigned store)
{
    m_stores[store].isUp = true;
}

void LeaseWorld::CutFromStore(const std::string& name, unsigned store, bool isCut)
{
    Find(name)->isCutFrom[store] = isCut;
}

void LeaseWorld::CutFromServers(const std::string& name, bool isCut)
{
    Find(name)->isCutFromServers = isCut;
}

void LeaseWorld::After(std::function<void()> what)
{
    std::uniform_int_distribution<long> draw(1, std::max(1L, static_cast<long>(longestWay.count())));
    m_due.emplace(m_now + Duration(draw(m_random)), std::move(what));
}

void LeaseWorld::Pass(Duration time)
{
    for (const Duration end = m_now + time; m_now < end;)
    {
        m_now += kStep;
        while (!m_due.empty() && m_due.begin()->first <= m_now)
        {
            const auto what = std::move(m_due.begin()->second);
            m_due.erase(m_due.begin());
            what();
        }
        for (auto& [name, server] : m_servers)
        {
            server->clock += std::chrono::microseconds(kStep) * server->speed / 1000;
            if (!server->isFrozen)
            {
                server->keeper->Tick(server->GetNow());
                Look();
            }
        }
        for (auto server = m_servers.begin(); server != m_servers.end();)
        {
            if (!server->second->isLeaving || !server->second->keeper->HasLeft())
            {
                ++server;
                continue;
            }
            m_gone.push_back(std::move(server->second));
            server = m_servers.erase(server);
        }
    }
}

bool LeaseWorld::PassUntil(const std::function<bool()>& isSo, Duration patience)
{
    for (const Duration end = m_now + patience; m_now < end && !isSo();)
    {
        Pass(kStep);
    }
    return isSo();
}

/// Who is frozen serves nothing, and looks at its leases before it does again.
void LeaseWorld::Look()
{
    std::vector<bool> isServed(m_shards, false);
    for (const auto& [name, server] : m_servers)
    {
        for (const std::uint32_t shard : server->serves)
        {
            if (!server->isFrozen)
            {
                faults += isServed[shard] ? 1U : 0U;
                isServed[shard] = true;
            }
        }
    }
}

std::string LeaseWorld::GetHolder(std::uint32_t shard) const
{
    for (const auto& [name, server] : m_servers)
    {
        if (!server->isFrozen && server->serves.count(shard) != 0)
        {
            return name;
        }
    }
    return "";
}

std::vector<std::string> LeaseWorld::GetHolders() const
{
    std::vector<std::string> holders;
    for (std::uint32_t shard = 0; shard < m_shards; ++shard)
    {
        holders.push_back(GetHolder(shard));
    }
    return holders;
}

std::map<std::string, unsigned> LeaseWorld::CountHeld() const
{
    std::map<std::string, unsigned> counts;
    for (const auto& [name, server] : m_servers)
    {
        counts[name] = static_cast<unsigned>(server->serves.size());
    }
    return counts;
}

bool LeaseWorld::AreAllHeld() const
{
    const std::vector<std::string> holders = GetHolders();
    return std::none_of(holders.begin(), holders.end(), [](const std::string& holder) { return holder.empty(); });
}

bool LeaseWorld::IsBalanced() const
{
    const auto counts = CountHeld();
    const auto [least, most] = std::minmax_element(
        counts.begin(), counts.end(), [](const auto& left, const auto& right) { return left.second < right.second; });
    return AreAllHeld() && most->second - least->second <= 1;
}

const LeaseKeeper& LeaseWorld::GetKeeper(const std::string& name) const
{
    return *Find(name)->keeper;
}

} // namespace ps_ns::testing_ns
