// One TCP connection, or the receiving side of one UDP socket, with its thread and streams.
#ifndef VELOCAST_SOCKET_H
#define VELOCAST_SOCKET_H

#include <netinet/in.h>

#include <atomic>
#include <memory>

#include "Descriptor.h"
#include "InputStream.h"
#include "OutputStream.h"
#include "SocketListener.h"
#include "Thread.h"

inline constexpr int SOCKET_TYPE_TCP = 1;
inline constexpr int SOCKET_TYPE_UDP = 2;

// The system's number of the last socket error of this thread.
int SocketGetLastError();

// Thread safety: Open, Interrupt and Close are called by one owner thread; the streams and the
// remote address belong to the receive thread while it runs; IsActive may be asked by any thread.
// The descriptor changes only while no receive thread runs, so both sides read it without a lock.
class CSocket {
public:
    CSocket(int iType, unsigned long lProgId);
    virtual ~CSocket();
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    // Takes over the descriptor fd (-1: none) and starts to receive.  pListener is borrowed and
    // must outlive the socket's use; pAddr (the peer) may be null.  The streams keep what an
    // earlier connection left in them.  False, with errno set, when the descriptor got no receive
    // thread; it is closed then.
    bool Open(int fd, ISocketListener* pListener, const sockaddr_in* pAddr);
    // Ends both directions, so that the receive thread, or a peer's slow reading, holds up nobody.
    void Interrupt();
    // Wakes and joins the receive thread and closes the descriptor.
    void Close();
    // Sends the output stream.  What the system does not take stays at the front of a TCP stream.
    void Send();

    // True from Open until the receive loop ended; the descriptor stays open after that.
    bool IsActive() const { return m_bActive; }
    // True when the peer sends no more (it closed, was reset or timed out), so that the receive
    // loop ends once the bytes before that have been dealt with.  Called by the owner thread.
    bool IsPeerClosed() const;
    int GetType() const { return m_iType; }
    // Dotted IPv4 text of the peer; good until the next call.
    const char* GetRemoteAddress();
    int GetRemotePort() const;
    CInputStream* GetInputStream() { return m_pInputStream.get(); }
    COutputStream* GetOutputStream() { return m_pOutputStream.get(); }
    unsigned long GetProgId() const { return m_lProgId; }

private:
    // The body of the receive thread.
    void Run();
    // Bytes received into the input stream; 0 or less ends the loop.
    ssize_t Receive();

    const int m_iType;
    CDescriptor m_Socket;
    std::atomic<bool> m_bClosed{true};  // the receive thread is to end and to send no more
    sockaddr_in m_RemoteAddr{};
    char m_cRemoteAddr[INET_ADDRSTRLEN] = {};
    ISocketListener* m_pListener = nullptr;
    const std::unique_ptr<CInputStream> m_pInputStream;
    const std::unique_ptr<COutputStream> m_pOutputStream;
    std::atomic<bool> m_bActive{false};
    CThread m_hThread;
    const unsigned long m_lProgId;
};

#endif
