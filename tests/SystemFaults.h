// Makes chosen system calls of the calling thread fail. The functions below stand before those of
// the C library for the whole program, so only one source file of a program may include this.
#pragma once

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>

namespace faults {

enum Call {
    CALL_OPEN,
    CALL_CLOSE,
    CALL_READ,
    CALL_PREAD,
    CALL_WRITE,
    CALL_LSEEK,
    CALL_FSTAT,
    CALL_COUNT
};

// The next iTimes calls fail with iError.
struct Plan {
    int iError = 0;
    int iTimes = 0;
};

inline thread_local Plan plans[CALL_COUNT];
inline thread_local int iCalls[CALL_COUNT];    // made since the thread began, failed ones included
inline thread_local std::time_t lTime = 0;     // what time reports; 0: the real time
inline thread_local long lFileSystemType = 0;  // what statfs reports; 0: the real type
// What statvfs reports; null: the real values.
inline thread_local const struct statvfs* pFileSystem = nullptr;

inline void Fail(Call call, int iError, int iTimes = 1) { plans[call] = {iError, iTimes}; }

// Back to the real system at the end of a test.
struct Guard {
    ~Guard() {
        for (Plan& plan : plans) {
            plan = {};
        }
        lTime = 0;
        lFileSystemType = 0;
        pFileSystem = nullptr;
    }
};

inline bool Due(Call call) {
    ++iCalls[call];
    if (plans[call].iTimes == 0) {
        return false;
    }
    --plans[call].iTimes;
    errno = plans[call].iError;
    return true;
}

// The function that would have been called without this file.
template <typename Function>
Function* Next(const char* pcName) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, pcName));
}

}  // namespace faults

extern "C" {

int open(const char* pcPath, int iFlags, ...) {
    static auto* const pNext = faults::Next<int(const char*, int, ...)>("open");
    mode_t iMode = 0;
    if ((iFlags & O_CREAT) != 0) {
        va_list vaArgs;
        va_start(vaArgs, iFlags);
        iMode = va_arg(vaArgs, mode_t);
        va_end(vaArgs);
    }
    return faults::Due(faults::CALL_OPEN) ? -1 : pNext(pcPath, iFlags, iMode);
}

int close(int iFile) {
    static auto* const pNext = faults::Next<int(int)>("close");
    return faults::Due(faults::CALL_CLOSE) ? -1 : pNext(iFile);
}

ssize_t read(int iFile, void* pvBuf, size_t iLen) {
    static auto* const pNext = faults::Next<ssize_t(int, void*, size_t)>("read");
    return faults::Due(faults::CALL_READ) ? -1 : pNext(iFile, pvBuf, iLen);
}

ssize_t pread(int iFile, void* pvBuf, size_t iLen, off_t iPos) {
    static auto* const pNext = faults::Next<ssize_t(int, void*, size_t, off_t)>("pread");
    return faults::Due(faults::CALL_PREAD) ? -1 : pNext(iFile, pvBuf, iLen, iPos);
}

ssize_t write(int iFile, const void* pvBuf, size_t iLen) {
    static auto* const pNext = faults::Next<ssize_t(int, const void*, size_t)>("write");
    return faults::Due(faults::CALL_WRITE) ? -1 : pNext(iFile, pvBuf, iLen);
}

off_t lseek(int iFile, off_t iSeek, int iSeekType) noexcept {
    static auto* const pNext = faults::Next<off_t(int, off_t, int)>("lseek");
    return faults::Due(faults::CALL_LSEEK) ? -1 : pNext(iFile, iSeek, iSeekType);
}

int fstat(int iFile, struct stat* pData) noexcept {
    static auto* const pNext = faults::Next<int(int, struct stat*)>("fstat");
    return faults::Due(faults::CALL_FSTAT) ? -1 : pNext(iFile, pData);
}

int statfs(const char* pcPath, struct statfs* pData) noexcept {
    static auto* const pNext = faults::Next<int(const char*, struct statfs*)>("statfs");
    const int iResult = pNext(pcPath, pData);
    if (faults::lFileSystemType != 0) {
        pData->f_type = faults::lFileSystemType;
    }
    return iResult;
}

int statvfs(const char* pcPath, struct statvfs* pData) noexcept {
    static auto* const pNext = faults::Next<int(const char*, struct statvfs*)>("statvfs");
    if (faults::pFileSystem == nullptr) {
        return pNext(pcPath, pData);
    }
    *pData = *faults::pFileSystem;
    return 0;
}

time_t time(time_t* plTime) noexcept {
    static auto* const pNext = faults::Next<time_t(time_t*)>("time");
    if (faults::lTime == 0) {
        return pNext(plTime);
    }
    if (plTime != nullptr) {
        *plTime = faults::lTime;
    }
    return faults::lTime;
}

}  // extern "C"
