#include "Utilities.h"

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
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <string_view>
#include <type_traits>

#include "HeldLines.h"
#include "PlatformTest.h"
#include "RedirectedFile.h"
#include "VSphereWebController.h"

namespace {

// A null text counts as an empty one.
const char* Text(const char* pc) { return pc != nullptr ? pc : ""; }

// Copies a text into a buffer of PATH_SIZE bytes, cut to fit.
void CopyPath(char* pcDst, const char* pcSrc) {
    const std::size_t iLen = std::min(std::strlen(pcSrc), PATH_SIZE - 1);
    std::memcpy(pcDst, pcSrc, iLen);
    pcDst[iLen] = '\0';
}

bool StartsWith(const char* pcText, const char* pcPrefix) {
    return std::strncmp(pcText, pcPrefix, std::strlen(pcPrefix)) == 0;
}

bool IsFolder(const char* pcPath) {
    struct stat data {};
    return stat(pcPath, &data) == 0 && S_ISDIR(data.st_mode);
}

}  // namespace

// =================================================================================================
// Object and reset
// =================================================================================================

CUtilities::CUtilities() : m_pFileTable(std::make_unique<CFileTable>()) {}

CUtilities::~CUtilities() {
    for (const auto& [sPath, pFile] : m_mRedirectedFiles) {
        pFile->Abandon();
    }
}

void CUtilities::RefuseWaits() {}

void CUtilities::AllowWaits() {}

void CUtilities::Reset(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    RemoveAllMountInfo();
    RemoveAllSessionInfo();
    CloseAllCachedFileHandles(pRuntimeParam, pLogArgu);
    CloseAllRedirectedFiles(pRuntimeParam);
}

void CUtilities::GetCanonicalPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, char* pcDst,
                                  const char* pcSrc) {
    static_assert(PATH_SIZE >= 4096);  // what realpath(3) may write
    if (realpath(pcSrc, pcDst) != nullptr) {
        if (pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "[%s] Get canonical path successfully: %s", pLogArgu->pcName,
                    pcDst);
        }
        return;
    }
    CopyPath(pcDst, pcSrc);
    if (pRuntimeParam->IsLogGeneralInfo()) {
        LogInfo(pRuntimeParam, "[%s] Fail to get canonical path from non-exist path: %s",
                pLogArgu->pcName, pcSrc);
    }
}

void CUtilities::SetPathToCompare(char* pcPath) {
    const std::size_t iLen = std::strlen(pcPath);
    if (iLen > 0 && pcPath[iLen - 1] != '/' && iLen + 1 < PATH_SIZE) {
        pcPath[iLen] = '/';
        pcPath[iLen + 1] = '\0';
    }
}

// =================================================================================================
// Exports
// =================================================================================================

bool CUtilities::AddMountInfo(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                              const char* pcLocalMountPath, const char* pcExportName,
                              const char* pcIpcID, char* pcStatus) {
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, Text(pcLocalMountPath));
    const std::string sExportName = Text(pcExportName);
    if (IsMountInfoExists(pRuntimeParam, pLogArgu, cPath, sExportName.c_str(), pcStatus)) {
        return false;
    }
    const std::size_t iInvalid = sExportName.find_first_of("/ ");
    if (iInvalid != std::string::npos) {
        SetStatus(pcStatus, "Invalid char \"%c\" inside export name", sExportName[iInvalid]);
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    m_MountInfos[sExportName] = MountInfo{cPath, sExportName, Text(pcIpcID), ""};
    return true;
}

bool CUtilities::IsMountInfoExists(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcLocalMountPath, const char* pcExportName,
                                   char* pcStatus) {
    const CHeldLines lines(this);
    const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    if (pcExportName != nullptr && m_MountInfos.count(pcExportName) != 0) {
        SetStatus(pcStatus, "Export name \"%s\" already defined", pcExportName);
        return true;
    }
    if (pcLocalMountPath == nullptr) {
        return false;
    }
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, pcLocalMountPath);
    const bool bExists =
        std::any_of(m_MountInfos.begin(), m_MountInfos.end(),
                    [&](const auto& entry) { return entry.second.sLocalMountPath == cPath; });
    if (bExists) {
        SetStatus(pcStatus, "Local mount path \"%s\" already defined", cPath);
    }
    return bExists;
}

bool CUtilities::UpdateMountClientIpAddrByExportName(const char* pcExportName,
                                                     const char* pcRemoteAddr,
                                                     MountInfo* pMountInfo, char* pcStatus) {
    const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    const auto it = m_MountInfos.find(Text(pcExportName));
    if (it == m_MountInfos.end()) {
        SetStatus(pcStatus, "Undefined export name \"%s\"", Text(pcExportName));
        return false;
    }
    MountInfo& info = it->second;
    if (pcRemoteAddr != nullptr && !info.sRemoteIpAddr.empty()) {
        SetStatus(pcStatus, "This mount point \"%s\" already mounted by %s", pcExportName,
                  info.sRemoteIpAddr.c_str());
        return false;
    }
    info.sRemoteIpAddr = Text(pcRemoteAddr);
    if (pMountInfo != nullptr) {
        *pMountInfo = info;
    }
    return true;
}

