// The server's top-level object: starts and stops the services and offers every control operation.
#ifndef VELOCAST_NFSMAIN_H
#define VELOCAST_NFSMAIN_H

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>

#include "Mutex.h"
#include "RecursiveMutex.h"

class CFileLogger;
class CDatagramSocket;
class CMountProg;
class CNfsProg;
class CPortmap;
class CPortmapProg;
class CRpcServer;
class CRuntimeParam;
class CServerSocket;
class CUtilities;
class IHostCallback;

// Access modes.
inline constexpr int ACCESS_MODE_INTERNAL = 0;
inline constexpr int ACCESS_MODE_IPC_SERVER = 1;
inline constexpr int ACCESS_MODE_IPC_CLIENT = 2;

// Bits of the server status.
inline constexpr int SERVER_STATUS_ACCESSIBLE = 1;  // always set
inline constexpr int SERVER_STATUS_RUNNING = 2;
inline constexpr int SERVER_STATUS_DEBUG_ACTION = 4;

// Bytes of a version or description text, its NUL included.
inline constexpr std::size_t VERSION_SIZE = 255;

// The TCP and the UDP socket of one program.
struct SocketHandle {
    std::unique_ptr<CServerSocket> pServerSocket;
    std::unique_ptr<CDatagramSocket> pDatagramSocket;
};

// Life: constructed, Initial, StartRemoteController, StartServer, control operations, StopServer
// (then perhaps StartServer again), StopRemoteController, Terminate, destroyed.
//
// A pcStatus points to STATUS_SIZE bytes and receives a one-line reason on failure; version and
// description buffers hold VERSION_SIZE bytes.
//
// Thread safety: the control operations may be called from any thread.
class CNfsMain {
public:
    CNfsMain(const char* pcID, int iLogControl);
    // Closes what runs, without unregistering and without unmounting datastores.
    virtual ~CNfsMain();
    CNfsMain(const CNfsMain&) = delete;
    CNfsMain& operator=(const CNfsMain&) = delete;

    virtual bool Initial(char* pcStatus);
    virtual void Terminate();
    virtual bool StartRemoteController(char* pcStatus);
    virtual void StopRemoteController();

    // A port below 1 selects the default: MOUNT 1058 and NFS 2049, each one higher beside a system
    // portmapper.  Fails without an effect on a server that runs.
    virtual bool StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId,
                             bool bReadOnly, char* pcStatus);
    virtual void StopServer();

    virtual int GetAccessMode() const;
    virtual void GetVersion(char* pcVersion) const;
    virtual void GetDescription(char* pcDescription) const;
    virtual bool IsServerRunning() const;

    virtual bool AddMountPoint(const char* pcPath, const char* pcExportName, char* pcStatus);
    virtual void RemoveMountPoint(const char* pcPath);
    virtual void AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath);
    virtual void RemoveSessionInfo(const char* pcSessionID);
    virtual bool IsSessionExists(const char* pcSessionID);

    // Sizes in bytes, the last two of OpenRedirectedFile in MiB (0 or less: the defaults).
    virtual void OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                                    int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);
    virtual void CloseRedirectedFile(const char* pcPath);
    virtual void CloseAllRedirectedFiles(const char* pcPath);
    virtual bool AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath,
                                          long long iSrcFileOffset, long long iOffset,
                                          long long iLength, char* pcStatus);
    virtual void ExportRedirectedFile(const char* pcPath, const char* pcExportPath);
    virtual void ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath,
                                          bool bMergeRange);

    // One file; the directory and everything below it.
    virtual void CloseCachedFileHandle(const char* pcPath);
    virtual void CloseAllCachedFileHandles(const char* pcPath);

    virtual void SetLogControl(int iLogControl);
    // The numbers of entries; with bPrintDetails also a raw log line for each.
    virtual int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                             bool bPrintDetails);
    virtual int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    // Tests the file system of a directory with a file of iSize bytes.
    virtual void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, long long iSize);

    virtual void EnableAutoShutdown(bool bEnable);
    // True when the request is honoured: the front end then ends the process.
    virtual bool RequestAutoShutdown();
    virtual int GetServerStatus() const;
    virtual bool SetDebugActionEnabled(bool bEnable);

    virtual int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails);
    virtual void AddVSphereInfo(const char* pcMoid, const char* pcHost, const char* pcPort,
                                const char* pcUser, const char* pcPwd);
    virtual void RemoveVSphereInfo(const char* pcMoid);

    // Called by the constructor of the class whose object this is.
    virtual void InitMemberVaribles(const char* pcID, int iLogControl);
    virtual std::unique_ptr<CUtilities> CreateUtilities();
    virtual bool InitialNetwork(char* pcStatus);
    virtual void TerminateNetwork();

    // With the identity whose channel hears of changes below the export; empty: nobody.
    bool AddMountPoint(const char* pcPath, const char* pcExportName, const char* pcIpcID,
                       char* pcStatus);
    bool IsLocalSessionExists(const char* pcSessionID);
    // With the own runtime parameters.
    int GetMountInfo(bool bClientMountedOnly, bool bPrintDetails);
    int GetSessionInfo(bool bPrintDetails);
    void RunTestMode(const char* pcPath, long long iSize);
    int GetVSphereInfo(bool bPrintDetails);

    // As those of CUtilities.
    bool SetCallback(std::shared_ptr<IHostCallback> pCallback, bool bQueue);
    void UnsetCallback(const IHostCallback* pCallback);
    std::shared_ptr<IHostCallback> GetCallback();
    void SetFileLogger(CFileLogger* pFileLogger);
    CUtilities* GetUtils() { return m_pUtilities.get(); }
    CRuntimeParam* GetRuntimeParam() { return m_pRuntimeParam.get(); }
    bool IsAutoShutdownEnabled() const { return m_bAutoShutdownEnabled; }
    bool IsAutoShutdownRequested() const { return m_bAutoShutdownRequested; }

