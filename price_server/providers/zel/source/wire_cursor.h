#pragma once

#include "zel/wire_format.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

namespace ps_ns
{

static_assert(std::endian::native == std::endian::little, "the wire is little-endian, and so are its readers");

/// Appends fixed-width numbers and texts.
class WireWriter
{
public:
    WireWriter(WireBuffer& to, const WireHeader& header)
        : m_to(to)
    {
        m_to.clear();
        Put(kWireVersion);
        Put(static_cast<std::uint8_t>(header.kind));
        Put(std::uint16_t{0});
        Put(header.index);
        Put(header.epoch);
        Put(header.sequence);
    }

    template <class Number>
    void Put(Number value)
    {
        static_assert(std::is_integral_v<Number>);
        const std::size_t at = m_to.size();
        m_to.resize(at + sizeof value);
        std::memcpy(m_to.data() + at, &value, sizeof value);
    }
    void PutCount(std::size_t count) { Put(static_cast<std::uint32_t>(count)); }
    /// A text that is too long for its length is cut.
    void PutText(std::string_view text)
    {
        text = text.substr(0, std::numeric_limits<std::uint16_t>::max());
        Put(static_cast<std::uint16_t>(text.size()));
        const std::size_t at = m_to.size();
        m_to.resize(at + text.size());
        std::copy_n(reinterpret_cast<const std::byte*>(text.data()), text.size(), m_to.data() + at);
    }
    /// Room for `size` more bytes, which the caller fills.
    std::byte* Extend(std::size_t size)
    {
        const std::size_t at = m_to.size();
        m_to.resize(at + size);
        return m_to.data() + at;
    }

private:
    WireBuffer& m_to;
};

/// Takes fixed-width numbers and texts from the front. What is not there reads as zero, and spoils the whole.
class WireReader
{
public:
    explicit WireReader(WireBytes bytes) noexcept
        : m_rest(bytes)
    {
    }

    template <class Number>
    Number Get() noexcept
    {
        static_assert(std::is_integral_v<Number>);
        Number value{};
        if (m_rest.size() < sizeof value)
        {
            m_isGood = false;
            return value;
        }
        std::memcpy(&value, m_rest.data(), sizeof value);
        m_rest = m_rest.subspan(sizeof value);
        return value;
    }

    std::string GetText()
    {
        const std::size_t size = Get<std::uint16_t>();
        if (!m_isGood || m_rest.size() < size)
        {
            m_isGood = false;
            return {};
        }
        std::string text(reinterpret_cast<const char*>(m_rest.data()), size);
        m_rest = m_rest.subspan(size);
        return text;
    }

    /// A number of entries, each of which takes at least `entrySize` bytes; more than can be there spoils the whole.
    std::size_t GetCount(std::size_t entrySize) noexcept
    {
        const std::size_t count = Get<std::uint32_t>();
        if (count > m_rest.size() / entrySize)
        {
            m_isGood = false;
            return 0;
        }
        return count;
    }

    WireBytes GetRest() const noexcept { return m_rest; }
    bool IsGood() const noexcept { return m_isGood; }
    /// All of it was there, and nothing else was.
    bool IsWhole() const noexcept { return m_isGood && m_rest.empty(); }

private:
    WireBytes m_rest;
    bool m_isGood = true;
};

} // namespace ps_ns
