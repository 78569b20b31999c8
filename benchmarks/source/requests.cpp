#include "clocks.h"
#include "comparison.h"
#include "floor_manager.h"
#include "keep.h"
#include "live_manager.h"
#include "sample_def.h"

#include <memory>
#include <vector>

#include <malloc.h>

namespace compare
{
namespace
{

constexpr std::size_t kBatch = 1000;

std::vector<ps_ns::CompositeInstrumentDef> MakeDefs(std::uint64_t first, std::size_t count)
{
    std::vector<ps_ns::CompositeInstrumentDef> defs;
    defs.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        defs.push_back(MakeSampleDef(first + i));
    }
    return defs;
}

std::size_t AllocatedBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

/// Both have Subscribe(def), which returns a handle and is done when it returns, ChangeScope(handle, depth) and
/// Unsubscribe(handle).
template <class Manager>
class Requests
{
public:
    explicit Requests(std::size_t live)
        : m_live(live)
    {
        const std::size_t before = AllocatedBytes();
        for (std::uint64_t id = 0; id < live; ++id)
        {
            m_handles.push_back(m_manager.Subscribe(MakeSampleDef(id)));
        }
        m_bytesEach = static_cast<double>(AllocatedBytes() - before - m_handles.capacity() * sizeof(m_handles[0])) /
                      static_cast<double>(live);
    }

    Figures Run()
    {
        const std::vector<ps_ns::CompositeInstrumentDef> defs = MakeDefs(m_next, kBatch);
        m_next += kBatch;
        std::vector<std::uint64_t> handles(kBatch);
        const double subscribe_ns = MeasureCpu_ns(
            [&]
            {
                for (std::size_t i = 0; i < kBatch; ++i)
                {
                    handles[i] = m_manager.Subscribe(defs[i]);
                }
            });
        const double refuse_ns = MeasureCpu_ns(
            [&]
            {
                for (const auto& def : defs)
                {
                    Keep(m_manager.Subscribe(def));
                }
            });
        ++m_turn;
        const double change_ns = MeasureCpu_ns(
            [&]
            {
                for (std::size_t i = 0; i < kBatch; ++i)
                {
                    m_at = (m_at + 7919) % m_live;
                    m_manager.ChangeScope(m_handles[m_at], m_turn % 2 == 0 ? 5 : 9);
                }
            });
        const double unsubscribe_ns = MeasureCpu_ns(
            [&]
            {
                for (const std::uint64_t handle : handles)
                {
                    m_manager.Unsubscribe(handle);
                }
            });
        return {{"direct subscribe, ns", subscribe_ns / kBatch},
                {"refused duplicate, ns", refuse_ns / kBatch},
                {"change of scope, ns", change_ns / kBatch},
                {"unsubscribe and teardown, ns", unsubscribe_ns / kBatch},
                {"memory of a live subscription, bytes", m_bytesEach}};
    }

private:
    Manager m_manager;
    const std::size_t m_live;
    double m_bytesEach = 0;
    std::vector<std::uint64_t> m_handles;
    std::uint64_t m_next = 1ULL << 40U;
    std::size_t m_at = 0;
    unsigned m_turn = 0;
};

template <class Manager>
Alternative Live(const std::string& name, std::size_t live)
{
    // Made in the first round, one after the other: what the one allocates does not count for the other.
    auto requests = std::make_shared<std::unique_ptr<Requests<Manager>>>();
    return {name, [requests, live]
            {
                if (*requests == nullptr)
                {
                    *requests = std::make_unique<Requests<Manager>>(live);
                }
                return (*requests)->Run();
            }};
}

} // namespace

void CompareRequests(Runner& runner)
{
    for (const std::size_t live : {std::size_t{1000}, std::size_t{100'000}, std::size_t{1'000'000}})
    {
        runner.Run({"requests",
                    "direct, " + std::to_string(live) + " live",
                    {Live<LiveManager>("CompositeSubscriptionMgr", live),
                     Live<FloorManager>("floor: one block, flat index", live)}});
    }
}

} // namespace compare
