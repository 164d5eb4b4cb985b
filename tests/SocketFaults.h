// Makes socket and thread calls of the server fail or do half their work. The functions below stand
// before those of the C library for the whole program, so only one source file of a program may
// include this.
#pragma once

#include <dlfcn.h>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

namespace faults {

// What the next calls of send do: take at most that many bytes, or fail with an error number given
// as a negative value. Only threads other than the first are concerned: the test and its clients
// run on the first. Without a plan, sends are the system's own.
class SendPlan {
public:
    void Set(std::deque<long> steps) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_steps = std::move(steps);
        m_sizes.clear();
    }
    // The sizes asked for since Set, one per call.
    std::vector<std::size_t> Sizes() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_sizes;
    }
    // The size to send, or an error.
    long Next(std::size_t size) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_sizes.push_back(size);
        if (m_steps.empty()) {
            return static_cast<long>(size);
        }
        const long step = m_steps.front();
        m_steps.pop_front();
        return std::min(step, static_cast<long>(size));
    }

private:
    std::mutex m_mutex;
    std::deque<long> m_steps;          // guarded by m_mutex
    std::vector<std::size_t> m_sizes;  // guarded by m_mutex
};

inline SendPlan sendPlan;
inline std::atomic<int> listenError{0};       // listen fails with it
inline std::atomic<int> listenBacklog{-1};    // given to the last listen
inline std::atomic<int> threadsToCreate{-1};  // then pthread_create fails; negative: it never does
inline std::atomic<bool> noSleeps{false};     // other threads than the first do not sleep
inline std::atomic<int> receivesToInterrupt{0};  // so many calls of recv return EINTR first

// Back to the real system at the end of a test.
struct Guard {
    ~Guard() {
        sendPlan.Set({});
        listenError = 0;
        threadsToCreate = -1;
        noSleeps = false;
        receivesToInterrupt = 0;
    }
};

// The function that would have been called without this file.
template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace faults

extern "C" {

ssize_t send(int fd, const void* buffer, size_t size, int flags) {
    static auto* const next = faults::Next<ssize_t(int, const void*, size_t, int)>("send");
    if (gettid() != getpid()) {
        const long allowed = faults::sendPlan.Next(size);
        if (allowed < 0) {
            errno = static_cast<int>(-allowed);
            return -1;
        }
        if (allowed == 0) {
            return 0;
        }
        size = static_cast<size_t>(allowed);
    }
    return next(fd, buffer, size, flags);
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    static auto* const next = faults::Next<ssize_t(int, void*, size_t, int)>("recv");
    if (gettid() != getpid() && faults::receivesToInterrupt > 0) {
        --faults::receivesToInterrupt;
        errno = EINTR;
        return -1;
    }
    return next(fd, buffer, size, flags);
}

int nanosleep(const timespec* time, timespec* left) {
    static auto* const next = faults::Next<int(const timespec*, timespec*)>("nanosleep");
    return faults::noSleeps && gettid() != getpid() ? 0 : next(time, left);
}

int listen(int fd, int backlog) noexcept {
    static auto* const next = faults::Next<int(int, int)>("listen");
    faults::listenBacklog = backlog;
    if (faults::listenError != 0) {
        errno = faults::listenError;
        return -1;
    }
    return next(fd, backlog);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    static auto* const next =
        faults::Next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>(
            "pthread_create");
    if (faults::threadsToCreate >= 0 && faults::threadsToCreate-- == 0) {
        faults::threadsToCreate = 0;
        return EAGAIN;
    }
    return next(thread, attributes, start, argument);
}

}  // extern "C"
