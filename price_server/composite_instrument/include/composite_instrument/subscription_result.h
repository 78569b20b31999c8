#pragma once

#include <string_view>

namespace ps_messages_ns
{

/// What became of a request. A value's meaning stands here once; documents and clients quote it from GetName and
/// GetMeaning.
struct SubscriptionResult
{
    enum Value : int
    {
        Success = 0,                    ///< the component is subscribed
        DuplicateSubscription = 12,     ///< direct subscribe: the instrument has a composite subscription already
        NoSubscription = 13,            ///< there is no composite subscription for the instrument
        DirectSubscriptionFailed = 17,  ///< flexible subscribe: the components could not be subscribed
        DuplicateSubscriptionId = 23,   ///< the subscription id is taken on this instrument
        UnknownSubscriptionId = 24,     ///< the id is unknown, or another observer subscribed with it
        SubscribeComponentsFailed = 25, ///< direct subscribe: the components could not be subscribed
        Refused = 63,   ///< direct subscribe, at once: the instrument has a handle already, or is synthetic
        Accepted = 100, ///< direct subscribe, at once: the request is queued
        None = 255      ///< the component has not answered yet
    };

    /// "NoSubscription" and the like; "Unknown" for a number that is none of the above.
    static std::string_view GetName(Value value) noexcept;
    /// One sentence for a person.
    static std::string_view GetMeaning(Value value) noexcept;
};

} // namespace ps_messages_ns

namespace ps_ns
{

/// Why a merged snapshot is generated.
enum GenerateSnapshotReason : int
{
    ScopeUnchanged = 110 ///< for a client that joined, or changed to, a scope that changes nothing
};

} // namespace ps_ns
