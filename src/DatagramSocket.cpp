#include "DatagramSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "Utilities.h"

CDatagramSocket::~CDatagramSocket() { Close(); }

bool CDatagramSocket::Fail(const char* pcFmt, char* pcStatus) {
    const int iError = SocketGetLastError();
    char cReason[STATUS_SIZE] = "";
    CUtilities::GetLastErrorText(cReason, iError);
    CUtilities::SetStatus(pcStatus, pcFmt, cReason);
    if (m_Socket != -1) {
        close(m_Socket);
        m_Socket = -1;
    }
    return false;
}

bool CDatagramSocket::Open(unsigned long lProgId, int iPort, CUtilities* /*pUtilities*/,
                           char* pcStatus) {
    Close();
    m_pSocket = std::make_unique<CSocket>(SOCKET_TYPE_UDP, lProgId);
    m_Socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_Socket == -1) {
        return Fail("Fail to create datagram socket. %s", pcStatus);
    }
    if (iPort < 0 || iPort > UINT16_MAX) {
        errno = EINVAL;  // cut to 16 bits it would be another port
        return Fail("Fail to bind datagram socket. %s", pcStatus);
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<std::uint16_t>(iPort));
    if (bind(m_Socket, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == -1) {
        return Fail("Fail to bind datagram socket. %s", pcStatus);
    }
    if (!m_pSocket->Open(m_Socket, m_pListener, nullptr)) {
        m_Socket = -1;  // closed by m_pSocket
        return Fail("Fail to create datagram socket. %s", pcStatus);
    }
    m_bClosed = false;
    m_iPort = iPort;
    return true;
}

void CDatagramSocket::Close() {
    if (m_bClosed) {
        return;
    }
    m_bClosed = true;
    m_pSocket.reset();  // wakes and joins the thread, then closes the descriptor
    m_Socket = -1;
}
