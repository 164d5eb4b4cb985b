#include "ServerSocket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "PortSocket.h"
#include "Utilities.h"

namespace {

// Fires in every build type: a connection without a slot ends the process at once, so that its
// supervisor notices, instead of leaving a client that is never answered.
void AssertFailed(const char* pcExpression, const char* pcFunction, const char* pcFile, int iLine) {
    std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", pcExpression,
                 pcFunction, pcFile, iLine);
    std::abort();
}

// A host that lost its power says no good-bye.  Its connection ends once nothing has come from it
// for DEAD_PEER_SECONDS, be the connection idle (probes) or the last reply unacknowledged (user
// timeout), and gives its slot back.
constexpr int DEAD_PEER_SECONDS = 50;
constexpr int PROBE_AFTER_SECONDS = 30;
constexpr int PROBE_INTERVAL_SECONDS = 5;
constexpr int PROBES = (DEAD_PEER_SECONDS - PROBE_AFTER_SECONDS) / PROBE_INTERVAL_SECONDS;

// How long a connection waits for the slot of one whose peer has closed.  Such a slot's thread may
// have to wait for another that is sending to a dead peer, which takes no longer than this.
constexpr std::chrono::milliseconds SLOT_PATIENCE{60'000};
constexpr std::chrono::milliseconds SLOT_POLL{1};

void SetOption(int fd, int iLevel, int iOption, int iValue) {
    setsockopt(fd, iLevel, iOption, &iValue, sizeof(iValue));
}

// Called for every accepted connection.  An option that is refused costs no connection.
void SetConnectionOptions(int fd) {
    // Replies are single sends; a pipelining client must not wait for a delayed acknowledgement.
    SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, PROBE_AFTER_SECONDS);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, PROBE_INTERVAL_SECONDS);
    SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, PROBES);
#if defined(TCP_USER_TIMEOUT)
    SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, DEAD_PEER_SECONDS * 1000);
#elif defined(TCP_MAXUNACKTIME)  // FreeBSD, in seconds
    SetOption(fd, IPPROTO_TCP, TCP_MAXUNACKTIME, DEAD_PEER_SECONDS);
#endif
}

}  // namespace

CServerSocket::~CServerSocket() { Close(); }

bool CServerSocket::Open(unsigned long nProgId, int nPort, int nMaxNum, CUtilities* /*pUtilities*/,
                         char* pcStatus) {
    Close();
    m_nPort = nPort;
    m_nMaxNum = nMaxNum;
    CDescriptor listener = MakeSocket(SOCK_STREAM);
    if (!listener.IsOpen()) {
        CUtilities::SetStatus(pcStatus, "Fail to create server socket. %s",
                              CSocketErrorText().Get());
        return false;
    }
    // No address reuse: a port that is still in use must be refused.
    if (!BindToPort(listener, nPort)) {
        CUtilities::SetStatus(pcStatus, "Fail to bind server socket. %s", CSocketErrorText().Get());
        return false;
    }
    if (listen(listener.Get(), nMaxNum) == -1) {
        CUtilities::SetStatus(pcStatus, "Fail to listen server socket. %s",
                              CSocketErrorText().Get());
        return false;
    }
    for (int i = 0; i < nMaxNum; ++i) {
        m_pSockets.push_back(std::make_unique<CSocket>(SOCKET_TYPE_TCP, nProgId));
    }
    m_ServerSocket = std::move(listener);
    m_bClosed = false;
    const int iError = m_hThread.Start<&CServerSocket::Run>(this);
    if (iError != 0) {
        Close();
        errno = iError;
        CUtilities::SetStatus(pcStatus, "Fail to create server socket. %s",
                              CSocketErrorText().Get());
        return false;
    }
    return true;
}

void CServerSocket::Interrupt() {
    m_bClosed = true;
    if (m_hThread.IsStarted()) {
        shutdown(m_ServerSocket.Get(), SHUT_RDWR);  // wakes the thread in accept
    }
    m_hThread.Join();
    for (const auto& pSocket : m_pSockets) {
        pSocket->Interrupt();
    }
}

void CServerSocket::Close() {
    Interrupt();
    m_ServerSocket.Reset();
    m_pSockets.clear();
}

int CServerSocket::WaitForSlot() const {
    for (std::chrono::milliseconds waited{0};; waited += SLOT_POLL) {
        bool bEnding = false;
        for (int i = 0; i < m_nMaxNum; ++i) {
            const CSocket& socket = *m_pSockets[static_cast<std::size_t>(i)];
            if (!socket.IsActive()) {
                return i;
            }
            // Once its peer has closed, a slot is free as soon as its thread has noticed.
            bEnding = bEnding || socket.IsPeerClosed() || !socket.IsActive();
        }
        if (!bEnding || waited >= SLOT_PATIENCE || m_bClosed) {
            return m_nMaxNum;
        }
        std::this_thread::sleep_for(SLOT_POLL);
    }
}

void CServerSocket::Run() {
    while (!m_bClosed) {
        sockaddr_in addr{};
        socklen_t iAddrLen = sizeof(addr);
        const int fd = accept4(m_ServerSocket.Get(), reinterpret_cast<sockaddr*>(&addr), &iAddrLen,
                               SOCK_CLOEXEC);
        if (fd == 0) {
            // The number of standard input counts as a failure.  It stays taken, so that the next
            // connection is given another one; its client is told at once.
            shutdown(fd, SHUT_RDWR);
        }
        if (fd <= 0) {
            continue;
        }
        CDescriptor connection(fd);
        SetConnectionOptions(fd);
        const int i = WaitForSlot();
        if (m_bClosed) {
            break;
        }
        if (!(i < m_nMaxNum)) {
            AssertFailed("i < m_nMaxNum", "Run", "src/ServerSocket.cpp", __LINE__);
        }
        m_pSockets[static_cast<std::size_t>(i)]->Open(connection.Release(), m_pListener, &addr);
    }
}
