#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ps_ns
{

/// What a question to a store is answered under; never 0.
using LeaseTicket = std::uint64_t;

/// A key's present value. Revision 0: the store has no such key.
struct LeaseEntry
{
    std::uint64_t revision = 0;
    std::string value;

    friend bool operator==(const LeaseEntry&, const LeaseEntry&) = default;
};

/// Several independent key-value stores, each of which counts its writes, and a way to tell all servers something.
///
/// The stores know nothing of each other, may lose everything when they are restarted, and may not answer. An answer
/// that has not come says nothing: the write may have been made, or may be made yet.
///
/// Threads: the owner's. Answers are fetched, not called.
class ILeaseStore
{
public:
    /// What has come in.
    struct Answer
    {
        enum class Kind : std::uint8_t
        {
            Read,    ///< `entry`
            Written, ///< `entry.revision` is the new one
            Refused, ///< the key's revision was another one; nothing was written
            Failed,  ///< the store cannot be had now
            Notice   ///< `entry.value`: what a server tells, also what this one has told
        };
        Kind kind = Kind::Failed;
        LeaseTicket ticket = 0; ///< 0: a notice
        LeaseEntry entry;
    };

    virtual ~ILeaseStore() = default;

    /// How many stores there are; constant.
    virtual unsigned GetStoreCount() const = 0;
    virtual void Read(LeaseTicket ticket, unsigned store, const std::string& key) = 0;
    /// Writes when the key's revision is `expected`; 0: when there is none.
    virtual void Write(LeaseTicket ticket, unsigned store, const std::string& key, const std::string& value,
                       std::uint64_t expected) = 0;
    /// To all servers; may be lost.
    virtual void Tell(const std::string& notice) = 0;
    /// The next answer, in the order of coming; nothing: there is none now.
    virtual std::optional<Answer> TakeAnswer() = 0;
    /// Returns when there is an answer, or after the time.
    virtual void WaitForAnswer(std::chrono::milliseconds time) = 0;
};

} // namespace ps_ns
