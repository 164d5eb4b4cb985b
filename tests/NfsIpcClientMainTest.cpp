// ctest-labels: threaded
// A controlling process against a server of the test's own, which keeps the requests.

#include "NfsIpcClientMain.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <latch>
#include <memory>

#include "IpcFixture.h"

using namespace ipctest;

namespace {

// The version texts of servers; what they answer otherwise is chosen apart.
class NfsIpcClientMainTest : public testing::Test {
protected:
    void SetUp() override {
        server = std::make_unique<FakePeer>(
            kServerChannel, [this](const Bytes& request) { return Answer(request); });
        main.SetFileLogger(log.Logger());
    }
    void TearDown() override {
        main.StopRemoteController();
        main.SetFileLogger(nullptr);
    }

    void SetVersion(const std::string& text) {
        const std::lock_guard<std::mutex> lock(mutex);
        version = text;
    }
    void SetReply(Bytes bytes) {
        const std::lock_guard<std::mutex> lock(mutex);
        reply = std::move(bytes);
    }
    // The one request that an operation sends, questions for the version left out.
    Bytes RequestOf(const std::function<void()>& operation) {
        server->Take();
        operation();
        const std::vector<Bytes> requests = Requests();
        EXPECT_EQ(1u, requests.size());
        return requests.empty() ? Bytes() : requests.front();
    }
    // All requests since the last look, without the questions for the version.
    std::vector<Bytes> Requests() {
        std::vector<Bytes> requests = server->Take();
        std::erase(requests, ipcvectors::kGetVersion);
        return requests;
    }

    support::ScopedTempDir dir;
    LogFile log{dir / "log"};
    std::unique_ptr<FakePeer> server;
    CNfsIpcClientMain main{"ctl", 0};
    CRuntimeParam param{"ctl", 0};
    char reason[STATUS_SIZE] = "";

private:
    Bytes Answer(const Bytes& request) {
        const std::lock_guard<std::mutex> lock(mutex);
        return request == ipcvectors::kGetVersion ? ReplyMsg(version) : reply;
    }

    std::mutex mutex;
    std::string version = "1.2";    // guarded by mutex
    Bytes reply = ReplyBool(true);  // guarded by mutex
};

#define EXPECT_REQUEST(vector, operation) EXPECT_EQ(Hex(vector), Hex(RequestOf([&] { operation; })))

}  // namespace

// ================================================================================================
// Every operation's request
// ================================================================================================

