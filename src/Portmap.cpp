#include "Portmap.h"

#include <rpc/rpc.h>
// After rpc.h, on which it depends.
#include <rpc/pmap_clnt.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "Descriptor.h"
#include "PortSocket.h"
#include "RuntimeParam.h"
#include "ServerSocket.h"

namespace {

constexpr int SOCKET_NONE = -1;
constexpr int SOCKET_NOT_BOUND = -2;

// A transport of the system's RPC library on a socket of its own.  The library needs one to learn
// the port; it is given up once the mapping is made, because the calls reach our own sockets.
class Transport {
public:
    template <typename Create>
    Transport(int socket, Create create) {
        CDescriptor copy(dup(socket));
        if (!copy.IsOpen()) {
            return;
        }
        m_pTransport = create(copy.Get());
        if (m_pTransport != nullptr) {
            static_cast<void>(copy.Release());  // the transport's from now on
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
    : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {
    bIsRunning = IsRunning(true);
}

bool CPortmap::IsRunning(bool bProbe) const {
    if (!bProbe) {
        return bIsRunning;
    }
    const int fd = CreateSocket(PORT, nullptr);
    if (fd == SOCKET_NOT_BOUND) {
        Trace("[%s] Port %ld is already in used", "Portmap.IsRunning", static_cast<long>(PORT));
        return true;
    }
    const CDescriptor probe(fd);  // or none
    return false;
}

void CPortmap::Trace(const char* pcFmt, ...) const {
    if (!m_pRuntimeParam->IsLogPortmap()) {
        return;
    }
    char cLine[STATUS_SIZE] = "";
    std::va_list vaArgs;
    va_start(vaArgs, pcFmt);
    std::vsnprintf(cLine, sizeof(cLine), pcFmt, vaArgs);
    va_end(vaArgs);
    m_pUtilities->LogInfo(m_pRuntimeParam, "%s", cLine);
}

int CPortmap::CreateSocket(unsigned long port, char* pcErrorText) const {
    CDescriptor made = MakeSocket(SOCK_STREAM);
    if (!made.IsOpen()) {
        CUtilities::SetStatus(pcErrorText, "Error opening socket for port %lu", port);
        return SOCKET_NONE;
    }
    // Left-over connections of an earlier portmapper must not look like a running one.
    const int iOn = 1;
    setsockopt(made.Get(), SOL_SOCKET, SO_REUSEADDR, &iOn, sizeof(iOn));
    if (!BindToPort(made, static_cast<std::uint16_t>(port))) {
        CUtilities::SetStatus(pcErrorText, "Error binding socket with port %lu", port);
        return SOCKET_NOT_BOUND;
    }
    return made.Release();
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
    CDescriptor ownSocket;
    if (socket == 0) {
        socket = CreateSocket(port, cReason);
        if (socket < 0) {
            CUtilities::SetStatus(pcErrorText,
                                  "Fail to opening register socket for port %lu. Reason=%s", port,
                                  cReason);
            return false;
        }
        ownSocket.Reset(socket);
    }
    const bool bOk = RegisterSvc(prog, vers, socket, cReason);
    if (!bOk) {
        CUtilities::SetStatus(pcErrorText, "Fail to register socket for port %lu. Reason=%s", port,
                              cReason);
    }
    return bOk;
}

bool CPortmap::RegisterSvc(long prog, long vers, int socket, char* pcErrorText) {
    constexpr const char* LABEL = "Portmap.RegisterSvc";
    const auto registerSvc = [&](const Transport& transport, int iProtocol) {
        return svc_register(transport.Get(), static_cast<rpcprog_t>(prog),
                            static_cast<rpcvers_t>(vers), &CPortmap::Dispatch, iProtocol) != 0;
    };

    Trace("[%s] Creating UDP for %ld ver=%ld", LABEL, prog, vers);
    {
        const Transport udp(socket, [](int fd) { return svcudp_create(fd); });
        if (udp.Get() == nullptr) {
            CUtilities::SetStatus(pcErrorText, "Cannot create UDP for %ld ver=%ld", prog, vers);
            return false;
        }
        Trace("[%s] Registering UDP for %ld ver=%ld", LABEL, prog, vers);
        if (!registerSvc(udp, IPPROTO_UDP)) {
            CUtilities::SetStatus(pcErrorText, "Unable to register UDP for %ld ver=%ld", prog,
                                  vers);
            return false;
        }
        Trace("[%s] Registered UDP for %ld ver=%ld", LABEL, prog, vers);
    }
    Trace("[%s] Creating TCP for %ld ver=%ld", LABEL, prog, vers);
    const Transport tcp(socket, [](int fd) { return svctcp_create(fd, 0, 0); });
    if (tcp.Get() == nullptr) {
        CUtilities::SetStatus(pcErrorText, "Cannot create TCP for %ld ver=%ld", prog, vers);
        return false;
    }
    Trace("[%s] Registering TCP for %ld ver=%ld", LABEL, prog, vers);
    if (!registerSvc(tcp, IPPROTO_TCP)) {
        CUtilities::SetStatus(pcErrorText, "Unable to register TCP for %ld ver=%ld", prog, vers);
        return false;
    }
    Trace("[%s] Registered TCP for %ld ver=%ld", LABEL, prog, vers);
    return true;
}

void CPortmap::Unregister(long prog, long vers, char* pcErrorText) {
    if (!bIsRunning) {
        CUtilities::SetStatus(pcErrorText, "Portmapper is not running.");
        return;
    }
    svc_unregister(static_cast<rpcprog_t>(prog), static_cast<rpcvers_t>(vers));
    pmap_unset(static_cast<rpcprog_t>(prog), static_cast<rpcvers_t>(vers));
    Trace("[%s] Unregistered the program %ld ver=%ld", "Portmap.Unregister", prog, vers);
}

void CPortmap::Dispatch(svc_req* /*pRequest*/, SVCXPRT* /*pTransport*/) {}
