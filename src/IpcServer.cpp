#include "IpcServer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <new>
#include <utility>
#include <vector>

#include "ExitCleanup.h"
#include "IpcCallbacks.h"
#include "IpcRequests.h"
#include "NfsMain.h"
#include "RuntimeParam.h"

namespace {

constexpr int BACKLOG = 5;
constexpr int SOCKET_FILE_MODE = 0777;    // processes of other users may connect
constexpr std::size_t MAX_WAITING = 256;  // silent connections; one more drops the oldest
constexpr int PAUSE_MS = 100;

constexpr std::size_t MAX_REPORTS = 64;             // whose requesters do not take their lines
constexpr std::chrono::milliseconds PATIENCE{250};  // with the first such requester
constexpr std::size_t MAX_FORWARDS = 256;
constexpr std::chrono::milliseconds EXPORT_STEP{50};  // between two looks at what must not wait

// The label of the lines about a message.
constexpr LogArgu MESSAGE_ARGU{"IpcServer.ReadRequest"};

// The label of the failures to serve a message.
constexpr const char* FAILURE_NAME = "IpcServer.SendRequest";

// What a wait for messages polls, in this order.
enum PollIndex : std::size_t {
    POLL_WAKE,
    POLL_LISTENER,
    POLL_WAITING,  // the first of the connections whose message has not come
};

// Calls function.operator()<TYPE>() for every type from 1 on and gives the results as an array;
// that of type n stands at n - 1.
template <typename Type, Type COUNT, typename Function>
constexpr auto ForEveryType(Function function) {
    return [&function]<std::size_t... TYPES>(std::index_sequence<TYPES...>) {
        return std::array{function.template operator()<static_cast<Type>(TYPES + 1)>()...};
    }
    (std::make_index_sequence<COUNT - 1>());
}

// The element of such an array, null when the type is unknown.
template <typename Element, std::size_t N>
const Element* FindType(const std::array<Element, N>& elements, int iType) {
    return iType >= 1 && iType <= static_cast<int>(N)
               ? &elements[static_cast<std::size_t>(iType) - 1]
               : nullptr;
}

IpcTurn GetTurn(const Ipc_Header& header) {
    static constexpr auto TURNS = ForEveryType<IPC_REQUEST_TYPE, IPC_REQUEST_TYPE_COUNT>(
        []<IPC_REQUEST_TYPE TYPE>() { return IpcRequest<TYPE>::TURN; });
    const IpcTurn* pTurn =
        header.iGroup == IPC_GROUP_REQUEST ? FindType(TURNS, header.iType) : nullptr;
    return pTurn != nullptr ? *pTurn : IpcTurn::InOrder;
}

// Whether the message that has come, if any, is one that a shutdown needs.
bool IsUrgent(const CDescriptor& connection) {
    Ipc_Header header{};
    return recv(connection.Get(), &header, sizeof(header), MSG_PEEK | MSG_DONTWAIT) ==
               static_cast<ssize_t>(sizeof(header)) &&
           GetTurn(header) == IpcTurn::Urgent;
}

// =================================================================================================
// Replies
// =================================================================================================

// Where the operations write their text.
char* TextOf(IpcDataInst* pData) { return pData->reply.cBuf + offsetof(IpcReply_Message, cMsg); }

void ReplyInt(IpcDataInst* pData, int iVal) {
    CIpcBasic::InitialReplyData(&pData->reply, IPC_REPLY_TYPE_INT);
    auto reply = pData->reply.Get<IpcReply_Int>();
    reply.iVal = iVal;
    pData->reply.Put(reply);
}

void ReplyBool(IpcDataInst* pData, bool bVal) {
    ReplyInt(pData, bVal ? 1 : 0);  // the whole word, so that its padding is zero
    CIpcBasic::InitialReplyData(&pData->reply, IPC_REPLY_TYPE_BOOL);
}

// The text is already in the reply.
void ReplyText(IpcDataInst* pData, IPC_REPLY_TYPE iType) {
    CIpcBasic::InitialReplyData(&pData->reply, iType);
}

void ReplyFailure(IpcDataInst* pData, const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);
void ReplyFailure(IpcDataInst* pData, const char* pcFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    std::vsnprintf(TextOf(pData), IPC_TEXT_SIZE, pcFmt, vaArgs);
    va_end(vaArgs);
    ReplyText(pData, IPC_REPLY_TYPE_EXPT);
}

// Calls the operation of an entry and replies what the entry says.
template <IpcAnswer ANSWER, typename Operation>
void Answer(IpcDataInst* pData, const Operation& operation) {
    if constexpr (ANSWER == IpcAnswer::Bool) {
        ReplyBool(pData, operation());
    } else if constexpr (ANSWER == IpcAnswer::Int) {
        ReplyInt(pData, operation());
    } else if constexpr (ANSWER == IpcAnswer::Text) {
        operation();
        ReplyText(pData, IPC_REPLY_TYPE_MSG);
    } else if constexpr (ANSWER == IpcAnswer::Result) {
        if (operation()) {
            ReplyBool(pData, true);
        } else {
            ReplyText(pData, IPC_REPLY_TYPE_EXPT);
        }
    } else {
        static_assert(ANSWER == IpcAnswer::True);
        operation();
        ReplyBool(pData, true);
    }
}

// The structure of a request while it is executed.  A password in it stays in the table of
// datastores alone: here and in the buffer it is overwritten at the end.
template <typename Structure>
class ReceivedRequest {
public:
    explicit ReceivedRequest(IpcDataBuf* pData)
        : m_pData(pData), m_Message(pData->Get<Structure>()) {}
    ~ReceivedRequest() {
        WipeIpcPassword(&m_Message);
        WipeIpcPassword<Structure>(m_pData);
    }
    ReceivedRequest(const ReceivedRequest&) = delete;
    ReceivedRequest& operator=(const ReceivedRequest&) = delete;
    const Structure& Get() const { return m_Message; }

private:
    IpcDataBuf* m_pData;
    Structure m_Message;
};

}  // namespace

