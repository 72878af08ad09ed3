// SPDX-License-Identifier: Apache-2.0
// Syslog writer of the application log and its piece splitting.
#include "foundation/SyslogLogger.h"

#include <syslog.h>

#include <algorithm>
#include <cstdarg>

#include "foundation/GlobalConst.h"
#include "foundation/SSTrace.h"

namespace {
// Passes the piece as an argument of "%s" so that a '%' in it is never read as a format.
void WritePiece(int priority, ...) {
    va_list args;
    va_start(args, priority);
    SwgVsyslog(priority, "%s", args);
    va_end(args);
}
}  // namespace

CSyslogLogger::CSyslogLogger(const char* name) : m_name(name != nullptr ? name : "") {
    // Same identity and options as the trace system, so these lines sit beside the
    // agent's own and reach standard error too under SWG_LOG_STDERR=1. The identity is
    // static storage, which syslog may keep a pointer to.
    openlog(g_szAPP_PROCESS_NAME, SwgSyslogOptions(), LOG_DAEMON);
}

long CSyslogLogger::Log(Logging::Severity severity, const char* text, const char* /*name*/,
                        Logging::MessageID /*id*/, Logging::DebugImportance importance) {
    if (text == nullptr) return SWG_E_MODULE_INVALID_ARG;
    const int priority = PriorityFor(severity, importance);
    // setlogmask is the syslog form of "is this type enabled"; a zero argument only reads
    // the mask, which nothing in the agent changes.
    if ((setlogmask(0) & LOG_MASK(priority)) == 0) return 0;  // NOLINT(concurrency-mt-unsafe)
    for (const std::string& piece : SplitText(text)) WritePiece(priority, piece.c_str());
    return 0;
}

int CSyslogLogger::PriorityFor(Logging::Severity severity, Logging::DebugImportance importance) {
    if (severity <= 2) return LOG_CRIT;
    if (severity == 3) return LOG_ERR;
    if (severity <= 6) return LOG_NOTICE;
    return importance == Logging::kImportanceError ? LOG_ERR : LOG_NOTICE;
}

std::vector<std::string> CSyslogLogger::SplitText(const std::string& text) {
    std::vector<std::string> pieces;
    std::size_t pos = 0;
    do {
        std::string piece;
        const bool more = text.size() - pos > kPieceBytes;
        if (more) {
            const std::string window = text.substr(pos, kPieceBytes);
            const std::size_t cut = window.find_last_of(" \n");
            if (cut == std::string::npos) {
                piece = window;
                pos += kPieceBytes;
            } else {
                piece = window.substr(0, cut);
                pos += cut + 1;
            }
        } else {
            piece = text.substr(pos);
            pos = text.size();
        }
        if (!pieces.empty()) piece.insert(0, "<-- ");
        if (more) piece += " -->";
        std::replace(piece.begin(), piece.end(), '\n', ' ');
        pieces.push_back(std::move(piece));
    } while (pos < text.size());
    return pieces;
}
