// SPDX-License-Identifier: Apache-2.0
// Test helper: the fake redirector and its seams.
#include "support/FakeSocketRedirector.h"

#include <cerrno>

namespace swg_test {

int FakeRedirectorScript::Answer(std::deque<int>& results, const std::function<void()>& apply) {
    std::lock_guard<std::mutex> hold(lock);
    int result = 0;
    if (!results.empty()) {
        result = results.front();
        results.pop_front();
    }
    if (result == 0 && apply) apply();
    return result;
}

FakeSocketRedirector::FakeSocketRedirector(std::shared_ptr<FakeRedirectorScript> script)
    : m_script(std::move(script)) {}

int FakeSocketRedirector::OpenPlugin(IKdfApiCB* callback) {
    FakeRedirectorScript& s = *m_script;
    {
        std::lock_guard<std::mutex> hold(s.lock);
        ++s.openAttempts;
    }
    return s.Answer(s.openResults, [&s, callback] {
        s.open = true;  // a reopen starts with no rules
        s.started = false;
        s.rules.clear();
        s.callback = callback;
    });
}

int FakeSocketRedirector::ClosePlugin() {
    FakeRedirectorScript& s = *m_script;
    return s.Answer(s.closeResults, [&s] {
        s.open = s.started = false;
        s.rules.clear();
    });
}

int FakeSocketRedirector::Clear(int /*what*/) {
    FakeRedirectorScript& s = *m_script;
    return s.Answer(s.clearResults, [&s] { s.rules.clear(); });
}

int FakeSocketRedirector::SetRedirects(std::list<redirect_info>& rules) {
    FakeRedirectorScript& s = *m_script;
    return s.Answer(s.setRedirectsResults,
                    [&s, &rules] { s.rules.insert(s.rules.end(), rules.begin(), rules.end()); });
}

int FakeSocketRedirector::Start() {
    FakeRedirectorScript& s = *m_script;
    return s.Answer(s.startResults, [&s] { s.started = true; });
}

int FakeSocketRedirector::Stop() {
    FakeRedirectorScript& s = *m_script;
    const std::function<void()> hook = s.Get(s.onStop);
    if (hook) hook();
    return s.Answer(s.stopResults, [&s] { s.started = false; });
}

int FakeSocketRedirector::ClearDnsCache() {
    FakeRedirectorScript& s = *m_script;
    return s.Answer(s.dnsCacheResults, [&s] { ++s.dnsCacheClears; });
}

RedirectorSeams FakeRedirectorSeams(const std::shared_ptr<FakeRedirectorScript>& script) {
    RedirectorSeams seams;
    seams.create = [script](ISocketRedirectorApi** out) {
        return script->Answer(script->createResults, [&] {
            *out = new FakeSocketRedirector(script);
            ++script->live;
            ++script->created;
            script->open = script->started = false;
            script->rules.clear();
        });
    };
    seams.release = [script](ISocketRedirectorApi** inout) {
        if (inout == nullptr || *inout == nullptr) return EINVAL;
        delete *inout;
        *inout = nullptr;
        const int result = script->Answer(script->releaseResults);
        std::lock_guard<std::mutex> hold(script->lock);
        --script->live;  // a failed release still ends the handle
        return result;
    };
    seams.sleep = [script](unsigned int milliseconds) {
        std::lock_guard<std::mutex> hold(script->lock);
        script->sleeps.push_back(milliseconds);
    };
    seams.pidOfProcess = [script](const std::string& name) {
        return name == "lmvpnd" ? script->Get(script->vpnDaemonPid) : -1;
    };
    seams.ipv6Installed = [script] { return script->Get(script->ipv6); };
    return seams;
}

}  // namespace swg_test