TEST_F(NfsIpcClientMainTest, StartServerSendsItsArguments) {
    EXPECT_REQUEST(ipcvectors::kStart,
                   main.StartServer(1111, 2222, 2147483649u, 5678, true, reason));
}
TEST_F(NfsIpcClientMainTest, QuestionsAreBareHeaders) {
    EXPECT_REQUEST(ipcvectors::kIsServerRunning, main.IsServerRunning());
    char text[VERSION_SIZE] = "";
    EXPECT_REQUEST(ipcvectors::kGetDescription, main.GetDescription(text));
    EXPECT_REQUEST(ipcvectors::kAutoShutdown, main.RequestAutoShutdown());
    EXPECT_REQUEST(ipcvectors::kGetServerStatus, main.GetServerStatus());
    server->Take();
    main.GetVersion(text);
    EXPECT_EQ(Hex(ipcvectors::kGetVersion), Hex(server->TakeOne()));
}
TEST_F(NfsIpcClientMainTest, AddMountPointTellsTheOwnIdentity) {
    EXPECT_REQUEST(ipcvectors::kAddMountPoint, main.AddMountPoint("/tmp/e", "vm1", reason));
}
TEST_F(NfsIpcClientMainTest, MountPointsAndSessions) {
    EXPECT_REQUEST(ipcvectors::kRemoveMountPoint, main.RemoveMountPoint("/tmp/e"));
    EXPECT_REQUEST(ipcvectors::kAddSession, main.AddSessionInfo("s1", "/tmp/e"));
    EXPECT_REQUEST(ipcvectors::kRemoveSession, main.RemoveSessionInfo("s1"));
    EXPECT_REQUEST(ipcvectors::kIsSessionExists, main.IsSessionExists("s1"));
}
TEST_F(NfsIpcClientMainTest, RedirectedFiles) {
    EXPECT_REQUEST(ipcvectors::kOpenRedirectedFile,
                   main.OpenRedirectedFile("/tmp/e/f", 4886718345, true, 7, 9));
    EXPECT_REQUEST(ipcvectors::kCloseRedirectedFile, main.CloseRedirectedFile("/tmp/e/f"));
    EXPECT_REQUEST(ipcvectors::kCloseAllRedirectedFiles, main.CloseAllRedirectedFiles("/tmp/e"));
    EXPECT_REQUEST(
        ipcvectors::kAddRedirectedFileSegment,
        main.AddRedirectedFileSegment("/tmp/e/f", "/tmp/s", 4294967298, 8589934595, -4, reason));
    EXPECT_REQUEST(ipcvectors::kExportRedirectedFile,
                   main.ExportRedirectedFile("/tmp/e/f", "/tmp/x"));
    EXPECT_REQUEST(ipcvectors::kExportRedirectedFileInfo,
                   main.ExportRedirectedFileInfo("/tmp/e/f", "/tmp/x", true));
}
TEST_F(NfsIpcClientMainTest, CachedFiles) {
    EXPECT_REQUEST(ipcvectors::kCloseFile, main.CloseCachedFileHandle("/tmp/e/f"));
    EXPECT_REQUEST(ipcvectors::kCloseAllFiles, main.CloseAllCachedFileHandles("/tmp/e"));
}
TEST_F(NfsIpcClientMainTest, LogControlIsAppliedHereAndForwarded) {
    EXPECT_REQUEST(ipcvectors::kSetLogControl, main.SetLogControl(258));
    EXPECT_EQ(258, main.GetRuntimeParam()->GetLogControl());
    server->Stop();
    main.SetLogControl(4);
    EXPECT_EQ(4, main.GetRuntimeParam()->GetLogControl()) << "applied here whoever answers";
}
TEST_F(NfsIpcClientMainTest, ListingsAreForTheGivenParametersIdentity) {
    EXPECT_REQUEST(ipcvectors::kGetMountInfo, main.GetMountInfo(&param, false, true));
    EXPECT_REQUEST(ipcvectors::kGetSessionInfo, main.GetSessionInfo(&param, true));
    EXPECT_REQUEST(ipcvectors::kGetVSphereInfo, main.GetVSphereInfo(&param, true));
    EXPECT_REQUEST(ipcvectors::kRunTestMode, main.RunTestMode(&param, "/tmp/d", 4294967301));
    CRuntimeParam other("other", 0);
    EXPECT_REQUEST(WithText(ipcvectors::kGetSessionInfo, 16, 256, "other"),
                   main.GetSessionInfo(&other, true));
    EXPECT_REQUEST(ipcvectors::kGetSessionInfo, main.GetSessionInfo(true)) << "the own parameters";
    Bytes flags = ipcvectors::kGetMountInfo;
    flags[272] = 1;
    flags[273] = 0;
    EXPECT_REQUEST(flags, main.GetMountInfo(&param, true, false));
}
TEST_F(NfsIpcClientMainTest, DebugActionAndDatastores) {
    EXPECT_REQUEST(ipcvectors::kSetDebugAction, main.SetDebugActionEnabled(true));
    EXPECT_REQUEST(WithU32(ipcvectors::kSetDebugAction, 16, 0), main.SetDebugActionEnabled(false));
    EXPECT_REQUEST(ipcvectors::kAddVSphereInfo,
                   main.AddVSphereInfo("ds1", "h1", "443", "u1", "p1"));
    EXPECT_REQUEST(ipcvectors::kRemoveVSphereInfo, main.RemoveVSphereInfo("ds1"));
}
TEST_F(NfsIpcClientMainTest, NullTextsAreEmpty) {
    EXPECT_REQUEST(WithText(ipcvectors::kRemoveSession, 16, 256, ""),
                   main.RemoveSessionInfo(nullptr));
}

