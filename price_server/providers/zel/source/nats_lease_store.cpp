#include "zel/nats_lease_store.h"

#include "logging/logging.h"
#include "nats_handles.h"
#include "zel/subject_token.h"
#include "zel/zel_log.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <shared_mutex>
#include <stdexcept>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr auto kLook = std::chrono::milliseconds(20);
constexpr auto kBetweenMaking = std::chrono::milliseconds(500);
constexpr auto kSilence = std::chrono::seconds(1);
constexpr auto kLongSilence = std::chrono::seconds(3);
constexpr std::int64_t kPingInterval_ms = 500;
constexpr int kMostPingsOut = 2;
constexpr const char* kNotices = "zel.servers.";
constexpr const char* kExpected = "Nats-Expected-Last-Subject-Sequence";
constexpr const char* kMade = "made"; // the ticket of what makes a bucket

struct MessageDeleter
{
    void operator()(natsMsg* message) const noexcept { natsMsg_Destroy(message); }
};
using MessageHandle = std::unique_ptr<natsMsg, MessageDeleter>;

void Require(natsStatus status, const char* what)
{
    if (status != NATS_OK)
    {
        throw std::runtime_error(std::string("the broker's client library refuses ") + what + ": " +
                                 natsStatus_GetText(status));
    }
}

std::string GetBucket(unsigned store)
{
    return "zel_leases_" + std::to_string(store + 1);
}

std::string GetHeader(natsMsg* message, const char* name)
{
    const char* value = nullptr;
    return natsMsgHeader_Get(message, name, &value) == NATS_OK && value != nullptr ? value : "";
}

std::optional<std::uint64_t> ParseNumber(std::string_view text)
{
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end != text.data() ? std::optional(number) : std::nullopt;
}

/// The number behind `"name":` in the broker's short answers.
std::optional<std::uint64_t> FindNumber(std::string_view json, std::string_view name)
{
    const std::size_t place = json.find("\"" + std::string(name) + "\"");
    if (place == std::string_view::npos)
    {
        return std::nullopt;
    }
    const std::size_t digit = json.find_first_not_of(": ", place + name.size() + 2);
    return digit == std::string_view::npos ? std::nullopt : ParseNumber(json.substr(digit));
}

std::string_view GetData(natsMsg* message)
{
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

ILeaseStore::Answer MakeReadAnswer(LeaseTicket ticket, natsMsg* message)
{
    ILeaseStore::Answer answer{ILeaseStore::Answer::Kind::Read, ticket, {}};
    const std::string status = GetHeader(message, "Status");
    if (status.empty())
    {
        const auto revision = ParseNumber(GetHeader(message, "Nats-Sequence"));
        answer.kind = revision ? answer.kind : ILeaseStore::Answer::Kind::Failed;
        answer.entry = {revision.value_or(0), std::string(GetData(message))};
    }
    else if (status != "404") // 404: there is no such key
    {
        answer.kind = ILeaseStore::Answer::Kind::Failed;
    }
    return answer;
}

ILeaseStore::Answer MakeWriteAnswer(LeaseTicket ticket, natsMsg* message)
{
    constexpr std::uint64_t kWrongLastSequence = 10071;
    ILeaseStore::Answer answer{ILeaseStore::Answer::Kind::Failed, ticket, {}};
    const std::string_view json = GetData(message);
    const bool isError = json.find("\"error\"") != std::string_view::npos;
    const auto revision = FindNumber(json, "seq");
    if (!isError && revision && *revision != 0)
    {
        answer.kind = ILeaseStore::Answer::Kind::Written;
        answer.entry.revision = *revision;
    }
    else if (isError && FindNumber(json, "err_code") == kWrongLastSequence)
    {
        answer.kind = ILeaseStore::Answer::Kind::Refused;
    }
    return answer;
}

} // namespace

struct NatsLeaseStore::Link
{
    explicit Link(NatsLeaseStore& itsOwner)
        : owner(itsOwner)
    {
    }

