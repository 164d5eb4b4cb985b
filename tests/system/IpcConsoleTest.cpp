// A server process and controlling processes: the console's modes, and every message between two
// real processes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
// libnfs.h takes struct timeval from its includer.
#include <nfsc/libnfs.h>

#include <latch>
#include <thread>

#include "ConsoleFixture.h"
#include "IpcFixture.h"
#include "Nfs3Types.h"
#include "NfsIpcClientMain.h"
#include "support/Nfs3Client.h"

using namespace console;
using ipctest::FakePeer;
using ipctest::TextAt;
using ipctest::U32At;

namespace {

std::string Banner(const std::string& version, const std::string& description) {
    return kDashes + "Execute Version: 1.2\nServer Version: " + version +
           "\nServer Description: " + description + "\n" + kDashes;
}
const std::string kServerBanner = Banner("1.2", "External NFS Server");

ServerOptions Stopped() { return {.mode = "svr", .start = false}; }
ServerOptions Started() { return {.mode = "svr"}; }
ServerOptions Client(const std::string& id = "ctl", int logControl = 0) {
    return {.logControl = logControl, .arguments = {"-id", id}, .mode = "cli", .start = false};
}

std::string Query() {
    const RunResult result = RunConsole({"-query"});
    EXPECT_EQ(ExitStatus::Code(0), result.status) << result.output;
    EXPECT_FALSE(FileExists("/tmp/nfs-qyRun")) << "its channel is gone";
    return result.output;
}

const std::string kNotAccessible =
    Banner("Unknown", "Unknown") + "Server Status: NotAccessible\n" + kDashes;

}  // namespace

// ================================================================================================
// -query
// ================================================================================================

TEST(IpcQueryTest, WithoutAServerItIsNotAccessible) { EXPECT_EQ(kNotAccessible, Query()); }

TEST(IpcQueryTest, AStoppedServer) {
    const Server server(Stopped());
    EXPECT_EQ(kServerBanner + Status("Stopped"), Query());
}

TEST(IpcQueryTest, AStartedServerListsWhatItHasOnTheClientsConsole) {
    const ScopedTempDir folder;
    Server server(Started());
    server.AddExport(folder.Path(), "vm01");
    server.Console("addvsphereinfo ds1 127.0.0.1 443 me pw");
    EXPECT_EQ(kServerBanner + Status("Started", 1, " mount1 - " + folder.Path() + " : vm01 () []\n",
                                     1, " NFS datastore1 - ds1 (127.0.0.1:443)\n"),
              Query());
    server.Console("removevsphereinfo ds1");
}

TEST(IpcQueryTest, AServerOfAnotherModeIsNotAccessible) {
    const Server server;  // drives itself, and listens on no channel
    EXPECT_EQ(kNotAccessible, Query());
}

TEST(IpcQueryTest, InAnotherModeItTellsOfItself) {
    const Server server(Started());
    const RunResult own = RunConsole({"-query", "-md", "int"});
    EXPECT_EQ(ExitStatus::Code(0), own.status);
    EXPECT_EQ(kBanner + Status("Stopped"), own.output);
    const RunResult second = RunConsole({"-query", "-md", "svr"});
    EXPECT_EQ(ExitStatus::Code(1), second.status);
    EXPECT_EQ(kServerBanner + "Terminated. Reason=Ipc channel is already created by others.\n",
              second.output);
    EXPECT_EQ(kServerBanner + Status("Started"), Query()) << "the first one goes on";
}

// ================================================================================================
// -shutdown and modes
// ================================================================================================

TEST(IpcShutdownTest, EndsARunningServer) {
    Server server(Started());
    const RunResult result = RunConsole({"-shutdown"});
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(kServerBanner, result.output);
    EXPECT_EQ(ExitStatus::Code(0), server.WaitForDeath());
    EXPECT_TRUE(server.Output().ends_with("\nExit by request\n")) << server.Output();
    EXPECT_FALSE(FileExists(ipctest::kServerChannel));
    EXPECT_TRUE(TakenPorts(kDefaultPorts).empty());
}

TEST(IpcShutdownTest, WithoutAServerItFails) {
    const RunResult result = RunConsole({"-shutdown"});
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_EQ(Banner("Unknown", "Unknown") + "Terminated. Reason=Fail to get server version\n",
              result.output);
}

