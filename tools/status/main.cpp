// SPDX-License-Identifier: Apache-2.0
// swg-status: prints whether the agent protects this host, its gateway and its connection
// counters, speaking the plug-in channel on 127.0.0.1:5004 as the UI plug-in does.
#include <cstdio>
#include <cstring>
#include <string>

#include "AgentStatus.h"
#include "StatusSession.h"

namespace {
constexpr int kExitOk = 0;
constexpr int kExitNoAnswer = 1;
constexpr int kExitUsage = 2;

const char kUsage[] =
    "usage: swg-status [--watch] [--json]\n"
    "  Prints the agent's protection state, its gateway and its connection counters.\n"
    "  --watch  keep printing, once a second, until interrupted\n"
    "  --json   one JSON object per report\n";

int Fail(const char* what, const std::string& detail = std::string()) {
    std::fprintf(stderr, "swg-status: %s%s%s\n", what, detail.empty() ? "" : ": ", detail.c_str());
    return kExitNoAnswer;
}

int Explain(CStatusSession::Outcome outcome, const std::string& error) {
    switch (outcome) {
        case CStatusSession::Outcome::NoAgent:
            return Fail("no agent is listening on 127.0.0.1:5004 (is tsc_swgagent running?)",
                        error);
        case CStatusSession::Outcome::Silent:
            return Fail("the agent accepted the connection but sent no report");
        case CStatusSession::Outcome::Closed:
            return Fail(
                "the agent closed the connection (it is stopping, or another status "
                "client or plug-in took over)");
        case CStatusSession::Outcome::Malformed:
            return Fail("the agent sent something that is not a message of its channel");
        case CStatusSession::Outcome::Report:
            break;
    }
    return kExitOk;
}

void Print(const AgentStatus& status, bool json, bool watch) {
    const std::string text = json    ? FormatJson(status)
                             : watch ? FormatLine(status)
                                     : FormatBlock(status);
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
}
}  // namespace

int main(int argc, char** argv) {
    bool watch = false;
    bool json = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--watch") == 0) {
            watch = true;
        } else if (std::strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(kUsage, stdout);
            return kExitOk;
        } else {
            std::fprintf(stderr, "swg-status: unknown argument '%s'\n%s", argv[i], kUsage);
            return kExitUsage;
        }
    }

    CStatusSession session(kSwgIpcPort);
    std::string error;
    CStatusSession::Outcome outcome = session.Start(error);
    // A connection made just as the agent let go of the previous plug-in can go unserved;
    // a second connection finds it settled.
    if (outcome == CStatusSession::Outcome::Silent) outcome = session.Start(error);
    while (outcome == CStatusSession::Outcome::Report) {
        Print(session.Status(), json, watch);
        if (!watch) return kExitOk;
        outcome = session.Next();
    }
    return Explain(outcome, error);
}