// ================================================================================================
// Results
// ================================================================================================

TEST_F(NfsIpcClientMainTest, OperationsWithATextReportTheServersReason) {
    const std::function<bool()> operations[] = {
        [&] { return main.StartServer(0, 0, 0, 0, false, reason); },
        [&] { return main.AddMountPoint("/a", "b", reason); },
        [&] { return main.AddRedirectedFileSegment("/a", "/b", 0, 0, 1, reason); },
    };
    for (const auto& operation : operations) {
        SetReply(ReplyBool(true));
        EXPECT_TRUE(operation());
        SetReply(ReplyBool(false));
        EXPECT_FALSE(operation());
        SetReply(ReplyInt(1));
        EXPECT_FALSE(operation()) << "a reply of another kind";
        EXPECT_STREQ("", reason);
        SetReply(ReplyExpt("no room"));
        EXPECT_FALSE(operation());
        EXPECT_STREQ("no room", reason);
        SetReply(ReplyExpt(std::string(2048, 'x')));
        EXPECT_FALSE(operation());
        EXPECT_EQ(std::string(2047, 'x'), reason);
        SetReply(Bytes{});
        EXPECT_FALSE(operation());
        EXPECT_EQ("Fail to read ipc server reply. " + SystemText(ECONNRESET), reason);
        reason[0] = '\0';
    }
}

TEST_F(NfsIpcClientMainTest, BooleanResultsAreFalseForAnythingElse) {
    const std::function<bool()> operations[] = {
        [&] { return main.IsServerRunning(); },
        [&] { return main.IsSessionExists("s"); },
        [&] { return main.RequestAutoShutdown(); },
        [&] { return main.SetDebugActionEnabled(true); },
    };
    for (const auto& operation : operations) {
        SetReply(ReplyBool(true));
        EXPECT_TRUE(operation());
        for (const Bytes& other : {ReplyBool(false), ReplyInt(1), ReplyExpt("no"), Bytes{}}) {
            SetReply(other);
            EXPECT_FALSE(operation()) << Hex(other);
        }
    }
    EXPECT_FALSE(main.IsAutoShutdownRequested()) << "it is the server that shuts down";
}

TEST_F(NfsIpcClientMainTest, CountsAreMinusOneForAnotherReplyAndZeroWithoutOne) {
    const std::function<int()> operations[] = {
        [&] { return main.GetMountInfo(&param, false, false); },
        [&] { return main.GetSessionInfo(&param, false); },
        [&] { return main.GetVSphereInfo(&param, false); },
    };
    for (const auto& operation : operations) {
        SetReply(ReplyInt(12));
        EXPECT_EQ(12, operation());
        SetReply(ReplyExpt("Unknown request type (25)"));
        EXPECT_EQ(-1, operation());
        SetReply(Bytes{});
        EXPECT_EQ(0, operation());
    }
}

TEST_F(NfsIpcClientMainTest, TextResultsAreUnknownForAnythingElse) {
    char text[VERSION_SIZE] = "";
    SetReply(ReplyMsg("words"));
    main.GetDescription(text);
    EXPECT_STREQ("words", text);
    for (const Bytes& other : {ReplyExpt("no"), ReplyBool(true), Bytes{}}) {
        SetReply(other);
        main.GetDescription(text);
        EXPECT_STREQ("Unknown", text) << Hex(other);
    }
    SetReply(ReplyMsg(std::string(2000, 'd')));
    main.GetDescription(text);
    EXPECT_EQ(std::string(VERSION_SIZE - 1, 'd'), text) << "cut to the caller's buffer";
    SetVersion("3.4");
    main.GetVersion(text);
    EXPECT_STREQ("3.4", text);
}

