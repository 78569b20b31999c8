#include "common/action_center.h"
#include "common/block_pool.h"
#include "common/data_queue.h"
#include "common/queue_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace ps_ns;

// A program of its own: recycling is on in it whatever the build, and it replaces the process's operator new to count
// what reaches the heap.

namespace
{

/// Before the first block is allocated.
const bool kIsOn = setenv("PS_RECYCLE_BLOCKS", "1", 1) == 0;

std::atomic<std::uint64_t> g_allocations{0};
std::atomic<bool> g_slabsFail{false};

void* Allocate(std::size_t size)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    void* const memory = std::malloc(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}

} // namespace

// Inlined, the two halves of a pair look mismatched to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    return Allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment)
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    void* const memory = g_slabsFail.load() ? nullptr : std::aligned_alloc(static_cast<std::size_t>(alignment), size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept
{
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept
{
    std::free(memory);
}

namespace
{

constexpr std::size_t kSizes = BlockPool::kBlockSizes.size();

std::vector<void*> AllocateMany(std::size_t count, std::size_t size)
{
    std::vector<void*> blocks(count);
    std::generate(blocks.begin(), blocks.end(), [size] { return BlockPool::Allocate(size); });
    return blocks;
}

void FreeAll(const std::vector<void*>& blocks, std::size_t size)
{
    for (void* const block : blocks)
    {
        BlockPool::Free(block, size);
    }
}

/// The queue of the server with what it takes to post to it.
struct Posting
{
    DataQueue<DataMsgTask> queue{"recycling_test", zel::metrics::Gauge()};
    ActionCenter<DataQueue<DataMsgTask>, Task> center{&queue, nullptr};
    const std::string noName;
};

/// What the heap is asked for by `count` posts from one thread that another thread runs, after as many to warm up.
template <class MakeAction>
std::uint64_t CountAllocations(std::size_t count, MakeAction makeAction)
{
    Posting posting;
    std::atomic<std::size_t> runs{0};
    QueueReader<> reader(posting.queue);
    reader.Start();
    const auto post = [&]
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            posting.center.ExecuteAction(makeAction(runs), posting.noName);
            while (posting.queue.size() > 1000)
            {
                std::this_thread::yield();
            }
        }
    };
    const auto waitFor = [&](std::size_t all)
    {
        while (runs.load() != all)
        {
            std::this_thread::yield();
        }
    };
    post();
    waitFor(count);
    const std::uint64_t before = g_allocations.load();
    post();
    waitFor(2 * count);
    const std::uint64_t after = g_allocations.load();
    reader.Stop();
    return after - before;
}

} // namespace

TEST(Recycling, IsOnInThisProgram)
{
    EXPECT_TRUE(kIsOn);
    EXPECT_TRUE(BlockPool::IsOn());
}

