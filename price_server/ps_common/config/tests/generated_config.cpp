#include "generated_config.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace ps_ns
{

namespace
{

using Expected = GeneratedConfig::Expected;

std::string Repeat(std::string_view unit, std::size_t times)
{
    std::string text;
    text.reserve(unit.size() * times);
    for (std::size_t count = 0; count < times; ++count)
    {
        text += unit;
    }
    return text;
}

std::vector<std::string> SplitLines(const std::string& text)
{
    std::vector<std::string> lines(1);
    for (const char character : text)
    {
        lines.back() += character;
        if (character == '\n')
        {
            lines.emplace_back();
        }
    }
    return lines;
}

std::string ToUtf16(const std::string& text, bool isBigEndian)
{
    std::string wide;
    for (const char character : text)
    {
        wide += isBigEndian ? std::string{'\0', character} : std::string{character, '\0'};
    }
    return wide;
}

std::string BillionLaughs(std::size_t levels)
{
    std::string text = "<?xml version=\"1.0\"?>\n<!DOCTYPE laughs [\n<!ENTITY e0 \"ha\">\n";
    for (std::size_t level = 1; level <= levels; ++level)
    {
        const std::string previous = "&e" + std::to_string(level - 1) + ";";
        text += "<!ENTITY e" + std::to_string(level) + " \"" + Repeat(previous, 10) + "\">\n";
    }
    return text + "]>\n<PriceServer>&e" + std::to_string(levels) + ";</PriceServer>\n";
}

} // namespace

void GeneratedConfig::WriteTo(const std::filesystem::path& path) const
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << head;
    if (size > head.size() && !unit.empty())
    {
        const std::string block = Repeat(unit, 1 + 1024 * 1024 / unit.size());
        for (std::size_t written = head.size(); written < size; written += std::min(block.size(), size - written))
        {
            file << std::string_view(block).substr(0, size - written);
        }
    }
    file.close();
    if (!file)
    {
        throw std::runtime_error("cannot write " + path.string());
    }
    if (size > head.size() && unit.empty())
    {
        std::filesystem::resize_file(path, size);
    }
}

ConfigGenerator::ConfigGenerator(std::string_view validText, std::uint64_t seed)
    : m_valid(validText)
    , m_random(seed)
{
}

GeneratedConfig ConfigGenerator::Next()
{
    static constexpr Make kMakers[] = {
        &ConfigGenerator::MakeValid,        &ConfigGenerator::MakeMutatedBytes, &ConfigGenerator::MakeTruncated,
        &ConfigGenerator::MakeMutatedLines, &ConfigGenerator::MakeOddValues,    &ConfigGenerator::MakeMisspelled,
        &ConfigGenerator::MakeRandomBytes,  &ConfigGenerator::MakeTokenSoup,    &ConfigGenerator::MakeDeeplyNested,
        &ConfigGenerator::MakeEntityTrick,  &ConfigGenerator::MakeUnterminated, &ConfigGenerator::MakeOddEncoding,
        &ConfigGenerator::MakeWithNul,      &ConfigGenerator::MakeCrowded};
    const std::size_t index = m_made++;
    return index % 2500 == 2499 ? MakeHuge() : (this->*kMakers[index % std::size(kMakers)])();
}

std::size_t ConfigGenerator::PlaceInside()
{
    const std::size_t start = m_valid.find('>', m_valid.find("<PriceServer")) + 1;
    return start + Below(m_valid.rfind("</") - start);
}

GeneratedConfig ConfigGenerator::MakeValid()
{
    std::string text = m_valid;
    const auto replaceAll = [&](char from, std::string_view to)
    {
        std::string replaced;
        for (const char character : text)
        {
            character == from ? replaced.append(to) : replaced.append(1, character);
        }
        text = replaced;
    };
    if (Below(2) == 0)
    {
        replaceAll('\n', "\r\n");
    }
    if (Below(2) == 0)
    {
        replaceAll('"', "'");
    }
    if (Below(4) == 0)
    {
        text = "\xEF\xBB\xBF" + text;
    }
    text += std::string(Below(100), ' ') + "<!-- end <a> <!DOCTYPE \xC3\xA4 -->";
    return {.kind = "valid", .head = text, .expected = Expected::Accepted};
}

GeneratedConfig ConfigGenerator::MakeMutatedBytes()
{
    std::string text = m_valid;
    for (std::size_t count = 1 + Below(8); count > 0; --count)
    {
        const std::size_t at = Below(text.size());
        switch (Below(3))
        {
        case 0:
            text[at] = AnyByte();
            break;
        case 1:
            text.insert(at, 1, AnyByte());
            break;
        default:
            text.erase(at, 1 + Below(5));
            break;
        }
    }
    return {.kind = "mutated bytes", .head = text};
}

GeneratedConfig ConfigGenerator::MakeTruncated()
{
    return {.kind = "truncated", .head = m_valid.substr(0, Below(m_valid.rfind('>'))), .expected = Expected::Refused};
}

