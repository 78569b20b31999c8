#include "comparison.h"
#include "composite_instrument/composite_instrument_def.h"
#include "post_queues.h"
#include "sample_def.h"

#include <algorithm>
#include <barrier>
#include <memory>
#include <vector>

namespace compare
{
namespace
{

constexpr std::size_t kSmallPosts = 50'000;
constexpr std::size_t kLargePosts = 20'000;

/// Counts the actions that have run: the reader alone writes it, and notes the times at which the last one has, so that
/// neither what it does afterwards nor how late that is seen counts.
struct Runs
{
    void Add()
    {
        const std::size_t now = count.load(std::memory_order_relaxed) + 1;
        if (now == last)
        {
            readerCpu_ns = OwnCpu_ns();
            end_ns = Now_ns();
        }
        count.store(now, std::memory_order_release);
    }
    void WaitForLast() const
    {
        while (count.load(std::memory_order_acquire) < last)
        {
            std::this_thread::sleep_for(std::chrono::microseconds(200)); // takes no part of a core of its own
        }
    }
    alignas(64) std::atomic<std::size_t> count{0};
    std::size_t last = 0;           ///< how many there will be; set before the first of a burst is posted
    std::uint64_t readerCpu_ns = 0; ///< the reader's processor time then
    std::uint64_t end_ns = 0;
};

/// Sixteen bytes: std::function holds it without an allocation.
struct PostSmall
{
    static constexpr std::size_t kPosts = kSmallPosts;
    template <class Queue>
    static void Post(Queue& queue, Runs& runs, std::size_t number)
    {
        queue.Post([&runs, number] { number != ~std::size_t{0} ? runs.Add() : void(); });
    }
};

/// A definition, as the manager's requests carry it.
struct PostLarge
{
    static constexpr std::size_t kPosts = kLargePosts;
    template <class Queue>
    static void Post(Queue& queue, Runs& runs, std::size_t)
    {
        static const ps_ns::CompositeInstrumentDef sample = MakeSampleDef(1);
        queue.Post([&runs, def = sample] { def.instrumentId != 0 ? runs.Add() : void(); });
    }
};

/// The last of so many bursts is measured: those before bring queue and heap to what they are like in the long run.
constexpr int kBursts = 4;

/// All producers post at once, as fast as they can, until the last action has run.
template <class Queue, class Kind>
Figures PostBurst(std::size_t producers)
{
    Queue queue;
    Runs runs;
    const std::size_t each = Kind::kPosts / producers;
    std::barrier start(static_cast<std::ptrdiff_t>(producers + 1));
    std::barrier end(static_cast<std::ptrdiff_t>(producers + 1));
    std::vector<std::uint64_t> cpu_ns(producers);
    std::vector<std::thread> threads;
    for (std::size_t producer = 0; producer < producers; ++producer)
    {
        threads.emplace_back(
            [&, producer]
            {
                for (int burst = 0; burst < kBursts; ++burst)
                {
                    start.arrive_and_wait();
                    const std::uint64_t begin = OwnCpu_ns();
                    for (std::size_t i = 0; i < each; ++i)
                    {
                        Kind::Post(queue, runs, i);
                    }
                    cpu_ns[producer] = OwnCpu_ns() - begin;
                    end.arrive_and_wait();
                }
            });
    }
    Figures figures;
    for (std::size_t burst = 1; burst <= kBursts; ++burst)
    {
        runs.last = burst * each * producers;
        const std::uint64_t readerBegin = queue.Cpu_ns();
        const std::uint64_t begin = Now_ns();
        start.arrive_and_wait();
        end.arrive_and_wait();
        runs.WaitForLast();
        const std::uint64_t time_ns = runs.end_ns - begin;
        const std::uint64_t reader_ns = runs.readerCpu_ns - readerBegin;
        std::uint64_t producers_ns = 0;
        for (const std::uint64_t one : cpu_ns)
        {
            producers_ns += one;
        }
        const auto messages = static_cast<double>(each * producers);
        figures = {{"CPU a message, both sides, ns", static_cast<double>(producers_ns + reader_ns) / messages},
                   {"CPU a message, caller's side, ns", static_cast<double>(producers_ns) / messages},
                   {"time a message, ns", static_cast<double>(time_ns) / messages}};
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    return figures;
}

/// One post every so often, each timed on its own: what the call takes, and how long until the action runs.
template <class Queue>
Figures PostPaced(std::chrono::nanoseconds pause)
{
    constexpr std::size_t kPosts = 10'000;
    Runs runs;
    runs.last = kPosts;
    std::vector<std::uint64_t> posts_ns(kPosts);
    std::vector<std::uint64_t> begins_ns(kPosts);
    std::vector<std::uint64_t> ends_ns(kPosts);
    Queue queue;
    std::uint64_t next = Now_ns();
    for (std::size_t i = 0; i < kPosts; ++i)
    {
        next += static_cast<std::uint64_t>(pause.count());
        while (Now_ns() < next)
        {
        }
        const std::uint64_t begin = Now_ns();
        // Two pointers, no more: std::function would take a heap block for a third.
        queue.Post(
            [&runs, &end = ends_ns[i]]
            {
                end = Now_ns();
                runs.Add();
            });
        posts_ns[i] = Now_ns() - begin;
        begins_ns[i] = begin;
    }
    runs.WaitForLast();
    std::transform(ends_ns.begin(), ends_ns.end(), begins_ns.begin(), ends_ns.begin(), std::minus<>());
    const auto quantile = [](std::vector<std::uint64_t>& values, double part)
    {
        std::sort(values.begin(), values.end());
        return static_cast<double>(values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))]);
    };
    return {{"post, median, ns", quantile(posts_ns, 0.5)},    {"post, p99, ns", quantile(posts_ns, 0.99)},
            {"post, longest, ns", quantile(posts_ns, 1.0)},   {"end to end, median, ns", quantile(ends_ns, 0.5)},
            {"end to end, p99, ns", quantile(ends_ns, 0.99)}, {"end to end, longest, ns", quantile(ends_ns, 1.0)}};
}

