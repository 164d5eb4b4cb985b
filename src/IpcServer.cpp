#include "IpcServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <new>
#include <vector>

#include "ExitCleanup.h"
#include "NfsMain.h"
#include "RuntimeParam.h"

namespace {

constexpr int BACKLOG = 5;
constexpr int SOCKET_FILE_MODE = 0777;    // processes of other users may connect
constexpr std::size_t MAX_WAITING = 256;  // silent connections; one more drops the oldest
constexpr int PAUSE_MS = 100;

constexpr std::size_t MAX_REPORTS = 64;  // whose requesters do not take their lines
constexpr std::chrono::milliseconds PATIENCE{
    250};  // of all requests, with the first such requester
constexpr std::size_t MAX_FORWARDS = 256;
constexpr std::chrono::milliseconds EXPORT_STEP{50};  // between two looks at what must not wait

// The label of the lines about a message.
constexpr LogArgu MESSAGE_ARGU{"IpcServer.ReadRequest"};

// Overwrites a text at the end of its life.
class Wiper {
public:
    Wiper(char* pc, std::size_t iSize) : m_pc(pc), m_iSize(iSize) {}
    ~Wiper() { explicit_bzero(m_pc, m_iSize); }
    Wiper(const Wiper&) = delete;
    Wiper& operator=(const Wiper&) = delete;

private:
    char* m_pc;
    std::size_t m_iSize;
};

bool IsExport(const IpcDataBuf& request) {
    const auto header = request.Get<Ipc_Header>();
    return header.iGroup == IPC_GROUP_REQUEST &&
           (header.iType == IPC_REQUEST_TYPE_EXPORT_RD_FILE ||
            header.iType == IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO);
}

// Whether the message that has come, if any, is one that a shutdown needs.
bool IsUrgent(int iSocket) {
    Ipc_Header header{};
    if (recv(iSocket, &header, sizeof(header), MSG_PEEK | MSG_DONTWAIT) !=
            static_cast<ssize_t>(sizeof(header)) ||
        header.iGroup != IPC_GROUP_REQUEST) {
        return false;
    }
    switch (header.iType) {
        case IPC_REQUEST_TYPE_GET_VERSION:
        case IPC_REQUEST_TYPE_GET_DESCRIPTION:
        case IPC_REQUEST_TYPE_AUTO_SHUTDOWN:
            return true;
        default:
            return false;
    }
}

}  // namespace

CIpcServer::Connection::~Connection() { close(m_iSocket); }

