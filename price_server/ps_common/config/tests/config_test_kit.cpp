#include "config_test_kit.h"

#include "config/detail/quoted.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace ps_ns
{

const std::string_view kSampleText = R"(<?xml version="1.0" encoding="UTF-8"?>
<PriceServer>
  <!-- what the manager reads -->
  <General SkipUnchangedSnapshots="yes" Interval_sec="30"/>
  <Logging level="10" format="json" file="server.log"/>
  <Markets>
    <Market id="1" name="SPOT" defaultDepth="10"/>
    <Market id="2" name="A&amp;B" defaultDepth="20"
            speed="0.5"/>
  </Markets>
</PriceServer>
)";

const ConfigSchema& MakeSampleSchema()
{
    static const ConfigSchema kSchema(
        ElementRule{.name = "PriceServer",
                    .children = {{.name = "General",
                                  .attributes = {{"SkipUnchangedSnapshots", ValueRule::Boolean()},
                                                 {"Interval_sec", ValueRule::Unsigned(0, 4'294'967'295)}}},
                                 {.name = "Logging",
                                  .attributes = {{"level", ValueRule::Unsigned(0, 100)},
                                                 {"format", ValueRule::OneOf({"text", "json"})},
                                                 {"file", ValueRule::FilePath()}}},
                                 {.name = "Markets",
                                  .children = {{.name = "Market",
                                                .attributes = {{"id", ValueRule::Unsigned(0, 32'767), true},
                                                               {"name", ValueRule::Text(1, 16), true},
                                                               {"defaultDepth", ValueRule::Unsigned(1, 1000)},
                                                               {"speed", ValueRule::Decimal(0, 10)}},
                                                .required = true,
                                                .maxCount = 3}},
                                  .required = true}}});
    return kSchema;
}

TemporaryFolder::TemporaryFolder()
{
    std::string path = (std::filesystem::temp_directory_path() / "price_server_config_XXXXXX").string();
    if (::mkdtemp(path.data()) == nullptr)
    {
        throw std::runtime_error("cannot make a temporary folder");
    }
    m_path = path;
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TemporaryFolder::Write(const std::string& name, std::string_view text) const
{
    const std::string path = GetPath(name);
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

bool IsOnePrintableLine(std::string_view text)
{
    // Printable changes nothing in a text that is printable already; it looks at the first bytes only.
    for (std::size_t at = 0; at < text.size();)
    {
        std::size_t length = text.size() - at < 40 ? text.size() - at : 40;
        while (at + length < text.size() && (static_cast<unsigned char>(text[at + length]) & 0xC0U) == 0x80U)
        {
            ++length;
        }
        if (detail::Printable(text.substr(at, length)) != text.substr(at, length))
        {
            return false;
        }
        at += length;
    }
    return true;
}

} // namespace ps_ns