TEST_F(NfsIpcClientMainTest, WithoutAServerEveryOperationGivesItsDefault) {
    server->Stop();
    char text[VERSION_SIZE] = "";
    main.GetVersion(text);
    EXPECT_STREQ("Unknown", text);
    main.GetDescription(text);
    EXPECT_STREQ("Unknown", text);
    EXPECT_EQ(0, main.GetServerStatus());
    EXPECT_FALSE(main.IsServerRunning());
    EXPECT_FALSE(main.IsSessionExists("s"));
    EXPECT_FALSE(main.RequestAutoShutdown());
    EXPECT_FALSE(main.SetDebugActionEnabled(true));
    EXPECT_EQ(0, main.GetMountInfo(&param, false, true));
    EXPECT_EQ(0, main.GetSessionInfo(&param, true));
    EXPECT_EQ(0, main.GetVSphereInfo(&param, true));
    const std::string expected = "Fail to connect ipc client socket. " + SystemText(ENOENT);
    EXPECT_FALSE(main.StartServer(0, 0, 0, 0, false, reason));
    EXPECT_EQ(expected, reason);
    reason[0] = '\0';
    EXPECT_FALSE(main.AddMountPoint("/a", "b", reason));
    EXPECT_EQ(expected, reason);
    reason[0] = '\0';
    EXPECT_FALSE(main.AddRedirectedFileSegment("/a", "/b", 0, 0, 0, reason));
    EXPECT_EQ(expected, reason);
    EXPECT_EQ(Texts{}, log.Lines()) << "without its bit no error is logged";
}

TEST_F(NfsIpcClientMainTest, OperationsWithoutATextLogTheFailureOfTheExchange) {
    server->Stop();
    main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_ERROR);
    const std::string line =
        "[error] [IpcClient.SendRequest] Fail to connect ipc client socket. " + SystemText(ENOENT);
    main.CloseRedirectedFile("/a");
    EXPECT_EQ(Texts{line}, log.Lines());
    log.Clear();
    EXPECT_FALSE(main.StartServer(0, 0, 0, 0, false, reason));
    EXPECT_EQ(Texts{}, log.Lines()) << "told in the buffer instead";
    main.GetSessionInfo(&param, false);
    EXPECT_EQ(Texts{}, log.Lines()) << "the given parameters decide";
    param.SetLogControl(LOG_CONTROL_ERROR);
    main.GetSessionInfo(&param, false);
    EXPECT_EQ(Texts{line}, log.Lines());
}

// ================================================================================================
// Texts too long for their field
// ================================================================================================

TEST_F(NfsIpcClientMainTest, TextsThatFillTheirFieldAreSent) {
    const std::string id(255, 'i');
    const std::string path(1023, 'p');
    EXPECT_REQUEST(WithText(WithText(ipcvectors::kAddSession, 16, 256, id), 272, 1024, path),
                   main.AddSessionInfo(id.c_str(), path.c_str()));
    const std::string dirPath(3071, 'd');
    EXPECT_REQUEST(WithText(ipcvectors::kRunTestMode, 272, 3072, dirPath),
                   main.RunTestMode(&param, dirPath.c_str(), 4294967301));
}

TEST_F(NfsIpcClientMainTest, LongerTextsAreRefusedWithAReasonAndNotSent) {
    const std::string id(256, 'i');
    const std::string path(1024, 'p');
    EXPECT_FALSE(main.AddMountPoint(path.c_str(), "b", reason));
    EXPECT_STREQ("Text is too long for ipc request. (Max = 1023)", reason);
    EXPECT_FALSE(main.AddMountPoint("/a", id.c_str(), reason));
    EXPECT_STREQ("Text is too long for ipc request. (Max = 255)", reason);
    EXPECT_FALSE(main.AddRedirectedFileSegment(path.c_str(), "/b", 0, 0, 1, reason));
    EXPECT_STREQ("Text is too long for ipc request. (Max = 1023)", reason);
    EXPECT_FALSE(main.AddRedirectedFileSegment("/a", (path + path).c_str(), 0, 0, 1, reason));
    EXPECT_STREQ("Text is too long for ipc request. (Max = 1023)", reason);
    CNfsIpcClientMain longNamed(id.c_str(), 0);
    EXPECT_FALSE(longNamed.AddMountPoint("/a", "b", reason)) << "an own identity that does not fit";
    EXPECT_STREQ("Text is too long for ipc request. (Max = 255)", reason);
    EXPECT_TRUE(Requests().empty());
}