bool CUtilities::GetMountInfoByPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcPath, MountInfo* pMountInfo) {
    char cTarget[PATH_SIZE];
    CopyPath(cTarget, Text(pcPath));
    SetPathToCompare(cTarget);

    const CHeldLines lines(this);
    const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    for (const auto& [sName, info] : m_MountInfos) {
        const char* pcLocal = info.sLocalMountPath.c_str();
        if (pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "[%s] Path scan: \"%s\" vs \"%s\"", pLogArgu->pcName, cTarget,
                    pcLocal);
        }
        if (!StartsWith(cTarget, pcLocal)) {
            continue;
        }
        char cExport[PATH_SIZE];
        CopyPath(cExport, pcLocal);
        SetPathToCompare(cExport);
        if (pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "[%s] Path compare: \"%s\" vs \"%s\"", pLogArgu->pcName, cTarget,
                    cExport);
        }
        if (!StartsWith(cTarget, cExport)) {
            continue;
        }
        if (pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "[%s] Path match", pLogArgu->pcName);
        }
        if (pMountInfo != nullptr) {
            *pMountInfo = info;
        }
        return true;
    }
    return false;
}

void CUtilities::RemoveMountInfoByLocalMountPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                                 const char* pcLocalMountPath) {
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, Text(pcLocalMountPath));
    const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    const auto it = std::find_if(m_MountInfos.begin(), m_MountInfos.end(), [&](const auto& entry) {
        return entry.second.sLocalMountPath == cPath;
    });
    if (it != m_MountInfos.end()) {
        m_MountInfos.erase(it);
    }
    if (m_MountInfos.empty()) {
        ResetFileTable();
    }
}

void CUtilities::RemoveMountInfoByExportName(const char* pcExportName) {
    const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    m_MountInfos.erase(Text(pcExportName));
    if (m_MountInfos.empty()) {
        ResetFileTable();
    }
}

void CUtilities::RemoveAllMountInfo() {
    const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    m_MountInfos.clear();
    ResetFileTable();
}

bool CUtilities::IsRemoteAddrExists(const char* pcRemoteAddr) {
    const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
    return std::any_of(m_MountInfos.begin(), m_MountInfos.end(), [&](const auto& entry) {
        return entry.second.sRemoteIpAddr == Text(pcRemoteAddr);
    });
}

int CUtilities::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                             bool bPrintDetails) {
    std::vector<MountInfo> vRows;
    int iCount = 0;
    {
        const std::lock_guard<std::mutex> lock(m_hMutexMountInfos);
        for (const auto& [sName, info] : m_MountInfos) {
            if (bClientMountedOnly && info.sRemoteIpAddr.empty()) {
                continue;
            }
            ++iCount;
            if (bPrintDetails) {
                vRows.push_back(info);
            }
        }
    }
    int iRow = 0;
    for (const MountInfo& info : vRows) {
        LogRaw(pRuntimeParam, " mount%d - %s : %s (%s) [%s]", ++iRow, info.sLocalMountPath.c_str(),
               info.sExportName.c_str(), info.sRemoteIpAddr.c_str(), info.sIcpID.c_str());
    }
    return iCount;
}

// =================================================================================================
// Sessions
// =================================================================================================

void CUtilities::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    const std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    m_SessionInfos[Text(pcSessionID)] = SessionInfo{Text(pcSessionID), Text(pcLocalMountPath)};
}

void CUtilities::RemoveSessionInfo(const char* pcSessionID) {
    const std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    m_SessionInfos.erase(Text(pcSessionID));
}

void CUtilities::RemoveSessionInfoByLocalMountPath(const char* pcLocalMountPath) {
    const std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    std::erase_if(m_SessionInfos, [&](const auto& entry) {
        return entry.second.sLocalMountPath == Text(pcLocalMountPath);
    });
}

void CUtilities::RemoveAllSessionInfo() {
    const std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    m_SessionInfos.clear();
}

bool CUtilities::IsSessionExists(const char* pcSessionID) {
    const std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
    return m_SessionInfos.count(Text(pcSessionID)) != 0;
}

int CUtilities::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    std::vector<SessionInfo> vRows;
    int iCount = 0;
    {
        const std::lock_guard<std::mutex> lock(m_hMutexSessionInfos);
        for (const auto& [sID, info] : m_SessionInfos) {
            ++iCount;
            if (bPrintDetails) {
                vRows.push_back(info);
            }
        }
    }
    int iRow = 0;
    for (const SessionInfo& info : vRows) {
        LogRaw(pRuntimeParam, " session%d - %s : %s", ++iRow, info.sSessionID.c_str(),
               info.sLocalMountPath.c_str());
    }
    return iCount;
}

// =================================================================================================
// File table
// =================================================================================================

std::uint32_t CUtilities::GetFileID(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcPath) {
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, Text(pcPath));
    const std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    if (m_pFileTable == nullptr) {
        return FILE_ID_NONE;
    }
    return m_pFileTable->GetIDByPath(cPath,
                                     m_pFileTable->HasLeftBehind(cPath) && OS_IsFileExists(cPath));
}

