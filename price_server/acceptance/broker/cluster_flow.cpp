// Publishes random changes of many books until it is ended: the publisher of ops/tests/cluster_test.py.
#include "broker/flow.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <unistd.h>

int main(int argc, char** argv)
{
    ps_ns::broker_soak::FlowOptions options;
    CLI::App app("Publishes random changes of many books of the market FLOW until it is ended", "cluster_flow");
    app.add_option("--broker", options.broker, "addresses of the brokers, with who we are")->required();
    app.add_option("--instruments", options.instruments, "how many (1000)");
    app.add_option("--rate", options.messagesPerSecond, "messages a second (5000)");
    app.add_option("--seed", options.seed, "of the changes (1)");
    CLI11_PARSE(app, argc, argv);

    sigset_t ends; // before anything that has a thread
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &ends, nullptr);
    const ps_ns::broker_soak::Flow flow(options);
    int signal = 0;
    ::sigwait(&ends, &signal);
    return 0;
}
