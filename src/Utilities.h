// The one shared service object of a server: every table that the protocol programs and the
// control front ends share, the file access layer, and the routing of log lines.
#ifndef VELOCAST_UTILITIES_H
#define VELOCAST_UTILITIES_H

#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "DescriptorCache.h"
#include "ExportTable.h"
#include "FileTable.h"
#include "Mutex.h"
#include "Paths.h"
#include "RuntimeParam.h"
#include "SystemCalls.h"

class CRedirectedFile;

// One session of a controller.
struct SessionInfo {
    std::string sSessionID;       // the table's key
    std::string sLocalMountPath;  // as given, not canonical
};

// One datastore that a host has mounted from this server.
struct VSphereInfo {
    VSphereInfo() = default;
    ~VSphereInfo();
    VSphereInfo(const VSphereInfo&) = delete;
    VSphereInfo& operator=(const VSphereInfo&) = delete;

    // Overwrites the password, whose memory is given back or used again; also done at the end.
    void WipePassword();

    std::string sDatastoreMoid;  // managed object identifier; the table's key
    std::string sHost;
    std::string sPort;
    std::string sUser;
    std::string sPwd;  // never logged
};

// A redirected file in use: nobody else uses or closes it while this lives.
struct RedirectedFileUse {
    std::shared_ptr<CRedirectedFile> pFile;  // null: the path is not redirected
    std::unique_lock<std::mutex> lock;       // of the file's own mutex
};

// Thread safety: every operation may be called from any thread; each table has its own mutex.
//
// All locks that this object takes, and their nesting order (an arrow: the left one may be held
// while the right one is taken; no other two are held together):
//
//     m_hMutexRedirectedFiles --> a redirected file's own (CRedirectedFile::GetMutex)
//             |                        |
//             +-----------+------------+
//                         |
//                         +--> m_hMutexOpenedFileHandles --> m_hMutexMountInfos -->
//                         m_hMutexFileTable |                |
//                         +----------------+--> a cached descriptor's (CDescriptorUse)
//
//     m_hMutexSessionInfos, m_hMutexVSphereInfos: with none of the others
//
// Two descriptors are locked at once only by the copy of an export, both in one step
// (std::scoped_lock).  The cache locks the descriptor that it closes, when nobody uses it.
//
// Lines are delivered without these mutexes: a sink may call back, or its process may wait for an
// operation of this object.  Except: an export's lines come under the registry's mutex and the
// file's, some lines of file access (log control) under a cached descriptor's lock.  The locks of
// the sinks (the callbacks', the file logger's, standard output's) are leaves.
//
// Failure is reported by result; a pcStatus argument then holds a one-line reason.  pRuntimeParam
// and pLogArgu are the caller's context and are never null, unless an operation says otherwise.
class CUtilities : public CSystemCalls {
public:
    // === Object and reset ===

    CUtilities();
    // Closes nothing: the owner calls Reset first.
    ~CUtilities() override;
    CUtilities(const CUtilities&) = delete;
    CUtilities& operator=(const CUtilities&) = delete;

    // While the service stops, no request waits for a controller's answer.  Here nothing ever
    // waits.
    virtual void RefuseWaits();
    virtual void AllowWaits();

    // While one lives, exports of redirected files, running and new, end at their next step.  Takes
    // no lock: an export holds the registry for its whole run.
    class ExportStop {
    public:
        // Borrowed.
        explicit ExportStop(CUtilities* pUtilities) : m_pUtilities(pUtilities) {
            ++m_pUtilities->m_iExportStops;
        }
        ~ExportStop() { --m_pUtilities->m_iExportStops; }
        ExportStop(const ExportStop&) = delete;
        ExportStop& operator=(const ExportStop&) = delete;

    private:
        CUtilities* m_pUtilities;
    };
    bool AreExportsStopped() const { return m_iExportStops > 0; }

    // Forgets everything that belongs to one run of the service: exports, sessions, cached
    // descriptors and redirected files, in this order.
    void Reset(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu);

