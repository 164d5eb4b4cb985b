// What the tests of the program's front end share: whole runs of the program, a program on a pseudo
// terminal, log files, busy ports, and what the kernel tells about a process.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/Files.h"
#include "support/Process.h"
#include "support/RpcClient.h"
#include "support/Server.h"

namespace console {

using namespace support;

// ------------------------------------------------------------------------------------------------
// Texts
// ------------------------------------------------------------------------------------------------

inline const std::string kDashes = "------------------------------------\n";
inline const std::string kBanner = kDashes +
                                   "Execute Version: 1.2\n"
                                   "Server Version: 1.2\n"
                                   "Server Description: Internal NFS Server\n" +
                                   kDashes;
inline const std::string kHint = "Type 'help' to see help\n";
inline const std::string kPrompt = "\nCommand: ";
// What an interactive run prints before the first command.
inline const std::string kOpening = kBanner + kHint + kPrompt;

inline std::string Unknown(const std::string& line) {
    return "Unknown command: '" + line + "'\n" + kHint;
}

// The status listing. The rows of a table are whole lines.
inline std::string Status(const std::string& state, int exports = 0,
                          const std::string& exportRows = "", int datastores = 0,
                          const std::string& datastoreRows = "") {
    return "Server Status: " + state + "\n" + kDashes +
           "Number of Mount Point: " + std::to_string(exports) + "\n" + exportRows + kDashes +
           "Number of Session: 0\n" + kDashes +
           "Number of mounted NFS datastore: " + std::to_string(datastores) + "\n" + datastoreRows +
           kDashes;
}

// ------------------------------------------------------------------------------------------------
// Runs
// ------------------------------------------------------------------------------------------------

inline std::vector<std::string> CommandLine(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), ServerProgram());
    return arguments;
}

// Runs the program to its end; nothing may appear on standard error.
inline RunResult RunConsole(std::vector<std::string> arguments, std::string_view input = "",
                            const std::string& workingDirectory = "") {
    RunResult result = RunProgram(CommandLine(std::move(arguments)), input,
                                  {.workingDirectory = workingDirectory});
    EXPECT_EQ("", result.errors);
    return result;
}

// Enters lines in a new program of the internal mode, then `quit`. Returns what is printed between
// the first prompt and the prompt at which `quit` is entered.
inline std::string Enter(const std::string& lines, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {"-md", "int"});
    const RunResult result = RunConsole(std::move(arguments), lines + "quit\n");
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    const std::string ending = kPrompt + "\nExit\n";
    if (!result.output.starts_with(kOpening) || !result.output.ends_with("\nExit\n")) {
        ADD_FAILURE() << result.output;
        return result.output;
    }
    if (result.output == kOpening + "\nExit\n") {
        return "";
    }
    EXPECT_TRUE(result.output.ends_with(ending)) << result.output;
    return result.output.substr(kOpening.size(),
                                result.output.size() - kOpening.size() - ending.size());
}

// ------------------------------------------------------------------------------------------------
// Log files
// ------------------------------------------------------------------------------------------------

// The lines of a log file without their times. A line that does not begin with a time throws.
inline std::vector<std::string> LogLines(const std::string& path) {
    static const std::regex time(R"(^\[\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\])");
    std::vector<std::string> lines;
    std::istringstream input(ReadFile(path));
    for (std::string line; std::getline(input, line);) {
        std::smatch match;
        if (!std::regex_search(line, match, time)) {
            throw std::runtime_error("not a log line: " + line);
        }
        lines.push_back(match.suffix());
    }
    return lines;
}

// ------------------------------------------------------------------------------------------------
// Ports
// ------------------------------------------------------------------------------------------------

// A socket bound to a port of every address; TCP also listens. Throws when somebody else has the
// port.
class PortHolder {
public:
    PortHolder(Transport transport, int port) : m_fd(Bind(transport, port)) {
        if (m_fd == -1) {
            throw std::runtime_error("port " + std::to_string(port) + ": " + std::strerror(errno));
        }
    }
    ~PortHolder() { close(m_fd); }
    PortHolder(const PortHolder&) = delete;
    PortHolder& operator=(const PortHolder&) = delete;

    static bool IsFree(Transport transport, int port) {
        const int fd = Bind(transport, port);
        if (fd == -1 && errno != EADDRINUSE) {
            throw std::runtime_error(std::string("bind: ") + std::strerror(errno));
        }
        close(fd);
        return fd != -1;
    }
    int Fd() const { return m_fd; }

private:
    static int Bind(Transport transport, int port) {
        const int type = transport == Transport::Tcp ? SOCK_STREAM : SOCK_DGRAM;
        const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            (type == SOCK_STREAM && listen(fd, 16) != 0)) {
            const int error = errno;
            close(fd);
            errno = error;
            return -1;
        }
        return fd;
    }

    int m_fd;
};

