// SPDX-License-Identifier: Apache-2.0
// Runs swg-test-gateway (or another server) as a child process for tests: start, read its
// ports, wait for log lines.
#include "support/GatewayProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/ThreadTestSupport.h"

extern char** environ;

namespace swg_test {
namespace {

constexpr std::chrono::milliseconds kPollStep{10};

std::vector<std::string> Lines(const std::string& path) {
    std::vector<std::string> lines;
    std::istringstream in(ReadTextFile(path));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace

CGatewayProcess::~CGatewayProcess() { Stop(SIGKILL, std::chrono::seconds(5)); }

bool CGatewayProcess::Start(const std::string& program, const std::vector<std::string>& args,
                            const std::string& outputPath, std::chrono::milliseconds timeout,
                            std::string& error, const std::string& readyLine) {
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const int spawned =
        posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        m_pid = -1;
        error = "cannot start " + program + ": " + strerror(spawned);
        return false;
    }
    if (readyLine.empty()) return true;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    for (;;) {
        const std::vector<std::string> lines = Lines(outputPath);
        for (const std::string& line : lines) {
            if (line == readyLine) return true;
            const std::string word = line.substr(0, line.find(' '));
            if (word == "listening" || word == "refusing")
                m_addresses.push_back(line.substr(word.size() + 1));
        }
        m_addresses.clear();
        if (Exited(status) || std::chrono::steady_clock::now() > deadline) {
            error = "not ready (status " + std::to_string(status) +
                    "), output: " + ReadTextFile(outputPath);
            return false;
        }
        std::this_thread::sleep_for(kPollStep);
    }
}

unsigned short CGatewayProcess::Port(std::size_t index) const {
    if (index >= m_addresses.size()) return 0;
    const std::string& address = m_addresses[index];
    return static_cast<unsigned short>(std::stoul(address.substr(address.rfind(':') + 1)));
}

bool CGatewayProcess::Exited(int& status) {
    if (m_pid <= 0) return true;
    int raw = 0;
    if (waitpid(m_pid, &raw, WNOHANG) != m_pid) return false;
    m_pid = -1;
    status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return true;
}

int CGatewayProcess::Stop(int signal, std::chrono::milliseconds timeout) {
    int status = -1;
    if (m_pid <= 0) return status;
    kill(m_pid, signal);
    if (WaitUntil([&] { return Exited(status); }, timeout, kPollStep)) return status;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
    m_pid = -1;
    return -1;
}

std::string ReadTextFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int CountLinesWith(const std::string& path, const std::string& text) {
    int count = 0;
    for (const std::string& line : Lines(path)) count += line.find(text) != std::string::npos;
    return count;
}

bool WaitForLines(const std::string& path, const std::string& text, int count,
                  std::chrono::milliseconds timeout) {
    return WaitUntil([&] { return CountLinesWith(path, text) >= count; }, timeout, kPollStep);
}

}  // namespace swg_test