bool CUtilities::GetFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                               unsigned char* pcHandle, int iBufSize) {
    if (pcHandle == nullptr) {
        return false;
    }
    if (iBufSize > 0) {
        std::memset(pcHandle, 0, static_cast<std::size_t>(iBufSize));
    }
    if (iBufSize <= 4) {
        return false;
    }
    const std::uint32_t iID = GetFileID(pRuntimeParam, pLogArgu, pcPath);
    for (unsigned i = 0; i < 4; ++i) {
        pcHandle[i] = static_cast<unsigned char>(iID >> (8 * i));
    }
    return iID != FILE_ID_NONE;
}

bool CUtilities::GetFilePath(CRuntimeParam* /*pRuntimeParam*/, const unsigned char* pcHandle,
                             char* pcPath, int iBufSize) {
    if (pcHandle == nullptr) {
        return false;
    }
    std::uint32_t iID = 0;
    for (unsigned i = 0; i < 4; ++i) {
        iID |= static_cast<std::uint32_t>(pcHandle[i]) << (8 * i);
    }
    if (iID == FILE_ID_NONE) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    if (m_pFileTable == nullptr || !m_pFileTable->GetPathByID(iID, pcPath, iBufSize)) {
        return false;
    }
    // What lies at the path of a row that was left behind is not what the client means.
    return pcPath == nullptr || !m_pFileTable->IsLeftBehind(iID) || !OS_IsFileExists(pcPath);
}

void CUtilities::ResetFileTable() {
    const std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    if (m_pFileTable != nullptr) {
        m_pFileTable->Clear();
    }
}

// =================================================================================================
// File access by path
// =================================================================================================

long long CUtilities::GetFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, long long iSize) {
    if (const auto pRedirected = GetRedirectedFile(pcPath)) {
        return pRedirected->GetFileSize();
    }
    const CHeldLines lines(this);
    const CachedFile file = UseCachedFile(pRuntimeParam, pLogArgu, pcPath, false);
    std::unique_lock<std::mutex> lock;
    if (file.pUse != nullptr) {
        lock = std::unique_lock<std::mutex>(file.pUse->m_hMutex);
    }
    const long long iEnd = OS_FileSeek(pRuntimeParam, pLogArgu, file.iFile, 0, SEEK_END, nullptr);
    return iEnd >= 0 ? iEnd : iSize;
}

bool CUtilities::NewFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath) {
    if (!OS_IsFileExists(pcPath)) {
        // Still open from a file that was removed behind our back.
        CloseOutdatedFileHandles(pRuntimeParam, pLogArgu, pcPath, false);
    }
    const int iFile = OS_FileCreate(pRuntimeParam, pLogArgu, pcPath, nullptr);
    if (iFile == -1) {
        return false;
    }
    OS_FileClose(pRuntimeParam, pLogArgu, pcPath, iFile, nullptr);
    return true;
}

bool CUtilities::UpdateFileAttributes(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                      const char* pcPath, bool bMode, unsigned int iMode, bool bUid,
                                      unsigned int iUid, bool bGid, unsigned int iGid, bool bSize,
                                      unsigned long long lSize, bool bAccessTime,
                                      std::uint32_t lAccessTimeSec,
                                      std::uint32_t lAccessTimeNanoSec, bool bLastModifiedTime,
                                      std::uint32_t lLastModifiedTimeSec,
                                      std::uint32_t lLastModifiedTimeNanoSec) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam,
                "[%s] Update file attributes, path=%s, set_mode=%d, mode=%u, set_uid=%d, uid=%u, "
                "set_gid=%d, gid=%u, set_size=%d, size=%llu, set_atime=%d, atime.sec=%u, "
                "atime.nsec=%u, set_mtime=%d, mtime.sec=%u, mtime.nsec=%u",
                pLogArgu->pcName, pcPath, bMode, iMode, bUid, iUid, bGid, iGid, bSize, lSize,
                bAccessTime, lAccessTimeSec, lAccessTimeNanoSec, bLastModifiedTime,
                lLastModifiedTimeSec, lLastModifiedTimeNanoSec);
    }
    if (!(bMode || bUid || bGid || bSize || bAccessTime || bLastModifiedTime)) {
        return true;
    }
    if (GetRedirectedFile(pcPath) != nullptr) {
        LogUpdateRedirectedFileAttributes(pRuntimeParam, pcPath, bSize, lSize, bAccessTime,
                                          lAccessTimeSec, bLastModifiedTime, lLastModifiedTimeSec);
        return true;  // the content has no place where an attribute could fail to be set
    }
    if (bMode || bSize) {
        CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
    }
    if (bMode &&
        OS_SetFileMode(pRuntimeParam, pLogArgu, pcPath, static_cast<int>(iMode), nullptr) == -1) {
        return false;
    }
    return !bSize || OS_SetFileSize(pRuntimeParam, pLogArgu, pcPath, lSize, nullptr);
}

