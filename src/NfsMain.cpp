#include "NfsMain.h"

#include <cerrno>
#include <cstdio>
#include <iterator>
#include <new>
#include <utility>

#include "DatagramSocket.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "Portmap.h"
#include "PortmapProg.h"
#include "RpcServer.h"
#include "RuntimeParam.h"
#include "ServerSocket.h"
#include "StandardOutput.h"
#include "Utilities.h"
#include "Version.h"

namespace {

constexpr long REGISTERED_VERSION = 3;

// A service of a start.
struct Service {
    int iProgram;
    int iPort;            // the default, which is one higher beside a system portmapper
    int iSlots;           // simultaneous TCP connections
    bool bRegistered;     // with a system portmapper
    const char* pcName;   // in texts
    const char* pcLabel;  // in front of the error line of a failure
};

// In the order of the sockets: opened, closed, registered and unregistered one after the other.
constexpr Service SERVICE_TABLE[] = {
    {CRpcProg::FIRST_PROG, CPortmap::PORT, 3, false, "PortMap", ""},
    {100003, 2049, 10, true, "NFS", "[NfsMain.StartServer] "},
    {100005, 1058, 3, true, "Mount", "[NfsMain.StartServer] "},
};
constexpr std::size_t PORTMAP_SERVICE = 0;
constexpr std::size_t NFS_SERVICE = 1;
constexpr std::size_t MOUNT_SERVICE = 2;

// The port of a service: the given one, or the default when that is below 1.
int GetPort(const Service& service, int iPort, bool bExternalPortmapper) {
    return iPort < 1 ? service.iPort + (bExternalPortmapper ? 1 : 0) : iPort;
}

// While it lives, nothing waits for a controller.
class WaitsRefused {
public:
    explicit WaitsRefused(CUtilities* pUtilities) : m_pUtilities(pUtilities) {
        m_pUtilities->RefuseWaits();
    }
    ~WaitsRefused() { m_pUtilities->AllowWaits(); }
    WaitsRefused(const WaitsRefused&) = delete;
    WaitsRefused& operator=(const WaitsRefused&) = delete;

private:
    CUtilities* m_pUtilities;
};

}  // namespace

CNfsMain::CNfsMain() = default;

CNfsMain::CNfsMain(const char* pcID, int iLogControl) {
    CNfsMain::InitMemberVaribles(pcID, iLogControl);
}

CNfsMain::~CNfsMain() {
    if (m_pUtilities != nullptr) {
        m_pUtilities->RefuseWaits();
    }
    CloseSockets();
}

void CNfsMain::InitMemberVaribles(const char* pcID, int iLogControl) {
    m_pRuntimeParam = std::make_unique<CRuntimeParam>(pcID, iLogControl);
    m_pUtilities = CreateUtilities();
}

std::unique_ptr<CUtilities> CNfsMain::CreateUtilities() { return std::make_unique<CUtilities>(); }

void CNfsMain::SetFileLogger(CFileLogger* pFileLogger) { m_pUtilities->SetFileLogger(pFileLogger); }

bool CNfsMain::SetCallback(std::shared_ptr<IHostCallback> pCallback, bool bQueue) {
    return m_pUtilities->SetCallback(std::move(pCallback), bQueue);
}

void CNfsMain::UnsetCallback(const IHostCallback* pCallback) {
    m_pUtilities->UnsetCallback(pCallback);
}

std::shared_ptr<IHostCallback> CNfsMain::GetCallback() { return m_pUtilities->GetCallback(); }

void CNfsMain::LogToFile(const char* pcMessage) {
    if (m_pUtilities->GetFileLogger() != nullptr) {
        m_pUtilities->LogInfo(m_pRuntimeParam.get(), "%s", pcMessage);
    }
}

// =================================================================================================
// Life
// =================================================================================================

bool CNfsMain::Initial(char* pcStatus) {
    LogToFile("Initial NFS");
    if (*m_pRuntimeParam->GetID() == '\0') {
        CUtilities::SetStatus(pcStatus, "ID is not defined");
        return false;
    }
    return InitialNetwork(pcStatus);
}

void CNfsMain::Terminate() {
    LogToFile("Terminate NFS");
    TerminateNetwork();
}

bool CNfsMain::InitialNetwork(char* /*pcStatus*/) {
    m_bNetworkInitialized = true;
    return true;
}