// The ports of a list that are taken, as "111/tcp".
inline std::vector<std::string> TakenPorts(const std::vector<int>& ports) {
    std::vector<std::string> taken;
    for (const int port : ports) {
        if (!PortHolder::IsFree(Transport::Tcp, port)) {
            taken.push_back(std::to_string(port) + "/tcp");
        }
        if (!PortHolder::IsFree(Transport::Udp, port)) {
            taken.push_back(std::to_string(port) + "/udp");
        }
    }
    return taken;
}

// Every port that a server may have without being told so.
inline const std::vector<int> kDefaultPorts{111, 1058, 1059, 2049, 2050};

// ------------------------------------------------------------------------------------------------
// Processes
// ------------------------------------------------------------------------------------------------

// Processor time that a process has used, in clock ticks (100 a second).
inline long CpuTicks(pid_t pid) {
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return user + system;
}

// How often the main thread of a process has gone to sleep by itself.
inline long SleepCount(pid_t pid) {
    const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
    const std::string label = "\nvoluntary_ctxt_switches:";
    return std::stol(status.substr(status.find(label) + label.size()));
}

// The program with a pseudo terminal as its standard streams and, unless told otherwise, its
// controlling terminal.
class TerminalRun {
public:
    enum class Terminal { Controlling, NotControlling };

    explicit TerminalRun(std::vector<std::string> arguments,
                         Terminal terminal = Terminal::Controlling) {
        arguments = CommandLine(std::move(arguments));
        std::vector<char*> pointers;
        for (std::string& argument : arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        int slave = -1;
        if (openpty(&m_master, &slave, nullptr, nullptr, nullptr) != 0 || (m_pid = fork()) == -1) {
            throw std::runtime_error(std::string("terminal: ") + std::strerror(errno));
        }
        if (m_pid == 0) {
            close(m_master);
            setsid();
            if (terminal == Terminal::Controlling) {
                ioctl(slave, TIOCSCTTY, 0);
            }
            for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
                dup2(slave, fd);
            }
            close(slave);
            execv(pointers[0], pointers.data());
            _exit(127);
        }
        close(slave);
        m_settings = Settings();
    }
    ~TerminalRun() {
        if (!m_status) {
            ADD_FAILURE() << "still running at the end of the test. Output:\n" << m_output;
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        HangUp();
    }
    TerminalRun(const TerminalRun&) = delete;
    TerminalRun& operator=(const TerminalRun&) = delete;

    void Type(std::string_view text) {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(m_master, text.data(), text.size()));
    }
    void Signal(int number) const { kill(m_pid, number); }
    // Takes the terminal away.
    void HangUp() {
        if (m_master != -1) {
            close(m_master);
            m_master = -1;
        }
    }

    // Waits until the screen shows a text behind an offset of Output().
    [[nodiscard]] bool WaitForOutput(const std::string& text, std::size_t from = 0) {
        return WaitFor([&] {
            Collect();
            return m_output.size() >= from && m_output.find(text, from) != std::string::npos;
        });
    }
    std::optional<ExitStatus> WaitExit() {
        int status = 0;
        if (WaitFor([&] {
                Collect();
                return waitpid(m_pid, &status, WNOHANG) == m_pid;
            })) {
            m_status = WIFEXITED(status) ? ExitStatus::Code(WEXITSTATUS(status))
                                         : ExitStatus::Signal(WTERMSIG(status));
        }
        Collect();
        return m_status;
    }

    // Everything on the screen so far, echoes included, line ends as the program wrote them.
    const std::string& Output() const { return m_output; }
    pid_t Pid() const { return m_pid; }

    struct termios Settings() const {
        struct termios settings {};
        if (tcgetattr(m_master, &settings) != 0) {
            throw std::runtime_error(std::string("tcgetattr: ") + std::strerror(errno));
        }
        return settings;
    }
    // Whether the terminal is as it was before the program came.
    bool HasFirstSettings() const {
        const struct termios now = Settings();
        return now.c_iflag == m_settings.c_iflag && now.c_oflag == m_settings.c_oflag &&
               now.c_cflag == m_settings.c_cflag && now.c_lflag == m_settings.c_lflag &&
               std::memcmp(now.c_cc, m_settings.c_cc, sizeof now.c_cc) == 0;
    }

private:
    void Collect() {
        pollfd screen{m_master, POLLIN, 0};
        char buffer[4096];
        while (poll(&screen, 1, 0) > 0) {
            const ssize_t count = read(m_master, buffer, sizeof buffer);
            if (count <= 0) {
                return;  // EIO when the program has closed its side
            }
            for (ssize_t i = 0; i < count; ++i) {
                if (buffer[i] != '\r') {
                    m_output.push_back(buffer[i]);
                }
            }
        }
    }

    int m_master = -1;
    pid_t m_pid = -1;
    struct termios m_settings {};
    std::string m_output;
    std::optional<ExitStatus> m_status;
};

}  // namespace console
