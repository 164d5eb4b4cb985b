// Finds out whether a system portmapper holds port 111, and registers the services with it.
#ifndef VELOCAST_PORTMAP_H
#define VELOCAST_PORTMAP_H

#include <cstddef>

struct svc_req;
struct __rpc_svcxprt;  // SVCXPRT of the system's RPC library

class CRuntimeParam;
class CServerSocket;
class CUtilities;

// Error texts go to a buffer of STATUS_SIZE bytes, which may be null.
//
// Thread safety: used by the starting and stopping thread only.
class CPortmap {
public:
    // Both borrowed.  Probes port 111 once.
    CPortmap(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);
    virtual ~CPortmap() = default;
    CPortmap(const CPortmap&) = delete;
    CPortmap& operator=(const CPortmap&) = delete;

    // What the probe of the constructor found.
    bool IsRunning() const { return bIsRunning; }
    // With bProbe, whether port 111 cannot be bound now.
    bool IsRunning(bool bProbe);

    // Maps the program, over UDP and TCP, to the port of the listening socket.
    bool Register(long prog, long vers, CServerSocket* pServerSocket, char* pcErrorText);
    // A socket of 0: one is made on the port.
    bool Register(long prog, long vers, int socket, unsigned long port, char* pcErrorText);
    void Unregister(long prog, long vers, char* pcErrorText);

    // A TCP socket bound to the port, -1 when there is none to be had, -2 when it cannot be bound.
    int CreateSocket(unsigned long port, char* pcErrorText);
    bool RegisterSvc(long prog, long vers, int socket, char* pcErrorText);

    // Never called: the server's own sockets carry the calls.
    static void Dispatch(svc_req* pRequest, __rpc_svcxprt* pTransport);

private:
    bool bIsRunning;
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
};

#endif
