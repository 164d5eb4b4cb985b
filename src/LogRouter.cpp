#include "LogRouter.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>

#include "FileLogger.h"
#include "HeldLines.h"
#include "HostCallback.h"
#include "StandardOutput.h"

// =================================================================================================
// The operations that a variant replaces
// =================================================================================================

void CLogRouter::LogInfo(CRuntimeParam* pRuntimeParam, char* pcMessage) {
    LogInfo(pRuntimeParam->GetID(), pcMessage);
}

void CLogRouter::LogError(CRuntimeParam* pRuntimeParam, char* pcMessage) {
    LogError(pRuntimeParam->GetID(), pcMessage);
}

void CLogRouter::LogRaw(CRuntimeParam* pRuntimeParam, char* pcMessage) {
    LogRaw(pRuntimeParam->GetID(), pcMessage);
}

int CLogRouter::LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                  bool bSize, unsigned long long iSize,
                                                  bool bAccessTime, unsigned long lAccessTimeSec,
                                                  bool bLastModifiedTime,
                                                  unsigned long lLastModifiedTimeSec) {
    return LogUpdateRedirectedFileAttributes(pRuntimeParam->GetID(), pcPath, bSize, iSize,
                                             bAccessTime, lAccessTimeSec, bLastModifiedTime,
                                             lLastModifiedTimeSec);
}

int CLogRouter::LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    return LogRemoveRedirectedFile(pRuntimeParam->GetID(), pcPath);
}

int CLogRouter::LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFm,
                                        const char* pcPathTo) {
    return LogRenameRedirectedFile(pRuntimeParam->GetID(), pcPathFm, pcPathTo);
}

int CLogRouter::LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                       unsigned long long iSeek, int iSeekType, unsigned int iLen) {
    return LogWriteRedirectedFile(pRuntimeParam->GetID(), pcPath, iSeek, iSeekType, iLen);
}

// =================================================================================================
// Lines and notifications
// =================================================================================================

void CLogRouter::Log(LineKind kind, CRuntimeParam* pRuntimeParam, char* pcMessage) {
    if (!CHeldLines::Hold(this, kind, pRuntimeParam, pcMessage)) {
        Send(kind, pRuntimeParam, pcMessage);
    }
}

void CLogRouter::Send(LineKind kind, CRuntimeParam* pRuntimeParam, char* pcMessage) {
    switch (kind) {
        case LineKind::INFO:
            LogInfo(pRuntimeParam, pcMessage);
            break;
        case LineKind::ERROR:
            LogError(pRuntimeParam, pcMessage);
            break;
        case LineKind::RAW:
            LogRaw(pRuntimeParam, pcMessage);
            break;
    }
}

void CLogRouter::LogArgs(LineKind kind, CRuntimeParam* pRuntimeParam, const char* pcFmt,
                         va_list vaArgs) {
    char cMessage[STATUS_SIZE];
    std::vsnprintf(cMessage, sizeof(cMessage), pcFmt, vaArgs);
    Log(kind, pRuntimeParam, cMessage);
}

void CLogRouter::LogInfo(CRuntimeParam* pRuntimeParam, const char* pcFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    LogArgs(LineKind::INFO, pRuntimeParam, pcFmt, vaArgs);
    va_end(vaArgs);
}

void CLogRouter::LogError(CRuntimeParam* pRuntimeParam, const char* pcFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    LogArgs(LineKind::ERROR, pRuntimeParam, pcFmt, vaArgs);
    va_end(vaArgs);
}

void CLogRouter::LogRaw(CRuntimeParam* pRuntimeParam, const char* pcFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    LogArgs(LineKind::RAW, pRuntimeParam, pcFmt, vaArgs);
    va_end(vaArgs);
}

// Every kind takes the same way; the sinks differ in what they are called.
void CLogRouter::Deliver(LineKind kind, const char* pcID, char* pcMessage) {
    struct Sinks {
        bool (IHostCallback::*callback)(const char*, const char*);
        bool (CFileLogger::*fileLogger)(const char*);
    };
    static constexpr Sinks SINKS[] = {{&IHostCallback::LogInfo, &CFileLogger::LogInfo},
                                      {&IHostCallback::LogError, &CFileLogger::LogError},
                                      {&IHostCallback::LogRaw, &CFileLogger::LogRaw}};
    const Sinks& sinks = SINKS[static_cast<std::size_t>(kind)];
    const auto pCallback = GetCallback();
    if (pCallback != nullptr && (pCallback.get()->*sinks.callback)(pcID, pcMessage)) {
        return;
    }
    CFileLogger* pFileLogger = m_pFileLogger;
    if (pFileLogger != nullptr && (pFileLogger->*sinks.fileLogger)(pcMessage)) {
        return;
    }
    switch (kind) {
        case LineKind::INFO:
            CStandardOutput::Print("[info] (%s) %s\n", pcID, pcMessage);
            break;
        case LineKind::ERROR:
            CStandardOutput::Print("[erro] (%s) %s\n", pcID, pcMessage);
            break;
        case LineKind::RAW:
            CStandardOutput::Print("%s\n", pcMessage);
            break;
    }
}

