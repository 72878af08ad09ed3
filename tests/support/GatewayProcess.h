// SPDX-License-Identifier: Apache-2.0
// Runs swg-test-gateway (or another server) as a child process for tests: start, read its
// ports, wait for log lines.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace swg_test {

// One gateway process. Not thread-safe; the destructor kills and reaps a process still running.
class CGatewayProcess {
public:
    CGatewayProcess() = default;
    ~CGatewayProcess();
    CGatewayProcess(const CGatewayProcess&) = delete;
    CGatewayProcess& operator=(const CGatewayProcess&) = delete;

    // Runs `program` with `args` (a wrapper such as "ip netns exec" may come first), its
    // standard output and error going to `outputPath`, and waits up to `timeout` for the
    // line `readyLine` (not at all when it is empty). False with a reason and the output so
    // far in `error` otherwise.
    bool Start(const std::string& program, const std::vector<std::string>& args,
               const std::string& outputPath, std::chrono::milliseconds timeout, std::string& error,
               const std::string& readyLine = "ready");
    // The process id; -1 once it has been reaped.
    pid_t Pid() const { return m_pid; }
    // The bound addresses of the "listening"/"refusing" lines, in the order of --listen.
    const std::vector<std::string>& Addresses() const { return m_addresses; }
    // The port of Addresses()[index]; 0 when there is no such address.
    unsigned short Port(std::size_t index) const;
    // Sends `signal` and waits up to `timeout` for the exit. Returns the exit status, 128 plus
    // the signal when a signal ended it, or -1 when it had to be killed.
    int Stop(int signal, std::chrono::milliseconds timeout);

private:
    bool Exited(int& status);

    pid_t m_pid = -1;
    std::vector<std::string> m_addresses;
};

// The text of `path` ("" when it cannot be read).
std::string ReadTextFile(const std::string& path);
// How many lines of `path` contain `text`.
int CountLinesWith(const std::string& path, const std::string& text);
// Waits up to `timeout` until `path` has at least `count` lines that contain `text`.
bool WaitForLines(const std::string& path, const std::string& text, int count,
                  std::chrono::milliseconds timeout);

}  // namespace swg_test