bool CUtilities::RenameFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pathFrom,
                            const char* pathTo) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Rename file, pathFrom=%s, pathTo=%s", pLogArgu->pcName,
                pathFrom, pathTo);
    }
    if (std::strcmp(pathFrom, pathTo) == 0) {
        return true;  // removing the target first would destroy the file
    }
    if (OS_IsFileExists(pathTo) && !IsImpossibleRename(pathFrom, pathTo) &&
        !RemoveFile(pRuntimeParam, pLogArgu, pathTo)) {
        return false;
    }
    const bool bExists = OS_IsFileExists(pathFrom);
    const bool bFolder = bExists && IsFolder(pathFrom);
    if (bExists) {
        CloseCachedFileHandle(pRuntimeParam, pLogArgu, pathFrom);
        if (bFolder) {
            CloseOutdatedFileHandles(pRuntimeParam, pLogArgu, pathFrom, true);
        }
        if (OS_FileRename(pRuntimeParam, pLogArgu, pathFrom, pathTo, nullptr) == -1) {
            return false;
        }
        // Another thread may have opened the old path once more; the new one may still be open from
        // a file that was removed behind our back.
        CloseOutdatedFileHandles(pRuntimeParam, pLogArgu, pathFrom, bFolder);
        CloseOutdatedFileHandles(pRuntimeParam, pLogArgu, pathTo, bFolder);
    }
    bool bAccepted = true;
    if (GetRedirectedFile(pathFrom) != nullptr) {
        RenameRedirectedFile(pRuntimeParam, pathFrom, pathTo);
        bAccepted = LogRenameRedirectedFile(pRuntimeParam, pathFrom, pathTo) == 0;
    }
    if (bFolder) {
        RenameRedirectedFilesBelow(pRuntimeParam, pathFrom, pathTo);
    }
    const std::lock_guard<std::mutex> lock(m_hMutexFileTable);
    if (m_pFileTable == nullptr) {
        return bAccepted;
    }
    bool bRow = false;
    // All rows of the path: a client that holds one that stayed would mean the next file there.
    while (bAccepted && m_pFileTable->UpdateItemPath(pathFrom, pathTo, bExists)) {
        bRow = true;
    }
    if (bExists) {
        m_pFileTable->LeaveBehind(pathFrom, pathTo, bFolder);
    }
    return bRow;
}

bool CUtilities::IsImpossibleRename(const char* pathFrom, const char* pathTo) {
    const std::string sFrom(pathFrom);
    const std::string sTo(pathTo);
    if (!OS_IsFileExists(pathFrom)) {
        return false;  // nothing is renamed
    }
    if (sTo.starts_with(sFrom + '/')) {
        return true;  // a folder into itself
    }
    const auto getDevice = [](const std::string& sPath, dev_t* piDevice) {
        const std::size_t iSlash = sPath.rfind('/');
        const std::string sFolder = iSlash == std::string::npos ? "."
                                    : iSlash == 0               ? "/"
                                                                : sPath.substr(0, iSlash);
        struct stat data {};
        const bool bOk = stat(sFolder.c_str(), &data) == 0;
        *piDevice = data.st_dev;
        return bOk;
    };
    dev_t iFrom = 0;
    dev_t iTo = 0;
    return getDevice(sFrom, &iFrom) && getDevice(sTo, &iTo) && iFrom != iTo;
}

bool CUtilities::RemoveFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Remove file, path=%s", pLogArgu->pcName, pcPath);
    }
    CloseCachedFileHandle(pRuntimeParam, pLogArgu, pcPath);
    if (OS_FileRemove(pRuntimeParam, pLogArgu, pcPath, nullptr) == -1) {
        return false;
    }
    if (GetRedirectedFile(pcPath) == nullptr) {
        return true;
    }
    CloseRedirectedFile(pRuntimeParam, pcPath);
    return LogRemoveRedirectedFile(pRuntimeParam, pcPath) == 0;
}

int CUtilities::ReadFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                         unsigned long long iSeek, int iSeekType, void* pvBuf, unsigned int iLen,
                         bool* pbEof) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Read file, path=%s, iSeek=%llu, iSeekType=%d, length=%u",
                pLogArgu->pcName, pcPath, iSeek, iSeekType, iLen);
    }
    const CHeldLines lines(this);
    *pbEof = true;
    if (const RedirectedFileUse redirected = UseRedirectedFile(pcPath); redirected.pFile) {
        return redirected.pFile->Read(pRuntimeParam, iSeek, pvBuf, iLen, pbEof);
    }
    const CachedFile file = UseCachedFile(pRuntimeParam, pLogArgu, pcPath, false);
    if (file.iFile == -1) {
        return -1;
    }
    const std::lock_guard<std::mutex> lock(file.pUse->m_hMutex);
    if (OS_FileSeek(pRuntimeParam, pLogArgu, file.iFile, iSeek, iSeekType, nullptr) == -1) {
        // A place that no file can have lies behind the end of this one.  Anywhere else the bytes
        // at another place would be the wrong ones.
        return iSeekType == SEEK_SET && file.pUse->IsRegularFile() ? 0 : -1;
    }
    const int iRead = OS_FileRead(pRuntimeParam, pLogArgu, file.iFile, pvBuf, iLen, nullptr);
    const long long iPos = OS_FileTell(pRuntimeParam, pLogArgu, file.iFile, nullptr);
    const long long iEnd = OS_FileSeek(pRuntimeParam, pLogArgu, file.iFile, 0, SEEK_END, nullptr);
    *pbEof = iPos >= iEnd;
    return iRead;
}

