#pragma once

#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace ps_ns
{

/// How many updates are under way: made, and still held by somebody. What a full-speed feed waits on.
///
/// Threads: any.
class InFlightBudget
{
public:
    explicit InFlightBudget(std::size_t limit)
        : m_limit(limit)
    {
    }

    void Take();
    void GiveBack() noexcept;

    /// Returns true as soon as `wanted` more would stay within the limit; when `wanted` is more than the limit, as soon
    /// as nothing is under way. False: stopped.
    bool WaitForRoom(std::size_t wanted);
    /// Ends all waits, now and later.
    void Stop();

    std::size_t GetInFlight() const;
    std::size_t GetMostInFlight() const; ///< ever
    bool IsWaiting() const;              ///< somebody is in WaitForRoom

private:
    const std::size_t m_limit;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_inFlight = 0;     ///< under m_mutex
    std::size_t m_mostInFlight = 0; ///< under m_mutex
    unsigned m_waiting = 0;         ///< under m_mutex
    bool m_isStopped = false;       ///< under m_mutex
};

/// Blocks of one size, kept for the next who needs one.
class BlockStore
{
public:
    BlockStore() = default;
    ~BlockStore();
    BlockStore(const BlockStore&) = delete;
    BlockStore& operator=(const BlockStore&) = delete;

    void* Take(std::size_t size);
    void GiveBack(void* block, std::size_t size) noexcept;

private:
    std::mutex m_mutex;
    std::size_t m_size = 0;      ///< under m_mutex; of the blocks kept: that of the first ever taken
    std::vector<void*> m_blocks; ///< under m_mutex
};

/// Makes shared objects that come back to it when nobody holds them any more: neither the object, its inner buffers
/// nor the pointer's control block is allocated again in the steady state.
///
/// Ownership: objects may outlive the pool; the store behind them lives as long as the last of them.
///
/// Threads: any.
///
/// `Object` has an operation or overload Recycle(Object&) found by name lookup that empties it and keeps its room.
template <class Object>
class UpdatePool
{
public:
    explicit UpdatePool(std::shared_ptr<InFlightBudget> budget)
        : m_store(std::make_shared<Store>(std::move(budget)))
    {
    }

    /// An empty object. Never waits: who must not make too many asks the budget first.
    std::shared_ptr<Object> Acquire()
    {
        Object* const object = m_store->Take();
        return std::shared_ptr<Object>(object, Returner{m_store}, BlockAllocator<Object>(m_store));
    }

private:
    struct Store
    {
        explicit Store(std::shared_ptr<InFlightBudget> inFlight)
            : budget(std::move(inFlight))
        {
        }

        Object* Take()
        {
            std::unique_ptr<Object> object = TakeOrMake();
            budget->Take();
            return object.release();
        }

        std::unique_ptr<Object> TakeOrMake()
        {
            const std::lock_guard lock(mutex);
            if (free.empty())
            {
                if (made == free.capacity())
                {
                    free.reserve(2 * made + 1); // giving back never allocates
                }
                ++made;
                return std::make_unique<Object>();
            }
            std::unique_ptr<Object> object = std::move(free.back());
            free.pop_back();
            return object;
        }

        void GiveBack(Object* object) noexcept
        {
            Recycle(*object);
            {
                const std::lock_guard lock(mutex);
                free.emplace_back(object);
            }
            budget->GiveBack();
        }

        const std::shared_ptr<InFlightBudget> budget;
        BlockStore blocks;
        std::mutex mutex;
        std::vector<std::unique_ptr<Object>> free; ///< under mutex
        std::size_t made = 0;                      ///< under mutex
    };

    struct Returner
    {
        std::shared_ptr<Store> store;
        void operator()(Object* object) const noexcept { store->GiveBack(object); }
    };

    /// Serves the control blocks of the shared pointers.
    template <class Value>
    struct BlockAllocator
    {
        using value_type = Value;

        explicit BlockAllocator(std::shared_ptr<Store> from) noexcept
            : store(std::move(from))
        {
        }
        template <class Other>
        // NOLINTNEXTLINE(google-explicit-constructor): allocators convert by the standard's rules
        BlockAllocator(const BlockAllocator<Other>& other) noexcept
            : store(other.store)
        {
        }

        Value* allocate(std::size_t count) { return static_cast<Value*>(store->blocks.Take(count * sizeof(Value))); }
        void deallocate(Value* block, std::size_t count) noexcept
        {
            store->blocks.GiveBack(block, count * sizeof(Value));
        }

        template <class Other>
        bool operator==(const BlockAllocator<Other>& other) const noexcept
        {
            return store == other.store;
        }

        std::shared_ptr<Store> store;
    };

    std::shared_ptr<Store> m_store;
};

} // namespace ps_ns
