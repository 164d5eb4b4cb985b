// ctest-labels: threaded
//
// A stop of the service waits for nobody: not for a client that does not read its replies, not for
// a controller that does not answer, and not for an export of a redirected file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "IpcFixture.h"
#include "IpcWaits.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "support/Files.h"
#include "support/Nfs3Client.h"
#include "support/Xdr.h"
#include "Utilities.h"

using namespace support;

namespace {

constexpr std::uint32_t kNfs = 100003;
constexpr std::uint32_t kMount = 100005;
constexpr std::uint32_t kNull = 0;
constexpr std::uint32_t kRead = 6;
constexpr std::uint32_t kWrite = 7;

// Listens on a controller's channel and never answers.
class SilentController {
public:
    explicit SilentController(const std::string& channel)
        : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, channel.c_str(), sizeof address.sun_path - 1);
        if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(m_fd, 16) != 0) {
            throw std::runtime_error(channel + ": " + std::strerror(errno));
        }
    }
    ~SilentController() { close(m_fd); }
    SilentController(const SilentController&) = delete;
    SilentController& operator=(const SilentController&) = delete;

    // Takes the next callback, answers it, and gives its text.
    std::string TakeLine() const {
        pollfd ready{m_fd, POLLIN, 0};
        EXPECT_EQ(1, poll(&ready, 1, static_cast<int>(kPatience.count())));
        const int fd = accept(m_fd, nullptr, nullptr);
        Bytes line(4096);
        EXPECT_EQ(2324, recv(fd, line.data(), line.size(), 0));
        const Bytes answer = ipctest::ReplyBool(true);
        EXPECT_EQ(static_cast<ssize_t>(answer.size()),
                  send(fd, answer.data(), answer.size(), MSG_NOSIGNAL));
        close(fd);
        return ipctest::TextAt(line, 272, 2048);
    }

    // Waits until somebody has connected, who then waits for an answer.
    [[nodiscard]] bool WaitForCaller() const {
        pollfd connection{m_fd, POLLIN, 0};
        return poll(&connection, 1, static_cast<int>(kPatience.count())) == 1;
    }

private:
    int m_fd;
};

[[nodiscard]] bool StopsInTime(CNfsMain* main) {
    auto stopped = std::async(std::launch::async, [main] { main->StopServer(); });
    return stopped.wait_for(kPatience) == std::future_status::ready;
}

void StartWithExport(CNfsMain* main, const std::string& folder, const char* ipcId) {
    char status[STATUS_SIZE] = "";
    ASSERT_TRUE(main->StartServer(0, 0, 0, 0, false, status)) << status;
    ASSERT_TRUE(main->AddMountPoint(folder.c_str(), "vm01", ipcId, status)) << status;
}

}  // namespace

TEST(StopTest, DoesNotWaitForAClientThatDoesNotRead) {
    const ScopedTempDir dir;
    WriteFile(dir / "disk", std::string(65536, 'x'));
    CNfsMain main("stop", 0);
    StartWithExport(&main, dir.Path(), "");

    MountClient mount;
    const Handle root = mount.Mnt("vm01").handle;
    Nfs3Client waiting;  // has the slot before that of the one that does not read
    ASSERT_EQ(kSuccess, waiting.Null().acceptStat);
    Nfs3Client nfs;
    XdrWriter arguments;
    arguments.Opaque(nfs.Lookup(root, "disk").handle);
    arguments.U64(0);
    arguments.U32(65536);
    // More replies than any socket buffer holds, none of them read.
    for (int i = 0; i < 400; ++i) {
        nfs.Rpc().SendCall(kNfs, 3, kRead, arguments.Data());
    }
    // The service stands still now: another port's client gets no answer.
    ASSERT_TRUE(WaitFor([&] {
        MountClient other(Transport::Udp);
        other.Rpc().SendCall(kMount, 3, 0);
        return !other.Rpc().TryReceiveReply(Milliseconds(300)).has_value();
    }));
    waiting.Rpc().SendCall(kNfs, 3, kNull);
    EXPECT_TRUE(StopsInTime(&main));
}

TEST(StopTest, DoesNotWaitForAControllerThatDoesNotAnswer) {
    const ScopedTempDir dir;
    WriteFile(dir / "disk", "");
    const SilentController controller("/tmp/nfs-ctl");
    CNfsIpcServerMain main("stop", 0);
    StartWithExport(&main, dir.Path(), "ctl");
    main.OpenRedirectedFile((dir / "disk").c_str(), 4096, false, 0, 0);

    MountClient mount;
    const Handle root = mount.Mnt("vm01").handle;
    Nfs3Client nfs;
    XdrWriter arguments;
    arguments.Opaque(nfs.Lookup(root, "disk").handle);
    arguments.U64(0);
    arguments.U32(4);
    arguments.U32(2);
    arguments.Opaque(Bytes{1, 2, 3, 4});
    nfs.Rpc().SendCall(kNfs, 3, kWrite, arguments.Data());
    ASSERT_TRUE(controller.WaitForCaller());
    EXPECT_TRUE(StopsInTime(&main));
}