template <template <class> class Make>
std::vector<Alternative> WithEachQueue(typename Make<OurQueue>::Argument argument)
{
    return {{"DataQueue with ActionCenter", Make<OurQueue>::With(argument)},
            {"moodycamel::ConcurrentQueue", Make<PolledQueue<Moodycamel>>::With(argument)},
            {"asio::post", Make<AsioPost>::With(argument)},
            {"tbb::concurrent_queue", Make<PolledQueue<Tbb>>::With(argument)},
            {"boost::lockfree::queue", Make<PolledQueue<BoostLockfree>>::With(argument)},
            {"mutex, deque, condition variable", Make<LockedDeque>::With(argument)}};
}

template <class Queue>
struct SmallBurst
{
    using Argument = std::size_t;
    static std::function<Figures()> With(Argument producers)
    {
        return [producers] { return PostBurst<Queue, PostSmall>(producers); };
    }
};

template <class Queue>
struct LargeBurst
{
    using Argument = std::size_t;
    static std::function<Figures()> With(Argument producers)
    {
        return [producers] { return PostBurst<Queue, PostLarge>(producers); };
    }
};

template <class Queue>
struct Paced
{
    using Argument = std::chrono::nanoseconds;
    static std::function<Figures()> With(Argument pause)
    {
        return [pause] { return PostPaced<Queue>(pause); };
    }
};

std::string Count(std::size_t producers)
{
    return std::to_string(producers) + (producers == 1 ? " producer" : " producers");
}

} // namespace

void CompareQueues(Runner& runner)
{
    for (const std::size_t producers : {std::size_t{1}, std::size_t{2}, std::size_t{4}})
    {
        runner.Run({"queue", "burst of small actions, " + Count(producers), WithEachQueue<SmallBurst>(producers)});
    }
    for (const std::size_t producers : {std::size_t{1}, std::size_t{2}, std::size_t{4}})
    {
        runner.Run({"queue", "burst of large actions, " + Count(producers), WithEachQueue<LargeBurst>(producers)});
    }
}

void ComparePacedQueues(Runner& runner)
{
    runner.Run({"queue", "paced, one small action every 10 us", WithEachQueue<Paced>(std::chrono::microseconds(10))});
}

} // namespace compare
