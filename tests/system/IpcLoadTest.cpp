// ctest-labels: threaded
// Many controllers at once while NFS clients read and write: every request is answered, each
// caller's in its order, and the server keeps neither descriptors nor memory.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <thread>

#include "IpcFixture.h"
#include "NfsIpcServerMain.h"
#include "support/Nfs3Client.h"
#include "support/Server.h"

using namespace ipctest;
using support::MountClient;
using support::Nfs3Client;

namespace {

// One caller's requests: a session is there from its addition to its removal. Returns how many
// answers were wrong or missing.
int RunCaller(int caller, int requests) {
    int wrong = 0;
    for (int i = 0; i + 4 <= requests; i += 4) {
        const std::string id = "c" + std::to_string(caller) + "-" + std::to_string(i);
        const auto ask = [&](const Bytes& message, const Bytes& expected) {
            try {
                const RawClient client;
                const bool sent = client.Send(WithText(message, 16, 256, id));
                wrong += sent && client.Receive() == expected ? 0 : 1;
            } catch (const std::exception&) {
                ++wrong;
            }
        };
        ask(ipcvectors::kAddSession, ReplyBool(true));
        ask(ipcvectors::kIsSessionExists, ReplyBool(true));
        ask(ipcvectors::kRemoveSession, ReplyBool(true));
        ask(ipcvectors::kIsSessionExists, ReplyBool(false));
    }
    return wrong;
}

// Reads and writes files of an export, round after round.
class NfsLoad {
public:
    NfsLoad() : m_root(MountClient().Mnt("vm01").handle) {}

    // One round; false when something was not as it should be.
    bool Round(const std::string& name) {
        const std::string data = support::PatternData(16'000, ++m_round);
        const support::CreateResult created = m_nfs.Create(m_root, name);
        if (created.status != 0 || !created.handle) {
            return false;
        }
        const support::Bytes bytes(data.begin(), data.end());
        return m_nfs.Write(*created.handle, 0, bytes).status == 0 &&
               m_nfs.Read(*created.handle, 0, 16'000).data == bytes;
    }

private:
    support::Handle m_root;
    Nfs3Client m_nfs;
    std::uint64_t m_round = 0;
};

constexpr int kCallers = 8;

}  // namespace

TEST(IpcLoadTest, TenThousandRequestsOfEightProcesses) {
    constexpr int kRequests = 1252;  // of each; four at a time
    const support::ScopedTempDir folder;
    support::Server server({.mode = "svr", .exports = {{"vm01", folder.Path()}}});
    NfsLoad load;
    ASSERT_TRUE(load.Round("file"));
    ASSERT_EQ(0, RunCaller(99, 400));
    ASSERT_TRUE(support::WaitFor([] { return CanConnect(kServerChannel); }));
    const std::size_t fds = support::OpenFds(server.Pid()).size();
    const std::size_t memory = support::RssKiB(server.Pid());

    std::vector<pid_t> callers;
    for (int caller = 0; caller < kCallers; ++caller) {
        const pid_t pid = fork();
        ASSERT_NE(-1, pid);
        if (pid == 0) {
            _exit(RunCaller(caller, kRequests) == 0 ? 0 : 1);
        }
        callers.push_back(pid);
    }
    int rounds = 0;
    int served = 0;
    for (const pid_t caller : callers) {
        int status = 0;
        while (waitpid(caller, &status, WNOHANG) == 0) {
            EXPECT_TRUE(load.Round("file")) << "round " << rounds;
            ++rounds;
        }
        served += WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 1 : 0;
    }
    EXPECT_EQ(kCallers, served) << "callers that had all their answers";
    EXPECT_GT(rounds, 0) << "NFS was served meanwhile";
    EXPECT_EQ(Hex(ReplyInt(0)), Hex(Exchange(WithU32(ipcvectors::kGetSessionInfo, 272, 0))));
    EXPECT_TRUE(support::WaitFor([&] { return support::OpenFds(server.Pid()).size() <= fds; }));
    EXPECT_LT(support::RssKiB(server.Pid()), memory + 16 * 1024);
}

TEST(IpcLoadTest, ManyThreadsAgainstAServerInThisProcess) {
    const support::ScopedTempDir folder;
    CNfsIpcServerMain main("sv", 0);
    StartController(main);
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(main.StartServer(0, 0, 0, 0, false, reason)) << reason;
    ASSERT_TRUE(main.AddMountPoint(folder.Path().c_str(), "vm01", "ctl", reason)) << reason;
    FakePeer controller("/tmp/nfs-ctl");
    NfsLoad load;
    std::atomic<int> wrong{0};
    std::atomic<int> running{4};
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 4; ++caller) {
        callers.emplace_back([&, caller] {
            wrong += RunCaller(caller, 400);
            --running;
        });
    }
    // Lines travel to the controller from the threads of NFS clients and of the channel at once,
    // and the log control changes under them.
    int bits = 0;
    do {
        bits ^= LOG_CONTROL_PROC_FUNC_NAME;
        main.SetLogControl(bits);
        EXPECT_TRUE(load.Round("file"));
        EXPECT_EQ(Hex(ReplyInt(1)), Hex(Exchange(ipcvectors::kGetMountInfo)));
    } while (running > 0);
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_EQ(0, wrong);
    EXPECT_GT(controller.Count(), 0u);
    main.StopServer();
    main.StopRemoteController();
}
