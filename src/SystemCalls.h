// The system calls of the file access layer, each reported in the same way, and what is asked of
// file systems.
#ifndef VELOCAST_SYSTEMCALLS_H
#define VELOCAST_SYSTEMCALLS_H

#include <sys/stat.h>

#include <string>
#include <vector>

#include "LogRouter.h"
#include "RuntimeParam.h"

// Thread safety: every operation may be called from any thread.
class CSystemCalls : public CLogRouter {
public:
    // === Reports ===

    // The reason why a system call failed, taken from errno at once.  A call on the descriptor -1
    // was never made and has its own reason.
    class OsError {
    public:
        explicit OsError(bool bOk, int iFile = 0);
        OsError(const OsError&) = delete;
        OsError& operator=(const OsError&) = delete;

        bool IsOk() const { return m_bOk; }
        // No text when it worked.
        const char* Text() const { return m_bOk ? "" : m_cText; }

    private:
        bool m_bOk;
        char m_cText[STATUS_SIZE];  // filled only on failure: every system call makes one of these
    };

    // The line of one system call, and its reason in pcStatus when it failed.  The format ends in
    // ". Error=%s", for the reason; the line of one that worked ends before that.
    class ReportLine {
    public:
        ReportLine(CSystemCalls* pSystemCalls, CRuntimeParam* pRuntimeParam, const OsError& error,
                   char* pcStatus)
            : m_pSystemCalls(pSystemCalls),
              m_pRuntimeParam(pRuntimeParam),
              m_Error(error),
              m_pcStatus(pcStatus) {}

        void operator()(const char* pcFmt, ...) const VELOCAST_PRINTF(2, 3);

    private:
        CSystemCalls* m_pSystemCalls;
        CRuntimeParam* m_pRuntimeParam;
        const OsError& m_Error;
        char* m_pcStatus;
    };

    // === System calls ===
    // Success is logged with file-access logging, failure with error logging and its reason, which
    // pcStatus (or null) receives too.

    int OS_FileCreate(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                      char* pcStatus);
    int OS_FileRemove(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                      char* pcStatus);
    int OS_FileRename(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPathFrom,
                      const char* pcPathTo, char* pcStatus);
    // With bCloseExceededCachedFileHandle, sheds cached descriptors and tries once more when the
    // process has too many open files.  O_NONBLOCK in iMode keeps a pipe or a device from hanging
    // the open; the open of an ordinary file still waits for a lease on it to be given back.
    int OS_FileOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath, int iMode,
                    bool bCloseExceededCachedFileHandle, char* pcStatus);
    int OS_FileClose(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath, int iFile,
                     char* pcStatus);
    int OS_FileRead(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, void* pvBuf,
                    unsigned int iLen, char* pcStatus);
    int OS_FileWrite(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile, const void* pvBuf,
                     unsigned int iLen, char* pcStatus);
    long long OS_FileSeek(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                          unsigned long long iSeek, int iSeekType, char* pcStatus);
    long long OS_FileTell(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, int iFile,
                          char* pcStatus);
    int OS_FolderCreate(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                        int iMode, char* pcStatus);
    int OS_FolderRemove(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                        char* pcStatus);
    int OS_SetFileMode(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                       int iMode, char* pcStatus);
    // Of the node itself: a symbolic link is not followed.
    int OS_GetFileStat(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                       struct stat* pData, char* pcStatus);
    // Creates a missing file; grows with zeros.
    bool OS_SetFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                        unsigned long long iSize, char* pcStatus);
    // Opens for appending, or creates, together with missing parent folders.
    int OS_FileForceOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                         char* pcStatus);
    // The two halves of OS_FileOpen, for who sheds descriptors under a lock of its own: the open
    // itself, which tells nothing and leaves its reason in errno, and what is told of it, at once.
    static int TryOpen(const char* pcPath, int iMode);
    void ReportOpen(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath, int iFile,
                    char* pcStatus);
    // Closes cached descriptors; an open that finds too many open files calls it.
    virtual void CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) = 0;
    // Copies bytes inside the kernel from a place of one regular file to the position of another,
    // which moves on.  The bytes copied, which may be fewer, or -1 where the system cannot.
    static long long OS_FileCopyRange(int iFromFile, long long iFromPos, int iToFile,
                                      unsigned int iLen);
    // Follows symbolic links; logs nothing.
    static bool OS_IsFileExists(const char* pcPath);

    // === File-system queries; all ones on failure unless said otherwise ===

    static unsigned long long GetTotalDiskSpace(const char* pcPath);
    static unsigned long long GetFreeDiskSpace(const char* pcPath);
    static unsigned long long GetFreeDiskSpaceAvailableToCaller(const char* pcPath);
    static unsigned long long GetTotalFileSlots(const char* pcPath);
    static unsigned long long GetFreeFileSlots(const char* pcPath);
    static unsigned long long GetFreeFileSlotsAvailableToCaller(const char* pcPath);
    // 4 on failure.
    static unsigned long long GetFileSystemID(const char* pcPath);
    // In bytes, by the type of the file system.
    static unsigned long long GetMaxFileSize(const char* pcPath);
    static unsigned long long GetCurrentSystemTimeInMilliseconds();
    // pcPrintSize points to 32 bytes.
    static void GetPrintableFileSize(unsigned long long iValue, char* pcPrintSize);
    // Appends the pieces between the delimiters; a trailing delimiter gives no empty last piece.
    static void SplitIntoVector(const char* pcStr, char cDelimiter,
                                std::vector<std::string>* pvOutput);

private:
    ReportLine Report(CRuntimeParam* pRuntimeParam, const OsError& error, char* pcStatus) {
        return {this, pRuntimeParam, error, pcStatus};
    }
};

#endif
