#include "support/Files.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace support {

namespace {

std::string ProcFolder(pid_t pid) {
    return "/proc/" + (pid == 0 ? std::string("self") : std::to_string(pid));
}

[[noreturn]] void ThrowErrno(const std::string& what) {
    throw std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

ScopedTempDir::ScopedTempDir() {
    std::string pattern = "/tmp/velocast-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) {
        ThrowErrno("mkdtemp " + pattern);
    }
    m_path = pattern;
}

ScopedTempDir::~ScopedTempDir() {
    std::error_code ignored;  // a test may have taken the permissions away; /tmp is private anyway
    std::filesystem::remove_all(m_path, ignored);
}

std::string ScopedTempDir::operator/(std::string_view name) const {
    return m_path + "/" + std::string(name);
}

void WriteFile(const std::string& path, std::string_view content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) {
        ThrowErrno("write " + path);
    }
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        ThrowErrno("open " + path);
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

bool FileExists(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

std::string PatternData(std::size_t size, std::uint64_t seed) {
    std::mt19937_64 random(seed);
    std::string data(size, '\0');
    std::size_t at = 0;
    while (at < size) {
        const std::uint64_t word = random();
        const std::size_t part = std::min(sizeof word, size - at);
        std::memcpy(data.data() + at, &word, part);
        at += part;
    }
    return data;
}

std::string Hex(const Bytes& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    constexpr std::ptrdiff_t kLongRun = 16;
    std::string text;
    for (auto byte = bytes.begin(); byte != bytes.end();) {
        if (!text.empty()) {
            text += ' ';
        }
        const auto end = std::find_if(byte, bytes.end(), [](std::uint8_t b) { return b != 0; });
        if (end - byte > kLongRun) {
            text += "(" + std::to_string(end - byte) + " zeros)";
            byte = end;
        } else {
            text += kDigits[*byte >> 4];
            text += kDigits[*byte & 15];
            ++byte;
        }
    }
    return text;
}

bool WaitFor(const std::function<bool()>& condition, Milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(Milliseconds(2));
    }
    return true;
}

std::vector<int> OpenFds(pid_t pid) {
    // The listing of our own descriptors holds the one that lists them, so it is taken out again by
    // looking at every entry once the listing is closed.
    std::vector<std::filesystem::path> entries;
    for (const auto& entry : std::filesystem::directory_iterator(ProcFolder(pid) + "/fd")) {
        entries.push_back(entry.path());
    }
    std::vector<int> fds;
    for (const auto& entry : entries) {
        if (FileExists(entry)) {
            fds.push_back(std::stoi(entry.filename()));
        }
    }
    return fds;
}

std::string DescriptorTarget(int fd, pid_t pid) {
    std::error_code error;
    return std::filesystem::read_symlink(ProcFolder(pid) + "/fd/" + std::to_string(fd), error);
}

std::ptrdiff_t OpenCount(const std::string& path, pid_t pid) {
    const std::vector<int> fds = OpenFds(pid);
    return std::count_if(fds.begin(), fds.end(),
                         [&](int fd) { return DescriptorTarget(fd, pid) == path; });
}

std::size_t RssKiB(pid_t pid) {
    std::istringstream status(ReadFile(ProcFolder(pid) + "/status"));
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("VmRSS:")) {
            return std::stoul(line.substr(6));
        }
    }
    throw std::runtime_error("no VmRSS line for process " + std::to_string(pid));
}

std::string EnvironmentOr(const char* name, const std::string& fallback) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

std::uint64_t RandomSeed() {
    const std::string given = EnvironmentOr("VELOCAST_SEED", "");
    return given.empty() ? std::random_device{}() : std::stoull(given);
}

}  // namespace support
