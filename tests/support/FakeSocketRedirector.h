// SPDX-License-Identifier: Apache-2.0
// Test helper: a stateful fake of the redirector that records what the agent gave it.
#pragma once

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/SocketRedirectorApi.h"
#include "redirect/RedirectTypes.h"

namespace swg_test {

// Shared by every fake made from it, so the record outlives each released handle. Results
// are queues: each call takes the front, an empty queue answers 0. Lock `lock` to touch
// fields while agent threads run; the helpers lock it themselves.
struct FakeRedirectorScript {
    std::mutex lock;
    std::vector<std::string> calls;  // "Create", "OpenPlugin", "Clear", "SetRedirects", ...
    std::vector<std::list<redirect_info>> given;  // each SetRedirects list, copied
    std::vector<unsigned int> sleeps;             // each injected sleep, in ms
    std::deque<int> createResults, openResults, setRedirectsResults, startResults, stopResults,
        clearResults, closeResults, releaseResults;
    IKdfApiCB* callback = nullptr;  // as given to the last OpenPlugin
    int live = 0;                   // fakes created and not yet released
    bool ipv6 = true;               // what the IPv6 probe answers
    int vpnDaemonPid = -1;          // what the "lmvpnd" look-up answers
    std::function<void()> onStop;   // run inside Stop, without the lock

    std::vector<std::string> Calls() { return Copy(calls); }
    size_t Count(const std::string& call);
    std::vector<std::list<redirect_info>> Given() { return Copy(given); }
    std::vector<unsigned int> Sleeps() { return Copy(sleeps); }
    int Live() { return Copy(live); }
    // Takes the front of `results`, 0 when empty; records `call`. Locks.
    int Answer(const std::string& call, std::deque<int>& results);

private:
    template <typename T>
    T Copy(const T& field) {
        std::lock_guard<std::mutex> hold(lock);
        return field;
    }
};

// A handle whose every operation records itself in the script and answers from it.
class FakeSocketRedirector : public ISocketRedirectorApi {
public:
    explicit FakeSocketRedirector(std::shared_ptr<FakeRedirectorScript> script);
    int OpenPlugin(IKdfApiCB* callback) override;
    int ClosePlugin() override;
    int Clear(int what) override;
    int SetRedirects(std::list<redirect_info>& rules) override;
    int Start() override;
    int Stop() override;
    int ClearDnsCache() override;

private:
    std::shared_ptr<FakeRedirectorScript> m_script;
};

// Seams that create and release fakes on `script`, record sleeps instead of sleeping, and
// answer the IPv6 probe and the daemon look-up from it.
RedirectorSeams FakeRedirectorSeams(const std::shared_ptr<FakeRedirectorScript>& script);

}  // namespace swg_test
