// ctest-labels: threaded
//
// A stop of the service waits for nobody: not for a client that does not read its replies, not for
// a controller that does not answer, and not for an export of a redirected file.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <string>

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

TEST(Stop, DoesNotWaitForAClientThatDoesNotRead) {
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

TEST(Stop, DoesNotWaitForAControllerThatDoesNotAnswer) {
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

TEST(Stop, EndsARunningExportAndTheRequestsThatWaitForIt) {
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

TEST(IpcWaits, RefusingEndsAWaitAndTurnsAwayNewOnesUntilAllowed) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    CIpcWaits waits;
    ASSERT_TRUE(waits.Enter(pair[0]));
    auto waiting = std::async(std::launch::async, [&] {
        char c = 0;
        return recv(pair[0], &c, 1, 0);
    });
    waits.Refuse();
    EXPECT_EQ(0, waiting.get());
    waits.Leave(pair[0]);
    EXPECT_FALSE(waits.Enter(pair[0]));
    waits.Allow();
    EXPECT_TRUE(waits.Enter(pair[0]));
    waits.Leave(pair[0]);
    close(pair[0]);
    close(pair[1]);
}

TEST(IpcWaits, ALeftSocketIsNotTouched) {
    int pair[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
    CIpcWaits waits;
    ASSERT_TRUE(waits.Enter(pair[0]));
    waits.Leave(pair[0]);
    waits.Refuse();
    EXPECT_EQ(1, send(pair[1], "x", 1, MSG_NOSIGNAL));
    char c = 0;
    EXPECT_EQ(1, recv(pair[0], &c, 1, 0));
    close(pair[0]);
    close(pair[1]);
}

TEST(Start, APortBeyond16BitsIsRefused) {
    CNfsMain main("stop", 0);
    char status[STATUS_SIZE] = "";
    EXPECT_FALSE(main.StartServer(0, 70000, 0, 0, false, status));
    EXPECT_STREQ("NFS daemon failed to open port 70000", status);
    EXPECT_FALSE(main.StartServer(70000, 0, 0, 0, false, status));
    EXPECT_STREQ("Mount daemon failed to open port 70000", status);
}
