#include "SystemCalls.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>
#if defined(__linux__)
#include <sys/vfs.h>
#else
#include <sys/mount.h>
#include <sys/param.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string_view>

namespace {

// A system call that a signal interrupted is made again.
template <typename Call>
auto Retry(Call call) {
    decltype(call()) iResult;
    do {
        iResult = call();
    } while (iResult == -1 && errno == EINTR);
    return iResult;
}

// Whether a path, links followed, is an ordinary file.  Leaves errno alone.
bool IsRegularFile(const char* pcPath) {
    const int iError = errno;
    struct stat data {};
    const bool bRegular = stat(pcPath, &data) == 0 && S_ISREG(data.st_mode);
    errno = iError;
    return bRegular;
}

// A call that makes a file larger.  At the limit of file sizes (ulimit -f) it fails with EFBIG
// instead of ending the process.  SIGXFSZ is masked and not handled, because the dispositions of a
// process belong to the host that has loaded us.
template <typename Call>
auto Grow(Call call) {
    sigset_t signals;
    sigset_t old;
    sigemptyset(&signals);
    sigaddset(&signals, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &signals, &old);
    const auto iResult = call();
    const int iError = errno;
    if (iResult == -1 && iError == EFBIG && sigismember(&old, SIGXFSZ) == 0) {
        // Unmasked, the signal of this call would be delivered after all.
        const struct timespec noTime {};
        sigtimedwait(&signals, nullptr, &noTime);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = iError;
    return iResult;
}

}  // namespace

// =================================================================================================
// Reports
// =================================================================================================

CSystemCalls::OsError::OsError(bool bOk, int iFile) : m_bOk(bOk) {
    if (bOk) {
        return;
    }
    const int iError = errno;
    m_cText[0] = '\0';
    if (iFile == -1) {
        std::snprintf(m_cText, sizeof(m_cText), "Bad file descriptor");
    } else {
        GetLastErrorText(m_cText, iError);
    }
}

void CSystemCalls::ReportLine::operator()(const char* pcFmt, ...) const {
    const bool bOk = m_Error.IsOk();
    if (!bOk) {
        SetStatus(m_pcStatus, "%s", m_Error.Text());
    }
    if (!(bOk ? m_pRuntimeParam->IsLogFileAccess() : m_pRuntimeParam->IsLogError())) {
        return;
    }
    char cLine[STATUS_SIZE];
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    const int iLen = std::vsnprintf(cLine, sizeof(cLine), pcFmt, vaArgs);
    va_end(vaArgs);
    if (bOk) {
        constexpr int END_SIZE = sizeof(". Error=") - 1;
        cLine[std::clamp(iLen - END_SIZE, 0, static_cast<int>(sizeof(cLine)) - 1)] = '\0';
    }
    m_pSystemCalls->Log(bOk ? LineKind::INFO : LineKind::ERROR, m_pRuntimeParam, cLine);
}

// =================================================================================================
// System calls
// =================================================================================================

int CSystemCalls::OS_FileCreate(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                                char* pcStatus) {
    const int iFile = Retry([&] { return open(pcPath, O_RDWR | O_CREAT | O_CLOEXEC, 0666); });
    const OsError error(iFile != -1);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS create file \"%s\". Error=%s", pLogArgu->pcName,
                                           pcPath, error.Text());
    return iFile;
}

int CSystemCalls::OS_FileRemove(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                                char* pcStatus) {
    const int iResult = remove(pcPath);
    const OsError error(iResult != -1);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS remove file \"%s\". Error=%s", pLogArgu->pcName,
                                           pcPath, error.Text());
    return iResult;
}

int CSystemCalls::OS_FileRename(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                const char* pcPathFrom, const char* pcPathTo, char* pcStatus) {
    const int iResult = rename(pcPathFrom, pcPathTo);
    const OsError error(iResult != -1);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS rename file from \"%s\" to \"%s\". Error=%s",
                                           pLogArgu->pcName, pcPathFrom, pcPathTo, error.Text());
    return iResult;
}