TEST(StopTest, EndsARunningExportAndTheRequestsThatWaitForIt) {
    const ScopedTempDir dir;
    WriteFile(dir / "other", "content");
    WriteFile(dir / "target", "");
    std::filesystem::create_symlink("/dev/null", dir / "endless");
    CNfsMain main("stop", 0);
    StartWithExport(&main, dir.Path(), "");
    main.OpenRedirectedFile((dir / "disk").c_str(), INT64_MAX, false, 0, 0);
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(main.AddRedirectedFileSegment((dir / "disk").c_str(), "", 0, 0, INT64_MAX, reason));
    MountClient mount;
    const Handle root = mount.Mnt("vm01").handle;
    Nfs3Client nfs;
    XdrWriter arguments;
    arguments.Opaque(nfs.Lookup(root, "other").handle);
    arguments.U64(0);
    arguments.U32(7);

    const auto before = OpenCount("/dev/null");
    auto exported = std::async(std::launch::async, [&] {
        main.ExportRedirectedFile((dir / "disk").c_str(), (dir / "endless").c_str());
    });
    ASSERT_TRUE(WaitFor([&] { return OpenCount("/dev/null") > before; }));
    nfs.Rpc().SendCall(kNfs, 3, kRead, arguments.Data());
    EXPECT_TRUE(StopsInTime(&main));
    EXPECT_EQ(std::future_status::ready, exported.wait_for(kPatience));

    // Afterwards exports are whole again, with and without a running service.
    for (const bool running : {false, true}) {
        char status[STATUS_SIZE] = "";
        if (running) {
            // The clients' connections still have the other ports.
            ASSERT_TRUE(main.StartServer(1060, 2060, 0, 0, false, status)) << status;
        }
        ASSERT_TRUE(main.AddMountPoint(dir.Path().c_str(), "vm01", status)) << status;
        WriteFile(dir / "target", "");
        main.OpenRedirectedFile((dir / "disk").c_str(), 200'000, false, 0, 0);
        main.ExportRedirectedFile((dir / "disk").c_str(), (dir / "target").c_str());
        EXPECT_TRUE(std::string(200'000, '\0') == ReadFile(dir / "target"));
        main.StopServer();
    }
}

namespace {

// While it lives, standard output is a pipe that is full and that nobody reads.
class UnreadOutput {
public:
    UnreadOutput() : m_saved(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        int ends[2];
        if (pipe(ends) != 0 || fcntl(ends[1], F_SETFL, O_NONBLOCK) != 0) {
            throw std::runtime_error(std::strerror(errno));
        }
        const std::string filling(4096, 'x');
        while (write(ends[1], filling.data(), filling.size()) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
        dup2(ends[1], STDOUT_FILENO);
        close(ends[1]);
        m_reader = ends[0];
    }
    ~UnreadOutput() {
        dup2(m_saved, STDOUT_FILENO);
        close(m_saved);
        close(m_reader);
    }
    UnreadOutput(const UnreadOutput&) = delete;
    UnreadOutput& operator=(const UnreadOutput&) = delete;

private:
    int m_saved;
    int m_reader = -1;
};

}  // namespace

TEST(StopTest, DoesNotWaitForWhoeverDoesNotReadTheOutput) {
    const ScopedTempDir dir;
    CNfsIpcServerMain main("stop", 0);
    StartWithExport(&main, dir.Path(), "");
    ipctest::StartController(main);
    {
        const UnreadOutput output;
        main.SetLogControl(ipctest::kAllLogBits);
        Nfs3Client nfs;
        nfs.Rpc().SendCall(kNfs, 3, kNull);
        const ipctest::RawClient controller;
        EXPECT_TRUE(controller.Send(ipcvectors::kIsServerRunning));
        EXPECT_FALSE(controller.HasAnswer(Milliseconds(300))) << "who prints waits for the reader";
        EXPECT_FALSE(nfs.Rpc().TryReceiveReply(Milliseconds(0)).has_value());
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_TRUE(StopsInTime(&main));
        main.StopRemoteController();
        EXPECT_LT(std::chrono::steady_clock::now() - begin, Milliseconds(5000));
    }
    main.SetLogControl(0);
}

// ------------------------------------------------------------------------------------------------
// Controllers that connect and then neither take their lines nor answer
// ------------------------------------------------------------------------------------------------

namespace {

constexpr Milliseconds kStopTime{5000};

// Runs an action aside. An action that never ends leaves its thread behind and fails the test.
[[nodiscard]] bool EndsWithin(Milliseconds time, std::function<void()> action) {
    auto task = std::make_shared<std::packaged_task<void()>>(std::move(action));
    auto done = task->get_future();
    std::thread([task] { (*task)(); }).detach();
    return done.wait_for(time) == std::future_status::ready;
}

Bytes ForMute(const Bytes& request) { return ipctest::WithText(request, 16, 256, "mute"); }

// The requests that have lines for whoever asks.
std::vector<std::pair<std::string, Bytes>> RequestsWithLines(const std::string& folder) {
    return {{"mounts", ForMute(ipcvectors::kGetMountInfo)},
            {"sessions", ForMute(ipcvectors::kGetSessionInfo)},
            {"datastores", ForMute(ipcvectors::kGetVSphereInfo)},
            {"test", ipctest::WithText(ForMute(ipcvectors::kRunTestMode), 272, 3072, folder)}};
}

// A server process with one row in each table, and a controller "mute" that takes no line.
class MuteControllerTest : public testing::Test {
protected:
    void SetUp() override {
        ipctest::StartController(main);
        StartWithExport(&main, dir.Path(), "");
        main.AddSessionInfo("s1", "/x");
        main.AddVSphereInfo("ds1", "127.0.0.1", "443", "me", "pw");
        ASSERT_EQ(0, mkdir(testFolder.c_str(), 0755));
    }
    void TearDown() override {
        main.RemoveVSphereInfo("ds1");
        EXPECT_TRUE(EndsWithin(kStopTime, [this] { main.StopServer(); }));
        EXPECT_TRUE(EndsWithin(kStopTime, [this] { main.StopRemoteController(); }));
    }

    const ScopedTempDir dir;
    const std::string testFolder = dir / "t";
    const SilentController controller{"/tmp/nfs-mute"};
    CNfsIpcServerMain main{"stop", 0};
};

}  // namespace

TEST_F(MuteControllerTest, KeepsNobodyElseWaitingForItsListing) {
    for (const auto& [name, request] : RequestsWithLines(testFolder)) {
        SCOPED_TRACE(name);
        const ipctest::RawClient asking;
        ASSERT_TRUE(asking.Send(request));
        ASSERT_TRUE(controller.WaitForCaller());
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(ipctest::ReplyMsg("1.2"), ipctest::Exchange(ipcvectors::kGetVersion));
        EXPECT_EQ(ipctest::ReplyBool(true), ipctest::Exchange(ipcvectors::kAddSession));
        EXPECT_EQ(ipctest::ReplyBool(true), ipctest::Exchange(ipcvectors::kAddVSphereInfo));
        EXPECT_EQ(ipctest::ReplyBool(true), ipctest::Exchange(ipctest::WithText(
                                                ipcvectors::kRemoveMountPoint, 16, 1024, "/none")));
        MountClient mount;
        EXPECT_EQ(MNT3_OK, mount.Mnt("vm01").status);
        EXPECT_EQ(kSuccess, mount.Umnt("vm01").acceptStat);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, Milliseconds(1500));
        EXPECT_FALSE(asking.HasAnswer(Milliseconds(0))) << "its lines have not been taken";
        main.RemoveVSphereInfo("ds1");
        main.AddVSphereInfo("ds1", "127.0.0.1", "443", "me", "pw");
    }
    main.RemoveVSphereInfo("ds1");
}

TEST_F(MuteControllerTest, DoesNotHoldUpAStopByWhatItAskedFor) {
    std::vector<std::unique_ptr<ipctest::RawClient>> asking;
    for (const auto& [name, request] : RequestsWithLines(testFolder)) {
        asking.push_back(std::make_unique<ipctest::RawClient>());
        ASSERT_TRUE(asking.back()->Send(request)) << name;
    }
    ASSERT_TRUE(controller.WaitForCaller());
    main.RemoveVSphereInfo("ds1");
    EXPECT_TRUE(EndsWithin(kStopTime, [this] { main.StopServer(); }));
    EXPECT_TRUE(EndsWithin(kStopTime, [this] { main.StopRemoteController(); }));
    for (const auto& client : asking) {
        EXPECT_TRUE(client->HasAnswer(kPatience)) << "answered, or closed";
    }
}

TEST_F(MuteControllerTest, StopsTheRemoteControllerWhileTheServiceGoesOn) {
    const ipctest::RawClient asking;
    ASSERT_TRUE(asking.Send(ForMute(ipcvectors::kGetSessionInfo)));
    ASSERT_TRUE(controller.WaitForCaller());
    EXPECT_TRUE(EndsWithin(kStopTime, [this] { main.StopRemoteController(); }));
    EXPECT_EQ(MNT3_OK, MountClient().Mnt("vm01").status);
    ipctest::StartController(main);
    EXPECT_EQ(ipctest::ReplyMsg("1.2"), ipctest::Exchange(ipcvectors::kGetVersion));
}

TEST_F(MuteControllerTest, GetsItsLinesAndThenItsAnswerWhenItWakesUp) {
    main.AddSessionInfo("s2", "/y");
    const ipctest::RawClient asking;
    ASSERT_TRUE(asking.Send(ForMute(ipcvectors::kGetSessionInfo)));
    ASSERT_TRUE(controller.WaitForCaller());
    EXPECT_EQ(ipctest::ReplyMsg("1.2"), ipctest::Exchange(ipcvectors::kGetVersion));
    for (const char* line : {" session1 - s1 : /x", " session2 - s2 : /y"}) {
        EXPECT_FALSE(asking.HasAnswer(Milliseconds(0)));
        EXPECT_EQ(line, controller.TakeLine());
    }
    EXPECT_EQ(ipctest::ReplyInt(2), asking.Receive());
}

TEST_F(MuteControllerTest, LosesLinesBeforeItCostsWithoutABound) {
    std::vector<std::unique_ptr<ipctest::RawClient>> asking;
    for (int i = 0; i < 64; ++i) {
        asking.push_back(std::make_unique<ipctest::RawClient>());
        ASSERT_TRUE(asking.back()->Send(ForMute(ipcvectors::kGetSessionInfo)));
    }
    const ipctest::RawClient last;
    ASSERT_TRUE(last.Send(ForMute(ipcvectors::kGetSessionInfo)));
    EXPECT_EQ(ipctest::ReplyInt(1), last.Receive()) << "the answer alone";
    EXPECT_FALSE(asking.front()->HasAnswer(Milliseconds(0)));
    EXPECT_FALSE(asking.back()->HasAnswer(Milliseconds(0)));
}

// Counts what is refused and not yet allowed again.
class CountingUtilities : public CUtilities {
public:
    void RefuseWaits() override { ++m_refused; }
    void AllowWaits() override { --m_refused; }
    int Refused() const { return m_refused; }

private:
    int m_refused = 0;
};

class CountingMain : public CNfsMain {
public:
    CountingMain() { CNfsMain::InitMemberVaribles("main", 0); }
    std::unique_ptr<CUtilities> CreateUtilities() override {
        auto counting = std::make_unique<CountingUtilities>();
        m_counting = counting.get();
        return counting;
    }
    int Refused() const { return m_counting->Refused(); }

private:
    CountingUtilities* m_counting = nullptr;
};

TEST(StopTest, AllowsTheWaitsAsOftenAsItRefusesThem) {
    CountingMain main;
    char status[STATUS_SIZE] = "";
    main.StopServer();  // of a service that never ran
    EXPECT_EQ(0, main.Refused());
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(main.StartServer(0, 0, 0, 0, false, status)) << status;
        main.StopServer();
        EXPECT_EQ(0, main.Refused());
    }
}

// ------------------------------------------------------------------------------------------------
// Waits
// ------------------------------------------------------------------------------------------------

TEST(IpcWaitsTest, RefusingEndsWhatIsUnderWayAndTurnsAwayNewOnesUntilAllowedAsOften) {
    CIpcWaits waits;
    const CIpcWait early(&waits);
    EXPECT_FALSE(early.IsEnded());
    waits.Refuse();
    waits.Refuse();
    EXPECT_TRUE(early.IsEnded());
    waits.Allow();
    EXPECT_TRUE(CIpcWait(&waits).IsEnded());
    waits.Allow();
    EXPECT_FALSE(CIpcWait(&waits).IsEnded());
    EXPECT_TRUE(early.IsEnded()) << "also when it looks only now";
    EXPECT_FALSE(CIpcWait(nullptr).IsEnded());
}

TEST(IpcWaitsTest, TheWaitsOfAThreadStandInForOthers) {
    CIpcWaits own;
    CIpcWaits other;
    own.Refuse();
    {
        const CIpcWaits::ThreadScope scope(&own);
        EXPECT_TRUE(CIpcWait(&other).IsEnded());
        EXPECT_TRUE(CIpcWait(nullptr).IsEnded());
        std::thread([&] { EXPECT_FALSE(CIpcWait(&other).IsEnded()); }).join();
    }
    EXPECT_FALSE(CIpcWait(&other).IsEnded());
}

TEST(StartTest, APortBeyond16BitsIsRefused) {
    CNfsMain main("stop", 0);
    char status[STATUS_SIZE] = "";
    EXPECT_FALSE(main.StartServer(0, 70000, 0, 0, false, status));
    EXPECT_STREQ("NFS daemon failed to open port 70000", status);
    EXPECT_FALSE(main.StartServer(70000, 0, 0, 0, false, status));
    EXPECT_STREQ("Mount daemon failed to open port 70000", status);
}
