#include "support/Faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

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

std::mutex mutex;               // guards otherPlans, executable and spawnObserver; a leaf
Plans otherPlans;               // of every thread but the planner
std::atomic<pid_t> planner{0};  // the thread whose calls otherPlans are not for; 0: nobody's
std::atomic<int> lastBacklog{-1};
std::atomic<const struct timeval*> timeOfDay{nullptr};
std::atomic<void (*)(const char*, struct stat*)> lstatAdjustment{nullptr};
std::atomic<const char*> lstatFault{nullptr};          // the path of the one LstatFault
std::atomic<const struct stat*> lstatAnswer{nullptr};  // and what is found there
std::optional<std::string> executable;
SpawnObserver spawnObserver;

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

void Skip(Call call, int times, On on) { Add(call, on, {0, 0, times}); }

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

void SetTimeOfDay(const struct timeval* now) { timeOfDay = now; }

void AdjustLstat(void (*adjust)(const char* path, struct stat* data)) { lstatAdjustment = adjust; }

void SetExecutable(std::optional<std::string> path) {
    const std::lock_guard<std::mutex> lock(mutex);
    executable = std::move(path);
}

void OnSpawn(SpawnObserver observer) {
    const std::lock_guard<std::mutex> lock(mutex);
    spawnObserver = std::move(observer);
}

LstatFault::LstatFault(std::string path, const struct stat* answer) : m_path(std::move(path)) {
    lstatAnswer = answer;
    lstatFault = m_path.c_str();
}

LstatFault::~LstatFault() {
    lstatFault = nullptr;
    lstatAnswer = nullptr;
}

Guard::Guard() = default;

Guard::~Guard() {
    delete ownPlans;
    ownPlans = nullptr;
    ownTime = 0;
    ownType = 0;
    ownFileSystem = nullptr;
    planner = 0;
    timeOfDay = nullptr;
    lstatAdjustment = nullptr;
    SetExecutable({});
    OnSpawn(nullptr);
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

int dup(int fd) noexcept {
    static auto* const real = Real<int(int)>("dup");
    return Fails(Call::Dup) ? -1 : real(fd);
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

int lstat(const char* path, struct stat* data) noexcept {
    static auto* const real = Real<int(const char*, struct stat*)>("lstat");
    const char* const fault = support::faults::lstatFault;
    if (fault != nullptr && std::strcmp(fault, path) == 0) {
        const struct stat* const answer = support::faults::lstatAnswer;
        if (answer == nullptr) {
            errno = ENOENT;
            return -1;
        }
        *data = *answer;
        return 0;
    }
    const int result = real(path, data);
    if (auto* const adjust = support::faults::lstatAdjustment.load();
        adjust != nullptr && result == 0) {
        adjust(path, data);
    }
    return result;
}

ssize_t readlink(const char* path, char* buffer, size_t size) noexcept {
    static auto* const real = Real<ssize_t(const char*, char*, size_t)>("readlink");
    if (std::strcmp(path, "/proc/self/exe") == 0) {
        const std::lock_guard<std::mutex> lock(support::faults::mutex);
        const std::optional<std::string>& target = support::faults::executable;
        if (target && target->empty()) {
            errno = ENOENT;
            return -1;
        }
        if (target) {
            return static_cast<ssize_t>(target->copy(buffer, size));
        }
    }
    return real(path, buffer, size);
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

int gettimeofday(struct timeval* now, void* zone) noexcept {
    static auto* const real = Real<int(struct timeval*, void*)>("gettimeofday");
    const struct timeval* const planned = support::faults::timeOfDay;
    if (planned == nullptr) {
        return real(now, zone);
    }
    *now = *planned;
    return 0;
}

int nanosleep(const struct timespec* time, struct timespec* left) {
    static auto* const real = Real<int(const struct timespec*, struct timespec*)>("nanosleep");
    const Order order = Next(Call::Sleep, 1);
    if (order.fail) {
        return -1;
    }
    return order.size == 0 ? 0 : real(time, left);
}

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const arguments[],
                char* const environment[]) {
    using Function = int(pid_t*, const char*, const posix_spawn_file_actions_t*,
                         const posix_spawnattr_t*, char* const*, char* const*);
    static auto* const real = Real<Function>("posix_spawn");
    support::faults::SpawnObserver observer;
    {
        const std::lock_guard<std::mutex> lock(support::faults::mutex);
        observer = support::faults::spawnObserver;
    }
    if (observer) {
        observer(path, arguments);
    }
    return real(pid, path, actions, attributes, arguments, environment);
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
