#include "DatagramSocket.h"

#include <sys/socket.h>

#include "PortSocket.h"
#include "Utilities.h"

CDatagramSocket::~CDatagramSocket() { Close(); }

bool CDatagramSocket::Open(unsigned long lProgId, int iPort, CUtilities* /*pUtilities*/,
                           char* pcStatus) {
    Close();
    m_pSocket = std::make_unique<CSocket>(SOCKET_TYPE_UDP, lProgId);
    CDescriptor receiver = MakeSocket(SOCK_DGRAM);
    if (!receiver.IsOpen()) {
        CUtilities::SetStatus(pcStatus, "Fail to create datagram socket. %s",
                              CSocketErrorText().Get());
        return false;
    }
    if (!BindToPort(receiver, iPort)) {
        CUtilities::SetStatus(pcStatus, "Fail to bind datagram socket. %s",
                              CSocketErrorText().Get());
        return false;
    }
    if (!m_pSocket->Open(receiver.Release(), m_pListener, nullptr)) {
        CUtilities::SetStatus(pcStatus, "Fail to create datagram socket. %s",
                              CSocketErrorText().Get());
        return false;
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
}