CIpcServer::CIpcServer(CNfsMain* pNfsHandle)
    : CIpcBasic(pNfsHandle->GetUtils(), pNfsHandle->GetRuntimeParam()), m_pNfsHandle(pNfsHandle) {
    int fdPipe[2] = {-1, -1};
    if (pipe2(fdPipe, O_CLOEXEC) == 0) {
        m_WakeReader.Reset(fdPipe[0]);
        m_WakeWriter.Reset(fdPipe[1]);
    }
}

CIpcServer::~CIpcServer() { Close(); }

// =================================================================================================
// Opening and closing
// =================================================================================================

bool CIpcServer::Open(const char* pcChannel) {
    char cError[STATUS_SIZE] = "";
    return Open(pcChannel, cError) || LogFailure("IpcServer.Open", cError);
}

bool CIpcServer::Open(const char* pcChannel, char* pcError) {
    LogArgu logArgu{"IpcServer.Open"};
    if (pcChannel == nullptr) {
        return Fail(pcError, "Channel is not defined");
    }
    if (m_bOpened) {
        return Fail(pcError, "Channel already opened");
    }
    if (!m_WakeReader.IsOpen()) {
        // Nothing could end it.
        return Fail(pcError, "Fail to listen ipc server socket. %s", ErrorText(EMFILE).Get());
    }
    LogState("[%s] Open channel: %s", logArgu.pcName, pcChannel);
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
    inst.iSocket.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int iError = errno;
    inst.socketAddr = {};
    inst.socketAddr.sun_family = AF_UNIX;
    if (!SetIpcText(inst.socketAddr.sun_path, pcChannel)) {
        inst.socketAddr.sun_path[0] = '\0';  // a cut name would be somebody else's channel
        return Fail(pcError, "Fail to bind ipc server socket. %s", ErrorText(ENAMETOOLONG).Get());
    }
    CExitCleanup::AddFile(pcChannel);
    m_bFile = true;
    std::remove(pcChannel);  // left by an earlier run
    LogState("[%s] Bind ipc server socket", pLogArgu->pcName);
    if (!inst.iSocket.IsOpen()) {
        return Fail(pcError, "Fail to bind ipc server socket. %s", ErrorText(iError).Get());
    }
    if (bind(inst.iSocket.Get(), reinterpret_cast<const sockaddr*>(&inst.socketAddr),
             sizeof(inst.socketAddr)) == -1) {
        return Fail(pcError, "Fail to bind ipc server socket. %s", ErrorText(errno).Get());
    }
    if (m_pUtilities->OS_SetFileMode(m_pRuntimeParam, pLogArgu, pcChannel, SOCKET_FILE_MODE,
                                     pcError) == -1) {
        return false;
    }
    if (listen(inst.iSocket.Get(), BACKLOG) == -1) {
        return Fail(pcError, "Fail to listen ipc server socket. %s", ErrorText(errno).Get());
    }
    return true;
}