TEST_F(NfsIpcClientMainTest, OperationsWithoutATextLogThatTheirsIsTooLong) {
    main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_ERROR);
    param.SetLogControl(LOG_CONTROL_ERROR);
    const std::string longId(256, 'i');
    const std::string longPath(1024, 'p');
    const std::string longDir(3072, 'd');
    const char* id = longId.c_str();
    const char* path = longPath.c_str();
    const struct {
        std::function<void()> operation;
        int max;
    } cases[] = {
        {[&] { main.RemoveMountPoint(path); }, 1023},
        {[&] { main.AddSessionInfo(id, "/a"); }, 255},
        {[&] { main.AddSessionInfo("s", path); }, 1023},
        {[&] { main.RemoveSessionInfo(id); }, 255},
        {[&] { EXPECT_FALSE(main.IsSessionExists(id)); }, 255},
        {[&] { main.OpenRedirectedFile(path, 0, false, 0, 0); }, 1023},
        {[&] { main.CloseRedirectedFile(path); }, 1023},
        {[&] { main.CloseAllRedirectedFiles(path); }, 1023},
        {[&] { main.ExportRedirectedFile(path, "/x"); }, 1023},
        {[&] { main.ExportRedirectedFile("/a", path); }, 1023},
        {[&] { main.ExportRedirectedFileInfo("/a", path, true); }, 1023},
        {[&] { main.CloseCachedFileHandle(path); }, 1023},
        {[&] { main.CloseAllCachedFileHandles(path); }, 1023},
        {[&] { main.RunTestMode(&param, longDir.c_str(), 1); }, 3071},
        {[&] { main.AddVSphereInfo(id, "h", "p", "u", "w"); }, 255},
        {[&] { main.AddVSphereInfo("d", id, "p", "u", "w"); }, 255},
        {[&] { main.AddVSphereInfo("d", "h", id, "u", "w"); }, 255},
        {[&] { main.AddVSphereInfo("d", "h", "p", id, "w"); }, 255},
        {[&] { main.AddVSphereInfo("d", "h", "p", "u", id); }, 255},
        {[&] { main.RemoveVSphereInfo(id); }, 255},
    };
    for (const auto& [operation, max] : cases) {
        log.Clear();
        operation();
        EXPECT_EQ(
            Texts{"[error] [IpcClient.SendRequest] Text is too long for ipc request. (Max = " +
                  std::to_string(max) + ")"},
            log.Lines());
    }
    EXPECT_TRUE(Requests().empty());
}

// ================================================================================================
// Version gating
// ================================================================================================

TEST_F(NfsIpcClientMainTest, TheStatusOfAServerThatLacksTheRequestIsComposed) {
    SetVersion("1.0");
    SetReply(ReplyBool(true));
    EXPECT_EQ(3, main.GetServerStatus());
    EXPECT_EQ(std::vector<Bytes>{ipcvectors::kIsServerRunning}, Requests());
    SetReply(ReplyBool(false));
    EXPECT_EQ(1, main.GetServerStatus());
}

TEST_F(NfsIpcClientMainTest, TheStatusOfANewerServerIsItsOwn) {
    for (const char* version : {"1.1", "1.2", "9.9", ""}) {
        SetVersion(version);
        SetReply(ReplyInt(6));
        EXPECT_EQ(6, main.GetServerStatus()) << version;
        EXPECT_EQ(std::vector<Bytes>{ipcvectors::kGetServerStatus}, Requests()) << version;
        SetReply(ReplyBool(true));
        EXPECT_EQ(-1, main.GetServerStatus()) << "a reply of another kind";
        SetReply(Bytes{});
        EXPECT_EQ(1, main.GetServerStatus()) << "accessible, and no answer to the question";
        Requests();
    }
}

TEST_F(NfsIpcClientMainTest, AnUnknownVersionHasNoStatus) {
    SetVersion("Unknown");
    SetReply(ReplyInt(6));
    EXPECT_EQ(0, main.GetServerStatus());
    EXPECT_TRUE(Requests().empty());
}