TEST(Recycling, PostsSmallActionsWithoutAnyHeapAllocation)
{
    const std::uint64_t allocations =
        CountAllocations(200'000, [](std::atomic<std::size_t>& runs) { return [&runs] { runs.fetch_add(1); }; });
    EXPECT_EQ(allocations, 0U);
}

TEST(Recycling, PostsALargeActionWithNoMoreThanTheActionsOwnAllocation)
{
    constexpr std::size_t kPosts = 20'000;
    const std::uint64_t allocations = CountAllocations(
        kPosts, [](std::atomic<std::size_t>& runs)
        { return [&runs, payload = std::array<char, 200>{}] { runs.fetch_add(payload[0] == 0 ? 1 : 2); }; });
    EXPECT_EQ(allocations, kPosts);
}

TEST(Recycling, GivesAFreedBlockOutAgain)
{
    for (const std::size_t size : BlockPool::kBlockSizes)
    {
        void* const block = BlockPool::Allocate(size);
        BlockPool::Free(block, size);
        void* const again = BlockPool::Allocate(size);
        EXPECT_EQ(again, block);
        BlockPool::Free(again, size);
    }
}

TEST(Recycling, PutsNodesAndTasksOnCacheLinesOfTheirOwn)
{
    for (const std::size_t size : {std::size_t{64}, std::size_t{112}, std::size_t{128}})
    {
        const std::vector<void*> blocks = AllocateMany(2000, size);
        std::set<std::uintptr_t> lines;
        for (void* const block : blocks)
        {
            const auto address = reinterpret_cast<std::uintptr_t>(block);
            EXPECT_EQ(address % 64, 0U);
            for (std::size_t line = 0; line < (size + 63) / 64; ++line)
            {
                EXPECT_TRUE(lines.insert(address / 64 + line).second);
            }
        }
        FreeAll(blocks, size);
    }
}

TEST(Recycling, GivesNoBlockOutTwice)
{
    for (const std::size_t size : BlockPool::kBlockSizes)
    {
        std::vector<void*> blocks = AllocateMany(5000, size);
        FreeAll({blocks.begin() + 1000, blocks.begin() + 4000}, size);
        const std::vector<void*> more = AllocateMany(6000, size);
        std::set<void*> all(blocks.begin(), blocks.begin() + 1000);
        all.insert(blocks.begin() + 4000, blocks.end());
        all.insert(more.begin(), more.end());
        EXPECT_EQ(all.size(), 2000U + 6000U);
        FreeAll({blocks.begin(), blocks.begin() + 1000}, size);
        FreeAll({blocks.begin() + 4000, blocks.end()}, size);
        FreeAll(more, size);
    }
}

TEST(Recycling, HandsWhatOneThreadFreesToTheThreadThatAllocates)
{
    constexpr std::size_t kCount = 10 * BlockPool::kBatch;
    BlockPool::ReleaseUnused();
    const std::vector<void*> blocks = AllocateMany(kCount, 64);
    std::thread([&] { FreeAll(blocks, 64); }).join();
    const std::size_t held = BlockPool::GetHeldBytes();
    const std::vector<void*> again = AllocateMany(kCount, 64);
    EXPECT_EQ(BlockPool::GetHeldBytes(), held);
    FreeAll(again, 64);
}

TEST(Recycling, IsBoundedInMemoryAfterABurst)
{
    std::size_t mayKeep = 0;
    for (std::size_t i = 0; i < kSizes; ++i)
    {
        mayKeep += BlockPool::kKeptBytes[i];
    }
    Posting posting;
    std::thread(
        [&]
        {
            for (int i = 0; i < 500'000; ++i)
            {
                posting.center.ExecuteAction([] {}, posting.noName);
            }
        })
        .join();
    EXPECT_GT(BlockPool::GetHeldBytes(), 5 * mayKeep);
    EXPECT_EQ(RunDry(posting.queue), 500'000U);
    // This thread's own free blocks may hold a slab each.
    EXPECT_LE(BlockPool::GetHeldBytes(), mayKeep + kSizes * 2 * BlockPool::kBatch * BlockPool::kSlabBytes);
    BlockPool::ReleaseUnused();
    EXPECT_LE(BlockPool::GetHeldBytes(), kSizes * BlockPool::kSlabBytes);
}

TEST(Recycling, IsBoundedInMemoryWhenABurstIsFreedInAnyOrder)
{
    std::vector<void*> blocks = AllocateMany(400'000, 64);
    for (std::size_t stride = 0; stride < 7; ++stride)
    {
        for (std::size_t i = stride; i < blocks.size(); i += 7)
        {
            BlockPool::Free(blocks[i], 64);
        }
    }
    EXPECT_LE(BlockPool::GetHeldBytes(), 2 * BlockPool::kKeptBytes[0] + 2 * BlockPool::kBatch * BlockPool::kSlabBytes);
}

TEST(Recycling, LetsAThreadThatEndsHandBackWhatItKeeps)
{
    std::thread([] { FreeAll(AllocateMany(100, 128), 128); }).join();
    const std::size_t held = BlockPool::GetHeldBytes();
    for (int i = 0; i < 100; ++i)
    {
        std::thread([] { FreeAll(AllocateMany(100, 128), 128); }).join();
    }
    EXPECT_EQ(BlockPool::GetHeldBytes(), held);
}

namespace
{
struct FreesAtTheEndOfItsThread
{
    ~FreesAtTheEndOfItsThread()
    {
        BlockPool::Free(block, 64);
        void* const another = BlockPool::Allocate(64);
        wasGivenAnother = another != nullptr;
        BlockPool::Free(another, 64);
    }
    void* block = nullptr;
    static inline bool wasGivenAnother = false;
};
} // namespace

TEST(Recycling, ServesThreadLocalObjectsThatOutliveTheThreadsBlocks)
{
    std::thread(
        []
        {
            // Made before the pool sees the thread, so destroyed after what the pool keeps for it.
            static thread_local FreesAtTheEndOfItsThread last;
            last.block = nullptr;
            last.block = BlockPool::Allocate(64);
        })
        .join();
    EXPECT_TRUE(FreesAtTheEndOfItsThread::wasGivenAnother);
}

TEST(Recycling, TakesWhatIsLargerFromTheHeap)
{
    const std::size_t held = BlockPool::GetHeldBytes();
    const std::uint64_t before = g_allocations.load();
    void* const block = BlockPool::Allocate(BlockPool::kLargestBlock + 1);
    EXPECT_EQ(g_allocations.load(), before + 1);
    BlockPool::Free(block, BlockPool::kLargestBlock + 1);
    EXPECT_EQ(BlockPool::GetHeldBytes(), held);
}

TEST(Recycling, UndoesAnInsertWhenTheHeapHasNothing)
{
    Posting posting;
    auto* const task = new ChannelTask<Task>([] {}, "");
    BlockPool::ReleaseUnused();
    std::vector<void*> elements;
    g_slabsFail.store(true);
    try
    {
        for (;;) // what other tests have left
        {
            elements.push_back(BlockPool::Allocate(8));
        }
    }
    catch (const std::bad_alloc&)
    {
    }
    EXPECT_THROW(posting.queue.insert(task), std::bad_alloc);
    g_slabsFail.store(false);
    EXPECT_EQ(posting.queue.size(), 0U);
    FreeAll(elements, 8);
    posting.queue.insert(new ChannelTask<Task>([] {}, ""));
    EXPECT_EQ(RunDry(posting.queue), 1U);
}
