#include "price_client/feed_runner.h"

#include "price_client/back_off.h"
#include "price_client/client_error.h"
#include "price_client/connection.h"

#include <array>
#include <cstdio>
#include <random>

namespace ps_ns::price_client
{
namespace
{

constexpr std::chrono::milliseconds kTick{250};

std::function<double()> MakeRandom()
{
    return [engine = std::mt19937(std::random_device()())]() mutable
    { return std::uniform_real_distribution<double>(0, 1)(engine); };
}

std::string FormatSeconds(std::chrono::milliseconds time)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f s", static_cast<double>(time.count()) / 1000);
    return text.data();
}

/// One session, until it is lost (which throws) or the loop is stopped.
void RunSession(Loop& loop, const Access& access, Feed& feed, const std::function<void()>& onGreeted)
{
    const auto socket = MakeWebSocket(loop, access);
    socket->Open();
    const Ticker ticker(loop, kTick, [&] { socket->Send(feed.OnTick(Feed::Clock::now())); });
    bool isNew = true;
    for (std::string message; socket->Read(message);)
    {
        socket->Send(feed.OnMessage(message, Feed::Clock::now()));
        if (std::exchange(isNew, false))
        {
            onGreeted();
        }
    }
}

} // namespace

void RunFeed(Loop& loop, const Access& access, Feed& feed, const Feed::Talk& talk)
{
    BackOff backOff(MakeRandom());
    bool wasLost = false;
    while (!loop.IsStopped())
    {
        try
        {
            RunSession(loop, access, feed,
                       [&]
                       {
                           if (std::exchange(wasLost, false))
                           {
                               talk("connected to " + access.url.GetPlace() + " again");
                           }
                       });
        }
        catch (const ClientError& error)
        {
            if (loop.IsStopped())
            {
                return;
            }
            if (!error.MayPass() || !feed.WasGreeted())
            {
                throw;
            }
            if (feed.HasPrices())
            {
                backOff.Reset();
            }
            feed.OnLost();
            wasLost = true;
            const std::chrono::milliseconds wait = backOff.Next();
            talk(std::string(error.what()) + "; trying again in " + FormatSeconds(wait));
            loop.WaitFor(wait);
        }
    }
}

} // namespace ps_ns::price_client
