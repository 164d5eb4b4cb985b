// The program in the background of an interactive shell: touching the shell's terminal would stop
// it.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ConsoleFixture.h"
#include "support/Files.h"

using console::SleepCount;
using support::WaitFor;

namespace {

// A shell with job control on a terminal of its own.
class Shell {
public:
    explicit Shell(const char* script) {
        m_pid = forkpty(&m_master, nullptr, nullptr, nullptr);
        if (m_pid == 0) {
            execl("/bin/bash", "bash", "-c", script, nullptr);
            _exit(127);
        }
    }
    ~Shell() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        close(m_master);
    }
    Shell(const Shell&) = delete;
    Shell& operator=(const Shell&) = delete;

    void Type(const std::string& keys) const {
        ASSERT_EQ(static_cast<ssize_t>(keys.size()), write(m_master, keys.data(), keys.size()));
    }
    // Waits until the screen shows a text.
    [[nodiscard]] bool Shows(const std::string& text) {
        return WaitFor([&] {
            pollfd output{m_master, POLLIN, 0};
            char buffer[4096];
            while (poll(&output, 1, 0) > 0) {
                const ssize_t count = read(m_master, buffer, sizeof buffer);
                if (count <= 0) {
                    break;
                }
                m_screen.append(buffer, static_cast<std::size_t>(count));
            }
            return m_screen.find(text) != std::string::npos;
        });
    }
    const std::string& Screen() const { return m_screen; }

private:
    int m_master = -1;
    pid_t m_pid = -1;
    std::string m_screen;
};

}  // namespace

TEST(BackgroundTest, TheServerRunsAndEndsThere) {
    Shell shell(
        "set -m; \"$VELOCAST_NFS\" -md int > /tmp/out & "
        "until grep -q Command: /tmp/out; do sleep 0.05; done; sleep 0.5; "
        "kill -TERM %1; wait %1; echo ended=$?");
    EXPECT_TRUE(shell.Shows("ended=0")) << shell.Screen();
    EXPECT_NE(std::string::npos, support::ReadFile("/tmp/out").find("\nExit by request\n"));
}

TEST(BackgroundTest, AHalfTypedLineDoesNotStopTheServerThere) {
    Shell shell(
        "set -m; \"$VELOCAST_NFS\" -md int -pidfile /tmp/pid > /tmp/out; bg; echo in-background; "
        "until [ -e /tmp/go ]; do sleep 0.05; done; read -r line; echo \"the shell has $line\"; "
        "kill -TERM %1; wait %1; echo ended=$?");
    ASSERT_TRUE(WaitFor([] {
        return support::FileExists("/tmp/out") &&
               support::ReadFile("/tmp/out").find("Command: ") != std::string::npos;
    }));
    const auto server = static_cast<pid_t>(std::stol(support::ReadFile("/tmp/pid")));
    const auto goesOn = [server] {
        const long sleeps = SleepCount(server);
        return WaitFor([&] { return SleepCount(server) >= sleeps + 10; });
    };
    shell.Type("sta");
    ASSERT_TRUE(goesOn());
    shell.Type("\x1A");  // the key that stops the job in the foreground
    ASSERT_TRUE(shell.Shows("in-background")) << shell.Screen();
    EXPECT_TRUE(goesOn());
    // A whole line waits at the terminal now; it is the shell's.
    shell.Type("for the shell\r");
    EXPECT_TRUE(goesOn()) << "the server was stopped";
    support::WriteFile("/tmp/go", "");
    EXPECT_TRUE(shell.Shows("the shell has ")) << shell.Screen();
    EXPECT_TRUE(shell.Shows("ended=0")) << shell.Screen();
    EXPECT_NE(std::string::npos, shell.Screen().find("for the shell\r\n")) << shell.Screen();
    EXPECT_TRUE(support::ReadFile("/tmp/out").ends_with("\nCommand: \nExit by request\n"));
}
