#include "Socket.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

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
    m_Socket = fd;
    if (fd == -1) {
        return true;
    }
    m_bActive = true;
    const int iError = pthread_create(&m_hThread, nullptr, &CSocket::ThreadMain, this);
    m_iThreadCreated = iError;
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
    const int fd = m_Socket;
    if (fd != -1) {
        shutdown(fd, SHUT_RDWR);
    }
}

void CSocket::Close() {
    const int fd = m_Socket.exchange(-1);
    if (fd != -1) {
        // Wakes a thread in recv or recvfrom, also on an unconnected datagram socket (where the
        // call reports ENOTCONN all the same, on Linux and on FreeBSD).
        shutdown(fd, SHUT_RDWR);
    }
    if (m_iThreadCreated == 0) {
        pthread_join(m_hThread, nullptr);
    }
    m_iThreadCreated = -1;
    if (fd != -1) {
        // Only now: while the thread ran, the number could have been given to another file.
        close(fd);
    }
}

bool CSocket::IsPeerClosed() const {
    pollfd entry{m_Socket, POLLRDHUP, 0};
    return poll(&entry, 1, 0) > 0 && (entry.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void* CSocket::ThreadMain(void* pvSocket) {
    static_cast<CSocket*>(pvSocket)->Run();
    return nullptr;
}

void CSocket::Run() {
    for (int fd = m_Socket; fd != -1; fd = m_Socket) {
        m_pInputStream->ConsolidateBuffer(0);
        if (m_pInputStream->GetFreeBufferSize() == 0) {
            break;
        }
        const ssize_t iReceived = Receive(fd);
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

ssize_t CSocket::Receive(int fd) {
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
    const int fd = m_Socket;
    if (fd == -1 || m_pOutputStream->GetBufferSize() == 0) {
        return;
    }
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
