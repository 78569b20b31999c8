#include "common/block_pool.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::size_t kSizes = BlockPool::kBlockSizes.size();
constexpr std::size_t kBatch = BlockPool::kBatch;
constexpr std::size_t kSlabBytes = BlockPool::kSlabBytes;
constexpr std::align_val_t kSlabAlignment{kSlabBytes};
constexpr std::align_val_t kLineAlignment{64};

using Batch = detail::BlockBatch<kBatch>;

/// A free block that lies in its slab, not in a batch.
struct FreeBlock
{
    FreeBlock* next;
};

/// What is taken from the heap at once: this header on a line of its own, then blocks. It lies at a multiple of its
/// size, so that a block's address tells its slab.
struct Slab
{
    static constexpr std::size_t kHeaderBytes = 64;

    static Slab* Of(void* block) noexcept
    {
        const auto address = reinterpret_cast<std::uintptr_t>(block);
        return reinterpret_cast<Slab*>(address & ~(kSlabBytes - 1)); // NOLINT(performance-no-int-to-ptr)
    }
    static std::size_t GetRoom(std::size_t blockSize) noexcept { return (kSlabBytes - kHeaderBytes) / blockSize; }

    bool HasFree(std::size_t blockSize) const noexcept { return free != nullptr || carved < GetRoom(blockSize); }
    void* Take(std::size_t blockSize) noexcept
    {
        ++out;
        if (free != nullptr)
        {
            return std::exchange(free, free->next);
        }
        return reinterpret_cast<char*>(this) + kHeaderBytes + blockSize * carved++;
    }
    void Return(void* block) noexcept
    {
        --out;
        free = new (block) FreeBlock{free};
    }

    // All under the depot's lock.
    Slab* next = nullptr; ///< neighbours in the depot's list of slabs that have free blocks
    Slab* previous = nullptr;
    FreeBlock* free = nullptr;
    std::size_t carved = 0; ///< blocks that have ever been handed out; the memory behind them is untouched
    std::size_t out = 0;    ///< blocks that are not in this slab: in use, in a batch, or kept by a thread
};
static_assert(sizeof(Slab) <= Slab::kHeaderBytes);

/// Where the threads meet: the free blocks of one size, in batches that go from thread to thread as they are, and in
/// slabs. Taken and given under one lock, once in kBatch allocations.
class Depot
{
public:
    explicit Depot(std::size_t sizeIndex)
        : m_blockSize(BlockPool::kBlockSizes[sizeIndex])
        , m_maxSlabs(BlockPool::kKeptBytes[sizeIndex] / kSlabBytes)
        , m_batchesForSlab((Slab::GetRoom(m_blockSize) + kBatch - 1) / kBatch)
    {
    }

    /// Replaces an empty batch by one that is filled from its beginning; returns how many blocks there are, at least
    /// one. Throws std::bad_alloc, with the batch as it was.
    std::size_t Fill(Batch*& batch)
    {
        const std::lock_guard lock(m_mutex);
        if (Batch* const full = Pop(m_fullBatches))
        {
            Push(m_emptyBatches, std::exchange(batch, full));
            return kBatch;
        }
        std::size_t count = 0;
        while (count < kBatch && (m_slabsWithFree != nullptr || AddSlab(count != 0)))
        {
            batch->blocks[count++] = TakeFromSlab();
        }
        return count;
    }

    /// Replaces a full batch by an empty one.
    void Empty(Batch*& batch) noexcept
    {
        const std::lock_guard lock(m_mutex);
        if (m_slabCount <= m_maxSlabs)
        {
            Batch* const empty = Pop(m_emptyBatches);
            assert(empty != nullptr); // no more batches are full, with this one, than were made with the slabs
            Push(m_fullBatches, std::exchange(batch, empty));
            return;
        }
        // More is held than may be kept: the full batches go too, so that they do not hold the slabs of a burst in
        // place.
        ReturnToSlabs(batch->blocks.data(), kBatch);
        ReturnBatches();
    }

    void Give(void* const* blocks, std::size_t count) noexcept
    {
        const std::lock_guard lock(m_mutex);
        ReturnToSlabs(blocks, count);
    }

    /// One block without a batch. Throws std::bad_alloc.
    void* TakeOne()
    {
        const std::lock_guard lock(m_mutex);
        if (m_slabsWithFree == nullptr)
        {
            AddSlab(false);
        }
        return TakeFromSlab();
    }

    void ReleaseUnused() noexcept
    {
        const std::lock_guard lock(m_mutex);
        ReturnBatches();
        for (Slab* slab = m_slabsWithFree; slab != nullptr;)
        {
            Slab* const next = slab->next;
            if (slab->out == 0)
            {
                Release(slab);
            }
            slab = next;
        }
    }