TEST(IpcShutdownTest, GivenToAServerItEndsThatOne) {
    const Server server(Started());
    const RunResult result = RunConsole({"-md", "svr", "-shutdown"});
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ("Auto shutdown is activated, terminate now\n", result.output);
    EXPECT_EQ(kServerBanner + Status("Started"), Query()) << "and no other";
}

TEST(IpcModeTest, TheServerModeIsTheDefault) {
    const RunResult result = RunConsole({}, "quit\n");
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_TRUE(result.output.starts_with(kServerBanner)) << result.output;
}

TEST(IpcModeTest, AClientNeedsAServer) {
    const RunResult result = RunConsole({"-md", "cli"});
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_EQ(Banner("Unknown", "Unknown") + "Terminated. Reason=Fail to get server version\n",
              result.output);
}

TEST(IpcModeTest, AnIdentityThatCannotNameAChannelIsRefused) {
    for (const auto& [id, reason] : std::vector<std::pair<std::string, std::string>>{
             {"server", "Cannot use \"server\" as ID"},
             {"a b", "Invalid char \" \" inside ID"},
             {"a/b", "Invalid char \"/\" inside ID"}}) {
        const RunResult result = RunConsole({"-id", id});
        EXPECT_EQ(ExitStatus::Code(1), result.status);
        EXPECT_EQ(kServerBanner + "Terminated. Reason=" + reason + "\n", result.output);
    }
}

TEST(IpcModeTest, AnIdentityTooLongForAChannelIsRefused) {
    const Server server(Stopped());
    const RunResult result = RunConsole({"-md", "cli", "-id", std::string(200, 'i')});
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_EQ(kServerBanner + "Terminated. Reason=Fail to bind ipc server socket. " +
                  ipctest::SystemText(ENAMETOOLONG) + "\n",
              result.output);
}

TEST(IpcModeTest, TheChannelOfAKilledServerIsTakenOver) {
    {
        Server server(Stopped());
        server.Program().Signal(SIGKILL);
        EXPECT_EQ(ExitStatus::Signal(SIGKILL), server.WaitForDeath());
    }
    EXPECT_TRUE(FileExists(ipctest::kServerChannel));
    const Server next(Stopped());
    EXPECT_EQ(kServerBanner + Status("Stopped"), Query());
}

// ================================================================================================
// A client's console
// ================================================================================================

TEST(IpcConsoleTest, DrivesTheServer) {
    const ScopedTempDir folder;
    WriteFile(folder / "file", "content");
    Server server(Stopped());
    Server client(Client());
    EXPECT_EQ("\n" + Status("Stopped"), client.Console("status"));
    client.Console("debug");
    EXPECT_EQ("Start NFS success\n", client.Console("start"));
    EXPECT_EQ("NFS already running\n", client.Console("start"));
    EXPECT_EQ("", client.Console("mount " + folder.Path() + "=vm01"));
    EXPECT_NE(std::string::npos,
              client.Console("mount " + folder.Path() + "=vm01").find("Fail to add mount point"));
    EXPECT_EQ("\n" + Status("Started", 1, " mount1 - " + folder.Path() + " : vm01 () [ctl]\n"),
              client.Console("status"));
    const MountResult mounted = MountClient().Mnt("vm01");
    ASSERT_EQ(support::MNT3_OK, mounted.status);
    Nfs3Client nfs;
    EXPECT_EQ("content", ToText(nfs.Read(nfs.Lookup(mounted.handle, "file").handle, 0, 99).data));
    EXPECT_EQ(
        "\n" + Status("Started", 1, " mount1 - " + folder.Path() + " : vm01 (127.0.0.1) [ctl]\n"),
        client.Console("status"));
    EXPECT_EQ("Current Server Status=7\n", client.Console("debugaction 1"));
    EXPECT_EQ("Current Server Status=3\n", client.Console("debugaction 0"));
    EXPECT_EQ("", client.Console("umount " + folder.Path()));
    EXPECT_EQ("\n" + Status("Started"), client.Console("status"));
    client.Stop();
    EXPECT_EQ(kServerBanner + Status("Started"), Query()) << "the service goes on without it";
}