    static void OnMessage(natsConnection*, natsSubscription*, natsMsg* raw, void* closure)
    {
        const MessageHandle message(raw);
        auto& owner = static_cast<Link*>(closure)->owner;
        const std::string_view subject = natsMsg_GetSubject(raw);
        if (subject.starts_with(kNotices))
        {
            return owner.Put({Answer::Kind::Notice, 0, {0, std::string(GetData(raw))}});
        }
        std::string_view what = subject.substr(owner.m_replies.size());
        const std::size_t dot = what.rfind('.');
        const std::string_view kind = what.substr(0, 1);
        if (what.starts_with(kMade) || dot == std::string_view::npos)
        {
            return;
        }
        const LeaseTicket ticket = ParseNumber(what.substr(dot + 1)).value_or(0);
        const unsigned store = static_cast<unsigned>(ParseNumber(what.substr(1, dot - 1)).value_or(0));
        if (natsMsg_IsNoResponders(raw))
        {
            return owner.Put({Answer::Kind::Failed, ticket, {}});
        }
        {
            const std::lock_guard lock(owner.m_mutex);
            owner.m_answeredAt.at(std::min(store, owner.m_stores - 1)) = std::chrono::steady_clock::now();
        }
        owner.Put(kind == "r" ? MakeReadAnswer(ticket, raw) : MakeWriteAnswer(ticket, raw));
    }
    static void OnClosed(natsConnection*, void* closure) { static_cast<Link*>(closure)->isClosed.store(true); }
    /// May come while the library holds its locks: touches nothing.
    static void OnError(natsConnection*, natsSubscription*, natsStatus, void*) {}
    static std::int64_t ChoosePause(natsConnection*, int attempts, void* closure)
    {
        const NatsOptions& options = static_cast<Link*>(closure)->owner.m_options;
        return std::min(options.shortestPause.count() << std::clamp(attempts - 1, 0, 10), options.longestPause.count());
    }

    NatsLeaseStore& owner;
    std::atomic<bool> isClosed{false}; ///< the library has given the connection up
    std::shared_mutex mutex;
    natsConnection* connection = nullptr;         ///< under mutex
    std::vector<natsSubscription*> subscriptions; ///< the own thread's
    NatsGraveyard graveyard{NatsTransport::kGraveyardRest};
};

NatsLeaseStore::NatsLeaseStore(NatsOptions options, unsigned stores, std::string session)
    : m_options(std::move(options))
    , m_stores(stores)
    , m_session(std::move(session))
    , m_replies("zel.reply." + EscapeToken(m_session) + '.')
    , m_link(std::make_unique<Link>(*this))
    , m_silences(stores)
    , m_answeredAt(stores)
    , m_thread([this] { Run(); })
{
}

NatsLeaseStore::~NatsLeaseStore()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isStopping = true;
    }
    m_changed.notify_all();
    m_thread.join();
}

// --- The thread ------------------------------------------------------------------------------------------------------

void NatsLeaseStore::Run()
{
    const auto pause = [this](std::chrono::milliseconds time)
    {
        std::unique_lock lock(m_mutex);
        return !m_changed.wait_for(lock, time, [this] { return m_isStopping; });
    };
    auto lastMade = std::chrono::steady_clock::time_point{};
    while (pause(std::chrono::milliseconds(0)))
    {
        bool isConnected = false;
        try
        {
            isConnected = Connect();
        }
        catch (const std::exception& error)
        {
            zel::logging::Log(30, ZelLogSource(), [&](std::ostream& text) { text << error.what(); });
        }
        while (isConnected && !m_link->isClosed.load() && pause(kLook))
        {
            m_link->graveyard.Reap(NatsGraveyard::Clock::now());
            if (const auto now = std::chrono::steady_clock::now(); now - lastMade > kBetweenMaking)
            {
                lastMade = now;
                MakeBuckets();
            }
        }
        LetGo();
        pause(m_options.longestPause);
    }
    m_link->graveyard.WaitAndReap();
}