int CSystemCalls::TryOpen(const char* pcPath, int iMode) {
    const int iFile = Retry([&] { return open(pcPath, iMode | O_CLOEXEC); });
    if (iFile == -1 && errno == EWOULDBLOCK && IsRegularFile(pcPath)) {
        // Somebody holds a lease on the file, and has now been told to give it back.
        return Retry([&] { return open(pcPath, (iMode & ~O_NONBLOCK) | O_CLOEXEC); });
    }
    return iFile;
}

void CSystemCalls::ReportOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                              int iFile, char* pcStatus) {
    const OsError error(iFile != -1);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS open file \"%s\". Error=%s", pLogArgu->pcName,
                                           pcPath, error.Text());
}

int CSystemCalls::OS_FileOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                              int iMode, bool bCloseExceededCachedFileHandle, char* pcStatus) {
    int iFile = TryOpen(pcPath, iMode);
    if (iFile == -1 && errno == EMFILE && bCloseExceededCachedFileHandle) {
        CloseExceededCachedFileHandle(pRuntimeParam, pLogArgu);
        iFile = TryOpen(pcPath, iMode);
    }
    ReportOpen(pRuntimeParam, pLogArgu, pcPath, iFile, pcStatus);
    return iFile;
}

int CSystemCalls::OS_FileClose(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                               int iFile, char* pcStatus) {
    // Not retried: after an interrupted close the number may already be somebody else's.
    const int iResult = iFile != -1 ? close(iFile) : -1;
    const OsError error(iResult != -1, iFile);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS close file \"%s\". Error=%s", pLogArgu->pcName,
                                           pcPath, error.Text());
    return iResult;
}

int CSystemCalls::OS_FileRead(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                              void* pvBuf, unsigned int iLen, char* pcStatus) {
    const ssize_t iRead =
        iFile != -1 ? Retry([&] { return read(iFile, pvBuf, iLen); }) : ssize_t{-1};
    const OsError error(iRead != -1, iFile);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS read file (%d). Error=%s", pLogArgu->pcName,
                                           iFile, error.Text());
    return static_cast<int>(iRead);
}

int CSystemCalls::OS_FileWrite(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                               const void* pvBuf, unsigned int iLen, char* pcStatus) {
    const auto writeOnce = [&] { return Grow([&] { return write(iFile, pvBuf, iLen); }); };
    const ssize_t iWritten = iFile != -1 ? Retry(writeOnce) : ssize_t{-1};
    const OsError error(iWritten != -1, iFile);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS write file (%d). Error=%s", pLogArgu->pcName,
                                           iFile, error.Text());
    return static_cast<int>(iWritten);
}

long long CSystemCalls::OS_FileSeek(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                    unsigned long long iSeek, int iSeekType, char* pcStatus) {
    static_assert(sizeof(off_t) == 8);
    const off_t iPos = iFile != -1 ? lseek(iFile, static_cast<off_t>(iSeek), iSeekType) : off_t{-1};
    const OsError error(iPos != -1, iFile);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS seek file (%d). Error=%s", pLogArgu->pcName,
                                           iFile, error.Text());
    return iPos;
}

long long CSystemCalls::OS_FileTell(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                                    char* pcStatus) {
    const off_t iPos = iFile != -1 ? lseek(iFile, 0, SEEK_CUR) : off_t{-1};
    const OsError error(iPos != -1, iFile);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS tell file (%d). Error=%s", pLogArgu->pcName,
                                           iFile, error.Text());
    return iPos;
}

long long CSystemCalls::OS_FileCopyRange([[maybe_unused]] int iFromFile,
                                         [[maybe_unused]] long long iFromPos,
                                         [[maybe_unused]] int iToFile,
                                         [[maybe_unused]] unsigned int iLen) {
#if defined(__linux__) || defined(__FreeBSD__)
    off_t iPos = iFromPos;
    return Grow([&] { return copy_file_range(iFromFile, &iPos, iToFile, nullptr, iLen, 0); });
#else
    return -1;
#endif
}

int CSystemCalls::OS_FolderCreate(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, int iMode, char* pcStatus) {
    const int iResult = mkdir(pcPath, static_cast<mode_t>(iMode));
    const OsError error(iResult != -1);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS create folder \"%s\" (mode = %d). Error=%s",
                                           pLogArgu->pcName, pcPath, iMode, error.Text());
    return iResult;
}

