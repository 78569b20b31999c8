#pragma once

#include "zel/i_lease_store.h"
#include "zel/nats_transport.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ps_ns
{

/// Key-value buckets of NATS as lease stores: `zel_leases_1` to `zel_leases_N`, each in the memory of one broker.
///
/// One copy each, on purpose: what is kept in three copies cannot be written for seconds when the broker goes that
/// leads the three (docs/decisions/0023). With more than one bucket, bucket i is placed on the broker that has the
/// server tag "zel-leases-i". The buckets are made when they are missing.
///
/// | subject | what |
/// |---|---|
/// | $KV.zel_leases_I.KEY | writes, with the expected revision in a header |
/// | $JS.API.DIRECT.GET.KV_zel_leases_I.… | reads |
/// | $JS.API.STREAM.CREATE.KV_zel_leases_I | once, and when a bucket does not answer |
/// | zel.servers.SESSION | what servers tell each other |
/// | zel.reply.SESSION.TICKET | answers |
///
/// It has a connection of its own: answers do not wait behind prices. Nothing blocks but the constructor's and the
/// destructor's work; a write without a connection fails at once. A bucket that does not answer for some seconds though
/// there is a connection is logged once, with what the broker said last: of a broker that keeps none, or that this
/// client has no right to.
///
/// Threads: ILeaseStore's operations are the owner's; one thread of its own looks after the connection; the library's
/// leave answers.
class NatsLeaseStore final : public ILeaseStore
{
public:
    /// `session`: of the server; as LeaseOptions. Begins to connect.
    NatsLeaseStore(NatsOptions options, unsigned stores, std::string session);
    ~NatsLeaseStore() override;
    NatsLeaseStore(const NatsLeaseStore&) = delete;
    NatsLeaseStore& operator=(const NatsLeaseStore&) = delete;

    unsigned GetStoreCount() const override { return m_stores; }
    void Read(LeaseTicket ticket, unsigned store, const std::string& key) override;
    void Write(LeaseTicket ticket, unsigned store, const std::string& key, const std::string& value,
               std::uint64_t expected) override;
    void Tell(const std::string& notice) override;
    std::optional<Answer> TakeAnswer() override;
    void WaitForAnswer(std::chrono::milliseconds time) override;

private:
    struct Link;

    void Run();
    bool Connect();
    void LetGo();
    void MakeBuckets();
    void ReportSilence(unsigned store, bool isSilent);
    void Put(Answer answer);
    bool Send(const std::string& subject, const std::string& reply, const std::string& data, std::uint64_t* expected);

    const NatsOptions m_options;
    const unsigned m_stores;
    const std::string m_session;
    const std::string m_replies; ///< "zel.reply.SESSION."
    const std::unique_ptr<Link> m_link;

    /// Of a bucket; the own thread's.
    struct Silence
    {
        std::chrono::steady_clock::time_point since{}; ///< with a connection; the beginning of time: it answers
        bool isSaid = false;
    };
    std::vector<Silence> m_silences; ///< by bucket

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Answer> m_answers;                                    ///< under m_mutex
    std::vector<std::chrono::steady_clock::time_point> m_answeredAt; ///< under m_mutex: by bucket
    bool m_isStopping = false;                                       ///< under m_mutex
    std::thread m_thread;                                            ///< the last member: it uses the others
};

} // namespace ps_ns
