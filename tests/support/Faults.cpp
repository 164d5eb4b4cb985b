#include "support/Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <deque>
#include <mutex>

namespace support::faults {

namespace {

// What the next `times` calls meet.
struct Step {
    int error;         // fail with it; 0: do not fail
    std::size_t size;  // ask for no more
    int times;
};

struct Plan {
    std::deque<Step> steps;
    std::vector<std::size_t> sizes;
    int count = 0;
};
using Plans = std::array<Plan, kCalls>;

// Made with the first plan and deleted by a Guard: a pointer needs no destructor, which calls made
// while a thread ends would come after.
thread_local Plans* ownPlans = nullptr;
thread_local std::time_t ownTime = 0;
thread_local long ownType = 0;
thread_local const struct statvfs* ownFileSystem = nullptr;

std::mutex mutex;               // guards otherPlans; a leaf
Plans otherPlans;               // of every thread but the planner
std::atomic<pid_t> planner{0};  // the thread whose calls otherPlans are not for; 0: nobody's
std::atomic<int> lastBacklog{-1};

// What the caller is to do: fail (errno is set), or ask for at most `size` bytes.
struct Order {
    bool fail;
    std::size_t size;
};

Order Take(Plan& plan, std::size_t size) {
    ++plan.count;
    plan.sizes.push_back(size);
    if (plan.steps.empty()) {
        return {false, size};
    }
    Step& step = plan.steps.front();
    const Order order{step.error != 0, std::min(size, step.size)};
    if (order.fail) {
        errno = step.error;
    }
    if (step.times != kAlways && --step.times == 0) {
        plan.steps.pop_front();
    }
    return order;
}

Order Next(Call call, std::size_t size = 0) {
    const auto index = static_cast<std::size_t>(call);
    const pid_t thread = planner;
    if (thread != 0 && thread != gettid()) {
        const std::lock_guard<std::mutex> lock(mutex);
        return Take(otherPlans[index], size);
    }
    return ownPlans != nullptr ? Take((*ownPlans)[index], size) : Order{false, size};
}

bool Fails(Call call) { return Next(call).fail; }

template <typename Use>
auto With(Call call, On on, Use use) {
    const auto index = static_cast<std::size_t>(call);
    if (on == On::ThisThread) {
        if (ownPlans == nullptr) {
            ownPlans = new Plans;
        }
        return use((*ownPlans)[index]);
    }
    planner = gettid();
    const std::lock_guard<std::mutex> lock(mutex);
    return use(otherPlans[index]);
}

void Add(Call call, On on, const Step& step) {
    if (step.times > 0) {
        With(call, on, [&](Plan& plan) { plan.steps.push_back(step); });
    }
}

// The function that would have been called without this layer.
template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void Fail(Call call, int error, int times, On on) { Add(call, on, {error, SIZE_MAX, times}); }

void Pass(Call call, int times, On on) { Add(call, on, {0, SIZE_MAX, times}); }

void Shorten(Call call, std::size_t size, int times, On on) { Add(call, on, {0, size, times}); }

void Clear(Call call, On on) {
    With(call, on, [](Plan& plan) { plan = {}; });
}

int Count(Call call, On on) {
    return With(call, on, [](Plan& plan) { return plan.count; });
}

std::vector<std::size_t> Sizes(Call call, On on) {
    return With(call, on, [](Plan& plan) { return plan.sizes; });
}

int LastBacklog() { return lastBacklog; }

void SetTime(std::time_t time) { ownTime = time; }

void SetFileSystemType(long type) { ownType = type; }

void SetFileSystem(const struct statvfs* values) { ownFileSystem = values; }

Guard::Guard() = default;

Guard::~Guard() {
    delete ownPlans;
    ownPlans = nullptr;
    ownTime = 0;
    ownType = 0;
    ownFileSystem = nullptr;
    planner = 0;
    const std::lock_guard<std::mutex> lock(mutex);
    otherPlans = {};
}

}  // namespace support::faults

using support::faults::Call;
using support::faults::Fails;
using support::faults::Next;
using support::faults::Order;
using support::faults::Real;

extern "C" {

int open(const char* path, int flags, ...) {
    static auto* const real = Real<int(const char*, int, ...)>("open");
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return Fails(Call::Open) ? -1 : real(path, flags, mode);
}

int close(int fd) {
    static auto* const real = Real<int(int)>("close");
    return Fails(Call::Close) ? -1 : real(fd);
}

ssize_t read(int fd, void* buffer, size_t size) {
    static auto* const real = Real<ssize_t(int, void*, size_t)>("read");
    const Order order = Next(Call::Read, size);
    return order.fail ? -1 : real(fd, buffer, order.size);
}

ssize_t pread(int fd, void* buffer, size_t size, off_t offset) {
    static auto* const real = Real<ssize_t(int, void*, size_t, off_t)>("pread");
    const Order order = Next(Call::Pread, size);
    return order.fail ? -1 : real(fd, buffer, order.size, offset);
}

ssize_t write(int fd, const void* buffer, size_t size) {
    static auto* const real = Real<ssize_t(int, const void*, size_t)>("write");
    const Order order = Next(Call::Write, size);
    return order.fail ? -1 : real(fd, buffer, order.size);
}

off_t lseek(int fd, off_t offset, int whence) noexcept {
    static auto* const real = Real<off_t(int, off_t, int)>("lseek");
    return Fails(Call::Lseek) ? -1 : real(fd, offset, whence);
}

int fstat(int fd, struct stat* data) noexcept {
    static auto* const real = Real<int(int, struct stat*)>("fstat");
    return Fails(Call::Fstat) ? -1 : real(fd, data);
}

int chmod(const char* path, mode_t mode) noexcept {
    static auto* const real = Real<int(const char*, mode_t)>("chmod");
    return Fails(Call::Chmod) ? -1 : real(path, mode);
}

int statfs(const char* path, struct statfs* data) noexcept {
    static auto* const real = Real<int(const char*, struct statfs*)>("statfs");
    const int result = real(path, data);
    if (support::faults::ownType != 0) {
        data->f_type = support::faults::ownType;
    }
    return result;
}

int statvfs(const char* path, struct statvfs* data) noexcept {
    static auto* const real = Real<int(const char*, struct statvfs*)>("statvfs");
    if (support::faults::ownFileSystem == nullptr) {
        return real(path, data);
    }
    *data = *support::faults::ownFileSystem;
    return 0;
}

time_t time(time_t* result) noexcept {
    static auto* const real = Real<time_t(time_t*)>("time");
    if (support::faults::ownTime == 0) {
        return real(result);
    }
    if (result != nullptr) {
        *result = support::faults::ownTime;
    }
    return support::faults::ownTime;
}

int socket(int domain, int type, int protocol) noexcept {
    static auto* const real = Real<int(int, int, int)>("socket");
    return Fails(Call::Socket) ? -1 : real(domain, type, protocol);
}

int listen(int fd, int backlog) noexcept {
    static auto* const real = Real<int(int, int)>("listen");
    support::faults::lastBacklog = backlog;
    return Fails(Call::Listen) ? -1 : real(fd, backlog);
}

int accept4(int fd, struct sockaddr* address, socklen_t* length, int flags) {
    static auto* const real = Real<int(int, struct sockaddr*, socklen_t*, int)>("accept4");
    return Fails(Call::Accept) ? -1 : real(fd, address, length, flags);
}

ssize_t send(int fd, const void* buffer, size_t size, int flags) {
    static auto* const real = Real<ssize_t(int, const void*, size_t, int)>("send");
    const Order order = Next(Call::Send, size);
    if (order.fail) {
        return -1;
    }
    return order.size == 0 ? 0 : real(fd, buffer, order.size, flags);
}

ssize_t recv(int fd, void* buffer, size_t size, int flags) {
    static auto* const real = Real<ssize_t(int, void*, size_t, int)>("recv");
    const Order order = Next(Call::Recv, size);
    return order.fail ? -1 : real(fd, buffer, order.size, flags);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
    using Function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static auto* const real = Real<Function>("pthread_create");
    const int saved = errno;
    if (Fails(Call::Thread)) {
        const int error = errno;  // the function returns what others put into errno
        errno = saved;
        return error;
    }
    return real(thread, attributes, start, argument);
}

}  // extern "C"