    // The resolved path of pcSrc in pcDst (PATH_SIZE bytes), or pcSrc itself, cut to fit, when it
    // cannot be resolved (a path that does not exist).
    void GetCanonicalPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, char* pcDst,
                          const char* pcSrc);
    // Appends '/' to a non-empty path that lacks it, so that a prefix test respects directory
    // boundaries.  pcPath points to PATH_SIZE bytes.
    static void SetPathToCompare(char* pcPath);

    // === Exports (m_hMutexMountInfos, held for each whole operation) ===

    bool AddMountInfo(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcLocalMountPath,
                      const char* pcExportName, const char* pcIpcID, char* pcStatus);
    // Removing the last export also resets the file table.
    void RemoveMountInfoByLocalMountPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                         const char* pcLocalMountPath);
    void RemoveMountInfoByExportName(const char* pcExportName);
    void RemoveAllMountInfo();
    // Mounts for pcRemoteAddr, or unmounts when that is null; pMountInfo (may be null) receives the
    // updated record.  One client at a time: a mounted export is refused, also to its own client.
    bool UpdateMountClientIpAddrByExportName(const char* pcExportName, const char* pcRemoteAddr,
                                             MountInfo* pMountInfo, char* pcStatus);
    // The first export, in name order, whose directory is pcPath or lies above it.
    bool GetMountInfoByPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                            MountInfo* pMountInfo);
    // Either name may be null and is then not looked for.
    bool IsMountInfoExists(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                           const char* pcLocalMountPath, const char* pcExportName, char* pcStatus);
    bool IsRemoteAddrExists(const char* pcRemoteAddr);
    // The number of exports (of those that a client has mounted); prints one raw line each.
    int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly, bool bPrintDetails);

    // === Sessions (m_hMutexSessionInfos) ===

    void AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath);
    void RemoveSessionInfo(const char* pcSessionID);
    void RemoveSessionInfoByLocalMountPath(const char* pcLocalMountPath);
    void RemoveAllSessionInfo();
    bool IsSessionExists(const char* pcSessionID);
    int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);

    // === File table (m_hMutexFileTable) ===

    // FILE_ID_NONE when the path can have none.
    std::uint32_t GetFileID(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);
    // Fills iBufSize (more than 4) bytes: the file ID, least significant byte first, then zeros.
    bool GetFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                       unsigned char* pcHandle, int iBufSize);
    // The path of a handle of at least 4 bytes, whose further bytes do not matter.
    bool GetFilePath(CRuntimeParam* pRuntimeParam, const unsigned char* pcHandle, char* pcPath,
                     int iBufSize);
    void ResetFileTable();

    // === File access by path ===

    // iSize is returned when the size cannot be had.
    long long GetFileSize(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                          long long iSize);
    // Creates the file; an existing one keeps its content.
    bool NewFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);
    // Applies mode and size; owner and times are accepted and not applied.
    bool UpdateFileAttributes(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                              bool bMode, unsigned int iMode, bool bUid, unsigned int iUid,
                              bool bGid, unsigned int iGid, bool bSize, unsigned long long lSize,
                              bool bAccessTime, std::uint32_t lAccessTimeSec,
                              std::uint32_t lAccessTimeNanoSec, bool bLastModifiedTime,
                              std::uint32_t lLastModifiedTimeSec,
                              std::uint32_t lLastModifiedTimeNanoSec);
    // Replaces an existing target; also renames the rows of the file table, and fails without one.
    // Redirected files below a folder go with it.
    bool RenameFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pathFrom,
                    const char* pathTo);
    bool RemoveFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);
    // Bytes read or -1; *pbEof tells whether the read reached the end.
    int ReadFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                 unsigned long long iSeek, int iSeekType, void* pvBuf, unsigned int iLen,
                 bool* pbEof);
    // Bytes written or -1.
    int WriteFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                  unsigned long long iSeek, int iSeekType, const void* pvBuf, unsigned int iLen);

    // === Descriptor cache (m_hMutexOpenedFileHandles) ===

    // The descriptor of the path, opened when it is not cached; -1 when it cannot be opened.  Opens
    // for writing inside an export or when bAlwaysReadWrite is set, and so that neither a pipe nor
    // a device is waited for (O_NONBLOCK).  The cache owns it.
    int GetCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                            bool bAlwaysReadWrite);
    // The same, for use while other threads may close the path.
    CachedFile UseCachedFile(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                             bool bAlwaysReadWrite);
    void CloseCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);
    // The directory itself and everything below it.
    void CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                   const char* pcPath);
    void CloseAllCachedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu);
    // Closes the least recently used tenth, or everything when there are fewer than ten.
    void CloseExceededCachedFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) override;

    // === Redirected files (m_hMutexRedirectedFiles) ===
    // Paths are compared as given.

    // Replaces a redirected file of that path.  With bCreateInfoFile the segments are kept in the
    // real file of that path, which must exist.  The sizes are in MiB, 0 or less: the defaults.
    std::shared_ptr<CRedirectedFile> OpenRedirectedFile(CRuntimeParam* pRuntimeParam,
                                                        const char* pcPath, long long iSize,
                                                        bool bCreateInfoFile,
                                                        int iInfoFileSegmentSizeMB,
                                                        int iInfoFileCheckPointSizeMB);
    void CloseRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath);
    // The file of exactly that path and everything below it.
    void CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam, const char* pcPath);
    void CloseAllRedirectedFiles(CRuntimeParam* pRuntimeParam);
    // False for an unknown path and for a refused segment; pcStatus is not written.
    bool AddRedirectedFileSegment(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                  const char* pcSourcePath, long long iSrcFileOffset,
                                  long long iOffset, long long iLength, char* pcStatus);
    // Both do nothing for an unknown path and hold the registry for the whole export.
    void ExportRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                              const char* pcExportPath);
    void ExportRedirectedFileInfo(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                  const char* pcExportPath, bool bMergeRange);
    // Closes a redirected file at the destination; an info file keeps its path.
    void RenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pathFrom,
                              const char* pathTo);
    // Null when the path is not redirected.
    std::shared_ptr<CRedirectedFile> GetRedirectedFile(const char* pcPath);
    // The same, locked and not closed.
    RedirectedFileUse UseRedirectedFile(const char* pcPath);

    // === Datastores (m_hMutexVSphereInfos) ===

    void AddVSphereInfo(const char* pcDatastoreMoid, const char* pcHost, const char* pcPort,
                        const char* pcUser, const char* pcPwd);
    void RemoveVSphereInfo(const char* pcDatastoreMoid);
    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    // Unmounts every datastore from its host, in MOID order, and forgets it, whether that worked or
    // not.  The other operations wait until all are unmounted.
    void RemoveAllVSphereInfoWithWebCtrl(CRuntimeParam* pRuntimeParam);

    // === Platform test ===

    // Tests what the server needs of the file system of a directory, with a file of iFileSize
    // bytes, and reports each step as an info line.  Does nothing without runtime parameters.
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcDirPath, long long iFileSize);

