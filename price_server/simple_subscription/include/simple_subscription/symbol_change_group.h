#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ps_ns
{

/// Who waits for a symbol change to end.
class ISymbolChangeMember
{
public:
    virtual ~ISymbolChangeMember() = default;
    /// The change will not happen: another member's unsubscribe, or its own, has failed. From any thread.
    virtual void OnSymbolChangeFailed() = 0;
};

/// The composite subscriptions of one market and symbol that a symbol change has unsubscribed. The manager resubscribes
/// all of them or none; once one has failed, the change is stuck for good, and so is the group: who joins later is told
/// at once.
///
/// Threads: any; guarded by a lock that is not held while members are called.
class SymbolChangeGroup
{
public:
    /// Tells `member` at once when the change has failed already.
    void Join(const std::weak_ptr<ISymbolChangeMember>& member);

    /// The change has failed: tells every member once.
    void Fail();

private:
    mutable std::mutex m_mutex;
    bool m_failed = false;                                     ///< under m_mutex
    std::vector<std::weak_ptr<ISymbolChangeMember>> m_members; ///< under m_mutex
};

/// The groups by market and old symbol: from the change's first member until the change has resubscribed. A failed
/// change never does, and its group stays, as the manager's own record of it does.
class SymbolChangeGroups
{
public:
    /// The group, made when there is none.
    std::shared_ptr<SymbolChangeGroup> Get(short marketId, const std::string& oldSymbol);
    /// The change has resubscribed: the next one begins with a new group.
    void Drop(short marketId, const std::string& oldSymbol);

private:
    std::mutex m_mutex;
    std::map<std::pair<short, std::string>, std::shared_ptr<SymbolChangeGroup>> m_groups; ///< under m_mutex
};

} // namespace ps_ns