void CNfsMain::TerminateNetwork() { m_bNetworkInitialized = false; }

bool CNfsMain::StartRemoteController(char* /*pcStatus*/) {
    LogToFile("Start Remote Controller");
    if (m_pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(
            m_pRuntimeParam.get(),
            "[%s] No remote controller to start. It is NOT support in internal server mode.",
            "NfsMain.StartRemoteController");
    }
    return true;
}

void CNfsMain::StopRemoteController() {
    LogToFile("Stop Remote Controller");
    if (m_pRuntimeParam->IsLogGeneralInfo()) {
        m_pUtilities->LogInfo(
            m_pRuntimeParam.get(),
            "[%s] No remote controller to stop. It is NOT support in internal server mode.",
            "NfsMain.StopRemoteController");
    }
}

// =================================================================================================
// Starting and stopping the services
// =================================================================================================

bool CNfsMain::StartServer(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId,
                           bool bReadOnly, char* pcStatus) {
    const CRecursiveMutexLock lock(m_hMutexServer);
    if (m_bServerRunning) {
        CUtilities::SetStatus(pcStatus, "NFS already running");
        return false;
    }
    const auto failForMemory = [pcStatus] {
        char cReason[STATUS_SIZE] = "";
        CUtilities::GetLastErrorText(cReason, ENOMEM);
        CUtilities::SetStatus(pcStatus, "%s", cReason);
    };
    bool bStarted = false;
    try {
        bStarted = StartServices(iMountPort, iNfsPort, iUId, iGId, bReadOnly, pcStatus);
    } catch (const std::bad_alloc&) {
        failForMemory();
    }
    m_bServerRunning = bStarted;
    if (!bStarted) {
        try {
            StopServer();
        } catch (const std::bad_alloc&) {
            failForMemory();  // what is left over goes with the next stop
        }
    }
    return bStarted;
}

bool CNfsMain::StartServices(int iMountPort, int iNfsPort, unsigned int iUId, unsigned int iGId,
                             bool bReadOnly, char* pcStatus) {
    CUtilities* pUtilities = m_pUtilities.get();
    m_pMountProg = std::make_unique<CMountProg>(pUtilities);
    m_pPortmap = std::make_unique<CPortmap>(pUtilities, m_pRuntimeParam.get());
    static_assert(std::size(SERVICE_TABLE) == SERVICES);
    const bool bExternal = m_pPortmap->IsRunning();
    if (!bExternal) {
        m_pPortmapProg = std::make_unique<CPortmapProg>(pUtilities);
    }
    m_pNfsProg = std::make_unique<CNfsProg>(pUtilities);
    CRpcServer* pRpcServer = nullptr;
    {
        const CMutexLock lockRpc(m_hMutexRpcServer);
        m_pRpcServer = std::make_unique<CRpcServer>(pUtilities, m_pRuntimeParam.get());
        pRpcServer = m_pRpcServer.get();
    }
    SetLogControl(m_pRuntimeParam->GetLogControl());

    const Ports ports{SERVICE_TABLE[PORTMAP_SERVICE].iPort,
                      GetPort(SERVICE_TABLE[NFS_SERVICE], iNfsPort, bExternal),
                      GetPort(SERVICE_TABLE[MOUNT_SERVICE], iMountPort, bExternal)};
    if (pUtilities->GetFileLogger() != nullptr) {
        pUtilities->LogInfo(
            m_pRuntimeParam.get(),
            bExternal ? "Start NFS with external portmapper: MountPort = %d, NfsPort = %d"
                      : "Start NFS with internal portmapper: MountPort = %d, NfsPort = %d",
            ports[MOUNT_SERVICE], ports[NFS_SERVICE]);
    }
    if (m_pPortmapProg != nullptr) {
        for (const std::size_t i : {MOUNT_SERVICE, NFS_SERVICE}) {
            m_pPortmapProg->Set(static_cast<unsigned long>(SERVICE_TABLE[i].iProgram),
                                static_cast<unsigned long>(ports[i]));
        }
    }
    m_pNfsProg->SetUserID(iUId, iGId);
    m_pNfsProg->SetReadOnly(bReadOnly);
    const std::array<CRpcProg*, SERVICES> pProgs{m_pPortmapProg.get(), m_pNfsProg.get(),
                                                 m_pMountProg.get()};
    for (std::size_t i = 0; i < SERVICES; ++i) {
        if (pProgs[i] != nullptr) {
            pRpcServer->Set(SERVICE_TABLE[i].iProgram, pProgs[i]);
        }
    }
    for (SocketHandle& handle : m_Sockets) {
        handle.pServerSocket = std::make_unique<CServerSocket>();
        handle.pServerSocket->SetListener(pRpcServer);
        handle.pDatagramSocket = std::make_unique<CDatagramSocket>();
        handle.pDatagramSocket->SetListener(pRpcServer);
    }

    return OpenServices(ports, pcStatus) && (!bExternal || RegisterServices(pcStatus));
}

