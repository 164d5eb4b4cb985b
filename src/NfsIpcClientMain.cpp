#include "NfsIpcClientMain.h"

#include <cstdio>
#include <string>

#include "IpcClient.h"
#include "IpcRequests.h"

namespace {

constexpr const char* VERSION_UNKNOWN = "Unknown";
constexpr const char* VERSION_1_0 = "1.0";
constexpr const char* VERSION_1_1 = "1.1";

// The last requests that servers of earlier versions know.
constexpr IPC_REQUEST_TYPE LAST_REQUEST_1_0 = IPC_REQUEST_TYPE_AUTO_SHUTDOWN;
constexpr IPC_REQUEST_TYPE LAST_REQUEST_1_1 = IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED;

}  // namespace

// The fields are given as arguments, in the order of the request's entry.
template <IPC_REQUEST_TYPE TYPE>
class CNfsIpcClientMain::Exchange {
    using Request = IpcRequest<TYPE>;
    using Structure = typename Request::Structure;

public:
    // With the parameters (borrowed) of the operation: they log, and their identity hears the lines
    // of a listing.
    template <typename... Arguments>
    Exchange(const CNfsIpcClientMain* pMain, CRuntimeParam* pRuntimeParam,
             const Arguments&... arguments)
        : m_Client(pMain->m_pUtilities.get(), pRuntimeParam), m_pcChannel(pMain->m_cIpcChannel) {
        IpcDataBuf& request = m_Client.GetDataInst()->request;
        CIpcBasic::InitialRequestData(&request, TYPE);
        auto message = request.Get<Structure>();
        if constexpr (Request::LISTING) {
            m_iTooLong = Request::Fill(&message, pRuntimeParam->GetID(), arguments...);
        } else {
            m_iTooLong = Request::Fill(&message, arguments...);
        }
        request.Put(message);
        WipeIpcPassword(&message);
    }
    // With those of the object.
    template <typename... Arguments>
    explicit Exchange(const CNfsIpcClientMain* pMain, const Arguments&... arguments)
        : Exchange(pMain, pMain->m_pRuntimeParam.get(), arguments...) {}
    ~Exchange() { WipeIpcPassword<Structure>(&m_Client.GetDataInst()->request); }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    // True when a reply came.
    bool Send(char* pcStatus) {
        if (m_iTooLong != 0) {
            CUtilities::SetStatus(pcStatus, "Text is too long for ipc request. (Max = %lu)",
                                  static_cast<unsigned long>(m_iTooLong - 1));
            return false;
        }
        return m_Client.SendRequest(m_pcChannel, pcStatus);
    }
    // Logs the error instead.
    bool Send() {
        char cError[STATUS_SIZE] = "";
        return Send(cError) || m_Client.LogFailure("IpcClient.SendRequest", cError);
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
    bool SendForBool() { return Send() && m_Client.GetBoolReply(); }
    // iNone: what counts when no reply came.
    int SendForInt(int iNone) { return Send() ? m_Client.GetIntReply() : iNone; }
    // Null when no text came; good as long as this object.
    const char* SendForText() { return Send() ? m_Client.GetMsgReply() : nullptr; }

private:
    CIpcClient m_Client;
    const char* m_pcChannel;
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
    return Exchange<IPC_REQUEST_TYPE_START>(this, iMountPort, iNfsPort, iUId, iGId, bReadOnly)
        .SendForResult(pcStatus);
}

void CNfsIpcClientMain::StopServer() {
    if (m_pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "[%s] Cannot stop NFS service in client mode.",
                              "NfsIpcClientMain.StopServer");
    }
}

template <IPC_REQUEST_TYPE TYPE>
void CNfsIpcClientMain::GetText(char* pcText) const {
    Exchange<TYPE> exchange(this);
    const char* pcReply = exchange.SendForText();
    std::snprintf(pcText, VERSION_SIZE, "%s", pcReply != nullptr ? pcReply : VERSION_UNKNOWN);
}