GeneratedConfig ConfigGenerator::MakeMutatedLines()
{
    std::vector<std::string> lines = SplitLines(m_valid);
    for (std::size_t count = 1 + Below(3); count > 0; --count)
    {
        const auto line = lines.begin() + static_cast<std::ptrdiff_t>(Below(lines.size()));
        switch (Below(3))
        {
        case 0:
            std::iter_swap(line, lines.begin() + static_cast<std::ptrdiff_t>(Below(lines.size())));
            break;
        case 1:
            lines.insert(line, std::string(lines[Below(lines.size())]));
            break;
        default:
            if (lines.size() > 1)
            {
                lines.erase(line);
            }
        }
    }
    std::string text;
    for (const std::string& line : lines)
    {
        text += line;
    }
    return {.kind = "mutated lines", .head = text};
}

GeneratedConfig ConfigGenerator::MakeOddValues()
{
    static const std::string kLong(5000, '9');
    static const std::vector<std::string_view> kValues{"",
                                                       "-1",
                                                       "0",
                                                       "99999999999999999999999",
                                                       " 1",
                                                       "1e9",
                                                       "0x10",
                                                       "maybe",
                                                       "\n",
                                                       "&lt;",
                                                       "1.5",
                                                       "&#x1F600;",
                                                       "&#0;",
                                                       "&unknown;",
                                                       "&#xFFFFFFFFFFFF;",
                                                       "../../..",
                                                       "&amp;",
                                                       "yes",
                                                       ".",
                                                       "/dev/zero",
                                                       "nan",
                                                       "inf",
                                                       "\xC3\xBC",
                                                       kLong};
    std::string text = m_valid;
    for (std::size_t count = 1 + Below(4); count > 0; --count)
    {
        const std::size_t open = text.find("=\"", PlaceInside());
        const std::size_t close = open == std::string::npos ? open : text.find('"', open + 2);
        if (close != std::string::npos)
        {
            text.replace(open + 2, close - open - 2, Pick(kValues));
        }
    }
    return {.kind = "odd values", .head = text};
}

GeneratedConfig ConfigGenerator::MakeMisspelled()
{
    std::string text = m_valid;
    for (std::size_t count = 1 + Below(3); count > 0; --count)
    {
        std::size_t at = PlaceInside();
        const auto isLetter = [](char letter) { return (letter | 0x20) >= 'a' && (letter | 0x20) <= 'z'; };
        while (!isLetter(text[at]))
        {
            at = PlaceInside();
        }
        text[at] = static_cast<char>('a' + static_cast<char>(Below(26)));
    }
    return {.kind = "misspelled", .head = text};
}

GeneratedConfig ConfigGenerator::MakeRandomBytes()
{
    std::string text(Below(4096), ' ');
    std::generate(text.begin(), text.end(), [this] { return AnyByte(); });
    return {.kind = "random bytes", .head = text, .expected = Expected::Refused};
}

GeneratedConfig ConfigGenerator::MakeTokenSoup()
{
    static const std::vector<std::string_view> kTokens{
        "<",    "</",    ">",        "/>",        "<!--",   "-->",   "--",       "<![CDATA[",   "]]>",
        "<?",   "?>",    "<?xml ",   "<!",        "&",      ";",     "&lt;",     "=",           "\"",
        "'",    " ",     "\n",       "a",         "Market", "<a>",   "</a>",     "<a/>",        "<b>",
        "</b>", "b='1'", " c=\"2\"", "<a b='>'>", "<a\n>",  "</a >", "\xC3\xA9", "<!DOCTYPE a>"};
    std::string text = Below(2) == 0 ? "<PriceServer>" : "";
    for (std::size_t count = Below(60); count > 0; --count)
    {
        text += Pick(kTokens);
    }
    return {.kind = "token soup", .head = text + (Below(2) == 0 ? "</PriceServer>" : "")};
}

GeneratedConfig ConfigGenerator::MakeDeeplyNested()
{
    static constexpr std::size_t kDepths[] = {1, 63, 64, 65, 66, 1000, 30'000, 100'000};
    const std::size_t depth = kDepths[Below(std::size(kDepths))];
    static const std::vector<std::string_view> kBetween{"", "\n", "<!-- <x> -->", "<?x <y> ?>", "<z/>"};
    const std::string_view between = depth > 1000 ? std::string_view() : Pick(kBetween);
    const std::string start = "<a>" + std::string(between);
    const bool isTooDeep = depth + (between == "<z/>" ? 1 : 0) > 64;
    return {.kind = "nested",
            .head = Repeat(start, depth) + (Below(8) == 0 && isTooDeep ? "" : Repeat("</a>", depth)),
            .expected = isTooDeep ? Expected::Refused : Expected::Accepted};
}

