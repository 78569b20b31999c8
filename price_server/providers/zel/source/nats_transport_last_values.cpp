/// Last values: the stream that keeps them, and the questions.

#include "logging/logging.h"
#include "nats_link.h"
#include "zel/zel_log.h"

#include <string_view>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::string_view kStreamAnswer = "stream";
constexpr std::string_view kTaken = "\"err_code\":10058"; // there is one of the name, with other settings

std::string_view GetData(natsMsg* message)
{
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

/// The text behind `"description":"` in an error of the broker.
std::string FindDescription(std::string_view json)
{
    constexpr std::string_view kName = "\"description\":\"";
    const std::size_t place = json.find(kName);
    if (place == std::string_view::npos)
    {
        return "it does not say why";
    }
    json.remove_prefix(place + kName.size());
    return std::string(json.substr(0, json.find('"')));
}

} // namespace

std::string NatsTransport::DescribeStream() const
{
    return std::string("{\"name\":\"") + kLastValuesStream +
           "\",\"subjects\":[\"zel.last.>\"],\"retention\":\"limits\",\"max_consumers\":-1,\"max_msgs\":-1,"
           "\"max_bytes\":" +
           std::to_string(m_options.lastValuesBytes) +
           ",\"max_age\":0,\"max_msgs_per_subject\":1,\"max_msg_size\":-1,\"discard\":\"old\",\"storage\":\"memory\","
           "\"num_replicas\":1,\"no_ack\":true,\"allow_direct\":true}";
}

/// Own thread.
void NatsTransport::MakeStreamWhenDue(bool isNewConnection)
{
    const auto now = std::chrono::steady_clock::now();
    if (m_options.lastValuesBytes == 0 || (!isNewConnection && now - m_streamAskedAt < kBetweenMaking))
    {
        return;
    }
    m_streamAskedAt = now;
    const std::string subject = std::string("$JS.API.STREAM.CREATE.") + kLastValuesStream;
    const std::string reply = m_replies + std::string(kStreamAnswer);
    const std::string config = DescribeStream();
    const std::shared_lock lock(m_link->connectionMutex);
    natsConnection_PublishRequest(m_link->connection, subject.c_str(), reply.c_str(), config.data(),
                                  static_cast<int>(config.size())); // what gets lost is asked again
}

void NatsTransport::Link::OnReply(std::string_view name, natsMsg* message)
{
    if (name == kStreamAnswer)
    {
        OnStreamAnswer(message);
        return;
    }
    const std::string kept = std::string(kRootSubject).append(name);
    ParsedSubject subject;
    if (natsMsg_IsNoResponders(message) || !subject.Parse(kept))
    {
        return; // there is no such stream
    }
    const char* status = nullptr; // 404: there is no such value
    const bool isThere = natsMsgHeader_Get(message, "Status", &status) != NATS_OK || status == nullptr;
    const std::string_view data = isThere ? GetData(message) : std::string_view();
    Tell([&](ITransportListener& user)
         { user.OnTransportMessage(subject.address, std::as_bytes(std::span<const char>(data))); });
}

void NatsTransport::Link::OnStreamAnswer(natsMsg* message)
{
    const std::string_view json = GetData(message);
    const bool isError = json.find("\"error\"") != std::string_view::npos;
    std::string fault;
    if (natsMsg_IsNoResponders(message))
    {
        fault = "it has no JetStream";
    }
    else if (isError)
    {
        fault = FindDescription(json);
    }
    const bool isTaken = isError && json.find(kTaken) != std::string_view::npos;
    keepsLastValues.store(fault.empty() || isTaken);
    {
        const std::lock_guard lock(saidMutex);
        if (std::exchange(streamFaultSaid, fault) == fault || fault.empty())
        {
            return;
        }
    }
    zel::logging::Log(20, ZelLogSource(),
                      [&](std::ostream& text)
                      {
                          text << "the message broker "
                               << (isTaken ? "keeps last values, with other settings than asked for: "
                                           : "keeps no last values: ")
                               << fault;
                      });
}

bool NatsTransport::AskForLastValue(const TransportAddress& of)
{
    if (!m_link->isUp.load())
    {
        return false;
    }
    Want(m_replies + '>');
    AwaitWanted();
    const std::string kept = MakeSubject(of);
    const std::string subject = std::string("$JS.API.DIRECT.GET.") + kLastValuesStream + '.' + kept;
    const std::string reply = m_replies + kept.substr(kRootSubject.size());
    const std::shared_lock lock(m_link->connectionMutex);
    return m_link->connection != nullptr &&
           natsConnection_PublishRequest(m_link->connection, subject.c_str(), reply.c_str(), "", 0) == NATS_OK;
}

} // namespace ps_ns