protected:
    // For a variant, which calls its own InitMemberVaribles.
    CNfsMain();

    // Logs an info line when a file logger is attached, whatever the log control.
    void LogToFile(const char* pcMessage);

    std::unique_ptr<CRuntimeParam> m_pRuntimeParam;
    std::unique_ptr<CUtilities> m_pUtilities;

private:
    // Portmapper, NFS, MOUNT: the rows of the table in the source, in its order.
    static constexpr std::size_t SERVICES = 3;
    // A port for each service.
    using Ports = std::array<int, SERVICES>;

    // Everything of a start but what follows its failure; may throw when memory runs out.
    bool StartServices(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId,
                       bool bReadOnly, char* pcStatus) REQUIRES(m_hMutexServer);
    // Opens the TCP and the UDP socket of every service.
    bool OpenServices(const Ports& ports, char* pcStatus) REQUIRES(m_hMutexServer);
    // Makes the services known to the system's portmapper.
    bool RegisterServices(char* pcStatus) REQUIRES(m_hMutexServer);
    // Closes and deletes the sockets, TCP before UDP, portmapper before NFS before MOUNT.
    void CloseSockets() REQUIRES(m_hMutexServer);

    // Serialises starting and stopping.  Recursive: a failed start stops.
    CRecursiveMutex m_hMutexServer ACQUIRED_BEFORE(m_hMutexRpcServer);
    // Guards the pointer m_pRpcServer alone, for a change of the log control.
    CMutex m_hMutexRpcServer;

    std::unique_ptr<CMountProg> m_pMountProg GUARDED_BY(m_hMutexServer);
    std::array<SocketHandle, SERVICES> m_Sockets GUARDED_BY(m_hMutexServer);
    std::unique_ptr<CRpcServer> m_pRpcServer GUARDED_BY(m_hMutexRpcServer);
    // Only without a system portmapper.
    std::unique_ptr<CPortmapProg> m_pPortmapProg GUARDED_BY(m_hMutexServer);
    std::unique_ptr<CPortmap> m_pPortmap GUARDED_BY(m_hMutexServer);
    std::unique_ptr<CNfsProg> m_pNfsProg GUARDED_BY(m_hMutexServer);
    // Kept by InitialNetwork and TerminateNetwork, for a system on which sockets need a set-up that
    // must be taken back; POSIX systems have none, so nothing reads it.
    bool m_bNetworkInitialized = false;
    std::atomic<bool> m_bServerRunning{false};
    std::atomic<bool> m_bAutoShutdownEnabled{false};
    std::atomic<bool> m_bAutoShutdownRequested{false};
    std::atomic<bool> m_bDebugActionEnabled{false};
};

#endif
