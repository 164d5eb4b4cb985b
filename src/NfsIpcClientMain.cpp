#include "NfsIpcClientMain.h"

#include <cstdio>
#include <string>

#include "IpcClient.h"

namespace {

constexpr const char* VERSION_UNKNOWN = "Unknown";
constexpr const char* VERSION_1_0 = "1.0";  // lacks the requests from 23 on
constexpr const char* VERSION_1_1 = "1.1";  // lacks the requests from 25 on

}  // namespace

// One request of a known structure: fill the fields of Get(), texts through SetText, then send.
template <typename Request>
class CNfsIpcClientMain::Exchange {
public:
    Exchange(const CNfsIpcClientMain* pMain, CRuntimeParam* pRuntimeParam, int iType)
        : m_Client(pMain->m_pUtilities.get(), pRuntimeParam),
          m_pcChannel(pMain->m_cIpcChannel),
          m_pRuntimeParam(pRuntimeParam) {
        IpcDataBuf& request = m_Client.GetDataInst()->request;
        CIpcBasic::InitialRequestData(&request, iType);
        m_Request = request.Get<Request>();
    }
    Exchange(const CNfsIpcClientMain* pMain, int iType)
        : Exchange(pMain, pMain->m_pRuntimeParam.get(), iType) {}

    Request& Get() { return m_Request; }

    template <std::size_t N>
    void SetText(char (&cField)[N], const char* pcText) {
        if (!SetIpcText(cField, pcText) && m_iTooLong == 0) {
            m_iTooLong = N;
        }
    }

    // True when a reply came.
    bool Send(char* pcStatus) {
        if (m_iTooLong != 0) {
            CUtilities::SetStatus(pcStatus, "Text is too long for ipc request. (Max = %lu)",
                                  static_cast<unsigned long>(m_iTooLong - 1));
            return false;
        }
        m_Client.GetDataInst()->request.Put(m_Request);
        return m_Client.SendRequest(m_pcChannel, pcStatus);
    }
    bool Send() {
        char cError[STATUS_SIZE] = "";
        const bool bOk = Send(cError);
        if (!bOk && m_pRuntimeParam->IsLogError()) {
            m_Client.LogError("[%s] %s", "IpcClient.SendRequest", cError);
        }
        return bOk;
    }
    // The result of an operation that reports an error text.
    bool SendForResult(char* pcStatus) {
        if (!Send(pcStatus)) {
            return false;
        }
        if (const char* pcText = m_Client.GetExptReply()) {
            CUtilities::SetStatus(pcStatus, "%s", pcText);
            return false;
        }
        return m_Client.GetBoolReply();
    }

    CIpcClient* Client() { return &m_Client; }

private:
    CIpcClient m_Client;
    const char* m_pcChannel;
    CRuntimeParam* m_pRuntimeParam;
    Request m_Request{};
    std::size_t m_iTooLong = 0;  // size of the first field that its text did not fit; 0: none
};

CNfsIpcClientMain::CNfsIpcClientMain(const char* pcID, int iLogControl) {
    CNfsIpcClientMain::InitMemberVaribles(pcID, iLogControl);
}

// The serving thread calls operations of this class, so it ends before the class does.
CNfsIpcClientMain::~CNfsIpcClientMain() { CloseIpcServerThread(); }

void CNfsIpcClientMain::InitMemberVaribles(const char* pcID, int iLogControl) {
    CNfsIpcServerMain::InitMemberVaribles(pcID, iLogControl);
    MakeIpcChannel(IPC_SERVER_NAME, m_cIpcChannel);
}

std::unique_ptr<CUtilities> CNfsIpcClientMain::CreateUtilities() {
    return std::make_unique<CUtilities>();
}

bool CNfsIpcClientMain::InitialNetwork(char* /*pcStatus*/) { return true; }

void CNfsIpcClientMain::TerminateNetwork() {}

void CNfsIpcClientMain::GetIpcServerThreadChannel(char* pcChannel) {
    MakeIpcChannel(m_pRuntimeParam->GetID(), pcChannel);
}

int CNfsIpcClientMain::GetAccessMode() const { return ACCESS_MODE_IPC_CLIENT; }

// =================================================================================================
// The service
// =================================================================================================

