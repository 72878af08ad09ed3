// SPDX-License-Identifier: Apache-2.0
// The test gateway's log: one line per event on standard output and in an optional file.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace testgw {

// Lines of one call stay together even when connections log at the same time. Any thread.
class CGatewayLog {
public:
    CGatewayLog() = default;
    ~CGatewayLog();
    CGatewayLog(const CGatewayLog&) = delete;
    CGatewayLog& operator=(const CGatewayLog&) = delete;

    // Appends to `path` from now on as well. Returns false with a reason when it cannot open.
    bool OpenFile(const std::string& path, std::string& error);
    // Writes `lines` (without line ends) and flushes both outputs.
    void Write(const std::vector<std::string>& lines);
    void Write(const std::string& line) { Write(std::vector<std::string>{line}); }

    // `value` made safe for a "key=value" field: bytes outside visible ASCII, "%" and "="
    // become %XX, so a field never holds a space and the line stays one line.
    static std::string Field(const std::string& value);

private:
    std::mutex m_lock;
    FILE* m_file = nullptr;
};

}  // namespace testgw
