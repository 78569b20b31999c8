#pragma once

#include <cstdint>
#include <string_view>

namespace ps_ns
{

/// The shard that a broker's mapping "{{partition(SHARDS,1,2)}}" of "zel.prices.*.*" puts an instrument into: FNV-1a of
/// 32 bits over the two tokens, market and instrument as EscapeToken writes them, without the dot; modulo `shards`.
/// `instrument` is the symbol that it was first listed under. `shards` is not 0.
///
/// A test holds it against a real broker.
std::uint32_t GetShard(std::string_view market, std::string_view instrument, std::uint32_t shards);

} // namespace ps_ns
