// A mutex whose use the compiler checks, and the guard that holds it.
#ifndef VELOCAST_MUTEX_H
#define VELOCAST_MUTEX_H

#include <mutex>

#include "ThreadSafety.h"

// As std::mutex: not recursive, owned by the thread that locked it.
class CAPABILITY("mutex") CMutex {
public:
    CMutex() = default;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    // Named as the standard's guards want them; code takes a CMutexLock.
    void lock() ACQUIRE() { m_hMutex.lock(); }
    void unlock() RELEASE() { m_hMutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return m_hMutex.try_lock(); }

private:
    std::mutex m_hMutex;
};

// Holds a mutex while it lives.
class SCOPED_CAPABILITY CMutexLock {
public:
    explicit CMutexLock(CMutex& hMutex) ACQUIRE(hMutex) : m_hMutex(hMutex) { m_hMutex.lock(); }
    ~CMutexLock() RELEASE() { m_hMutex.unlock(); }
    CMutexLock(const CMutexLock&) = delete;
    CMutexLock& operator=(const CMutexLock&) = delete;

private:
    CMutex& m_hMutex;
};

#endif