int CSystemCalls::OS_FolderRemove(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, char* pcStatus) {
    const int iResult = rmdir(pcPath);
    const OsError error(iResult != -1);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS remove folder \"%s\". Error=%s",
                                           pLogArgu->pcName, pcPath, error.Text());
    return iResult;
}

int CSystemCalls::OS_SetFileMode(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 const char* pcPath, int iMode, char* pcStatus) {
    const int iResult = chmod(pcPath, static_cast<mode_t>(iMode));
    const OsError error(iResult != -1);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS set file mode \"%s\" (mode = %d). Error=%s",
                                           pLogArgu->pcName, pcPath, iMode, error.Text());
    return iResult;
}

int CSystemCalls::OS_GetFileStat(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 const char* pcPath, struct stat* pData, char* pcStatus) {
    const int iResult = lstat(pcPath, pData);
    const OsError error(iResult != -1);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS get file stat \"%s\". Error=%s",
                                           pLogArgu->pcName, pcPath, error.Text());
    return iResult;
}

bool CSystemCalls::OS_SetFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, unsigned long long iSize, char* pcStatus) {
    const int iFile = Retry([&] { return open(pcPath, O_RDWR | O_CREAT | O_CLOEXEC, 0755); });
    bool bOk = false;
    bool bChanged = true;
    int iError = errno;
    if (iFile != -1) {
        struct stat data {};
        if (fstat(iFile, &data) != -1) {
            bChanged = static_cast<unsigned long long>(data.st_size) != iSize;
            bOk = !bChanged ||
                  Grow([&] { return ftruncate(iFile, static_cast<off_t>(iSize)); }) != -1;
        }
        iError = errno;
        close(iFile);
    }
    if (bOk && !bChanged) {
        return true;
    }
    errno = iError;
    const OsError error(bOk);
    Report(pRuntimeParam, error, pcStatus)("[%s] OS set file file \"%s\". Error=%s",
                                           pLogArgu->pcName, pcPath, error.Text());
    return bOk;
}

int CSystemCalls::OS_FileForceOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcPath, char* pcStatus) {
    std::vector<std::string> vPieces;
    SplitIntoVector(pcPath, '/', &vPieces);
    const bool bLog = pRuntimeParam->IsLogFileAccess();
    if (bLog) {
        LogInfo(pRuntimeParam, "[%s] OS splited path \"%s\" into %d elements", pLogArgu->pcName,
                pcPath, static_cast<int>(vPieces.size()));
    }
    // The first piece is empty (an absolute path) or a folder of the working directory that must
    // be there.
    std::string sFolder = vPieces.empty() ? "" : vPieces.front();
    for (std::size_t i = 1; i + 1 < vPieces.size(); ++i) {
        sFolder += '/' + vPieces[i];
        if (bLog) {
            LogInfo(pRuntimeParam, "[%s] Check folder \"%s\" exists", pLogArgu->pcName,
                    sFolder.c_str());
        }
        if (OS_IsFileExists(sFolder.c_str())) {
            continue;
        }
        if (bLog) {
            LogInfo(pRuntimeParam, "[%s] Create folder \"%s\"", pLogArgu->pcName, sFolder.c_str());
        }
        if (OS_FolderCreate(pRuntimeParam, pLogArgu, sFolder.c_str(), 0755, pcStatus) == -1) {
            return -1;
        }
    }
    if (OS_IsFileExists(pcPath)) {
        return OS_FileOpen(pRuntimeParam, pLogArgu, pcPath, O_RDWR | O_APPEND, true, pcStatus);
    }
    return OS_FileCreate(pRuntimeParam, pLogArgu, pcPath, pcStatus);
}

bool CSystemCalls::OS_IsFileExists(const char* pcPath) {
    struct stat data {};
    return stat(pcPath, &data) == 0;
}

// =================================================================================================
// File-system queries
// =================================================================================================

