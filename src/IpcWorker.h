// A queue of tasks with a thread of its own, for what may have to wait for another process.
#ifndef VELOCAST_IPCWORKER_H
#define VELOCAST_IPCWORKER_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>

#include "Mutex.h"
#include "Thread.h"

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
    void Run();

    CIpcWaits* m_pWaits;
    mutable CMutex m_hMutex;                         // a leaf
    CCondition m_hChanged;                           // of m_vTasks and m_bEnd
    std::deque<Task> m_vTasks GUARDED_BY(m_hMutex);  // the first is under way
    bool m_bEnd GUARDED_BY(m_hMutex) = false;
    CThread m_Thread;  // started with the first task
};

#endif