// The texts of its failures, for who looks for one that stands in a log:
//
//     "Fail to start PortMap daemon. Reason=%s"
//     "[%s] Fail to start NFS daemon. Reason=%s"
//     "[%s] Fail to start Mount daemon. Reason=%s"
//
//     "Fail to start PortMap daemon on port %d. Reason=%s"
//     "Fail to start NFS daemon on port %d. Reason=%s"
//     "Fail to start Mount daemon on port %d. Reason=%s"
//
//     "PortMap daemon failed to open port %d"
//     "NFS daemon failed to open port %d"
//     "Mount daemon failed to open port %d"
bool CNfsMain::OpenServices(const Ports& ports, char* pcStatus) {
    CUtilities* pUtilities = m_pUtilities.get();
    CRuntimeParam* pParam = m_pRuntimeParam.get();
    for (std::size_t i = 0; i < SERVICES; ++i) {
        if (i == PORTMAP_SERVICE && m_pPortmapProg == nullptr) {
            continue;  // the system's serves
        }
        const Service& service = SERVICE_TABLE[i];
        const auto lProgram = static_cast<unsigned long>(service.iProgram);
        char cReason[STATUS_SIZE] = "";
        if (m_Sockets[i].pServerSocket->Open(lProgram, ports[i], service.iSlots, pUtilities,
                                             cReason) &&
            m_Sockets[i].pDatagramSocket->Open(lProgram, ports[i], pUtilities, cReason)) {
            continue;
        }
        if (pParam->IsLogError()) {
            pUtilities->LogError(pParam, "%sFail to start %s daemon. Reason=%s", service.pcLabel,
                                 service.pcName, cReason);
        }
        if (pUtilities->GetFileLogger() != nullptr) {
            pUtilities->LogError(pParam, "Fail to start %s daemon on port %d. Reason=%s",
                                 service.pcName, ports[i], cReason);
        }
        CUtilities::SetStatus(pcStatus, "%s daemon failed to open port %d", service.pcName,
                              ports[i]);
        return false;
    }
    return true;
}

// The texts of its failures:
//
//     "Fail to register NFS daemon to external portmapper. Reason=%s"
//     "Fail to register Mount daemon to external portmapper. Reason=%s"
bool CNfsMain::RegisterServices(char* pcStatus) {
    bool bOk = true;
    for (std::size_t i = 0; i < SERVICES; ++i) {
        const Service& service = SERVICE_TABLE[i];
        char cReason[STATUS_SIZE] = "";
        if (!service.bRegistered ||
            m_pPortmap->Register(service.iProgram, REGISTERED_VERSION,
                                 m_Sockets[i].pServerSocket.get(), cReason)) {
            continue;
        }
        char cText[STATUS_SIZE] = "";
        CUtilities::SetStatus(cText, "Fail to register %s daemon to external portmapper. Reason=%s",
                              service.pcName, cReason);
        if (m_pUtilities->GetFileLogger() != nullptr) {
            m_pUtilities->LogError(m_pRuntimeParam.get(), "%s", cText);
        }
        if (bOk) {
            CUtilities::SetStatus(pcStatus, "%s", cText);
        }
        bOk = false;  // and on to the next one, so that the log tells of every failure
    }
    return bOk;
}

void CNfsMain::CloseSockets() {
    for (SocketHandle& handle : m_Sockets) {
        if (handle.pServerSocket != nullptr) {
            handle.pServerSocket->Interrupt();
        }
    }
    for (SocketHandle& handle : m_Sockets) {
        handle.pServerSocket.reset();
        handle.pDatagramSocket.reset();
    }
}