bool NatsLeaseStore::Connect()
{
    natsOptions* made = nullptr;
    Require(natsOptions_Create(&made), "options");
    const NatsOptionsHandle options(made);
    const std::vector<std::string> servers = SplitServers(m_options.url);
    std::vector<const char*> texts;
    std::transform(servers.begin(), servers.end(), std::back_inserter(texts),
                   [](const std::string& server) { return server.c_str(); });
    Require(natsOptions_SetServers(made, texts.data(), static_cast<int>(texts.size())), "the broker's address");
    Require(natsOptions_SetName(made, (m_options.clientName + " leases").c_str()), "the client's name");
    if (!m_options.user.empty())
    {
        Require(SetUser(made, m_options.user, m_options.password), "the user");
    }
    Require(natsOptions_SetTimeout(made, m_options.connectTimeout.count()), "the connect timeout");
    Require(natsOptions_SetWriteDeadline(made, m_options.writeTimeout.count()), "the write timeout");
    Require(natsOptions_SetPingInterval(made, kPingInterval_ms), "the ping interval");
    Require(natsOptions_SetMaxPingsOut(made, kMostPingsOut), "the number of pings");
    Require(natsOptions_SetMaxReconnect(made, -1), "endless reconnects");
    Require(natsOptions_SetCustomReconnectDelay(made, &Link::ChoosePause, m_link.get()), "a pause");
    Require(natsOptions_SetReconnectBufSize(made, 1), "no buffer");
    Require(natsOptions_SetErrorHandler(made, &Link::OnError, m_link.get()), "an error handler");
    Require(natsOptions_SetClosedCB(made, &Link::OnClosed, m_link.get()), "a callback");

    natsConnection* connection = nullptr;
    m_link->isClosed.store(false);
    if (natsConnection_Connect(&connection, made) != NATS_OK)
    {
        return false; // the transport of the prices says so
    }
    {
        const std::unique_lock lock(m_link->mutex);
        m_link->connection = connection;
    }
    for (const std::string& subject : {m_replies + "*.*", std::string(kNotices) + "*"})
    {
        natsSubscription* subscription = nullptr;
        if (natsConnection_Subscribe(&subscription, connection, subject.c_str(), &Link::OnMessage, m_link.get()) !=
            NATS_OK)
        {
            return false;
        }
        m_link->subscriptions.push_back(subscription);
    }
    return true;
}

void NatsLeaseStore::LetGo()
{
    natsConnection* connection = nullptr;
    {
        const std::unique_lock lock(m_link->mutex);
        connection = std::exchange(m_link->connection, nullptr);
    }
    if (connection == nullptr)
    {
        return;
    }
    for (natsSubscription* const subscription : std::exchange(m_link->subscriptions, {}))
    {
        m_link->graveyard.Bury(subscription);
    }
    natsConnection_Close(connection);
    m_link->graveyard.WaitAndReap();
    while (!m_link->isClosed.load()) // the library's last callback
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    natsConnection_Destroy(connection);
}

/// Those that do not answer: nobody says that a bucket is missing. Making one that is there does nothing.
void NatsLeaseStore::MakeBuckets()
{
    std::vector<std::chrono::steady_clock::time_point> answeredAt;
    {
        const std::lock_guard lock(m_mutex);
        answeredAt = m_answeredAt;
    }
    for (unsigned store = 0; store < m_stores; ++store)
    {
        const bool isSilent = std::chrono::steady_clock::now() - answeredAt[store] >= kSilence;
        ReportSilence(store, isSilent);
        if (!isSilent)
        {
            continue;
        }
        const std::string bucket = GetBucket(store);
        const std::string placement =
            m_stores == 1 ? "" : ",\"placement\":{\"tags\":[\"zel-leases-" + std::to_string(store + 1) + "\"]}";
        const std::string config =
            "{\"name\":\"KV_" + bucket + "\",\"subjects\":[\"$KV." + bucket +
            ".>\"],\"retention\":\"limits\",\"max_consumers\":-1,\"max_msgs\":-1,\"max_bytes\":-1,\"max_age\":0,"
            "\"max_msgs_per_subject\":1,\"max_msg_size\":4096,\"discard\":\"new\",\"storage\":\"memory\","
            "\"num_replicas\":1,\"allow_direct\":true,\"allow_rollup_hdrs\":true,\"deny_delete\":true" +
            placement + "}";
        Send("$JS.API.STREAM.CREATE.KV_" + bucket, m_replies + kMade + ".0", config, nullptr);
    }
}

