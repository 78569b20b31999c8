/// The provider's thread for questions: silence, arrears, and what is asked for.

#include "logging/logging.h"
#include "zel/zel_log.h"
#include "zel/zel_provider.h"
#include "zel_market.h"
#include "zel_questions.h"

#include <algorithm>
#include <map>
#include <utility>

namespace ps_ns
{
namespace
{

constexpr std::chrono::milliseconds kTick{50};

} // namespace

void ZelProvider::Wake()
{
    {
        const std::lock_guard lock(m_wakeMutex);
        m_isWoken = true;
    }
    m_wake.notify_all();
}

void ZelProvider::Run()
{
    while (true)
    {
        {
            std::unique_lock lock(m_wakeMutex);
            m_wake.wait_for(lock, kTick, [this] { return m_isWoken || m_isStopping; });
            if (m_isStopping)
            {
                return;
            }
            m_isWoken = false;
        }
        Tick();
    }
}

void ZelProvider::Tick()
{
    std::vector<Question> questions;
    std::vector<LastValueQuestion> lastValueQuestions;
    {
        const ScopedRoleLock lock(m_mutex, m_role);
        const TimePoint now = m_options.now();
        CheckSilence(now);
        CheckArrears(now);
        if (m_transport->IsConnected())
        {
            questions = CollectQuestions(now);
            lastValueQuestions = CollectLastValueQuestions(now);
        }
    }
    for (const Question& question : questions)
    {
        m_transport->AskForImages(question.market, question.bytes); // what does not get through is asked again
    }
    for (const LastValueQuestion& question : lastValueQuestions)
    {
        m_transport->AskForLastValue(
            {TransportChannel::LastValues, question.market, question.instrument, question.part});
    }
    if (m_options.isHandDriven)
    {
        MakeRenames();
    }
}

void ZelProvider::CheckSilence(TimePoint now)
{
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        if (!market->isLost && now - market->lastHeard > m_options.longestSilence)
        {
            Lose(*market, "its publisher is silent");
        }
    }
}

/// Finds those whose last messages were lost, with none behind that would show the gap.
void ZelProvider::CheckArrears(TimePoint now)
{
    std::erase_if(m_behind,
                  [&](ZelInstrument* instrument) PS_REQUIRES(m_role)
                  {
                      instrument->isBehind = instrument->state != ZelInstrument::State::Idle &&
                                             instrument->arrears.IsBehind(instrument->sequence);
                      if (instrument->isBehind && instrument->state == ZelInstrument::State::Live &&
                          now - instrument->arrears.GetSince() > m_options.longestArrears)
                      {
                          ++m_counts.gaps;
                          Await(*instrument);
                      }
                      return !instrument->isBehind;
                  });
}

std::vector<ZelProvider::Question> ZelProvider::CollectQuestions(TimePoint now)
{
    constexpr std::size_t kMostInOne = 10'000;
    std::vector<Question> questions;
    for (const std::unique_ptr<ZelMarket>& market : m_markets)
    {
        if (market->wantsDirectory &&
            market->askingForDirectory.IsDue(now, m_options.askAgain, m_options.longestAskPause))
        {
            zel::logging::Log(0, ZelLogSource(),
                              [&](std::ostream& text) { text << "asks for the directory of market " << market->name; });
            WriteDirectoryRequest(questions.emplace_back(Question{market->name, {}}).bytes,
                                  {WireKind::DirectoryRequest, 0, market->epoch, market->revision});
        }
    }
    std::map<ZelMarket*, std::vector<std::uint32_t>> wanted;
    std::erase_if(m_awaiting,
                  [&](ZelInstrument* instrument)
                  {
                      if (instrument->state != ZelInstrument::State::Awaiting)
                      {
                          return true;
                      }
                      const bool canAsk = !instrument->market.isLost && instrument->index != ZelInstrument::kNoIndex;
                      if (canAsk && instrument->asking.IsDue(now, m_options.askAgain, m_options.longestAskPause))
                      {
                          wanted[&instrument->market].push_back(instrument->index);
                      }
                      return false;
                  });
    for (auto& [market, indexes] : wanted)
    {
        m_counts.imagesAsked += indexes.size();
        zel::logging::Log(0, ZelLogSource(),
                          [&market = *market, count = indexes.size()](std::ostream& text)
                          { text << "asks for " << count << " images of market " << market.name; });
        for (std::span<const std::uint32_t> rest = indexes; !rest.empty();)
        {
            const auto part = rest.first(std::min(rest.size(), kMostInOne));
            WriteImageRequest(questions.emplace_back(Question{market->name, {}}).bytes,
                              {WireKind::ImageRequest, 0, market->epoch, market->revision}, part);
            rest = rest.subspan(part.size());
        }
    }
    return questions;
}

} // namespace ps_ns
