// SPDX-License-Identifier: Apache-2.0
// State reporting of the agent: SendSWGState, the two state messages, SWGState.json.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>

#include "config/ConfigFiles.h"
#include "core/SWGAgent.h"
#include "foundation/GlobalUtils.h"
#include "foundation/Trace.h"
#include "ipc/ReportJson.h"
#include "ipc/SWGState.h"
#include "ipc/ServerSideCommunicator.h"

const std::unordered_map<std::string, int> umapSWGState = {
    {"protected", 1},
    {"unprotected", 2},
    {"disabled", 3},
    {"disabled_due_to_vpn", 4},
    {"disabled_due_to_trusted_network", 5},
    {"config_error", 6},
    {"cloud_service_unavailable", 7},
};

const char g_szStateFileName[] = "SWGState.json";

namespace {
const char kCloudUnavailable[] = "cloud_service_unavailable";
constexpr int64_t kCloudQuietNs = 5000000000;
constexpr int kTemporaryAttempts = 8;

int64_t MonotonicNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool WriteAll(int fd, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        written += static_cast<std::size_t>(n);
    }
    return true;
}

// Replaces `path` with `text` so that a reader sees the old file or the new one, never a part:
// the text goes to a new file beside it, which is then renamed over it. The new file is made
// with O_EXCL and O_NOFOLLOW, so a link planted under its name is never followed, and the
// rename replaces a link at `path` itself rather than writing through it. False, with errno
// set, when a step fails; nothing is left behind then.
bool ReplaceFile(const std::string& path, const std::string& text) {
    static std::atomic<unsigned> serial{0};
    for (int attempt = 0; attempt < kTemporaryAttempts; ++attempt) {
        const std::string temporary =
            path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(serial.fetch_add(1));
        const int fd =
            open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) return false;
        // The service's umask must not narrow what readers of the state may see.
        const bool written = fchmod(fd, 0644) == 0 && WriteAll(fd, text) && fsync(fd) == 0;
        const int error = errno;
        const bool closed = close(fd) == 0;
        if (written && closed && rename(temporary.c_str(), path.c_str()) == 0) return true;
        const int failure = written && closed ? errno : error;
        unlink(temporary.c_str());
        errno = failure;
        return false;
    }
    errno = EEXIST;
    return false;
}
}  // namespace

void CSWGAgent::SetStateClock(std::function<int64_t()> nowNs) {
    boost::recursive_mutex::scoped_lock hold(m_stateLock);
    m_stateClock = std::move(nowNs);
}

int CSWGAgent::SendSWGState(const std::string& state, eSWGStateUpdate update) {
    boost::recursive_mutex::scoped_lock hold(m_stateLock);
    if (update != SWG_STATE_UPDATE_FORCED) {
        bool backedOff = false;
        {
            boost::recursive_mutex::scoped_lock orgInfo(m_orgInfoLock);
            backedOff = m_bBackedOff;
        }
        if (backedOff) {
            DNTRACE(TRACE, "CSWGAgent: SWG state updates have been disabled in backoff state");
            return -1;
        }
    }
    if (state == kCloudUnavailable) {
        // A run of gateway failures is reported only once it has lasted five seconds.
        const int64_t now = m_stateClock ? m_stateClock() : MonotonicNs();
        if (m_cloudUnavailableSince == 0) {
            DNTRACE(THREAD,
                    "CSWGAgent: Ignoring all 'Cloud Service Unavailable' updates for the next 5s");
            m_cloudUnavailableSince = now;
            return 0;
        }
        if (now - m_cloudUnavailableSince < kCloudQuietNs) {
            DNTRACE(THREAD, "CSWGAgent: Ignoring 'Cloud Service Unavailable' State update");
            return 0;
        }
    }
    m_cloudUnavailableSince = 0;
    return sendStateToUI(state);
}

int CSWGAgent::sendStateToUI(const std::string& state) {
    boost::recursive_mutex::scoped_lock hold(m_stateLock);
    if (state == m_lastSWGState) {
        DNTRACE(THREAD, "CSWGAgent: SWG state is same. No update required");
        return 0;
    }
    CServerSideCommunicator* communicator = nullptr;
    {
        boost::recursive_mutex::scoped_lock orgInfo(m_orgInfoLock);
        communicator = m_pCommunicator;
    }
    // A word that finds no plug-in is not remembered: the next word is compared with the
    // last one a plug-in actually got.
    if (communicator == nullptr || !communicator->IsConnected()) {
        DNTRACE(ERR, "CSWGAgent: IPC is not yet up.");
        return -1;
    }
    const auto word = umapSWGState.find(state);
    std::string stateText;
    std::string reportText;
    if (word == umapSWGState.end()) {
        DNTRACE(ERR, "CSWGAgent: %s", "Invalid SWG state.");
        return -2;
    }
    if (!BuildStateMessageJson(state, stateText) ||
        !BuildStateReportJson(word->second, reportText)) {
        DNTRACE(ERR, "CSWGAgent: %s", "Failed to create cjson object");
        return -2;
    }
    DNTRACE(TRACE, "CSWGAgent: State cjson object is %s", stateText.c_str());
    MSG_QUEUE_MSG stateMessage(COMM_MSG_SWG_STATE, 0, 1, 0);
    (void)stateMessage.SetData(stateText.c_str(), static_cast<unsigned int>(stateText.size() + 1));
    (void)communicator->PostMessage(&stateMessage);
    DNTRACE(TRACE, "CSWGAgent: Report cjson object is %s", reportText.c_str());
    MSG_QUEUE_MSG reportMessage(COMM_MSG_SWG_REPORT, 0, 1, 0);
    (void)reportMessage.SetData(reportText.c_str(),
                                static_cast<unsigned int>(reportText.size() + 1));
    (void)communicator->PostMessage(&reportMessage);
    m_lastSWGState = state;
    return UpdateSWGStateFile();
}

int CSWGAgent::UpdateSWGStateFile() {
    // Also called by the configuration monitor; the lock keeps the word and the file together.
    boost::recursive_mutex::scoped_lock hold(m_stateLock);
    std::string folder;
    if (!GetSWGConfigFolder(folder)) {
        DNTRACE(ERR, "CSWGAgent: Failed to get application data path");
        return -2;
    }
    const std::string path = ConcatenatePath(folder, g_szStateFileName, "/");
    std::string text;
    std::string failure;
    if (!BuildStateFileJson(m_lastSWGState, GetOrgInfo(), text, failure)) {
        DNTRACE(ERR, "%s", failure.c_str());
        return -2;
    }
    if (!ReplaceFile(path, text)) {
        const int error = errno;
        const std::string what = path + " (" + ErrnoText(error) + ")";
        DNTRACE(ERR, "CSWGAgent: Failed to open JSON file for writing: %s", what.c_str());
        return -2;
    }
    DNTRACE(THREAD, "CSWGAgent: SWG state written to %s", path.c_str());
    return 0;
}
