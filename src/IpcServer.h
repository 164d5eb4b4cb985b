// The receiving end of the local channel: takes one message per connection and answers it.
#ifndef VELOCAST_IPCSERVER_H
#define VELOCAST_IPCSERVER_H

#include <sys/un.h>

#include <atomic>
#include <deque>

#include "IpcBasic.h"

class CNfsMain;

// Serves requests in a server process and callbacks in a controlling process.
//
// A connection whose message has not come yet waits aside, so that a silent peer keeps nobody but
// itself waiting; messages are executed one after another in the order in which they arrive.
//
// Errors go to pcError (STATUS_SIZE bytes); the forms without it log the error.
//
// Thread safety: one thread opens, serves and closes; Interrupt and IsOpened may be called by any.
class CIpcServer : public CIpcBasic {
public:
    // pNfsHandle is borrowed and lends its utilities and runtime parameters.
    explicit CIpcServer(CNfsMain* pNfsHandle);
    ~CIpcServer() override;

    // Listens on the channel; a socket file of an earlier run is replaced.
    bool Open(const char* pcChannel, char* pcError);
    bool Open(const char* pcChannel);
    bool Close(char* pcError);
    bool Close();
    bool IsOpened() const { return m_bOpened; }
    // Makes ReadRequest, now and from now on, return at once.
    void Interrupt();
    bool IsInterrupted() const { return m_bInterrupted; }

    // Waits for one message and answers it.
    bool ReadRequest(char* pcError);
    // Also ends the process's service after an accepted auto-shutdown request was answered.
    bool ReadRequest();

    // Executes the request of the pair and fills its reply.
    void ParseData(LogArgu* pLogArgu, IpcDataInst* pData);
    void ProcessRequest(IpcDataInst* pData, int iType);
    void ProcessCallback(IpcDataInst* pData, int iType);

private:
    struct IpcServerInst {
        int iSocket;             // listening; -1: none
        sockaddr_un socketAddr;  // its path is the channel
        IpcDataInst data;        // reused for every connection: what a short message lacks is what
                                 // an earlier one left
    };

    static void ReplyBool(IpcDataInst* pData, bool bVal);
    static void ReplyInt(IpcDataInst* pData, int iVal);
    // The text is already in the reply.
    static void ReplyText(IpcDataInst* pData, IPC_REPLY_TYPE iType);
    static void ReplyResult(IpcDataInst* pData, bool bOk);

    bool OpenSocket(LogArgu* pLogArgu, const char* pcChannel, char* pcError);
    // Waits until a connection has something to read, and takes it over; -1 when interrupted, -2
    // with an error.
    int WaitForMessage(char* pcError);
    bool ServeConnection(LogArgu* pLogArgu, int iConnection, char* pcError);
    // Waits a moment, or until interrupted.
    void Pause();
    void CloseWaiting();

    std::atomic<bool> m_bOpened{false};
    std::atomic<bool> m_bInterrupted{false};
    IpcServerInst m_IpcServerInst{};
    CNfsMain* m_pNfsHandle;
    bool m_bAutoShutdownRequested = false;
    int m_iWake[2] = {-1, -1};   // a pipe; readable once interrupted
    std::deque<int> m_vWaiting;  // accepted, no message yet; oldest first
};

#endif
