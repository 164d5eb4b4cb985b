#include "Utilities.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>

#include "HeldLines.h"
#include "Paths.h"
#include "PlatformTest.h"
#include "RedirectedFile.h"
#include "VSphereWebController.h"

namespace {

// A null text counts as an empty one.
const char* Text(const char* pc) { return pc != nullptr ? pc : ""; }

bool IsFolder(const char* pcPath) {
    struct stat data {};
    return stat(pcPath, &data) == 0 && S_ISDIR(data.st_mode);
}

}  // namespace

// =================================================================================================
// Object and reset
// =================================================================================================

CUtilities::CUtilities() : m_DescriptorCache(this), m_pFileTable(std::make_unique<CFileTable>()) {}

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
    const CMutexLock lock(m_hMutexMountInfos);
    m_Exports.Add({cPath, sExportName, Text(pcIpcID), ""});
    return true;
}

void CUtilities::RemoveMountInfoByLocalMountPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                                 const char* pcLocalMountPath) {
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, Text(pcLocalMountPath));
    const CMutexLock lock(m_hMutexMountInfos);
    m_Exports.RemoveByPath(cPath);
    if (m_Exports.IsEmpty()) {
        ResetFileTable();
    }
}

void CUtilities::RemoveMountInfoByExportName(const char* pcExportName) {
    const CMutexLock lock(m_hMutexMountInfos);
    m_Exports.RemoveByName(Text(pcExportName));
    if (m_Exports.IsEmpty()) {
        ResetFileTable();
    }
}

void CUtilities::RemoveAllMountInfo() {
    const CMutexLock lock(m_hMutexMountInfos);
    m_Exports.Clear();
    ResetFileTable();
}

bool CUtilities::UpdateMountClientIpAddrByExportName(const char* pcExportName,
                                                     const char* pcRemoteAddr,
                                                     MountInfo* pMountInfo, char* pcStatus) {
    const CMutexLock lock(m_hMutexMountInfos);
    MountInfo* pInfo = m_Exports.FindByName(Text(pcExportName));
    if (pInfo == nullptr) {
        SetStatus(pcStatus, "Undefined export name \"%s\"", Text(pcExportName));
        return false;
    }
    if (pcRemoteAddr != nullptr && !pInfo->sRemoteIpAddr.empty()) {
        SetStatus(pcStatus, "This mount point \"%s\" already mounted by %s", pcExportName,
                  pInfo->sRemoteIpAddr.c_str());
        return false;
    }
    pInfo->sRemoteIpAddr = Text(pcRemoteAddr);
    if (pMountInfo != nullptr) {
        *pMountInfo = *pInfo;
    }
    return true;
}

bool CUtilities::GetMountInfoByPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcPath, MountInfo* pMountInfo) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexMountInfos);
    const MountInfo* pInfo = m_Exports.FindByPath(this, pRuntimeParam, pLogArgu, Text(pcPath));
    if (pInfo != nullptr && pMountInfo != nullptr) {
        *pMountInfo = *pInfo;
    }
    return pInfo != nullptr;
}

bool CUtilities::IsMountInfoExists(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcLocalMountPath, const char* pcExportName,
                                   char* pcStatus) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexMountInfos);
    if (pcExportName != nullptr && m_Exports.FindByName(pcExportName) != nullptr) {
        SetStatus(pcStatus, "Export name \"%s\" already defined", pcExportName);
        return true;
    }
    if (pcLocalMountPath == nullptr) {
        return false;
    }
    char cPath[PATH_SIZE];
    GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, pcLocalMountPath);
    if (!m_Exports.HasPath(cPath)) {
        return false;
    }
    SetStatus(pcStatus, "Local mount path \"%s\" already defined", cPath);
    return true;
}

bool CUtilities::IsRemoteAddrExists(const char* pcRemoteAddr) {
    const CMutexLock lock(m_hMutexMountInfos);
    return m_Exports.HasClient(Text(pcRemoteAddr));
}