TEST_F(NfsIpcClientMainTest, DebugActionIsNotSentToTheOldestServers) {
    SetVersion("1.0");
    EXPECT_FALSE(main.SetDebugActionEnabled(true));
    EXPECT_TRUE(Requests().empty());
    for (const char* version : {"1.1", "1.2", "Unknown"}) {
        SetVersion(version);
        EXPECT_TRUE(main.SetDebugActionEnabled(true)) << version;
        EXPECT_EQ(std::vector<Bytes>{ipcvectors::kSetDebugAction}, Requests()) << version;
    }
}

TEST_F(NfsIpcClientMainTest, DatastoresAreNotSentToOlderServers) {
    SetReply(ReplyInt(3));
    for (const char* version : {"1.0", "1.1"}) {
        SetVersion(version);
        EXPECT_EQ(0, main.GetVSphereInfo(&param, true)) << version;
        main.AddVSphereInfo("ds1", "h1", "443", "u1", "p1");
        main.RemoveVSphereInfo("ds1");
        EXPECT_TRUE(Requests().empty()) << version;
    }
    for (const char* version : {"1.2", "Unknown", "2.0"}) {
        SetVersion(version);
        EXPECT_EQ(3, main.GetVSphereInfo(&param, true)) << version;
        main.AddVSphereInfo("ds1", "h1", "443", "u1", "p1");
        main.RemoveVSphereInfo("ds1");
        EXPECT_EQ((std::vector<Bytes>{ipcvectors::kGetVSphereInfo, ipcvectors::kAddVSphereInfo,
                                      ipcvectors::kRemoveVSphereInfo}),
                  Requests())
            << version;
    }
}

// ================================================================================================
// What is not forwarded
// ================================================================================================

TEST_F(NfsIpcClientMainTest, StopServerSendsNothing) {
    main.StopServer();
    EXPECT_EQ(Texts{}, log.Lines());
    main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_GENERAL_INFO);
    main.StopServer();
    EXPECT_EQ(Texts{"[info] [NfsIpcClientMain.StopServer] Cannot stop NFS service in client mode."},
              log.Lines());
    EXPECT_EQ(0u, server->Count());
}

TEST_F(NfsIpcClientMainTest, AutoShutdownStaysOffWhateverIsAsked) {
    main.EnableAutoShutdown(true);
    EXPECT_FALSE(main.IsAutoShutdownEnabled());
    EXPECT_EQ(Texts{}, log.Lines());
    main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_GENERAL_INFO);
    main.EnableAutoShutdown(false);
    main.EnableAutoShutdown(true);
    EXPECT_EQ(Texts(2,
                    "[info] [NfsIpcClientMain.EnableAutoShutdown] Auto shutdown is supported in "
                    "client mode."),
              log.Lines());
    EXPECT_FALSE(main.IsAutoShutdownEnabled());
    EXPECT_EQ(0u, server->Count());
}

TEST_F(NfsIpcClientMainTest, ServesNoNfsItself) {
    EXPECT_EQ(2, main.GetAccessMode());
    ASSERT_TRUE(main.Initial(reason)) << reason;
    EXPECT_TRUE(main.InitialNetwork(reason));
    main.Terminate();
    EXPECT_EQ(0u, server->Count());
}

// ================================================================================================
// The callback channel
// ================================================================================================

TEST_F(NfsIpcClientMainTest, ListensUnderItsOwnIdentity) {
    char channel[IPC_CHANNEL_SIZE] = "";
    main.GetIpcServerThreadChannel(channel);
    EXPECT_STREQ("/tmp/nfs-ctl", channel);
    StartController(main);
    EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(ipcvectors::kLogMessage, "/tmp/nfs-ctl")));
    EXPECT_EQ(" hey", log.Lines().back());
    main.StopRemoteController();
    EXPECT_FALSE(support::FileExists("/tmp/nfs-ctl"));
}

TEST_F(NfsIpcClientMainTest, RequestsOnTheCallbackChannelAreForwarded) {
    StartController(main);
    SetVersion("7.7");
    EXPECT_EQ(Hex(ReplyMsg("7.7")), Hex(Exchange(ipcvectors::kGetVersion, "/tmp/nfs-ctl")));
    EXPECT_EQ(Hex(ReplyBool(false)), Hex(Exchange(ipcvectors::kAutoShutdown, "/tmp/nfs-ctl")))
        << "nobody shuts a controller down";
}