int CUtilities::WriteFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                          unsigned long long iSeek, int iSeekType, const void* pvBuf,
                          unsigned int iLen) {
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Write file, path=%s, iSeek=%llu, iSeekType=%d, length=%u",
                pLogArgu->pcName, pcPath, iSeek, iSeekType, iLen);
    }
    if (GetRedirectedFile(pcPath) != nullptr) {
        return LogWriteRedirectedFile(pRuntimeParam, pcPath, iSeek, iSeekType, iLen);
    }
    const CHeldLines lines(this);
    const CachedFile file = UseCachedFile(pRuntimeParam, pLogArgu, pcPath, false);
    if (file.iFile == -1) {
        return -1;
    }
    const std::lock_guard<std::mutex> lock(file.pUse->m_hMutex);
    if (OS_FileSeek(pRuntimeParam, pLogArgu, file.iFile, iSeek, iSeekType, nullptr) == -1) {
        return -1;
    }
    return OS_FileWrite(pRuntimeParam, pLogArgu, file.iFile, pvBuf, iLen, nullptr);
}

// =================================================================================================
// Descriptor cache
// =================================================================================================

namespace {

constexpr std::size_t MAX_CACHED_FILES = 1023;  // more than that sheds the oldest tenth

// Orders the entries by last access, in seconds; within one second the descriptor's digits decide.
std::string MakeTimeKey(int iFile) {
    char cKey[48];
    std::snprintf(cKey, sizeof(cKey), "%016llu%d",
                  static_cast<unsigned long long>(std::time(nullptr)), iFile);
    return cKey;
}

}  // namespace

CDescriptorUse::CDescriptorUse(int iFile) {
    struct stat data {};
    if (fstat(iFile, &data) == 0) {
        m_bRegular = S_ISREG(data.st_mode);
        m_iDevice = data.st_dev;
        m_iNode = data.st_ino;
    }
}

bool CDescriptorUse::IsOtherRegularFile(const CDescriptorUse& other) const {
    return m_bRegular && other.m_bRegular &&
           (m_iDevice != other.m_iDevice || m_iNode != other.m_iNode);
}

CDescriptorUse::~CDescriptorUse() {
    if (m_iCloseLater != -1) {
        close(m_iCloseLater);
    }
}

int CUtilities::GetCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcPath, bool bAlwaysReadWrite) {
    return UseCachedFile(pRuntimeParam, pLogArgu, pcPath, bAlwaysReadWrite).iFile;
}

CachedFile CUtilities::UseCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                     const char* pcPath, bool bAlwaysReadWrite) {
    if (pcPath == nullptr || *pcPath == '\0') {
        return {};
    }
    const std::string sPath(pcPath);
    const CHeldLines lines(this);
    const std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    OpenedFileInfo info;
    const auto it = m_OpenedFileHandles.find(sPath);
    if (it != m_OpenedFileHandles.end()) {
        info = it->second;
    }
    if (info.iFile == -1) {
        if (m_OpenedFileHandles.size() > MAX_CACHED_FILES) {
            CloseExceededCachedFileHandle(pRuntimeParam, pLogArgu);
        }
        const bool bReadWrite =
            bAlwaysReadWrite || GetMountInfoByPath(pRuntimeParam, pLogArgu, pcPath, nullptr);
        if (pRuntimeParam->IsLogFileAccess()) {
            LogInfo(pRuntimeParam, "[%s] open %s mode %s", pLogArgu->pcName,
                    bReadWrite ? "read/write" : "read only", pcPath);
        }
        info.iFile = OS_FileOpen(pRuntimeParam, pLogArgu, pcPath,
                                 (bReadWrite ? O_RDWR : O_RDONLY) | O_NONBLOCK, true, nullptr);
        info.sPath = sPath;
        if (info.iFile != -1) {
            info.pUse = std::make_shared<CDescriptorUse>(info.iFile);
        }
    }
    // A failed open is entered too: the next request tries again, and eviction forgets it.
    m_OpenedFileLastAccessList.erase(info.sTimeKey);
    info.sTimeKey = MakeTimeKey(info.iFile);
    m_OpenedFileLastAccessList[info.sTimeKey] = sPath;
    m_OpenedFileHandles[sPath] = info;
    return {info.iFile, info.pUse};
}

void CUtilities::CloseOpenedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 OpenedFileInfo* pInfo) {
    if (pInfo->pUse != nullptr && pInfo->pUse.use_count() > 1) {
        // A request on another thread still reads or writes: the descriptor must not become
        // another file's under its hands.
        pInfo->pUse->m_iCloseLater = pInfo->iFile;
        pInfo->pUse.reset();
        if (pRuntimeParam->IsLogFileAccess()) {
            LogInfo(pRuntimeParam, "[%s] OS close file \"%s\"", pLogArgu->pcName,
                    pInfo->sPath.c_str());
        }
        return;
    }
    std::unique_lock<std::mutex> lock;
    if (pInfo->pUse != nullptr) {
        // Nobody holds it any more; taking it orders the last user's transfer before the close.
        lock = std::unique_lock<std::mutex>(pInfo->pUse->m_hMutex, std::try_to_lock);
    }
    OS_FileClose(pRuntimeParam, pLogArgu, pInfo->sPath.c_str(), pInfo->iFile, nullptr);
}

