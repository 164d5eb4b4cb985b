// A controlling process: forwards every operation to a server process and hears its callbacks.
#ifndef VELOCAST_NFSIPCCLIENTMAIN_H
#define VELOCAST_NFSIPCCLIENTMAIN_H

#include <memory>

#include "IpcBasic.h"
#include "NfsIpcServerMain.h"

class CIpcClient;

// An operation whose text is too long for its field is not sent: it fails with that reason where it
// can, and is logged as an error elsewhere.  Newer requests are not sent to servers that lack them.
//
// Thread safety: as CNfsMain; every call uses a connection of its own.
class CNfsIpcClientMain : public CNfsIpcServerMain {
public:
    CNfsIpcClientMain(const char* pcID, int iLogControl);
    ~CNfsIpcClientMain() override;

    using CNfsMain::AddMountPoint;
    using CNfsMain::GetMountInfo;
    using CNfsMain::GetSessionInfo;
    using CNfsMain::GetVSphereInfo;
    using CNfsMain::RunTestMode;

    bool StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId,
                     bool bReadOnly, char* pcStatus) override;
    // Never stops the server process's service.
    void StopServer() override;
    int GetAccessMode() const override;
    // "Unknown" when no server answers.
    void GetVersion(char* pcVersion) const override;
    void GetDescription(char* pcDescription) const override;
    bool IsServerRunning() const override;
    bool AddMountPoint(const char* pcPath, const char* pcExportName, char* pcStatus) override;
    void RemoveMountPoint(const char* pcPath) override;
    void AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) override;
    void RemoveSessionInfo(const char* pcSessionID) override;
    bool IsSessionExists(const char* pcSessionID) override;
    void OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                            int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB) override;
    void CloseRedirectedFile(const char* pcPath) override;
    void CloseAllRedirectedFiles(const char* pcPath) override;
    bool AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath,
                                  long long iSrcFileOffset, long long iOffset, long long iLength,
                                  char* pcStatus) override;
    void ExportRedirectedFile(const char* pcPath, const char* pcExportPath) override;
    void ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath,
                                  bool bMergeRange) override;
    void CloseCachedFileHandle(const char* pcPath) override;
    void CloseAllCachedFileHandles(const char* pcPath) override;
    void SetLogControl(int iLogControl) override;
    int GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                     bool bPrintDetails) override;
    int GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override;
    void RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, long long iSize) override;
    // Stays off, whatever is asked.
    void EnableAutoShutdown(bool bEnable) override;
    bool RequestAutoShutdown() override;
    // 0 when no server answers.
    int GetServerStatus() const override;
    bool SetDebugActionEnabled(bool bEnable) override;
    int GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) override;
    void AddVSphereInfo(const char* pcMoid, const char* pcHost, const char* pcPort,
                        const char* pcUser, const char* pcPwd) override;
    void RemoveVSphereInfo(const char* pcMoid) override;
    void InitMemberVaribles(const char* pcID, int iLogControl) override;
    std::unique_ptr<CUtilities> CreateUtilities() override;
    bool InitialNetwork(char* pcStatus) override;
    void TerminateNetwork() override;
    // The callback channel: "/tmp/nfs-" and the own identity.
    void GetIpcServerThreadChannel(char* pcChannel) override;

private:
    // One request and its reply.
    template <IPC_REQUEST_TYPE TYPE>
    class Exchange;

    // The text of a reply in VERSION_SIZE bytes, "Unknown" when none came.
    template <IPC_REQUEST_TYPE TYPE>
    void GetText(char* pcText) const;
    // Whether the server is too old for a request.
    bool IsLackedByServer(IPC_REQUEST_TYPE iType) const;
    std::string GetServerVersion() const;

    char m_cIpcChannel[IPC_CHANNEL_SIZE] = {};  // where requests go
};

#endif
