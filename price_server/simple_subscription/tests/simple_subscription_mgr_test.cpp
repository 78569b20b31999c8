#include "simple_subscription/simple_subscription_mgr.h"

#include "logging/sinks.h"

#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>

using namespace ps_ns;

namespace
{

class FakeProvider final : public IPriceProvider
{
public:
    explicit FakeProvider(ProviderType::Value type)
        : m_type(type)
    {
    }

    ProviderType::Value GetType() const override { return m_type; }
    const InstrumentDirectory& GetDirectory() const override { return m_directory; }
    void Start() override {}
    void Stop() override {}
    int Subscribe(const ComponentRequest&, const std::shared_ptr<IComponentListener>&) override
    {
        return SubscribeStatus::Failed;
    }
    void ChangeScope(const std::shared_ptr<IComponentListener>&, const CompositeSubscriptionInfo&) override {}
    void Unsubscribe(const std::shared_ptr<IComponentListener>&) override {}

    void Add(short market, short submarket, const std::string& symbol)
    {
        DirectoryEntry entry;
        entry.submarket = {market, submarket};
        entry.symbol = symbol;
        m_directory.Add(entry);
    }

    InstrumentDirectory m_directory;

private:
    const ProviderType::Value m_type;
};

class FakeExecutor final : public Executor
{
public:
    void Post(std::function<void()> task) override { task(); }
};

class FakeExecutorFactory final : public IExecutorFactory
{
public:
    std::shared_ptr<Executor> MakeExecutor() override
    {
        ++m_made;
        return std::make_shared<FakeExecutor>();
    }

    int m_made = 0;
};

class NamedSubscription final : public EnrolledSubscription
{
public:
    NamedSubscription(SubscriptionRegistry& registry, std::string name, int& deleted)
        : m_registry(registry)
        , m_name(std::move(name))
        , m_deleted(deleted)
    {
        m_registry.Enrol(this);
    }
    ~NamedSubscription() override
    {
        m_registry.Leave(this);
        ++m_deleted;
    }
    void Describe(std::ostream& out) const override { out << m_name; }

private:
    SubscriptionRegistry& m_registry;
    const std::string m_name;
    int& m_deleted;
};

class SimpleSubscriptionMgrTest : public testing::Test
{
protected:
    using Decision = std::pair<ProviderType::Value, bool>;
    static constexpr Decision kMds{ProviderType::Mds, true};
    static constexpr Decision kZel{ProviderType::Zel, true};
    static constexpr Decision kUndecided{ProviderType::Zel, false};

    SimpleSubscriptionMgrTest() { zel::logging::Logger::SetSink(m_sink); }
    ~SimpleSubscriptionMgrTest() override { zel::logging::Logger::SetSink(nullptr); }

    void AddBothProviders()
    {
        m_manager->AddProvider(m_zel);
        m_manager->AddProvider(m_mds);
    }

    Decision Decide(const std::string& symbol, short market = 2, short submarket = -1) const
    {
        return m_manager->GetProviderType(ProviderFunction::Prices, market, submarket, symbol);
    }

    void Enrol(const std::string& name) { new NamedSubscription(m_manager->GetRegistry(), name, m_deleted); }

    std::vector<std::string> Dump(unsigned long limit)
    {
        m_sink->Clear();
        m_manager->DumpSubscriptions(limit);
        std::vector<std::string> lines;
        for (const zel::logging::CapturedRecord& record : m_sink->GetRecords())
        {
            EXPECT_EQ(record.level, 10);
            EXPECT_EQ(record.source, "simple_subscription_mgr");
            lines.push_back(record.text);
        }
        return lines;
    }

    const std::shared_ptr<zel::logging::CapturingSink> m_sink = std::make_shared<zel::logging::CapturingSink>();
    const std::shared_ptr<FakeExecutorFactory> m_executors = std::make_shared<FakeExecutorFactory>();
    const std::shared_ptr<AsyncDispatcher> m_timers = std::make_shared<AsyncDispatcher>("test");
    const std::shared_ptr<FakeProvider> m_zel = std::make_shared<FakeProvider>(ProviderType::Zel);
    const std::shared_ptr<FakeProvider> m_mds = std::make_shared<FakeProvider>(ProviderType::Mds);
    int m_deleted = 0;
    std::unique_ptr<SimpleSubscriptionMgr> m_manager = std::make_unique<SimpleSubscriptionMgr>(
        MarketTable({{2, "SPOT", 5, 50, 100}, {3, "FUTURES"}}), m_executors, m_timers);
};

} // namespace

using Manager = SimpleSubscriptionMgrTest;