TEST_F(NfsIpcClientMainTest, AListingAskedOfTheCallbackChannelIsForwardedWithTheOwnIdentity) {
    StartController(main);
    SetReply(ReplyInt(4));
    EXPECT_REQUEST(
        WithText(ipcvectors::kGetSessionInfo, 16, 256, "ctl"),
        EXPECT_EQ(Hex(ReplyInt(4)), Hex(Exchange(ipcvectors::kGetSessionInfo, "/tmp/nfs-ctl"))));
}

TEST_F(NfsIpcClientMainTest, ACallbackIsTakenWhileAForwardedRequestWaits) {
    StartController(main);
    log.Clear();
    std::atomic<int> asked{0};
    server->SetAnswer([&](const Bytes&) {
        ++asked;
        for (const std::uint32_t kind : {1u, 3u}) {
            EXPECT_EQ(Hex(ReplyBool(true)),
                      Hex(Exchange(WithU32(ipcvectors::kLogMessage, 2320, kind), "/tmp/nfs-ctl")))
                << "a line of the server, which answers only then";
        }
        return ReplyBool(true);
    });
    EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(ipcvectors::kIsServerRunning, "/tmp/nfs-ctl")));
    EXPECT_EQ(1, asked);
    EXPECT_EQ((Texts{"[info] hey", " hey"}), log.Lines());
}

TEST_F(NfsIpcClientMainTest, RequestsAreForwardedOneAfterAnotherInTheirOrder) {
    StartController(main);
    std::latch entered(1);
    std::latch released(1);
    std::atomic<bool> first{true};
    server->SetAnswer([&](const Bytes&) {
        if (first.exchange(false)) {
            entered.count_down();
            released.wait();
        }
        return ReplyBool(true);
    });
    std::vector<std::unique_ptr<RawClient>> clients;
    std::vector<Bytes> expected;
    for (int i = 0; i < 5; ++i) {
        expected.push_back(WithText(ipcvectors::kRemoveSession, 16, 256, "o" + std::to_string(i)));
        clients.push_back(std::make_unique<RawClient>("/tmp/nfs-ctl"));
        ASSERT_TRUE(clients.back()->Send(expected.back()));
        if (i == 0) {
            entered.wait();
        }
    }
    EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(ipcvectors::kLogMessage, "/tmp/nfs-ctl")));
    released.count_down();
    for (const auto& client : clients) {
        EXPECT_EQ(Hex(ReplyBool(true)), Hex(client->Receive()));
    }
    EXPECT_EQ(expected, server->Take());
}

TEST_F(NfsIpcClientMainTest, AShortMessageToForwardIsCompletedByAnEarlierOneButForThePassword) {
    StartController(main);
    for (const Bytes& request : {ipcvectors::kAddSession, ipcvectors::kAddVSphereInfo}) {
        EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(request, "/tmp/nfs-ctl")));
    }
    Requests();
    EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(Header(2, 26), "/tmp/nfs-ctl")));
    EXPECT_EQ(std::vector<Bytes>{WithText(ipcvectors::kAddVSphereInfo, 1040, 256, "")}, Requests());
}

// ================================================================================================
// Processes that do not answer
// ================================================================================================

namespace {

// Takes the place of a process that has stopped: connections to its channel wait.
class MuteOwner {
public:
    explicit MuteOwner(const std::string& channel) : m_fd(socket(AF_UNIX, SOCK_STREAM, 0)) {
        const sockaddr_un address = ChannelAddress(channel);
        unlink(channel.c_str());
        if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(m_fd, 16) != 0) {
            throw std::runtime_error("listen " + channel);
        }
    }
    ~MuteOwner() { close(m_fd); }
    MuteOwner(const MuteOwner&) = delete;
    MuteOwner& operator=(const MuteOwner&) = delete;

