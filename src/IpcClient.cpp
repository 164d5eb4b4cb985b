#include "IpcClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "IpcWaits.h"

namespace {

constexpr int STEP_MS = 50;  // of a wait, between two looks at whether it is to end

}  // namespace

CIpcClient::CIpcClient(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam, CIpcWaits* pWaits)
    : CIpcBasic(pUtilities, pRuntimeParam), m_pWaits(pWaits) {}

bool CIpcClient::SendRequest(const char* pcChannel) {
    char cError[STATUS_SIZE] = "";
    const bool bOk = SendRequest(pcChannel, cError);
    if (!bOk && m_pRuntimeParam->IsLogError()) {
        LogError("[%s] %s", "IpcClient.SendRequest", cError);
    }
    return bOk;
}

bool CIpcClient::SendRequest(const char* pcChannel, char* pcError) {
    LogArgu logArgu{"IpcClient.SendRequest"};
    if (pcChannel == nullptr) {
        CUtilities::SetStatus(pcError, "Channel is not defined");
        return false;
    }
    if (m_pRuntimeParam->IsLogIpcState()) {
        LogInfo("[%s] Open channel: %s", logArgu.pcName, pcChannel);
    }
    PrintData(&logArgu, &m_IpcDataInst.request);
    LogState("[%s] Open ipc client socket", &logArgu);
    const CIpcWait wait(m_pWaits);
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (iSocket == -1) {
        return Fail(pcError, "Fail to open ipc client socket. %s", errno);
    }
    const bool bOk = Exchange(&logArgu, wait, iSocket, pcChannel, pcError);
    shutdown(iSocket, SHUT_RDWR);
    close(iSocket);
    return bOk;
}

// The log control may change while an exchange waits, so it is asked for each line.
void CIpcClient::LogState(const char* pcFmt, LogArgu* pLogArgu) {
    if (m_pRuntimeParam->IsLogIpcState()) {
        LogInfo(pcFmt, pLogArgu->pcName);
    }
}

bool CIpcClient::Exchange(LogArgu* pLogArgu, const CIpcWait& wait, int iSocket,
                          const char* pcChannel, char* pcError) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    LogState("[%s] Connect ipc client socket", pLogArgu);
    if (!SetIpcText(addr.sun_path, pcChannel)) {
        return Fail(pcError, "Fail to connect ipc client socket. %s", ENAMETOOLONG);
    }
    // A peer whose queue is full makes connect wait, for one step at a time.
    const timeval step{0, STEP_MS * 1000L};
    setsockopt(iSocket, SOL_SOCKET, SO_SNDTIMEO, &step, sizeof(step));
    int iError = 0;
    do {
        if (wait.IsEnded()) {
            return Fail(pcError, "Fail to connect ipc client socket. %s", ECANCELED);
        }
        const bool bOk =
            connect(iSocket, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
        iError = bOk ? 0 : errno;
    } while (iError == EAGAIN || iError == EINTR);
    if (iError != 0) {
        return Fail(pcError, "Fail to connect ipc client socket. %s", iError);
    }
    LogState("[%s] Send ipc client request", pLogArgu);
    const IpcDataBuf& request = m_IpcDataInst.request;
    const ssize_t iSent =
        send(iSocket, request.cBuf, static_cast<std::size_t>(request.lDataLen), MSG_NOSIGNAL);
    if (iSent == -1) {
        return Fail(pcError, "Fail to send ipc client request. %s", errno);
    }
    if (iSent != request.lDataLen) {
        LogError("[%s] Fail to send complete ipc client request. (Send = %d, Target = %ld)",
                 pLogArgu->pcName, static_cast<int>(iSent), static_cast<long>(request.lDataLen));
    }
    LogState("[%s] Read ipc server reply", pLogArgu);
    struct pollfd answer {
        iSocket, POLLIN, 0
    };
    while (poll(&answer, 1, STEP_MS) <= 0) {
        if (wait.IsEnded()) {
            return Fail(pcError, "Fail to read ipc server reply. %s", ECANCELED);
        }
    }
    IpcDataBuf& reply = m_IpcDataInst.reply;
    ssize_t iRead = 0;
    do {
        iRead = recv(iSocket, reply.cBuf, sizeof(reply.cBuf), 0);
    } while (iRead == -1 && errno == EINTR);
    if (iRead <= 0) {
        // No bytes: the peer went away before it answered.
        return Fail(pcError, "Fail to read ipc server reply. %s", iRead == 0 ? ECONNRESET : errno);
    }
    reply.lDataLen = static_cast<std::int32_t>(iRead);
    PrintData(pLogArgu, &reply);
    return true;
}

bool CIpcClient::IsReply(IPC_REPLY_TYPE iType) const {
    const auto header = m_IpcDataInst.reply.Get<Ipc_Header>();
    return header.iGroup == IPC_GROUP_REPLY && header.iType == iType;
}

bool CIpcClient::GetBoolReply() const {
    return IsReply(IPC_REPLY_TYPE_BOOL) &&
           m_IpcDataInst.reply.GetBool(offsetof(IpcReply_Bool, bVal));
}

long CIpcClient::GetLongReply() const {
    return IsReply(IPC_REPLY_TYPE_LONG) ? m_IpcDataInst.reply.Get<IpcReply_Long>().lVal : 0;
}

int CIpcClient::GetIntReply() const {
    return IsReply(IPC_REPLY_TYPE_INT) ? m_IpcDataInst.reply.Get<IpcReply_Int>().iVal : -1;
}

const char* CIpcClient::GetExptReply() { return GetTextReply(IPC_REPLY_TYPE_EXPT); }

const char* CIpcClient::GetMsgReply() { return GetTextReply(IPC_REPLY_TYPE_MSG); }

const char* CIpcClient::GetTextReply(IPC_REPLY_TYPE iType) {
    if (!IsReply(iType)) {
        return nullptr;
    }
    char* pcText = m_IpcDataInst.reply.cBuf + offsetof(IpcReply_Message, cMsg);
    pcText[IPC_TEXT_SIZE - 1] = '\0';  // the peer's text may lack its NUL
    return pcText;
}
