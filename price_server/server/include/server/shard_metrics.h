#pragma once

#include <functional>
#include <memory>
#include <optional>

namespace prometheus
{
class Collectable;
}

namespace ps_ns
{

struct ShardView;

/// What a server that shares its instruments with others says of that, as docs/operations.md lists it. Nothing when
/// `getView` has nothing.
///
/// Threads: any.
std::shared_ptr<prometheus::Collectable> MakeShardMetrics(std::function<std::optional<ShardView>()> getView);

} // namespace ps_ns
