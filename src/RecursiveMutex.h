// A mutex that its owner may lock again, whose use the compiler checks, and its guard.
#ifndef VELOCAST_RECURSIVEMUTEX_H
#define VELOCAST_RECURSIVEMUTEX_H

#include <mutex>

#include "ThreadSafety.h"

// As std::recursive_mutex.  The compiler looks at one function at a time: it does not see the
// second locking of a function that is called with the mutex held.
class CAPABILITY("mutex") CRecursiveMutex {
public:
    CRecursiveMutex() = default;
    CRecursiveMutex(const CRecursiveMutex&) = delete;
    CRecursiveMutex& operator=(const CRecursiveMutex&) = delete;

    // Named as the standard's guards want them; code takes a CRecursiveMutexLock.
    void lock() ACQUIRE() { m_hMutex.lock(); }
    void unlock() RELEASE() { m_hMutex.unlock(); }

private:
    std::recursive_mutex m_hMutex;
};

// Holds a mutex while it lives.
class SCOPED_CAPABILITY CRecursiveMutexLock {
public:
    explicit CRecursiveMutexLock(CRecursiveMutex& hMutex) ACQUIRE(hMutex) : m_hMutex(hMutex) {
        m_hMutex.lock();
    }
    ~CRecursiveMutexLock() RELEASE() { m_hMutex.unlock(); }
    CRecursiveMutexLock(const CRecursiveMutexLock&) = delete;
    CRecursiveMutexLock& operator=(const CRecursiveMutexLock&) = delete;

private:
    CRecursiveMutex& m_hMutex;
};

#endif
