// The sending end of the local channel: one message, one reply.
#ifndef VELOCAST_IPCCLIENT_H
#define VELOCAST_IPCCLIENT_H

#include "IpcBasic.h"

class CIpcWait;
class CIpcWaits;

// Made for one exchange.  The caller fills the request of GetDataInst, sends it, and reads the
// reply.
class CIpcClient : public CIpcBasic {
public:
    // With pWaits (borrowed, may be null) the exchange can be ended.
    CIpcClient(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam, CIpcWaits* pWaits = nullptr);

    // Both buffers start as zeros.
    IpcDataInst* GetDataInst() { return &m_IpcDataInst; }

    // True when a reply came; waits for it without a limit, also for a peer that has no room for
    // another connection.  pcError points to STATUS_SIZE bytes.
    bool SendRequest(const char* pcChannel, char* pcError);
    // Logs the error instead.
    bool SendRequest(const char* pcChannel);

    // The value of the reply, or false, 0, -1 and null when it is of another kind.
    bool GetBoolReply() const;
    long GetLongReply() const;
    int GetIntReply() const;
    const char* GetExptReply();
    const char* GetMsgReply();

private:
    bool IsReply(IPC_REPLY_TYPE iType) const;
    const char* GetTextReply(IPC_REPLY_TYPE iType);
    // The steps of an exchange on an open socket.
    bool Connect(const CIpcWait& wait, int iSocket, const char* pcChannel, char* pcError);
    bool Send(int iSocket, char* pcError);
    bool Receive(const CIpcWait& wait, int iSocket, char* pcError);

    CIpcWaits* m_pWaits;
    IpcDataInst m_IpcDataInst{};
};

#endif
