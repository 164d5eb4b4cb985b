#include "Socket.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

int SocketGetLastError() { return errno; }

CSocket::CSocket(int iType, unsigned long lProgId)
    : m_iType(iType),
      m_pInputStream(std::make_unique<CInputStream>()),
      m_pOutputStream(std::make_unique<COutputStream>()),
      m_lProgId(lProgId) {}

CSocket::~CSocket() { Close(); }

bool CSocket::Open(int fd, ISocketListener* pListener, const sockaddr_in* pAddr) {
    Close();
    m_pListener = pListener;
    if (pAddr != nullptr) {
        m_RemoteAddr = *pAddr;
    }
    if (fd == -1) {
        return true;
    }
    m_Socket.Reset(fd);
    m_bClosed = false;
    m_bActive = true;
    const int iError = m_hThread.Start<&CSocket::Run>(this);
    if (iError != 0) {
        // Nobody would ever read this connection: give the slot back.
        m_bActive = false;
        Close();
        errno = iError;
        return false;
    }
    return true;
}

void CSocket::Interrupt() {
    if (m_Socket.IsOpen()) {
        // Wakes a thread in recv or recvfrom, also on an unconnected datagram socket (where the
        // call reports ENOTCONN all the same, on Linux and on FreeBSD).
        shutdown(m_Socket.Get(), SHUT_RDWR);
    }
}

void CSocket::Close() {
    m_bClosed = true;
    Interrupt();
    m_hThread.Join();
    // Only now: while the thread ran, the number could have been given to another file.
    m_Socket.Reset();
}

bool CSocket::IsPeerClosed() const {
    pollfd entry{m_Socket.Get(), POLLRDHUP, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void CSocket::Run() {
    while (!m_bClosed) {
        m_pInputStream->ConsolidateBuffer(0);
        if (m_pInputStream->GetFreeBufferSize() == 0) {
            break;
        }
        const ssize_t iReceived = Receive();
        if (iReceived == 0 && m_iType == SOCKET_TYPE_UDP) {
            continue;  // an empty datagram, or the wake-up of Close
        }
        if (iReceived <= 0) {
            break;
        }
        m_pInputStream->AddFilledBufferSize(static_cast<std::uint32_t>(iReceived));
        m_pListener->SocketReceived(this);
    }
    m_bActive = false;
}

ssize_t CSocket::Receive() {
    const int fd = m_Socket.Get();
    for (;;) {
        ssize_t iReceived = 0;
        if (m_iType == SOCKET_TYPE_TCP) {
            iReceived =
                recv(fd, m_pInputStream->GetFreeBuffer(), m_pInputStream->GetFreeBufferSize(), 0);
        } else {
            socklen_t iAddrLen = sizeof(m_RemoteAddr);
            iReceived =
                recvfrom(fd, m_pInputStream->GetFreeBuffer(), m_pInputStream->GetFreeBufferSize(),
                         0, reinterpret_cast<sockaddr*>(&m_RemoteAddr), &iAddrLen);
        }
        if (iReceived != -1 || errno != EINTR) {
            return iReceived;
        }
    }
}

void CSocket::Send() {
    if (m_bClosed || m_pOutputStream->GetBufferSize() == 0) {
        return;
    }
    const int fd = m_Socket.Get();
    if (m_iType == SOCKET_TYPE_TCP) {
        const ssize_t iSent =
            send(fd, m_pOutputStream->GetBuffer(), m_pOutputStream->GetBufferSize(), MSG_NOSIGNAL);
        if (iSent > 0) {
            m_pOutputStream->FreeBuffer(static_cast<std::uint32_t>(iSent));
        }
        return;
    }
    sendto(fd, m_pOutputStream->GetBuffer(), m_pOutputStream->GetBufferSize(), MSG_NOSIGNAL,
           reinterpret_cast<const sockaddr*>(&m_RemoteAddr), sizeof(m_RemoteAddr));
    // A datagram is one reply and goes whole or not at all.  One that the system refused (larger
    // than a datagram can be) must not be put in front of every later reply.
    m_pOutputStream->ResetBuffer();
}

const char* CSocket::GetRemoteAddress() {
    const char* pcText =
        inet_ntop(AF_INET, &m_RemoteAddr.sin_addr, m_cRemoteAddr, sizeof(m_cRemoteAddr));
    return pcText != nullptr ? pcText : "";
}

int CSocket::GetRemotePort() const { return ntohs(m_RemoteAddr.sin_port); }