namespace {

constexpr unsigned long long ALL_ONES = ~0ULL;

// A value of statvfs(3), or all ones.
template <typename Value>
unsigned long long QueryFileSystem(const char* pcPath, Value value) {
    struct statvfs data {};
    return statvfs(pcPath, &data) == 0 ? static_cast<unsigned long long>(value(data)) : ALL_ONES;
}

// Types of file systems whose largest file differs from the usual one.
constexpr unsigned long FS_TYPE_MSDOS = 0x4D44;
constexpr unsigned long FS_TYPE_REISER = 0x52654973;

}  // namespace

unsigned long long CSystemCalls::GetTotalDiskSpace(const char* pcPath) {
    return QueryFileSystem(pcPath, [](const auto& d) { return d.f_blocks * d.f_frsize; });
}

unsigned long long CSystemCalls::GetFreeDiskSpace(const char* pcPath) {
    return QueryFileSystem(pcPath, [](const auto& d) { return d.f_bfree * d.f_frsize; });
}

unsigned long long CSystemCalls::GetFreeDiskSpaceAvailableToCaller(const char* pcPath) {
    return QueryFileSystem(pcPath, [](const auto& d) { return d.f_bavail * d.f_frsize; });
}

unsigned long long CSystemCalls::GetTotalFileSlots(const char* pcPath) {
    return QueryFileSystem(pcPath, [](const auto& d) { return d.f_files; });
}

unsigned long long CSystemCalls::GetFreeFileSlots(const char* pcPath) {
    return QueryFileSystem(pcPath, [](const auto& d) { return d.f_ffree; });
}

unsigned long long CSystemCalls::GetFreeFileSlotsAvailableToCaller(const char* pcPath) {
    // The server creates files with the rights that see every free slot.
    return GetFreeFileSlots(pcPath);
}

unsigned long long CSystemCalls::GetFileSystemID(const char* pcPath) {
    struct statvfs data {};
    return statvfs(pcPath, &data) == 0 ? static_cast<unsigned long long>(data.f_fsid) : 4;
}

unsigned long long CSystemCalls::GetMaxFileSize(const char* pcPath) {
    struct statfs data {};
    if (statfs(pcPath, &data) == 0) {
        const auto lType = static_cast<unsigned long>(data.f_type);
        if (lType == FS_TYPE_MSDOS) {
            return 1ULL << 32;
        }
        if (lType == FS_TYPE_REISER) {
            return 1ULL << 43;
        }
    }
    return 1ULL << 41;
}

unsigned long long CSystemCalls::GetCurrentSystemTimeInMilliseconds() {
    struct timeval now {};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned long long>(now.tv_sec) * 1000 +
           static_cast<unsigned long long>(now.tv_usec) / 1000;
}

void CSystemCalls::GetPrintableFileSize(unsigned long long iValue, char* pcPrintSize) {
    double d = static_cast<double>(iValue) / 1024;
    int iUnit = 0;
    while (d >= 1.0 && iUnit < 6) {
        d /= 1024;
        ++iUnit;
    }
    d *= 1024;
    constexpr std::size_t SIZE = 32;
    switch (iUnit) {
        case 0:
            std::snprintf(pcPrintSize, SIZE, "%.1fB", d);
            break;
        case 1:
            std::snprintf(pcPrintSize, SIZE, "%.1fKB", d);
            break;
        case 2:
            std::snprintf(pcPrintSize, SIZE, "%.1fMB", d);
            break;
        case 3:
            std::snprintf(pcPrintSize, SIZE, "%.1fGB", d);
            break;
        case 4:
            std::snprintf(pcPrintSize, SIZE, "%.1fTB", d);
            break;
        case 5:
            std::snprintf(pcPrintSize, SIZE, "%.1fPB", d);
            break;
        default:
            std::snprintf(pcPrintSize, SIZE, "%.1fEB", d);
            break;
    }
}

void CSystemCalls::SplitIntoVector(const char* pcStr, char cDelimiter,
                                   std::vector<std::string>* pvOutput) {
    const std::string_view text(pcStr != nullptr ? pcStr : "");
    for (std::size_t iBegin = 0; iBegin < text.size();) {
        const std::size_t iEnd = std::min(text.find(cDelimiter, iBegin), text.size());
        pvOutput->emplace_back(text.substr(iBegin, iEnd - iBegin));
        iBegin = iEnd + 1;
    }
}
