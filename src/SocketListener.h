// What a socket tells of received bytes.
#ifndef VELOCAST_SOCKETLISTENER_H
#define VELOCAST_SOCKETLISTENER_H

class CSocket;

class ISocketListener {
public:
    virtual ~ISocketListener() = default;

    // Called on the socket's receive thread after bytes were added to its input stream.  The
    // listener may write to the output stream and call Send.
    virtual void SocketReceived(CSocket* pSocket) = 0;
};

#endif
