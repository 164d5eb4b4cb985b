#include "IpcWorker.h"

#include "IpcWaits.h"

CIpcWorker::CIpcWorker(CIpcWaits* pWaits) : m_pWaits(pWaits) {}

CIpcWorker::~CIpcWorker() {
    {
        const CMutexLock lock(m_hMutex);
        m_bEnd = true;
    }
    m_hChanged.NotifyAll();
    m_Thread.Join();
}

bool CIpcWorker::Add(const Task& task) {
    if (!m_Thread.IsStarted() && m_Thread.Start<&CIpcWorker::Run>(this) != 0) {
        return false;
    }
    {
        const CMutexLock lock(m_hMutex);
        m_vTasks.push_back(task);
    }
    m_hChanged.NotifyAll();
    return true;
}

std::size_t CIpcWorker::GetCount() const {
    const CMutexLock lock(m_hMutex);
    return m_vTasks.size();
}

void CIpcWorker::WaitForAll(std::chrono::steady_clock::duration timeout) {
    const auto end = std::chrono::steady_clock::now() + timeout;
    const CMutexLock lock(m_hMutex);
    while (!m_vTasks.empty() && m_hChanged.WaitUntil(m_hMutex, end)) {
    }
}

void CIpcWorker::Run() {
    const CIpcWaits::ThreadScope scope(m_pWaits);
    for (;;) {
        const Task* pTask = nullptr;
        {
            const CMutexLock lock(m_hMutex);
            while (!m_bEnd && m_vTasks.empty()) {
                m_hChanged.Wait(m_hMutex);
            }
            if (m_vTasks.empty()) {
                return;
            }
            pTask = &m_vTasks.front();  // stays in its place while others are added
        }
        try {
            (*pTask)();
        } catch (...) {
            // Memory has run out: this task is lost, the next ones need not be.
        }
        {
            const CMutexLock lock(m_hMutex);
            m_vTasks.pop_front();
        }
        m_hChanged.NotifyAll();
    }
}
