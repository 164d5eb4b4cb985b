#include "DescriptorCache.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <utility>

#include "Paths.h"
#include "Utilities.h"

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

// =================================================================================================
// One descriptor
// =================================================================================================

CDescriptorUse::CDescriptorUse(CDescriptor descriptor) : m_Descriptor(std::move(descriptor)) {
    struct stat data {};
    if (fstat(m_Descriptor.Get(), &data) == 0) {
        m_bRegular = S_ISREG(data.st_mode);
        m_iDevice = data.st_dev;
        m_iNode = data.st_ino;
    }
}

bool CDescriptorUse::IsOtherRegularFile(const CDescriptorUse& other) const {
    return m_bRegular && other.m_bRegular &&
           (m_iDevice != other.m_iDevice || m_iNode != other.m_iNode);
}

// =================================================================================================
// The cache
// =================================================================================================

CDescriptorCache::~CDescriptorCache() {
    for (auto& [sPath, info] : m_OpenedFileHandles) {
        if (info.pUse != nullptr) {
            static_cast<void>(info.pUse->Release());
        }
    }
}

CachedFile CDescriptorCache::Use(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 const char* pcPath, bool bAlwaysReadWrite) {
    const std::string sPath(pcPath);
    auto it = m_OpenedFileHandles.find(sPath);
    if (it == m_OpenedFileHandles.end() || it->second.iFile == -1) {
        // Shedding may forget the entry, so what it holds is kept aside.
        OpenedFileInfo info;
        if (it != m_OpenedFileHandles.end()) {
            info.sTimeKey = it->second.sTimeKey;
        }
        info.sPath = sPath;
        CDescriptor descriptor = Open(pRuntimeParam, pLogArgu, pcPath, bAlwaysReadWrite);
        info.iFile = descriptor.Get();
        if (descriptor.IsOpen()) {
            info.pUse = std::make_shared<CDescriptorUse>(std::move(descriptor));
        }
        it = m_OpenedFileHandles.insert_or_assign(sPath, std::move(info)).first;
    }
    Touch(&it->second);
    return {it->second.iFile, it->second.pUse};
}

CDescriptor CDescriptorCache::Open(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcPath, bool bAlwaysReadWrite) {
    if (m_OpenedFileHandles.size() > MAX_CACHED_FILES) {
        CloseExceeded(pRuntimeParam, pLogArgu);
    }
    const bool bReadWrite = bAlwaysReadWrite || m_pUtilities->GetMountInfoByPath(
                                                    pRuntimeParam, pLogArgu, pcPath, nullptr);
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] open %s mode %s", pLogArgu->pcName,
                              bReadWrite ? "read/write" : "read only", pcPath);
    }
    const int iMode = (bReadWrite ? O_RDWR : O_RDONLY) | O_NONBLOCK;
    int iFile = CUtilities::TryOpen(pcPath, iMode);
    if (iFile == -1 && errno == EMFILE) {
        CloseExceeded(pRuntimeParam, pLogArgu);
        iFile = CUtilities::TryOpen(pcPath, iMode);
    }
    m_pUtilities->ReportOpen(pRuntimeParam, pLogArgu, pcPath, iFile, nullptr);
    return CDescriptor(iFile);
}

void CDescriptorCache::Touch(OpenedFileInfo* pInfo) {
    m_OpenedFileLastAccessList.erase(pInfo->sTimeKey);
    pInfo->sTimeKey = MakeTimeKey(pInfo->iFile);
    m_OpenedFileLastAccessList[pInfo->sTimeKey] = pInfo->sPath;
}