int CUtilities::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                             bool bPrintDetails) {
    std::vector<MountInfo> vRows;
    {
        const CMutexLock lock(m_hMutexMountInfos);
        vRows = m_Exports.GetRows(bClientMountedOnly);
    }
    if (bPrintDetails) {
        int iRow = 0;
        for (const MountInfo& info : vRows) {
            LogRaw(pRuntimeParam, " mount%d - %s : %s (%s) [%s]", ++iRow,
                   info.sLocalMountPath.c_str(), info.sExportName.c_str(),
                   info.sRemoteIpAddr.c_str(), info.sIcpID.c_str());
        }
    }
    return static_cast<int>(vRows.size());
}

// =================================================================================================
// Sessions
// =================================================================================================

void CUtilities::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    const CMutexLock lock(m_hMutexSessionInfos);
    m_SessionInfos[Text(pcSessionID)] = SessionInfo{Text(pcSessionID), Text(pcLocalMountPath)};
}

void CUtilities::RemoveSessionInfo(const char* pcSessionID) {
    const CMutexLock lock(m_hMutexSessionInfos);
    m_SessionInfos.erase(Text(pcSessionID));
}

void CUtilities::RemoveSessionInfoByLocalMountPath(const char* pcLocalMountPath) {
    const CMutexLock lock(m_hMutexSessionInfos);
    std::erase_if(m_SessionInfos, [&](const auto& entry) {
        return entry.second.sLocalMountPath == Text(pcLocalMountPath);
    });
}

void CUtilities::RemoveAllSessionInfo() {
    const CMutexLock lock(m_hMutexSessionInfos);
    m_SessionInfos.clear();
}

bool CUtilities::IsSessionExists(const char* pcSessionID) {
    const CMutexLock lock(m_hMutexSessionInfos);
    return m_SessionInfos.count(Text(pcSessionID)) != 0;
}

int CUtilities::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    std::vector<SessionInfo> vRows;
    int iCount = 0;
    {
        const CMutexLock lock(m_hMutexSessionInfos);
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
    const CMutexLock lock(m_hMutexFileTable);
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
    const CMutexLock lock(m_hMutexFileTable);
    if (m_pFileTable == nullptr || !m_pFileTable->GetPathByID(iID, pcPath, iBufSize)) {
        return false;
    }
    // What lies at the path of a row that was left behind is not what the client means.
    return pcPath == nullptr || !m_pFileTable->IsLeftBehind(iID) || !OS_IsFileExists(pcPath);
}

void CUtilities::ResetFileTable() {
    const CMutexLock lock(m_hMutexFileTable);
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
    const auto lock = file.Lock();
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
    const CMutexLock lock(m_hMutexFileTable);
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
    if (IsBelow(sTo, sFrom)) {
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
    const auto lock = file.Lock();
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
    const auto lock = file.Lock();
    if (OS_FileSeek(pRuntimeParam, pLogArgu, file.iFile, iSeek, iSeekType, nullptr) == -1) {
        return -1;
    }
    return OS_FileWrite(pRuntimeParam, pLogArgu, file.iFile, pvBuf, iLen, nullptr);
}

// =================================================================================================
// Descriptor cache
// =================================================================================================

int CUtilities::GetCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    const char* pcPath, bool bAlwaysReadWrite) {
    return UseCachedFile(pRuntimeParam, pLogArgu, pcPath, bAlwaysReadWrite).iFile;
}

CachedFile CUtilities::UseCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                     const char* pcPath, bool bAlwaysReadWrite) {
    if (*Text(pcPath) == '\0') {
        return {};
    }
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    return m_DescriptorCache.Use(pRuntimeParam, pLogArgu, pcPath, bAlwaysReadWrite);
}

void CUtilities::CloseCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                       const char* pcPath) {
    if (*Text(pcPath) != '\0') {
        const CHeldLines lines(this);
        const CMutexLock lock(m_hMutexOpenedFileHandles);
        m_DescriptorCache.Close(pRuntimeParam, pLogArgu, pcPath);
    }
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                           const char* pcPath) {
    if (*Text(pcPath) != '\0') {
        const CHeldLines lines(this);
        const CMutexLock lock(m_hMutexOpenedFileHandles);
        m_DescriptorCache.CloseBelow(pRuntimeParam, pLogArgu, pcPath);
    }
}

