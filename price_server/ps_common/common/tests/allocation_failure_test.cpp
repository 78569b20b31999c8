#include "common/action_center.h"
#include "common/data_queue.h"
#include "test_queue.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

using namespace ps_ns;
using namespace ps_ns::test;

// A program of its own: it replaces the allocation of over-aligned objects, which of all that the queue allocates are
// its nodes alone, and gives the elements and the tasks of these tests an allocation of their own. Blocks are not
// recycled in it: an allocation that fails is one that reaches the heap.

namespace
{

/// Before the first block is allocated.
[[maybe_unused]] const bool kIsOff = setenv("PS_RECYCLE_BLOCKS", "0", 1) == 0;

enum class Fails
{
    Nothing,
    Element,
    Node,
    Task
};
Fails g_fails = Fails::Nothing;

void* AllocateUnless(Fails what, std::size_t size)
{
    if (g_fails == what)
    {
        throw std::bad_alloc();
    }
    return ::operator new(size);
}

struct Element
{
    Task* task;

    static void* operator new(std::size_t size) { return AllocateUnless(Fails::Element, size); }
    static void operator delete(void* memory) { ::operator delete(memory); }
};

/// A base of tasks whose allocation may fail.
class FailingTask : public Task
{
public:
    static void* operator new(std::size_t size) { return AllocateUnless(Fails::Task, size); }
    static void operator delete(void* memory) { ::operator delete(memory); }
};

const zel::metrics::Metric kDepth{"allocation_failure_test_depth", "queued tasks", {}};

class AllocationFailure : public testing::Test
{
protected:
    ~AllocationFailure() override
    {
        g_fails = Fails::Nothing;
        zel::metrics::DestroyGauge(kDepth);
    }

    /// Inserts one task that is queued and one for which `what` fails.
    void InsertAndFail(Fails what, Task* task)
    {
        m_queue.insert(new RecordingTask(m_sequence, "first"));
        g_fails = what;
        EXPECT_THROW(m_queue.insert(task), std::bad_alloc);
        g_fails = Fails::Nothing;
    }

    void ExpectOnlyTheFirstIsQueued()
    {
        EXPECT_EQ(m_queue.size(), 1U);
        EXPECT_EQ(m_gauge.Get(), 1.0);
        m_queue.insert(new RecordingTask(m_sequence, "last"));
        m_sequence.clear();
        while (Task* const task = m_queue.take())
        {
            task->execute();
            delete task;
        }
        EXPECT_EQ(m_sequence, (Sequence{"first run", "first destroyed", "last run", "last destroyed"}));
        EXPECT_EQ(m_queue.size(), 0U);
        EXPECT_EQ(m_gauge.Get(), 0.0);
    }

    Sequence m_sequence;
    const zel::metrics::Gauge m_gauge = zel::metrics::CreateGauge(kDepth);
    DataQueue<Element> m_queue{"requests", m_gauge};
};

} // namespace

// Inlined, the two halves of the pair look mismatched to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment)
{
    void* const memory =
        g_fails == Fails::Node ? nullptr : std::aligned_alloc(static_cast<std::size_t>(alignment), size);
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

TEST_F(AllocationFailure, OfAnElementUndoesTheInsertAndDisposesOfTheTask)
{
    InsertAndFail(Fails::Element, new RecordingTask(m_sequence, "lost"));
    EXPECT_EQ(m_sequence, (Sequence{"lost destroyed"}));
    ExpectOnlyTheFirstIsQueued();
}

TEST_F(AllocationFailure, OfANodeUndoesTheInsertAndDisposesOfTheTask)
{
    InsertAndFail(Fails::Node, new RecordingTask(m_sequence, "lost"));
    EXPECT_EQ(m_sequence, (Sequence{"lost destroyed"}));
    ExpectOnlyTheFirstIsQueued();
}

TEST_F(AllocationFailure, InAnInsertHandsTheTaskToItsDisposer)
{
    for (const Fails what : {Fails::Element, Fails::Node})
    {
        RecordingTask lost(m_sequence, "lost");
        Task* handed = nullptr;
        lost.m_disposer = [&](Task* disposed) { handed = disposed; };
        m_sequence.clear();
        InsertAndFail(what, &lost);
        EXPECT_EQ(handed, &lost);
        EXPECT_EQ(m_sequence, (Sequence{"lost disposed of"}));
        ExpectOnlyTheFirstIsQueued();
    }
}

TEST_F(AllocationFailure, OfATaskQueuesNothingAndLetsGoOfTheAction)
{
    FakeQueue queue;
    ActionCenter<FakeQueue, FailingTask> center(&queue, nullptr);
    const auto captured = std::make_shared<int>(1);
    g_fails = Fails::Task;
    EXPECT_THROW(center.ExecuteAction([captured] {}, "name"), std::bad_alloc);
    g_fails = Fails::Nothing;
    EXPECT_EQ(queue.m_inserts, 0);
    EXPECT_EQ(captured.use_count(), 1);
}
