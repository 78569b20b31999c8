#pragma once

#include "composite_price/level_table.h"
#include "mds/level_book.h"

#include <span>
#include <vector>

namespace ps_ns
{

/// The whole book of an instrument as its feed keeps it for whoever comes late. Most books are changed a hundred
/// thousand times and read once: they are kept unsorted, and sorted for each image. What is read by rank, the legs of
/// implied instruments, is kept sorted from the first time on.
///
/// Threads: the owner sees to it that nobody reads while another writes.
class FeedBook
{
public:
    /// Applies one message's changes; `isImage`: they replace the book.
    void Apply(std::span<const BookUpdate::Change> changes, bool isImage);

    /// Writes the book as an image: bids, then asks, best first.
    void WriteImage(std::vector<BookUpdate::Change>& changes) const;

    /// From now on the book is kept sorted. Once.
    void Sort();
    bool IsSorted() const noexcept { return m_isSorted; }
    /// Only after Sort.
    const LevelBook& GetSorted() const noexcept { return m_sorted; }

private:
    bool m_isSorted = false;
    LevelTable m_bids; ///< both empty once the book is sorted
    LevelTable m_asks;
    LevelBook m_sorted; ///< empty until then
};

} // namespace ps_ns
