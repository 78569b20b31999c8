#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>

namespace ps_ns
{
namespace detail
{

/// Addresses of free blocks, as many as go from thread to thread at once.
template <std::size_t kMost>
struct BlockBatch
{
    std::array<void*, kMost> blocks;
    BlockBatch* next; ///< in the depot's lists
};

/// The free blocks of one size that one thread keeps: those in `batch`, and a spare batch that is full or empty.
/// Neither count nor room before the thread's first use, and after its end: each access then goes the slow way.
template <std::size_t kMost>
struct BlockCache
{
    std::uint32_t count = 0;
    std::uint32_t room = 0;
    void** blocks = nullptr; ///< those of `batch`
    BlockBatch<kMost>* batch = nullptr;
    BlockBatch<kMost>* spare = nullptr;
    bool isSpareFull = false;
};

} // namespace detail

/// Memory for what crosses the data queue: the queue's elements, nodes and tasks are allocated by one thread and freed
/// by another, which is the slowest thing that can be asked of a heap. Here the blocks go round: each thread keeps a
/// few, the consumer hands what it has freed back in batches, and the producers take their next blocks from those.
///
/// Blocks come in two sizes, of one cache line and of two, and share no line: eight of the queue's small elements on a
/// line would have producer and reader take it from each other. What is larger comes from the heap.
///
/// Threads: any. A block may be freed by another thread than the one that allocated it; a thread that ends hands back
/// what it keeps, and may still allocate and free after that, in the destructors of its thread-local objects.
///
/// Bounds: the addresses of free blocks take an eighth of what the slabs do, and 2 KiB for each thread. After a burst,
/// what is free beyond kKeptBytes of a size goes back to the heap, but for what the threads' own few free blocks hold
/// in place: at most 2 * kBatch blocks of each size and thread.
///
/// Sanitizers see every block come from the heap and go back to it: recycling is off in builds with them. The
/// environment variable PS_RECYCLE_BLOCKS, 1 or 0, says otherwise, and is read once, when the first block is
/// allocated. With both on, AddressSanitizer finds accesses to free blocks while the
/// thread that freed them keeps them.
///
/// Failure: Allocate throws std::bad_alloc; Free never fails.
class BlockPool
{
public:
    static constexpr std::size_t kBatch = 64;         ///< blocks that are handed over at once
    static constexpr std::size_t kSlabBytes = 32'768; ///< what is taken from the heap at once
    static constexpr std::size_t kLargestBlock = 128;
    static constexpr std::array<std::size_t, 2> kBlockSizes{64, kLargestBlock};
    static constexpr std::array<std::size_t, 2> kKeptBytes{8 * 1024 * 1024, 8 * 1024 * 1024};

    static void* Allocate(std::size_t size);
    /// `size` is what the block was allocated with.
    static void Free(void* block, std::size_t size) noexcept;

    static bool IsOn() noexcept;
    /// What the pool has from the heap for blocks, in use or free. Blocks that are too large for it do not count, nor
    /// do the addresses of free ones.
    static std::size_t GetHeldBytes();
    /// Gives back to the heap what is free and not kept by another thread.
    static void ReleaseUnused() noexcept;

private:
    using Cache = detail::BlockCache<kBatch>;
    friend class BlockCaches;

    /// How many allocations ahead a block's line is asked for: it lies in the cache of the core that freed it.
    static constexpr std::uint32_t kAhead = 4;
    /// How many allocations ahead a batch's line is asked for: it lies there too.
    static constexpr std::uint32_t kBatchAhead = 12;

    static constexpr std::size_t GetSizeIndex(std::size_t size) noexcept { return size <= kBlockSizes[0] ? 0 : 1; }
    static void* AllocateSlowly(std::size_t sizeIndex);
    static void FreeSlowly(void* block, std::size_t sizeIndex) noexcept;
    static void Poison(void* block, std::size_t size) noexcept;
    static void Unpoison(void* block, std::size_t size) noexcept;
    static void PrefetchForWriting(void* block, std::size_t size) noexcept;

    inline static constinit thread_local std::array<Cache, kBlockSizes.size()> t_caches{};
};

} // namespace ps_ns

#include "common/detail/block_pool_impl.h"
