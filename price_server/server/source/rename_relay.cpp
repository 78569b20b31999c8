#include "server/rename_relay.h"

#include "common/channel_task.h"
#include "logging/logging.h"

#include <chrono>
#include <exception>
#include <future>
#include <optional>
#include <thread>
#include <utility>

namespace ps_ns
{

namespace
{

const std::shared_ptr<const zel::logging::Source>& LogSource()
{
    static const auto source = std::make_shared<const zel::logging::Source>("rename_relay");
    return source;
}

} // namespace

struct RenameRelay::Step
{
    std::vector<SymbolRename> renames;
    std::function<void()> make;
    std::function<void()> done;
    std::chrono::steady_clock::time_point begin{};    ///< queue thread: of the first try
    std::optional<ClientGate::Suspension> suspension; ///< from the changes to the provider's rename
};

void RenameRelay::Insert(std::function<void()> action, const char* name)
{
    m_queue.insert(new ChannelTask<Task>(std::move(action), name));
}

void RenameRelay::Post(std::vector<SymbolRename> renames, std::function<void()> make, std::function<void()> done)
{
    const auto step =
        std::make_shared<Step>(Step{OrderRenames(std::move(renames)), std::move(make), std::move(done), {}, {}});
    Insert([this, step] { Try(step); }, "RenameTry");
}

/// Requests are not waited for on this thread, which a client may wait for in the middle of one.
void RenameRelay::Try(const std::shared_ptr<Step>& step)
{
    if (std::optional<ClientGate::Suspension> suspension = m_clients.TrySuspend())
    {
        step->suspension.emplace(std::move(*suspension));
        return PostActions(step);
    }
    const auto now = std::chrono::steady_clock::now();
    step->begin = step->begin == std::chrono::steady_clock::time_point{} ? now : step->begin;
    if (now - step->begin < kPatience)
    {
        std::this_thread::yield();
        Insert([this, step] { Try(step); }, "RenameTry");
        return;
    }
    zel::logging::Log(20, LogSource(),
                      [](std::ostream& text) { text << "symbols are renamed while clients make requests"; });
    PostActions(step);
}

void RenameRelay::PostActions(const std::shared_ptr<Step>& step)
{
    try
    {
        m_manager.CheckProviderPendingSubscriptions();
        for (const SymbolRename& change : step->renames)
        {
            m_manager.ChangeSymbol(change.marketId, change.oldSymbol, change.newSymbol);
        }
    }
    catch (const std::exception& error)
    {
        // The provider's rename is made in any case: it would be lost for good.
        zel::logging::Log(30, LogSource(),
                          [&](std::ostream& text) { text << "a rename step threw: " << error.what(); });
    }
    Insert(
        [this, step]
        {
            step->make();
            step->suspension.reset();
            Insert([step] { step->done(); }, "RenameDone"); // behind the resubscribes, which the changes have posted
        },
        "Rename");
}

void RenameRelay::Run(const std::vector<SymbolRename>& renames, const std::function<void()>& make)
{
    m_drainExecutors();
    // The step alone keeps the promise: a queue that destroys the step ends the wait as well.
    auto isDone = std::make_shared<std::promise<void>>();
    const std::future<void> done = isDone->get_future();
    Post(renames, make, [isDone = std::move(isDone)] { isDone->set_value(); });
    done.wait();
}

} // namespace ps_ns