/// The connection is the own thread's to change: it is there.
void NatsLeaseStore::ReportSilence(unsigned store, bool isSilent)
{
    Silence& silence = m_silences[store];
    const auto now = std::chrono::steady_clock::now();
    if (!isSilent || natsConnection_Status(m_link->connection) != NATS_CONN_STATUS_CONNECTED)
    {
        silence.since = {};
        silence.isSaid = silence.isSaid && isSilent;
        return;
    }
    silence.since = silence.since == decltype(now){} ? now : silence.since;
    if (silence.isSaid || now - silence.since < kLongSilence)
    {
        return;
    }
    silence.isSaid = true;
    const std::string reason = GetRefusal(m_link->connection);
    zel::logging::Log(30, ZelLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "the bucket " << GetBucket(store)
                               << " of the message broker does not answer: without a "
                               << "majority of its buckets this server serves no shard"
                               << (reason.empty() ? "" : "; the broker has refused something: " + reason);
                      });
}

// --- The owner's -----------------------------------------------------------------------------------------------------

bool NatsLeaseStore::Send(const std::string& subject, const std::string& reply, const std::string& data,
                          std::uint64_t* expected)
{
    const std::shared_lock lock(m_link->mutex);
    if (m_link->connection == nullptr || natsConnection_Status(m_link->connection) != NATS_CONN_STATUS_CONNECTED)
    {
        return false; // before the first connection the library takes not even messages
    }
    natsMsg* made = nullptr;
    if (natsMsg_Create(&made, subject.c_str(), reply.empty() ? nullptr : reply.c_str(), data.data(),
                       static_cast<int>(data.size())) != NATS_OK)
    {
        return false;
    }
    const MessageHandle message(made);
    if (expected != nullptr && natsMsgHeader_Set(made, kExpected, std::to_string(*expected).c_str()) != NATS_OK)
    {
        return false;
    }
    return natsConnection_PublishMsg(m_link->connection, made) == NATS_OK;
}

void NatsLeaseStore::Read(LeaseTicket ticket, unsigned store, const std::string& key)
{
    const std::string bucket = GetBucket(store);
    const std::string reply = m_replies + 'r' + std::to_string(store) + '.' + std::to_string(ticket);
    if (!Send("$JS.API.DIRECT.GET.KV_" + bucket + ".$KV." + bucket + '.' + key, reply, "", nullptr))
    {
        Put({Answer::Kind::Failed, ticket, {}});
    }
}

void NatsLeaseStore::Write(LeaseTicket ticket, unsigned store, const std::string& key, const std::string& value,
                           std::uint64_t expected)
{
    const std::string reply = m_replies + 'w' + std::to_string(store) + '.' + std::to_string(ticket);
    if (!Send("$KV." + GetBucket(store) + '.' + key, reply, value, &expected))
    {
        Put({Answer::Kind::Failed, ticket, {}});
    }
}

void NatsLeaseStore::Tell(const std::string& notice)
{
    Send(kNotices + EscapeToken(m_session), "", notice, nullptr);
}

void NatsLeaseStore::Put(Answer answer)
{
    {
        const std::lock_guard lock(m_mutex);
        m_answers.push_back(std::move(answer));
    }
    m_changed.notify_all();
}

std::optional<ILeaseStore::Answer> NatsLeaseStore::TakeAnswer()
{
    const std::lock_guard lock(m_mutex);
    if (m_answers.empty())
    {
        return std::nullopt;
    }
    Answer answer = std::move(m_answers.front());
    m_answers.pop_front();
    return answer;
}

void NatsLeaseStore::WaitForAnswer(std::chrono::milliseconds time)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, time, [this] { return !m_answers.empty() || m_isStopping; });
}

} // namespace ps_ns
