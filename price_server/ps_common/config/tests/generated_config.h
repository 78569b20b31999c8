#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns
{

/// A configuration file as bytes: `head`, and when `size` is larger, then `unit` over and over up to `size` bytes
/// (an empty unit: a hole in the file, which reads as NUL bytes).
struct GeneratedConfig
{
    enum class Expected
    {
        Anything, ///< an answer of either kind
        Accepted,
        Refused
    };
    const char* kind = "";
    std::string head;
    std::string unit{};
    std::size_t size = 0;
    Expected expected = Expected::Anything;

    void WriteTo(const std::filesystem::path& path) const;
};

/// Makes configuration files, most of them broken, from a valid one and a seed. The same seed makes the same files.
class ConfigGenerator
{
public:
    static constexpr std::size_t kHugeBytes = 100 * 1024 * 1024;

    ConfigGenerator(std::string_view validText, std::uint64_t seed);

    /// The next file; the kinds take turns. One in 2,500 has kHugeBytes.
    GeneratedConfig Next();

private:
    using Make = GeneratedConfig (ConfigGenerator::*)();

    GeneratedConfig MakeValid();
    GeneratedConfig MakeMutatedBytes();
    GeneratedConfig MakeTruncated();
    GeneratedConfig MakeMutatedLines();
    GeneratedConfig MakeOddValues();
    GeneratedConfig MakeMisspelled();
    GeneratedConfig MakeRandomBytes();
    GeneratedConfig MakeTokenSoup();
    GeneratedConfig MakeDeeplyNested();
    GeneratedConfig MakeEntityTrick();
    GeneratedConfig MakeUnterminated();
    GeneratedConfig MakeOddEncoding();
    GeneratedConfig MakeWithNul();
    GeneratedConfig MakeCrowded();
    GeneratedConfig MakeHuge();

    std::size_t Below(std::size_t bound) { return static_cast<std::size_t>(m_random() % bound); }
    char AnyByte() { return static_cast<char>(static_cast<unsigned char>(Below(256))); }
    std::string_view Pick(const std::vector<std::string_view>& choices) { return choices[Below(choices.size())]; }
    /// Random position behind the first start tag of the valid text.
    std::size_t PlaceInside();

    const std::string m_valid;
    std::mt19937_64 m_random;
    std::size_t m_made = 0;
};

} // namespace ps_ns
