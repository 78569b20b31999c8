#include "clocks.h"
#include "comparison.h"
#include "floor_manager.h"
#include "keep.h"
#include "live_manager.h"
#include "resident.h"
#include "sample_def.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace compare
{
namespace
{

constexpr std::size_t kBatch = 1000;
using Defs = std::vector<ps_ns::CompositeInstrumentDef>;

Defs MakeDefs(std::uint64_t first, std::size_t count, std::uint64_t step = 1)
{
    Defs defs;
    defs.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        defs.push_back(MakeSampleDef(first + i * step));
    }
    return defs;
}

/// The depth that a turn asks for: whichever instrument's turn comes, it has had another one until then. A request for
/// the depth that an instrument has would be measured as one that changes nothing.
std::int32_t GetDepth(unsigned turn)
{
    return static_cast<std::int32_t>(6 + turn % 14);
}

/// The processor time of `work` for each of a batch.
template <class Work>
double MeasureEach_ns(Work work)
{
    return MeasureCpu_ns(
               [&]
               {
                   for (std::size_t i = 0; i < kBatch; ++i)
                   {
                       work(i);
                   }
               }) /
           kBatch;
}

/// Asked for with few live ones, pages are too coarse a measure.
void AddMemory(Figures& figures, const std::string& what, std::size_t live)
{
    constexpr std::size_t kLeast = 10'000;
    if (live >= kLeast)
    {
        figures.emplace_back("memory of a live subscription, bytes", MeasureResident_bytes(what, live));
    }
}

/// Direct clients of a LiveManager or a FloorManager: Subscribe(def) returns a handle and is done when it returns.
template <class Manager>
class DirectRequests
{
public:
    static constexpr const char* kKind = "";

    explicit DirectRequests(std::size_t live)
        : m_live(live)
    {
        for (std::uint64_t id = 0; id < live; ++id)
        {
            m_handles.push_back(m_manager.Subscribe(MakeSampleDef(id)));
        }
    }

    Figures Run()
    {
        const Defs defs = MakeDefs(m_next, kBatch);
        m_next += kBatch;
        ++m_turn;
        std::vector<std::uint64_t> handles(kBatch);
        Figures figures;
        figures.emplace_back("direct subscribe, ns",
                             MeasureEach_ns([&](std::size_t i) { handles[i] = m_manager.Subscribe(defs[i]); }));
        figures.emplace_back("refused duplicate, ns",
                             MeasureEach_ns([&](std::size_t i) { Keep(m_manager.Subscribe(defs[i])); }));
        figures.emplace_back("change of scope, ns", MeasureEach_ns(
                                                        [&](std::size_t)
                                                        {
                                                            m_at = (m_at + 7919) % m_live;
                                                            m_manager.ChangeScope(m_handles[m_at], GetDepth(m_turn));
                                                        }));
        figures.emplace_back("unsubscribe and teardown, ns",
                             MeasureEach_ns([&](std::size_t i) { m_manager.Unsubscribe(handles[i]); }));
        return figures;
    }

private:
    Manager m_manager;
    const std::size_t m_live;
    std::vector<std::uint64_t> m_handles;
    std::uint64_t m_next = 1ULL << 40U;
    std::size_t m_at = 0;
    unsigned m_turn = 0;
};

/// Flexible clients: the first brings an instrument's subscription to life, others join it, the last takes it down.
template <class Manager>
class FlexibleRequests
{
public:
    static constexpr const char* kKind = "flexible ";

    /// Scopes are changed of instruments from all over the live ones.
    explicit FlexibleRequests(std::size_t live)
        : m_changed(MakeDefs(0, std::min<std::size_t>(live, 10'000), std::max<std::uint64_t>(1, live / 10'000)))
    {
        for (std::uint64_t id = 0; id < live; ++id)
        {
            m_manager.Join(MakeSampleDef(id), 1);
        }
    }

    Figures Run()
    {
        const Defs defs = MakeDefs(m_next, kBatch);
        m_next += kBatch;
        ++m_turn;
        Figures figures;
        figures.emplace_back("first client subscribes, ns",
                             MeasureEach_ns([&](std::size_t i) { m_manager.Join(defs[i], 1); }));
        figures.emplace_back("another client joins, ns",
                             MeasureEach_ns([&](std::size_t i) { m_manager.Join(defs[i], 2); }));
        figures.emplace_back("change of scope, ns", MeasureEach_ns(
                                                        [&](std::size_t)
                                                        {
                                                            m_at = (m_at + 7919) % m_changed.size();
                                                            m_manager.ChangeScope(m_changed[m_at], 1, GetDepth(m_turn));
                                                        }));
        figures.emplace_back("a client leaves, ns",
                             MeasureEach_ns([&](std::size_t i) { m_manager.Leave(defs[i], 2); }));
        figures.emplace_back("the last client leaves, teardown, ns",
                             MeasureEach_ns([&](std::size_t i) { m_manager.Leave(defs[i], 1); }));
        return figures;
    }

private:
    const Defs m_changed;
    Manager m_manager;
    std::uint64_t m_next = 1ULL << 40U;
    std::size_t m_at = 0;
    unsigned m_turn = 0;
};

/// `what`: as MeasureResident_bytes knows it, without the kind.
template <class Requests>
Alternative Live(const std::string& name, const std::string& what, std::size_t live)
{
    // Made in the first round, one after the other: what the one allocates does not count for the other.
    auto requests = std::make_shared<std::unique_ptr<Requests>>();
    auto memory = std::make_shared<Figures>();
    return {name, [=]
            {
                if (*requests == nullptr)
                {
                    AddMemory(*memory, Requests::kKind + what, live);
                    *requests = std::make_unique<Requests>(live);
                }
                Figures figures = (*requests)->Run();
                figures.insert(figures.end(), memory->begin(), memory->end());
                return figures;
            }};
}

} // namespace

void CompareRequests(Runner& runner)
{
    for (const unsigned live : {1000U, 10'000U, 100'000U, 1'000'000U})
    {
        const std::string count = std::to_string(live) + " live";
        runner.Run({"requests",
                    "direct, " + count,
                    {Live<DirectRequests<LiveManager>>("CompositeSubscriptionMgr", "manager", live),
                     Live<DirectRequests<FloorManager>>("floor: one block, flat index", "floor", live)}});
        runner.Run({"requests",
                    "flexible, " + count,
                    {Live<FlexibleRequests<LiveManager>>("CompositeSubscriptionMgr", "manager", live),
                     Live<FlexibleRequests<FloorManager>>("floor: one block, flat index", "floor", live)}});
    }
}

} // namespace compare
