#pragma once

#include "common/block_pool.h"

#if defined(__SANITIZE_ADDRESS__)
#define PS_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define PS_ADDRESS_SANITIZER
#endif
#endif

#ifdef PS_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

#include <algorithm>

namespace ps_ns
{

inline void* BlockPool::Allocate(std::size_t size)
{
    if (size > kLargestBlock)
    {
        return ::operator new(size);
    }
    const std::size_t index = GetSizeIndex(size);
    Cache& cache = t_caches[index];
    if (cache.count == 0)
    {
        return AllocateSlowly(index);
    }
    void* const block = cache.blocks[--cache.count];
    if (cache.count >= kAhead)
    {
        PrefetchForWriting(cache.blocks[cache.count - kAhead], kBlockSizes[index]);
        __builtin_prefetch(cache.blocks + std::max(cache.count, kBatchAhead) - kBatchAhead);
    }
    Unpoison(block, kBlockSizes[index]);
    return block;
}

inline void BlockPool::Free(void* block, std::size_t size) noexcept
{
    if (block == nullptr || size > kLargestBlock)
    {
        ::operator delete(block);
        return;
    }
    const std::size_t index = GetSizeIndex(size);
    Cache& cache = t_caches[index];
    if (cache.count == cache.room)
    {
        FreeSlowly(block, index);
        return;
    }
    Poison(block, kBlockSizes[index]);
    cache.blocks[cache.count++] = block; // the block itself is not touched: its line may go where it is needed next
}

inline void BlockPool::PrefetchForWriting([[maybe_unused]] void* block, [[maybe_unused]] std::size_t size) noexcept
{
#if defined(__x86_64__)
    // __builtin_prefetch asks for a shared line, unless the compiler may assume a newer processor: the store would then
    // wait for it a second time.
    asm volatile("prefetchw %0" : : "m"(*static_cast<char*>(block)));
    if (size > 64)
    {
        asm volatile("prefetchw %0" : : "m"(*(static_cast<char*>(block) + 64)));
    }
#endif
}

inline void BlockPool::Poison([[maybe_unused]] void* block, [[maybe_unused]] std::size_t size) noexcept
{
#ifdef PS_ADDRESS_SANITIZER
    __asan_poison_memory_region(block, size);
#endif
}

inline void BlockPool::Unpoison([[maybe_unused]] void* block, [[maybe_unused]] std::size_t size) noexcept
{
#ifdef PS_ADDRESS_SANITIZER
    __asan_unpoison_memory_region(block, size);
#endif
}

} // namespace ps_ns

#undef PS_ADDRESS_SANITIZER
