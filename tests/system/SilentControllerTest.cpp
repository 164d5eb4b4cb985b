// ctest-labels: threaded
// Controllers that do not take what they asked for, and many that ask at once: whoever waits, it is
// not the service, not another controller, and not a stop.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ConsoleFixture.h"
#include "IpcFixture.h"
#include "NfsIpcClientMain.h"
#include "support/Nfs3Client.h"

using namespace console;

namespace {

using Clock = std::chrono::steady_clock;

constexpr Milliseconds kStopTime{5000};
constexpr Milliseconds kServedTime{1000};

// Listens on the channel "mute" and accepts nobody.
class MuteController {
public:
    MuteController() : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = ipctest::ChannelAddress("/tmp/nfs-mute");
        if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(m_fd, 16) != 0) {
            throw std::runtime_error("listen");
        }
    }
    ~MuteController() { close(m_fd); }
    MuteController(const MuteController&) = delete;
    MuteController& operator=(const MuteController&) = delete;

    [[nodiscard]] bool WaitForCaller() const {
        pollfd connection{m_fd, POLLIN, 0};
        return poll(&connection, 1, static_cast<int>(kPatience.count())) == 1;
    }

private:
    int m_fd;
};

// How the server is stopped, and what its mute controller has asked for.
using Stop = std::tuple<std::string, std::string>;

class AskedByAMuteControllerTest : public testing::TestWithParam<Stop> {
protected:
    Bytes Request() const {
        const std::string& asked = std::get<1>(GetParam());
        const Bytes& request = asked == "mounts"       ? ipcvectors::kGetMountInfo
                               : asked == "sessions"   ? ipcvectors::kGetSessionInfo
                               : asked == "datastores" ? ipcvectors::kGetVSphereInfo
                                                       : ipcvectors::kRunTestMode;
        const Bytes forMute = ipctest::WithText(request, 16, 256, "mute");
        return asked == "test" ? ipctest::WithText(forMute, 272, 3072, folder.Path()) : forMute;
    }

    const ScopedTempDir folder;
    const MuteController controller;
    Server server{{.mode = "svr"}};
};

}  // namespace

TEST_P(AskedByAMuteControllerTest, AServerStopsInTime) {
    server.AddExport(folder.Path(), "vm01");
    ipctest::Exchange(ipcvectors::kAddSession);
    server.Console("addvsphereinfo ds1 127.0.0.1 443 me pw");
    const ipctest::RawClient asking;
    ASSERT_TRUE(asking.Send(Request()));
    ASSERT_TRUE(controller.WaitForCaller());
    server.Console("removevsphereinfo ds1");

    const std::string& way = std::get<0>(GetParam());
    const auto begin = Clock::now();
    if (way == "shutdown") {
        const RunResult result = RunConsole({"-shutdown"});
        EXPECT_EQ(ExitStatus::Code(0), result.status) << result.output;
    } else if (way == "quit") {
        server.Program().Send("quit\n");
    } else {
        server.Program().Signal(way == "interrupt" ? SIGINT : SIGTERM);
    }
    EXPECT_EQ(ExitStatus::Code(0), server.WaitForDeath());
    EXPECT_LT(Clock::now() - begin, kStopTime);
    EXPECT_FALSE(FileExists(ipctest::kServerChannel));
    EXPECT_TRUE(TakenPorts(kDefaultPorts).empty());
    EXPECT_FALSE(FileExists(folder / "_test"));
}
INSTANTIATE_TEST_SUITE_P(
    Ways, AskedByAMuteControllerTest,
    testing::Combine(testing::Values("quit", "terminate", "interrupt", "shutdown"),
                     testing::Values("mounts", "sessions", "datastores", "test")),
    [](const auto& stop) { return std::get<0>(stop.param) + "_" + std::get<1>(stop.param); });

// ================================================================================================
// A pager
// ================================================================================================

