#pragma once

#include "common/data_queue.h"
#include "mds/symbol_rename.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include "server/client_gate.h"

#include <chrono>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace ps_ns
{

/// Makes the renames of one moment one step for the provider and the manager. On the queue, in this order:
///
/// | action | why there |
/// |---|---|
/// | the check of undecided symbols | they are filed under the old symbol, which soon is nobody's, or another's |
/// | ChangeSymbol, in the order of OrderRenames | a change X to GOOG in flight would be redirected by GOOG to GOOGL |
/// | the provider's own rename | everybody has let go of the old symbols, and nobody has the new ones yet |
/// | the resubscribes of what has answered its unsubscribe at once | posted by the changes |
///
/// The changes and the provider's rename are posted by one action, so that no resubscribe comes between them. Clients'
/// requests wait until the rename is made: a subscription in between would be missed by its change, or moved by
/// another's, and one that follows must name the new symbol.
///
/// What has been published is delivered first: an unsubscribe would drop it. The feed publishes nothing meanwhile, so
/// no update of a renamed instrument is lost.
///
/// Threads: Run is called on the feed thread; never on the queue thread or an executor, which it waits for.
class RenameRelay
{
public:
    /// `drainExecutors` returns when all that has been posted to the executors has run.
    RenameRelay(CompositeSubscriptionMgr& manager, DataQueue<DataMsgTask>& queue, ClientGate& clients,
                std::function<void()> drainExecutors)
        : m_manager(manager)
        , m_queue(queue)
        , m_clients(clients)
        , m_drainExecutors(std::move(drainExecutors))
    {
    }
    RenameRelay(const RenameRelay&) = delete;
    RenameRelay& operator=(const RenameRelay&) = delete;

    /// Posts the step. `make` is the provider's rename; `done` runs when the resubscribes have. A queue that is shut
    /// down destroys both uncalled.
    void Post(std::vector<SymbolRename> renames, std::function<void()> make, std::function<void()> done);

    /// Drains the executors, posts the step, and returns when it is done or the queue refuses it.
    void Run(const std::vector<SymbolRename>& renames, const std::function<void()>& make);

private:
    struct Step;
    /// For so long a step lets requests that are being made go first.
    static constexpr std::chrono::seconds kPatience{1};

    void Insert(std::function<void()> action, const char* name);
    void Try(const std::shared_ptr<Step>& step);
    void PostActions(const std::shared_ptr<Step>& step);

    CompositeSubscriptionMgr& m_manager;
    DataQueue<DataMsgTask>& m_queue;
    ClientGate& m_clients;
    const std::function<void()> m_drainExecutors;
};

} // namespace ps_ns