bool CNfsIpcClientMain::StartServer(int iMountPort, int iNfsPort, unsigned int iUId,
                                    unsigned int iGId, bool bReadOnly, char* pcStatus) {
    Exchange<IpcRequest_Start> exchange(this, IPC_REQUEST_TYPE_START);
    exchange.Get().iMountPort = iMountPort;
    exchange.Get().iNfsPort = iNfsPort;
    exchange.Get().iUId = iUId;
    exchange.Get().iGId = iGId;
    exchange.Get().bReadOnly = bReadOnly;
    return exchange.SendForResult(pcStatus);
}

void CNfsIpcClientMain::StopServer() {
    if (m_pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "[%s] Cannot stop NFS service in client mode.",
                              "NfsIpcClientMain.StopServer");
    }
}

void CNfsIpcClientMain::GetText(int iType, char* pcText) const {
    Exchange<Ipc_Header> exchange(this, iType);
    const char* pcReply = exchange.Send() ? exchange.Client()->GetMsgReply() : nullptr;
    std::snprintf(pcText, VERSION_SIZE, "%s", pcReply != nullptr ? pcReply : VERSION_UNKNOWN);
}

void CNfsIpcClientMain::GetVersion(char* pcVersion) const {
    GetText(IPC_REQUEST_TYPE_GET_VERSION, pcVersion);
}

void CNfsIpcClientMain::GetDescription(char* pcDescription) const {
    GetText(IPC_REQUEST_TYPE_GET_DESCRIPTION, pcDescription);
}

bool CNfsIpcClientMain::IsServerRunning() const {
    Exchange<Ipc_Header> exchange(this, IPC_REQUEST_TYPE_IS_SERVER_RUNNING);
    return exchange.Send() && exchange.Client()->GetBoolReply();
}

std::string CNfsIpcClientMain::GetServerVersion() const {
    char cVersion[VERSION_SIZE] = "Unknown";
    GetVersion(cVersion);
    return cVersion;
}

int CNfsIpcClientMain::GetServerStatus() const {
    const std::string sVersion = GetServerVersion();
    if (sVersion == VERSION_UNKNOWN) {
        return 0;
    }
    if (sVersion == VERSION_1_0) {
        return SERVER_STATUS_ACCESSIBLE | (IsServerRunning() ? SERVER_STATUS_RUNNING : 0);
    }
    Exchange<Ipc_Header> exchange(this, IPC_REQUEST_TYPE_GET_SERVER_STATUS);
    return exchange.Send() ? exchange.Client()->GetIntReply() : SERVER_STATUS_ACCESSIBLE;
}

bool CNfsIpcClientMain::SetDebugActionEnabled(bool bEnable) {
    if (GetServerVersion() == VERSION_1_0) {
        return false;
    }
    Exchange<IpcRequest_SetBoolean> exchange(this, IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED);
    exchange.Get().bVal = bEnable;
    return exchange.Send() && exchange.Client()->GetBoolReply();
}

void CNfsIpcClientMain::EnableAutoShutdown(bool /*bEnable*/) {
    // The wording is an old one; what counts is that a controller is never shut down by request.
    if (m_pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(m_pRuntimeParam.get(),
                              "[%s] Auto shutdown is supported in client mode.",
                              "NfsIpcClientMain.EnableAutoShutdown");
    }
    CNfsMain::EnableAutoShutdown(false);
}

bool CNfsIpcClientMain::RequestAutoShutdown() {
    Exchange<Ipc_Header> exchange(this, IPC_REQUEST_TYPE_AUTO_SHUTDOWN);
    return exchange.Send() && exchange.Client()->GetBoolReply();
}

void CNfsIpcClientMain::SetLogControl(int iLogControl) {
    CNfsMain::SetLogControl(iLogControl);
    Exchange<IpcRequest_SetLogControl> exchange(this, IPC_REQUEST_TYPE_SET_LOG_CTRL);
    exchange.Get().iLogControl = iLogControl;
    exchange.Send();
}

// =================================================================================================
// Exports and sessions
// =================================================================================================

template <typename Request, std::size_t N>
void CNfsIpcClientMain::SendText(int iType, char (Request::*pcField)[N], const char* pcText) {
    Exchange<Request> exchange(this, iType);
    exchange.SetText(exchange.Get().*pcField, pcText);
    exchange.Send();
}

