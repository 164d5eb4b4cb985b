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

private:
    friend class CRecursiveMutexLock;

    std::recursive_mutex m_hMutex;
};

// Holds a mutex while it lives.
class SCOPED_CAPABILITY CRecursiveMutexLock {
public:
    explicit CRecursiveMutexLock(CRecursiveMutex& hMutex) ACQUIRE(hMutex)
        : m_Lock(hMutex.m_hMutex) {}
    ~CRecursiveMutexLock() RELEASE() {}
    CRecursiveMutexLock(const CRecursiveMutexLock&) = delete;
    CRecursiveMutexLock& operator=(const CRecursiveMutexLock&) = delete;

private:
    const std::lock_guard<std::recursive_mutex> m_Lock;
};

#endif
