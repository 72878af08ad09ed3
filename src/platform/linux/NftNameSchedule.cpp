// SPDX-License-Identifier: Apache-2.0
// The look-up schedule of the rules' host names: bounded backoff after failures, refresh.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/NftNameSchedule.h"

#include <algorithm>
#include <utility>

namespace {

bool Before(const NftAddress& a, const NftAddress& b) {
    return a.family != b.family ? a.family < b.family : a.bytes < b.bytes;
}

bool Same(const NftAddress& a, const NftAddress& b) {
    return a.family == b.family && a.bytes == b.bytes;
}

}  // namespace

void CNftNameSchedule::SetNames(const std::set<std::string>& names, TimePoint now) {
    for (auto kept = m_names.begin(); kept != m_names.end();) {
        kept = names.count(kept->first) == 0 ? m_names.erase(kept) : std::next(kept);
    }
    for (const std::string& name : names) {
        if (m_names.count(name) == 0) m_names[name].due = now;
    }
}

void CNftNameSchedule::DueAll(TimePoint now) {
    for (auto& entry : m_names) entry.second.due = now;
}

std::vector<std::string> CNftNameSchedule::Due(TimePoint now) const {
    std::vector<std::string> due;
    for (const auto& entry : m_names) {
        if (entry.second.due <= now) due.push_back(entry.first);
    }
    return due;
}

std::optional<CNftNameSchedule::TimePoint> CNftNameSchedule::NextDue() const {
    std::optional<TimePoint> next;
    for (const auto& entry : m_names) {
        if (!next || entry.second.due < *next) next = entry.second.due;
    }
    return next;
}

std::chrono::milliseconds CNftNameSchedule::RetryPause(unsigned int failures) const {
    std::chrono::milliseconds pause = m_timing.firstRetry;
    for (unsigned int n = 1; n < failures && pause < m_timing.maxRetry; ++n) pause *= 2;
    return std::min(pause, m_timing.maxRetry);
}

bool CNftNameSchedule::Record(const std::string& name, bool answered,
                              std::vector<NftAddress> addresses, TimePoint now) {
    const auto found = m_names.find(name);
    if (found == m_names.end()) return false;
    Entry& entry = found->second;
    if (!answered || addresses.empty()) {
        ++entry.failures;
        entry.due = now + RetryPause(entry.failures);
        return false;
    }
    // Resolvers rotate their answers; only a different set of addresses is a change.
    std::sort(addresses.begin(), addresses.end(), Before);
    addresses.erase(std::unique(addresses.begin(), addresses.end(), Same), addresses.end());
    entry.failures = 0;
    entry.due = now + m_timing.refresh;
    const bool changed = !std::equal(addresses.begin(), addresses.end(), entry.addresses.begin(),
                                     entry.addresses.end(), Same);
    entry.addresses = std::move(addresses);
    return changed;
}

unsigned int CNftNameSchedule::Failures(const std::string& name) const {
    const auto found = m_names.find(name);
    return found == m_names.end() ? 0 : found->second.failures;
}

std::map<std::string, std::vector<NftAddress>> CNftNameSchedule::Answers() const {
    std::map<std::string, std::vector<NftAddress>> answers;
    for (const auto& entry : m_names) {
        if (!entry.second.addresses.empty()) answers[entry.first] = entry.second.addresses;
    }
    return answers;
}