void CUtilities::CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    m_DescriptorCache.CloseAll(pRuntimeParam, pLogArgu);
}

void CUtilities::CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    m_DescriptorCache.CloseExceeded(pRuntimeParam, pLogArgu);
}

void CUtilities::CloseOutdatedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                          const char* pcPath, bool bBelow) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexOpenedFileHandles);
    m_DescriptorCache.CloseOutdated(pRuntimeParam, pLogArgu, pcPath, bBelow);
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
    const CMutexLock lock(m_hMutexRedirectedFiles);
    auto pFile = std::make_shared<CRedirectedFile>(this);
    pFile->Open(pRuntimeParam, iSize, static_cast<int>(m_mRedirectedFiles.size()),
                bCreateInfoFile ? Text(pcPath) : nullptr, iInfoFileSegmentSizeMB,
                iInfoFileCheckPointSizeMB);
    m_mRedirectedFiles[Text(pcPath)] = pFile;
    return pFile;
}

void CUtilities::CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pcPath));
    if (it != m_mRedirectedFiles.end()) {
        EraseRedirectedFile(pRuntimeParam, it);
    }
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexRedirectedFiles);
    if (m_mRedirectedFiles.empty()) {
        return;
    }
    for (auto it = m_mRedirectedFiles.begin(); it != m_mRedirectedFiles.end();) {
        if (pRuntimeParam->IsLogGeneralInfo()) {
            LogInfo(pRuntimeParam, "[CloseAllRedirectedFiles] Path compare: \"%s\" vs \"%s\"",
                    CSlashedPath(Text(pcPath)).Get(), CSlashedPath(it->first).Get());
        }
        if (!IsBelow(it->first, Text(pcPath))) {
            ++it;
            continue;
        }
        EraseRedirectedFile(pRuntimeParam, it);
        it = m_mRedirectedFiles.begin();  // every walk is logged from the first entry
    }
}

void CUtilities::CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexRedirectedFiles);
    for (auto it = m_mRedirectedFiles.begin(); it != m_mRedirectedFiles.end();) {
        it = EraseRedirectedFile(pRuntimeParam, it);
    }
}

bool CUtilities::AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          const char* pcSourcePath, long long iSrcFileOffset,
                                          long long iOffset, long long iLength, char* pcStatus) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexRedirectedFiles);
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
    const CMutexLock lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pcPath));
    if (it != m_mRedirectedFiles.end()) {
        const std::lock_guard<std::mutex> lockFile(it->second->GetMutex());
        it->second->Export(pRuntimeParam, pcExportPath);
    }
}

void CUtilities::ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          const char* pcExportPath, bool bMergeRange) {
    const CMutexLock lock(m_hMutexRedirectedFiles);
    const auto it = m_mRedirectedFiles.find(Text(pcPath));
    if (it != m_mRedirectedFiles.end()) {
        const std::lock_guard<std::mutex> lockFile(it->second->GetMutex());
        it->second->ExportInfo(pRuntimeParam, pcExportPath, bMergeRange);
    }
}

void CUtilities::RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pathFrom,
                                      const char* pathTo) {
    const CHeldLines lines(this);
    const CMutexLock lock(m_hMutexRedirectedFiles);
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
    const std::string sFromFolder = CSlashedPath(pathFrom).Get();
    const std::string sToFolder = CSlashedPath(pathTo).Get();
    std::vector<std::string> vPaths;
    {
        const CMutexLock lock(m_hMutexRedirectedFiles);
        for (auto it = m_mRedirectedFiles.lower_bound(sFromFolder);
             it != m_mRedirectedFiles.end() && IsBelow(it->first, sFromFolder); ++it) {
            vPaths.push_back(it->first);
        }
    }
    for (const std::string& sPath : vPaths) {
        const std::string sTo = sToFolder + sPath.substr(sFromFolder.size());
        RenameRedirectedFile(pRuntimeParam, sPath.c_str(), sTo.c_str());
        LogRenameRedirectedFile(pRuntimeParam, sPath.c_str(), sTo.c_str());
    }
}