GeneratedConfig ConfigGenerator::MakeEntityTrick()
{
    static const std::vector<std::string_view> kTricks{
        "<!DOCTYPE a SYSTEM \"file:///etc/passwd\">\n<PriceServer/>",
        "<!DOCTYPE a [<!ENTITY x SYSTEM \"file:///etc/passwd\">]><PriceServer>&x;</PriceServer>",
        "<!DOCTYPE a [<!ENTITY % p SYSTEM \"http://127.0.0.1/x.dtd\"> %p;]><PriceServer/>",
        "<!doctype a><PriceServer/>",
        "<!DOCTYPE\n\n[<!ENTITY x ']>'>]><PriceServer/>",
        "<!-- --><!DOCTYPE a><PriceServer/>",
        "<PriceServer><!DOCTYPE a [<!ENTITY x \"y\">]>&x;</PriceServer>",
        "<PriceServer/><!DOCTYPE a>",
        "<PriceServer a='<!DOCTYPE a>'/>",
        "<PriceServer>&x;</PriceServer>",
        "<PriceServer a=\"&x;\"/>",
        "<PriceServer>&#0;</PriceServer>",
        "<PriceServer>&#xD800;</PriceServer>",
        "<!ENTITY x \"y\"><PriceServer/>",
        "<!DOCTYP a><PriceServer/>",
        "<!DOCTYPE"};
    const bool isLaugh = Below(4) == 0;
    return {.kind = "entity trick",
            .head = isLaugh ? BillionLaughs(1 + Below(20)) : std::string(Pick(kTricks)),
            .expected = Expected::Refused};
}

GeneratedConfig ConfigGenerator::MakeUnterminated()
{
    static const std::vector<std::string_view> kEnds{
        "<!--",     "<!-- -",  "<![CDATA[", "<![CDATA[ ]]", "<?pi",          "<?", "<a", "<a ", "<a b", "<a b=",
        "<a b='",   "<a b=\"", "<a b='1'",  "<a /",         "</PriceServer", "<",  "</", "<!",  "&",    "&#x",
        "<a b='&#", "<a>",     "<!D"};
    std::string text = m_valid.substr(0, m_valid.rfind("</")) + std::string(Pick(kEnds));
    if (Below(3) == 0)
    {
        text += std::string(Below(900'000), 'x');
    }
    return {.kind = "unterminated", .head = text, .expected = Expected::Refused};
}

GeneratedConfig ConfigGenerator::MakeOddEncoding()
{
    const std::size_t at = PlaceInside();
    const std::string broken = m_valid.substr(0, at) + AnyByte() + "\xFF" + m_valid.substr(at);
    switch (Below(7))
    {
    case 0:
        return {.kind = "odd encoding", .head = "\xFF\xFE" + ToUtf16(m_valid, false), .expected = Expected::Refused};
    case 1:
        return {.kind = "odd encoding", .head = "\xFE\xFF" + ToUtf16(m_valid, true), .expected = Expected::Refused};
    case 2:
        return {.kind = "odd encoding", .head = ToUtf16(m_valid, Below(2) == 0), .expected = Expected::Refused};
    case 3:
        return {.kind = "odd encoding", .head = "\xEF\xBB" + m_valid, .expected = Expected::Refused};
    case 4:
        return {.kind = "odd encoding", .head = "\xEF\xBB\xBF\xEF\xBB\xBF" + m_valid, .expected = Expected::Refused};
    case 5:
        return {.kind = "odd encoding",
                .head = "<?xml version='1.0' encoding='UTF-16'?><PriceServer/>",
                .expected = Expected::Refused};
    default:
        return {.kind = "odd encoding", .head = broken, .expected = Expected::Refused};
    }
}

GeneratedConfig ConfigGenerator::MakeWithNul()
{
    std::string text = m_valid;
    for (std::size_t count = 1 + Below(3); count > 0; --count)
    {
        text.insert(Below(text.size() + 1), 1, '\0');
    }
    return {.kind = "with NUL", .head = text, .expected = Expected::Refused};
}

GeneratedConfig ConfigGenerator::MakeCrowded()
{
    static const std::vector<std::string_view> kUnits{"<Market/>", "<a/>",  "<Markett id='1'/>", "<!---->", "<?x?>",
                                                      "x",         "&amp;", "<![CDATA[]]>"};
    const std::size_t bytes = 1000 + Below(40) * Below(40) * 700;
    std::string text = "<PriceServer>";
    if (Below(3) == 0)
    {
        text = "<PriceServer";
        for (std::size_t index = 0; text.size() < bytes; ++index)
        {
            text += " a" + std::to_string(index) + "=''";
        }
        return {.kind = "crowded", .head = text + (Below(2) == 0 ? " a0=''/>" : "/>")};
    }
    const std::string_view unit = Pick(kUnits);
    return {.kind = "crowded", .head = text + Repeat(unit, bytes / unit.size()) + "</PriceServer>"};
}

GeneratedConfig ConfigGenerator::MakeHuge()
{
    static const std::vector<std::string_view> kUnits{"", "<a/>", "<a>", "<!-- -->\n"};
    return {.kind = "100 MiB",
            .head = Below(2) == 0 ? "<PriceServer>" : "",
            .unit = std::string(Pick(kUnits)),
            .size = kHugeBytes,
            .expected = Expected::Refused};
}

} // namespace ps_ns
