#include "NfsIpcServerMain.h"

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>

#include "IpcClient.h"
#include "IpcServerThread.h"
#include "StandardOutput.h"
#include "UtilitiesIpcServer.h"

CNfsIpcServerMain::CNfsIpcServerMain() = default;

CNfsIpcServerMain::CNfsIpcServerMain(const char* pcID, int iLogControl) {
    CNfsIpcServerMain::InitMemberVaribles(pcID, iLogControl);
}

CNfsIpcServerMain::~CNfsIpcServerMain() { CloseIpcServerThread(); }

void CNfsIpcServerMain::InitMemberVaribles(const char* pcID, int iLogControl) {
    CNfsMain::InitMemberVaribles(pcID, iLogControl);
    m_pIpcServerThread.reset();
}

std::unique_ptr<CUtilities> CNfsIpcServerMain::CreateUtilities() {
    return std::make_unique<CUtilitiesIpcServer>();
}

int CNfsIpcServerMain::GetAccessMode() const { return ACCESS_MODE_IPC_SERVER; }

void CNfsIpcServerMain::GetDescription(char* pcDescription) const {
    std::snprintf(pcDescription, VERSION_SIZE, "External NFS Server");
}

void CNfsIpcServerMain::GetIpcServerThreadChannel(char* pcChannel) {
    MakeIpcChannel(IPC_SERVER_NAME, pcChannel);
}

bool CNfsIpcServerMain::Initial(char* pcStatus) {
    const std::string sID = m_pRuntimeParam->GetID();
    if (sID == IPC_SERVER_NAME) {
        CUtilities::SetStatus(pcStatus, "Cannot use \"%s\" as ID", IPC_SERVER_NAME);
        return false;
    }
    const std::size_t iInvalid = sID.find_first_of("/ ");
    if (iInvalid != std::string::npos) {
        CUtilities::SetStatus(pcStatus, "Invalid char \"%c\" inside ID", sID[iInvalid]);
        return false;
    }
    return CNfsMain::Initial(pcStatus);
}

bool CNfsIpcServerMain::StartRemoteController(char* pcStatus) {
    LogArgu logArgu{"NfsIpcServerMain.StartRemoteController"};
    LogToFile("Start Remote Controller");
    if (m_pIpcServerThread != nullptr) {
        return true;
    }
    try {
        return OpenIpcServerThread(logArgu, pcStatus);
    } catch (const std::bad_alloc&) {
        CUtilities::GetLastErrorText(pcStatus, ENOMEM);
        return false;
    }
}

bool CNfsIpcServerMain::OpenIpcServerThread(const LogArgu& logArgu, char* pcStatus) {
    char cChannel[IPC_CHANNEL_SIZE];
    GetIpcServerThreadChannel(cChannel);
    CIpcClient probe(m_pUtilities.get(), m_pRuntimeParam.get(), &m_ProbeWaits);
    CIpcBasic::InitialRequestData(&probe.GetDataInst()->request, IPC_REQUEST_TYPE_GET_VERSION);
    char cIgnored[STATUS_SIZE] = "";
    if (probe.SendRequest(cChannel, cIgnored) && probe.GetMsgReply() != nullptr) {
        CUtilities::SetStatus(pcStatus, "Ipc channel is already created by others.");
        return false;
    }
    m_pIpcServerThread = std::make_unique<CIpcServerThread>();
    if (!m_pIpcServerThread->Open(cChannel, this, pcStatus)) {
        if (m_pRuntimeParam->IsLogError()) {
            m_pUtilities->LogError(m_pRuntimeParam.get(),
                                   "[%s] Fail to start ipc server thread. Reason=%s",
                                   logArgu.pcName, pcStatus);
        }
        return false;
    }
    return true;
}

void CNfsIpcServerMain::StopRemoteController() {
    LogToFile("Stop Remote Controller");
    // A start that asks an owner of the channel which never answers ends too.
    m_ProbeWaits.Refuse();
    m_ProbeWaits.Allow();
    CloseIpcServerThread();
}

void CNfsIpcServerMain::CloseIpcServerThread() {
    const CStandardOutput::ServiceStop stop;
    m_pIpcServerThread.reset();
}
