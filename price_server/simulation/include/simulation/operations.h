#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace ps_ns::simulation
{

/// What a run can do next: a client's request, a provider's move, a fault, or letting something that waits run.
enum class OperationKind : std::uint8_t
{
    SubscribeDirect,
    SubscribeLeg,
    SubscribeFlexible,
    UnsubscribeHandle,
    UnsubscribeFlexible,
    AddScope,
    RemoveScope,
    ChangeScope,
    ChangeFlexibleScope,
    ChangeSymbol,
    CheckPending,
    FileSynthetic,
    CompleteSynthetic,
    NullTeardown,
    RunQueue,
    RunExecutor,
    RunEverything,
    PassTime,
    AnswerSubscribe,
    AnswerUnsubscribe,
    DropUnsubscribe,
    AnswerTooLate,
    SendBook,
    SendTrade,
    SendCustomFields,
    SetSubscribeOutcome,
    SetUnsubscribeOutcome,
    MakeObserverThrow,
    MakeDataObserverThrow,
    MakeFactoryThrow,
    LearnSymbol,
    CompleteMarket,
    SetLogLevel,
    ShutDownQueue,
    kCount
};

std::string_view GetName(OperationKind kind) noexcept;

/// One operation. Its numbers mean nothing by themselves: each is taken modulo what there is to choose from when the
/// operation runs, so that any part of a script is a script.
struct Operation
{
    OperationKind kind = OperationKind::RunQueue;
    std::array<std::uint32_t, 4> numbers{};

    friend bool operator==(const Operation&, const Operation&) = default;
};

/// A run from beginning to end: how the world is set up, and what happens in it.
struct Scenario
{
    bool withZel = true;         ///< otherwise there is only the in-process provider
    bool knowsDirectory = false; ///< the providers have read their directories at the start
    bool skipsUnchanged = false; ///< books that show the same as the one before are not delivered
    bool endsSettled = true;     ///< everything runs out and is compared before the end; otherwise it ends as it is
    std::vector<Operation> operations;

    friend bool operator==(const Scenario&, const Scenario&) = default;
};

/// The scenario of a seed: the same on every machine.
Scenario MakeScenario(std::uint64_t seed, std::size_t operationCount);

/// One operation a line, after a line with the set-up. ReadScenario throws std::runtime_error, naming line and word,
/// for what it does not understand.
void WriteScenario(std::ostream& out, const Scenario& scenario);
Scenario ReadScenario(std::istream& in);

} // namespace ps_ns::simulation
