// SPDX-License-Identifier: Apache-2.0
// Test helper: a stateful fake of the redirector that keeps what the agent left in force.
#pragma once

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/SocketRedirectorApi.h"
#include "redirect/RedirectTypes.h"

namespace swg_test {

// The redirector's side as the agent's calls leave it, shared by every fake made from it
// (each new handle starts closed, stopped and empty). A call that fails changes nothing.
// Results are queues: each call takes the front, an empty queue answers 0. Lock `lock` to
// touch fields while agent threads run; Get locks it itself.
struct FakeRedirectorScript {
    std::mutex lock;
    bool open = false;                 // OpenPlugin succeeded, ClosePlugin not since
    bool started = false;              // Start succeeded, Stop or a close not since
    std::list<redirect_info> rules;    // in force: appended by SetRedirects, emptied by Clear
    int live = 0;                      // handles created and not yet released
    int created = 0;                   // successful creations
    int openAttempts = 0;              // OpenPlugin calls
    int dnsCacheClears = 0;            // successful ClearDnsCache calls
    std::vector<unsigned int> sleeps;  // each injected sleep, in ms
    std::deque<int> createResults, openResults, setRedirectsResults, startResults, stopResults,
        clearResults, closeResults, releaseResults, dnsCacheResults;
    IKdfApiCB* callback = nullptr;  // as given to the last successful OpenPlugin
    bool ipv6 = true;               // what the IPv6 probe answers
    int vpnDaemonPid = -1;          // what the "lmvpnd" look-up answers
    std::function<void()> onStop;   // run inside Stop, without the lock

    // A copy of `field` taken under the lock.
    template <typename T>
    T Get(const T& field) {
        std::lock_guard<std::mutex> hold(lock);
        return field;
    }
    // Takes the front of `results`, 0 when empty; with 0, runs `apply` under the lock.
    int Answer(std::deque<int>& results, const std::function<void()>& apply = nullptr);
};

// A handle whose every operation changes the script's state as the interface describes.
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
    // The fake's state is what the kernel would hold at the end: a hold changes nothing.
    int HoldChanges() override { return 0; }
    int ApplyHeldChanges() override { return 0; }

private:
    std::shared_ptr<FakeRedirectorScript> m_script;
};

// Seams that create and release fakes on `script`, record sleeps instead of sleeping, and
// answer the IPv6 probe and the daemon look-up from it.
RedirectorSeams FakeRedirectorSeams(const std::shared_ptr<FakeRedirectorScript>& script);

}  // namespace swg_test