TEST(SlowReaderTest, OfAQueryHoldsUpNobodyElse) {
    constexpr int kExports = 400;
    const ScopedTempDir folder;
    Server server({.mode = "svr"});
    server.AddExport(folder.Path(), "a");
    CNfsIpcClientMain controller("ctl", 0);
    char reason[STATUS_SIZE] = "";
    for (int i = 0; i < kExports; ++i) {
        const std::string path = "/none/" + std::string(180, 'p') + std::to_string(i);
        const std::string name = "b" + std::string(100, 'n') + std::to_string(i);
        ASSERT_TRUE(controller.AddMountPoint(path.c_str(), name.c_str(), reason)) << reason;
    }

    int output[2];
    ASSERT_EQ(0, pipe2(output, O_CLOEXEC));
    const std::string program = ServerProgram();
    const pid_t pid = fork();
    ASSERT_NE(-1, pid);
    if (pid == 0) {
        dup2(output[1], STDOUT_FILENO);
        execl(program.c_str(), program.c_str(), "-query", nullptr);
        _exit(127);
    }
    ASSERT_TRUE(WaitFor([&] {
        pollfd room{output[1], POLLOUT, 0};
        return poll(&room, 1, 0) == 0;
    })) << "it prints until the pipe is full";
    close(output[1]);

    const auto begin = Clock::now();
    MountClient mount;
    EXPECT_EQ(support::MNT3_OK, mount.Mnt("a").status);
    EXPECT_EQ(kExports + 1, controller.GetMountInfo(false, false));
    EXPECT_TRUE(controller.AddMountPoint("/none/c", "c", reason)) << reason;
    controller.RemoveMountPoint("/none/c");
    EXPECT_LT(Clock::now() - begin, kServedTime);
    EXPECT_EQ(ExitStatus::Code(0), RunConsole({"-query", "-id", "other"}).status);

    std::string text;
    char buffer[65536];
    for (ssize_t count = 0; (count = read(output[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(output[0]);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos, text.find(" mount1 - " + folder.Path() + " : a () []\n"));
    EXPECT_NE(std::string::npos, text.find("\n mount" + std::to_string(kExports + 1) + " - "));
    EXPECT_TRUE(text.ends_with("Number of mounted NFS datastore: 0\n" + kDashes)) << text.size();
}

// ================================================================================================
// Pairs
// ================================================================================================

namespace {

enum class Kind { Query, Status, Test };

// Runs one controlling process to its end; what was wrong, or nothing.
std::string RunOne(Kind kind, const std::string& id, const std::string& folder, bool alone) {
    std::vector<std::string> arguments{"-id", id, "-md", "cli"};
    std::string input;
    std::string expected;
    if (kind == Kind::Query) {
        arguments.push_back("-query");
        expected = " mount1 - ";
    } else if (kind == Kind::Test) {
        arguments.insert(arguments.end(), {"-test", folder + "=4096"});
        expected = "END TEST";
    } else {
        input = "status\nquit\n";
        expected = " mount1 - ";
    }
    const RunResult result = RunProgram(CommandLine(arguments), input);
    if (!alone && result.status == ExitStatus::Code(1)) {
        // The last one: the other has removed our socket file as one that an earlier run had left.
        for (const char* text : {"Ipc channel is already created by others.",
                                 "Fail to bind ipc server socket. Address already in use (98)",
                                 "Reason=No such file or directory (2)"}) {
            if (result.output.find(text) != std::string::npos) {
                return "";
            }
        }
    }
    // Of two processes that open one channel in the same moment, one gets the lines of both.
    const bool complete = !alone || result.output.find(expected) != std::string::npos;
    return result.status == ExitStatus::Code(0) && complete ? "" : result.output + result.errors;
}

}  // namespace

TEST(ControllerPairsTest, TwoHundredPairsEndWhileHostsAreServed) {
    constexpr int kPairs = 200;
    const ScopedTempDir folder;
    WriteFile(folder / "file", "content");
    Server server({.mode = "svr", .exports = {{"vm01", folder.Path()}}});

    std::atomic<bool> done{false};
    std::thread host([&] {
        MountClient mount;
        const Handle root = mount.Mnt("vm01").handle;
        mount.Umnt("vm01");
        Nfs3Client nfs;
        const Handle file = nfs.Lookup(root, "file").handle;
        while (!done) {
            const auto begin = Clock::now();
            EXPECT_EQ(support::MNT3_OK, mount.Mnt("vm01").status);
            EXPECT_LT(Clock::now() - begin, kServedTime) << "MNT";
            EXPECT_EQ(kSuccess, mount.Umnt("vm01").acceptStat);
            EXPECT_EQ("content", ToText(nfs.Read(file, 0, 100).data));
        }
    });
    std::atomic<int> next{0};
    // Two pairs at a time.
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            for (int pair = next++; pair < kPairs; pair = next++) {
                const Kind first = static_cast<Kind>(pair % 3);
                const Kind second = static_cast<Kind>(pair / 3 % 3);
                const bool alone = pair / 9 % 2 == 0;
                const std::string id = "p" + std::to_string(t);
                std::string wrong;
                std::thread other(
                    [&] { wrong = RunOne(second, alone ? id + "b" : id, folder.Path(), alone); });
                EXPECT_EQ("", RunOne(first, id, folder.Path(), alone)) << "pair " << pair;
                other.join();
                EXPECT_EQ("", wrong) << "pair " << pair;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    done = true;
    host.join();
    EXPECT_EQ(ipctest::ReplyMsg("1.2"), ipctest::Exchange(ipcvectors::kGetVersion));
}