void CDescriptorCache::CloseEntry(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  OpenedFileInfo* pInfo) {
    if (pInfo->pUse != nullptr && pInfo->pUse.use_count() > 1) {
        // A request on another thread still reads or writes: the descriptor must not become
        // another file's under its hands.  Its last user closes it.
        pInfo->pUse.reset();
        if (pRuntimeParam->IsLogFileAccess()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] OS close file \"%s\"", pLogArgu->pcName,
                                  pInfo->sPath.c_str());
        }
        return;
    }
    if (pInfo->pUse != nullptr) {
        // Nobody holds it any more; locking it orders the last user's transfer before the close.
        const std::lock_guard<std::mutex> lock(pInfo->pUse->m_hMutex);
        pInfo->iFile = pInfo->pUse->Release();
    }
    m_pUtilities->OS_FileClose(pRuntimeParam, pLogArgu, pInfo->sPath.c_str(), pInfo->iFile,
                               nullptr);
}

CDescriptorCache::Entries::iterator CDescriptorCache::Erase(CRuntimeParam* pRuntimeParam,
                                                            LogArgu* pLogArgu,
                                                            Entries::iterator it) {
    m_OpenedFileLastAccessList.erase(it->second.sTimeKey);
    CloseEntry(pRuntimeParam, pLogArgu, &it->second);
    return m_OpenedFileHandles.erase(it);
}

void CDescriptorCache::Close(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath) {
    const auto it = m_OpenedFileHandles.find(pcPath);
    if (it != m_OpenedFileHandles.end()) {
        Erase(pRuntimeParam, pLogArgu, it);
    }
}

void CDescriptorCache::CloseBelow(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath) {
    for (auto it = m_OpenedFileHandles.begin(); it != m_OpenedFileHandles.end();) {
        if (pRuntimeParam->IsLogGeneralInfo()) {
            m_pUtilities->LogInfo(pRuntimeParam,
                                  "[CloseAllCachedFileHandles] Path compare: \"%s\" vs \"%s\"",
                                  CSlashedPath(pcPath).Get(), CSlashedPath(it->first).Get());
        }
        if (!IsBelow(it->first, pcPath)) {
            ++it;
            continue;
        }
        Erase(pRuntimeParam, pLogArgu, it);
        it = m_OpenedFileHandles.begin();  // every walk is logged from the first entry
    }
}

void CDescriptorCache::CloseOutdated(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                     const char* pcPath, bool bBelow) {
    const auto close = [&](auto it) {
        return it->second.iFile == -1 ? std::next(it) : Erase(pRuntimeParam, pLogArgu, it);
    };
    const auto itSelf = m_OpenedFileHandles.find(pcPath);
    if (itSelf != m_OpenedFileHandles.end()) {
        close(itSelf);
    }
    if (!bBelow) {
        return;
    }
    const std::string sFolder = CSlashedPath(pcPath).Get();
    for (auto it = m_OpenedFileHandles.lower_bound(sFolder);
         it != m_OpenedFileHandles.end() && IsBelow(it->first, sFolder);) {
        it = close(it);
    }
}

void CDescriptorCache::CloseAll(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    for (auto& [sPath, info] : m_OpenedFileHandles) {
        CloseEntry(pRuntimeParam, pLogArgu, &info);
    }
    m_OpenedFileHandles.clear();
    m_OpenedFileLastAccessList.clear();
}

void CDescriptorCache::CloseExceeded(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) {
    std::size_t n = m_OpenedFileHandles.size() / 10;
    if (n == 0) {
        if (pRuntimeParam->IsLogFileAccess()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Close exceeded cached file handle: ALL",
                                  pLogArgu->pcName);
        }
        CloseAll(pRuntimeParam, pLogArgu);
        return;
    }
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Close exceeded cached file handle: %d",
                              pLogArgu->pcName, static_cast<int>(n));
    }
    while (n >= 1 && !m_OpenedFileLastAccessList.empty()) {
        const auto itOldest = m_OpenedFileLastAccessList.begin();
        const auto it = m_OpenedFileHandles.find(itOldest->second);
        if (it != m_OpenedFileHandles.end()) {
            CloseEntry(pRuntimeParam, pLogArgu, &it->second);
            m_OpenedFileHandles.erase(it);
            --n;
        }
        m_OpenedFileLastAccessList.erase(itOldest);
    }
}