TEST(IpcConsoleTest, APlatformTestIsReportedOnTheClientsConsole) {
    const ScopedTempDir folder;
    const Server server(Stopped());
    Server client(Client());
    client.Console("debug");
    const std::string report = client.Console("test " + folder.Path() + "=1048576");
    EXPECT_NE(std::string::npos, report.find("START TEST")) << report;
    EXPECT_NE(std::string::npos, report.find("[info] (cRun) ")) << "the server's identity";
    EXPECT_NE(std::string::npos, server.Output().find("START TEST")) << "and logged there as well";
}

TEST(IpcConsoleTest, LinesOfNfsWorkReachTheConsoleOfWhoAddedTheExport) {
    const ScopedTempDir folder;
    const Server server(Started());
    Server first(Client("one"));
    Server second(Client("two"));
    for (Server* client : {&first, &second}) {
        client->Console("debug");
    }
    first.Console("mount " + folder.Path() + "=vm01");
    const MountResult mounted = MountClient().Mnt("vm01");
    ASSERT_EQ(support::MNT3_OK, mounted.status);
    WriteFile(folder / "file", "content");
    first.Console("log 256");
    Nfs3Client nfs;
    ASSERT_EQ(support::MNT3_OK, nfs.Read(nfs.Lookup(mounted.handle, "file").handle, 0, 7).status);
    const std::string line =
        "[info] (vm01) [Nfs3Prog.ProcedureREAD] Read file, path=" + (folder / "file") +
        ", iSeek=0, iSeekType=0, length=7\n";
    EXPECT_TRUE(first.Program().WaitForOutput(line)) << first.Output();
    EXPECT_EQ(std::string::npos, second.Output().find("Read file"));
    EXPECT_NE(std::string::npos, server.Output().find(line))
        << "and stands in the server's own log";
}

TEST(IpcConsoleTest, NotificationsArriveAtTheControllerThatAddedTheExport) {
    const ScopedTempDir folder;
    WriteFile(folder / "disk", "");
    const Server server(Started());
    Server first(Client("one", LOG_CONTROL_IPC));
    Server second(Client("two", LOG_CONTROL_IPC));
    first.Console("debug");
    first.Console("mount " + folder.Path() + "=vm01");
    CNfsIpcClientMain opener("opener", 0);
    opener.OpenRedirectedFile((folder / "disk").c_str(), 1 << 20, false, 0, 0);
    const MountResult mounted = MountClient().Mnt("vm01");
    Nfs3Client nfs;
    const Handle disk = nfs.Lookup(mounted.handle, "disk").handle;
    // A console takes no notifications, so it answers -1 and the write fails.
    EXPECT_NE(NFS3_OK, nfs.Write(disk, 0, Bytes(5)).status);
    const std::string trace =
        "[info] (one) [IpcServer.ReadRequest] Callback action group (type = 5, ver = 1.2, dataLen "
        "= 1312)";
    EXPECT_TRUE(first.Program().WaitForOutput(trace)) << first.Output();
    EXPECT_EQ(std::string::npos, second.Output().find("Callback action group (type = 5"));
}

// ================================================================================================
// Every message between two processes
// ================================================================================================

namespace {

// This process is the controller "ctl" of a server process. Its operations are the product's; its
// callback channel is the test's own, so that it may answer as a host of the product would.
class IpcProcessesTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(controller.StartServer(0, 0, 0, 0, false, reason)) << reason;
        ASSERT_TRUE(controller.AddMountPoint(folder.Path().c_str(), "vm01", reason)) << reason;
        const MountResult mounted = MountClient().Mnt("vm01");
        ASSERT_EQ(support::MNT3_OK, mounted.status);
        root = mounted.handle;
        nfs.emplace();
    }
    std::string PathOf(const std::string& name) const { return folder / name; }
    // A redirected file of a megabyte.
    Handle Redirect(const std::string& name) {
        WriteFile(PathOf(name), "");
        controller.OpenRedirectedFile(PathOf(name).c_str(), 1 << 20, false, 0, 0);
        return nfs->Lookup(root, name).handle;
    }
    // The only callback since the last look.
    Bytes Callback(std::uint32_t type) {
        const Bytes message = host.TakeOne();
        if (message.size() < 1296) {
            ADD_FAILURE() << message.size();
            return Bytes(4096);
        }
        EXPECT_EQ(3u, U32At(message, 0));
        EXPECT_EQ(type, U32At(message, 4));
        EXPECT_EQ("vm01", TextAt(message, 16, 256)) << "the server's work bears the export's name";
        return message;
    }

    ScopedTempDir folder;
    Server server{Stopped()};
    FakePeer host{"/tmp/nfs-ctl", ipctest::ReplyInt(0)};
    CNfsIpcClientMain controller{"ctl", 0};
    char reason[STATUS_SIZE] = "";
    Handle root;
    std::optional<Nfs3Client> nfs;
};

}  // namespace

