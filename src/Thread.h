// Owns a thread: the one place where threads are started and joined.
#ifndef VELOCAST_THREAD_H
#define VELOCAST_THREAD_H

#include <pthread.h>

// Thread safety: Start and Join are called by one owner thread.
class CThread {
public:
    CThread() = default;
    // Joins: whoever owns it has told the body to end before.
    ~CThread() { Join(); }
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    // Runs a member function of pObject, which must outlive the thread, on a thread of its own.
    // 0, or the system's error number when it cannot be made (pthread_create(3)).  REQUIRES: none
    // is running.
    template <auto Body, typename Object>
    [[nodiscard]] int Start(Object* pObject) {
        m_iThreadCreated = pthread_create(
            &m_hThread, nullptr,
            [](void* pv) -> void* {
                (static_cast<Object*>(pv)->*Body)();
                return nullptr;
            },
            pObject);
        return m_iThreadCreated;
    }
    // Waits until the body has returned; at once when none was started.
    void Join();
    bool IsStarted() const { return m_iThreadCreated == 0; }

private:
    pthread_t m_hThread{};
    int m_iThreadCreated = -1;  // what pthread_create answered, 0: m_hThread is to be joined
};

#endif
