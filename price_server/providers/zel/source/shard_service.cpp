#include "zel/shard_service.h"

#include "logging/logging.h"
#include "zel/zel_log.h"

#include <algorithm>
#include <ctime>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::chrono::milliseconds kTick{10};
constexpr std::chrono::milliseconds kGoodbye{300};

LeaseKeeper::TimePoint GetNow()
{
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return LeaseKeeper::TimePoint(std::chrono::duration_cast<LeaseKeeper::TimePoint::duration>(
        std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec)));
}

/// Says what happens, and lets it happen.
LeaseKeeper::Events MakeLogged(const LeaseOptions& options, LeaseKeeper::Events events)
{
    const auto log = [shards = options.shards](std::uint32_t shard, const char* what)
    {
        zel::logging::Log(10, ZelLogSource(),
                          [&](std::ostream& text) { text << "shard " << shard << " of " << shards << " is " << what; });
    };
    return {[log, onGained = std::move(events.onGained)](std::uint32_t shard)
            {
                log(shard, "served here");
                onGained(shard);
            },
            [log, onLost = std::move(events.onLost)](std::uint32_t shard)
            {
                onLost(shard);
                log(shard, "served here no more");
            }};
}

} // namespace

ShardService::ShardService(std::unique_ptr<ILeaseStore> store, LeaseOptions options, LeaseKeeper::Events events)
    : m_store(std::move(store))
    , m_options(std::move(options))
    , m_session(m_options.session)
    , m_keeper(*m_store, m_options, MakeLogged(m_options, std::move(events)))
{
    Publish();
}

ShardService::~ShardService()
{
    Stop();
}

void ShardService::Start()
{
    m_thread = std::thread([this] { Run(); });
}

void ShardService::Run()
{
    std::size_t servers = 0;
    while (!m_isStopping.load())
    {
        m_store->WaitForAnswer(kTick);
        m_keeper.Tick(GetNow());
        Publish();
        if (const std::size_t now = m_keeper.GetServerCount(); std::exchange(servers, now) != now)
        {
            zel::logging::Log(10, ZelLogSource(),
                              [&](std::ostream& text)
                              { text << now << " price servers share " << m_options.shards << " shards"; });
        }
    }
    const LeaseKeeper::TimePoint begin = GetNow();
    for (m_keeper.Leave(begin); !m_keeper.HasLeft() && GetNow() - begin < kGoodbye;)
    {
        m_store->WaitForAnswer(kTick);
        m_keeper.Tick(GetNow());
    }
    Publish();
}

void ShardService::Stop()
{
    m_isStopping.store(true);
    if (m_thread.joinable())
    {
        m_thread.join();
    }
}

void ShardService::Publish()
{
    ShardView view = m_keeper.GetView();
    const std::lock_guard lock(m_mutex);
    m_view = std::move(view);
}

ShardView ShardService::GetView() const
{
    const std::lock_guard lock(m_mutex);
    return m_view;
}

std::optional<ServerNotice> ShardService::FindServer(std::uint32_t shard) const
{
    const std::lock_guard lock(m_mutex);
    const auto found = std::find_if(m_view.servers.begin(), m_view.servers.end(),
                                    [shard](const ServerNotice& server)
                                    { return std::binary_search(server.shards.begin(), server.shards.end(), shard); });
    return found == m_view.servers.end() ? std::nullopt : std::optional(*found);
}

} // namespace ps_ns
