// Runs the serving of one channel on a thread of its own.
#ifndef VELOCAST_IPCSERVERTHREAD_H
#define VELOCAST_IPCSERVERTHREAD_H

#include <atomic>
#include <memory>

#include "Thread.h"

class CIpcServer;
class CNfsMain;

// Thread safety: used by one owner thread; IsActive may be asked by any.
class CIpcServerThread {
public:
    CIpcServerThread();
    virtual ~CIpcServerThread();
    CIpcServerThread(const CIpcServerThread&) = delete;
    CIpcServerThread& operator=(const CIpcServerThread&) = delete;

    // pNfsHandle is borrowed; pcError points to STATUS_SIZE bytes.
    bool Open(const char* pcChannel, CNfsMain* pNfsHandle, char* pcError);
    // Ends the thread and closes the channel.
    void Close();
    bool IsActive() const { return m_bActive; }
    // The thread's body: serves until the channel is closed.
    void Run();

private:
    std::unique_ptr<CIpcServer> m_pServer;  // null: no channel
    std::atomic<bool> m_bActive{false};
    CThread m_Thread;
};

#endif
