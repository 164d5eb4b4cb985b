#include "IpcWorker.h"

#include "IpcWaits.h"

CIpcWorker::CIpcWorker(CIpcWaits* pWaits) : m_pWaits(pWaits) {}

CIpcWorker::~CIpcWorker() {
    if (!m_bThread) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_hMutex);
        m_bEnd = true;
    }
    m_hChanged.notify_all();
    pthread_join(m_hThread, nullptr);
}

bool CIpcWorker::Add(const Task& task) {
    if (!m_bThread) {
        m_bThread = pthread_create(&m_hThread, nullptr, &CIpcWorker::ThreadMain, this) == 0;
        if (!m_bThread) {
            return false;
        }
    }
    {
        const std::lock_guard<std::mutex> lock(m_hMutex);
        m_vTasks.push_back(task);
    }
    m_hChanged.notify_all();
    return true;
}

std::size_t CIpcWorker::GetCount() const {
    const std::lock_guard<std::mutex> lock(m_hMutex);
    return m_vTasks.size();
}

void CIpcWorker::WaitForAll(std::chrono::steady_clock::duration timeout) {
    std::unique_lock<std::mutex> lock(m_hMutex);
    m_hChanged.wait_for(lock, timeout, [this] { return m_vTasks.empty(); });
}

void* CIpcWorker::ThreadMain(void* pvWorker) {
    static_cast<CIpcWorker*>(pvWorker)->Run();
    return nullptr;
}

void CIpcWorker::Run() {
    const CIpcWaits::ThreadScope scope(m_pWaits);
    std::unique_lock<std::mutex> lock(m_hMutex);
    for (;;) {
        m_hChanged.wait(lock, [this] { return m_bEnd || !m_vTasks.empty(); });
        if (m_vTasks.empty()) {
            return;
        }
        const Task& task = m_vTasks.front();  // stays in its place while others are added
        lock.unlock();
        try {
            task();
        } catch (...) {
            // Memory has run out: this task is lost, the next ones need not be.
        }
        lock.lock();
        m_vTasks.pop_front();
        m_hChanged.notify_all();
    }
}