bool CNfsIpcClientMain::AddMountPoint(const char* pcPath, const char* pcExportName,
                                      char* pcStatus) {
    Exchange<IpcRequest_AddMountPoint> exchange(this, IPC_REQUEST_TYPE_ADD_MOUNT_POINT);
    exchange.SetText(exchange.Get().cLocalMountFolder, pcPath);
    exchange.SetText(exchange.Get().cExportName, pcExportName);
    exchange.SetText(exchange.Get().cIpcID, m_pRuntimeParam->GetID());
    return exchange.SendForResult(pcStatus);
}

void CNfsIpcClientMain::RemoveMountPoint(const char* pcPath) {
    SendText(IPC_REQUEST_TYPE_REMOVE_MOUNT_POINT, &IpcRequest_RemoveMountPoint::cLocalMountFolder,
             pcPath);
}

void CNfsIpcClientMain::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    Exchange<IpcRequest_AddSession> exchange(this, IPC_REQUEST_TYPE_ADD_SESSION);
    exchange.SetText(exchange.Get().cSessionID, pcSessionID);
    exchange.SetText(exchange.Get().cLocalMountFolder, pcLocalMountPath);
    exchange.Send();
}

void CNfsIpcClientMain::RemoveSessionInfo(const char* pcSessionID) {
    SendText(IPC_REQUEST_TYPE_REMOVE_SESSION, &IpcRequest_RemoveSession::cSessionID, pcSessionID);
}

bool CNfsIpcClientMain::IsSessionExists(const char* pcSessionID) {
    Exchange<IpcRequest_IsSessionExists> exchange(this, IPC_REQUEST_TYPE_IS_SESSION_EXIST);
    exchange.SetText(exchange.Get().cSessionID, pcSessionID);
    return exchange.Send() && exchange.Client()->GetBoolReply();
}

int CNfsIpcClientMain::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                                    bool bPrintDetails) {
    Exchange<IpcRequest_GetMountInfo> exchange(this, pRuntimeParam,
                                               IPC_REQUEST_TYPE_GET_MOUNT_INFO);
    exchange.SetText(exchange.Get().cIpcID, pRuntimeParam->GetID());
    exchange.Get().bClientMountedOnly = bClientMountedOnly;
    exchange.Get().bPrintDetails = bPrintDetails;
    return exchange.Send() ? exchange.Client()->GetIntReply() : 0;
}

int CNfsIpcClientMain::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    Exchange<IpcRequest_GetSessionInfo> exchange(this, pRuntimeParam,
                                                 IPC_REQUEST_TYPE_GET_SESSION_INFO);
    exchange.SetText(exchange.Get().cIpcID, pRuntimeParam->GetID());
    exchange.Get().bPrintDetails = bPrintDetails;
    return exchange.Send() ? exchange.Client()->GetIntReply() : 0;
}

void CNfsIpcClientMain::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                    long long iSize) {
    Exchange<IpcRequest_RunTestMode> exchange(this, pRuntimeParam, IPC_REQUEST_TYPE_RUN_TEST_MODE);
    exchange.SetText(exchange.Get().cIpcID, pRuntimeParam->GetID());
    exchange.SetText(exchange.Get().cDirPath, pcPath);
    exchange.Get().iFileSize = iSize;
    exchange.Send();
}

// =================================================================================================
// Redirected files and cached descriptors
// =================================================================================================

void CNfsIpcClientMain::OpenRedirectedFile(const char* pcPath, long long iSize,
                                           bool bCreateInfoFile, int iInfoFileSegmentSizeMB,
                                           int iInfoFileCheckPointSizeMB) {
    Exchange<IpcRequest_OpenRedirectedFile> exchange(this, IPC_REQUEST_TYPE_OPEN_RD_FILE);
    exchange.SetText(exchange.Get().cPath, pcPath);
    exchange.Get().iSize = iSize;
    exchange.Get().bCreateInfoFile = bCreateInfoFile;
    exchange.Get().iInfoFileSegmentSizeMB = iInfoFileSegmentSizeMB;
    exchange.Get().iInfoFileCheckPointSizeMB = iInfoFileCheckPointSizeMB;
    exchange.Send();
}

void CNfsIpcClientMain::CloseRedirectedFile(const char* pcPath) {
    SendText(IPC_REQUEST_TYPE_CLOSE_RD_FILE, &IpcRequest_CloseRedirectedFile::cPath, pcPath);
}

