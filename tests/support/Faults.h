// The one fault layer of the tests: makes chosen system calls fail, or do half their work.
//
// A test program that includes this header is linked with functions that stand before those of the
// C library (see CMakeLists.txt). Without a plan they only pass on what they are asked.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>

#include <climits>
#include <cstddef>
#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace support::faults {

enum class Call {
    Open,
    Close,
    Dup,
    Read,
    Pread,
    Write,
    Lseek,
    Fstat,
    Chmod,
    Socket,
    Listen,
    Accept,
    Send,
    Recv,
    Sleep,   // nanosleep
    Thread,  // pthread_create
};
inline constexpr int kCalls = static_cast<int>(Call::Thread) + 1;

// Whose calls a plan is for. The product often runs on other threads than the test, and then the
// test's own end of a connection must not be hit.
enum class On {
    ThisThread,
    OtherThreads,
};

inline constexpr int kAlways = INT_MAX;

// Plans of one call and side are carried out in the order in which they are made; calls beyond them
// are the system's own.

// The next `times` calls fail with the error number.
void Fail(Call call, int error, int times = 1, On on = On::ThisThread);
// The next `times` calls are made.
void Pass(Call call, int times, On on = On::ThisThread);
// The next `times` calls of a transfer are asked for at most so many bytes.
void Shorten(Call call, std::size_t size, int times = 1, On on = On::ThisThread);
// The next `times` calls of Send or Sleep are not made and return 0.
void Skip(Call call, int times = 1, On on = On::ThisThread);
// Forgets the plans of a call, the sizes and the count.
void Clear(Call call, On on = On::ThisThread);

// The number of calls since Clear, failed ones included.
int Count(Call call, On on = On::ThisThread);
// The sizes asked for of a transfer since Clear, one for each call.
std::vector<std::size_t> Sizes(Call call, On on = On::ThisThread);
// The backlog given to the last listen(2), -1 before the first.
int LastBacklog();

// What time(2) reports to this thread, what statfs(2) calls a file system, and what statvfs(3)
// reports (borrowed); 0 and null: the real values.
void SetTime(std::time_t time);
void SetFileSystemType(long type);
void SetFileSystem(const struct statvfs* values);

// The following hold for every thread.

// What gettimeofday(2) reports (borrowed); null: the real time.
void SetTimeOfDay(const struct timeval* now);
// Called with what lstat(2) found at a path, before the caller sees it; null: nothing is changed.
void AdjustLstat(void (*adjust)(const char* path, struct stat* data));
// Where the running program lies; empty: the system does not say; none: the real place.
void SetExecutable(std::optional<std::string> path);
// Called before each posix_spawn(3), which is then made; null: nobody is.
using SpawnObserver = std::function<void(const char* path, char* const* arguments)>;
void OnSpawn(SpawnObserver observer);

// While it lives, lstat(2) of the path fails, as of an object that went away after it was found, or
// succeeds with the answer (borrowed). One at a time.
class LstatFault {
public:
    explicit LstatFault(std::string path, const struct stat* answer = nullptr);
    ~LstatFault();
    LstatFault(const LstatFault&) = delete;
    LstatFault& operator=(const LstatFault&) = delete;

private:
    std::string m_path;
};

// Back to the real system at the end of a test.
struct Guard {
    Guard();
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
};

}  // namespace support::faults