void CNfsIpcClientMain::GetVersion(char* pcVersion) const {
    GetText<IPC_REQUEST_TYPE_GET_VERSION>(pcVersion);
}

void CNfsIpcClientMain::GetDescription(char* pcDescription) const {
    GetText<IPC_REQUEST_TYPE_GET_DESCRIPTION>(pcDescription);
}

bool CNfsIpcClientMain::IsServerRunning() const {
    return Exchange<IPC_REQUEST_TYPE_IS_SERVER_RUNNING>(this).SendForBool();
}

std::string CNfsIpcClientMain::GetServerVersion() const {
    char cVersion[VERSION_SIZE] = "";
    GetVersion(cVersion);
    return cVersion;
}

bool CNfsIpcClientMain::IsLackedByServer(IPC_REQUEST_TYPE iType) const {
    const std::string sVersion = GetServerVersion();
    return (sVersion == VERSION_1_0 && iType > LAST_REQUEST_1_0) ||
           (sVersion == VERSION_1_1 && iType > LAST_REQUEST_1_1);
}

int CNfsIpcClientMain::GetServerStatus() const {
    const std::string sVersion = GetServerVersion();
    if (sVersion == VERSION_UNKNOWN) {
        return 0;
    }
    if (sVersion == VERSION_1_0) {
        return SERVER_STATUS_ACCESSIBLE | (IsServerRunning() ? SERVER_STATUS_RUNNING : 0);
    }
    return Exchange<IPC_REQUEST_TYPE_GET_SERVER_STATUS>(this).SendForInt(SERVER_STATUS_ACCESSIBLE);
}

bool CNfsIpcClientMain::SetDebugActionEnabled(bool bEnable) {
    return !IsLackedByServer(IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED) &&
           Exchange<IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED>(this, bEnable).SendForBool();
}

void CNfsIpcClientMain::EnableAutoShutdown(bool /*bEnable*/) {
    // The text says "supported" and means the opposite: a controller is never shut down by request.
    if (m_pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(m_pRuntimeParam.get(),
                              "[%s] Auto shutdown is supported in client mode.",
                              "NfsIpcClientMain.EnableAutoShutdown");
    }
    CNfsMain::EnableAutoShutdown(false);
}

bool CNfsIpcClientMain::RequestAutoShutdown() {
    return Exchange<IPC_REQUEST_TYPE_AUTO_SHUTDOWN>(this).SendForBool();
}

void CNfsIpcClientMain::SetLogControl(int iLogControl) {
    CNfsMain::SetLogControl(iLogControl);
    Exchange<IPC_REQUEST_TYPE_SET_LOG_CTRL>(this, iLogControl).Send();
}

// =================================================================================================
// Exports and sessions
// =================================================================================================

bool CNfsIpcClientMain::AddMountPoint(const char* pcPath, const char* pcExportName,
                                      char* pcStatus) {
    return Exchange<IPC_REQUEST_TYPE_ADD_MOUNT_POINT>(this, pcPath, pcExportName,
                                                      m_pRuntimeParam->GetID())
        .SendForResult(pcStatus);
}

void CNfsIpcClientMain::RemoveMountPoint(const char* pcPath) {
    Exchange<IPC_REQUEST_TYPE_REMOVE_MOUNT_POINT>(this, pcPath).Send();
}

void CNfsIpcClientMain::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    Exchange<IPC_REQUEST_TYPE_ADD_SESSION>(this, pcSessionID, pcLocalMountPath).Send();
}

void CNfsIpcClientMain::RemoveSessionInfo(const char* pcSessionID) {
    Exchange<IPC_REQUEST_TYPE_REMOVE_SESSION>(this, pcSessionID).Send();
}

bool CNfsIpcClientMain::IsSessionExists(const char* pcSessionID) {
    return Exchange<IPC_REQUEST_TYPE_IS_SESSION_EXIST>(this, pcSessionID).SendForBool();
}

