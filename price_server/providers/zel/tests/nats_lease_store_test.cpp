#include "zel/nats_lease_store.h"

#include "logging/logging.h"
#include "zel/instrument_shard.h"
#include "zel/shard_service.h"
#include "zel/subject_token.h"
#include "zel_testing/broker_process.h"

#include <gtest/gtest.h>
#include <nats/nats.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

namespace ps_ns
{
namespace
{

using namespace std::chrono_literals;
using Answer = ILeaseStore::Answer;
using Clock = std::chrono::steady_clock;
constexpr auto kPatience = 20s;

/// A broker that maps instruments to shards, and keeps buckets.
class MappingBroker
{
public:
    MappingBroker()
        : m_folder(MakeFolder())
        , broker({"-c", WriteConfig()})
    {
    }
    ~MappingBroker() { std::filesystem::remove_all(m_folder); }

    NatsOptions GetOptions() const
    {
        NatsOptions options;
        options.url = broker.GetUrl();
        return options;
    }

private:
    static std::string MakeFolder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "ps_leases_XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr)
        {
            throw std::runtime_error("there is no folder for the broker");
        }
        return name;
    }
    std::string WriteConfig() const
    {
        const std::string path = m_folder + "/broker.conf";
        std::ofstream(path) << "jetstream { store_dir: \"" << m_folder << "\", max_memory_store: 64MB }\n"
                            << "mappings: { \"zel.prices.*.*\": "
                               "\"zel.shard.{{partition(7,1,2)}}.{{wildcard(1)}}.{{wildcard(2)}}\" }\n";
        return path;
    }

