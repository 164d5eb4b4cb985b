// A thread that does what may have to wait for another process.
#ifndef VELOCAST_IPCWORKER_H
#define VELOCAST_IPCWORKER_H

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

class CIpcWaits;

// Does tasks one after another in the order in which they were given.  The thread is made with the
// first task.
//
// Thread safety: one owner thread gives, waits and destroys.
class CIpcWorker {
public:
    using Task = std::function<void()>;

    // The exchanges of the tasks belong to pWaits (borrowed).
    explicit CIpcWorker(CIpcWaits* pWaits);
    // Waits until every task is done; whoever wants that soon refuses the waits before.
    ~CIpcWorker();
    CIpcWorker(const CIpcWorker&) = delete;
    CIpcWorker& operator=(const CIpcWorker&) = delete;

    // False when no thread can be made; the task is then left to the caller.
    bool Add(const Task& task);
    // Tasks that are not done, the one under way included.
    std::size_t GetCount() const;
    // Waits until every task is done, but no longer than that.
    void WaitForAll(std::chrono::steady_clock::duration timeout);

private:
    static void* ThreadMain(void* pvWorker);
    void Run();

    CIpcWaits* m_pWaits;
    mutable std::mutex m_hMutex;  // a leaf
    std::condition_variable m_hChanged;
    std::deque<Task> m_vTasks;  // guarded by m_hMutex; the first is under way
    bool m_bEnd = false;        // guarded by m_hMutex
    bool m_bThread = false;     // m_hThread is to be joined
    pthread_t m_hThread{};
};

#endif