TEST_F(Manager, CountsAndFindsItsProviders)
{
    EXPECT_EQ(m_manager->GetProviderCount(), 0);
    EXPECT_FALSE(m_manager->HasProvider(ProviderType::Mds));
    EXPECT_EQ(m_manager->FindProvider(ProviderType::Mds), nullptr);
    AddBothProviders();
    EXPECT_EQ(m_manager->GetProviderCount(), 2);
    EXPECT_TRUE(m_manager->HasProvider(ProviderType::Mds));
    EXPECT_EQ(m_manager->FindProvider(ProviderType::Mds), m_mds.get());
    EXPECT_EQ(m_manager->FindProvider(ProviderType::Zel), m_zel.get());
}

TEST_F(Manager, RefusesASecondProviderOfOneType)
{
    m_manager->AddProvider(m_mds);
    try
    {
        m_manager->AddProvider(std::make_shared<FakeProvider>(ProviderType::Mds));
        FAIL() << "accepted";
    }
    catch (const std::invalid_argument& error)
    {
        EXPECT_STREQ(error.what(), "there is a provider of type 1 already");
    }
    EXPECT_EQ(m_manager->FindProvider(ProviderType::Mds), m_mds.get());
    EXPECT_EQ(m_manager->GetProviderCount(), 1);
}

TEST_F(Manager, ChoosesMdsFinallyOnceItsDirectoryHasTheSymbol)
{
    AddBothProviders();
    m_zel->m_directory.AddMarket(2);
    m_mds->m_directory.AddMarket(2);
    EXPECT_EQ(Decide("A"), kUndecided);
    m_mds->Add(2, -1, "A");
    EXPECT_EQ(Decide("A"), kMds) << "although neither directory is complete";
}

TEST_F(Manager, ChoosesZelFinallyOnceEveryDirectoryOfTheMarketIsComplete)
{
    AddBothProviders();
    m_zel->m_directory.AddMarket(2);
    m_mds->m_directory.AddMarket(2);
    m_mds->m_directory.MarkComplete(2);
    EXPECT_EQ(Decide("A"), kUndecided);
    m_zel->m_directory.MarkComplete(2);
    EXPECT_EQ(Decide("A"), kZel);
}

TEST_F(Manager, DoesNotChooseZelFinallyForWhatItsDirectoryHasWhileMdsIsNotComplete)
{
    AddBothProviders();
    m_zel->Add(2, -1, "A");
    m_zel->m_directory.MarkComplete(2);
    m_mds->m_directory.AddMarket(2);
    EXPECT_EQ(Decide("A"), kUndecided);
    m_mds->m_directory.MarkComplete(2);
    EXPECT_EQ(Decide("A"), kZel);
}

TEST_F(Manager, PrefersMdsForWhatBothDirectoriesHave)
{
    AddBothProviders();
    m_zel->Add(2, -1, "A");
    m_zel->m_directory.MarkComplete(2);
    m_mds->Add(2, -1, "A");
    m_mds->m_directory.MarkComplete(2);
    EXPECT_EQ(Decide("A"), kMds);
}

TEST_F(Manager, DoesNotWaitForADirectoryThatCannotKnowTheMarket)
{
    AddBothProviders();
    m_zel->m_directory.MarkComplete(2);
    m_mds->m_directory.AddMarket(3);
    EXPECT_EQ(Decide("A"), kZel);
    EXPECT_EQ(Decide("A", 3), kUndecided);
    EXPECT_EQ(Decide("A", 99), kZel) << "no directory can know it";
}

TEST_F(Manager, HeedsTheSubmarketOfASymbol)
{
    AddBothProviders();
    m_mds->Add(2, 7, "A");
    m_mds->m_directory.MarkComplete(2);
    EXPECT_EQ(Decide("A", 2, 7), kMds);
    EXPECT_EQ(Decide("A", 2, -1), kMds);
    EXPECT_EQ(Decide("A", 2, 8), kZel);
}

TEST_F(Manager, ChoosesZelFinallyWithoutProviders)
{
    EXPECT_EQ(Decide("A"), kZel);
}

TEST_F(Manager, DecidesAloneForASingleMdsProvider)
{
    m_manager->AddProvider(m_mds);
    m_mds->m_directory.AddMarket(2);
    EXPECT_EQ(Decide("A"), kUndecided);
    m_mds->Add(2, -1, "A");
    EXPECT_EQ(Decide("A"), kMds);
    m_mds->m_directory.MarkComplete(2);
    EXPECT_EQ(Decide("B"), kZel);
}

TEST_F(Manager, FollowsARenameInADirectory)
{
    AddBothProviders();
    m_mds->Add(2, -1, "A");
    m_mds->m_directory.MarkComplete(2);
    m_mds->m_directory.Rename(2, "A", "B");
    EXPECT_EQ(Decide("A"), kZel);
    EXPECT_EQ(Decide("B"), kMds);
}

