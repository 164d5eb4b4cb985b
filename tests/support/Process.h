// A child process under a test's control.
#pragma once

#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/Files.h"

namespace support {

// How a process ended: by exit (code) or by a signal.
struct ExitStatus {
    bool exited = false;
    int code = -1;    // valid when exited
    int signal = -1;  // valid when not exited

    bool operator==(const ExitStatus&) const = default;
    static ExitStatus Code(int code) { return {true, code, -1}; }
    static ExitStatus Signal(int signal) { return {false, -1, signal}; }
};
std::ostream& operator<<(std::ostream& out, const ExitStatus& status);

struct ProcessOptions {
    // "NAME=value" lines added to (or replacing those of) this process's environment.
    std::vector<std::string> environment = {};
    std::string workingDirectory = {};  // empty: the same as ours
    bool separateErrors = false;        // keep standard error apart from standard output
};

// Runs a program with pipes on its standard streams. A thread collects what the program prints as
// it comes, so the program never blocks on a full pipe. A program still running at the end of the
// test is killed and fails the test.
//
// Thread safety: one thread of the test may use the object at a time.
class Process {
public:
    // Starts the program; arguments[0] is its path, or a name looked up in PATH. Throws when it
    // cannot be started.
    explicit Process(std::vector<std::string> arguments, ProcessOptions options = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t Pid() const { return m_pid; }

    // Writes to the program's standard input; false when it no longer reads.
    bool Send(std::string_view text);
    void CloseStdin();
    void Signal(int number) const;

    // Everything printed so far, from an offset on. Errors() is empty unless they are kept apart.
    std::string Output(std::size_t from = 0) const;
    std::string Errors() const;
    std::size_t OutputSize() const;

    // Waits until the output from an offset on contains a text, or a match of an ECMAScript regular
    // expression. False when the time is over or the program has closed its output without it.
    [[nodiscard]] bool WaitForOutput(std::string_view text, Milliseconds timeout = kPatience,
                                     std::size_t from = 0);
    [[nodiscard]] bool WaitForPattern(const std::string& regex, Milliseconds timeout = kPatience,
                                      std::size_t from = 0);

    // Waits for the end of the program and of its output; nothing when it still runs.
    std::optional<ExitStatus> WaitExit(Milliseconds timeout = kPatience);
    // Kills the program if it still runs, without failing the test.
    void Stop();

    // The command line, for messages.
    std::string Description() const;

private:
    void Collect(int outputFd, int errorFd);
    [[nodiscard]] bool WaitForMatch(const std::function<bool(const std::string&)>& matches,
                                    Milliseconds timeout, std::size_t from);
    bool Reap(int options);

    std::vector<std::string> m_arguments;
    pid_t m_pid = -1;
    int m_stdin = -1;
    std::optional<ExitStatus> m_status;

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_output;   // guarded by m_mutex
    std::string m_errors;   // guarded by m_mutex
    bool m_closed = false;  // both streams have ended; guarded by m_mutex
    std::thread m_collector;
    int m_stopFds[2] = {-1, -1};  // closing the second ends the collector
};

struct RunResult {
    ExitStatus status;
    std::string output;
    std::string errors;
};

// Runs a program to its end with the given input and returns all it printed, errors apart. Throws
// when it does not end in time.
RunResult RunProgram(std::vector<std::string> arguments, std::string_view input = "",
                     ProcessOptions options = {}, Milliseconds timeout = kPatience);

}  // namespace support
