#include "testing/manager_bench.h"

#include "price_unifier/source/composite_instrument_subscription.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace ps_ns;
using namespace ps_ns::testing;
using namespace std::chrono_literals;

namespace
{

constexpr auto kBid = BookSideType::Bid;
constexpr auto kAsk = BookSideType::Ask;
constexpr std::size_t kClients = 5;
constexpr unsigned kSeeds = 200;
constexpr unsigned kSteps = 80;

/// One direct client and some flexible ones who come, go and change their scopes while books change, empty and fill
/// again: whoever is there at the end must have been told what there is, and nobody an older book after a newer one.
class RandomDelivery
{
public:
    explicit RandomDelivery(unsigned seed)
        : m_random(seed)
        , m_options(MakeOptions())
        , m_bench(m_options)
    {
        m_def.components = {true, true, false};
        m_handle = m_bench.manager->Subscribe(m_def, MakeScope(), m_own, 1).first;
        m_bench.Run();
        m_bench.zel->Answer("X");
        m_bench.zel->Answer("IM_X");
        m_bench.Run();
    }

    void Run()
    {
        for (unsigned step = 0; step < kSteps; ++step)
        {
            DoOne();
            RunSomeOfIt();
        }
        Settle();
        CheckOrderAndCounts();
        CheckLastBooks();
    }

private:
    struct Client
    {
        std::shared_ptr<RecordingFlexibleObserver> observer; ///< null: not there
        CompositeSubscriptionInfo info;
        bool asksForNoBook = false; ///< has changed its scope without one: it may have to wait for the next change
    };

    unsigned Pick(unsigned count) { return std::uniform_int_distribution<unsigned>(0, count - 1)(m_random); }
    template <class Value>
    Value PickFrom(std::initializer_list<Value> values)
    {
        return values.begin()[Pick(static_cast<unsigned>(values.size()))];
    }

    ManagerBench::Options MakeOptions()
    {
        ManagerBench::Options options;
        options.configuration = std::string(R"(<PriceServer><General SkipUnchangedSnapshots=")") +
                                PickFrom({"0", "1"}) + R"("/></PriceServer>)";
        options.emptySuppressInterval_ms = PickFrom({0U, 100U});
        return options;
    }
    CompositeSubscriptionInfo MakeScope()
    {
        return {PickFrom({1, 2, 3, 4}), PickFrom({0U, 0U, 50U, 100U, 300U}), false, false};
    }

    void DoOne()
    {
        switch (PickFrom({0, 0, 0, 1, 1, 2, 2, 2, 3, 3, 4, 4, 4, 4}))
        {
        case 0:
            m_bench.zel->SendChange(PickSymbol(), {{kBid, PickBid(), PickFrom({"0", "1", "2"})},
                                                   {kAsk, PickAsk(), PickFrom({"0", "1", "2"})}});
            break;
        case 1:
            SendImage();
            break;
        case 2:
            m_bench.time.Advance(PickFrom({1ms, 20ms, 50ms, 60ms, 100ms, 300ms}));
            break;
        case 3:
            m_bench.manager->ChangeScope(m_handle, MakeScope(), 1, Pick(2) == 0);
            break;
        default:
            ChangeClient(Pick(kClients));
        }
    }

    const char* PickSymbol() { return PickFrom({"X", "X", "IM_X"}); }
    const char* PickBid() { return PickFrom({"7", "8", "9", "10", "10", "10"}); }
    const char* PickAsk() { return PickFrom({"11", "11", "11", "12", "13", "14"}); }

    /// Often an empty one.
    void SendImage()
    {
        std::vector<ScriptedProvider::Level> levels;
        for (unsigned left = Pick(3); left != 0; --left)
        {
            levels.push_back({kBid, PickBid(), "1"});
            levels.push_back({kAsk, PickAsk(), "1"});
        }
        m_bench.zel->SendImage(PickSymbol(), levels);
    }