void CLogRouter::LogInfo(const char* pcID, char* pcMessage) {
    Deliver(LineKind::INFO, pcID, pcMessage);
}

void CLogRouter::LogError(const char* pcID, char* pcMessage) {
    Deliver(LineKind::ERROR, pcID, pcMessage);
}

void CLogRouter::LogRaw(const char* pcID, char* pcMessage) {
    Deliver(LineKind::RAW, pcID, pcMessage);
}

int CLogRouter::LogUpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                                  unsigned long long iSize, bool bAccessTime,
                                                  unsigned long lAccessTimeSec,
                                                  bool bLastModifiedTime,
                                                  unsigned long lLastModifiedTimeSec) {
    const auto pCallback = GetCallback();
    return pCallback != nullptr ? pCallback->UpdateRedirectedFileAttributes(
                                      pcID, pcPath, bSize, iSize, bAccessTime, lAccessTimeSec,
                                      bLastModifiedTime, lLastModifiedTimeSec)
                                : -1;
}

int CLogRouter::LogRemoveRedirectedFile(const char* pcID, const char* pcPath) {
    const auto pCallback = GetCallback();
    return pCallback != nullptr ? pCallback->RemoveRedirectedFile(pcID, pcPath) : -1;
}

int CLogRouter::LogRenameRedirectedFile(const char* pcID, const char* pcPathFm,
                                        const char* pcPathTo) {
    const auto pCallback = GetCallback();
    return pCallback != nullptr ? pCallback->RenameRedirectedFile(pcID, pcPathFm, pcPathTo) : -1;
}

int CLogRouter::LogWriteRedirectedFile(const char* pcID, const char* pcPath,
                                       unsigned long long iSeek, int iSeekType, unsigned int iLen) {
    const auto pCallback = GetCallback();
    return pCallback != nullptr
               ? pCallback->WriteRedirectedFile(pcID, pcPath, iSeek, iSeekType, iLen)
               : -1;
}

// =================================================================================================
// Texts
// =================================================================================================

void CLogRouter::SetStatus(char* pcStatus, const char* pcFmt, ...) {
    if (pcStatus == nullptr) {
        return;
    }
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    std::vsnprintf(pcStatus, STATUS_SIZE, pcFmt, vaArgs);
    va_end(vaArgs);
}

void CLogRouter::GetLastErrorText(char* pcBuf, int iError) {
    // strerror_r(3) comes in two forms: one returns the text, one fills the buffer.
    char cText[256] = "";
    const auto result = strerror_r(iError, cText, sizeof(cText));
    const char* pcText = cText;
    if constexpr (std::is_pointer_v<decltype(result)>) {
        pcText = result;
    }
    if (pcText != nullptr && *pcText != '\0') {
        std::snprintf(pcBuf, STATUS_SIZE, "%s (%d)", pcText, iError);
    }
}

// =================================================================================================
// Sinks
// =================================================================================================

bool CLogRouter::SetCallback(std::shared_ptr<IHostCallback> pCallback, bool bQueue) {
    const CMutexLock lock(m_hMutexCallbacks);
    if (!m_vCallbacks.empty() && !bQueue) {
        return false;
    }
    m_vCallbacks.push_back(std::move(pCallback));
    return true;
}

void CLogRouter::UnsetCallback(const IHostCallback* pCallback) {
    // Its end, which may be the object's, comes after the lock's.
    std::shared_ptr<IHostCallback> pUnset;
    const CMutexLock lock(m_hMutexCallbacks);
    const auto it = std::find_if(m_vCallbacks.begin(), m_vCallbacks.end(),
                                 [&](const auto& p) { return p.get() == pCallback; });
    if (it != m_vCallbacks.end()) {
        pUnset = std::move(*it);
        m_vCallbacks.erase(it);
    }
}

std::shared_ptr<IHostCallback> CLogRouter::GetCallback() {
    const CMutexLock lock(m_hMutexCallbacks);
    return m_vCallbacks.empty() ? nullptr : m_vCallbacks.front();
}
