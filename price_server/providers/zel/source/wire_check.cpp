#include "wire_check.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace ps_ns
{
namespace
{

/// How a character of more than one byte begins: how many bytes follow, and what the second one may be.
struct Lead
{
    std::uint8_t first;
    std::uint8_t last;
    std::uint8_t behind;
    std::uint8_t least;
    std::uint8_t most;
};
/// Overlong forms and surrogates have second bytes of their own, and so has what is above U+10FFFF. The control
/// characters U+0080 to U+009F are C2 with a second byte below A0.
constexpr std::array<Lead, 9> kLeads{{{0xC2, 0xC2, 1, 0xA0, 0xBF},
                                      {0xC3, 0xDF, 1, 0x80, 0xBF},
                                      {0xE0, 0xE0, 2, 0xA0, 0xBF},
                                      {0xE1, 0xEC, 2, 0x80, 0xBF},
                                      {0xED, 0xED, 2, 0x80, 0x9F},
                                      {0xEE, 0xEF, 2, 0x80, 0xBF},
                                      {0xF0, 0xF0, 3, 0x90, 0xBF},
                                      {0xF1, 0xF3, 3, 0x80, 0xBF},
                                      {0xF4, 0xF4, 3, 0x80, 0x8F}}};

/// Bytes of the character at the front; 0: there is none that may be.
std::size_t MeasureCharacter(std::string_view text) noexcept
{
    const auto byte = [text](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    if (byte(0) < 0x80)
    {
        return byte(0) >= 0x20 && byte(0) != 0x7F ? 1 : 0;
    }
    for (const Lead& lead : kLeads)
    {
        if (byte(0) < lead.first || byte(0) > lead.last)
        {
            continue;
        }
        const std::size_t size = 1U + lead.behind;
        bool isGood = text.size() >= size && byte(1) >= lead.least && byte(1) <= lead.most;
        for (std::size_t i = 2; isGood && i < size; ++i)
        {
            isGood = byte(i) >= 0x80 && byte(i) <= 0xBF;
        }
        return isGood ? size : 0;
    }
    return 0;
}

std::string FindTextFault(const char* what, std::string_view text, std::size_t least, std::size_t most)
{
    if (text.size() < least || text.size() > most)
    {
        return std::string(what) + " has " + std::to_string(text.size()) + " bytes; " + std::to_string(least) + " to " +
               std::to_string(most) + " are taken";
    }
    return IsPlainUtf8(text) ? "" : std::string(what) + " is not UTF-8 without control characters";
}

} // namespace

bool IsPlainUtf8(std::string_view text) noexcept
{
    while (!text.empty())
    {
        const std::size_t size = MeasureCharacter(text);
        if (size == 0)
        {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

std::string FindWireFault(const WireInstrument& instrument)
{
    if (instrument.format.fractionDigits > kMostWireFractionDigits)
    {
        return std::to_string(instrument.format.fractionDigits) + " fraction digits; at most " +
               std::to_string(kMostWireFractionDigits) + " are taken";
    }
    if (instrument.format.displayFormat <= ' ' || instrument.format.displayFormat > '~')
    {
        return "its display format is no letter";
    }
    std::string fault = FindTextFault("its first symbol", instrument.firstSymbol, 1, kMostWireNameBytes);
    fault = !fault.empty() ? fault : FindTextFault("its symbol", instrument.symbol, 1, kMostWireNameBytes);
    fault = !fault.empty() ? fault : FindTextFault("its exchange", instrument.exchange, 0, kMostWireNameBytes);
    return !fault.empty() ? fault
                          : FindTextFault("its description", instrument.description, 0, kMostWireDescriptionBytes);
}

std::string FindWireFault(const WireRename& rename)
{
    return FindTextFault("the new symbol", rename.newSymbol, 1, kMostWireNameBytes);
}

} // namespace ps_ns
