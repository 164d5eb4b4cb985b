// Finds out whether a system portmapper holds its port, and registers the services with it.
#ifndef VELOCAST_PORTMAP_H
#define VELOCAST_PORTMAP_H

#include "Utilities.h"

struct svc_req;
struct __rpc_svcxprt;  // SVCXPRT of the system's RPC library

class CRuntimeParam;
class CServerSocket;

// Error texts go to a buffer of STATUS_SIZE bytes, which may be null.
//
// Thread safety: used by the starting and stopping thread only.
class CPortmap {
public:
    // Of the system's portmapper, and of the internal one in its place.
    static constexpr int PORT = 111;

    // Both borrowed.  Probes the port once.
    CPortmap(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);
    virtual ~CPortmap() = default;
    CPortmap(const CPortmap&) = delete;
    CPortmap& operator=(const CPortmap&) = delete;

    // What the probe of the constructor found.
    bool IsRunning() const { return bIsRunning; }
    // With bProbe, whether the port cannot be bound now.
    bool IsRunning(bool bProbe) const;

    // Maps the program, over UDP and TCP, to the port of the listening socket.
    bool Register(long prog, long vers, CServerSocket* pServerSocket, char* pcErrorText);
    // A socket of 0: one is made on the port.
    bool Register(long prog, long vers, int socket, unsigned long port, char* pcErrorText);
    void Unregister(long prog, long vers, char* pcErrorText);

    // A TCP socket bound to the port, -1 when there is none to be had, -2 when it cannot be bound.
    int CreateSocket(unsigned long port, char* pcErrorText) const;
    bool RegisterSvc(long prog, long vers, int socket, char* pcErrorText);

    // Never called: the server's own sockets carry the calls.
    static void Dispatch(svc_req* pRequest, __rpc_svcxprt* pTransport);

private:
    // One line, when the registration is logged.
    void Trace(const char* pcFmt, ...) const VELOCAST_PRINTF(2, 3);

    bool bIsRunning = false;  // what the constructor found; never probed again
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
};

#endif
