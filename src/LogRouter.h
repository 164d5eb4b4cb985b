// Where log lines and notifications go: to the host that runs the server, to the log file, or to
// standard output.
#ifndef VELOCAST_LOGROUTER_H
#define VELOCAST_LOGROUTER_H

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <memory>
#include <vector>

#include "Mutex.h"
#include "RuntimeParam.h"

class CFileLogger;
class IHostCallback;

// Bytes of a buffer for a reason or a finished log message, its NUL included.  Every pcStatus and
// every error text argument points to this many bytes, or is null where null is allowed.
inline constexpr std::size_t STATUS_SIZE = 2048;

#if defined(__GNUC__)
#define VELOCAST_PRINTF(iFormat, iFirst) __attribute__((format(printf, iFormat, iFirst)))
#else
#define VELOCAST_PRINTF(iFormat, iFirst)
#endif

enum class LineKind { INFO, ERROR, RAW };

// Thread safety: every operation may be called from any thread.
class CLogRouter {
public:
    CLogRouter() = default;
    virtual ~CLogRouter() = default;
    CLogRouter(const CLogRouter&) = delete;
    CLogRouter& operator=(const CLogRouter&) = delete;

    // === The operations that a variant replaces ===

    virtual void LogInfo(CRuntimeParam* pRuntimeParam, char* pcMessage);
    virtual void LogError(CRuntimeParam* pRuntimeParam, char* pcMessage);
    virtual void LogRaw(CRuntimeParam* pRuntimeParam, char* pcMessage);
    // Tell the controller of a change that a client asked for; its answer, or -1 when there is
    // none. 0 is success; of a write, the answer is the number of bytes that the client is told. No
    // lock of the service object is held while the answer is awaited; the RPC mutex is.
    virtual int LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                  bool bSize, unsigned long long iSize,
                                                  bool bAccessTime, unsigned long lAccessTimeSec,
                                                  bool bLastModifiedTime,
                                                  unsigned long lLastModifiedTimeSec);
    virtual int LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath);
    virtual int LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFm,
                                        const char* pcPathTo);
    virtual int LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                       unsigned long long iSeek, int iSeekType, unsigned int iLen);

    // === Lines and notifications ===

    // Logs a finished line: keeps it while CHeldLines does, else sends it.
    void Log(LineKind kind, CRuntimeParam* pRuntimeParam, char* pcMessage);
    // Calls the virtual operation of the kind.
    void Send(LineKind kind, CRuntimeParam* pRuntimeParam, char* pcMessage);
    // Formats into STATUS_SIZE bytes and calls the virtual operation of the same kind.
    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcFmt, ...) VELOCAST_PRINTF(3, 4);
    void LogError(CRuntimeParam* pRuntimeParam, const char* pcFmt, ...) VELOCAST_PRINTF(3, 4);
    void LogRaw(CRuntimeParam* pRuntimeParam, const char* pcFmt, ...) VELOCAST_PRINTF(3, 4);
    // Deliver to exactly one sink: the callback when it takes it, else the file logger when one
    // takes it, else standard output.
    void LogInfo(const char* pcID, char* pcMessage);
    void LogError(const char* pcID, char* pcMessage);
    void LogRaw(const char* pcID, char* pcMessage);
    // Deliver a notification to the controller in this process; -1 when there is none.
    int LogUpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                          unsigned long long iSize, bool bAccessTime,
                                          unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                          unsigned long lLastModifiedTimeSec);
    int LogRemoveRedirectedFile(const char* pcID, const char* pcPath);
    int LogRenameRedirectedFile(const char* pcID, const char* pcPathFm, const char* pcPathTo);
    int LogWriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                               int iSeekType, unsigned int iLen);

    // === Texts ===

    // Formats a reason into pcStatus (STATUS_SIZE bytes, or null), cut to fit.
    static void SetStatus(char* pcStatus, const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);
    // "%s (%d)" of the system's text and the number; pcBuf points to STATUS_SIZE bytes.
    static void GetLastErrorText(char* pcBuf, int iError);

    // === Sinks ===

    // Installs a callback when none is installed; with bQueue it otherwise waits until those before
    // it are unset.  False when it was neither installed nor queued.
    bool SetCallback(std::shared_ptr<IHostCallback> pCallback, bool bQueue);
    // Takes the callback back; the next one in the queue takes its place at once.  It lives on
    // until its last user is done.
    void UnsetCallback(const IHostCallback* pCallback);
    // The installed callback, or null.
    std::shared_ptr<IHostCallback> GetCallback();
    // Borrowed; must be unset or outlive this object.
    void SetFileLogger(CFileLogger* pFileLogger) { m_pFileLogger = pFileLogger; }
    CFileLogger* GetFileLogger() const { return m_pFileLogger; }

private:
    void LogArgs(LineKind kind, CRuntimeParam* pRuntimeParam, const char* pcFmt, va_list vaArgs)
        VELOCAST_PRINTF(4, 0);
    void Deliver(LineKind kind, const char* pcID, char* pcMessage);

    CMutex m_hMutexCallbacks;  // a leaf
    // The first is installed, the others wait.
    std::vector<std::shared_ptr<IHostCallback>> m_vCallbacks GUARDED_BY(m_hMutexCallbacks);
    std::atomic<CFileLogger*> m_pFileLogger{nullptr};  // borrowed
};

#endif
