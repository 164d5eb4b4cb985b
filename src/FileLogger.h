// Log file of limited size: when it is full it is set aside under a number and begun anew.
#ifndef VELOCAST_FILELOGGER_H
#define VELOCAST_FILELOGGER_H

#include <atomic>
#include <memory>
#include <string>

#include "Mutex.h"
#include "RuntimeParam.h"

class CUtilities;

// Thread safety: every operation may be called from any thread; lines never interleave.
class CFileLogger {
public:
    // The file is opened by Open.
    explicit CFileLogger(const char* pcLogFile);
    virtual ~CFileLogger();
    CFileLogger(const CFileLogger&) = delete;
    CFileLogger& operator=(const CFileLogger&) = delete;

    // Opens the file for appending, with missing parent folders.  iLogControl adds categories to
    // what is logged about the opening itself.  True when the file is, or already was, open.
    bool Open(int iLogControl);
    void Close();

    // One line "[time][type] message"; a raw line has no type.  False when it was not written: the
    // caller then prints the message itself.
    bool LogInfo(const char* pcMsg);
    bool LogError(const char* pcMsg);
    bool LogRaw(const char* pcMsg);

    // The size in bytes from which on the file is set aside.  A size of 0 or less is ignored.
    long long GetMaxLogSize() const { return m_iMaxLogSize; }
    void SetMaxLogSize(long long iSize);

private:
    bool LogMessage(const char* pcType, const char* pcMsg);
    // On failure the logger may stay closed.
    bool Rotate(LogArgu* pLogArgu) REQUIRES(m_hMutex);

    CMutex m_hMutex;
    const std::string m_LogFile;
    int m_iLogFile GUARDED_BY(m_hMutex) = -1;         // -1: closed
    std::atomic<long long> m_iMaxLogSize{0x2000000};  // bytes, 32 MiB
    int m_iLastLogIndex GUARDED_BY(m_hMutex) = 1;     // next number to try
    std::unique_ptr<CUtilities> m_pUtilities;         // no sinks: own errors go to the console
    std::unique_ptr<CRuntimeParam> m_pRuntimeParam;
};

#endif