TEST_F(Manager, StaysDecidedAfterARenameInAMarketThatADirectoryDoesNotKnow)
{
    AddBothProviders();
    m_zel->m_directory.MarkComplete(2);
    EXPECT_EQ(Decide("A"), kZel);
    EXPECT_FALSE(m_mds->m_directory.Rename(2, "A", "B"));
    EXPECT_EQ(Decide("A"), kZel);
}

TEST_F(Manager, TellsTheDepthsAndTheIntervalOfAMarket)
{
    EXPECT_EQ(m_manager->GetDefaultOrderBookSize(2), 5U);
    EXPECT_EQ(m_manager->GetMaxOrderBookSize(2), 50U);
    EXPECT_EQ(m_manager->GetEmptySuppressInterval(2), 100U);
    EXPECT_EQ(m_manager->GetDefaultOrderBookSize(99), 10U);
    EXPECT_EQ(m_manager->GetMaxOrderBookSize(99), 1000U);
    EXPECT_EQ(m_manager->GetEmptySuppressInterval(99), 0U);
    EXPECT_EQ(m_manager->GetMarkets().GetAll().size(), 2U);
    EXPECT_EQ(m_manager->GetTimers(), m_timers);
}

TEST_F(Manager, HasNoExecutorForAMarketThatIsNotInTheTable)
{
    EXPECT_EQ(m_manager->GetExecutor({99, 1}, "X", "A"), nullptr);
    EXPECT_EQ(m_manager->GetExecutor({-1, -1}, "X", "A"), nullptr);
    EXPECT_EQ(m_executors->m_made, 0);
}

TEST_F(Manager, MakesOneExecutorForEachSubmarket)
{
    const auto executor = m_manager->GetExecutor({2, 1}, "X", "A");
    ASSERT_NE(executor, nullptr);
    EXPECT_EQ(m_manager->GetExecutor({2, 1}, "Y", "B"), executor) << "the texts split no submarket";
    EXPECT_EQ(m_manager->GetSubscriptionExecutor({2, 1}), executor);
    EXPECT_NE(m_manager->GetExecutor({2, 2}, "X", "A"), executor);
    EXPECT_NE(m_manager->GetExecutor({3, 1}, "X", "A"), executor);
    EXPECT_EQ(m_executors->m_made, 3);
}

TEST_F(Manager, SharesOneExecutorAmongSubscriptionsOfUnknownMarkets)
{
    const auto executor = m_manager->GetSubscriptionExecutor({99, 1});
    ASSERT_NE(executor, nullptr);
    EXPECT_EQ(m_manager->GetSubscriptionExecutor({98, 7}), executor);
    EXPECT_NE(m_manager->GetSubscriptionExecutor({2, 1}), executor);
    EXPECT_EQ(m_executors->m_made, 2);
}

TEST_F(Manager, DeletesTheSubscriptionsThatAreLeft)
{
    Enrol("A");
    Enrol("B");
    m_manager.reset();
    EXPECT_EQ(m_deleted, 2);
}

TEST_F(Manager, DumpsEverySubscriptionAndTheirNumber)
{
    EXPECT_EQ(Dump(0), (std::vector<std::string>{"DumpSubscriptions: 0 in all"}));
    Enrol("A");
    EXPECT_EQ(Dump(0), (std::vector<std::string>{"DumpSubscriptions: A", "DumpSubscriptions: 1 in all"}));
    Enrol("B");
    auto lines = Dump(0);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[2], "DumpSubscriptions: 2 in all");
    std::sort(lines.begin(), lines.end() - 1);
    EXPECT_EQ(lines[0], "DumpSubscriptions: A");
    EXPECT_EQ(lines[1], "DumpSubscriptions: B");
}

TEST_F(Manager, DumpsAtMostAsManySubscriptionsAsAskedForAndCountsThemAll)
{
    for (int number = 0; number < 5; ++number)
    {
        Enrol("S" + std::to_string(number));
    }
    const auto lines = Dump(2);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[2], "DumpSubscriptions: 5 in all");
    EXPECT_EQ(Dump(5).size(), 6U);
    EXPECT_EQ(Dump(6).size(), 6U);
}

TEST_F(Manager, DumpsNothingWhenTheLogDoesNotWantIt)
{
    Enrol("A");
    const int before = zel::logging::g_minLogLevel.exchange(11);
    EXPECT_TRUE(Dump(0).empty());
    zel::logging::g_minLogLevel = before;
}

TEST_F(Manager, HasAGaugeOfStaleSubscriptions)
{
    EXPECT_TRUE(m_manager->GetStaleGauge());
    EXPECT_EQ(m_manager->GetStaleGauge().Get(), 0.0);
}
