#include "ExitCleanup.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <mutex>

namespace {

constexpr std::size_t MAX_ENTRIES = 16;
constexpr std::size_t MAX_PATH_SIZE = 4096;  // bytes, the NUL included
constexpr int MAX_TRIES = 1000;              // of a folder that another thread still fills

// States of an entry.  The path of a claimed one is never changed again.
enum : int { FREE, BEING_FILLED, FILE_ENTRY, FOLDER_ENTRY, CLAIMED_FILE, CLAIMED_FOLDER };

struct Entry {
    std::atomic<int> iState{FREE};
    char cPath[MAX_PATH_SIZE] = {};
};

Entry g_Entries[MAX_ENTRIES];
std::mutex g_hMutex;  // serialises entering and forgetting; never taken by Run
std::atomic<pid_t> g_iHelper{0};

static_assert(std::atomic<int>::is_always_lock_free, "a signal handler must not wait for a lock");
static_assert(std::atomic<pid_t>::is_always_lock_free, "nor here");

// Makes an entry of one state one of the other; false when it is neither.
bool Claim(Entry* pEntry, int iFrom, int iTo) {
    int iState = iFrom;
    return pEntry->iState.compare_exchange_strong(iState, iTo) || iState == iTo;
}

}  // namespace

void CExitCleanup::AddFile(const char* pcPath) { Add(pcPath, FILE_ENTRY); }

void CExitCleanup::AddFolder(const char* pcPath) { Add(pcPath, FOLDER_ENTRY); }

void CExitCleanup::Add(const char* pcPath, int iState) {
    const std::size_t iSize = std::strlen(pcPath) + 1;
    const std::lock_guard<std::mutex> lock(g_hMutex);
    for (Entry& entry : g_Entries) {
        int iFree = FREE;
        if (iSize <= MAX_PATH_SIZE && entry.iState.compare_exchange_strong(iFree, BEING_FILLED)) {
            std::memcpy(entry.cPath, pcPath, iSize);
            entry.iState = iState;
            return;
        }
    }
}

void CExitCleanup::Forget(const char* pcPath) {
    const std::lock_guard<std::mutex> lock(g_hMutex);
    for (Entry& entry : g_Entries) {
        int iState = entry.iState;
        if ((iState == FILE_ENTRY || iState == FOLDER_ENTRY) &&
            std::strcmp(entry.cPath, pcPath) == 0) {
            entry.iState.compare_exchange_strong(iState, FREE);  // unless it was just claimed
        }
    }
}

void CExitCleanup::SetHelper(pid_t iHelper) { g_iHelper = iHelper; }

void CExitCleanup::Run() {
    const pid_t iHelper = g_iHelper;
    if (iHelper > 0) {
        kill(-iHelper, SIGKILL);
    }
    const auto removeFiles = [] {
        for (Entry& entry : g_Entries) {
            if (Claim(&entry, FILE_ENTRY, CLAIMED_FILE)) {
                unlink(entry.cPath);
            }
        }
    };
    removeFiles();
    for (Entry& entry : g_Entries) {
        if (!Claim(&entry, FOLDER_ENTRY, CLAIMED_FOLDER)) {
            continue;
        }
        for (int i = 0;
             i < MAX_TRIES && rmdir(entry.cPath) == -1 && (errno == ENOTEMPTY || errno == EEXIST);
             ++i) {
            removeFiles();
        }
    }
}
