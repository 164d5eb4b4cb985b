// Big-endian words in a buffer, for calls that are sent a hundred thousand times a second: they are
// built once by the careful writers of tests/support and from then on only patched.
#pragma once

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace bench {

using Clock = std::chrono::steady_clock;

inline double SecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

inline std::uint32_t Load32(const std::uint8_t* at) {
    return static_cast<std::uint32_t>(at[0]) << 24 | static_cast<std::uint32_t>(at[1]) << 16 |
           static_cast<std::uint32_t>(at[2]) << 8 | at[3];
}
inline std::uint64_t Load64(const std::uint8_t* at) {
    return static_cast<std::uint64_t>(Load32(at)) << 32 | Load32(at + 4);
}
inline void Store32(std::uint8_t* at, std::uint32_t value) {
    at[0] = static_cast<std::uint8_t>(value >> 24);
    at[1] = static_cast<std::uint8_t>(value >> 16);
    at[2] = static_cast<std::uint8_t>(value >> 8);
    at[3] = static_cast<std::uint8_t>(value);
}
inline void Store64(std::uint8_t* at, std::uint64_t value) {
    Store32(at, static_cast<std::uint32_t>(value >> 32));
    Store32(at + 4, static_cast<std::uint32_t>(value));
}

// A figure without verified data is worth nothing, so whatever is not as expected ends the run.
inline void Check(bool ok, const std::string& what) {
    if (!ok) {
        throw std::runtime_error(what);
    }
}
// The same where the text would cost more than the test.
inline void Check(bool ok, const char* what) {
    if (!ok) {
        throw std::runtime_error(what);
    }
}
// For system calls: with the reason.
[[noreturn]] void FailErrno(const std::string& what);

// A cheap sequence of numbers (xorshift64*), the same in every run.
class Sequence {
public:
    explicit Sequence(std::uint64_t seed) : m_state(seed * 0x9E3779B97F4A7C15 + 1) {}
    std::uint64_t Next() {
        m_state ^= m_state >> 12;
        m_state ^= m_state << 25;
        m_state ^= m_state >> 27;
        return m_state * 0x2545F4914F6CDD1D;
    }
    // Below `limit`, which is far below 2^32.
    std::uint64_t Below(std::uint64_t limit) { return (Next() >> 32) * limit >> 32; }

private:
    std::uint64_t m_state;
};

}  // namespace bench