    void ChangeClient(std::size_t number)
    {
        Client& client = m_clients[number];
        const unsigned long id = 10 + number;
        if (client.observer != nullptr && Pick(3) == 0)
        {
            m_bench.manager->Unsubscribe(m_def, client.observer, id);
            client = {};
            return;
        }
        client.info = MakeScope();
        if (client.observer == nullptr)
        {
            client.observer = m_bench.MakeFlexibleObserver("F" + std::to_string(number));
            m_all.push_back(client.observer);
            m_bench.manager->Subscribe(m_def, client.info, m_bench.factory, client.observer, id);
            return;
        }
        client.asksForNoBook = Pick(2) == 0;
        m_bench.manager->ChangeScope(m_def, client.info, client.observer, id, !client.asksForNoBook);
    }

    void RunSomeOfIt()
    {
        const unsigned choice = Pick(4);
        if (choice == 0)
        {
            m_bench.queue.RunAll();
        }
        else if (choice != 1)
        {
            m_bench.Run();
        }
    }
    /// Lets every interval end.
    void Settle()
    {
        m_bench.Run();
        for (int round = 0; round < 10; ++round)
        {
            m_bench.time.Advance(100ms);
            m_bench.Run();
        }
    }

    template <class Observer>
    static void CheckOrder(const Observer& observer)
    {
        for (std::size_t i = 1; i < observer.books.size(); ++i)
        {
            EXPECT_GE(observer.books[i]->sequence, observer.books[i - 1]->sequence) << observer.GetName();
        }
    }
    void CheckOrderAndCounts()
    {
        CheckOrder(*m_own);
        std::size_t books = m_own->books.size();
        for (const auto& observer : m_all)
        {
            CheckOrder(*observer);
            books += observer->books.size();
        }
        const CompositeInstrumentSubscription& live =
            *m_bench.Access().Subscriptions().at(CompositeInstrumentID(m_def));
        EXPECT_EQ(live.GetCountsAsString(), "books=" + std::to_string(books) + " trades=0 customFields=0");
    }

    /// A client who comes last is told what there is.
    void CheckLastBooks()
    {
        const auto own = m_own->books.empty() ? nullptr : m_own->books.back();
        std::array<std::shared_ptr<const MergedOrderBook>, kClients> had;
        for (std::size_t i = 0; i < kClients; ++i)
        {
            const auto& observer = m_clients[i].observer;
            had[i] = observer != nullptr && !observer->books.empty() ? observer->books.back() : nullptr;
        }
        const auto last = m_bench.MakeFlexibleObserver("last");
        m_bench.manager->Subscribe(m_def, {10, 0, false, false}, m_bench.factory, last, 99);
        m_bench.Run();
        if (last->books.empty())
        {
            EXPECT_EQ(own, nullptr);
            return;
        }
        ASSERT_NE(own, nullptr);
        const MergedOrderBook& truth = *last->books.back();
        EXPECT_EQ(FormatBook(*own), FormatBook(*truth.Cut(own->bids.depth))) << "the own observer";
        for (std::size_t i = 0; i < kClients; ++i)
        {
            if (m_clients[i].observer != nullptr && !m_clients[i].asksForNoBook)
            {
                ASSERT_NE(had[i], nullptr) << "client " << i;
                const auto depth = static_cast<std::uint32_t>(m_clients[i].info.depth);
                EXPECT_EQ(FormatBook(*had[i]), FormatBook(*truth.Cut(depth))) << "client " << i;
            }
        }
    }

    std::mt19937 m_random;
    const ManagerBench::Options m_options;
    ManagerBench m_bench;
    CompositeInstrumentDef m_def = MakeDef("X", 2);
    const std::shared_ptr<RecordingObserver> m_own = m_bench.MakeObserver("A");
    unsigned long m_handle = 0;
    std::array<Client, kClients> m_clients;
    std::vector<std::shared_ptr<RecordingFlexibleObserver>> m_all;
};

} // namespace

TEST(RandomDeliveryTest, TellsEverybodyTheNewestBookInTheEndAndNobodyAnOlderOneAfterIt)
{
    for (unsigned seed = 0; seed < kSeeds && !::testing::Test::HasFailure(); ++seed)
    {
        SCOPED_TRACE("seed " + std::to_string(seed));
        RandomDelivery(seed).Run();
    }
}
