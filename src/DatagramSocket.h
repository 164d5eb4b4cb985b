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
    // stays open, and pcStatus (2048 bytes, or null) holds the reason.
    bool Open(unsigned long lProgId, int iPort, CUtilities* pUtilities, char* pcStatus);
    void Close();

    // The port given to Open.
    int GetPort() const { return m_iPort; }

private:
    bool Fail(const char* pcFmt, char* pcStatus);

    int m_iPort = 0;
    int m_Socket = -1;                   // owned by m_pSocket once that is open
    std::unique_ptr<CSocket> m_pSocket;  // runs the receive thread
    bool m_bClosed = true;
    ISocketListener* m_pListener = nullptr;
};

#endif
