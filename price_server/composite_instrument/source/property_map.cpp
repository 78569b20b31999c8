#include "composite_instrument/property_map.h"

#include <algorithm>
#include <new>
#include <stdexcept>

namespace ps_ns
{

PropertyMap::iterator PropertyMap::GetEntries(Header& block) noexcept
{
    static_assert(alignof(value_type) <= alignof(Header) && sizeof(Header) % alignof(value_type) == 0);
    return reinterpret_cast<iterator>(&block + 1);
}

void PropertyMap::Free::operator()(Header* block) const noexcept
{
    std::destroy_n(GetEntries(*block), block->size);
    ::operator delete(block);
}

PropertyMap::Block PropertyMap::MakeBlock(std::size_t capacity)
{
    return Block(::new (::operator new(sizeof(Header) + capacity * sizeof(value_type))) Header);
}

template <class Text>
void PropertyMap::Append(Header& block, std::uint16_t number, Text&& text)
{
    ::new (static_cast<void*>(GetEntries(block) + block.size)) value_type(number, std::forward<Text>(text));
    ++block.size; // from now on it is destroyed with the block
}

PropertyMap::PropertyMap(std::initializer_list<value_type> entries)
{
    if (entries.size() == 0)
    {
        return;
    }
    m_entries = MakeBlock(entries.size());
    for (const auto& [number, text] : entries)
    {
        if (size() == 0 || begin()[size() - 1].first < number)
        {
            Append(*m_entries, number, text); // as they usually come
        }
        else
        {
            emplace(number, text);
        }
    }
}

PropertyMap::PropertyMap(const PropertyMap& other)
{
    if (other.empty())
    {
        return;
    }
    Block copy = MakeBlock(other.size());
    for (const auto& [number, text] : other)
    {
        Append(*copy, number, text);
    }
    m_entries = std::move(copy);
}

PropertyMap& PropertyMap::operator=(const PropertyMap& other)
{
    return *this = PropertyMap(other);
}

std::size_t PropertyMap::size() const noexcept
{
    return m_entries != nullptr ? m_entries->size : 0;
}

PropertyMap::iterator PropertyMap::begin() noexcept
{
    return m_entries != nullptr ? GetEntries(*m_entries) : nullptr;
}

PropertyMap::const_iterator PropertyMap::begin() const noexcept
{
    return m_entries != nullptr ? GetEntries(*m_entries) : nullptr;
}

/// The entry, or the first one with a larger number.
PropertyMap::const_iterator PropertyMap::FindPlace(std::uint16_t number) const noexcept
{
    return std::lower_bound(begin(), end(), number,
                            [](const value_type& entry, std::uint16_t wanted) { return entry.first < wanted; });
}

PropertyMap::const_iterator PropertyMap::find(std::uint16_t number) const noexcept
{
    const const_iterator place = FindPlace(number);
    return place != end() && place->first == number ? place : end();
}

PropertyMap::iterator PropertyMap::find(std::uint16_t number) noexcept
{
    return begin() + (std::as_const(*this).find(number) - std::as_const(*this).begin());
}

const std::string& PropertyMap::at(std::uint16_t number) const
{
    const const_iterator entry = find(number);
    if (entry == end())
    {
        throw std::out_of_range("there is no property " + std::to_string(number));
    }
    return entry->second;
}

std::string& PropertyMap::operator[](std::uint16_t number)
{
    return emplace(number, std::string()).first->second;
}

std::pair<PropertyMap::iterator, bool> PropertyMap::emplace(std::uint16_t number, std::string text)
{
    const auto place = static_cast<std::size_t>(FindPlace(number) - std::as_const(*this).begin());
    if (place < size() && begin()[place].first == number)
    {
        return {begin() + place, false};
    }
    const Block old = std::exchange(m_entries, MakeBlock(size() + 1));
    const std::size_t oldSize = old != nullptr ? old->size : 0;
    for (std::size_t i = 0; i < place; ++i)
    {
        Append(*m_entries, GetEntries(*old)[i].first, std::move(GetEntries(*old)[i].second));
    }
    Append(*m_entries, number, std::move(text));
    for (std::size_t i = place; i < oldSize; ++i)
    {
        Append(*m_entries, GetEntries(*old)[i].first, std::move(GetEntries(*old)[i].second));
    }
    return {begin() + place, true};
}

std::size_t PropertyMap::erase(std::uint16_t number)
{
    const const_iterator gone = std::as_const(*this).find(number);
    if (gone == std::as_const(*this).end())
    {
        return 0;
    }
    Block kept = size() > 1 ? MakeBlock(size() - 1) : nullptr;
    for (auto& entry : *this)
    {
        if (&entry != gone)
        {
            Append(*kept, entry.first, std::move(entry.second));
        }
    }
    m_entries = std::move(kept);
    return 1;
}

bool operator==(const PropertyMap& a, const PropertyMap& b) noexcept
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end());
}

} // namespace ps_ns
