#include "IpcClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>

#include "IpcWaits.h"

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
    const bool bLogState = m_pRuntimeParam->IsLogIpcState();
    if (pcChannel == nullptr) {
        CUtilities::SetStatus(pcError, "Channel is not defined");
        return false;
    }
    if (bLogState) {
        LogInfo("[%s] Open channel: %s", logArgu.pcName, pcChannel);
    }
    PrintData(&logArgu, &m_IpcDataInst.request);
    if (bLogState) {
        LogInfo("[%s] Open ipc client socket", logArgu.pcName);
    }
    const int iSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (iSocket == -1) {
        return Fail(pcError, "Fail to open ipc client socket. %s", errno);
    }
    const bool bMayWait = m_pWaits == nullptr || m_pWaits->Enter(iSocket);
    const bool bOk = bMayWait ? Exchange(&logArgu, iSocket, pcChannel, pcError)
                              : Fail(pcError, "Fail to connect ipc client socket. %s", ECANCELED);
    if (m_pWaits != nullptr) {
        m_pWaits->Leave(iSocket);
    }
    shutdown(iSocket, SHUT_RDWR);
    close(iSocket);
    return bOk;
}

bool CIpcClient::Exchange(LogArgu* pLogArgu, int iSocket, const char* pcChannel, char* pcError) {
    const bool bLogState = m_pRuntimeParam->IsLogIpcState();
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (bLogState) {
        LogInfo("[%s] Connect ipc client socket", pLogArgu->pcName);
    }
    if (!SetIpcText(addr.sun_path, pcChannel)) {
        return Fail(pcError, "Fail to connect ipc client socket. %s", ENAMETOOLONG);
    }
    if (connect(iSocket, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == -1) {
        return Fail(pcError, "Fail to connect ipc client socket. %s", errno);
    }
    if (bLogState) {
        LogInfo("[%s] Send ipc client request", pLogArgu->pcName);
    }
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
    if (bLogState) {
        LogInfo("[%s] Read ipc server reply", pLogArgu->pcName);
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
