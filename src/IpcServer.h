// The receiving end of the local channel: takes one message per connection and answers it.
#ifndef VELOCAST_IPCSERVER_H
#define VELOCAST_IPCSERVER_H

#include <sys/un.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "IpcBasic.h"
#include "IpcReport.h"
#include "IpcWaits.h"

class CNfsMain;

// Serves requests in a server process and callbacks in a controlling process.
//
// Order: the next message is that of the oldest connection whose message is there; a connection
// whose message has not come yet waits aside, so that a silent peer keeps nobody but itself
// waiting.  Messages are executed one after another, with three exceptions that keep a wait
// from holding up the rest:
//   - A request whose lines go to its requester is executed in its turn, but lines that the
//     requester does not take, and then the answer, are delivered on a thread of their own.
//   - In a controlling process, requests are forwarded one after another by a second thread, so
//     that callbacks, which are executed in their own order, never wait for the server process.
//   - While an export of a redirected file runs, which may take hours, the requests that ask who
//     the server is and whether it would shut down are executed before their turn.
//
// Errors go to pcError (STATUS_SIZE bytes); the forms without it log the error.
//
// Thread safety: one thread opens, serves and closes; Interrupt and IsOpened may be called by any.
// ParseData and what it calls are also run by the forwarding thread, with a pair of buffers of its
// own.
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
    // Makes ReadRequest, now and from now on, return at once, and ends what waits for other
    // processes.
    void Interrupt();
    bool IsInterrupted() const { return m_bInterrupted; }

    // Waits for one message and answers it.
    bool ReadRequest(char* pcError);
    // Also ends the process's service after an accepted auto-shutdown request was answered.
    bool ReadRequest();

    // Executes the request of the pair and fills its reply; what an operation throws becomes an
    // EXPT with its reason.
    void ParseData(LogArgu* pLogArgu, IpcDataInst* pData);
    void ProcessRequest(IpcDataInst* pData, int iType);
    void ProcessCallback(IpcDataInst* pData, int iType);

private:
    using ConnectionPtr = std::shared_ptr<CDescriptor>;  // accepted; whoever answers holds it

    struct IpcServerInst {
        CDescriptor iSocket;     // listening
        sockaddr_un socketAddr;  // its path is the channel
        IpcDataInst data;        // reused for every connection: what a short message lacks is what
                                 // an earlier one left
    };

    bool OpenSocket(LogArgu* pLogArgu, const char* pcChannel, char* pcError);
    // Waits until a connection has something to read, and takes it over; null when interrupted, and
    // with a text in pcError when it failed.
    ConnectionPtr WaitForMessage(char* pcError);
    // Takes the next connection of the backlog; false, with a text in pcError, when that failed.
    bool Accept(char* pcError);
    bool ServeConnection(const ConnectionPtr& pConnection, char* pcError);
    // Gives the message to the forwarding thread; false, with a text in pcError, when that has too
    // much to do.
    bool Forward(const ConnectionPtr& pConnection, char* pcError);
    // Executes an export on a thread of its own and waits for it, while it answers what must not
    // wait.  False when there is no thread for it.
    bool Export(const ConnectionPtr& pConnection);
    // Answers those whose message must not wait for an export.
    void ServeUrgent();
    bool SendReply(const CDescriptor& connection, const IpcDataBuf& reply, char* pcError);
    // For the other threads: logs the error.
    void SendReply(const CDescriptor& connection, const IpcDataBuf& reply);
    // The context of a request that, with bLines, has lines for its requester.
    std::shared_ptr<CRuntimeParam> MakeListingParam(const std::string& sIpcID, bool bLines);
    // Once only, so that a file that another process has put in its place stays.
    void RemoveFile();
    // Waits a moment, or until interrupted.
    void Pause();
    void Execute(IpcDataInst* pData);
    // Executes the message of the pair, which is of that type, and fills the reply.
    template <IPC_REQUEST_TYPE TYPE>
    void ServeRequest(IpcDataInst* pData);
    template <IPC_CALLBACK_TYPE TYPE>
    void ServeCallback(IpcDataInst* pData);

    std::atomic<bool> m_bOpened{false};
    std::atomic<bool> m_bInterrupted{false};
    IpcServerInst m_IpcServerInst{};
    CNfsMain* m_pNfsHandle;
    bool m_bAutoShutdownRequested = false;  // only the serving thread of a server process sets it
    CDescriptor m_WakeReader;               // of a pipe; readable once interrupted
    CDescriptor m_WakeWriter;
    std::deque<ConnectionPtr> m_vWaiting;  // accepted, no message yet; oldest first

    std::atomic<bool> m_bFile{false};          // the channel's file may be there
    CIpcWaits m_Waits;                         // of the reports and the forwarding thread
    std::unique_ptr<CIpcWorker> m_pForwarder;  // null in a server process
    std::unique_ptr<CIpcWorker> m_pExporter;   // null until the first export
    std::shared_ptr<CIpcReport> m_pReport;     // of the request being executed
    std::vector<std::shared_ptr<CIpcReport>> m_vReports;  // whose deliveries are not done
};

#endif
