#include "ExitSignals.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>

#include "ConsoleInput.h"
#include "ExitCleanup.h"
#include "StandardOutput.h"

namespace {

enum : int {
    END_AT_ONCE,    // end the process
    END_IN_ORDER,   // ask the command loop to end
    END_REQUESTED,  // it was asked: end the process, but for a SIGHUP
};
std::atomic<int> g_iOnSignal{END_AT_ONCE};

static_assert(std::atomic<int>::is_always_lock_free, "a signal handler must not wait for a lock");

// Ends the process as the signal's default effect does, and leaves nothing behind.
[[noreturn]] void EndProcess(int iSignal) {
    CExitCleanup::Run();
    CConsoleInput::RestoreTerminal();
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(iSignal, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, iSignal);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(iSignal);
    _exit(128 + iSignal);  // the first process of a container survives its own signals
}

void OnExitSignal(int iSignal) {
    const int iError = errno;
    int iNow = END_IN_ORDER;
    if (g_iOnSignal.compare_exchange_strong(iNow, END_REQUESTED)) {
        CStandardOutput::EndWaits();
    } else if (iNow != END_REQUESTED || iSignal != SIGHUP) {
        EndProcess(iSignal);
    }  // else a terminal that goes away: its shell may tell of it a second time
    errno = iError;
}

}  // namespace

CExitSignals::CExitSignals() {
    struct sigaction action {};
    action.sa_handler = OnExitSignal;
    action.sa_flags = SA_RESTART;  // the services' threads go on undisturbed
    sigemptyset(&action.sa_mask);
    for (const int iSignal : SIGNALS) {
        sigaddset(&action.sa_mask, iSignal);
    }
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaction(SIGNALS[i], nullptr, &m_Saved[i]);
        if (SIGNALS[i] != SIGHUP || m_Saved[i].sa_handler != SIG_IGN) {
            sigaction(SIGNALS[i], &action, nullptr);
        }
    }
}

CExitSignals::~CExitSignals() {
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaction(SIGNALS[i], &m_Saved[i], nullptr);
    }
}

void CExitSignals::EndInOrder() {
    int iNow = END_AT_ONCE;
    g_iOnSignal.compare_exchange_strong(iNow, END_IN_ORDER);
}

bool CExitSignals::EndAtOnce() {
    int iNow = END_IN_ORDER;
    g_iOnSignal.compare_exchange_strong(iNow, END_AT_ONCE);
    return iNow != END_REQUESTED;
}

bool CExitSignals::IsEndRequested() { return g_iOnSignal == END_REQUESTED; }