    std::size_t GetHeldBytes()
    {
        const std::lock_guard lock(m_mutex);
        return m_slabCount * kSlabBytes;
    }

private:
    /// False instead of an exception when the caller can do without.
    bool AddSlab(bool canDoWithout)
    {
        Batch* batches = nullptr;
        try
        {
            for (std::size_t i = 0; i < m_batchesForSlab; ++i)
            {
                Push(batches, new Batch);
            }
            Link(new (::operator new(kSlabBytes, kSlabAlignment)) Slab);
        }
        catch (const std::bad_alloc&)
        {
            Delete(batches, m_batchesForSlab);
            if (!canDoWithout)
            {
                throw;
            }
            return false;
        }
        while (Batch* const batch = Pop(batches))
        {
            Push(m_emptyBatches, batch);
        }
        ++m_slabCount;
        return true;
    }

    void* TakeFromSlab() noexcept
    {
        Slab* const slab = m_slabsWithFree;
        void* const block = slab->Take(m_blockSize);
        if (!slab->HasFree(m_blockSize))
        {
            Unlink(slab);
        }
        return block;
    }

    void ReturnToSlabs(void* const* blocks, std::size_t count) noexcept
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            Slab* const slab = Slab::Of(blocks[i]);
            if (!slab->HasFree(m_blockSize))
            {
                Link(slab);
            }
            slab->Return(blocks[i]);
            if (slab->out == 0 && m_slabCount > m_maxSlabs)
            {
                Release(slab);
            }
        }
    }

    void ReturnBatches() noexcept
    {
        while (Batch* const full = Pop(m_fullBatches))
        {
            ReturnToSlabs(full->blocks.data(), kBatch);
            Push(m_emptyBatches, full);
        }
    }

    static void Push(Batch*& list, Batch* batch) noexcept { batch->next = std::exchange(list, batch); }
    static Batch* Pop(Batch*& list) noexcept
    {
        Batch* const batch = list;
        if (batch != nullptr)
        {
            list = batch->next;
        }
        return batch;
    }

    void Release(Slab* slab) noexcept
    {
        Unlink(slab);
        ::operator delete(slab, kSlabAlignment);
        --m_slabCount;
        Delete(m_emptyBatches, m_batchesForSlab); // what is left has room in the others
    }

    /// The first `most` of a list.
    static void Delete(Batch*& list, std::size_t most) noexcept
    {
        for (std::size_t i = 0; i < most && list != nullptr; ++i)
        {
            delete Pop(list);
        }
    }

    void Link(Slab* slab) noexcept
    {
        slab->previous = nullptr;
        slab->next = m_slabsWithFree;
        if (m_slabsWithFree != nullptr)
        {
            m_slabsWithFree->previous = slab;
        }
        m_slabsWithFree = slab;
    }

    void Unlink(Slab* slab) noexcept
    {
        (slab->previous != nullptr ? slab->previous->next : m_slabsWithFree) = slab->next;
        if (slab->next != nullptr)
        {
            slab->next->previous = slab->previous;
        }
    }

    const std::size_t m_blockSize;
    const std::size_t m_maxSlabs;
    const std::size_t m_batchesForSlab; ///< enough for all of its blocks
    std::mutex m_mutex;
    Batch* m_fullBatches = nullptr;  ///< under m_mutex
    Batch* m_emptyBatches = nullptr; ///< under m_mutex; with the full ones, m_batchesForSlab for each slab
    Slab* m_slabsWithFree = nullptr; ///< under m_mutex
    std::size_t m_slabCount = 0;     ///< under m_mutex; those without free blocks are in no list
};

/// Never destroyed: blocks are freed by static objects too.
Depot& GetDepot(std::size_t sizeIndex)
{
    static auto& depots = *new std::array<Depot, kSizes>{Depot(0), Depot(1)};
    return depots[sizeIndex];
}

bool DecideWhetherOn() noexcept
{
    if (const char* const said = std::getenv("PS_RECYCLE_BLOCKS"))
    {
        return std::string_view(said) != "0";
    }
#ifdef PS_SANITIZED
    return false;
#else
    return true;
#endif
}

void* AllocateFromHeap(std::size_t size)
{
    return ::operator new(size, kLineAlignment);
}

void FreeToHeap(void* block) noexcept
{
    ::operator delete(block, kLineAlignment);
}

thread_local bool t_hasEnded = false;

} // namespace