bool CIpcServer::Close() {
    char cError[STATUS_SIZE] = "";
    return Close(cError) || LogFailure("IpcServer.Close", cError);
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
    shutdown(inst.iSocket.Get(), SHUT_RDWR);
    inst = {};
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
    [[maybe_unused]] const ssize_t iWritten = write(m_WakeWriter.Get(), &c, 1);  // stays readable
}

// =================================================================================================
// Serving a connection
// =================================================================================================

void CIpcServer::Pause() {
    struct pollfd wake {
        m_WakeReader.Get(), POLLIN, 0
    };
    poll(&wake, 1, PAUSE_MS);
}

bool CIpcServer::ReadRequest() {
    if (m_bAutoShutdownRequested) {
        LogState("[%s] Waiting to auto shutdown", FAILURE_NAME);
        Pause();
        return false;
    }
    char cError[STATUS_SIZE] = "";
    const bool bOk = ReadRequest(cError) || LogFailure(FAILURE_NAME, cError);
    if (m_bAutoShutdownRequested) {
        m_pNfsHandle->RequestAutoShutdown();
    }
    return bOk;
}

bool CIpcServer::ReadRequest(char* pcError) {
    LogState("[%s] Start", MESSAGE_ARGU.pcName);
    if (!m_bOpened) {
        return Fail(pcError, "Channel not yet opened.");
    }
    if (!m_IpcServerInst.iSocket.IsOpen()) {
        LogState("[%s] Socket closed", MESSAGE_ARGU.pcName);
        return true;
    }
    LogState("[%s] Accept ipc request", MESSAGE_ARGU.pcName);
    try {
        const ConnectionPtr pConnection = WaitForMessage(pcError);
        if (m_bInterrupted) {
            LogState("[%s] Socket closed", MESSAGE_ARGU.pcName);
            return true;
        }
        if (pConnection == nullptr) {
            Pause();  // a failure that lasts must not keep a core busy
            return false;
        }
        LogState("[%s] Read ipc request", MESSAGE_ARGU.pcName);
        return ServeConnection(pConnection, pcError);
    } catch (const std::bad_alloc&) {
        Pause();
        return Fail(pcError, "Fail to read ipc request. %s", ErrorText(ENOMEM).Get());
    }
}

CIpcServer::ConnectionPtr CIpcServer::WaitForMessage(char* pcError) {
    for (;;) {
        std::vector<struct pollfd> vPoll(POLL_WAITING);
        vPoll[POLL_WAKE] = {m_WakeReader.Get(), POLLIN, 0};
        vPoll[POLL_LISTENER] = {m_IpcServerInst.iSocket.Get(), POLLIN, 0};
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
            Fail(pcError, "Fail to accept ipc request. %s", ErrorText(iError).Get());
            return nullptr;
        }
        const auto itFirst = vPoll.begin() + POLL_WAITING;
        const auto itReady = std::find_if(itFirst, vPoll.end(),
                                          [](const auto& entry) { return entry.revents != 0; });
        if (itReady != vPoll.end()) {
            const auto itWaiting = m_vWaiting.begin() + (itReady - itFirst);
            ConnectionPtr pConnection = *itWaiting;
            m_vWaiting.erase(itWaiting);
            return pConnection;
        }
        if (vPoll[POLL_LISTENER].revents != 0 && !Accept(pcError)) {
            return nullptr;
        }
    }
}

