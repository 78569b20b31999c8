#include "server/client_gate.h"

#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <thread>

namespace ps_ns
{
namespace
{

TEST(ClientGate, LetsRequestsThroughWhileItIsOpen)
{
    ClientGate gate;
    int requests = 0;
    EXPECT_FALSE(gate.Pass([&] { ++requests; }));
    gate.Open();
    EXPECT_TRUE(gate.Pass([&] { ++requests; }));
    gate.Close();
    EXPECT_FALSE(gate.Pass([&] { ++requests; }));
    EXPECT_EQ(requests, 1);
}

TEST(ClientGate, LetsRequestsOfOtherThreadsWaitWhileItIsSuspended)
{
    ClientGate gate;
    gate.Open();
    std::optional<ClientGate::Suspension> suspension = gate.TrySuspend();
    ASSERT_TRUE(suspension);
    bool isResumed = false;
    bool wasResumed = false;
    std::promise<void> begun;
    std::thread client(
        [&]
        {
            begun.set_value();
            EXPECT_TRUE(gate.Pass([&] { wasResumed = isResumed; }));
        });
    begun.get_future().wait();
    EXPECT_TRUE(gate.Pass([&] { isResumed = true; })) << "the suspending thread's own requests pass";
    suspension.reset();
    client.join();
    EXPECT_TRUE(wasResumed);
}

TEST(ClientGate, IsNotSuspendedWhileARequestIsMadeNorTwice)
{
    ClientGate gate;
    gate.Open();
    std::promise<void> inside;
    std::promise<void> leave;
    std::thread client(
        [&]
        {
            gate.Pass(
                [&]
                {
                    inside.set_value();
                    leave.get_future().wait();
                });
        });
    inside.get_future().wait();
    EXPECT_FALSE(gate.TrySuspend());
    leave.set_value();
    client.join();
    std::optional<ClientGate::Suspension> first = gate.TrySuspend();
    EXPECT_TRUE(first);
    EXPECT_FALSE(gate.TrySuspend());
    first.reset();
    EXPECT_TRUE(gate.TrySuspend());
}

TEST(ClientGate, RefusesWhoHasWaitedWhenItWasClosedMeanwhile)
{
    ClientGate gate;
    gate.Open();
    std::optional<ClientGate::Suspension> suspension = gate.TrySuspend();
    std::future<bool> passed = std::async(std::launch::async, [&] { return gate.Pass([] {}); });
    gate.Close();
    // Let go of on another thread, as by a queue that drops what it has not run.
    std::thread([held = std::move(suspension)]() mutable { held.reset(); }).join();
    EXPECT_FALSE(passed.get());
}

} // namespace
} // namespace ps_ns