TEST_F(IpcProcessesTest, WritesAreNotified) {
    const Handle disk = Redirect("disk");
    host.SetAnswer([](const Bytes& message) {
        return ipctest::ReplyInt(static_cast<int>(U32At(message, 1308)));
    });
    const WriteResult written = nfs->Write(disk, 4096, Bytes(1000, 'w'));
    EXPECT_EQ(NFS3_OK, written.status);
    EXPECT_EQ(1000u, written.count) << "the controller's answer";
    const Bytes message = Callback(5);
    EXPECT_EQ(1312u, message.size());
    EXPECT_EQ(PathOf("disk"), TextAt(message, 272, 1024));
    EXPECT_EQ(4096u, U32At(message, 1296));
    EXPECT_EQ(0u, U32At(message, 1300));
    EXPECT_EQ(static_cast<std::uint32_t>(SEEK_SET), U32At(message, 1304));
    EXPECT_EQ(1000u, U32At(message, 1308));
}

TEST_F(IpcProcessesTest, WritesOfAClientLibraryThatOthersWroteAreNotified) {
    Redirect("disk");
    ASSERT_EQ(kSuccess, MountClient().Umnt("vm01").acceptStat) << "one client at a time";
    host.SetAnswer([](const Bytes& message) {
        return ipctest::ReplyInt(static_cast<int>(U32At(message, 1308)));
    });
    const std::unique_ptr<nfs_context, void (*)(nfs_context*)> client(nfs_init_context(),
                                                                      nfs_destroy_context);
    nfs_url* url = nfs_parse_url_incomplete(
        client.get(), "nfs://127.0.0.1/?nfsport=2049&mountport=1058&auto-traverse-mounts=0");
    ASSERT_NE(nullptr, url) << nfs_get_error(client.get());
    nfs_destroy_url(url);
    ASSERT_EQ(0, nfs_mount(client.get(), "127.0.0.1", "vm01")) << nfs_get_error(client.get());
    nfsfh* file = nullptr;
    ASSERT_EQ(0, nfs_open(client.get(), "/disk", O_WRONLY, &file)) << nfs_get_error(client.get());
    char data[] = "written";
    EXPECT_EQ(7, nfs_write(client.get(), file, 7, data)) << nfs_get_error(client.get());
    nfs_close(client.get(), file);  // fails: it commits, which this server does not serve
    EXPECT_EQ(7u, U32At(Callback(5), 1308));
    EXPECT_EQ(0, nfs_umount(client.get()));
}

TEST_F(IpcProcessesTest, AWriteThatTheControllerRefusesFails) {
    const Handle disk = Redirect("disk");
    host.SetAnswer([](const Bytes&) { return ipctest::ReplyInt(-1); });
    EXPECT_NE(NFS3_OK, nfs->Write(disk, 0, Bytes(10)).status);
    host.Stop();
    EXPECT_NE(NFS3_OK, nfs->Write(disk, 0, Bytes(10)).status) << "nobody answers";
}