void CUtilities::CloseEveryOpenedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    for (auto& [sPath, info] : m_OpenedFileHandles) {
        CloseOpenedFile(pRuntimeParam, pLogArgu, &info);
    }
    m_OpenedFileHandles.clear();
    m_OpenedFileLastAccessList.clear();
}

void CUtilities::CloseOutdatedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                          const char* pcPath, bool bBelow) {
    const CHeldLines lines(this);
    const std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    const auto close = [&](auto it) {
        if (it->second.iFile == -1) {
            return std::next(it);
        }
        m_OpenedFileLastAccessList.erase(it->second.sTimeKey);
        CloseOpenedFile(pRuntimeParam, pLogArgu, &it->second);
        return m_OpenedFileHandles.erase(it);
    };
    const auto itSelf = m_OpenedFileHandles.find(pcPath);
    if (itSelf != m_OpenedFileHandles.end()) {
        close(itSelf);
    }
    if (!bBelow) {
        return;
    }
    char cFolder[PATH_SIZE];
    CopyPath(cFolder, pcPath);
    SetPathToCompare(cFolder);
    for (auto it = m_OpenedFileHandles.lower_bound(cFolder);
         it != m_OpenedFileHandles.end() && StartsWith(it->first.c_str(), cFolder);) {
        it = close(it);
    }
}

void CUtilities::CloseCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                       const char* pcPath) {
    if (pcPath == nullptr || *pcPath == '\0') {
        return;
    }
    const CHeldLines lines(this);
    const std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    const auto it = m_OpenedFileHandles.find(pcPath);
    if (it == m_OpenedFileHandles.end()) {
        return;
    }
    m_OpenedFileLastAccessList.erase(it->second.sTimeKey);
    CloseOpenedFile(pRuntimeParam, pLogArgu, &it->second);
    m_OpenedFileHandles.erase(it);
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                           const char* pcPath) {
    if (pcPath == nullptr || *pcPath == '\0') {
        return;
    }
    char cFolder[PATH_SIZE];
    CopyPath(cFolder, pcPath);
    SetPathToCompare(cFolder);
    const CHeldLines lines(this);
    const std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    for (auto it = m_OpenedFileHandles.begin(); it != m_OpenedFileHandles.end();) {
        char cEntry[PATH_SIZE];
        CopyPath(cEntry, it->first.c_str());
        SetPathToCompare(cEntry);
        if (pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "[CloseAllCachedFileHandles] Path compare: \"%s\" vs \"%s\"",
                    cFolder, cEntry);
        }
        if (!StartsWith(cEntry, cFolder)) {
            ++it;
            continue;
        }
        m_OpenedFileLastAccessList.erase(it->second.sTimeKey);
        CloseOpenedFile(pRuntimeParam, pLogArgu, &it->second);
        m_OpenedFileHandles.erase(it);
        it = m_OpenedFileHandles.begin();  // every walk is logged from the first entry
    }
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    const CHeldLines lines(this);
    const std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    CloseEveryOpenedFile(pRuntimeParam, pLogArgu);
}

void CUtilities::CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    const CHeldLines lines(this);
    const std::lock_guard<std::recursive_mutex> lock(m_hMutexOpenedFileHandles);
    std::size_t n = m_OpenedFileHandles.size() / 10;
    if (n == 0) {
        if (pRuntimeParam->IsLogFileAccess()) {
            LogInfo(pRuntimeParam, "[%s] Close exceeded cached file handle: ALL", pLogArgu->pcName);
        }
        CloseEveryOpenedFile(pRuntimeParam, pLogArgu);
        return;
    }
    if (pRuntimeParam->IsLogFileAccess()) {
        LogInfo(pRuntimeParam, "[%s] Close exceeded cached file handle: %d", pLogArgu->pcName,
                static_cast<int>(n));
    }
    while (n >= 1 && !m_OpenedFileLastAccessList.empty()) {
        const auto itOldest = m_OpenedFileLastAccessList.begin();
        const auto it = m_OpenedFileHandles.find(itOldest->second);
        if (it != m_OpenedFileHandles.end()) {
            CloseOpenedFile(pRuntimeParam, pLogArgu, &it->second);
            m_OpenedFileHandles.erase(it);
            --n;
        }
        m_OpenedFileLastAccessList.erase(itOldest);
    }
}

// =================================================================================================
// Redirected files
// =================================================================================================

CUtilities::RedirectedFileMap::iterator CUtilities::EraseRedirectedFile(
    CRuntimeParam* pRuntimeParam, RedirectedFileMap::iterator it) {
    {
        // Waits for a reader; one that comes later finds the file closed and looks it up again.
        const std::lock_guard<std::mutex> lock(it->second->GetMutex());
        it->second->Close(pRuntimeParam);
    }
    return m_mRedirectedFiles.erase(it);
}

