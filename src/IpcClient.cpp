#include "IpcClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>

#include "Descriptor.h"
#include "IpcWaits.h"

namespace {

constexpr int STEP_MS = 50;  // of a wait, between two looks at whether it is to end

// The label of the lines about an exchange.
constexpr LogArgu CLIENT_ARGU{"IpcClient.SendRequest"};

}  // namespace

CIpcClient::CIpcClient(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam, CIpcWaits* pWaits)
    : CIpcBasic(pUtilities, pRuntimeParam), m_pWaits(pWaits) {}

bool CIpcClient::SendRequest(const char* pcChannel) {
    char cError[STATUS_SIZE] = "";
    return SendRequest(pcChannel, cError) || LogFailure(CLIENT_ARGU.pcName, cError);
}

bool CIpcClient::SendRequest(const char* pcChannel, char* pcError) {
    LogArgu logArgu = CLIENT_ARGU;
    if (pcChannel == nullptr) {
        return Fail(pcError, "Channel is not defined");
    }
    LogState("[%s] Open channel: %s", logArgu.pcName, pcChannel);
    PrintData(&logArgu, &m_IpcDataInst.request);
    LogState("[%s] Open ipc client socket", logArgu.pcName);
    const CIpcWait wait(m_pWaits);
    const CDescriptor socketOwner(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int iSocket = socketOwner.Get();
    if (!socketOwner.IsOpen()) {
        return Fail(pcError, "Fail to open ipc client socket. %s", ErrorText(errno).Get());
    }
    const bool bOk = Connect(wait, iSocket, pcChannel, pcError) && Send(iSocket, pcError) &&
                     Receive(wait, iSocket, pcError);
    if (bOk) {
        PrintData(&logArgu, &m_IpcDataInst.reply);
    }
    shutdown(iSocket, SHUT_RDWR);
    return bOk;
}

bool CIpcClient::Connect(const CIpcWait& wait, int iSocket, const char* pcChannel, char* pcError) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    LogState("[%s] Connect ipc client socket", CLIENT_ARGU.pcName);
    if (!SetIpcText(addr.sun_path, pcChannel)) {
        return Fail(pcError, "Fail to connect ipc client socket. %s",
                    ErrorText(ENAMETOOLONG).Get());
    }
    // A peer whose queue is full makes connect wait, for one step at a time.
    const timeval step{0, STEP_MS * 1000L};
    setsockopt(iSocket, SOL_SOCKET, SO_SNDTIMEO, &step, sizeof(step));
    int iError = 0;
    do {
        if (wait.IsEnded()) {
            iError = ECANCELED;
            break;
        }
        const bool bOk =
            connect(iSocket, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
        iError = bOk ? 0 : errno;
    } while (iError == EAGAIN || iError == EINTR);
    return iError == 0 ||
           Fail(pcError, "Fail to connect ipc client socket. %s", ErrorText(iError).Get());
}

bool CIpcClient::Send(int iSocket, char* pcError) {
    LogState("[%s] Send ipc client request", CLIENT_ARGU.pcName);
    const IpcDataBuf& request = m_IpcDataInst.request;
    const ssize_t iSent =
        send(iSocket, request.cBuf, static_cast<std::size_t>(request.lDataLen), MSG_NOSIGNAL);
    if (iSent == -1) {
        return Fail(pcError, "Fail to send ipc client request. %s", ErrorText(errno).Get());
    }
    if (iSent != request.lDataLen) {
        LogError("[%s] Fail to send complete ipc client request. (Send = %d, Target = %ld)",
                 CLIENT_ARGU.pcName, static_cast<int>(iSent), static_cast<long>(request.lDataLen));
    }
    return true;
}

bool CIpcClient::Receive(const CIpcWait& wait, int iSocket, char* pcError) {
    LogState("[%s] Read ipc server reply", CLIENT_ARGU.pcName);
    struct pollfd answer {
        iSocket, POLLIN, 0
    };
    while (poll(&answer, 1, STEP_MS) <= 0) {
        if (wait.IsEnded()) {
            return Fail(pcError, "Fail to read ipc server reply. %s", ErrorText(ECANCELED).Get());
        }
    }
    IpcDataBuf& reply = m_IpcDataInst.reply;
    ssize_t iRead = 0;
    do {
        iRead = recv(iSocket, reply.cBuf, sizeof(reply.cBuf), 0);
    } while (iRead == -1 && errno == EINTR);
    if (iRead <= 0) {
        // No bytes: the peer went away before it answered.
        const int iError = iRead == 0 ? ECONNRESET : errno;
        return Fail(pcError, "Fail to read ipc server reply. %s", ErrorText(iError).Get());
    }
    reply.lDataLen = static_cast<std::int32_t>(iRead);
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
