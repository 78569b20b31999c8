#pragma once

#include "composite_instrument/i_composite_price_observer.h"
#include "composite_price/trade.h"
#include "gateway/instrument_list.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ps_ns
{

class PriceServer;

/// Where the updates of watched instruments go. Instruments are numbered in the order in which they are watched.
///
/// Threads: the instruments' executors, several at once; the calls for one instrument come one at a time.
class IPriceView
{
public:
    virtual ~IPriceView() = default;
    virtual void OnFormat(std::size_t instrument, const PriceFormat& format) = 0;
    virtual void OnBook(std::size_t instrument, const std::shared_ptr<const MergedOrderBook>& book) = 0;
    virtual void OnTrades(std::size_t instrument, const std::vector<Trade>& trades) = 0;
};

/// Counts the answers that are still to come.
///
/// Threads: any.
class AnswerCount
{
public:
    void Expect(std::size_t answers);
    void Note(std::size_t answers);
    /// False: they have not all come in that time.
    bool WaitForAll(std::chrono::milliseconds timeout);

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::size_t m_missing = 0; ///< under m_mutex
};

/// Watches instruments of a server through the manager's direct interface: every change of the merged book, and trades.
/// What a component answers goes to the log when it is a refusal.
///
/// Threads: the owner's. Ownership: shares the view with the observers, which the server holds until it has stopped.
class PriceWatch
{
public:
    PriceWatch(PriceServer& server, std::shared_ptr<IPriceView> view);

    /// Throws std::runtime_error, naming the instrument, when the server refuses it.
    void Add(const ListedInstrument& instrument, std::int32_t depth);

    /// All components of all instruments have answered; false: not in that time.
    bool WaitForAnswers(std::chrono::milliseconds timeout) { return m_answers->WaitForAll(timeout); }

private:
    PriceServer& m_server;
    const std::shared_ptr<IPriceView> m_view;
    const std::shared_ptr<AnswerCount> m_answers = std::make_shared<AnswerCount>();
    std::size_t m_count = 0;
};

} // namespace ps_ns
