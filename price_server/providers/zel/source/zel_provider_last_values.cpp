/// What the broker keeps of a market, while its publisher is not heard.

#include "logging/logging.h"
#include "zel/zel_log.h"
#include "zel/zel_provider.h"
#include "zel_market.h"
#include "zel_questions.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace ps_ns
{

bool ZelProvider::IsUnheard(const ZelMarket& market, TimePoint now) const
{
    return market.isLost && m_transport->IsConnected() &&
           now - std::max(market.lastHeard, m_connectedSince) > m_options.lastValuesAfter;
}

// --- Questions -------------------------------------------------------------------------------------------------------

/// Images are asked for when the broker has answered about the directory, so that one that keeps nothing, or may not,
/// is not asked about every instrument; and only so many at a time, because all the answers come at once.
std::vector<ZelProvider::LastValueQuestion> ZelProvider::CollectLastValueQuestions(TimePoint now)
{
    constexpr std::size_t kMostImages = 200;
    constexpr std::chrono::milliseconds kBetween{50};
    std::vector<LastValueQuestion> questions;
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        if (market->wantsLastDirectory && IsUnheard(*market, now))
        {
            AddDirectoryQuestions(*market, now, questions);
        }
    }
    if (now - m_lastImagesAskedAt < kBetween)
    {
        return questions;
    }
    std::size_t images = 0;
    for (auto entry = m_awaiting.begin(); entry != m_awaiting.end() && images < kMostImages; ++entry)
    {
        ZelInstrument& instrument = **entry;
        if (instrument.state == ZelInstrument::State::Awaiting && instrument.wantsLastValue &&
            instrument.market.hasLastValues && IsUnheard(instrument.market, now) &&
            instrument.askingForLast.IsDue(now, m_options.askAgain, m_options.longestAskPause))
        {
            questions.push_back({instrument.market.name, instrument.asFirstListed.firstSymbol, 0});
            ++images;
            m_lastImagesAskedAt = now;
        }
    }
    return questions;
}

/// The first part says how many there are.
void ZelProvider::AddDirectoryQuestions(ZelMarket& market, TimePoint now,
                                        std::vector<LastValueQuestion>& questions) const
{
    if (!market.askingForLastDirectory.IsDue(now, m_options.askAgain, m_options.longestAskPause))
    {
        return;
    }
    if (market.kept.parts.empty())
    {
        questions.push_back({market.name, {}, 0});
    }
    for (std::size_t part = 0; part < market.kept.parts.size(); ++part)
    {
        if (!market.kept.parts[part])
        {
            questions.push_back({market.name, {}, static_cast<std::uint32_t>(part)});
        }
    }
}

// --- Answers ---------------------------------------------------------------------------------------------------------

void ZelProvider::OnLastValue(ZelMarket& market, const TransportAddress& of, std::span<const std::byte> payload)
{
    const ScopedRoleLock lock(m_mutex, m_role);
    market.hasLastValues = true;
    if (of.instrument.empty())
    {
        OnLastDirectory(market, of.part, payload);
        return;
    }
    const auto found = market.byFirstSymbol.find(of.instrument);
    if (!market.isLost || found == market.byFirstSymbol.end() || found->second->state != ZelInstrument::State::Awaiting)
    {
        return; // the publisher is heard, and asked; or nobody waits for it any more
    }
    ZelInstrument& instrument = *found->second;
    instrument.wantsLastValue = false;
    if (!TakeLastImage(instrument, payload))
    {
        instrument.feed.ShowStale(m_pools);
    }
}

/// False: there is none, or none that is newer than the book.
bool ZelProvider::TakeLastImage(ZelInstrument& instrument, std::span<const std::byte> payload)
{
    if (payload.empty())
    {
        return false;
    }
    const std::optional<WireHeader> header = ReadHeader(payload);
    if (!header || header->kind != WireKind::Image || !ReadBook(payload, m_message))
    {
        NoteRefused(instrument.market, "a last value cannot be read: it is damaged, or of another version");
        return false;
    }
    if (header->epoch > instrument.market.epoch ||
        std::pair(header->epoch, header->sequence) <= std::pair(instrument.bookEpoch, instrument.bookSequence))
    {
        return false;
    }
    instrument.bookEpoch = header->epoch;
    instrument.bookSequence = header->sequence;
    m_message.epoch = instrument.market.shownEpoch;
    ++m_counts.lastValues;
    instrument.feed.Publish(m_message, m_pools);
    return true;
}

void ZelProvider::OnLastDirectory(ZelMarket& market, std::uint32_t part, std::span<const std::byte> payload)
{
    Wake(); // images may be asked for now, or the other parts
    if (payload.empty())
    {
        market.wantsLastDirectory = market.wantsLastDirectory && part != 0;
        return;
    }
    const std::optional<WireHeader> header = ReadHeader(payload);
    std::optional<WireDirectory> directory = ReadDirectory(payload);
    if (!header || !directory || header->index != part || directory->parts > kMostDirectoryParts ||
        header->epoch == std::numeric_limits<std::uint64_t>::max())
    {
        market.wantsLastDirectory = false;
        NoteRefused(market, "a part of the last directory cannot be read: it is damaged, or of another version");
        return;
    }
    if (!market.isLost || std::pair(header->epoch, header->sequence) <= std::pair(market.epoch, market.revision))
    {
        market.wantsLastDirectory = false;
        return;
    }
    RefuseNonsense(market, directory->instruments);
    if (market.kept.parts.empty())
    {
        market.askingForLastDirectory.Reset(); // for the other parts, at once
    }
    market.kept.Expect(header->epoch, header->sequence, directory->parts);
    market.kept.parts[part] = std::move(directory->instruments);
    if (market.kept.IsComplete())
    {
        market.wantsLastDirectory = false;
        zel::logging::Log(10, ZelLogSource(),
                          [&](std::ostream& text)
                          { text << "nothing is heard of market " << market.name << ": its last directory is used"; });
        AdoptDirectory(market, std::exchange(market.kept, {}));
    }
}

} // namespace ps_ns
