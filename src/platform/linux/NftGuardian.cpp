// SPDX-License-Identifier: Apache-2.0
// The guardian process of an unowned diversion table.
#if !defined(__linux__)
#error "Linux adapter"
#endif

#include "platform/linux/NftGuardian.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "foundation/GlobalUtils.h"
#include "platform/linux/NftRuleset.h"

namespace {

constexpr int kReapTries = 100;
constexpr auto kReapStep = std::chrono::milliseconds(10);

// `read` fails at end of file without a line: the agent is gone without saying "done".
std::string GuardianScript() {
    return std::string(
               "trap '' HUP INT QUIT TERM PIPE\n"
               "IFS= read -r word\n"
               "[ \"$word\" = done ] && exit 0\n"
               "PATH=/usr/sbin:/sbin:/usr/bin:/bin\n"
               "nft delete table ") +
           kNftTableFamily + " " + kNftTableName + "\nexec nft delete table " + kNftTableFamily +
           " " + kNftKeepTableName + "\n";
}

// Spawns sh with `input` as its standard input, nothing else inherited, a fresh session and
// default signal handling. Returns the pid or -1 with errno.
pid_t Spawn(int input) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_adddup2(&actions, input, STDIN_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    const std::string script = GuardianScript();
    char* const argv[] = {const_cast<char*>("sh"), const_cast<char*>("-c"),
                          const_cast<char*>(script.c_str()), const_cast<char*>("tsc_swg-guardian"),
                          nullptr};
    char* const envp[] = {nullptr};
    pid_t pid = -1;
    const int result = posix_spawn(&pid, "/bin/sh", &actions, &attributes, argv, envp);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) {
        errno = result;
        return -1;
    }
    return pid;
}

}  // namespace

std::unique_ptr<CNftGuardian> CNftGuardian::Start(std::string& why) {
    int link[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, link) != 0) {
        why = std::string("no socket pair: ") + ErrnoText(errno);
        return nullptr;
    }
    const pid_t pid = Spawn(link[1]);
    const int error = errno;
    ::close(link[1]);
    if (pid < 0) {
        ::close(link[0]);
        why = std::string("cannot start /bin/sh: ") + ErrnoText(error);
        return nullptr;
    }
    return std::unique_ptr<CNftGuardian>(new CNftGuardian(pid, link[0]));
}

CNftGuardian::~CNftGuardian() {
    // A send, not a write: a guardian that died already must not raise SIGPIPE here.
    (void)::send(m_link, "done\n", 5, MSG_NOSIGNAL);
    ::close(m_link);
    for (int i = 0; i < kReapTries; ++i) {
        const pid_t reaped = ::waitpid(m_pid, nullptr, WNOHANG);
        if (reaped == m_pid || (reaped < 0 && errno != EINTR)) return;
        std::this_thread::sleep_for(kReapStep);
    }
    ::kill(m_pid, SIGKILL);
    (void)::waitpid(m_pid, nullptr, 0);
}