void CNfsMain::StopServer() {
    LogArgu logArgu{"NfsMain.StopServer"};
    const CStandardOutput::ServiceStop stop;
    const CRecursiveMutexLock lock(m_hMutexServer);
    const CUtilities::ExportStop exports(m_pUtilities.get());
    if (m_bServerRunning) {
        LogToFile("Stop NFS");
    }
    // Before the exports go, the hosts let go of the datastores that they are.
    try {
        m_pUtilities->RemoveAllVSphereInfoWithWebCtrl(m_pRuntimeParam.get());
    } catch (const std::bad_alloc&) {
        // A datastore that stays mounted must not keep the service from stopping.
    }
    m_bServerRunning = false;
    const WaitsRefused waits(m_pUtilities.get());
    CloseSockets();
    m_pMountProg.reset();
    m_pPortmapProg.reset();
    if (m_pPortmap != nullptr && m_pPortmap->IsRunning()) {
        for (const Service& service : SERVICE_TABLE) {
            if (service.bRegistered) {
                m_pPortmap->Unregister(service.iProgram, REGISTERED_VERSION, nullptr);
            }
        }
    }
    m_pPortmap.reset();
    m_pNfsProg.reset();
    {
        const CMutexLock lockRpc(m_hMutexRpcServer);
        m_pRpcServer.reset();
    }
    m_pUtilities->Reset(m_pRuntimeParam.get(), &logArgu);
}

// =================================================================================================
// What the server is
// =================================================================================================

int CNfsMain::GetAccessMode() const { return ACCESS_MODE_INTERNAL; }

void CNfsMain::GetVersion(char* pcVersion) const {
    std::snprintf(pcVersion, VERSION_SIZE, "%s", PRODUCT_VERSION);
}

void CNfsMain::GetDescription(char* pcDescription) const {
    std::snprintf(pcDescription, VERSION_SIZE, "Internal NFS Server");
}

bool CNfsMain::IsServerRunning() const { return m_bServerRunning; }

int CNfsMain::GetServerStatus() const {
    return SERVER_STATUS_ACCESSIBLE | (m_bServerRunning ? SERVER_STATUS_RUNNING : 0) |
           (m_bDebugActionEnabled ? SERVER_STATUS_DEBUG_ACTION : 0);
}

bool CNfsMain::SetDebugActionEnabled(bool bEnable) {
    m_bDebugActionEnabled = bEnable;
    return true;
}

void CNfsMain::EnableAutoShutdown(bool bEnable) { m_bAutoShutdownEnabled = bEnable; }

bool CNfsMain::RequestAutoShutdown() {
    if (!m_bAutoShutdownEnabled) {
        return false;
    }
    m_bAutoShutdownRequested = true;
    CStandardOutput::EndWaits();  // the front end that is to notice may be printing
    return true;
}

void CNfsMain::SetLogControl(int iLogControl) {
    m_pRuntimeParam->SetLogControl(iLogControl);
    const CMutexLock lock(m_hMutexRpcServer);
    if (m_pRpcServer != nullptr) {
        m_pRpcServer->SetLogControl(iLogControl);
    }
}

// =================================================================================================
// Tables
// =================================================================================================

bool CNfsMain::AddMountPoint(const char* pcPath, const char* pcExportName, char* pcStatus) {
    return AddMountPoint(pcPath, pcExportName, "", pcStatus);
}

bool CNfsMain::AddMountPoint(const char* pcPath, const char* pcExportName, const char* pcIpcID,
                             char* pcStatus) {
    LogArgu logArgu{"NfsMain.AddMountPoint"};
    return m_pUtilities->AddMountInfo(m_pRuntimeParam.get(), &logArgu, pcPath, pcExportName,
                                      pcIpcID, pcStatus);
}

void CNfsMain::RemoveMountPoint(const char* pcPath) {
    LogArgu logArgu{"NfsMain.RemoveMountPoint"};
    m_pUtilities->RemoveMountInfoByLocalMountPath(m_pRuntimeParam.get(), &logArgu, pcPath);
}

void CNfsMain::AddSessionInfo(const char* pcSessionID, const char* pcLocalMountPath) {
    m_pUtilities->AddSessionInfo(pcSessionID, pcLocalMountPath);
}

void CNfsMain::RemoveSessionInfo(const char* pcSessionID) {
    m_pUtilities->RemoveSessionInfo(pcSessionID);
}

bool CNfsMain::IsSessionExists(const char* pcSessionID) {
    return IsLocalSessionExists(pcSessionID);
}

