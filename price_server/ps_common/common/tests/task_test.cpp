#include "common/channel_task.h"
#include "common/task.h"
#include "test_queue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <stdexcept>
#include <type_traits>

using namespace ps_ns;
using namespace ps_ns::test;

static_assert(std::has_virtual_destructor_v<Task>);
static_assert(std::is_abstract_v<Task>);
static_assert(!std::is_copy_constructible_v<Task>);
static_assert(std::is_nothrow_destructible_v<ChannelTask<Task>>);

namespace
{

#if defined(__x86_64__)
/// The place of a virtual operation in the class's table, as its member pointer encodes it: 1 + offset in bytes.
template <class Member>
std::size_t SlotOf(Member member)
{
    std::size_t encoded = 0;
    static_assert(sizeof(member) >= sizeof(encoded));
    std::memcpy(&encoded, &member, sizeof(encoded));
    return (encoded - 1) / sizeof(void*);
}
#endif

/// Writes into the sequence when the last copy of it dies.
std::shared_ptr<void> Tracer(Sequence& sequence, const std::string& text)
{
    return {nullptr, [&sequence, text](void*) { sequence.push_back(text); }};
}

} // namespace

#if defined(__x86_64__)
TEST(Task, HasItsOperationsInTheFixedOrder)
{
    EXPECT_EQ(SlotOf(&Task::dispose), 0U);
    EXPECT_EQ(SlotOf(&Task::execute), 1U); // the destructor's slots follow
}
#endif

TEST(Task, IsDispatchedToTheDerivedClass)
{
    Sequence sequence;
    Task* const task = new RecordingTask(sequence, "task");
    task->execute();
    task->dispose();
    delete task;
    EXPECT_EQ(sequence, (Sequence{"task run", "task disposed of", "task destroyed"}));
}

TEST(Task, HasTagOneAndNoDisposer)
{
    Sequence sequence;
    const RecordingTask task(sequence, "task");
    EXPECT_EQ(task.m_tag, 1U);
    EXPECT_FALSE(task.m_disposer);
}

TEST(Task, DoesNothingToDisposeOfItselfWithoutADisposer)
{
    Sequence sequence;
    {
        ChannelTask<Task> task([&] { sequence.push_back("run"); }, "");
        task.dispose();
    }
    EXPECT_TRUE(sequence.empty());
}

TEST(Task, IsHandedToItsDisposer)
{
    Sequence sequence;
    RecordingTask task(sequence, "task");
    Task* handed = nullptr;
    task.m_disposer = [&](Task* disposed) { handed = disposed; };
    task.dispose();
    EXPECT_EQ(handed, &task);
}

TEST(DisposeOf, DeletesATaskWithoutADisposer)
{
    Sequence sequence;
    DisposeOf(new RecordingTask(sequence, "task"));
    EXPECT_EQ(sequence, (Sequence{"task destroyed"}));
}

TEST(DisposeOf, LeavesATaskToItsDisposer)
{
    Sequence sequence;
    RecordingTask task(sequence, "task");
    int handed = 0;
    task.m_disposer = [&](Task*) { ++handed; };
    DisposeOf(&task);
    EXPECT_EQ(handed, 1);
    EXPECT_EQ(sequence, (Sequence{"task disposed of"}));
}

TEST(ChannelTask, RunsItsActionEachTime)
{
    int runs = 0;
    ChannelTask<Task> task([&] { ++runs; }, "count");
    task.execute();
    task.execute();
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(task.GetName(), "count");
    EXPECT_EQ(task.m_tag, 1U);
    EXPECT_FALSE(task.m_disposer);
}

TEST(ChannelTask, ThrowsWhenItsActionIsEmpty)
{
    ChannelTask<Task> task({}, "nothing");
    EXPECT_THROW(task.execute(), std::bad_function_call);
}

TEST(ChannelTask, LetsOutWhatItsActionThrows)
{
    ChannelTask<Task> task([] { throw std::runtime_error("no"); }, "");
    EXPECT_THROW(task.execute(), std::runtime_error);
}

TEST(ChannelTask, LetsGoOfItsActionAndThenOfItsDisposer)
{
    Sequence sequence;
    {
        ChannelTask<Task> task([traced = Tracer(sequence, "action gone")] { static_cast<void>(traced); }, "name");
        task.m_disposer = [traced = Tracer(sequence, "disposer gone")](Task*) { static_cast<void>(traced); };
        task.execute();
        EXPECT_TRUE(sequence.empty());
    }
    EXPECT_EQ(sequence, (Sequence{"action gone", "disposer gone"}));
}