std::shared_ptr<CRedirectedFile> CUtilities::OpenRedirectedFile(CRuntimeParam* pRuntimeParam,
                                                                const char* pcPath, long long iSize,
                                                                bool bCreateInfoFile,
                                                                int iInfoFileSegmentSizeMB,
                                                                int iInfoFileCheckPointSizeMB) {
    CloseRedirectedFile(pRuntimeParam, pcPath);
    const CHeldLines lines(this);
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    auto pFile = std::make_shared<CRedirectedFile>(this);
    pFile->Open(pRuntimeParam, iSize, static_cast<int>(m_mRedirectedFiles.size()),
                bCreateInfoFile ? Text(pcPath) : nullptr, iInfoFileSegmentSizeMB,
                iInfoFileCheckPointSizeMB);
    m_mRedirectedFiles[Text(pcPath)] = pFile;
    return pFile;
}

void CUtilities::CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    const CHeldLines lines(this);
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pcPath));
    if (it != m_mRedirectedFiles.end()) {
        EraseRedirectedFile(pRuntimeParam, it);
    }
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    const CHeldLines lines(this);
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    if (m_mRedirectedFiles.empty()) {
        return;
    }
    char cFolder[PATH_SIZE];
    CopyPath(cFolder, Text(pcPath));
    SetPathToCompare(cFolder);
    for (auto it = m_mRedirectedFiles.begin(); it != m_mRedirectedFiles.end();) {
        char cEntry[PATH_SIZE];
        CopyPath(cEntry, it->first.c_str());
        SetPathToCompare(cEntry);
        if (pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "[CloseAllRedirectedFiles] Path compare: \"%s\" vs \"%s\"",
                    cFolder, cEntry);
        }
        if (!StartsWith(cEntry, cFolder)) {
            ++it;
            continue;
        }
        EraseRedirectedFile(pRuntimeParam, it);
        it = m_mRedirectedFiles.begin();  // every walk is logged from the first entry
    }
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam) {
    const CHeldLines lines(this);
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    for (auto it = m_mRedirectedFiles.begin(); it != m_mRedirectedFiles.end();) {
        it = EraseRedirectedFile(pRuntimeParam, it);
    }
}

bool CUtilities::AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          const char* pcSourcePath, long long iSrcFileOffset,
                                          long long iOffset, long long iLength, char* pcStatus) {
    const CHeldLines lines(this);
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pcPath));
    if (it == m_mRedirectedFiles.end()) {
        return false;
    }
    const std::lock_guard<std::mutex> lockFile(it->second->GetMutex());
    return it->second->AddSegment(pRuntimeParam, pcSourcePath, iSrcFileOffset, iOffset, iLength,
                                  pcStatus);
}

void CUtilities::ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                      const char* pcExportPath) {
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pcPath));
    if (it != m_mRedirectedFiles.end()) {
        const std::lock_guard<std::mutex> lockFile(it->second->GetMutex());
        it->second->Export(pRuntimeParam, pcExportPath);
    }
}

void CUtilities::ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          const char* pcExportPath, bool bMergeRange) {
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pcPath));
    if (it != m_mRedirectedFiles.end()) {
        const std::lock_guard<std::mutex> lockFile(it->second->GetMutex());
        it->second->ExportInfo(pRuntimeParam, pcExportPath, bMergeRange);
    }
}

void CUtilities::RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pathFrom,
                                      const char* pathTo) {
    const CHeldLines lines(this);
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pathTo));
    if (it != m_mRedirectedFiles.end()) {
        EraseRedirectedFile(pRuntimeParam, it);
    }
    auto node = m_mRedirectedFiles.extract(Text(pathFrom));
    if (!node.empty()) {
        node.key() = Text(pathTo);
        m_mRedirectedFiles.insert(std::move(node));
    }
}

void CUtilities::RenameRedirectedFilesBelow(CRuntimeParam* pRuntimeParam, const char* pathFrom,
                                            const char* pathTo) {
    char cFrom[PATH_SIZE];
    char cTo[PATH_SIZE];
    CopyPath(cFrom, pathFrom);
    CopyPath(cTo, pathTo);
    SetPathToCompare(cFrom);
    SetPathToCompare(cTo);
    std::vector<std::string> vPaths;
    {
        const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
        for (auto it = m_mRedirectedFiles.lower_bound(cFrom);
             it != m_mRedirectedFiles.end() && StartsWith(it->first.c_str(), cFrom); ++it) {
            vPaths.push_back(it->first);
        }
    }
    for (const std::string& sPath : vPaths) {
        const std::string sTo = cTo + sPath.substr(std::strlen(cFrom));
        RenameRedirectedFile(pRuntimeParam, sPath.c_str(), sTo.c_str());
        LogRenameRedirectedFile(pRuntimeParam, sPath.c_str(), sTo.c_str());
    }
}

std::shared_ptr<CRedirectedFile> CUtilities::GetRedirectedFile(const char* pcPath) {
    const std::lock_guard<std::mutex> lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pcPath));
    return it != m_mRedirectedFiles.end() ? it->second : nullptr;
}

RedirectedFileUse CUtilities::UseRedirectedFile(const char* pcPath) {
    for (;;) {
        RedirectedFileUse use;
        use.pFile = GetRedirectedFile(pcPath);
        if (use.pFile == nullptr) {
            return use;
        }
        use.lock = std::unique_lock<std::mutex>(use.pFile->GetMutex());
        if (!use.pFile->IsClosed()) {
            return use;
        }
    }
}

