#pragma once

#include "mds/market_source.h"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace ps_ns
{

/// Holds a market source's first message back until its clients have subscribed: a recording that is played as fast as
/// possible would otherwise be over before anybody listens.
///
/// Threads: any.
class PriceGate
{
public:
    void Open() { Set(State::Open); }
    /// Nothing passes any more, and who waits goes on. Final.
    void Abandon() { Set(State::Abandoned); }
    /// Waits until there is a decision; true: open.
    bool WaitUntilOpen();

private:
    enum class State
    {
        Closed,
        Open,
        Abandoned
    };
    void Set(State state);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    State m_state = State::Closed; ///< under m_mutex
};

/// A market source behind a gate: its instruments can be seen at once, its messages when the gate opens. An abandoned
/// gate is the end of the source.
///
/// Threads: as IMarketSource; Peek and Next wait for the gate.
class GatedSource final : public IMarketSource
{
public:
    GatedSource(std::unique_ptr<IMarketSource> source, std::shared_ptr<PriceGate> gate)
        : m_source(std::move(source))
        , m_gate(std::move(gate))
    {
    }

    void Check() override { m_source->Check(); }
    std::vector<short> GetMarketIds() const override { return m_source->GetMarketIds(); }
    void Open(const std::atomic<bool>& stop) override { m_source->Open(stop); }
    const std::vector<SourceInstrument>& GetInstruments() const override { return m_source->GetInstruments(); }
    std::optional<NextMessage> Peek() override;
    bool Next(MarketMessage& message) override;
    bool IsDamaged() const override { return m_source->IsDamaged(); }

private:
    bool Enter();

    const std::unique_ptr<IMarketSource> m_source;
    const std::shared_ptr<PriceGate> m_gate;
    bool m_isOpen = false; ///< seen open once
};

} // namespace ps_ns
