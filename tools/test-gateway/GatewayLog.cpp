// SPDX-License-Identifier: Apache-2.0
// The test gateway's log: one line per event on standard output and in an optional file.
#include "GatewayLog.h"

#include <cerrno>
#include <cstring>

#include "foundation/GlobalUtils.h"

namespace testgw {

CGatewayLog::~CGatewayLog() {
    if (m_file != nullptr) fclose(m_file);
}

bool CGatewayLog::OpenFile(const std::string& path, std::string& error) {
    FILE* file = fopen(path.c_str(), "a");
    if (file == nullptr) {
        const int saved = errno;
        error = "cannot open log " + path + ": " + ErrnoText(saved);
        return false;
    }
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_file != nullptr) fclose(m_file);
    m_file = file;
    return true;
}

void CGatewayLog::Write(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    std::lock_guard<std::mutex> hold(m_lock);
    fputs(text.c_str(), stdout);
    fflush(stdout);
    if (m_file != nullptr) {
        fputs(text.c_str(), m_file);
        fflush(m_file);
    }
}

std::string CGatewayLog::Field(const std::string& value) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : value) {
        if (c > 0x20 && c < 0x7f && c != '%' && c != '=') {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0xf]);
        }
    }
    return out;
}

}  // namespace testgw
