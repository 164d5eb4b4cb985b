#include "support/Process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <regex>
#include <stdexcept>
#include <utility>

namespace support {

namespace {

struct Pipe {
    int read = -1;
    int write = -1;
};

Pipe MakePipe() {
    int fds[2];
    // Close-on-exec: a child must not hold the ends of another child's pipes.
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
    }
    return {fds[0], fds[1]};
}

void CloseFd(int& fd) {
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> MergedEnvironment(const std::vector<std::string>& additions) {
    std::map<std::string, std::string> variables;
    const auto add = [&variables](const std::string& line) {
        variables[line.substr(0, line.find('='))] = line;
    };
    for (char** line = environ; *line != nullptr; ++line) {
        add(*line);
    }
    for (const std::string& line : additions) {
        add(line);
    }
    std::vector<std::string> lines;
    for (const auto& [name, line] : variables) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const ExitStatus& status) {
    return status.exited ? out << "exit code " << status.code : out << "signal " << status.signal;
}

Process::Process(std::vector<std::string> arguments, ProcessOptions options)
    : m_arguments(std::move(arguments)) {
    // A program that ends early must show as a failing Send, not end the test.
    signal(SIGPIPE, SIG_IGN);

    Pipe input = MakePipe();
    Pipe output = MakePipe();
    Pipe errors = options.separateErrors ? MakePipe() : Pipe{};

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input.read, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output.write, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, options.separateErrors ? errors.write : output.write,
                                     STDERR_FILENO);
    if (!options.workingDirectory.empty()) {
        posix_spawn_file_actions_addchdir_np(&actions, options.workingDirectory.c_str());
    }

    // The child starts with SIGPIPE as a shell would leave it.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> environment = MergedEnvironment(options.environment);
    const int error = posix_spawnp(&m_pid, m_arguments.at(0).c_str(), &actions, &attributes,
                                   Pointers(m_arguments).data(), Pointers(environment).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    CloseFd(input.read);
    CloseFd(output.write);
    CloseFd(errors.write);
    if (error != 0) {
        CloseFd(input.write);
        CloseFd(output.read);
        CloseFd(errors.read);
        throw std::runtime_error("start " + Description() + ": " + std::strerror(error));
    }
    m_stdin = input.write;
    const Pipe stop = MakePipe();
    m_stopFds[0] = stop.read;
    m_stopFds[1] = stop.write;
    m_collector = std::thread(&Process::Collect, this, output.read, errors.read);
}

Process::~Process() {
    if (!Reap(WNOHANG)) {
        ADD_FAILURE() << Description() << " was still running at the end of the test. Output:\n"
                      << Output() << Errors();
    }
    Stop();
    CloseFd(m_stopFds[1]);
    m_collector.join();
    CloseFd(m_stopFds[0]);
}

void Process::Collect(int outputFd, int errorFd) {
    // poll() skips negative descriptors, so a closed stream simply drops out.
    pollfd streams[3] = {{outputFd, POLLIN, 0}, {errorFd, POLLIN, 0}, {m_stopFds[0], POLLIN, 0}};
    while (streams[0].fd >= 0 || streams[1].fd >= 0) {
        if (poll(streams, 3, -1) < 0 && errno != EINTR) {
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (streams[i].fd < 0 || streams[i].revents == 0) {
                continue;
            }
            char buffer[65536];
            const ssize_t count = read(streams[i].fd, buffer, sizeof buffer);
            const std::lock_guard lock(m_mutex);
            if (count > 0) {
                (i == 0 ? m_output : m_errors).append(buffer, static_cast<std::size_t>(count));
            } else {
                CloseFd(streams[i].fd);
            }
            m_changed.notify_all();
        }
        // Asked to stop although something that the program started still holds its output.
        if (streams[2].revents != 0) {
            break;
        }
    }
    CloseFd(streams[0].fd);
    CloseFd(streams[1].fd);
    const std::lock_guard lock(m_mutex);
    m_closed = true;
    m_changed.notify_all();
}

bool Process::Send(std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(m_stdin, text.data(), text.size());
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

void Process::CloseStdin() { CloseFd(m_stdin); }

void Process::Signal(int number) const {
    if (!m_status) {
        kill(m_pid, number);
    }
}

std::string Process::Output(std::size_t from) const {
    const std::lock_guard lock(m_mutex);
    return m_output.substr(std::min(from, m_output.size()));
}

std::string Process::Errors() const {
    const std::lock_guard lock(m_mutex);
    return m_errors;
}

std::size_t Process::OutputSize() const {
    const std::lock_guard lock(m_mutex);
    return m_output.size();
}

bool Process::WaitForOutput(std::string_view text, Milliseconds timeout, std::size_t from) {
    return WaitForMatch(
        [text](const std::string& output) { return output.find(text) != std::string::npos; },
        timeout, from);
}

bool Process::WaitForPattern(const std::string& regex, Milliseconds timeout, std::size_t from) {
    const std::regex compiled(regex);
    return WaitForMatch(
        [&compiled](const std::string& output) { return std::regex_search(output, compiled); },
        timeout, from);
}

bool Process::WaitForMatch(const std::function<bool(const std::string&)>& matches,
                           Milliseconds timeout, std::size_t from) {
    const auto found = [&] { return m_output.size() >= from && matches(m_output.substr(from)); };
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, timeout, [&] { return m_closed || found(); });
    return found();
}

bool Process::Reap(int options) {
    int status = 0;
    if (!m_status && waitpid(m_pid, &status, options) == m_pid) {
        m_status = WIFEXITED(status) ? ExitStatus::Code(WEXITSTATUS(status))
                                     : ExitStatus::Signal(WTERMSIG(status));
    }
    return m_status.has_value();
}

std::optional<ExitStatus> Process::WaitExit(Milliseconds timeout) {
    if (!WaitFor([this] { return Reap(WNOHANG); }, timeout)) {
        return std::nullopt;
    }
    // A grandchild may keep the streams open; two seconds are enough for what is in the pipes.
    std::unique_lock lock(m_mutex);
    m_changed.wait_for(lock, std::chrono::seconds(2), [this] { return m_closed; });
    return m_status;
}

void Process::Stop() {
    CloseStdin();
    if (!m_status) {
        kill(m_pid, SIGKILL);
        Reap(0);
    }
}

std::string Process::Description() const {
    std::string text;
    for (const std::string& argument : m_arguments) {
        text += text.empty() ? argument : " " + argument;
    }
    return text;
}

RunResult RunProgram(std::vector<std::string> arguments, std::string_view input,
                     ProcessOptions options, Milliseconds timeout) {
    options.separateErrors = true;
    Process process(std::move(arguments), std::move(options));
    process.Send(input);
    process.CloseStdin();
    const std::optional<ExitStatus> status = process.WaitExit(timeout);
    if (!status) {
        process.Stop();
        throw std::runtime_error(process.Description() + " did not end in time. Output:\n" +
                                 process.Output() + process.Errors());
    }
    return {*status, process.Output(), process.Errors()};
}

}  // namespace support
