#include "Portmap.h"

#include <rpc/rpc.h>
// After rpc.h, on which it depends.
#include <rpc/pmap_clnt.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>

#include "RuntimeParam.h"
#include "ServerSocket.h"
#include "Utilities.h"

namespace {

constexpr unsigned long PORTMAP_PORT = 111;
constexpr int SOCKET_NONE = -1;
constexpr int SOCKET_NOT_BOUND = -2;

// A transport of the system's RPC library on a socket of its own.  The library needs one to learn
// the port; it is given up once the mapping is made, because the calls reach our own sockets.
class Transport {
public:
    template <typename Create>
    Transport(int socket, Create create) {
        const int iCopy = dup(socket);
        if (iCopy == -1) {
            return;
        }
        m_pTransport = create(iCopy);
        if (m_pTransport == nullptr) {
            close(iCopy);
        }
    }
    ~Transport() {
        if (m_pTransport != nullptr) {
            svc_destroy(m_pTransport);  // closes the copy
        }
    }
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    SVCXPRT* Get() const { return m_pTransport; }

private:
    SVCXPRT* m_pTransport = nullptr;
};

}  // namespace

CPortmap::CPortmap(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : bIsRunning(false), m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {
    bIsRunning = IsRunning(true);
}

bool CPortmap::IsRunning(bool bProbe) {
    if (!bProbe) {
        return bIsRunning;
    }
    const int fd = CreateSocket(PORTMAP_PORT, nullptr);
    if (fd == SOCKET_NOT_BOUND) {
        if (m_pRuntimeParam->IsLogPortmap()) {
            m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Port %ld is already in used",
                                  "Portmap.IsRunning", static_cast<long>(PORTMAP_PORT));
        }
        return true;
    }
    if (fd != SOCKET_NONE) {
        close(fd);
    }
    return false;
}

int CPortmap::CreateSocket(unsigned long port, char* pcErrorText) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        CUtilities::SetStatus(pcErrorText, "Error opening socket for port %lu", port);
        return SOCKET_NONE;
    }
    // Left-over connections of an earlier portmapper must not look like a running one.
    const int iOn = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == -1) {
        CUtilities::SetStatus(pcErrorText, "Error binding socket with port %lu", port);
        close(fd);
        return SOCKET_NOT_BOUND;
    }
    return fd;
}

bool CPortmap::Register(long prog, long vers, CServerSocket* pServerSocket, char* pcErrorText) {
    return Register(prog, vers, pServerSocket->GetSocket(),
                    static_cast<unsigned long>(pServerSocket->GetPort()), pcErrorText);
}

bool CPortmap::Register(long prog, long vers, int socket, unsigned long port, char* pcErrorText) {
    if (!bIsRunning) {
        CUtilities::SetStatus(pcErrorText, "Portmapper is not running.");
        return false;
    }
    pmap_unset(static_cast<rpcprog_t>(prog), static_cast<rpcvers_t>(vers));
    char cReason[STATUS_SIZE] = "";
    int iOwnSocket = SOCKET_NONE;
    if (socket == 0) {
        iOwnSocket = CreateSocket(port, cReason);
        if (iOwnSocket < 0) {
            CUtilities::SetStatus(pcErrorText,
                                  "Fail to opening register socket for port %lu. Reason=%s", port,
                                  cReason);
            return false;
        }
        socket = iOwnSocket;
    }
    const bool bOk = RegisterSvc(prog, vers, socket, cReason);
    if (!bOk) {
        CUtilities::SetStatus(pcErrorText, "Fail to register socket for port %lu. Reason=%s", port,
                              cReason);
    }
    if (iOwnSocket >= 0) {
        close(iOwnSocket);
    }
    return bOk;
}

bool CPortmap::RegisterSvc(long prog, long vers, int socket, char* pcErrorText) {
    const LogArgu logArgu{"Portmap.RegisterSvc"};
    const auto log = [&](const char* pcFmt) {
        if (m_pRuntimeParam->IsLogPortmap()) {
            m_pUtilities->LogInfo(m_pRuntimeParam, pcFmt, logArgu.pcName, prog, vers);
        }
    };
    const auto registerSvc = [&](const Transport& transport, int iProtocol) {
        return svc_register(transport.Get(), static_cast<rpcprog_t>(prog),
                            static_cast<rpcvers_t>(vers), &CPortmap::Dispatch, iProtocol) != 0;
    };

    log("[%s] Creating UDP for %ld ver=%ld");
    {
        const Transport udp(socket, [](int fd) { return svcudp_create(fd); });
        if (udp.Get() == nullptr) {
            CUtilities::SetStatus(pcErrorText, "Cannot create UDP for %ld ver=%ld", prog, vers);
            return false;
        }
        log("[%s] Registering UDP for %ld ver=%ld");
        if (!registerSvc(udp, IPPROTO_UDP)) {
            CUtilities::SetStatus(pcErrorText, "Unable to register UDP for %ld ver=%ld", prog,
                                  vers);
            return false;
        }
        log("[%s] Registered UDP for %ld ver=%ld");
    }
    log("[%s] Creating TCP for %ld ver=%ld");
    const Transport tcp(socket, [](int fd) { return svctcp_create(fd, 0, 0); });
    if (tcp.Get() == nullptr) {
        CUtilities::SetStatus(pcErrorText, "Cannot create TCP for %ld ver=%ld", prog, vers);
        return false;
    }
    log("[%s] Registering TCP for %ld ver=%ld");
    if (!registerSvc(tcp, IPPROTO_TCP)) {
        CUtilities::SetStatus(pcErrorText, "Unable to register TCP for %ld ver=%ld", prog, vers);
        return false;
    }
    log("[%s] Registered TCP for %ld ver=%ld");
    return true;
}

void CPortmap::Unregister(long prog, long vers, char* pcErrorText) {
    if (!bIsRunning) {
        CUtilities::SetStatus(pcErrorText, "Portmapper is not running.");
        return;
    }
    svc_unregister(static_cast<rpcprog_t>(prog), static_cast<rpcvers_t>(vers));
    pmap_unset(static_cast<rpcprog_t>(prog), static_cast<rpcvers_t>(vers));
    if (m_pRuntimeParam->IsLogPortmap()) {
        m_pUtilities->LogInfo(m_pRuntimeParam, "[%s] Unregistered the program %ld ver=%ld",
                              "Portmap.Unregister", prog, vers);
    }
}

void CPortmap::Dispatch(svc_req* /*pRequest*/, SVCXPRT* /*pTransport*/) {}
