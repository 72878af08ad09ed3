// SPDX-License-Identifier: Apache-2.0
// Test helper: records what the logging family would have written to syslog.
#include "support/SyslogCapture.h"

#include <cstdio>
#include <mutex>

namespace swg_test {
namespace {
std::mutex g_captureLock;
std::vector<SyslogLine>* g_lines = nullptr;  // guarded by g_captureLock
}  // namespace

SyslogCapture::SyslogCapture() {
    {
        std::lock_guard<std::mutex> hold(g_captureLock);
        g_lines = new std::vector<SyslogLine>;
    }
    m_previous = SwgSetSyslogWriter(&SyslogCapture::Write);
}

SyslogCapture::~SyslogCapture() {
    SwgSetSyslogWriter(m_previous);
    std::lock_guard<std::mutex> hold(g_captureLock);
    delete g_lines;
    g_lines = nullptr;
}

void SyslogCapture::Write(int priority, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    if (length > 0) std::vsnprintf(&text[0], text.size() + 1, format, args);
    std::lock_guard<std::mutex> hold(g_captureLock);
    if (g_lines != nullptr) g_lines->push_back({priority, std::move(text)});
}

std::vector<SyslogLine> SyslogCapture::Lines() const {
    std::lock_guard<std::mutex> hold(g_captureLock);
    return g_lines != nullptr ? *g_lines : std::vector<SyslogLine>{};
}

std::vector<SyslogLine> SyslogCapture::LinesWith(const std::string& fragment) const {
    std::vector<SyslogLine> found;
    for (const SyslogLine& line : Lines()) {
        if (line.text.find(fragment) != std::string::npos) found.push_back(line);
    }
    return found;
}

void SyslogCapture::Clear() {
    std::lock_guard<std::mutex> hold(g_captureLock);
    if (g_lines != nullptr) g_lines->clear();
}

}  // namespace swg_test
