#include "server/zel_wiring.h"

#include "server/server_config.h"
#include "zel/nats_transport.h"
#include "zel/password_file.h"

#include <utility>

namespace ps_ns
{

std::shared_ptr<ZelProvider> MakeZelProvider(const ZelSettings& settings, const MarketTable& markets,
                                             ZelRenameStep renameStep)
{
    NatsOptions nats;
    nats.url = settings.url;
    nats.connectTimeout = std::chrono::milliseconds(settings.connectTimeout_ms);
    if (!settings.user.empty())
    {
        nats.user = settings.user;
        nats.password = ReadPasswordFile(settings.passwordFile);
    }
    ZelOptions options;
    for (const Market& market : markets.GetAll())
    {
        options.markets.push_back({market.id, market.name});
    }
    options.renameStep = std::move(renameStep);
    return std::make_shared<ZelProvider>(std::make_unique<NatsTransport>(std::move(nats)), std::move(options));
}

} // namespace ps_ns
