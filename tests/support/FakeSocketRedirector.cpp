// SPDX-License-Identifier: Apache-2.0
// Test helper: the fake redirector and its seams.
#include "support/FakeSocketRedirector.h"

#include <algorithm>
#include <cerrno>

namespace swg_test {

size_t FakeRedirectorScript::Count(const std::string& call) {
    std::lock_guard<std::mutex> hold(lock);
    return static_cast<size_t>(std::count(calls.begin(), calls.end(), call));
}

int FakeRedirectorScript::Answer(const std::string& call, std::deque<int>& results) {
    std::lock_guard<std::mutex> hold(lock);
    calls.push_back(call);
    if (results.empty()) return 0;
    const int result = results.front();
    results.pop_front();
    return result;
}

FakeSocketRedirector::FakeSocketRedirector(std::shared_ptr<FakeRedirectorScript> script)
    : m_script(std::move(script)) {}

int FakeSocketRedirector::OpenPlugin(IKdfApiCB* callback) {
    const int result = m_script->Answer("OpenPlugin", m_script->openResults);
    std::lock_guard<std::mutex> hold(m_script->lock);
    m_script->callback = callback;
    return result;
}

int FakeSocketRedirector::ClosePlugin() {
    return m_script->Answer("ClosePlugin", m_script->closeResults);
}

int FakeSocketRedirector::Clear(int what) {
    return m_script->Answer("Clear(" + std::to_string(what) + ")", m_script->clearResults);
}

int FakeSocketRedirector::SetRedirects(std::list<redirect_info>& rules) {
    const int result = m_script->Answer("SetRedirects", m_script->setRedirectsResults);
    std::lock_guard<std::mutex> hold(m_script->lock);
    m_script->given.push_back(rules);
    return result;
}

int FakeSocketRedirector::Start() { return m_script->Answer("Start", m_script->startResults); }

int FakeSocketRedirector::Stop() {
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> hold(m_script->lock);
        hook = m_script->onStop;
    }
    if (hook) hook();
    return m_script->Answer("Stop", m_script->stopResults);
}

int FakeSocketRedirector::ClearDnsCache() {
    std::deque<int> none;
    return m_script->Answer("ClearDnsCache", none);
}

RedirectorSeams FakeRedirectorSeams(const std::shared_ptr<FakeRedirectorScript>& script) {
    RedirectorSeams seams;
    seams.create = [script](ISocketRedirectorApi** out) {
        const int result = script->Answer("Create", script->createResults);
        if (result != 0) return result;
        *out = new FakeSocketRedirector(script);
        std::lock_guard<std::mutex> hold(script->lock);
        ++script->live;
        return 0;
    };
    seams.release = [script](ISocketRedirectorApi** inout) {
        const int result = script->Answer("Release", script->releaseResults);
        if (inout == nullptr || *inout == nullptr) return EINVAL;
        delete *inout;
        *inout = nullptr;
        std::lock_guard<std::mutex> hold(script->lock);
        --script->live;
        return result;
    };
    seams.sleep = [script](unsigned int milliseconds) {
        std::lock_guard<std::mutex> hold(script->lock);
        script->sleeps.push_back(milliseconds);
    };
    seams.pidOfProcess = [script](const std::string& name) {
        std::lock_guard<std::mutex> hold(script->lock);
        return name == "lmvpnd" ? script->vpnDaemonPid : -1;
    };
    seams.ipv6Installed = [script] {
        std::lock_guard<std::mutex> hold(script->lock);
        return script->ipv6;
    };
    return seams;
}

}  // namespace swg_test
