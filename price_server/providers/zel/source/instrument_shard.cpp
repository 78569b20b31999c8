#include "zel/instrument_shard.h"

#include "zel/subject_token.h"

namespace ps_ns
{
namespace
{

constexpr std::uint32_t kOffset = 2166136261U;
constexpr std::uint32_t kPrime = 16777619U;

std::uint32_t Mix(std::uint32_t hash, std::string_view text)
{
    for (const char letter : text)
    {
        hash = (hash ^ static_cast<unsigned char>(letter)) * kPrime;
    }
    return hash;
}

} // namespace

std::uint32_t GetShard(std::string_view market, std::string_view instrument, std::uint32_t shards)
{
    return Mix(Mix(kOffset, EscapeToken(market)), EscapeToken(instrument)) % shards;
}

} // namespace ps_ns
