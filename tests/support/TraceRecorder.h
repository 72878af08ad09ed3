// SPDX-License-Identifier: Apache-2.0
// Test helper: a trace object that keeps each line with its level.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "foundation/SSTrace.h"

namespace swg_test {

struct TraceLine {
    unsigned int level;
    std::string text;  // formatted, without a line end
};

// Installs itself as g_pTraceObject with every level on, and restores the previous object
// when destroyed. Lines may arrive from any thread.
class TraceRecorder : public CSSTrace {
public:
    TraceRecorder();
    ~TraceRecorder() override;

    __attribute__((format(printf, 2, 3))) void PrintDebugString(const char* format, ...) override;
    void GetLogMsgHeader(unsigned int level, std::string& header) override;

    std::vector<TraceLine> Lines() const;
    // Lines whose text contains `fragment`.
    std::vector<TraceLine> With(const std::string& fragment) const;
    // Number of lines whose text is exactly `text` at `level`.
    size_t Count(unsigned int level, const std::string& text) const;
    void Clear();

private:
    mutable std::mutex m_linesLock;
    std::vector<TraceLine> m_lines;
    CSSTrace* m_previous;
};

}  // namespace swg_test