CIpcServer::CIpcServer(CNfsMain* pNfsHandle)
    : CIpcBasic(pNfsHandle->GetUtils(), pNfsHandle->GetRuntimeParam()), m_pNfsHandle(pNfsHandle) {
    m_IpcServerInst.iSocket = -1;
    if (pipe(m_iWake) == 0) {
        for (const int fd : m_iWake) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
}

CIpcServer::~CIpcServer() {
    Close();
    for (const int fd : m_iWake) {
        if (fd != -1) {
            close(fd);
        }
    }
}

// =================================================================================================
// Opening and closing
// =================================================================================================

bool CIpcServer::Open(const char* pcChannel) {
    char cError[STATUS_SIZE] = "";
    const bool bOk = Open(pcChannel, cError);
    if (!bOk && m_pRuntimeParam->IsLogError()) {
        LogError("[%s] %s", "IpcServer.Open", cError);
    }
    return bOk;
}

bool CIpcServer::Open(const char* pcChannel, char* pcError) {
    LogArgu logArgu{"IpcServer.Open"};
    if (pcChannel == nullptr) {
        CUtilities::SetStatus(pcError, "Channel is not defined");
        return false;
    }
    if (m_bOpened) {
        CUtilities::SetStatus(pcError, "Channel already opened");
        return false;
    }
    if (m_iWake[0] == -1) {
        return Fail(pcError, "Fail to listen ipc server socket. %s",
                    EMFILE);  // nothing could end it
    }
    if (m_pRuntimeParam->IsLogIpcState()) {
        LogInfo("[%s] Open channel: %s", logArgu.pcName, pcChannel);
    }
    m_bOpened = true;
    if (m_pNfsHandle->GetAccessMode() == ACCESS_MODE_IPC_CLIENT) {
        m_pForwarder = std::make_unique<CIpcWorker>(&m_Waits);
    }
    if (!OpenSocket(&logArgu, pcChannel, pcError)) {
        Close();
        return false;
    }
    return true;
}

bool CIpcServer::OpenSocket(LogArgu* pLogArgu, const char* pcChannel, char* pcError) {
    IpcServerInst& inst = m_IpcServerInst;
    inst.iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int iError = errno;
    inst.socketAddr = {};
    inst.socketAddr.sun_family = AF_UNIX;
    if (!SetIpcText(inst.socketAddr.sun_path, pcChannel)) {
        inst.socketAddr.sun_path[0] = '\0';  // a cut name would be somebody else's channel
        return Fail(pcError, "Fail to bind ipc server socket. %s", ENAMETOOLONG);
    }
    CExitCleanup::AddFile(pcChannel);
    m_bFile = true;
    std::remove(pcChannel);  // left by an earlier run
    if (m_pRuntimeParam->IsLogIpcState()) {
        LogInfo("[%s] Bind ipc server socket", pLogArgu->pcName);
    }
    if (inst.iSocket == -1) {
        return Fail(pcError, "Fail to bind ipc server socket. %s", iError);
    }
    if (bind(inst.iSocket, reinterpret_cast<const sockaddr*>(&inst.socketAddr),
             sizeof(inst.socketAddr)) == -1) {
        return Fail(pcError, "Fail to bind ipc server socket. %s", errno);
    }
    if (m_pUtilities->OS_SetFileMode(m_pRuntimeParam, pLogArgu, pcChannel, SOCKET_FILE_MODE,
                                     pcError) == -1) {
        return false;
    }
    if (listen(inst.iSocket, BACKLOG) == -1) {
        return Fail(pcError, "Fail to listen ipc server socket. %s", errno);
    }
    return true;
}

bool CIpcServer::Close() {
    char cError[STATUS_SIZE] = "";
    const bool bOk = Close(cError);
    if (!bOk && m_pRuntimeParam->IsLogError()) {
        LogError("[%s] %s", "IpcServer.Close", cError);
    }
    return bOk;
}

bool CIpcServer::Close(char* /*pcError*/) {
    if (!m_bOpened.exchange(false)) {
        return true;
    }
    // Before any connection ends: its peer then finds no channel, and makes its own without ours
    // being removed after that.
    RemoveFile();
    m_Waits.Refuse();
    m_pForwarder.reset();
    {
        const CUtilities::ExportStop stop(m_pUtilities);
        m_pExporter.reset();
    }
    m_pReport.reset();
    m_vReports.clear();
    m_Waits.Allow();
    m_vWaiting.clear();
    IpcServerInst& inst = m_IpcServerInst;
    if (inst.iSocket != -1) {
        shutdown(inst.iSocket, SHUT_RDWR);
        close(inst.iSocket);
    }
    inst = {};
    inst.iSocket = -1;
    return true;
}

void CIpcServer::RemoveFile() {
    LogArgu logArgu{"IpcServer.Close"};
    if (!m_bFile.exchange(false)) {
        return;
    }
    const char* pcChannel = m_IpcServerInst.socketAddr.sun_path;
    std::remove(pcChannel);
    if (CUtilities::OS_IsFileExists(pcChannel)) {
        m_pUtilities->OS_FileRemove(m_pRuntimeParam, &logArgu, pcChannel, nullptr);
    }
    CExitCleanup::Forget(pcChannel);
}

void CIpcServer::Interrupt() {
    m_bInterrupted = true;
    RemoveFile();  // before exchanges, and with them connections, end
    m_Waits.Refuse();
    const char c = 0;
    [[maybe_unused]] const ssize_t iWritten = write(m_iWake[1], &c, 1);  // stays readable
}

// =================================================================================================
// Serving a connection
// =================================================================================================

void CIpcServer::Pause() {
    struct pollfd wake {
        m_iWake[0], POLLIN, 0
    };
    poll(&wake, 1, PAUSE_MS);
}

bool CIpcServer::ReadRequest() {
    // Its lines have always carried this name; logs are searched for it.
    const LogArgu logArgu{"IpcServer.SendRequest"};
    if (m_bAutoShutdownRequested) {
        if (m_pRuntimeParam->IsLogIpcState()) {
            LogInfo("[%s] Waiting to auto shutdown", logArgu.pcName);
        }
        Pause();
        return false;
    }
    char cError[STATUS_SIZE] = "";
    const bool bOk = ReadRequest(cError);
    if (!bOk) {
        if (m_pRuntimeParam->IsLogError()) {
            LogError("[%s] %s", logArgu.pcName, cError);
        }
    }
    if (m_bAutoShutdownRequested) {
        m_pNfsHandle->RequestAutoShutdown();
    }
    return bOk;
}

// The log control may change while a connection is waited for, so it is asked for each line.
void CIpcServer::LogState(const char* pcFmt, const LogArgu& logArgu) {
    if (m_pRuntimeParam->IsLogIpcState()) {
        LogInfo(pcFmt, logArgu.pcName);
    }
}

bool CIpcServer::ReadRequest(char* pcError) {
    LogArgu logArgu = MESSAGE_ARGU;
    LogState("[%s] Start", logArgu);
    if (!m_bOpened) {
        CUtilities::SetStatus(pcError, "Channel not yet opened.");
        return false;
    }
    if (m_IpcServerInst.iSocket == -1) {
        LogState("[%s] Socket closed", logArgu);
        return true;
    }
    LogState("[%s] Accept ipc request", logArgu);
    try {
        const ConnectionPtr pConnection = WaitForMessage(pcError);
        if (m_bInterrupted) {
            LogState("[%s] Socket closed", logArgu);
            return true;
        }
        if (pConnection == nullptr) {
            Pause();  // a failure that lasts must not keep a core busy
            return false;
        }
        LogState("[%s] Read ipc request", logArgu);
        return ServeConnection(&logArgu, pConnection, pcError);
    } catch (const std::bad_alloc&) {
        Pause();
        return Fail(pcError, "Fail to read ipc request. %s", ENOMEM);
    }
}

CIpcServer::ConnectionPtr CIpcServer::WaitForMessage(char* pcError) {
    for (;;) {
        std::vector<struct pollfd> vPoll;
        vPoll.push_back({m_iWake[0], POLLIN, 0});
        vPoll.push_back({m_IpcServerInst.iSocket, POLLIN, 0});
        for (const ConnectionPtr& pConnection : m_vWaiting) {
            vPoll.push_back({pConnection->Get(), POLLIN, 0});
        }
        const int iReady = poll(vPoll.data(), vPoll.size(), -1);
        const int iError = errno;
        if (m_bInterrupted) {
            return nullptr;
        }
        if (iReady == -1) {
            if (iError == EINTR) {
                continue;
            }
            Fail(pcError, "Fail to accept ipc request. %s", iError);
            return nullptr;
        }
        const auto itReady = std::find_if(vPoll.begin() + 2, vPoll.end(),
                                          [](const auto& entry) { return entry.revents != 0; });
        if (itReady != vPoll.end()) {
            const auto itWaiting = m_vWaiting.begin() + (itReady - vPoll.begin() - 2);
            ConnectionPtr pConnection = *itWaiting;
            m_vWaiting.erase(itWaiting);
            return pConnection;
        }
        if (vPoll[1].revents != 0 && !Accept(pcError)) {
            return nullptr;
        }
    }
}

bool CIpcServer::Accept(char* pcError) {
    const int iConnection = accept4(m_IpcServerInst.iSocket, nullptr, nullptr, SOCK_CLOEXEC);
    if (iConnection == -1) {
        return Fail(pcError, "Fail to accept ipc request. %s", errno);
    }
    auto pOwner = std::make_unique<Connection>(iConnection);
    m_vWaiting.push_back(std::move(pOwner));
    if (m_vWaiting.size() > MAX_WAITING) {
        m_vWaiting.pop_front();
    }
    return true;
}

bool CIpcServer::ServeConnection(LogArgu* pLogArgu, const ConnectionPtr& pConnection,
                                 char* pcError) {
    std::erase_if(m_vReports, [](const auto& pReport) { return pReport->IsDone(); });
    IpcDataInst& data = m_IpcServerInst.data;
    const ssize_t iRead = recv(pConnection->Get(), data.request.cBuf, sizeof(data.request.cBuf), 0);
    if (iRead == -1) {
        return Fail(pcError, "Fail to read ipc request. %s", errno);
    }
    if (iRead == 0) {
        return true;  // closed without a message: what an earlier one left is not executed again
    }
    data.request.lDataLen = static_cast<std::int32_t>(iRead);
    if (m_pForwarder != nullptr && data.request.Get<Ipc_Header>().iGroup == IPC_GROUP_REQUEST) {
        return Forward(pConnection, pcError);
    }
    if (IsExport(data.request) && Export(pConnection)) {
        return true;
    }
    ParseData(pLogArgu, &data);
    const std::shared_ptr<CIpcReport> pReport = std::move(m_pReport);
    if (pReport == nullptr || !pReport->IsUsed()) {
        return SendReply(*pLogArgu, *pConnection, data.reply, pcError);
    }
    m_vReports.reserve(m_vReports.size() + 1);
    pReport->Deliver([this, pConnection, reply = data.reply] { SendReply(*pConnection, reply); });
    if (!pReport->IsDone()) {
        m_vReports.push_back(pReport);
    }
    return true;
}

bool CIpcServer::Forward(const ConnectionPtr& pConnection, char* pcError) {
    if (m_pForwarder->GetCount() >= MAX_FORWARDS) {
        return Fail(pcError, "Fail to read ipc request. %s", EAGAIN);
    }
    IpcDataBuf& request = m_IpcServerInst.data.request;
    const auto pData = std::make_shared<IpcDataInst>(m_IpcServerInst.data);
    if (request.Get<Ipc_Header>().iType == IPC_REQUEST_TYPE_ADD_VSPHERE_INFO) {
        explicit_bzero(request.cBuf + offsetof(IpcRequest_AddVSphereInfo, cPwd), IPC_ID_SIZE);
    }
    const auto forward = [this, pConnection, pData] {
        const CIpcWait wait(&m_Waits);
        LogArgu logArgu = MESSAGE_ARGU;
        ParseData(&logArgu, pData.get());
        // Without an answer whoever asks for the version learns that the channel is free.
        if (!wait.IsEnded()) {
            SendReply(*pConnection, pData->reply);
        }
    };
    if (!m_pForwarder->Add(forward)) {
        // On this thread it would hold up the callbacks that the server may be waiting for.
        CUtilities::GetLastErrorText(pData->reply.cBuf + offsetof(IpcReply_Message, cMsg), EAGAIN);
        ReplyText(pData.get(), IPC_REPLY_TYPE_EXPT);
        return SendReply(MESSAGE_ARGU, *pConnection, pData->reply, pcError);
    }
    return true;
}

bool CIpcServer::Export(const ConnectionPtr& pConnection) {
    if (m_pExporter == nullptr) {
        m_pExporter = std::make_unique<CIpcWorker>(&m_Waits);
    }
    const auto pData = std::make_shared<IpcDataInst>(m_IpcServerInst.data);
    const bool bOk = m_pExporter->Add([this, pConnection, pData] {
        LogArgu logArgu = MESSAGE_ARGU;
        ParseData(&logArgu, pData.get());
        SendReply(*pConnection, pData->reply);
    });
    while (bOk && m_pExporter->GetCount() > 0 && !m_bInterrupted) {
        m_pExporter->WaitForAll(EXPORT_STEP);
        ServeUrgent();
    }
    return bOk;
}

void CIpcServer::ServeUrgent() {
    char cError[STATUS_SIZE] = "";
    struct pollfd backlog {
        m_IpcServerInst.iSocket, POLLIN, 0
    };
    // Those that do not fit wait in the backlog, as without an export.
    while (m_vWaiting.size() < MAX_WAITING && poll(&backlog, 1, 0) > 0 && Accept(cError)) {
    }
    for (std::size_t i = 0; i < m_vWaiting.size() && !m_bAutoShutdownRequested;) {
        const ConnectionPtr pConnection = m_vWaiting[i];
        if (!IsUrgent(pConnection->Get())) {
            ++i;
            continue;
        }
        m_vWaiting.erase(m_vWaiting.begin() + static_cast<std::ptrdiff_t>(i));
        LogArgu logArgu = MESSAGE_ARGU;
        LogState("[%s] Start", logArgu);
        LogState("[%s] Accept ipc request", logArgu);
        LogState("[%s] Read ipc request", logArgu);
        if (!ServeConnection(&logArgu, pConnection, cError) && m_pRuntimeParam->IsLogError()) {
            LogError("[%s] %s", "IpcServer.SendRequest", cError);
        }
    }
    if (m_bAutoShutdownRequested) {
        m_pNfsHandle->RequestAutoShutdown();  // its stop ends the export
    }
}

bool CIpcServer::SendReply(const LogArgu& logArgu, const Connection& connection,
                           const IpcDataBuf& reply, char* pcError) {
    LogState("[%s] Send ipc reply", logArgu);
    const ssize_t iSent =
        send(connection.Get(), reply.cBuf, static_cast<std::size_t>(reply.lDataLen), MSG_NOSIGNAL);
    if (iSent == -1) {
        return Fail(pcError, "Fail to send ipc reply. %s", errno);
    }
    if (iSent != reply.lDataLen) {
        LogError("Fail to send ipc complete reply. (Send = %d, Target = %ld)",
                 static_cast<int>(iSent), static_cast<long>(reply.lDataLen));
    }
    return true;
}

void CIpcServer::SendReply(const Connection& connection, const IpcDataBuf& reply) {
    char cError[STATUS_SIZE] = "";
    if (!SendReply(MESSAGE_ARGU, connection, reply, cError) && m_pRuntimeParam->IsLogError()) {
        LogError("[%s] %s", "IpcServer.SendRequest", cError);
    }
}

// =================================================================================================
// Executing a message
// =================================================================================================

void CIpcServer::ReplyBool(IpcDataInst* pData, bool bVal) {
    InitialReplyData(&pData->reply, IPC_REPLY_TYPE_BOOL);
    auto reply = pData->reply.Get<IpcReply_Int>();  // the whole word, so that its padding is zero
    reply.iVal = bVal ? 1 : 0;
    pData->reply.Put(reply);
}

void CIpcServer::ReplyInt(IpcDataInst* pData, int iVal) {
    InitialReplyData(&pData->reply, IPC_REPLY_TYPE_INT);
    auto reply = pData->reply.Get<IpcReply_Int>();
    reply.iVal = iVal;
    pData->reply.Put(reply);
}

void CIpcServer::ReplyText(IpcDataInst* pData, IPC_REPLY_TYPE iType) {
    InitialReplyData(&pData->reply, iType);
}

void CIpcServer::ReplyResult(IpcDataInst* pData, bool bOk) {
    if (bOk) {
        ReplyBool(pData, true);
    } else {
        ReplyText(pData, IPC_REPLY_TYPE_EXPT);
    }
}

void CIpcServer::ParseData(LogArgu* pLogArgu, IpcDataInst* pData) {
    PrintData(pLogArgu, &pData->request);
    std::memset(pData->reply.cBuf, 0, sizeof(pData->reply.cBuf));
    const auto fail = [pData](const char* pcReason) {
        std::memset(pData->reply.cBuf, 0, sizeof(pData->reply.cBuf));
        CUtilities::SetStatus(pData->reply.cBuf + offsetof(IpcReply_Message, cMsg), "%s", pcReason);
        ReplyText(pData, IPC_REPLY_TYPE_EXPT);
    };
    try {
        Execute(pData);
    } catch (const std::bad_alloc&) {
        char cReason[STATUS_SIZE] = "";
        CUtilities::GetLastErrorText(cReason, ENOMEM);
        fail(cReason);
    } catch (const std::exception& exception) {
        fail(exception.what());
    } catch (...) {
        fail("Unknown exception");
    }
    PrintData(pLogArgu, &pData->reply);
}

void CIpcServer::Execute(IpcDataInst* pData) {
    char* pcText = pData->reply.cBuf + offsetof(IpcReply_Message, cMsg);
    const auto header = pData->request.Get<Ipc_Header>();
    switch (header.iGroup) {
        case IPC_GROUP_REQUEST:
            ProcessRequest(pData, header.iType);
            break;
        case IPC_GROUP_CALLBACK:
            ProcessCallback(pData, header.iType);
            break;
        case IPC_GROUP_REPLY:
            CUtilities::SetStatus(pcText, "Reply action group is not support (%d)", header.iType);
            ReplyText(pData, IPC_REPLY_TYPE_EXPT);
            break;
        default:
            CUtilities::SetStatus(pcText, "Unknown action group: %d (%d)", header.iGroup,
                                  header.iType);
            ReplyText(pData, IPC_REPLY_TYPE_EXPT);
            break;
    }
}

// Own identity, and the requester's channel for the lines.  What a controlling process forwards
// bears its own identity, so that the server sends the lines to it.
std::shared_ptr<CRuntimeParam> CIpcServer::MakeListingParam(const std::string& sIpcID,
                                                            bool bLines) {
    if (m_pForwarder != nullptr) {
        return std::make_shared<CRuntimeParam>(m_pRuntimeParam->GetID(),
                                               m_pRuntimeParam->GetLogControl());
    }
    // Every other request has waited for a requester that does not take its lines; once is enough.
    m_pReport = std::make_shared<CIpcReport>(
        m_pRuntimeParam, &m_Waits, m_vReports.empty() ? PATIENCE : std::chrono::milliseconds(0));
    m_pReport->SetIpcID(sIpcID.c_str());
    if (bLines && m_vReports.size() >= MAX_REPORTS) {
        m_pReport->Mute();
        if (m_pRuntimeParam->IsLogError()) {
            LogError("[%s] Lines are not sent to \"%s\". Reason=%d requests wait for controllers",
                     MESSAGE_ARGU.pcName, sIpcID.c_str(), static_cast<int>(MAX_REPORTS));
        }
    }
    return m_pReport;
}

void CIpcServer::ProcessRequest(IpcDataInst* pData, int iType) {
    CNfsMain* pMain = m_pNfsHandle;
    const IpcDataBuf& buf = pData->request;
    char* pcText = pData->reply.cBuf + offsetof(IpcReply_Message, cMsg);
    switch (iType) {
        case IPC_REQUEST_TYPE_GET_VERSION:
            pMain->GetVersion(pcText);
            ReplyText(pData, IPC_REPLY_TYPE_MSG);
            break;
        case IPC_REQUEST_TYPE_GET_DESCRIPTION:
            pMain->GetDescription(pcText);
            ReplyText(pData, IPC_REPLY_TYPE_MSG);
            break;
        case IPC_REQUEST_TYPE_IS_SERVER_RUNNING:
            ReplyBool(pData, pMain->IsServerRunning());
            break;
        case IPC_REQUEST_TYPE_START: {
            const auto request = buf.Get<IpcRequest_Start>();
            ReplyResult(pData, pMain->StartServer(
                                   request.iMountPort, request.iNfsPort, request.iUId, request.iGId,
                                   buf.GetBool(offsetof(IpcRequest_Start, bReadOnly)), pcText));
            break;
        }
        case IPC_REQUEST_TYPE_ADD_MOUNT_POINT: {
            const auto request = buf.Get<IpcRequest_AddMountPoint>();
            ReplyResult(pData, pMain->AddMountPoint(GetIpcText(request.cLocalMountFolder).c_str(),
                                                    GetIpcText(request.cExportName).c_str(),
                                                    GetIpcText(request.cIpcID).c_str(), pcText));
            break;
        }
        case IPC_REQUEST_TYPE_REMOVE_MOUNT_POINT: {
            const auto request = buf.Get<IpcRequest_RemoveMountPoint>();
            pMain->RemoveMountPoint(GetIpcText(request.cLocalMountFolder).c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_ADD_SESSION: {
            const auto request = buf.Get<IpcRequest_AddSession>();
            pMain->AddSessionInfo(GetIpcText(request.cSessionID).c_str(),
                                  GetIpcText(request.cLocalMountFolder).c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_REMOVE_SESSION: {
            const auto request = buf.Get<IpcRequest_RemoveSession>();
            pMain->RemoveSessionInfo(GetIpcText(request.cSessionID).c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_IS_SESSION_EXIST: {
            const auto request = buf.Get<IpcRequest_IsSessionExists>();
            ReplyBool(pData, pMain->IsSessionExists(GetIpcText(request.cSessionID).c_str()));
            break;
        }
        case IPC_REQUEST_TYPE_OPEN_RD_FILE: {
            const auto request = buf.Get<IpcRequest_OpenRedirectedFile>();
            pMain->OpenRedirectedFile(
                GetIpcText(request.cPath).c_str(), request.iSize,
                buf.GetBool(offsetof(IpcRequest_OpenRedirectedFile, bCreateInfoFile)),
                request.iInfoFileSegmentSizeMB, request.iInfoFileCheckPointSizeMB);
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_CLOSE_RD_FILE: {
            const auto request = buf.Get<IpcRequest_CloseRedirectedFile>();
            pMain->CloseRedirectedFile(GetIpcText(request.cPath).c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_CLOSE_ALL_RD_FILE: {
            const auto request = buf.Get<IpcRequest_CloseAllRedirectedFiles>();
            pMain->CloseAllRedirectedFiles(GetIpcText(request.cPath).c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_ADD_RD_FILE_SEG: {
            const auto request = buf.Get<IpcRequest_AddRedirectedFileSegment>();
            ReplyResult(pData,
                        pMain->AddRedirectedFileSegment(
                            GetIpcText(request.cPath).c_str(), GetIpcText(request.cSrcPath).c_str(),
                            request.iSrcFileOffset, request.iOffset, request.iLength, pcText));
            break;
        }
        case IPC_REQUEST_TYPE_EXPORT_RD_FILE: {
            const auto request = buf.Get<IpcRequest_ExportRedirectedFile>();
            pMain->ExportRedirectedFile(GetIpcText(request.cPath).c_str(),
                                        GetIpcText(request.cExportPath).c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO: {
            const auto request = buf.Get<IpcRequest_ExportRedirectedFileInfo>();
            pMain->ExportRedirectedFileInfo(
                GetIpcText(request.cPath).c_str(), GetIpcText(request.cExportPath).c_str(),
                buf.GetBool(offsetof(IpcRequest_ExportRedirectedFileInfo, bMergeRange)));
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_CLOSE_FILE: {
            const auto request = buf.Get<IpcRequest_CloseOpenedFile>();
            pMain->CloseCachedFileHandle(GetIpcText(request.cPath).c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_CLOSE_ALL_FILE: {
            const auto request = buf.Get<IpcRequest_CloseAllOpenedFiles>();
            pMain->CloseAllCachedFileHandles(GetIpcText(request.cPath).c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_SET_LOG_CTRL:
            pMain->SetLogControl(buf.Get<IpcRequest_SetLogControl>().iLogControl);
            ReplyBool(pData, true);
            break;
        case IPC_REQUEST_TYPE_GET_MOUNT_INFO: {
            const auto request = buf.Get<IpcRequest_GetMountInfo>();
            const bool bLines = buf.GetBool(offsetof(IpcRequest_GetMountInfo, bPrintDetails));
            const auto pParam = MakeListingParam(GetIpcText(request.cIpcID), bLines);
            ReplyInt(pData, pMain->GetMountInfo(
                                pParam.get(),
                                buf.GetBool(offsetof(IpcRequest_GetMountInfo, bClientMountedOnly)),
                                bLines));
            break;
        }
        case IPC_REQUEST_TYPE_GET_SESSION_INFO: {
            const auto request = buf.Get<IpcRequest_GetSessionInfo>();
            const bool bLines = buf.GetBool(offsetof(IpcRequest_GetSessionInfo, bPrintDetails));
            const auto pParam = MakeListingParam(GetIpcText(request.cIpcID), bLines);
            ReplyInt(pData, pMain->GetSessionInfo(pParam.get(), bLines));
            break;
        }
        case IPC_REQUEST_TYPE_RUN_TEST_MODE: {
            const auto request = buf.Get<IpcRequest_RunTestMode>();
            const auto pParam = MakeListingParam(GetIpcText(request.cIpcID), true);
            pMain->RunTestMode(pParam.get(), GetIpcText(request.cDirPath).c_str(),
                               request.iFileSize);
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_AUTO_SHUTDOWN: {
            const bool bEnabled = pMain->IsAutoShutdownEnabled();
            if (bEnabled) {
                m_bAutoShutdownRequested = true;
            }
            ReplyBool(pData, bEnabled);
            break;
        }
        case IPC_REQUEST_TYPE_GET_SERVER_STATUS:
            ReplyInt(pData, pMain->GetServerStatus());
            break;
        case IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED:
            pMain->SetDebugActionEnabled(buf.GetBool(offsetof(IpcRequest_SetBoolean, bVal)));
            ReplyBool(pData, true);
            break;
        case IPC_REQUEST_TYPE_GET_VSPHERE_INFO: {
            const auto request = buf.Get<IpcRequest_GetVSphereInfo>();
            const bool bLines = buf.GetBool(offsetof(IpcRequest_GetVSphereInfo, bPrintDetails));
            const auto pParam = MakeListingParam(GetIpcText(request.cIpcID), bLines);
            ReplyInt(pData, pMain->GetVSphereInfo(pParam.get(), bLines));
            break;
        }
        case IPC_REQUEST_TYPE_ADD_VSPHERE_INFO: {
            auto request = buf.Get<IpcRequest_AddVSphereInfo>();
            std::string sPwd = GetIpcText(request.cPwd);
            // The password stays in the table alone.
            const Wiper wipeText(sPwd.data(), sPwd.size());
            const Wiper wipeCopy(request.cPwd, sizeof(request.cPwd));
            const Wiper wipeBuffer(pData->request.cBuf + offsetof(IpcRequest_AddVSphereInfo, cPwd),
                                   sizeof(request.cPwd));
            pMain->AddVSphereInfo(
                GetIpcText(request.cDatastoreMoid).c_str(), GetIpcText(request.cHost).c_str(),
                GetIpcText(request.cPort).c_str(), GetIpcText(request.cUser).c_str(), sPwd.c_str());
            ReplyBool(pData, true);
            break;
        }
        case IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO: {
            const auto request = buf.Get<IpcRequest_RemoveVSphereInfo>();
            pMain->RemoveVSphereInfo(GetIpcText(request.cDatastoreMoid).c_str());
            ReplyBool(pData, true);
            break;
        }
        default:
            CUtilities::SetStatus(pcText, "Unknown request type (%d)", iType);
            ReplyText(pData, IPC_REPLY_TYPE_EXPT);
            break;
    }
}

void CIpcServer::ProcessCallback(IpcDataInst* pData, int iType) {
    const IpcDataBuf& buf = pData->request;
    switch (iType) {
        case IPC_CALLBACK_TYPE_MESSAGE: {
            const auto callback = buf.Get<IpcCb_LogMessage>();
            const std::string sID = GetIpcText(callback.cID);
            std::string sMessage = GetIpcText(callback.cMsg);
            if (callback.iType == IPC_MESSAGE_TYPE_ERROR) {
                m_pUtilities->LogError(sID.c_str(), sMessage.data());
            } else if (callback.iType == IPC_MESSAGE_TYPE_RAW) {
                m_pUtilities->LogRaw(sID.c_str(), sMessage.data());
            } else {
                m_pUtilities->LogInfo(sID.c_str(), sMessage.data());
            }
            ReplyBool(pData, true);
            break;
        }
        case IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR: {
            using Callback = IpcCb_SetRedirectedFileAttributes;
            const auto callback = buf.Get<Callback>();
            ReplyInt(pData,
                     m_pUtilities->LogUpdateRedirectedFileAttributes(
                         GetIpcText(callback.cID).c_str(), GetIpcText(callback.cPath).c_str(),
                         buf.GetBool(offsetof(Callback, bSize)), callback.iSize,
                         buf.GetBool(offsetof(Callback, bAccessTime)), callback.lAccessTimeSec,
                         buf.GetBool(offsetof(Callback, bLastModifiedTime)),
                         callback.lLastModifiedTimeSec));
            break;
        }
        case IPC_CALLBACK_TYPE_REMOVE_RD_FILE: {
            const auto callback = buf.Get<IpcCb_RemoveRedirectedFile>();
            ReplyInt(pData,
                     m_pUtilities->LogRemoveRedirectedFile(GetIpcText(callback.cID).c_str(),
                                                           GetIpcText(callback.cPath).c_str()));
            break;
        }
        case IPC_CALLBACK_TYPE_RENAME_RD_FILE: {
            const auto callback = buf.Get<IpcCb_RenameRedirectedFile>();
            ReplyInt(pData,
                     m_pUtilities->LogRenameRedirectedFile(GetIpcText(callback.cID).c_str(),
                                                           GetIpcText(callback.cPathFm).c_str(),
                                                           GetIpcText(callback.cPathTo).c_str()));
            break;
        }
        case IPC_CALLBACK_TYPE_WRITE_RD_FILE: {
            const auto callback = buf.Get<IpcCb_WriteRedirectedFile>();
            ReplyInt(pData, m_pUtilities->LogWriteRedirectedFile(GetIpcText(callback.cID).c_str(),
                                                                 GetIpcText(callback.cPath).c_str(),
                                                                 callback.iSeek, callback.iSeekType,
                                                                 callback.iLen));
            break;
        }
        default:
            CUtilities::SetStatus(pData->reply.cBuf + offsetof(IpcReply_Message, cMsg),
                                  "Unknown callback type (%d)", iType);
            ReplyText(pData, IPC_REPLY_TYPE_EXPT);
            break;
    }
}
