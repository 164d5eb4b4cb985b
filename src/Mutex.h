// A mutex whose use the compiler checks, the guard that holds it, and waiting for a change.
#ifndef VELOCAST_MUTEX_H
#define VELOCAST_MUTEX_H

#include <chrono>
#include <condition_variable>
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
    friend class CCondition;

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

// Lets threads wait for a change of what a mutex guards.  Waiting gives the mutex back until then;
// a wait may also end without a change, so the caller asks again for what it waits for.
class CCondition {
public:
    CCondition() = default;
    CCondition(const CCondition&) = delete;
    CCondition& operator=(const CCondition&) = delete;

    void Wait(CMutex& hMutex) REQUIRES(hMutex) {
        std::unique_lock<std::mutex> lock(hMutex.m_hMutex, std::adopt_lock);
        m_hChanged.wait(lock);
        lock.release();  // the caller holds it on
    }
    // False when the time has come.
    bool WaitUntil(CMutex& hMutex, std::chrono::steady_clock::time_point time) REQUIRES(hMutex) {
        std::unique_lock<std::mutex> lock(hMutex.m_hMutex, std::adopt_lock);
        const bool bWoken = m_hChanged.wait_until(lock, time) == std::cv_status::no_timeout;
        lock.release();  // the caller holds it on
        return bWoken;
    }
    void NotifyAll() { m_hChanged.notify_all(); }

private:
    std::condition_variable m_hChanged;
};

#endif