// =================================================================================================
// Datastores
// =================================================================================================

VSphereInfo::~VSphereInfo() { WipePassword(); }

void VSphereInfo::WipePassword() { explicit_bzero(sPwd.data(), sPwd.size()); }

// A clean-up keeps everybody else out, but it holds no lock while it tells of its steps: whoever
// takes the lines may be waiting for an answer of ours.  One that has not taken a line within a
// second is taken to do so.
std::unique_lock<std::mutex> CUtilities::LockVSphereInfos() {
    constexpr std::chrono::seconds LINE_TIME{1};
    std::unique_lock<std::mutex> lock(m_hMutexVSphereInfos);
    while (m_hVSphereCleaner != std::thread::id() &&
           m_hVSphereCleaner != std::this_thread::get_id()) {
        const unsigned long iLine = m_iVSphereLine;
        const bool bDone = m_hVSphereCleaned.wait_for(
            lock, LINE_TIME, [this] { return m_hVSphereCleaner == std::thread::id(); });
        if (!bDone && iLine % 2 == 1 && iLine == m_iVSphereLine) {
            break;
        }
    }
    return lock;
}

void CUtilities::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                const char* pcUser, const char* pcPwd) {
    const auto lock = LockVSphereInfos();
    // Filled in place: a record that is moved in would leave the password behind.
    VSphereInfo& info = m_VSphereInfos[Text(pcDatastoreMoid)];
    info.sDatastoreMoid = Text(pcDatastoreMoid);
    info.sHost = Text(pcHost);
    info.sPort = Text(pcPort);
    info.sUser = Text(pcUser);
    info.WipePassword();
    info.sPwd = Text(pcPwd);
}

void CUtilities::RemoveVSphereInfo(const char* pcDatastoreMoid) {
    const auto lock = LockVSphereInfos();
    m_VSphereInfos.erase(Text(pcDatastoreMoid));
}

int CUtilities::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    struct Row {
        std::string sMoid;
        std::string sHost;
        std::string sPort;
    };
    std::vector<Row> vRows;
    int iCount = 0;
    {
        const auto lock = LockVSphereInfos();
        for (const auto& [sMoid, info] : m_VSphereInfos) {
            ++iCount;
            if (bPrintDetails) {
                vRows.push_back({info.sDatastoreMoid, info.sHost, info.sPort});
            }
        }
    }
    int iRow = 0;
    for (const Row& row : vRows) {
        LogRaw(pRuntimeParam, " NFS datastore%d - %s (%s:%s)", ++iRow, row.sMoid.c_str(),
               row.sHost.c_str(), row.sPort.c_str());
    }
    return iCount;
}

void CUtilities::RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam) {
    auto lock = LockVSphereInfos();
    if (m_VSphereInfos.empty()) {
        return;
    }
    // Lets the others in again, in whatever way this ends.
    struct Cleaning {
        Cleaning(CUtilities* pUtilities, std::unique_lock<std::mutex>* pLock)
            : m_pUtilities(pUtilities), m_pLock(pLock) {
            m_pUtilities->m_hVSphereCleaner = std::this_thread::get_id();
        }
        ~Cleaning() {
            if (!m_pLock->owns_lock()) {
                m_pLock->lock();
            }
            m_pUtilities->m_hVSphereCleaner = std::thread::id();
            m_pUtilities->m_hVSphereCleaned.notify_all();
        }
        Cleaning(const Cleaning&) = delete;
        Cleaning& operator=(const Cleaning&) = delete;

    private:
        CUtilities* m_pUtilities;
        std::unique_lock<std::mutex>* m_pLock;
    };
    const Cleaning cleaning(this, &lock);
    const auto unlocked = [&](auto log) {
        ++m_iVSphereLine;
        lock.unlock();
        try {
            log();
        } catch (const std::bad_alloc&) {
            // Without memory there is no line; the datastore is unmounted all the same.
        }
        lock.lock();
        ++m_iVSphereLine;
    };
    CVSphereWebController controller(this, pRuntimeParam);
    unlocked([&] { LogInfo(pRuntimeParam, "Start cleanup mounted NFS datastores"); });
    while (!m_VSphereInfos.empty()) {
        const auto node = m_VSphereInfos.extract(m_VSphereInfos.begin());
        const VSphereInfo& info = node.mapped();
        unlocked([&] {
            LogInfo(pRuntimeParam, "Unmount NFS datastore with MOID \"%s\" on host \"%s:%s\"",
                    info.sDatastoreMoid.c_str(), info.sHost.c_str(), info.sPort.c_str());
        });
        lock.unlock();
        controller.RemoveSession(info.sDatastoreMoid.c_str(), info.sHost.c_str(),
                                 info.sPort.c_str(), info.sUser.c_str(), info.sPwd.c_str());
        lock.lock();
    }
}

// =================================================================================================
// Platform test
// =================================================================================================

void CUtilities::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath,
                             long long iFileSize) {
    if (pRuntimeParam != nullptr) {
        CPlatformTest(this, pRuntimeParam).Run(pcDirPath, iFileSize);
    }
}