    const std::string m_folder;

public:
    testing_ns::BrokerProcess broker;
};

/// The answer to what `ask` asks, asked again until the bucket is there.
Answer GetAnswer(NatsLeaseStore& store, const std::function<void(LeaseTicket)>& ask)
{
    LeaseTicket ticket = 0;
    for (const auto end = Clock::now() + kPatience; Clock::now() < end;)
    {
        ask(++ticket);
        for (const auto next = Clock::now() + 300ms; Clock::now() < next;)
        {
            store.WaitForAnswer(10ms);
            while (const auto answer = store.TakeAnswer())
            {
                if (answer->ticket == ticket && answer->kind != Answer::Kind::Failed)
                {
                    return *answer;
                }
            }
        }
    }
    return {};
}

TEST(NatsLeaseStore, WritesOnlyOverTheRevisionThatIsExpected)
{
    MappingBroker broker;
    NatsLeaseStore store(broker.GetOptions(), 1, "test.1");
    const auto read = [&] { return GetAnswer(store, [&](LeaseTicket ticket) { store.Read(ticket, 0, "shard.3"); }); };
    const auto write = [&](const std::string& value, std::uint64_t expected)
    { return GetAnswer(store, [&](LeaseTicket ticket) { store.Write(ticket, 0, "shard.3", value, expected); }); };
    const Answer absent = read();
    EXPECT_EQ(absent.kind, Answer::Kind::Read);
    EXPECT_EQ(absent.entry, LeaseEntry());

    const Answer first = write("one", 0);
    ASSERT_EQ(first.kind, Answer::Kind::Written);
    EXPECT_EQ(write("other", 0).kind, Answer::Kind::Refused);
    EXPECT_EQ(write("other", first.entry.revision + 5).kind, Answer::Kind::Refused);
    EXPECT_EQ(read().entry, (LeaseEntry{first.entry.revision, "one"}));

    const Answer given = write("", first.entry.revision);
    ASSERT_EQ(given.kind, Answer::Kind::Written);
    EXPECT_EQ(read().entry, (LeaseEntry{given.entry.revision, ""}));
}

TEST(NatsLeaseStore, GoesOnAfterTheBrokerHasForgottenEverything)
{
    MappingBroker broker;
    NatsLeaseStore store(broker.GetOptions(), 1, "test.1");
    const auto write = [&]
    { return GetAnswer(store, [&](LeaseTicket ticket) { store.Write(ticket, 0, "shard.0", "x", 0); }); };
    EXPECT_EQ(write().kind, Answer::Kind::Written);
    broker.broker.Kill();
    broker.broker.Start();
    EXPECT_EQ(write().kind, Answer::Kind::Written);
}

/// Keeps what is logged at level 30 as long as it lives.
class ErrorWatch final
{
public:
    ErrorWatch() { zel::logging::Logger::SetSink(m_sink); }
    ~ErrorWatch() { zel::logging::Logger::SetSink(nullptr); }
    std::vector<std::string> Get() const
    {
        const std::lock_guard lock(m_sink->mutex);
        return m_sink->texts;
    }

private:
    struct Sink final : zel::logging::ISink
    {
        void Write(const zel::logging::Record& record) noexcept override
        {
            const std::lock_guard lock(mutex);
            if (record.level == 30)
            {
                texts.emplace_back(record.text);
            }
        }
        std::mutex mutex;
        std::vector<std::string> texts; ///< under mutex
    };
    const std::shared_ptr<Sink> m_sink = std::make_shared<Sink>();
};

TEST(NatsLeaseStore, SaysOnceThatABucketDoesNotAnswer)
{
    const ErrorWatch log;
    testing_ns::BrokerProcess broker; // which keeps nothing
    NatsOptions options;
    options.url = broker.GetUrl();
    const auto begin = Clock::now();
    NatsLeaseStore store(options, 1, "test.1");
    LeaseTicket ticket = 0;
    const auto askUntil = [&](std::size_t errors, Clock::duration time)
    {
        for (const auto end = Clock::now() + time; Clock::now() < end && log.Get().size() < errors;)
        {
            store.Read(++ticket, 0, "shard.0");
            store.WaitForAnswer(50ms);
            while (store.TakeAnswer())
            {
            }
        }
    };
    askUntil(1, kPatience);
    EXPECT_GE(Clock::now() - begin, 3s) << "buckets that are being made are waited for";
    askUntil(2, 1s);
    ASSERT_EQ(log.Get().size(), 1U);
    EXPECT_NE(log.Get().front().find("zel_leases_1"), std::string::npos) << log.Get().front();
}

TEST(ShardService, ServesAllShardsOfARealBrokerAndGivesThemBack)
{
    MappingBroker broker;
    std::mutex mutex;
    std::set<std::uint32_t> served[2];
    const auto make = [&](int number)
    {
        LeaseOptions options;
        options.shards = 5;
        options.server = "ps" + std::to_string(number);
        options.session = options.server + ".1";
        auto store = std::make_unique<NatsLeaseStore>(broker.GetOptions(), 1, options.session);
        return std::make_unique<ShardService>(std::move(store), options,
                                              LeaseKeeper::Events{[&, number](std::uint32_t shard)
                                                                  {
                                                                      const std::lock_guard lock(mutex);
                                                                      served[number].insert(shard);
                                                                  },
                                                                  [&, number](std::uint32_t shard)
                                                                  {
                                                                      const std::lock_guard lock(mutex);
                                                                      served[number].erase(shard);
                                                                  }});
    };
    const auto waitFor = [&](std::size_t first, std::size_t second)
    {
        for (const auto end = Clock::now() + kPatience; Clock::now() < end; std::this_thread::sleep_for(5ms))
        {
            const std::lock_guard lock(mutex);
            if (served[0].size() == first && served[1].size() == second)
            {
                return true;
            }
        }
        return false;
    };
    const auto one = make(0);
    one->Start();
    EXPECT_TRUE(waitFor(5, 0));
    auto two = make(1);
    two->Start();
    EXPECT_TRUE(waitFor(3, 2));
    const auto knows = [&]
    {
        const std::lock_guard lock(mutex);
        const std::optional<ServerNotice> server = one->FindServer(*served[1].begin());
        return server && server->server == "ps1";
    };
    for (const auto end = Clock::now() + kPatience; !knows() && Clock::now() < end;)
    {
        std::this_thread::sleep_for(5ms); // it is told a moment later
    }
    EXPECT_TRUE(knows());
    two->Stop();
    EXPECT_TRUE(waitFor(5, 0));
    EXPECT_EQ(one->GetView().counts.dead, 0U) << "what was given back is nobody's";
}

/// The broker says in the subject where it has put an instrument.
TEST(InstrumentShard, IsWhereTheBrokerPutsTheInstrument)
{
    MappingBroker broker;
    natsConnection* connection = nullptr;
    natsSubscription* subscription = nullptr;
    ASSERT_EQ(natsConnection_ConnectTo(&connection, broker.broker.GetUrl().c_str()), NATS_OK);
    ASSERT_EQ(natsConnection_SubscribeSync(&subscription, connection, "zel.shard.>"), NATS_OK);
    std::vector<std::string> symbols{"BTC/USD", "", "a b", "\xc3\xa9.*>", "ES-H25", "_"};
    for (int i = 0; i < 500; ++i)
    {
        symbols.push_back("I" + std::to_string(i));
    }
    for (const std::string& symbol : symbols)
    {
        const std::string subject = "zel.prices." + EscapeToken("MAR KET") + '.' + EscapeToken(symbol);
        ASSERT_EQ(natsConnection_PublishString(connection, subject.c_str(), ""), NATS_OK);
        natsMsg* message = nullptr;
        ASSERT_EQ(natsSubscription_NextMsg(&message, subscription, 20'000), NATS_OK);
        EXPECT_EQ(natsMsg_GetSubject(message), "zel.shard." + std::to_string(GetShard("MAR KET", symbol, 7)) + '.' +
                                                   EscapeToken("MAR KET") + '.' + EscapeToken(symbol));
        natsMsg_Destroy(message);
    }
    natsSubscription_Destroy(subscription);
    natsConnection_Destroy(connection);
}

} // namespace
} // namespace ps_ns