    [[nodiscard]] bool WaitForCaller() const {
        pollfd connection{m_fd, POLLIN, 0};
        return poll(&connection, 1, static_cast<int>(support::kPatience.count())) == 1;
    }

private:
    int m_fd;
};

}  // namespace

TEST_F(NfsIpcClientMainTest, StoppingDoesNotWaitForWhatIsForwarded) {
    StartController(main);
    server->Stop();
    const MuteOwner mute(kServerChannel);
    const RawClient asking("/tmp/nfs-ctl");
    ASSERT_TRUE(asking.Send(ipcvectors::kIsServerRunning));
    ASSERT_TRUE(mute.WaitForCaller());
    const RawClient queued("/tmp/nfs-ctl");
    ASSERT_TRUE(queued.Send(ipcvectors::kGetVersion));
    const auto begin = std::chrono::steady_clock::now();
    main.StopRemoteController();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(Bytes{}, asking.Receive());
    EXPECT_EQ(Bytes{}, queued.Receive()) << "no made-up version: the channel is free";
}

TEST_F(NfsIpcClientMainTest, WhoeverAsksAnEndingControllerFindsItsChannelGone) {
    server->Stop();
    const MuteOwner mute(kServerChannel);
    for (int i = 0; i < 20; ++i) {
        StartController(main);
        const RawClient asking("/tmp/nfs-ctl");
        ASSERT_TRUE(asking.Send(ipcvectors::kGetVersion));
        auto gone = std::async(std::launch::async, [&] {
            asking.Receive();
            return !support::FileExists("/tmp/nfs-ctl");
        });
        main.StopRemoteController();
        EXPECT_TRUE(gone.get()) << "its file was still there when the connection ended";
    }
}

TEST_F(NfsIpcClientMainTest, ASecondControllerOfTheSameIdentityIsRefused) {
    StartController(main);
    CNfsIpcClientMain second("ctl", 0);
    EXPECT_FALSE(second.StartRemoteController(reason));
    EXPECT_STREQ("Ipc channel is already created by others.", reason);
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion, "/tmp/nfs-ctl")));
}

TEST_F(NfsIpcClientMainTest, TheIdentityMustBeAbleToNameAChannel) {
    for (const auto& [id, text] :
         std::vector<std::pair<std::string, std::string>>{{"server", "Cannot use \"server\" as ID"},
                                                          {"a/b", "Invalid char \"/\" inside ID"},
                                                          {"a b", "Invalid char \" \" inside ID"},
                                                          {"", "ID is not defined"}}) {
        CNfsIpcClientMain other(id.c_str(), 0);
        EXPECT_FALSE(other.Initial(reason));
        EXPECT_EQ(text, reason);
    }
}

TEST_F(NfsIpcClientMainTest, AnIdentityThatDoesNotFitTheAddressIsRefused) {
    const std::size_t most = sizeof(sockaddr_un::sun_path) - 1 - std::string("/tmp/nfs-").size();
    CNfsIpcClientMain fitting(std::string(most, 'i').c_str(), 0);
    StartController(fitting);
    for (const std::size_t size : {most + 1, std::size_t{246}, std::size_t{5000}}) {
        CNfsIpcClientMain other(std::string(size, 'i').c_str(), 0);
        EXPECT_FALSE(other.StartRemoteController(reason));
        EXPECT_EQ("Fail to bind ipc server socket. " + SystemText(ENAMETOOLONG), reason);
    }
    EXPECT_TRUE(CanConnect("/tmp/nfs-" + std::string(most, 'i')))
        << "that of the cut name lives on";
}

TEST_F(NfsIpcClientMainTest, CallsFromSeveralThreadsShareNothing) {
    server->SetAnswer([](const Bytes& request) {
        return ReplyInt(static_cast<int>(U32At(request, 272)) +
                        std::stoi(TextAt(request, 16, 256)));
    });
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            CRuntimeParam own(std::to_string(100 * t).c_str(), 0);
            for (int i = 0; i < 100; ++i) {
                wrong += main.GetSessionInfo(&own, i % 2 == 1) == 100 * t + i % 2 ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong);
}
