#pragma once

#include "gateway_core.h"
#include "http_api.h"
#include "i_connection.h"
#include "static_files.h"

#include <memory>
#include <utility>
#include <vector>

namespace ps_ns::gateway
{

/// What connections are made of and belong to.
///
/// Threads: the I/O thread.
struct GatewayContext
{
    GatewayContext(GatewayOptions options, IBackend& backend, const std::function<void(std::function<void()>)>& post)
        : core(std::move(options), backend, post)
        , files(core.GetOptions().webRoot)
        , api(core, files, post)
    {
    }

    void Add(const std::shared_ptr<IConnection>& connection) { connections.push_back(connection); }
    std::vector<std::shared_ptr<IConnection>> GetConnections()
    {
        std::vector<std::shared_ptr<IConnection>> living;
        std::erase_if(connections,
                      [&](const std::weak_ptr<IConnection>& weak)
                      {
                          if (auto connection = weak.lock())
                          {
                              living.push_back(std::move(connection));
                              return false;
                          }
                          return true;
                      });
        return living;
    }

    GatewayCore core;
    const StaticFiles files;
    HttpApi api;
    std::vector<std::weak_ptr<IConnection>> connections;
};

} // namespace ps_ns::gateway
