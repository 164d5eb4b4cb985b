// A UDP port served by one receive thread.
#ifndef VELOCAST_DATAGRAMSOCKET_H
#define VELOCAST_DATAGRAMSOCKET_H

#include <memory>

#include "Socket.h"

class CUtilities;

// Thread safety: used by one owner thread.
class CDatagramSocket {
public:
    CDatagramSocket() = default;
    ~CDatagramSocket();
    CDatagramSocket(const CDatagramSocket&) = delete;
    CDatagramSocket& operator=(const CDatagramSocket&) = delete;

    // Before Open; borrowed.
    void SetListener(ISocketListener* pListener) { m_pListener = pListener; }

    // Receives on the wildcard address and iPort for program lProgId.  On failure false, nothing
    // stays open, and pcStatus (STATUS_SIZE bytes, or null) holds the reason.
    bool Open(unsigned long lProgId, int iPort, CUtilities* pUtilities, char* pcStatus);
    void Close();

    // The port given to Open.
    int GetPort() const { return m_iPort; }

private:
    int m_iPort = 0;
    std::unique_ptr<CSocket> m_pSocket;  // owns the descriptor, runs the receive thread
    bool m_bClosed = true;
    ISocketListener* m_pListener = nullptr;
};

#endif
