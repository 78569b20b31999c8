#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

namespace ps_ns
{

/// A map from numbers to texts, as a definition has for its properties: the few entries lie in one heap block, in
/// ascending order, and an empty map has none. Definitions are copied with each request, so what counts is what a copy
/// takes: one allocation for the entries, where a tree takes one for each.
///
/// The operations are std::map's and mean the same, except that adding or erasing an entry takes time in proportion to
/// the size and invalidates iterators and references.
///
/// Threads: one that changes it, or any number that read. Failure: only allocation can fail; nothing has changed then.
class PropertyMap
{
public:
    using key_type = std::uint16_t;
    using mapped_type = std::string;
    using value_type = std::pair<const std::uint16_t, std::string>;
    using iterator = value_type*;
    using const_iterator = const value_type*;

    PropertyMap() noexcept = default;
    /// Of several entries with one number the first counts.
    PropertyMap(std::initializer_list<value_type> entries);
    PropertyMap(const PropertyMap& other);
    PropertyMap(PropertyMap&& other) noexcept = default;
    PropertyMap& operator=(const PropertyMap& other);
    PropertyMap& operator=(PropertyMap&& other) noexcept = default;
    ~PropertyMap() = default;

    bool empty() const noexcept { return m_entries == nullptr; }
    std::size_t size() const noexcept;
    iterator begin() noexcept;
    iterator end() noexcept { return begin() + size(); }
    const_iterator begin() const noexcept;
    const_iterator end() const noexcept { return begin() + size(); }

    iterator find(std::uint16_t number) noexcept;
    const_iterator find(std::uint16_t number) const noexcept;
    bool contains(std::uint16_t number) const noexcept { return find(number) != end(); }
    /// Throws std::out_of_range when there is none.
    const std::string& at(std::uint16_t number) const;
    /// The text; an empty one is added when there is none.
    std::string& operator[](std::uint16_t number);
    /// False, and nothing changes, when there is an entry already.
    std::pair<iterator, bool> emplace(std::uint16_t number, std::string text);
    /// The number of entries erased.
    std::size_t erase(std::uint16_t number);
    void clear() noexcept { m_entries.reset(); }

    friend bool operator==(const PropertyMap& a, const PropertyMap& b) noexcept;

private:
    /// The block's beginning; the entries follow.
    struct Header
    {
        std::size_t size = 0; ///< of the entries that have been made
    };
    struct Free
    {
        void operator()(Header* block) const noexcept;
    };
    using Block = std::unique_ptr<Header, Free>;

    static Block MakeBlock(std::size_t capacity);
    static iterator GetEntries(Header& block) noexcept;
    /// Appends an entry to a block that has room for it.
    template <class Text>
    static void Append(Header& block, std::uint16_t number, Text&& text);
    const_iterator FindPlace(std::uint16_t number) const noexcept;

    Block m_entries; ///< null: empty
};

} // namespace ps_ns