TEST_F(IpcProcessesTest, AttributesRenamesAndRemovalsAreNotified) {
    const Handle disk = Redirect("disk");
    SetAttributes attributes;
    attributes.size = 777;
    attributes.mtime = NfsTime{1234, 0};
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(disk, attributes).status);
    Bytes message = Callback(2);
    EXPECT_EQ(PathOf("disk"), TextAt(message, 272, 1024));
    EXPECT_EQ(1u, U32At(message, 1296));
    EXPECT_EQ(777u, U32At(message, 1300));
    EXPECT_EQ(0u, U32At(message, 1308));
    EXPECT_EQ(1u, U32At(message, 1316));
    EXPECT_EQ(1234u, U32At(message, 1320));

    EXPECT_EQ(NFS3_OK, nfs->Rename(root, "disk", root, "disk2").status);
    message = Callback(4);
    EXPECT_EQ(PathOf("disk"), TextAt(message, 272, 1024));
    EXPECT_EQ(PathOf("disk2"), TextAt(message, 1296, 1024));

    EXPECT_EQ(NFS3_OK, nfs->Remove(root, "disk2").status);
    message = Callback(3);
    EXPECT_EQ(PathOf("disk2"), TextAt(message, 272, 1024));
}

TEST_F(IpcProcessesTest, ARedirectedFileIsMadeUpExportedAndClosed) {
    const Handle disk = Redirect("disk");
    WriteFile(PathOf("source"), "0123456789");
    EXPECT_TRUE(controller.AddRedirectedFileSegment(PathOf("disk").c_str(),
                                                    PathOf("source").c_str(), 2, 0, 5, reason));
    EXPECT_EQ("23456", ToText(nfs->Read(disk, 0, 5).data));
    EXPECT_FALSE(controller.AddRedirectedFileSegment(PathOf("none").c_str(),
                                                     PathOf("source").c_str(), 0, 0, 1, reason));
    EXPECT_STREQ("", reason) << "refused without a text";
    WriteFile(PathOf("copy"), "");
    controller.ExportRedirectedFile(PathOf("disk").c_str(), PathOf("copy").c_str());
    EXPECT_EQ(1u << 20, ReadFile(PathOf("copy")).size());
    EXPECT_TRUE(ReadFile(PathOf("copy")).starts_with("23456"));
    WriteFile(PathOf("info"), "");
    controller.ExportRedirectedFileInfo(PathOf("disk").c_str(), PathOf("info").c_str(), true);
    EXPECT_NE(std::string::npos, ReadFile(PathOf("info")).find(PathOf("source")));
    controller.CloseRedirectedFile(PathOf("disk").c_str());
    EXPECT_EQ(0u, nfs->Read(disk, 0, 5).data.size()) << "an empty ordinary file again";
    Redirect("disk");
    controller.CloseAllRedirectedFiles(folder.Path().c_str());
    EXPECT_EQ(0u, nfs->Read(disk, 0, 5).data.size());
    EXPECT_EQ(0u, host.Count()) << "a controller hears of clients' changes only";
}

TEST_F(IpcProcessesTest, CachedDescriptorsAreClosed) {
    for (const char* name : {"a", "b"}) {
        WriteFile(PathOf(name), "data");
        ASSERT_EQ(NFS3_OK, nfs->Read(nfs->Lookup(root, name).handle, 0, 4).status);
    }
    const auto open = [&](const char* name) { return OpenCount(PathOf(name), server.Pid()); };
    ASSERT_EQ(1, open("a"));
    ASSERT_EQ(1, open("b"));
    controller.CloseCachedFileHandle(PathOf("a").c_str());
    EXPECT_EQ(0, open("a"));
    EXPECT_EQ(1, open("b"));
    controller.CloseAllCachedFileHandles(folder.Path().c_str());
    EXPECT_EQ(0, open("b"));
}

TEST_F(IpcProcessesTest, SessionsStatusAndTexts) {
    controller.AddSessionInfo("s1", folder.Path().c_str());
    EXPECT_TRUE(controller.IsSessionExists("s1"));
    EXPECT_EQ(1, controller.GetSessionInfo(false));
    controller.RemoveSessionInfo("s1");
    EXPECT_FALSE(controller.IsSessionExists("s1"));
    EXPECT_TRUE(controller.IsServerRunning());
    EXPECT_EQ(3, controller.GetServerStatus());
    EXPECT_TRUE(controller.SetDebugActionEnabled(true));
    EXPECT_EQ(7, controller.GetServerStatus());
    char text[VERSION_SIZE] = "";
    controller.GetVersion(text);
    EXPECT_STREQ("1.2", text);
    controller.GetDescription(text);
    EXPECT_STREQ("External NFS Server", text);
    EXPECT_FALSE(controller.StartServer(0, 0, 0, 0, false, reason));
    EXPECT_STREQ("NFS already running", reason);
    controller.StopServer();
    EXPECT_TRUE(controller.IsServerRunning());
    controller.RemoveMountPoint(folder.Path().c_str());
    EXPECT_EQ(0, controller.GetMountInfo(false, false));
}