bool CIpcServer::Accept(char* pcError) {
    CDescriptor connection(accept4(m_IpcServerInst.iSocket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!connection.IsOpen()) {
        return Fail(pcError, "Fail to accept ipc request. %s", ErrorText(errno).Get());
    }
    m_vWaiting.push_back(std::make_shared<CDescriptor>(std::move(connection)));
    if (m_vWaiting.size() > MAX_WAITING) {
        m_vWaiting.pop_front();
    }
    return true;
}

bool CIpcServer::ServeConnection(const ConnectionPtr& pConnection, char* pcError) {
    std::erase_if(m_vReports, [](const auto& pReport) { return pReport->IsDone(); });
    IpcDataInst& data = m_IpcServerInst.data;
    const ssize_t iRead = recv(pConnection->Get(), data.request.cBuf, sizeof(data.request.cBuf), 0);
    if (iRead == -1) {
        return Fail(pcError, "Fail to read ipc request. %s", ErrorText(errno).Get());
    }
    if (iRead == 0) {
        return true;  // closed without a message: what an earlier one left is not executed again
    }
    data.request.lDataLen = static_cast<std::int32_t>(iRead);
    if (m_pForwarder != nullptr && data.request.Get<Ipc_Header>().iGroup == IPC_GROUP_REQUEST) {
        return Forward(pConnection, pcError);
    }
    if (GetTurn(data.request.Get<Ipc_Header>()) == IpcTurn::Export && Export(pConnection)) {
        return true;
    }
    LogArgu logArgu = MESSAGE_ARGU;
    ParseData(&logArgu, &data);
    const std::shared_ptr<CIpcReport> pReport = std::move(m_pReport);
    if (pReport == nullptr || !pReport->IsUsed()) {
        return SendReply(*pConnection, data.reply, pcError);
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
        return Fail(pcError, "Fail to read ipc request. %s", ErrorText(EAGAIN).Get());
    }
    IpcDataBuf& request = m_IpcServerInst.data.request;
    const auto pData = std::make_shared<IpcDataInst>(m_IpcServerInst.data);
    if (request.Get<Ipc_Header>().iType == IPC_REQUEST_TYPE_ADD_VSPHERE_INFO) {
        WipeIpcPassword<IpcRequest_AddVSphereInfo>(&request);  // the copy has it
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
        ReplyFailure(pData.get(), "%s", ErrorText(EAGAIN).Get());
        return SendReply(*pConnection, pData->reply, pcError);
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
        m_IpcServerInst.iSocket.Get(), POLLIN, 0
    };
    // Those that do not fit wait in the backlog, as without an export.
    while (m_vWaiting.size() < MAX_WAITING && poll(&backlog, 1, 0) > 0 && Accept(cError)) {
    }
    for (std::size_t i = 0; i < m_vWaiting.size() && !m_bAutoShutdownRequested;) {
        const ConnectionPtr pConnection = m_vWaiting[i];
        if (!IsUrgent(*pConnection)) {
            ++i;
            continue;
        }
        m_vWaiting.erase(m_vWaiting.begin() + static_cast<std::ptrdiff_t>(i));
        LogState("[%s] Start", MESSAGE_ARGU.pcName);
        LogState("[%s] Accept ipc request", MESSAGE_ARGU.pcName);
        LogState("[%s] Read ipc request", MESSAGE_ARGU.pcName);
        if (!ServeConnection(pConnection, cError)) {
            LogFailure(FAILURE_NAME, cError);
        }
    }
    if (m_bAutoShutdownRequested) {
        m_pNfsHandle->RequestAutoShutdown();  // its stop ends the export
    }
}

bool CIpcServer::SendReply(const CDescriptor& connection, const IpcDataBuf& reply, char* pcError) {
    LogState("[%s] Send ipc reply", MESSAGE_ARGU.pcName);
    const ssize_t iSent =
        send(connection.Get(), reply.cBuf, static_cast<std::size_t>(reply.lDataLen), MSG_NOSIGNAL);
    if (iSent == -1) {
        return Fail(pcError, "Fail to send ipc reply. %s", ErrorText(errno).Get());
    }
    if (iSent != reply.lDataLen) {
        LogError("Fail to send ipc complete reply. (Send = %d, Target = %ld)",
                 static_cast<int>(iSent), static_cast<long>(reply.lDataLen));
    }
    return true;
}

void CIpcServer::SendReply(const CDescriptor& connection, const IpcDataBuf& reply) {
    char cError[STATUS_SIZE] = "";
    if (!SendReply(connection, reply, cError)) {
        LogFailure(FAILURE_NAME, cError);
    }
}

// =================================================================================================
// Executing a message
// =================================================================================================

void CIpcServer::ParseData(LogArgu* pLogArgu, IpcDataInst* pData) {
    PrintData(pLogArgu, &pData->request);
    std::memset(pData->reply.cBuf, 0, sizeof(pData->reply.cBuf));
    const auto fail = [pData](const char* pcReason) {
        std::memset(pData->reply.cBuf, 0, sizeof(pData->reply.cBuf));
        ReplyFailure(pData, "%s", pcReason);
    };
    try {
        Execute(pData);
    } catch (const std::bad_alloc&) {
        fail(ErrorText(ENOMEM).Get());
    } catch (const std::exception& exception) {
        fail(exception.what());
    } catch (...) {
        fail("Unknown exception");
    }
    PrintData(pLogArgu, &pData->reply);
}

void CIpcServer::Execute(IpcDataInst* pData) {
    const auto header = pData->request.Get<Ipc_Header>();
    switch (header.iGroup) {
        case IPC_GROUP_REQUEST:
            ProcessRequest(pData, header.iType);
            break;
        case IPC_GROUP_CALLBACK:
            ProcessCallback(pData, header.iType);
            break;
        case IPC_GROUP_REPLY:
            ReplyFailure(pData, "Reply action group is not support (%d)", header.iType);
            break;
        default:
            ReplyFailure(pData, "Unknown action group: %d (%d)", header.iGroup, header.iType);
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

template <IPC_REQUEST_TYPE TYPE>
void CIpcServer::ServeRequest(IpcDataInst* pData) {
    using Request = IpcRequest<TYPE>;
    const ReceivedRequest<typename Request::Structure> received(&pData->request);
    const auto& message = received.Get();
    Answer<Request::ANSWER>(pData, [&] {
        if constexpr (Request::LISTING) {
            const auto pParam =
                MakeListingParam(GetIpcText(message.cIpcID), Request::HasLines(message));
            return Request::Call(message, m_pNfsHandle, pParam.get());
        } else if constexpr (Request::ANSWER == IpcAnswer::Text ||
                             Request::ANSWER == IpcAnswer::Result) {
            return Request::Call(message, m_pNfsHandle, TextOf(pData));
        } else {
            return Request::Call(message, m_pNfsHandle);
        }
    });
}

// The service ends only after the reply has been sent.
template <>
void CIpcServer::ServeRequest<IPC_REQUEST_TYPE_AUTO_SHUTDOWN>(IpcDataInst* pData) {
    const bool bEnabled = m_pNfsHandle->IsAutoShutdownEnabled();
    if (bEnabled) {
        m_bAutoShutdownRequested = true;
    }
    ReplyBool(pData, bEnabled);
}

void CIpcServer::ProcessRequest(IpcDataInst* pData, int iType) {
    static constexpr auto HANDLERS = ForEveryType<IPC_REQUEST_TYPE, IPC_REQUEST_TYPE_COUNT>(
        []<IPC_REQUEST_TYPE TYPE>() { return &CIpcServer::ServeRequest<TYPE>; });
    if (const auto* pHandler = FindType(HANDLERS, iType)) {
        (this->**pHandler)(pData);
    } else {
        ReplyFailure(pData, "Unknown request type (%d)", iType);
    }
}

template <IPC_CALLBACK_TYPE TYPE>
void CIpcServer::ServeCallback(IpcDataInst* pData) {
    using Callback = IpcCallback<TYPE>;
    const auto message = pData->request.Get<typename Callback::Structure>();
    Answer<Callback::ANSWER>(pData, [&] { return Callback::Call(message, m_pUtilities); });
}

void CIpcServer::ProcessCallback(IpcDataInst* pData, int iType) {
    static constexpr auto HANDLERS = ForEveryType<IPC_CALLBACK_TYPE, IPC_CALLBACK_TYPE_COUNT>(
        []<IPC_CALLBACK_TYPE TYPE>() { return &CIpcServer::ServeCallback<TYPE>; });
    if (const auto* pHandler = FindType(HANDLERS, iType)) {
        (this->**pHandler)(pData);
    } else {
        ReplyFailure(pData, "Unknown callback type (%d)", iType);
    }
}
