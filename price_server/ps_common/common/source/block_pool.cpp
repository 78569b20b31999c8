#include "common/block_pool.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

namespace ps_ns
{
namespace
{

constexpr std::size_t kSizes = BlockPool::kBlockSizes.size();
constexpr std::size_t kBatch = BlockPool::kBatch;
constexpr std::size_t kSlabBytes = BlockPool::kSlabBytes;
constexpr std::align_val_t kSlabAlignment{kSlabBytes};
constexpr std::align_val_t kLineAlignment{64};

using Batch = std::array<void*, kBatch>;

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
    {
        m_batches.reserve(m_maxSlabs * Slab::GetRoom(m_blockSize) / kBatch);
    }

    /// Fills `batch` from its beginning; returns how many blocks there are, at least one. Throws std::bad_alloc.
    std::size_t Take(Batch& batch)
    {
        const std::lock_guard lock(m_mutex);
        if (!m_batches.empty())
        {
            batch = m_batches.back();
            m_batches.pop_back();
            return kBatch;
        }
        std::size_t count = 0;
        while (count < kBatch && (m_slabsWithFree != nullptr || AddSlab(count != 0)))
        {
            batch[count++] = TakeFromSlab();
        }
        return count;
    }

    /// Takes over a whole batch.
    void Give(const Batch& batch) noexcept
    {
        const std::lock_guard lock(m_mutex);
        if (m_slabCount <= m_maxSlabs && m_batches.size() < m_batches.capacity())
        {
            m_batches.push_back(batch);
            return;
        }
        // More is held than may be kept: the batches go too, so that they do not hold the slabs of a burst in place.
        ReturnToSlabs(batch.data(), kBatch);
        ReturnBatches();
    }

    void Give(void* const* blocks, std::size_t count) noexcept
    {
        const std::lock_guard lock(m_mutex);
        ReturnToSlabs(blocks, count);
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
        try
        {
            Link(new (::operator new(kSlabBytes, kSlabAlignment)) Slab);
        }
        catch (const std::bad_alloc&)
        {
            if (!canDoWithout)
            {
                throw;
            }
            return false;
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
        for (const Batch& batch : m_batches)
        {
            ReturnToSlabs(batch.data(), kBatch);
        }
        m_batches.clear();
    }

    void Release(Slab* slab) noexcept
    {
        Unlink(slab);
        ::operator delete(slab, kSlabAlignment);
        --m_slabCount;
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
    std::mutex m_mutex;
    std::vector<Batch> m_batches;    ///< under m_mutex; its capacity is all that it ever needs
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
public:
    BlockCaches() noexcept
    {
        for (auto& cache : BlockPool::t_caches)
        {
            cache.room = 2 * kBatch;
        }
    }
    ~BlockCaches()
    {
        Empty();
        for (auto& cache : BlockPool::t_caches)
        {
            cache.room = 0;
        }
        t_hasEnded = true;
    }
    BlockCaches(const BlockCaches&) = delete;
    BlockCaches& operator=(const BlockCaches&) = delete;

    /// False when the thread has ended: then there is nothing to open.
    static bool Open() noexcept
    {
        if (t_hasEnded)
        {
            return false;
        }
        static thread_local const BlockCaches caches;
        static_cast<void>(caches);
        return true;
    }

    static void Empty() noexcept
    {
        for (std::size_t index = 0; index < kSizes; ++index)
        {
            auto& cache = BlockPool::t_caches[index];
            for (std::size_t i = 0; i < cache.count; ++i)
            {
                BlockPool::Unpoison(cache.blocks[i], BlockPool::kBlockSizes[index]);
            }
            GetDepot(index).Give(cache.blocks.data(), cache.count);
            cache.count = 0;
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
    Batch batch;
    if (!BlockCaches::Open())
    {
        const std::size_t count = GetDepot(sizeIndex).Take(batch);
        GetDepot(sizeIndex).Give(batch.data() + 1, count - 1);
        return batch[0];
    }
    std::size_t count = GetDepot(sizeIndex).Take(batch);
    void* const block = batch[--count];
    for (std::size_t ahead = 0; ahead < std::min<std::size_t>(kAhead, count); ++ahead)
    {
        PrefetchForWriting(batch[count - 1 - ahead], kBlockSizes[sizeIndex]);
    }
    Cache& cache = t_caches[sizeIndex];
    std::copy_n(batch.begin(), count, cache.blocks.begin());
    cache.count = static_cast<std::uint32_t>(count);
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
        cache.count -= std::uint32_t{kBatch};
        Batch batch;
        std::copy_n(cache.blocks.begin() + cache.count, kBatch, batch.begin());
        for (void* const free : batch)
        {
            Unpoison(free, kBlockSizes[sizeIndex]);
        }
        GetDepot(sizeIndex).Give(batch);
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
