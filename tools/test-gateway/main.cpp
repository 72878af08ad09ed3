// SPDX-License-Identifier: Apache-2.0
// swg-test-gateway: a CONNECT and HTTP gateway with scriptable faults, for tests and demos.
#include <signal.h>

#include <cstdio>
#include <exception>
#include <string>

#include "GatewayLog.h"
#include "GatewayOptions.h"
#include "TestGateway.h"

int main(int argc, char** argv) {
    testgw::GatewayOptions options;
    bool help = false;
    std::string error;
    if (!testgw::ParseOptions(argc, argv, options, help, error)) {
        fprintf(stderr, "swg-test-gateway: %s\n%s", error.c_str(), testgw::UsageText().c_str());
        return 2;
    }
    if (help) {
        fputs(testgw::UsageText().c_str(), stdout);
        return 0;
    }
    testgw::CGatewayLog log;
    if (!options.logFile.empty() && !log.OpenFile(options.logFile, error)) {
        fprintf(stderr, "swg-test-gateway: %s\n", error.c_str());
        return 1;
    }
    // Blocked before any thread starts, so that only sigwait below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    signal(SIGPIPE, SIG_IGN);

    testgw::CTestGateway gateway(options, log);
    bool started = false;
    try {
        started = gateway.Start(error);
    } catch (const std::exception& caught) {
        error = std::string("cannot start: ") + caught.what();  // threads could not be created
    }
    if (!started) {
        fprintf(stderr, "swg-test-gateway: %s\n", error.c_str());
        return 1;
    }
    int received = 0;
    while (sigwait(&stopSignals, &received) != 0) {
    }
    gateway.Stop();
    log.Write(std::string("stopped on ") + (received == SIGINT ? "SIGINT" : "SIGTERM"));
    return 0;
}
