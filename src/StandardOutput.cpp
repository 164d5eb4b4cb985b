#include "StandardOutput.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <mutex>
#include <vector>

namespace {

constexpr int STEP_MS = 50;
constexpr int GRACE_MS = 1000;

std::mutex g_hMutex;
std::atomic<int> g_iGraceMs{GRACE_MS};  // what is left of it
std::atomic<bool> g_bEndWaits{false};
std::atomic<int> g_iStops{0};  // services that stop

static_assert(std::atomic<bool>::is_always_lock_free, "set by a signal handler");

// The terminal that standard output is, opened once more so that writing never waits: a terminal
// that is ready may still have less room than is written.  The first description is shared with
// other processes and stays as it is.  guarded by g_hMutex
int g_iTerminal = -1;
dev_t g_iTerminalDevice = 0;

// The descriptor to write to.  REQUIRES: g_hMutex held.
int GetOutput() {
    if (isatty(STDOUT_FILENO) == 0) {
        return STDOUT_FILENO;
    }
    struct stat data {};
    if (g_iTerminal != -1 && fstat(STDOUT_FILENO, &data) == 0 &&
        data.st_rdev == g_iTerminalDevice) {
        return g_iTerminal;
    }
    char cName[256] = "";
    if (ttyname_r(STDOUT_FILENO, cName, sizeof(cName)) != 0 || fstat(STDOUT_FILENO, &data) != 0) {
        return STDOUT_FILENO;
    }
    const int fd = open(cName, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd == -1) {
        return STDOUT_FILENO;
    }
    if (g_iTerminal != -1) {
        close(g_iTerminal);
    }
    g_iTerminal = fd;
    g_iTerminalDevice = data.st_rdev;
    return fd;
}

// After a step of waiting: whether to go on.  REQUIRES: g_hMutex held.
bool MayWaitOn() { return !((g_bEndWaits || g_iStops > 0) && (g_iGraceMs -= STEP_MS) <= 0); }

// REQUIRES: g_hMutex held.  False when the output takes nothing any more.
bool WaitForRoom(int iOutput) {
    struct pollfd output {
        iOutput, POLLOUT, 0
    };
    for (;;) {
        const int iReady = poll(&output, 1, g_iGraceMs > 0 ? STEP_MS : 0);
        if (iReady > 0) {
            return true;
        }
        if ((iReady == -1 && errno != EINTR) || !MayWaitOn()) {
            return false;
        }
    }
}

}  // namespace

void CStandardOutput::EndWaits() { g_bEndWaits = true; }

CStandardOutput::ServiceStop::ServiceStop() { ++g_iStops; }

CStandardOutput::ServiceStop::~ServiceStop() {
    if (--g_iStops == 0 && !g_bEndWaits) {
        g_iGraceMs = GRACE_MS;
    }
}

void CStandardOutput::Print(const char* pcFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    PrintArgs(pcFmt, vaArgs);
    va_end(vaArgs);
}

void CStandardOutput::PrintArgs(const char* pcFmt, va_list vaArgs) {
    va_list vaAgain;
    va_copy(vaAgain, vaArgs);
    char cText[4096];  // a log line always fits, so that it never needs memory
    const int iLen = std::vsnprintf(cText, sizeof(cText), pcFmt, vaArgs);
    if (iLen >= static_cast<int>(sizeof(cText))) {
        std::vector<char> vText(static_cast<std::size_t>(iLen) + 1);
        std::vsnprintf(vText.data(), vText.size(), pcFmt, vaAgain);
        Write(vText.data(), static_cast<std::size_t>(iLen));
    } else if (iLen > 0) {
        Write(cText, static_cast<std::size_t>(iLen));
    }
    va_end(vaAgain);
}

void CStandardOutput::Write(const char* pcText, std::size_t iLen) {
    const std::lock_guard<std::mutex> lock(g_hMutex);
    const int iOutput = GetOutput();
    while (iLen > 0) {
        if (!WaitForRoom(iOutput)) {
            return;
        }
        // A pipe that is ready takes this many bytes at once.
        const ssize_t iWritten =
            write(iOutput, pcText, std::min(iLen, static_cast<std::size_t>(PIPE_BUF)));
        if (iWritten == -1 && errno == EAGAIN) {
            // A terminal may be called ready and take nothing.
            poll(nullptr, 0, g_iGraceMs > 0 ? STEP_MS : 0);
            if (!MayWaitOn()) {
                return;
            }
        } else if (iWritten == -1 && errno != EINTR) {
            return;  // the reader is gone
        }
        if (iWritten > 0) {
            pcText += iWritten;
            iLen -= static_cast<std::size_t>(iWritten);
        }
    }
}