bool CNfsMain::IsLocalSessionExists(const char* pcSessionID) {
    return m_pUtilities->IsSessionExists(pcSessionID);
}

void CNfsMain::OpenRedirectedFile(const char* pcPath, long long iSize, bool bCreateInfoFile,
                                  int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB) {
    m_pUtilities->OpenRedirectedFile(m_pRuntimeParam.get(), pcPath, iSize, bCreateInfoFile,
                                     iInfoFileSegmentSizeMB, iInfoFileCheckPointSizeMB);
}

void CNfsMain::CloseRedirectedFile(const char* pcPath) {
    m_pUtilities->CloseRedirectedFile(m_pRuntimeParam.get(), pcPath);
}

void CNfsMain::CloseAllRedirectedFiles(const char* pcPath) {
    m_pUtilities->CloseAllRedirectedFiles(m_pRuntimeParam.get(), pcPath);
}

bool CNfsMain::AddRedirectedFileSegment(const char* pcPath, const char* pcSourcePath,
                                        long long iSrcFileOffset, long long iOffset,
                                        long long iLength, char* pcStatus) {
    return m_pUtilities->AddRedirectedFileSegment(m_pRuntimeParam.get(), pcPath, pcSourcePath,
                                                  iSrcFileOffset, iOffset, iLength, pcStatus);
}

void CNfsMain::ExportRedirectedFile(const char* pcPath, const char* pcExportPath) {
    m_pUtilities->ExportRedirectedFile(m_pRuntimeParam.get(), pcPath, pcExportPath);
}

void CNfsMain::ExportRedirectedFileInfo(const char* pcPath, const char* pcExportPath,
                                        bool bMergeRange) {
    m_pUtilities->ExportRedirectedFileInfo(m_pRuntimeParam.get(), pcPath, pcExportPath,
                                           bMergeRange);
}

void CNfsMain::CloseCachedFileHandle(const char* pcPath) {
    LogArgu logArgu{"NfsMain.CloseCachedFileHandle"};
    m_pUtilities->CloseCachedFileHandle(m_pRuntimeParam.get(), &logArgu, pcPath);
}

void CNfsMain::CloseAllCachedFileHandles(const char* pcPath) {
    LogArgu logArgu{"NfsMain.CloseAllCachedFileHandles"};
    m_pUtilities->CloseAllCachedFileHandles(m_pRuntimeParam.get(), &logArgu, pcPath);
}

int CNfsMain::GetMountInfo(CRuntimeParam* pRuntimeParam, bool bClientMountedOnly,
                           bool bPrintDetails) {
    return m_pUtilities->GetMountInfo(pRuntimeParam, bClientMountedOnly, bPrintDetails);
}

int CNfsMain::GetMountInfo(bool bClientMountedOnly, bool bPrintDetails) {
    return GetMountInfo(m_pRuntimeParam.get(), bClientMountedOnly, bPrintDetails);
}

int CNfsMain::GetSessionInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return m_pUtilities->GetSessionInfo(pRuntimeParam, bPrintDetails);
}

int CNfsMain::GetSessionInfo(bool bPrintDetails) {
    return GetSessionInfo(m_pRuntimeParam.get(), bPrintDetails);
}

void CNfsMain::RunTestMode(CRuntimeParam* pRuntimeParam, const char* pcPath, long long iSize) {
    m_pUtilities->RunTestMode(pRuntimeParam, pcPath, iSize);
}

void CNfsMain::RunTestMode(const char* pcPath, long long iSize) {
    RunTestMode(m_pRuntimeParam.get(), pcPath, iSize);
}

int CNfsMain::GetVSphereInfo(CRuntimeParam* pRuntimeParam, bool bPrintDetails) {
    return m_pUtilities->GetVSphereInfo(pRuntimeParam, bPrintDetails);
}

int CNfsMain::GetVSphereInfo(bool bPrintDetails) {
    return GetVSphereInfo(m_pRuntimeParam.get(), bPrintDetails);
}

void CNfsMain::AddVSphereInfo(const char* pcMoid, const char* pcHost, const char* pcPort,
                              const char* pcUser, const char* pcPwd) {
    m_pUtilities->AddVSphereInfo(pcMoid, pcHost, pcPort, pcUser, pcPwd);
}

void CNfsMain::RemoveVSphereInfo(const char* pcMoid) { m_pUtilities->RemoveVSphereInfo(pcMoid); }
