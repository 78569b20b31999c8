#include "client_session.h"
#include "gateway_core.h"
#include "price_unifier/source/composite_subscription_mgr.h"
#include <algorithm>
#include <type_traits>
#include <utility>

namespace ps_ns::gateway
{
namespace
{

constexpr std::uint16_t kTryAgainLater = 1013;

} // namespace

void ClientSession::Take(SessionSubscription& subscription, const Mailbox::What& what)
{
    if (const auto* const trades = std::get_if<SharedTrades>(&what))
    {
        OnTrades(subscription, *trades);
    }
    else if (const auto* const fields = std::get_if<SharedFields>(&what))
    {
        OnFields(subscription, *fields);
    }
    else if (const auto* const text = std::get_if<std::string>(&what))
    {
        m_out.Push(*text);
    }
}

void ClientSession::Take(SessionSubscription& subscription, const Mailbox::Overflow& overflow)
{
    if (overflow.lostTrades != 0)
    {
        subscription.lostTrades += overflow.lostTrades;
        m_lostTrades += overflow.lostTrades;
        Wait(subscription);
    }
    if (overflow.book != nullptr)
    {
        const std::uint64_t skipped = subscription.kinds.book ? overflow.skippedBooks : 0;
        subscription.skipped += skipped;
        m_conflated += skipped;
        OnBook(subscription, overflow.book);
    }
    if (overflow.fields != nullptr)
    {
        OnFields(subscription, overflow.fields);
    }
}

/// Nothing special about any of them: what they change is the same for all clients that had the same book before.
bool ClientSession::TakesAtOnce(const Subscription& subscription, const BookRun& run) const
{
    return subscription.kinds.book && subscription.sent != nullptr && subscription.waiting == nullptr &&
           subscription.skipped == 0 && run.isOneAfterAnother && subscription.sent->epoch == run.books.front()->epoch &&
           subscription.sent->sequence < run.books.front()->sequence &&
           run.levels <= static_cast<std::uint32_t>(subscription.scope.depth);
}

void ClientSession::Take(SessionSubscription& subscription, const BookRun& run)
{
    if (TakesAtOnce(subscription, run))
    {
        const Lines& lines = subscription.stream->GetUpdates(subscription.sent, run);
        if (lines.text->size() <= OutboundQueue::kWriteBytes && m_out.StaysFluentWith(lines.text->size()))
        {
            m_out.Push(lines.text, lines.count);
            subscription.sent = run.books.back();
            subscription.latest = subscription.sent;
            return;
        }
    }
    for (const SharedBook& book : run.books)
    {
        OnBook(subscription, book);
    }
}

void ClientSession::TakeText(std::string_view text)
{
    if (!m_hasEnded)
    {
        m_out.Push(text);
    }
}

void ClientSession::FinishTurn()
{
    m_isInTurn = false;
    Settle();
    if (!m_hasEnded)
    {
        m_onOutput();
    }
}

void ClientSession::Settle()
{
    if (m_hasEnded)
    {
        return;
    }
    SendWaiting();
    if (m_out.IsOverfull())
    {
        EndWith(kTryAgainLater, "too slow: " + std::to_string(m_out.GetUnsent()) + " bytes are unsent");
    }
}

void ClientSession::OnBook(Subscription& subscription, SharedBook book)
{
    subscription.latest = book;
    if (!subscription.kinds.book)
    {
        return;
    }
    if (!m_out.MustConflate() && subscription.waiting == nullptr && subscription.skipped == 0)
    {
        SendBook(subscription, std::move(book));
        return;
    }
    const std::uint64_t replaced = subscription.waiting != nullptr ? 1 : 0;
    subscription.skipped += replaced;
    m_conflated += replaced;
    subscription.waiting = std::move(book);
    Wait(subscription);
}

void ClientSession::OnFields(Subscription& subscription, const SharedFields& fields)
{
    if (!m_out.MustConflate() && subscription.waitingFields == nullptr)
    {
        m_out.Push(m_core.GetFieldsText(subscription.stream->GetInstrument(), fields));
        return;
    }
    subscription.waitingFields = fields; // they are whole: the latest says it all
    Wait(subscription);
}

void ClientSession::Wait(Subscription& subscription)
{
    if (!std::exchange(subscription.isWaiting, true))
    {
        m_waiting.push_back(subscription.id);
    }
}

void ClientSession::SendBook(Subscription& subscription, SharedBook book)
{
    // A book that was made before the depth was changed may be deeper.
    if (static_cast<std::int32_t>(std::max(book->bids.count, book->asks.count)) > subscription.scope.depth)
    {
        book = book->Cut(static_cast<std::uint32_t>(subscription.scope.depth));
    }
    if (std::exchange(subscription.toldEpoch, book->epoch) != book->epoch)
    {
        TellRename(subscription, book->epoch);
    }
    m_out.Push(subscription.stream->GetMessage(subscription.sent, book));
    subscription.sent = std::move(book);
}

/// Prices that begin anew may be those of a new symbol.
void ClientSession::TellRename(Subscription& subscription, std::uint64_t epoch)
{
    const std::string symbol = m_core.GetSymbolNow(subscription.entry);
    if (symbol != subscription.entry.symbol)
    {
        subscription.entry.symbol = symbol;
        m_out.Push(FormatRenamed(subscription.stream->GetInstrument(), symbol, epoch));
    }
}

void ClientSession::OnTrades(Subscription& subscription, const SharedTrades& trades)
{
    constexpr std::size_t kReserve = 64 * 1024; // for books and results: trades alone must not end the session
    const SharedText text = m_core.GetTradesText(subscription.stream->GetInstrument(), trades);
    if (subscription.lostTrades == 0 && m_out.HasRoomFor(text->size() + kReserve))
    {
        m_out.Push(text);
        return;
    }
    subscription.lostTrades += trades->size();
    m_lostTrades += trades->size();
    Wait(subscription);
}

/// What has waited, once there is room: how much was left out, then the latest. Who has waited longest comes first.
void ClientSession::SendWaiting()
{
    while (!m_waiting.empty() && !m_out.MustConflate())
    {
        const auto first = m_subscriptions.find(m_waiting.front());
        m_waiting.pop_front();
        if (first == m_subscriptions.end())
        {
            continue;
        }
        Subscription& subscription = first->second;
        subscription.isWaiting = false;
        const std::string& instrument = subscription.stream->GetInstrument();
        if (const auto lost = std::exchange(subscription.lostTrades, 0); lost != 0)
        {
            m_out.Push(FormatGap(instrument, lost));
        }
        if (const auto skipped = std::exchange(subscription.skipped, 0); skipped != 0)
        {
            m_out.Push(FormatConflated(instrument, subscription.scope.depth, skipped));
        }
        if (const SharedBook book = std::exchange(subscription.waiting, nullptr))
        {
            SendBook(subscription, book);
        }
        if (const SharedFields fields = std::exchange(subscription.waitingFields, nullptr))
        {
            m_out.Push(m_core.GetFieldsText(instrument, fields));
        }
    }
}

// --- Writing ---------------------------------------------------------------------------------------------------------

OutboundBatch ClientSession::BeginWrite()
{
    m_isWriting = true;
    m_writeBegan = Clock::now();
    OutboundBatch batch = m_out.BeginWrite();
    m_sentMessages += batch.GetLineCount();
    return batch;
}

void ClientSession::FinishWrite(OutboundBatch batch)
{
    m_isWriting = false;
    m_sentBytes += batch.GetSize();
    m_out.FinishWrite(std::move(batch));
    Settle();
}

void ClientSession::ForgetSent()
{
    for (auto& [id, subscription] : m_subscriptions)
    {
        if (subscription.waiting != nullptr)
        {
            subscription.sent.reset();
        }
    }
}

ClientSession::Clock::duration ClientSession::GetWriteAge(Clock::time_point now) const
{
    return m_isWriting ? now - m_writeBegan : Clock::duration::zero();
}

SessionView ClientSession::GetView() const
{
    SessionView view;
    view.number = m_number;
    view.remote = m_remote;
    view.token = m_identity ? m_identity->name : "";
    view.since_ns = m_since_ns;
    view.subscriptions = m_subscriptions.size();
    view.unsent_bytes = m_out.GetUnsent();
    view.sent_bytes = m_sentBytes;
    view.sentMessages = m_sentMessages;
    view.conflated = m_conflated;
    view.lostTrades = m_lostTrades;
    view.oldestUnsent_ms = std::chrono::duration_cast<std::chrono::milliseconds>(GetWriteAge(Clock::now())).count();
    return view;
}

} // namespace ps_ns::gateway
