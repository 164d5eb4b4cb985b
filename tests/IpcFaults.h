// Makes chosen system calls of the local channel fail. The functions below stand before those of
// the C library for the whole program, so only one source file of a program may include this.
#pragma once

#include <dlfcn.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>

namespace faults {

enum Call {
    CALL_SOCKET,
    CALL_LISTEN,
    CALL_CHMOD,
    CALL_ACCEPT,
    CALL_SEND,
    CALL_RECV,
    CALL_THREAD,
    CALL_COUNT
};

// The next calls fail with the error; of send, a negative error is a number of bytes that it takes.
struct Plan {
    std::atomic<int> error{0};
    std::atomic<int> times{0};
};
// Calls of the first thread (which runs the test) and those of all others are planned apart: the
// product runs on one side, the test's own end of a connection on the other.
inline Plan plans[CALL_COUNT][2];

inline int Side() { return gettid() == getpid() ? 0 : 1; }

inline void FailHere(Call call, int error, int times = 1) {
    plans[call][0].error = error;
    plans[call][0].times = times;
}
inline void FailElsewhere(Call call, int error, int times = 1) {
    plans[call][1].error = error;
    plans[call][1].times = times;
}

// Back to the real system at the end of a test.
struct Guard {
    ~Guard() {
        for (auto& sides : plans) {
            for (Plan& plan : sides) {
                plan.times = 0;
            }
        }
    }
};

// The planned error, 0 for none.
inline int Due(Call call) {
    Plan& plan = plans[call][Side()];
    int left = plan.times;
    while (left > 0 && !plan.times.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0 ? plan.error.load() : 0;
}
inline bool Fails(Call call) {
    const int error = Due(call);
    errno = error != 0 ? error : errno;
    return error != 0;
}

// The function that would have been called without this file.
template <typename Function>
Function* Next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace faults

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
    static auto* const next = faults::Next<int(int, int, int)>("socket");
    return faults::Fails(faults::CALL_SOCKET) ? -1 : next(domain, type, protocol);
}

int listen(int fd, int backlog) noexcept {
    static auto* const next = faults::Next<int(int, int)>("listen");
    return faults::Fails(faults::CALL_LISTEN) ? -1 : next(fd, backlog);
}

int chmod(const char* path, mode_t mode) noexcept {
    static auto* const next = faults::Next<int(const char*, mode_t)>("chmod");
    return faults::Fails(faults::CALL_CHMOD) ? -1 : next(path, mode);
}

int accept4(int fd, struct sockaddr* address, socklen_t* length, int flags) {
    static auto* const next = faults::Next<int(int, struct sockaddr*, socklen_t*, int)>("accept4");
    return faults::Fails(faults::CALL_ACCEPT) ? -1 : next(fd, address, length, flags);
}

ssize_t send(int fd, const void* buffer, size_t size, int flags) {
    static auto* const next = faults::Next<ssize_t(int, const void*, size_t, int)>("send");
    const int due = faults::Due(faults::CALL_SEND);
    if (due > 0) {
        errno = due;
        return -1;
    }
    return next(fd, buffer, due < 0 ? std::min(size, static_cast<size_t>(-due)) : size, flags);
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    static auto* const next = faults::Next<ssize_t(int, void*, size_t, int)>("recv");
    return faults::Fails(faults::CALL_RECV) ? -1 : next(fd, buffer, size, flags);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    static auto* const next =
        faults::Next<int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*)>(
            "pthread_create");
    const int due = faults::Due(faults::CALL_THREAD);
    return due != 0 ? due : next(thread, attributes, start, argument);
}

}  // extern "C"
