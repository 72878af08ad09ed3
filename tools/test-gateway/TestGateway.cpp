// SPDX-License-Identifier: Apache-2.0
// The test gateway: listeners, a bounded pool of worker threads, and orderly stop.
#include "TestGateway.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "GatewaySession.h"
#include "GatewaySockets.h"

namespace testgw {

CTestGateway::CTestGateway(const GatewayOptions& options, CGatewayLog& log)
    : m_options(options), m_log(log) {}

CTestGateway::~CTestGateway() { Stop(); }

bool CTestGateway::Start(std::string& error) {
    if (!m_options.keyFile.empty()) {
        std::ifstream in(m_options.keyFile);
        std::stringstream text;
        text << in.rdbuf();
        m_privateKeyPem = text.str();
        if (!in || m_privateKeyPem.empty()) {
            error = "cannot read key file " + m_options.keyFile;
            return false;
        }
    }
    if (pipe2(m_stopPipe, O_CLOEXEC) != 0) {
        error = "cannot create the stop pipe";
        return false;
    }
    std::vector<std::string> lines;
    if (!OpenListeners(lines, error)) {
        Stop();
        return false;
    }
    for (int i = 0; i < m_options.maxConnections; ++i) {
        m_threads.emplace_back(&CTestGateway::WorkerLoop, this);
    }
    if (!m_options.faults.refuse) {
        for (int fd : m_listeners) m_threads.emplace_back(&CTestGateway::AcceptLoop, this, fd);
    }
    lines.push_back("ready");
    m_log.Write(lines);
    return true;
}

bool CTestGateway::OpenListeners(std::vector<std::string>& lines, std::string& error) {
    for (const ListenAddress& address : m_options.listen) {
        std::string bound;
        const int fd = OpenListener(address, m_options.faults.refuse, bound, error);
        if (fd < 0) return false;
        m_listeners.push_back(fd);
        lines.push_back((m_options.faults.refuse ? "refusing " : "listening ") + bound);
    }
    return true;
}

void CTestGateway::Stop() {
    {
        std::lock_guard<std::mutex> hold(m_lock);
        if (m_stopping || m_stopPipe[1] < 0) return;
        m_stopping = true;
    }
    // Never read: the pipe stays readable, so every poll that includes it wakes at once.
    const char byte = 1;
    while (write(m_stopPipe[1], &byte, 1) < 0 && errno == EINTR) {
    }
    m_changed.notify_all();
    for (std::thread& thread : m_threads) thread.join();
    m_threads.clear();
    for (int fd : m_listeners) close(fd);
    m_listeners.clear();
    for (int fd : m_queue) close(fd);
    m_queue.clear();
    close(m_stopPipe[0]);
    close(m_stopPipe[1]);
    m_stopPipe[0] = m_stopPipe[1] = -1;
}

void CTestGateway::AcceptLoop(int listenFd) {
    for (;;) {
        {
            // Take a connection off the backlog only when a worker will serve it.
            std::unique_lock<std::mutex> hold(m_lock);
            m_changed.wait(hold, [this] {
                return m_stopping || m_idleWorkers > static_cast<int>(m_queue.size());
            });
            if (m_stopping) return;
        }
        const WaitResult waited = WaitFor(listenFd, POLLIN, -1, m_stopPipe[0]);
        if (waited == WaitResult::Stopped || waited == WaitResult::Failed) return;
        const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) continue;  // a client that gave up, or EMFILE: the backlog keeps the rest
        std::lock_guard<std::mutex> hold(m_lock);
        m_queue.push_back(fd);
        m_changed.notify_all();
    }
}

void CTestGateway::WorkerLoop() {
    for (;;) {
        int fd = -1;
        {
            std::unique_lock<std::mutex> hold(m_lock);
            ++m_idleWorkers;
            m_changed.notify_all();
            m_changed.wait(hold, [this] { return m_stopping || !m_queue.empty(); });
            --m_idleWorkers;
            if (m_stopping) return;
            fd = m_queue.front();
            m_queue.pop_front();
        }
        CGatewaySession session(m_options, m_privateKeyPem, m_log, fd, m_stopPipe[0]);
        session.Run();
    }
}

}  // namespace testgw