std::shared_ptr<CRedirectedFile> CUtilities::GetRedirectedFile(const char* pcPath) {
    const CMutexLock lock(m_hMutexRedirectedFiles);
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
class SCOPED_CAPABILITY CUtilities::VSphereLock {
public:
    explicit VSphereLock(CUtilities* pUtilities) ACQUIRE(pUtilities->m_hMutexVSphereInfos)
        : m_pUtilities(pUtilities) {
        m_pUtilities->m_hMutexVSphereInfos.lock();
        m_pUtilities->WaitForVSphereCleaner();
    }
    ~VSphereLock() RELEASE() { m_pUtilities->m_hMutexVSphereInfos.unlock(); }
    VSphereLock(const VSphereLock&) = delete;
    VSphereLock& operator=(const VSphereLock&) = delete;

private:
    CUtilities* m_pUtilities;
};

void CUtilities::WaitForVSphereCleaner() {
    constexpr std::chrono::seconds LINE_TIME{1};
    while (m_hVSphereCleaner != std::thread::id() &&
           m_hVSphereCleaner != std::this_thread::get_id()) {
        const unsigned long iLine = m_iVSphereLine;
        // One wait lasts until the time is over or the cleaner is done, whatever wakes it.
        const auto end = std::chrono::steady_clock::now() + LINE_TIME;
        bool bTimeout = false;
        while (m_hVSphereCleaner != std::thread::id() && !bTimeout) {
            bTimeout =
                m_hVSphereCleaned.wait_until(m_hMutexVSphereInfos, end) == std::cv_status::timeout;
        }
        if (m_hVSphereCleaner != std::thread::id() && iLine % 2 == 1 && iLine == m_iVSphereLine) {
            break;
        }
    }
}

void CUtilities::AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                                const char* pcUser, const char* pcPwd) {
    const VSphereLock lock(this);
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
    const VSphereLock lock(this);
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
        const VSphereLock lock(this);
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
    {
        const VSphereLock lock(this);
        if (m_VSphereInfos.empty()) {
            return;
        }
        m_hVSphereCleaner = std::this_thread::get_id();
    }
    // Lets the others in again, in whatever way this ends.
    struct Cleaning {
        explicit Cleaning(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}
        ~Cleaning() {
            const CMutexLock lock(m_pUtilities->m_hMutexVSphereInfos);
            m_pUtilities->m_hVSphereCleaner = std::thread::id();
            m_pUtilities->m_hVSphereCleaned.notify_all();
        }
        Cleaning(const Cleaning&) = delete;
        Cleaning& operator=(const Cleaning&) = delete;

    private:
        CUtilities* m_pUtilities;
    };
    const Cleaning cleaning(this);
    const auto countLine = [this] {
        const CMutexLock lock(m_hMutexVSphereInfos);
        ++m_iVSphereLine;
    };
    const auto tell = [&](auto log) {
        countLine();
        try {
            log();
        } catch (const std::bad_alloc&) {
            // Without memory there is no line; the datastore is unmounted all the same.
        }
        countLine();
    };
    CVSphereWebController controller(this, pRuntimeParam);
    tell([&] { LogInfo(pRuntimeParam, "Start cleanup mounted NFS datastores"); });
    for (;;) {
        std::map<std::string, VSphereInfo>::node_type node;
        {
            const CMutexLock lock(m_hMutexVSphereInfos);
            if (m_VSphereInfos.empty()) {
                return;
            }
            node = m_VSphereInfos.extract(m_VSphereInfos.begin());
        }
        const VSphereInfo& info = node.mapped();
        tell([&] {
            LogInfo(pRuntimeParam, "Unmount NFS datastore with MOID \"%s\" on host \"%s:%s\"",
                    info.sDatastoreMoid.c_str(), info.sHost.c_str(), info.sPort.c_str());
        });
        controller.RemoveSession(info.sDatastoreMoid.c_str(), info.sHost.c_str(),
                                 info.sPort.c_str(), info.sUser.c_str(), info.sPwd.c_str());
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
