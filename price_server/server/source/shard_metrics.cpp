#include "server/shard_metrics.h"

#include "metric_family.h"
#include "zel/shard_service.h"

#include <prometheus/collectable.h>

#include <set>
#include <utility>

namespace ps_ns
{
namespace
{

class ShardMetrics final : public prometheus::Collectable
{
public:
    explicit ShardMetrics(std::function<std::optional<ShardView>()> getView)
        : m_getView(std::move(getView))
    {
    }

    std::vector<prometheus::MetricFamily> Collect() const override
    {
        const std::optional<ShardView> view = m_getView();
        std::vector<prometheus::MetricFamily> families;
        if (!view)
        {
            return families;
        }
        const auto gauge = [&](const char* name, const char* help, std::size_t value)
        { families.push_back(MakeGaugeFamily(name, help, static_cast<double>(value))); };
        const auto counter = [&](const char* name, const char* help, std::uint64_t value)
        { families.push_back(MakeCounterFamily(name, help, static_cast<double>(value))); };
        std::set<std::uint32_t> served;
        for (const ServerNotice& server : view->servers)
        {
            served.insert(server.shards.begin(), server.shards.end());
        }
        gauge("price_server_shards", "Shards that the instruments are divided into.", view->shards);
        gauge("price_server_shards_owned", "Of those: served by this server.", view->held.size());
        gauge("price_server_shards_unserved", "Of those: served by nobody, as far as this server hears.",
              view->shards - served.size());
        gauge("price_server_shard_servers", "Servers that are heard, this one included.", view->servers.size());
        counter("price_server_lease_renewals_total", "Leases renewed, and confirmed by a majority of the brokers.",
                view->counts.renewals);
        counter("price_server_lease_takeovers_total", "Leases had.", view->counts.takeovers);
        counter("price_server_lease_takeovers_of_dead_total", "Of those: of a holder that had not given them back.",
                view->counts.dead);
        counter("price_server_lease_losses_total", "Leases that ended because they could not be renewed.",
                view->counts.losses);
        counter("price_server_lease_conflicts_total", "Attempts at a lease in which another server was faster.",
                view->counts.conflicts);
        return families;
    }

private:
    const std::function<std::optional<ShardView>()> m_getView;
};

} // namespace

std::shared_ptr<prometheus::Collectable> MakeShardMetrics(std::function<std::optional<ShardView>()> getView)
{
    return std::make_shared<ShardMetrics>(std::move(getView));
}

} // namespace ps_ns
