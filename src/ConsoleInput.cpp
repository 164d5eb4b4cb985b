#include "ConsoleInput.h"

#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "ConsoleUtilities.h"

namespace {

constexpr std::size_t MAX_LINE = 4096;  // bytes of a line buffer, its NUL included
constexpr int POLL_MS = 100;

// The settings of a terminal that IsKeyboardHit has changed for a moment.
struct termios g_Settings {};
std::atomic<bool> g_bSettingsChanged{false};

static_assert(std::atomic<bool>::is_always_lock_free, "read by a signal handler");

// In the background the terminal's keys are somebody else's.  A terminal that does not control
// this process has no background.
bool IsInBackground() {
    const pid_t iGroup = tcgetpgrp(STDIN_FILENO);
    return iGroup > 0 && iGroup != getpgrp();
}

// Takes a terminal out of its line mode, in which it gives no single characters, while it lives.
class CharacterMode {
public:
    CharacterMode() {
        m_bTerminal = tcgetattr(STDIN_FILENO, &g_Settings) == 0;
        if (m_bTerminal) {
            struct termios settings = g_Settings;
            settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            g_bSettingsChanged = true;
            tcsetattr(STDIN_FILENO, TCSANOW, &settings);
        }
    }
    ~CharacterMode() {
        // A shell that has taken the terminal over meanwhile has its own settings.
        if (m_bTerminal && !IsInBackground()) {
            tcsetattr(STDIN_FILENO, TCSANOW, &g_Settings);
        }
        g_bSettingsChanged = false;
    }
    CharacterMode(const CharacterMode&) = delete;
    CharacterMode& operator=(const CharacterMode&) = delete;

    bool IsTerminal() const { return m_bTerminal; }

private:
    bool m_bTerminal;
};

constexpr int NEVER = 0;

// After how many looks at an ended standard input the text behind the last newline is a line as it
// stands, or NEVER.
int LooksAtTheEnd() {
    struct stat data {};
    if (fstat(STDIN_FILENO, &data) == -1 || S_ISCHR(data.st_mode)) {
        return NEVER;  // a terminal, whose end-of-file key, or its loss, does not end a line
    }
    // Whoever wrote to a pipe has closed it; a file may be growing, and its writer has some time
    // for the rest of the line.
    return S_ISREG(data.st_mode) ? 10 : 1;
}

// Whether standard input can be read, or has ended, within a time.
bool WaitForInput(int iMs) {
    // Asked with poll, not made non-blocking: other processes share the input's open file.
    struct pollfd input {
        STDIN_FILENO, POLLIN, 0
    };
    return poll(&input, 1, iMs) > 0;
}

}  // namespace

CConsoleInput::CConsoleInput() {
    m_sPending.reserve(2 * MAX_LINE);  // never moved, so never copied
}

void CConsoleInput::Wipe(std::string* psText) {
    explicit_bzero(psText->data(), psText->size());
    psText->clear();
}

void CConsoleInput::RestoreTerminal() {
    if (g_bSettingsChanged) {
        tcsetattr(STDIN_FILENO, TCSANOW, &g_Settings);
    }
}

bool CConsoleInput::IsKeyboardHit() {
    if (!m_sPending.empty()) {
        return true;
    }
    if (IsInBackground()) {
        return false;
    }
    const CharacterMode mode;
    char c = 0;
    if (WaitForInput(0) && read(STDIN_FILENO, &c, 1) == 1 &&
        (c != '\0' || !mode.IsTerminal())) {  // NUL: the end-of-file key, out of the line mode
        m_sPending.push_back(c);
    }
    return !m_sPending.empty();
}

bool CConsoleInput::ReadLine(const std::function<bool()>& isEnd, std::string* psLine) {
    const int iLooksAtTheEnd = LooksAtTheEnd();
    int iLooks = 0;  // at the end, since the last character
    while (!TakeLine(iLooksAtTheEnd != NEVER && iLooks >= iLooksAtTheEnd, psLine)) {
        if (isEnd()) {
            return false;
        }
        if (IsInBackground()) {
            CConsoleUtilities::MsSleep(POLL_MS);
            continue;
        }
        bool bEnded = false;
        if (!WaitForInput(POLL_MS)) {
            continue;
        }
        if (ReadMore(&bEnded)) {
            iLooks = 0;
            continue;
        }
        if (bEnded) {
            ++iLooks;
        }
        if (iLooks != iLooksAtTheEnd) {
            CConsoleUtilities::MsSleep(POLL_MS);  // an ended input is always ready
        }
    }
    return true;
}

bool CConsoleInput::TakeLine(bool bEnd, std::string* psLine) {
    const std::size_t iNewline = m_sPending.find('\n');
    const bool bLine = iNewline < MAX_LINE - 1;
    if (!bLine && !bEnd && m_sPending.size() < MAX_LINE - 1) {
        return false;
    }
    const std::size_t iLen = std::min(bLine ? iNewline : m_sPending.size(), MAX_LINE - 1);
    psLine->assign(m_sPending, 0, iLen);
    std::string sRest(m_sPending, std::min(iLen + (bLine ? 1 : 0), m_sPending.size()));
    Wipe(&m_sPending);
    m_sPending += sRest;
    Wipe(&sRest);
    return true;
}

bool CConsoleInput::ReadMore(bool* pbEnded) {
    char cBuf[MAX_LINE];
    const ssize_t iRead = read(STDIN_FILENO, cBuf, sizeof(cBuf));
    if (iRead > 0) {
        m_sPending.append(cBuf, static_cast<std::size_t>(iRead));
        explicit_bzero(cBuf, static_cast<std::size_t>(iRead));
        return true;
    }
    *pbEnded = iRead == 0 || (errno != EINTR && errno != EAGAIN);
    return false;
}
