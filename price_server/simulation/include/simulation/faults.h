#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ps_ns::simulation
{

/// What can go wrong, and does. Each is counted when the model meets it; that the manager does what the model says is
/// what is compared.
enum class Fault : std::uint8_t
{
    DuplicateHandle,
    DuplicateOnQueue,
    DuplicateId,
    ForeignObserver,
    UnknownHandle,
    UnknownId,
    NoSubscription,
    SyntheticRefused,
    LostIdentity,
    SubscribeFailed,
    SubscribeRefusedWithReason,
    SubscribeBroke,
    AnswerWasRefusal,
    ProviderUndecided,
    ProviderSwitched,
    UnsubscribeFailed,
    UnsubscribeThrew,
    AnswerDropped,
    AnswerTooLate,
    RenameRejected,
    RenameRedirected,
    RenameStuck,
    RenameMetUnsubscribe,
    ObserverThrewOnQueue,
    ObserverThrewOnExecutor,
    FactoryThrew,
    NullTeardown,
    QueueShutDown,
    EndedUnsettled,
    kCount
};

inline constexpr std::size_t kFaultCount = static_cast<std::size_t>(Fault::kCount);

std::string_view GetName(Fault fault) noexcept;

/// How often each fault has been seen.
class FaultCounts
{
public:
    void Count(Fault fault) noexcept { ++m_counts[static_cast<std::size_t>(fault)]; }
    std::uint64_t Get(Fault fault) const noexcept { return m_counts[static_cast<std::size_t>(fault)]; }
    FaultCounts& operator+=(const FaultCounts& other) noexcept
    {
        for (std::size_t i = 0; i < kFaultCount; ++i)
        {
            m_counts[i] += other.m_counts[i];
        }
        return *this;
    }

private:
    std::array<std::uint64_t, kFaultCount> m_counts{};
};

} // namespace ps_ns::simulation
