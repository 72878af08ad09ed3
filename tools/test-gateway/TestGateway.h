// SPDX-License-Identifier: Apache-2.0
// The test gateway: listeners, a bounded pool of worker threads, and orderly stop.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "GatewayLog.h"
#include "GatewayOptions.h"

namespace testgw {

// Start and Stop are called from one thread (main). One acceptor thread per listener hands
// connections to `maxConnections` workers; an acceptor waits while all of them are busy, so
// the kernel's backlog holds the rest.
class CTestGateway {
public:
    CTestGateway(const GatewayOptions& options, CGatewayLog& log);
    ~CTestGateway();
    CTestGateway(const CTestGateway&) = delete;
    CTestGateway& operator=(const CTestGateway&) = delete;

    // Reads the key, opens every listener, starts the threads and logs one "listening ADDR"
    // (or "refusing ADDR") line per listener, then "ready". False with a reason in `error`
    // when the key file cannot be read or a listener cannot be opened; nothing runs then.
    bool Start(std::string& error);
    // Wakes every wait, ends the relays and joins all threads. Safe to call twice.
    void Stop();

private:
    bool OpenListeners(std::vector<std::string>& lines, std::string& error);
    void AcceptLoop(int listenFd);
    void WorkerLoop();

    const GatewayOptions& m_options;
    CGatewayLog& m_log;
    std::string m_privateKeyPem;
    int m_stopPipe[2] = {-1, -1};  // readable once Stop has begun
    std::vector<int> m_listeners;
    std::vector<std::thread> m_threads;

    std::mutex m_lock;
    std::condition_variable m_changed;
    std::deque<int> m_queue;  // accepted, not yet taken by a worker
    int m_idleWorkers = 0;
    bool m_stopping = false;
};

}  // namespace testgw
