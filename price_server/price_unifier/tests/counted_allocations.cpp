#include "counted_allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace ps_ns::testing
{
namespace
{

std::atomic<std::uint64_t> g_allocations{0};
std::atomic<std::uint64_t> g_marked{0};

void* Allocate(std::size_t size) noexcept
{
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (size == kMarkedLength + 1)
    {
        g_marked.fetch_add(1, std::memory_order_relaxed);
    }
    return std::malloc(size);
}

} // namespace

std::uint64_t GetAllocations() noexcept
{
    return g_allocations.load();
}

std::uint64_t GetMarkedAllocations() noexcept
{
    return g_marked.load();
}

} // namespace ps_ns::testing

// Inlined, the two halves of a pair look mismatched to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const memory = ps_ns::testing::Allocate(size);
    if (memory == nullptr)
    {
        throw std::bad_alloc();
    }
    return memory;
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return ps_ns::testing::Allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}