private:
    // Locks the datastores once no clean-up goes on.
    class VSphereLock;

    void WaitForVSphereCleaner() REQUIRES(m_hMutexVSphereInfos);
    // Whether a rename fails for certain, so that its target must not be removed for it.
    static bool IsImpossibleRename(const char* pathFrom, const char* pathTo);
    // Moves the redirected files below a renamed folder and tells the controller of each.  What it
    // answers changes nothing: the folder as a whole has been renamed.
    void RenameRedirectedFilesBelow(CRuntimeParam* pRuntimeParam, const char* pathFrom,
                                    const char* pathTo);
    // Closes and forgets an entry.
    using RedirectedFileMap = std::map<std::string, std::shared_ptr<CRedirectedFile>>;
    RedirectedFileMap::iterator EraseRedirectedFile(CRuntimeParam* pRuntimeParam,
                                                    RedirectedFileMap::iterator it)
        REQUIRES(m_hMutexRedirectedFiles);
    // Closes what is open under a path at which another file lies now, or none; with bBelow also
    // what is open below it.
    void CloseOutdatedFileHandles(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                  const char* pcPath, bool bBelow);

    // In the nesting order, as far as there is one.
    CMutex m_hMutexRedirectedFiles ACQUIRED_BEFORE(m_hMutexOpenedFileHandles);
    CMutex m_hMutexOpenedFileHandles ACQUIRED_BEFORE(m_hMutexMountInfos);
    CMutex m_hMutexMountInfos ACQUIRED_BEFORE(m_hMutexFileTable);
    CMutex m_hMutexFileTable;
    CMutex m_hMutexSessionInfos;
    CMutex m_hMutexVSphereInfos;

    RedirectedFileMap m_mRedirectedFiles GUARDED_BY(m_hMutexRedirectedFiles);  // by path
    CDescriptorCache m_DescriptorCache GUARDED_BY(m_hMutexOpenedFileHandles);
    CExportTable m_Exports GUARDED_BY(m_hMutexMountInfos);
    std::unique_ptr<CFileTable> m_pFileTable GUARDED_BY(m_hMutexFileTable)
        PT_GUARDED_BY(m_hMutexFileTable);
    std::map<std::string, SessionInfo> m_SessionInfos GUARDED_BY(m_hMutexSessionInfos);  // by ID
    std::map<std::string, VSphereInfo> m_VSphereInfos GUARDED_BY(m_hMutexVSphereInfos);  // by MOID
    std::condition_variable_any m_hVSphereCleaned;
    // The thread that cleans up; the default: none.
    std::thread::id m_hVSphereCleaner GUARDED_BY(m_hMutexVSphereInfos);
    // Odd while the clean-up delivers a line.
    unsigned long m_iVSphereLine GUARDED_BY(m_hMutexVSphereInfos) = 0;
    std::atomic<int> m_iExportStops{0};  // living ExportStop objects
};

#endif
