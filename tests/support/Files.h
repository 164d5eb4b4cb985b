// Small helpers for tests: temporary folders, whole files, waiting for a condition, and what the
// kernel tells about a process.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace support {

using Bytes = std::vector<std::uint8_t>;
using Milliseconds = std::chrono::milliseconds;

// How long a test waits for something that should happen at once. Sanitizers and a busy machine
// make things slow; nothing waits this long unless it has failed.
inline constexpr Milliseconds kPatience{20'000};

// A folder of its own below /tmp, removed with all its content at the end.
class ScopedTempDir {
public:
    ScopedTempDir();
    ~ScopedTempDir();
    ScopedTempDir(const ScopedTempDir&) = delete;
    ScopedTempDir& operator=(const ScopedTempDir&) = delete;

    const std::string& Path() const { return m_path; }
    // The path of a name in the folder.
    std::string operator/(std::string_view name) const;

private:
    std::string m_path;
};

// Whole files. Failures throw std::runtime_error with the path and the system's reason.
void WriteFile(const std::string& path, std::string_view content);
std::string ReadFile(const std::string& path);
bool FileExists(const std::string& path);

// `size` bytes that differ from place to place and from seed to seed, always the same for the same
// seed: a block that lands in the wrong place is seen when content is compared.
std::string PatternData(std::size_t size, std::uint64_t seed = 1);

// Lower-case hexadecimal text, a blank between bytes, for failure messages; more than 16 zeros in a
// row are a number.
std::string Hex(const Bytes& bytes);

// True as soon as the condition holds; false if it still does not after the time.
[[nodiscard]] bool WaitFor(const std::function<bool()>& condition,
                           Milliseconds timeout = kPatience);

// The numbers of the open descriptors of a process (0: this one).
std::vector<int> OpenFds(pid_t pid = 0);
// What a descriptor of a process (0: this one) refers to; empty when it is closed.
std::string DescriptorTarget(int fd, pid_t pid = 0);
// The number of descriptors of a process (0: this one) that refer to a path.
std::ptrdiff_t OpenCount(const std::string& path, pid_t pid = 0);
// Resident memory of a process (0: this one) in KiB.
std::size_t RssKiB(pid_t pid = 0);

// The value of an environment variable, or a fallback when it is absent or empty.
std::string EnvironmentOr(const char* name, const std::string& fallback);

// The seed of a random test: VELOCAST_SEED, or a new one. A failing test prints it.
std::uint64_t RandomSeed();

}  // namespace support
