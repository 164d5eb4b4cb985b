// A listening TCP port with its accept thread and its fixed pool of connection slots.
#ifndef VELOCAST_SERVERSOCKET_H
#define VELOCAST_SERVERSOCKET_H

#include <atomic>
#include <memory>
#include <vector>

#include "Descriptor.h"
#include "Socket.h"
#include "Thread.h"

class CUtilities;

// Thread safety: used by one owner thread; the slots are handed out by the accept thread.  The
// descriptor and the pool change only while no accept thread runs.
class CServerSocket {
public:
    CServerSocket() = default;
    ~CServerSocket();
    CServerSocket(const CServerSocket&) = delete;
    CServerSocket& operator=(const CServerSocket&) = delete;

    // Before Open; borrowed.
    void SetListener(ISocketListener* pListener) { m_pListener = pListener; }

    // Listens on the wildcard address and nPort for program nProgId with nMaxNum slots.  On failure
    // false, nothing stays open, and pcStatus (STATUS_SIZE bytes, or null) holds the reason.
    bool Open(unsigned long nProgId, int nPort, int nMaxNum, CUtilities* pUtilities,
              char* pcStatus);
    // Ends the accept thread and wakes every connection's thread, without waiting for those: a
    // thread may wait for another port's, which is sending to a peer that does not read.
    void Interrupt();
    // Ends the accept thread and every connection.
    void Close();

    // The port given to Open.
    int GetPort() const { return m_nPort; }
    // The listening descriptor, -1 when closed.
    int GetSocket() const { return m_ServerSocket.Get(); }

private:
    // The body of the accept thread.
    void Run();
    // The first slot in array order that is free, or m_nMaxNum when every connection lives.  Waits
    // while one whose peer has closed is about to become free.  For the accept thread.
    int WaitForSlot() const;

    int m_nPort = 0;
    int m_nMaxNum = 0;
    CDescriptor m_ServerSocket;
    std::atomic<bool> m_bClosed{true};
    ISocketListener* m_pListener = nullptr;
    CThread m_hThread;
    std::vector<std::unique_ptr<CSocket>> m_pSockets;  // the slots
};

#endif