/// Opens the calling thread's caches at its first use, and empties them at its end.
class BlockCaches
{
    using Cache = BlockPool::Cache;

public:
    BlockCaches()
    {
        try
        {
            for (Cache& cache : BlockPool::t_caches)
            {
                cache.batch = new Batch;
                cache.spare = new Batch;
                cache.blocks = cache.batch->blocks.data();
                cache.room = kBatch;
            }
        }
        catch (...)
        {
            Close();
            throw;
        }
    }
    ~BlockCaches()
    {
        Empty();
        Close();
        t_hasEnded = true;
    }
    BlockCaches(const BlockCaches&) = delete;
    BlockCaches& operator=(const BlockCaches&) = delete;

    /// False when there is nothing to open: the thread has ended, or the heap has no memory for it.
    static bool Open() noexcept
    {
        if (t_hasEnded)
        {
            return false;
        }
        try
        {
            static thread_local const BlockCaches caches;
            static_cast<void>(caches);
        }
        catch (const std::bad_alloc&)
        {
            return false;
        }
        return true;
    }

    static void Empty() noexcept
    {
        for (std::size_t index = 0; index < kSizes; ++index)
        {
            Cache& cache = BlockPool::t_caches[index];
            UnpoisonAll(index, cache.blocks, cache.count);
            GetDepot(index).Give(cache.blocks, std::exchange(cache.count, 0));
            if (std::exchange(cache.isSpareFull, false))
            {
                UnpoisonAll(index, cache.spare->blocks.data(), kBatch);
                GetDepot(index).Give(cache.spare->blocks.data(), kBatch);
            }
        }
    }

    /// More free blocks for a cache that has none. Throws std::bad_alloc.
    static void Refill(Cache& cache, std::size_t index)
    {
        if (std::exchange(cache.isSpareFull, false))
        {
            SwapWithSpare(cache, kBatch);
            return;
        }
        cache.count = static_cast<std::uint32_t>(GetDepot(index).Fill(cache.batch));
        cache.blocks = cache.batch->blocks.data();
    }

    /// Room in a cache that is full.
    static void MakeRoom(Cache& cache, std::size_t index) noexcept
    {
        if (cache.isSpareFull)
        {
            UnpoisonAll(index, cache.spare->blocks.data(), kBatch);
            GetDepot(index).Empty(cache.spare);
        }
        cache.isSpareFull = true;
        SwapWithSpare(cache, 0);
    }

private:
    static void Close() noexcept
    {
        for (Cache& cache : BlockPool::t_caches)
        {
            delete cache.batch;
            delete cache.spare;
            cache = {};
        }
    }

    static void SwapWithSpare(Cache& cache, std::uint32_t count) noexcept
    {
        std::swap(cache.batch, cache.spare);
        cache.blocks = cache.batch->blocks.data();
        cache.count = count;
    }

    static void UnpoisonAll(std::size_t index, void* const* blocks, std::size_t count) noexcept
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            BlockPool::Unpoison(blocks[i], BlockPool::kBlockSizes[index]);
        }
    }
};

bool BlockPool::IsOn() noexcept
{
    static const bool isOn = DecideWhetherOn();
    return isOn;
}

void* BlockPool::AllocateSlowly(std::size_t sizeIndex)
{
    if (!IsOn())
    {
        return AllocateFromHeap(kBlockSizes[sizeIndex]);
    }
    if (!BlockCaches::Open())
    {
        return GetDepot(sizeIndex).TakeOne();
    }
    Cache& cache = t_caches[sizeIndex];
    if (cache.count == 0)
    {
        BlockCaches::Refill(cache, sizeIndex);
    }
    void* const block = cache.blocks[--cache.count];
    for (std::uint32_t ahead = 1; ahead <= std::min(kAhead, cache.count); ++ahead)
    {
        PrefetchForWriting(cache.blocks[cache.count - ahead], kBlockSizes[sizeIndex]);
    }
    Unpoison(block, kBlockSizes[sizeIndex]);
    return block;
}

void BlockPool::FreeSlowly(void* block, std::size_t sizeIndex) noexcept
{
    if (!IsOn())
    {
        FreeToHeap(block);
        return;
    }
    if (!BlockCaches::Open())
    {
        GetDepot(sizeIndex).Give(&block, 1);
        return;
    }
    Cache& cache = t_caches[sizeIndex];
    if (cache.count == cache.room)
    {
        BlockCaches::MakeRoom(cache, sizeIndex);
    }
    Poison(block, kBlockSizes[sizeIndex]);
    cache.blocks[cache.count++] = block;
}

std::size_t BlockPool::GetHeldBytes()
{
    std::size_t bytes = 0;
    for (std::size_t index = 0; index < kSizes; ++index)
    {
        bytes += GetDepot(index).GetHeldBytes();
    }
    return bytes;
}

void BlockPool::ReleaseUnused() noexcept
{
    BlockCaches::Empty();
    for (std::size_t index = 0; index < kSizes; ++index)
    {
        GetDepot(index).ReleaseUnused();
    }
}

} // namespace ps_ns
