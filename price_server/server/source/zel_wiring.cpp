#include "server/zel_wiring.h"

#include "server/server_config.h"
#include "zel/nats_transport.h"

#include <fstream>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

std::string ReadFirstLine(const std::string& path)
{
    std::ifstream file(path);
    std::string line;
    if (!std::getline(file, line) || line.empty())
    {
        throw std::runtime_error("there is no password in " + path);
    }
    line.erase(line.find_last_not_of(" \r") + 1);
    return line;
}

} // namespace

std::shared_ptr<ZelProvider> MakeZelProvider(const ZelSettings& settings, const MarketTable& markets,
                                             ZelRenameStep renameStep)
{
    NatsOptions nats;
    nats.url = settings.url;
    nats.connectTimeout = std::chrono::milliseconds(settings.connectTimeout_ms);
    if (!settings.user.empty())
    {
        nats.user = settings.user;
        nats.password = ReadFirstLine(settings.passwordFile);
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