void CNfsIpcClientMain::CloseAllRedirectedFiles(const char* pcPath) {
    SendText(IPC_REQUEST_TYPE_CLOSE_ALL_RD_FILE, &IpcRequest_CloseAllRedirectedFiles::cPath,
             pcPath);
}

bool CNfsIpcClientMain::AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath,
                                                 long long iSrcFileOffset, long long iOffset,
                                                 long long iLength, char* pcStatus) {
    Exchange<IpcRequest_AddRedirectedFileSegment> exchange(this, IPC_REQUEST_TYPE_ADD_RD_FILE_SEG);
    exchange.SetText(exchange.Get().cPath, pcPath);
    exchange.SetText(exchange.Get().cSrcPath, pcSourcePath);
    exchange.Get().iSrcFileOffset = iSrcFileOffset;
    exchange.Get().iOffset = iOffset;
    exchange.Get().iLength = iLength;
    return exchange.SendForResult(pcStatus);
}

void CNfsIpcClientMain::ExportRedirectedFile(const char* pcPath, const char* pcExportPath) {
    Exchange<IpcRequest_ExportRedirectedFile> exchange(this, IPC_REQUEST_TYPE_EXPORT_RD_FILE);
    exchange.SetText(exchange.Get().cPath, pcPath);
    exchange.SetText(exchange.Get().cExportPath, pcExportPath);
    exchange.Send();
}

void CNfsIpcClientMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath,
                                                 bool bMergeRange) {
    Exchange<IpcRequest_ExportRedirectedFileInfo> exchange(this,
                                                           IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO);
    exchange.SetText(exchange.Get().cPath, pcPath);
    exchange.SetText(exchange.Get().cExportPath, pcExportPath);
    exchange.Get().bMergeRange = bMergeRange;
    exchange.Send();
}

void CNfsIpcClientMain::CloseCachedFileHandle(const char* pcPath) {
    SendText(IPC_REQUEST_TYPE_CLOSE_FILE, &IpcRequest_CloseOpenedFile::cPath, pcPath);
}

void CNfsIpcClientMain::CloseAllCachedFileHandles(const char* pcPath) {
    SendText(IPC_REQUEST_TYPE_CLOSE_ALL_FILE, &IpcRequest_CloseAllOpenedFiles::cPath, pcPath);
}

// =================================================================================================
// Datastores
// =================================================================================================

int CNfsIpcClientMain::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    const std::string sVersion = GetServerVersion();
    if (sVersion == VERSION_1_0 || sVersion == VERSION_1_1) {
        return 0;
    }
    Exchange<IpcRequest_GetVSphereInfo> exchange(this, pRuntimeParam,
                                                 IPC_REQUEST_TYPE_GET_VSPHERE_INFO);
    exchange.SetText(exchange.Get().cIpcID, pRuntimeParam->GetID());
    exchange.Get().bPrintDetails = bPrintDetails;
    return exchange.Send() ? exchange.Client()->GetIntReply() : 0;
}

void CNfsIpcClientMain::AddVSphereInfo(const char* pcMoid, const char* pcHost, const char* pcPort,
                                       const char* pcUser, const char* pcPwd) {
    const std::string sVersion = GetServerVersion();
    if (sVersion == VERSION_1_0 || sVersion == VERSION_1_1) {
        return;
    }
    Exchange<IpcRequest_AddVSphereInfo> exchange(this, IPC_REQUEST_TYPE_ADD_VSPHERE_INFO);
    exchange.SetText(exchange.Get().cDatastoreMoid, pcMoid);
    exchange.SetText(exchange.Get().cHost, pcHost);
    exchange.SetText(exchange.Get().cPort, pcPort);
    exchange.SetText(exchange.Get().cUser, pcUser);
    exchange.SetText(exchange.Get().cPwd, pcPwd);
    exchange.Send();
    // No copy of the password stays behind.
    explicit_bzero(exchange.Get().cPwd, sizeof(exchange.Get().cPwd));
    exchange.Client()->GetDataInst()->request.Put(exchange.Get());
}

void CNfsIpcClientMain::RemoveVSphereInfo(const char* pcMoid) {
    const std::string sVersion = GetServerVersion();
    if (sVersion == VERSION_1_0 || sVersion == VERSION_1_1) {
        return;
    }
    SendText(IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO, &IpcRequest_RemoveVSphereInfo::cDatastoreMoid,
             pcMoid);
}
