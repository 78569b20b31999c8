#include "mds/mds_provider.h"

#include "logging/logging.h"
#include "mds/problem_log.h"

#include <algorithm>
#include <utility>

namespace ps_ns
{

MdsProvider::MdsProvider(std::unique_ptr<IMarketSource> source, MdsOptions options)
    : m_source(std::move(source))
    , m_options(std::move(options))
    , m_hub(m_options.updatesInFlight)
    , m_budget(m_hub.GetBudget())
    , m_runner(*this, Pace(m_options.speed, m_options.longestGap_ns), m_options.clock)
{
    // A market is one that this directory can know from the beginning: until it is complete nobody may conclude that
    // a symbol is not here.
    for (const short marketId : m_source->GetMarketIds())
    {
        m_hub.GetDirectory().AddMarket(marketId);
    }
}

MdsProvider::~MdsProvider()
{
    Stop();
}

void MdsProvider::Start()
{
    m_source->Check();
    if (m_options.isHandDriven)
    {
        const std::atomic<bool> isStopped{false};
        Prepare(isStopped);
        return;
    }
    m_runner.Start();
}

void MdsProvider::Stop()
{
    m_runner.Stop();
    m_hub.Close();
}

void MdsProvider::Prepare(const std::atomic<bool>& stop)
{
    m_source->Open(stop);
    std::vector<SourceInstrument> instruments = m_source->GetInstruments();
    std::vector<ImpliedRule> rules = m_options.impliedRules;
    if (m_options.detectsImplied)
    {
        for (ImpliedRule& rule : DetectImpliedRules(instruments))
        {
            if (std::find(rules.begin(), rules.end(), rule) == rules.end())
            {
                rules.push_back(std::move(rule));
            }
        }
    }
    std::vector<ImpliedTarget> targets = ResolveImpliedRules(rules, instruments);
    m_implied = std::make_unique<ImpliedEngine>(std::move(targets), instruments.size(), m_options.impliedDepth,
                                                [this](InstrumentIndex instrument) -> const LevelBook&
                                                { return m_hub.GetBook(instrument); });
    m_hub.Install(instruments);
    if (stop.load())
    {
        return; // what was read may not be all
    }
    for (const short marketId : m_source->GetMarketIds())
    {
        m_hub.GetDirectory().MarkComplete(marketId);
    }
    zel::logging::Log(0, MdsLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "the in-process provider serves " << m_source->GetInstruments().size()
                               << " instruments and " << instruments.size() - m_source->GetInstruments().size()
                               << " implied ones";
                      });
}

int MdsProvider::Subscribe(const ComponentRequest& request, const std::shared_ptr<IComponentListener>& listener)
{
    return m_hub.Subscribe(request, listener);
}

void MdsProvider::ChangeScope(const std::shared_ptr<IComponentListener>& listener,
                              const CompositeSubscriptionInfo& scope)
{
    m_hub.ChangeScope(listener, scope);
}

void MdsProvider::Unsubscribe(const std::shared_ptr<IComponentListener>& listener)
{
    m_hub.Unsubscribe(listener);
}

void MdsProvider::RenameNow(std::span<const SymbolRename> renames)
{
    if (m_options.renameStep)
    {
        m_options.renameStep({renames.begin(), renames.end()}, [this, renames] { Rename(renames); });
        return;
    }
    Rename(renames);
}

void MdsProvider::Rename(std::span<const SymbolRename> renames)
{
    const std::vector<SymbolRename> made = m_hub.Rename(renames);
    if (!made.empty() && m_options.onRenamed)
    {
        m_options.onRenamed(made);
    }
}

bool MdsProvider::Step()
{
    if (!m_source->Next(m_message))
    {
        return false;
    }
    MakeDueRenames(m_message.sourceTime_ns);
    m_implied->Note(m_message);
    m_hub.Publish(m_message);
    m_implied->Update(m_message, [this](MarketMessage& message) { m_hub.Publish(message); });
    return true;
}

void MdsProvider::MakeDueRenames(std::uint64_t sourceTime_ns)
{
    if (m_options.renames.empty())
    {
        return;
    }
    if (!m_renamePlan)
    {
        MakeRenamePlan(sourceTime_ns);
    }
    const std::vector<RenameStep>& steps = m_renamePlan->steps;
    while (m_renameStepsMade < steps.size() && steps[m_renameStepsMade].time_ns <= sourceTime_ns)
    {
        RenameNow(steps[m_renameStepsMade++].renames);
    }
}

void MdsProvider::MakeRenamePlan(std::uint64_t begin_ns)
{
    m_renamePlan = PlanRenames(m_options.renames, m_source->GetInstruments(), begin_ns);
    zel::logging::Log(m_renamePlan->contradictory == 0 ? 10 : 30, MdsLogSource(),
                      [&](std::ostream& text) { text << "symbol renames: " << m_renamePlan->ToString(); });
}

std::optional<NextMessage> MdsProvider::PeekNext()
{
    return m_source->Peek();
}

/// One message makes a book and a trade update, and one update of each implied book that it feeds.
bool MdsProvider::WaitForRoom()
{
    return m_budget.WaitForRoom(2 + m_implied->GetMostUpdates());
}

void MdsProvider::Wake()
{
    m_budget.Stop();
}

} // namespace ps_ns
