// Preloaded into a server: counts its allocations and locks in a file that others can read while it
// runs. VELOCAST_COUNTS names the file; its three 64-bit numbers are allocations (malloc, calloc,
// realloc and the aligned ones, so `new` as well), bytes asked for, and locks taken (mutexes and
// read-write locks, not what is built on atomics alone).
//
// glibc only: its allocator is also there under names of its own.

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

struct Counts {
    std::atomic<std::uint64_t> allocations;
    std::atomic<std::uint64_t> bytes;
    std::atomic<std::uint64_t> locks;
};

// Counted here until the file is open, and when there is none.
Counts g_own;
std::atomic<Counts*> g_counts{&g_own};

__attribute__((constructor)) void OpenCounts() {
    const char* path = std::getenv("VELOCAST_COUNTS");
    if (path == nullptr) {
        return;
    }
    unsetenv("LD_PRELOAD");  // not for what the server starts
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd >= 0 && ftruncate(fd, sizeof(Counts)) == 0) {
        void* shared = mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (shared != MAP_FAILED) {
            g_counts = static_cast<Counts*>(shared);
        }
    }
    if (fd >= 0) {
        close(fd);
    }
}

void CountAllocation(std::size_t bytes) {
    Counts* counts = g_counts.load(std::memory_order_relaxed);
    counts->allocations.fetch_add(1, std::memory_order_relaxed);
    counts->bytes.fetch_add(bytes, std::memory_order_relaxed);
}

void CountLock() {
    g_counts.load(std::memory_order_relaxed)->locks.fetch_add(1, std::memory_order_relaxed);
}

template <typename Function>
Function Next(std::atomic<Function>& found, const char* name) {
    Function function = found.load(std::memory_order_relaxed);
    if (function == nullptr) {
        function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
        found.store(function, std::memory_order_relaxed);
    }
    return function;
}

}  // namespace

extern "C" {

void* malloc(std::size_t size) {
    CountAllocation(size);
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    CountAllocation(count * size);
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
    CountAllocation(size);
    return __libc_realloc(block, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    CountAllocation(size);
    return __libc_memalign(alignment, size);
}

#define COUNT_LOCK(NAME, TYPE)                             \
    int NAME(TYPE* lock) {                                 \
        static std::atomic<int (*)(TYPE*)> found{nullptr}; \
        CountLock();                                       \
        return Next(found, #NAME)(lock);                   \
    }

COUNT_LOCK(pthread_mutex_lock, pthread_mutex_t)
COUNT_LOCK(pthread_mutex_trylock, pthread_mutex_t)
COUNT_LOCK(pthread_rwlock_rdlock, pthread_rwlock_t)
COUNT_LOCK(pthread_rwlock_wrlock, pthread_rwlock_t)
COUNT_LOCK(pthread_spin_lock, pthread_spinlock_t)
}
