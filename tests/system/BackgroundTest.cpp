// The program in the background of an interactive shell: touching the shell's terminal would stop
// it.

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/Files.h"

using support::WaitFor;

namespace {

// A shell with job control on a terminal of its own, which runs the server in the background, asks
// it to end once it has shown its prompt, and tells its exit code.
constexpr const char* kScript =
    "set -m; \"$VELOCAST_NFS\" -md int > /tmp/out & "
    "until grep -q Command: /tmp/out; do sleep 0.05; done; sleep 0.5; "
    "kill -TERM %1; wait %1; echo ended=$?";

}  // namespace

TEST(Background, TheServerRunsAndEndsThere) {
    int master = -1;
    const pid_t shell = forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_NE(-1, shell);
    if (shell == 0) {
        execl("/bin/bash", "bash", "-c", kScript, nullptr);
        _exit(127);
    }
    std::string screen;
    EXPECT_TRUE(WaitFor([&] {
        pollfd output{master, POLLIN, 0};
        char buffer[4096];
        while (poll(&output, 1, 0) > 0) {
            const ssize_t count = read(master, buffer, sizeof buffer);
            if (count <= 0) {
                break;
            }
            screen.append(buffer, static_cast<std::size_t>(count));
        }
        return screen.find("ended=") != std::string::npos;
    })) << screen;
    EXPECT_NE(std::string::npos, screen.find("ended=0")) << screen;
    EXPECT_NE(std::string::npos, support::ReadFile("/tmp/out").find("\nExit by request\n"));
    kill(shell, SIGKILL);
    waitpid(shell, nullptr, 0);
    close(master);
}
