#include "FileLogger.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "Utilities.h"

CFileLogger::CFileLogger(const char* pcLogFile)
    : m_LogFile(pcLogFile),
      m_pUtilities(std::make_unique<CUtilities>()),
      m_pRuntimeParam(std::make_unique<CRuntimeParam>("", LOG_CONTROL_ERROR)) {}

CFileLogger::~CFileLogger() { Close(); }

bool CFileLogger::Open(int iLogControl) {
    LogArgu logArgu{"CFileLogger.Open"};
    const CMutexLock lock(m_hMutex);
    if (m_iLogFile == -1) {
        const int iOwnControl = m_pRuntimeParam->GetLogControl();
        m_pRuntimeParam->SetLogControl(iOwnControl | iLogControl);
        char cReason[STATUS_SIZE] = "";
        m_iLogFile = m_pUtilities->OS_FileForceOpen(m_pRuntimeParam.get(), &logArgu,
                                                    m_LogFile.c_str(), cReason);
        if (m_iLogFile == -1) {
            m_pUtilities->LogError(m_pRuntimeParam.get(),
                                   "Fail to create log file \"%s\". Reason=%s", m_LogFile.c_str(),
                                   cReason);
        }
        m_pRuntimeParam->SetLogControl(iOwnControl);
    }
    return m_iLogFile != -1;
}

void CFileLogger::Close() {
    LogArgu logArgu{"CFileLogger.Close"};
    const CMutexLock lock(m_hMutex);
    if (m_iLogFile != -1) {
        m_pUtilities->OS_FileClose(m_pRuntimeParam.get(), &logArgu, m_LogFile.c_str(), m_iLogFile,
                                   nullptr);
        m_iLogFile = -1;
    }
}

bool CFileLogger::LogInfo(const char* pcMsg) { return LogMessage("info", pcMsg); }

bool CFileLogger::LogError(const char* pcMsg) { return LogMessage("error", pcMsg); }

bool CFileLogger::LogRaw(const char* pcMsg) { return LogMessage("", pcMsg); }

void CFileLogger::SetMaxLogSize(long long iSize) {
    if (iSize > 0) {
        m_iMaxLogSize = iSize;
    }
}

bool CFileLogger::Rotate(LogArgu* pLogArgu) {
    CRuntimeParam* pParam = m_pRuntimeParam.get();
    if (m_pUtilities->OS_FileClose(pParam, pLogArgu, m_LogFile.c_str(), m_iLogFile, nullptr) ==
        -1) {
        return false;
    }
    m_iLogFile = -1;
    std::vector<char> vName(m_LogFile.size() + 16);
    do {
        std::snprintf(vName.data(), vName.size(), "%s.%d", m_LogFile.c_str(), m_iLastLogIndex);
        ++m_iLastLogIndex;
    } while (CUtilities::OS_IsFileExists(vName.data()));
    if (m_pUtilities->OS_FileRename(pParam, pLogArgu, m_LogFile.c_str(), vName.data(), nullptr) ==
        -1) {
        return false;
    }
    m_iLogFile = m_pUtilities->OS_FileCreate(pParam, pLogArgu, m_LogFile.c_str(), nullptr);
    return m_iLogFile != -1;
}

bool CFileLogger::LogMessage(const char* pcType, const char* pcMsg) {
    LogArgu logArgu{"CFileLogger.LogMessage"};
    const CMutexLock lock(m_hMutex);
    if (m_iLogFile == -1) {
        return false;
    }
    CRuntimeParam* pParam = m_pRuntimeParam.get();
    if (m_pUtilities->OS_FileTell(pParam, &logArgu, m_iLogFile, nullptr) >= m_iMaxLogSize &&
        !Rotate(&logArgu)) {
        return false;
    }
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char cTime[80];
    std::strftime(cTime, sizeof(cTime), "%Y/%m/%d %H:%M:%S", &local);

    char cLine[STATUS_SIZE];
    const int iLen =
        *pcType != '\0' ? std::snprintf(cLine, sizeof(cLine), "[%s][%s] %s\n", cTime, pcType, pcMsg)
                        : std::snprintf(cLine, sizeof(cLine), "[%s] %s\n", cTime, pcMsg);
    if (iLen >= static_cast<int>(sizeof(cLine))) {
        cLine[sizeof(cLine) - 2] = '\n';  // a line cut to fit still ends
    }
    return m_pUtilities->OS_FileWrite(pParam, &logArgu, m_iLogFile, cLine,
                                      static_cast<unsigned int>(std::strlen(cLine)), nullptr) != -1;
}
