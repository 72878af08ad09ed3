// SPDX-License-Identifier: Apache-2.0
// Test helper: records what the logging family would have written to syslog.
#pragma once

#include <string>
#include <vector>

#include "foundation/SSTrace.h"

namespace swg_test {

struct SyslogLine {
    int priority;
    std::string text;  // formatted, line end included as written
};

// Installs itself as the syslog writer for its lifetime and restores the previous one
// after. One capture at a time; lines may arrive from any thread.
class SyslogCapture {
public:
    SyslogCapture();
    ~SyslogCapture();
    SyslogCapture(const SyslogCapture&) = delete;
    SyslogCapture& operator=(const SyslogCapture&) = delete;

    // A copy of the lines so far, in arrival order.
    std::vector<SyslogLine> Lines() const;
    // Lines whose text contains `fragment`.
    std::vector<SyslogLine> LinesWith(const std::string& fragment) const;
    void Clear();

private:
    static void Write(int priority, const char* format, va_list args);
    SwgSyslogWriter m_previous;
};

}  // namespace swg_test
