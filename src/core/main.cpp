// SPDX-License-Identifier: Apache-2.0
// Entry point of the tsc_swgagent service: "-console" runs it, nothing else does.
#include <strings.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "core/AgentRedirector.h"
#include "core/SWGAgent.h"
#include "foundation/DirectSyslog.h"
#include "foundation/GlobalConst.h"

namespace {
void RejectArgument(const char* argument) {
    std::string text = std::string("Did not recognise command line parameter: '") + argument + "'";
    // The system log gets the text without the hint; only standard error carries it.
    SwgSyslog(LOG_ERR, "%s", text.c_str());
    if (argument[0] != '-') text += ". Parameters have to be preceded by a dash ('-').";
    std::fprintf(stderr, "%s\n\n", text.c_str());
    // Only the signal thread runs yet, waiting in sigwait.
    std::exit(0);  // NOLINT(concurrency-mt-unsafe)
}
}  // namespace

int main(int argc, char** argv) {
    InstallSignalTable();
    SetDefaultRedirectorFactory(&CreateAgentRedirector);
    std::fputc('\n', stderr);
    if (argc < 2) std::exit(0);  // NOLINT(concurrency-mt-unsafe): see RejectArgument

    if (strcasecmp(argv[1], "-console") != 0) RejectArgument(argv[1]);

    g_nAPP_MODE = 1;
    const long result = g_pSWGAgent->Init();
    if (result != 0) {
        SwgSyslog(LOG_ERR, "\nSWG: Failed in initialization. Error Code : %lx\n", result);
        return 0;
    }
    // The service runs without a log if the trace object cannot be made.
    (void)g_pSWGAgent->InitializeLogging(g_szAPlusServiceLogFile);
    g_pSWGAgent->RunMessageLoop();
    return 0;
}