int CNfsIpcClientMain::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                                    bool bPrintDetails) {
    return Exchange<IPC_REQUEST_TYPE_GET_MOUNT_INFO>(this, pRuntimeParam, bClientMountedOnly,
                                                     bPrintDetails)
        .SendForInt(0);
}

int CNfsIpcClientMain::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return Exchange<IPC_REQUEST_TYPE_GET_SESSION_INFO>(this, pRuntimeParam, bPrintDetails)
        .SendForInt(0);
}

void CNfsIpcClientMain::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                    long long iSize) {
    Exchange<IPC_REQUEST_TYPE_RUN_TEST_MODE>(this, pRuntimeParam, pcPath, iSize).Send();
}

// =================================================================================================
// Redirected files and cached descriptors
// =================================================================================================

void CNfsIpcClientMain::OpenRedirectedFile(const char* pcPath, long long iSize,
                                           bool bCreateInfoFile, int iInfoFileSegmentSizeMB,
                                           int iInfoFileCheckPointSizeMB) {
    Exchange<IPC_REQUEST_TYPE_OPEN_RD_FILE>(this, pcPath, iSize, bCreateInfoFile,
                                            iInfoFileSegmentSizeMB, iInfoFileCheckPointSizeMB)
        .Send();
}

void CNfsIpcClientMain::CloseRedirectedFile(const char* pcPath) {
    Exchange<IPC_REQUEST_TYPE_CLOSE_RD_FILE>(this, pcPath).Send();
}

void CNfsIpcClientMain::CloseAllRedirectedFiles(const char* pcPath) {
    Exchange<IPC_REQUEST_TYPE_CLOSE_ALL_RD_FILE>(this, pcPath).Send();
}

bool CNfsIpcClientMain::AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath,
                                                 long long iSrcFileOffset, long long iOffset,
                                                 long long iLength, char* pcStatus) {
    return Exchange<IPC_REQUEST_TYPE_ADD_RD_FILE_SEG>(this, pcPath, pcSourcePath, iSrcFileOffset,
                                                      iOffset, iLength)
        .SendForResult(pcStatus);
}

void CNfsIpcClientMain::ExportRedirectedFile(const char* pcPath, const char* pcExportPath) {
    Exchange<IPC_REQUEST_TYPE_EXPORT_RD_FILE>(this, pcPath, pcExportPath).Send();
}

void CNfsIpcClientMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath,
                                                 bool bMergeRange) {
    Exchange<IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO>(this, pcPath, pcExportPath, bMergeRange).Send();
}

void CNfsIpcClientMain::CloseCachedFileHandle(const char* pcPath) {
    Exchange<IPC_REQUEST_TYPE_CLOSE_FILE>(this, pcPath).Send();
}

void CNfsIpcClientMain::CloseAllCachedFileHandles(const char* pcPath) {
    Exchange<IPC_REQUEST_TYPE_CLOSE_ALL_FILE>(this, pcPath).Send();
}

// =================================================================================================
// Datastores
// =================================================================================================

int CNfsIpcClientMain::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    if (IsLackedByServer(IPC_REQUEST_TYPE_GET_VSPHERE_INFO)) {
        return 0;
    }
    return Exchange<IPC_REQUEST_TYPE_GET_VSPHERE_INFO>(this, pRuntimeParam, bPrintDetails)
        .SendForInt(0);
}

void CNfsIpcClientMain::AddVSphereInfo(const char* pcMoid, const char* pcHost, const char* pcPort,
                                       const char* pcUser, const char* pcPwd) {
    if (!IsLackedByServer(IPC_REQUEST_TYPE_ADD_VSPHERE_INFO)) {
        Exchange<IPC_REQUEST_TYPE_ADD_VSPHERE_INFO>(this, pcMoid, pcHost, pcPort, pcUser, pcPwd)
            .Send();
    }
}

void CNfsIpcClientMain::RemoveVSphereInfo(const char* pcMoid) {
    if (!IsLackedByServer(IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO)) {
        Exchange<IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO>(this, pcMoid).Send();
    }
}