TEST_F(IpcProcessesTest, ListingsArriveAsRawLinesBeforeTheirCount) {
    controller.AddSessionInfo("s1", "/x");
    controller.AddVSphereInfo("ds1", "127.0.0.1", "443", "me", "pw");
    EXPECT_EQ(1, controller.GetMountInfo(true, true));
    EXPECT_EQ(1, controller.GetSessionInfo(true));
    EXPECT_EQ(1, controller.GetVSphereInfo(true));
    std::vector<std::string> lines;
    for (const Bytes& message : host.Take()) {
        EXPECT_EQ(2324u, message.size());
        EXPECT_EQ(1u, U32At(message, 4));
        EXPECT_EQ(3u, U32At(message, 2320)) << "a raw line";
        lines.push_back(TextAt(message, 272, 2048));
    }
    EXPECT_EQ(
        (std::vector<std::string>{" mount1 - " + folder.Path() + " : vm01 (127.0.0.1) [ctl]",
                                  " session1 - s1 : /x", " NFS datastore1 - ds1 (127.0.0.1:443)"}),
        lines);
    controller.RemoveVSphereInfo("ds1");
    EXPECT_EQ(0, controller.GetVSphereInfo(true));
}

TEST_F(IpcProcessesTest, InfoLinesArriveAsSuch) {
    WriteFile(PathOf("file"), "content");
    const Handle file = nfs->Lookup(root, "file").handle;
    controller.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    ASSERT_EQ(NFS3_OK, nfs->Read(file, 0, 7).status);
    controller.SetLogControl(0);
    const std::vector<Bytes> messages = host.Take();
    ASSERT_FALSE(messages.empty());
    for (const Bytes& message : messages) {
        EXPECT_EQ(1u, U32At(message, 4));
        EXPECT_EQ(1u, U32At(message, 2320)) << TextAt(message, 272, 2048);
        EXPECT_EQ("vm01", TextAt(message, 16, 256));
    }
    controller.RunTestMode("/nowhere", 1);
    const Bytes refusal = host.TakeOne();
    EXPECT_EQ("Cannot start platrorm test. Error=Target directory \"/nowhere\" not exist",
              TextAt(refusal, 272, 2048));
    EXPECT_EQ("cRun", TextAt(refusal, 16, 256));
}

TEST_F(IpcProcessesTest, ASilentControllerKeepsOtherControllersServed) {
    const Handle disk = Redirect("disk");
    WriteFile(PathOf("disk2"), "");
    std::latch asked(1);
    std::latch answered(1);
    host.SetAnswer([&](const Bytes&) {
        asked.count_down();
        answered.wait();
        return ipctest::ReplyInt(10);
    });
    std::uint32_t status = kNoStatus;
    std::thread writer([&] { status = nfs->Write(disk, 0, Bytes(10)).status; });
    asked.wait();
    CNfsIpcClientMain second("two", 0);
    EXPECT_EQ(3, second.GetServerStatus());
    EXPECT_EQ(1, second.GetMountInfo(false, false));
    second.OpenRedirectedFile(PathOf("disk2").c_str(), 1 << 20, false, 0, 0);
    second.CloseRedirectedFile(PathOf("disk").c_str());
    second.CloseAllCachedFileHandles(folder.Path().c_str());
    EXPECT_TRUE(second.IsServerRunning()) << "everything was answered meanwhile";
    answered.count_down();
    writer.join();
    EXPECT_EQ(0u, status);
}

TEST_F(IpcProcessesTest, AutoShutdownEndsTheServer) {
    EXPECT_TRUE(controller.RequestAutoShutdown());
    EXPECT_EQ(ExitStatus::Code(0), server.WaitForDeath());
    EXPECT_FALSE(controller.RequestAutoShutdown());
    EXPECT_EQ(0, controller.GetServerStatus());
}
