// ctest-labels: threaded
// The receiving end of the local channel, driven over its socket, and the main object that owns it.

#include "IpcServer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <future>
#include <latch>

#include "ConsoleFixture.h"
#include "IpcFixture.h"
#include "IpcServerThread.h"
#include "support/Faults.h"

namespace faults = support::faults;

using namespace ipctest;

namespace {

// A channel of a main object that only tells what it was asked.
class IpcServerTest : public testing::Test {
protected:
    void SetUp() override {
        main.SetFileLogger(log.Logger());
        StartController(main);
    }
    void TearDown() override {
        main.StopRemoteController();
        main.SetFileLogger(nullptr);
    }

    // Answers a message; the one operation that it caused.
    std::string CallFor(const Bytes& message, const Bytes& expectedReply) {
        EXPECT_EQ(Hex(expectedReply), Hex(Exchange(message)));
        const Texts calls = main.TakeCalls();
        EXPECT_EQ(1u, calls.size());
        return calls.empty() ? "" : calls.front();
    }
    void LogBits(int bits) {
        main.GetRuntimeParam()->SetLogControl(bits);
        log.Clear();
    }

    faults::Guard guard;
    support::ScopedTempDir dir;
    LogFile log{dir / "log"};
    RecordingMain main;
};

const Bytes kTrue = ipcvectors::kReplyTrue;

}  // namespace

// ================================================================================================
// Every request: bytes in, operation, bytes out
// ================================================================================================

TEST_F(IpcServerTest, GetVersionIsAnsweredWithText) {
    EXPECT_EQ("GetVersion", CallFor(ipcvectors::kGetVersion, ReplyMsg("1.2")));
}
TEST_F(IpcServerTest, GetDescriptionIsAnsweredWithText) {
    EXPECT_EQ("GetDescription", CallFor(ipcvectors::kGetDescription, ReplyMsg("words")));
}
TEST_F(IpcServerTest, IsServerRunningReportsTheResult) {
    EXPECT_EQ("IsServerRunning", CallFor(ipcvectors::kIsServerRunning, kTrue));
    main.boolResult = false;
    EXPECT_EQ("IsServerRunning", CallFor(ipcvectors::kIsServerRunning, ReplyBool(false)));
}
TEST_F(IpcServerTest, StartIsAnsweredTrueOrWithTheReason) {
    const std::string call = "StartServer|1111|2222|2147483649|5678|true";
    EXPECT_EQ(call, CallFor(ipcvectors::kStart, kTrue));
    main.boolResult = false;
    main.SetStatus("no port");
    EXPECT_EQ(call, CallFor(ipcvectors::kStart, ReplyExpt("no port")));
}
TEST_F(IpcServerTest, AddMountPointKeepsTheRequestersIdentity) {
    ASSERT_EQ(0, mkdir("/tmp/e", 0755));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kAddMountPoint)));
    LogArgu argu{"Test"};
    MountInfo info;
    ASSERT_TRUE(
        main.GetUtils()->GetMountInfoByPath(main.GetRuntimeParam(), &argu, "/tmp/e", &info));
    EXPECT_EQ("vm1", info.sExportName);
    EXPECT_EQ("/tmp/e", info.sLocalMountPath);
    EXPECT_EQ("ctl", info.sIcpID);
}
TEST_F(IpcServerTest, ARefusedMountPointIsAnsweredWithTheReason) {
    ASSERT_EQ(0, mkdir("/tmp/e", 0755));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kAddMountPoint)));
    char reason[STATUS_SIZE] = "";
    ASSERT_FALSE(main.AddMountPoint("/tmp/e", "vm1", "ctl", reason));
    ASSERT_STRNE("", reason);
    EXPECT_EQ(Hex(ReplyExpt(reason)), Hex(Exchange(ipcvectors::kAddMountPoint)));
}
TEST_F(IpcServerTest, RemoveMountPointIsAnsweredTrue) {
    EXPECT_EQ("RemoveMountPoint|/tmp/e", CallFor(ipcvectors::kRemoveMountPoint, kTrue));
}
TEST_F(IpcServerTest, SessionsAreAddedAndRemoved) {
    EXPECT_EQ("AddSessionInfo|s1|/tmp/e", CallFor(ipcvectors::kAddSession, kTrue));
    EXPECT_EQ("RemoveSessionInfo|s1", CallFor(ipcvectors::kRemoveSession, kTrue));
}
TEST_F(IpcServerTest, IsSessionExistsReportsTheResult) {
    EXPECT_EQ("IsSessionExists|s1", CallFor(ipcvectors::kIsSessionExists, kTrue));
    main.boolResult = false;
    EXPECT_EQ("IsSessionExists|s1", CallFor(ipcvectors::kIsSessionExists, ReplyBool(false)));
}
TEST_F(IpcServerTest, RedirectedFilesAreOpenedAndClosed) {
    EXPECT_EQ("OpenRedirectedFile|/tmp/e/f|4886718345|true|7|9",
              CallFor(ipcvectors::kOpenRedirectedFile, kTrue));
    EXPECT_EQ("CloseRedirectedFile|/tmp/e/f", CallFor(ipcvectors::kCloseRedirectedFile, kTrue));
    EXPECT_EQ("CloseAllRedirectedFiles|/tmp/e",
              CallFor(ipcvectors::kCloseAllRedirectedFiles, kTrue));
}
TEST_F(IpcServerTest, ASegmentIsAnsweredTrueOrWithTheReason) {
    const std::string call = "AddRedirectedFileSegment|/tmp/e/f|/tmp/s|4294967298|8589934595|-4";
    EXPECT_EQ(call, CallFor(ipcvectors::kAddRedirectedFileSegment, kTrue));
    main.boolResult = false;
    main.SetStatus("bad segment");
    EXPECT_EQ(call, CallFor(ipcvectors::kAddRedirectedFileSegment, ReplyExpt("bad segment")));
}
TEST_F(IpcServerTest, ExportsOfRedirectedFilesAreAnsweredTrue) {
    EXPECT_EQ("ExportRedirectedFile|/tmp/e/f|/tmp/x",
              CallFor(ipcvectors::kExportRedirectedFile, kTrue));
    EXPECT_EQ("ExportRedirectedFileInfo|/tmp/e/f|/tmp/x|true",
              CallFor(ipcvectors::kExportRedirectedFileInfo, kTrue));
}
TEST_F(IpcServerTest, CachedFilesAreClosed) {
    EXPECT_EQ("CloseCachedFileHandle|/tmp/e/f", CallFor(ipcvectors::kCloseFile, kTrue));
    EXPECT_EQ("CloseAllCachedFileHandles|/tmp/e", CallFor(ipcvectors::kCloseAllFiles, kTrue));
}
TEST_F(IpcServerTest, SetLogControlIsAnsweredTrue) {
    EXPECT_EQ("SetLogControl|258", CallFor(ipcvectors::kSetLogControl, kTrue));
}
TEST_F(IpcServerTest, ListingsRunUnderTheServersIdentityForTheRequestersChannel) {
    LogBits(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ("GetMountInfo|sv/ctl/256|false|true",
              CallFor(ipcvectors::kGetMountInfo, ReplyInt(123456)));
    EXPECT_EQ("GetSessionInfo|sv/ctl/256|true",
              CallFor(ipcvectors::kGetSessionInfo, ReplyInt(123456)));
    main.intResult = -7;
    EXPECT_EQ("GetVSphereInfo|sv/ctl/256|true", CallFor(ipcvectors::kGetVSphereInfo, ReplyInt(-7)));
    EXPECT_STREQ("", main.GetRuntimeParam()->GetIpcID())
        << "the server's own work has no requester";
}
TEST_F(IpcServerTest, RunTestModeIsAnsweredTrue) {
    EXPECT_EQ("RunTestMode|sv/ctl/0|/tmp/d|4294967301", CallFor(ipcvectors::kRunTestMode, kTrue));
}
TEST_F(IpcServerTest, TheFlagsOfAMountListingAreApart) {
    Bytes listing = ipcvectors::kGetMountInfo;
    listing[272] = 1;
    listing[273] = 0;
    EXPECT_EQ("GetMountInfo|sv/ctl/0|true|false", CallFor(listing, ReplyInt(123456)));
}
TEST_F(IpcServerTest, GetServerStatusReportsTheResult) {
    main.intResult = 5;
    EXPECT_EQ("GetServerStatus", CallFor(ipcvectors::kGetServerStatus, ReplyInt(5)));
}
TEST_F(IpcServerTest, SetDebugActionEnabledIsAnsweredTrueWhateverItDid) {
    main.boolResult = false;
    EXPECT_EQ("SetDebugActionEnabled|true", CallFor(ipcvectors::kSetDebugAction, kTrue));
    EXPECT_EQ("SetDebugActionEnabled|false",
              CallFor(WithU32(ipcvectors::kSetDebugAction, 16, 0), kTrue));
}
TEST_F(IpcServerTest, DatastoresAreAddedAndRemoved) {
    EXPECT_EQ("AddVSphereInfo|ds1|h1|443|u1|p1", CallFor(ipcvectors::kAddVSphereInfo, kTrue));
    EXPECT_EQ("RemoveVSphereInfo|ds1", CallFor(ipcvectors::kRemoveVSphereInfo, kTrue));
}

TEST_F(IpcServerTest, AnyByteButZeroIsATrueFlag) {
    EXPECT_EQ("SetDebugActionEnabled|true",
              CallFor(WithU32(ipcvectors::kSetDebugAction, 16, 0xFFFFFF02), kTrue));
    EXPECT_EQ("SetDebugActionEnabled|false",
              CallFor(WithU32(ipcvectors::kSetDebugAction, 16, 0xFFFFFF00), kTrue))
        << "padding carries no meaning";
}

TEST_F(IpcServerTest, TheVersionOfAMessageIsNotLookedAt) {
    EXPECT_EQ("IsServerRunning",
              CallFor(WithText(ipcvectors::kIsServerRunning, 8, 8, "99.99999"), kTrue));
}

// ================================================================================================
// Unknown messages
// ================================================================================================

TEST_F(IpcServerTest, UnknownRequestTypesAreAnswered) {
    for (const int type : {0, 28, 29, -1}) {
        EXPECT_EQ(Hex(ReplyExpt("Unknown request type (" + std::to_string(type) + ")")),
                  Hex(Exchange(Header(2, static_cast<std::uint32_t>(type)))));
    }
}
TEST_F(IpcServerTest, UnknownCallbackTypesAreAnswered) {
    for (const int type : {0, 6, -5}) {
        EXPECT_EQ(Hex(ReplyExpt("Unknown callback type (" + std::to_string(type) + ")")),
                  Hex(Exchange(Header(3, static_cast<std::uint32_t>(type)))));
    }
}
TEST_F(IpcServerTest, AReplyIsNoRequest) {
    EXPECT_EQ(Hex(ReplyExpt("Reply action group is not support (3)")), Hex(Exchange(Header(1, 3))));
}
TEST_F(IpcServerTest, UnknownGroupsAreAnsweredWithGroupAndType) {
    EXPECT_EQ(Hex(ReplyExpt("Unknown action group: 0 (7)")), Hex(Exchange(Header(0, 7))));
    EXPECT_EQ(Hex(ReplyExpt("Unknown action group: 4 (-1)")), Hex(Exchange(Header(4, 0xFFFFFFFF))));
    EXPECT_TRUE(main.TakeCalls().empty());
}

// ================================================================================================
// One message, one read, one reply
// ================================================================================================

TEST_F(IpcServerTest, AShortMessageIsCompletedByTheBytesOfAnEarlierOne) {
    CallFor(ipcvectors::kAddSession, kTrue);
    EXPECT_EQ("RemoveSessionInfo|s1", CallFor(Header(2, 8), kTrue));
    EXPECT_EQ("AddSessionInfo|s1|/tmp/e", CallFor(Header(2, 7), kTrue));
    // Half a header: group and version stay those of the message before.
    EXPECT_EQ("AddSessionInfo|s1|/tmp/e", CallFor(Bytes{2, 0, 0, 0}, kTrue));
    EXPECT_EQ("AddSessionInfo|s1|/tmp/e", CallFor(Bytes{2}, kTrue));
}

TEST_F(IpcServerTest, AMessageInTwoPiecesIsNotCollected) {
    CallFor(ipcvectors::kAddSession, kTrue);
    const Bytes whole = WithText(ipcvectors::kRemoveSession, 16, 256, "s2");
    const RawClient client;
    ASSERT_TRUE(client.Send(Bytes(whole.begin(), whole.begin() + 16)));
    EXPECT_EQ(Hex(kTrue), Hex(client.Receive()));
    EXPECT_EQ(Texts{"RemoveSessionInfo|s1"}, main.TakeCalls()) << "the first piece alone was taken";
    EXPECT_FALSE(client.Send(Bytes(whole.begin() + 16, whole.end()))) << "the connection is closed";
}

TEST_F(IpcServerTest, NoMoreThanFourKilobytesAreReadAtOnce) {
    LogBits(LOG_CONTROL_IPC);
    Bytes large = ipcvectors::kIsServerRunning;
    large.resize(9000, 0x55);
    const RawClient client;
    ASSERT_TRUE(client.Send(large));
    // The rest stays unread, so the answer may be followed by a reset instead of an end.
    EXPECT_EQ(Hex(kTrue), Hex(client.Receive()));
    EXPECT_TRUE(
        log.Has("[info] [IpcServer.ReadRequest] Request action group (type = 3, ver = 1.2, "
                "dataLen = 4096)"));
}

TEST_F(IpcServerTest, AConnectionClosedWithoutAByteExecutesNothing) {
    CallFor(ipcvectors::kAddSession, kTrue);
    { const RawClient silent; }
    const RawClient half;
    half.ShutdownWrite();
    EXPECT_EQ(Bytes{}, half.Receive()) << "closed without an answer";
    EXPECT_EQ("IsServerRunning", CallFor(ipcvectors::kIsServerRunning, kTrue));
}

TEST_F(IpcServerTest, ASilentPeerKeepsNobodyElseWaiting) {
    std::vector<std::unique_ptr<RawClient>> silent;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(std::make_unique<RawClient>());
    }
    EXPECT_EQ("IsServerRunning", CallFor(ipcvectors::kIsServerRunning, kTrue));
    for (const auto& client : silent) {
        ASSERT_TRUE(client->Send(ipcvectors::kGetServerStatus)) << "a late message still counts";
        EXPECT_EQ(Hex(ReplyInt(123456)), Hex(client->Receive()));
    }
}

TEST_F(IpcServerTest, MessagesAreExecutedInTheOrderOfTheirArrival) {
    std::latch entered(1);
    std::latch released(1);
    std::atomic<bool> first{true};
    main.SetHook([&] {
        if (first.exchange(false)) {
            entered.count_down();
            released.wait();
        }
    });
    std::vector<std::unique_ptr<RawClient>> clients;
    clients.push_back(std::make_unique<RawClient>());
    ASSERT_TRUE(clients[0]->Send(ipcvectors::kIsServerRunning));
    entered.wait();
    Texts expected{"IsServerRunning"};
    for (int i = 0; i < 4; ++i) {
        const std::string id = "o" + std::to_string(i);
        clients.push_back(std::make_unique<RawClient>());
        ASSERT_TRUE(clients.back()->Send(WithText(ipcvectors::kRemoveSession, 16, 256, id)));
        expected.push_back("RemoveSessionInfo|" + id);
    }
    EXPECT_EQ(1u, main.CallCount()) << "never two at a time";
    released.count_down();
    for (const auto& client : clients) {
        client->Receive();
    }
    EXPECT_EQ(expected, main.TakeCalls());
}

TEST_F(IpcServerTest, AReplyToAPeerThatIsGoneEndsNothing) {
    LogBits(LOG_CONTROL_ERROR);
    std::latch entered(1);
    std::latch released(1);
    main.SetHook([&] {
        entered.count_down();
        released.wait();
    });
    RawClient client;
    ASSERT_TRUE(client.Send(ipcvectors::kIsServerRunning));
    entered.wait();
    client.Close();
    released.count_down();
    ASSERT_TRUE(support::WaitFor([&] { return !log.Lines().empty(); }));
    EXPECT_EQ(Texts{"[error] [IpcServer.SendRequest] Fail to send ipc reply. " + SystemText(EPIPE)},
              log.Lines());
    main.SetHook(nullptr);
    main.TakeCalls();
    EXPECT_EQ("IsServerRunning", CallFor(ipcvectors::kIsServerRunning, kTrue));
}

TEST_F(IpcServerTest, TextsWithoutNulAreReadUpToTheEndOfTheirField) {
    const std::string id(256, 'i');
    const std::string path(1024, 'p');
    EXPECT_EQ(
        "AddSessionInfo|" + id + "|" + path,
        CallFor(WithText(WithText(ipcvectors::kAddSession, 16, 256, id), 272, 1024, path), kTrue));
    const std::string dirPath(3072, 'd');
    EXPECT_EQ("RunTestMode|sv/" + id + "/0|" + dirPath + "|4294967301",
              CallFor(WithText(WithText(ipcvectors::kRunTestMode, 16, 256, id), 272, 3072, dirPath),
                      kTrue));
    EXPECT_EQ("AddVSphereInfo|ds1|h1|443|u1|" + id,
              CallFor(WithText(ipcvectors::kAddVSphereInfo, 1040, 256, id), kTrue));
}

TEST_F(IpcServerTest, AnOperationThatFailsWithoutATextIsAnsweredWithAnEmptyOne) {
    main.boolResult = false;
    main.SetStatus("an earlier reason");
    Exchange(ipcvectors::kStart);
    main.SetStatus("");
    EXPECT_EQ(Hex(ReplyExpt("")), Hex(Exchange(ipcvectors::kAddRedirectedFileSegment)));
}

TEST_F(IpcServerTest, AnOperationThatThrowsIsAnsweredWithItsReason) {
    main.SetHook([] { throw std::bad_alloc(); });
    for (const Bytes& request :
         {ipcvectors::kGetVersion, ipcvectors::kStart, ipcvectors::kRemoveMountPoint,
          ipcvectors::kGetSessionInfo, ipcvectors::kRunTestMode, ipcvectors::kAddVSphereInfo}) {
        EXPECT_EQ(Hex(ReplyExpt(SystemText(ENOMEM))), Hex(Exchange(request)));
    }
    main.SetHook([] { throw std::runtime_error("a reason"); });
    EXPECT_EQ(Hex(ReplyExpt("a reason")), Hex(Exchange(ipcvectors::kIsServerRunning)));
    main.SetHook([] { throw 5; });
    EXPECT_EQ(Hex(ReplyExpt("Unknown exception")), Hex(Exchange(ipcvectors::kGetDescription)));
    main.SetHook(nullptr);
    main.TakeCalls();
    EXPECT_EQ("AddVSphereInfo|ds1|h1|443|u1|", CallFor(Header(2, 26), kTrue))
        << "the thread serves on, and the password was wiped all the same";
}

TEST_F(IpcServerTest, ShorterAnswersCarryNothingOfEarlierOnes) {
    EXPECT_EQ(Hex(ReplyMsg("words")), Hex(Exchange(ipcvectors::kGetDescription)));
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion)));
    EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(ipcvectors::kIsServerRunning)));
}

TEST_F(IpcServerTest, APasswordDoesNotStayInTheBuffer) {
    CallFor(ipcvectors::kAddVSphereInfo, kTrue);
    EXPECT_EQ("AddVSphereInfo|ds1|h1|443|u1|", CallFor(Header(2, 26), kTrue))
        << "all but the password completes a short message";
}

// ================================================================================================
// Callbacks that arrive
// ================================================================================================

TEST_F(IpcServerTest, CallbackLinesAreLoggedByTheirKind) {
    Exchange(ipcvectors::kLogMessage);
    for (const std::uint32_t kind : {1u, 2u, 0u, 4u, 77u}) {
        EXPECT_EQ(Hex(kTrue), Hex(Exchange(WithU32(ipcvectors::kLogMessage, 2320, kind))));
    }
    const Texts lines = log.Lines();
    EXPECT_EQ(
        (Texts{" hey", "[info] hey", "[error] hey", "[info] hey", "[info] hey", "[info] hey"}),
        Texts(lines.end() - 6, lines.end()));
}

TEST_F(IpcServerTest, NotificationsNobodyTakesAreAnsweredWithMinusOne) {
    for (std::size_t type = 2; type <= 5; ++type) {
        EXPECT_EQ(Hex(ReplyInt(-1)), Hex(Exchange(ipcvectors::kCallbacks[type])));
    }
}

// ================================================================================================
// Log lines
// ================================================================================================

TEST_F(IpcServerTest, StateLinesFollowAConnection) {
    const std::string label = "[info] [IpcServer.ReadRequest] ";
    const Texts turn{label + "Send ipc reply", label + "Start", label + "Accept ipc request"};
    log.Clear();
    // Switched on while the thread is busy, so that it is known where the lines begin.
    main.SetHook([&] { main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_IPC_STATE); });
    Exchange(ipcvectors::kIsServerRunning);
    ASSERT_TRUE(support::WaitFor([&] { return log.Lines() == turn; }));
    log.Clear();
    Exchange(ipcvectors::kIsServerRunning);
    ASSERT_TRUE(support::WaitFor([&] { return log.Lines().size() == turn.size() + 1; }));
    EXPECT_EQ(label + "Read ipc request", log.Lines().front());
    log.Clear();
    main.StopRemoteController();
    EXPECT_EQ((Texts{"[info] Stop Remote Controller", label + "Socket closed"}), log.Lines());
}

TEST_F(IpcServerTest, AStateLineFollowsTheLogControlOfItsMoment) {
    LogBits(LOG_CONTROL_IPC_STATE);
    Exchange(ipcvectors::kIsServerRunning);
    const std::string waiting = "[info] [IpcServer.ReadRequest] Accept ipc request";
    ASSERT_TRUE(
        support::WaitFor([&] { return !log.Lines().empty() && log.Lines().back() == waiting; }));
    LogBits(0);
    Exchange(ipcvectors::kIsServerRunning);
    EXPECT_EQ(Texts{}, log.Lines()) << "switched off while a message was waited for";
}

TEST_F(IpcServerTest, MessagesAreTracedBothWays) {
    LogBits(LOG_CONTROL_IPC);
    Exchange(ipcvectors::kStart);
    EXPECT_EQ((Texts{"[info] [IpcServer.ReadRequest] Request action group (type = 4, ver = 1.2, "
                     "dataLen = 36)",
                     "[info] [IpcServer.ReadRequest] Reply action group (type = 1, ver = 1.2, "
                     "dataLen = 20)"}),
              log.Lines());
}

TEST_F(IpcServerTest, NothingIsLoggedOfTheChannelWithoutItsBits) {
    LogBits(kAllLogBits & ~(LOG_CONTROL_IPC | LOG_CONTROL_IPC_STATE));
    Exchange(ipcvectors::kStart);
    Exchange(Header(9, 9));
    EXPECT_EQ(Texts{}, log.Lines());
}

TEST_F(IpcServerTest, AFailedReadClosesThatConnectionOnly) {
    LogBits(LOG_CONTROL_ERROR);
    faults::Fail(faults::Call::Recv, EIO, 1, faults::On::OtherThreads);
    EXPECT_EQ(Bytes{}, Exchange(ipcvectors::kIsServerRunning));
    ASSERT_TRUE(support::WaitFor([&] { return !log.Lines().empty(); }));
    EXPECT_EQ(Texts{"[error] [IpcServer.SendRequest] Fail to read ipc request. " + SystemText(EIO)},
              log.Lines());
    EXPECT_EQ("IsServerRunning", CallFor(ipcvectors::kIsServerRunning, kTrue));
}

TEST_F(IpcServerTest, AShortReplyIsLoggedAndCountsAsSent) {
    LogBits(LOG_CONTROL_ERROR);
    faults::Shorten(faults::Call::Send, 7, 1, faults::On::OtherThreads);
    const Bytes reply = Exchange(ipcvectors::kIsServerRunning);
    EXPECT_EQ(Hex(Bytes(kTrue.begin(), kTrue.begin() + 7)), Hex(reply));
    EXPECT_EQ(Texts{"[error] Fail to send ipc complete reply. (Send = 7, Target = 20)"},
              log.Lines());
}

TEST_F(IpcServerTest, AFailedAcceptIsLoggedAndTheChannelGoesOn) {
    LogBits(LOG_CONTROL_ERROR);
    faults::Fail(faults::Call::Accept, EMFILE, 3, faults::On::OtherThreads);
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kIsServerRunning)));
    EXPECT_EQ(Texts(3, "[error] [IpcServer.SendRequest] Fail to accept ipc request. " +
                           SystemText(EMFILE)),
              log.Lines());
}

TEST_F(IpcServerTest, AFailureThatLastsDoesNotBurnACore) {
    LogBits(LOG_CONTROL_ERROR);
    faults::Fail(faults::Call::Accept, EMFILE, faults::kAlways, faults::On::OtherThreads);
    const RawClient client;
    ASSERT_TRUE(support::WaitFor([&] { return log.Lines().size() >= 2; }));
    const auto begin = std::chrono::steady_clock::now();
    const std::size_t before = log.Lines().size();
    ASSERT_TRUE(support::WaitFor([&] { return log.Lines().size() >= before + 4; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, Milliseconds(250)) << "a pause after each";
}

// ================================================================================================
// Auto shutdown
// ================================================================================================

TEST_F(IpcServerTest, AutoShutdownIsRefusedUnlessEnabled) {
    EXPECT_EQ(Hex(ReplyBool(false)), Hex(Exchange(ipcvectors::kAutoShutdown)));
    EXPECT_FALSE(main.IsAutoShutdownRequested());
    EXPECT_EQ("IsServerRunning", CallFor(ipcvectors::kIsServerRunning, kTrue)) << "goes on";
}

TEST_F(IpcServerTest, AnAcceptedAutoShutdownIsAnsweredBeforeTheMainObjectIsTold) {
    main.EnableAutoShutdown(true);
    std::latch answered(1);
    main.SetHook([&] { answered.wait(); });
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kAutoShutdown)));
    EXPECT_FALSE(main.IsAutoShutdownRequested());
    answered.count_down();
    ASSERT_TRUE(support::WaitFor([&] { return main.IsAutoShutdownRequested(); }));
    EXPECT_EQ(Texts{"RequestAutoShutdown"}, main.TakeCalls());
}

TEST_F(IpcServerTest, AfterAnAcceptedAutoShutdownNothingIsAcceptedAnyMore) {
    LogBits(LOG_CONTROL_IPC_STATE | LOG_CONTROL_ERROR);
    main.EnableAutoShutdown(true);
    const RawClient early;
    Exchange(ipcvectors::kGetVersion);  // `early` waits aside by now
    Exchange(ipcvectors::kAutoShutdown);
    ASSERT_TRUE(early.Send(ipcvectors::kIsServerRunning));
    const RawClient late;
    ASSERT_TRUE(late.Send(ipcvectors::kIsServerRunning));

    const std::string waiting = "[info] [IpcServer.SendRequest] Waiting to auto shutdown";
    const auto cpu = [] {
        timespec time{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
    };
    ASSERT_TRUE(support::WaitFor([&] { return log.Count(waiting) >= 1; }));
    const double before = cpu();
    EXPECT_FALSE(late.HasAnswer(Milliseconds(1000)));
    EXPECT_FALSE(early.HasAnswer(Milliseconds(0)));
    EXPECT_LT(cpu() - before, 0.5) << "the waiting thread keeps a core busy";
    EXPECT_GE(log.Count(waiting), 2) << "it turns";
    EXPECT_LE(log.Count(waiting), 30) << "it turns too fast";
    EXPECT_EQ(0, log.Count("[error] [IpcServer.SendRequest] ")) << "waiting is no failure";
    EXPECT_EQ((Texts{"GetVersion", "RequestAutoShutdown"}), main.TakeCalls());

    main.StopRemoteController();
    EXPECT_EQ(Bytes{}, late.Receive());
    EXPECT_EQ(Bytes{}, early.Receive());
}

// ================================================================================================
// Opening and closing
// ================================================================================================

namespace {

// A server object without a thread, and main objects whose channel is still closed.
class IpcChannelTest : public testing::Test {
protected:
    void SetUp() override { main.SetFileLogger(log.Logger()); }

    faults::Guard guard;
    support::ScopedTempDir dir;
    LogFile log{dir / "log"};
    RecordingMain main{LOG_CONTROL_ERROR};
    char reason[STATUS_SIZE] = "";
    const std::string channel = dir / "channel";
};

}  // namespace

TEST_F(IpcChannelTest, AServerNeedsAChannelAndOpensOnlyOne) {
    CIpcServer server(&main);
    EXPECT_FALSE(server.Open(nullptr, reason));
    EXPECT_STREQ("Channel is not defined", reason);
    EXPECT_FALSE(server.IsOpened());
    ASSERT_TRUE(server.Open(channel.c_str(), reason)) << reason;
    EXPECT_TRUE(server.IsOpened());
    EXPECT_FALSE(server.Open((dir / "other").c_str(), reason));
    EXPECT_STREQ("Channel already opened", reason);
    EXPECT_TRUE(server.IsOpened()) << "the first one stays";
    EXPECT_TRUE(CanConnect(channel));
}

TEST_F(IpcChannelTest, TheFormsWithoutABufferLogTheirReason) {
    CIpcServer server(&main);
    EXPECT_FALSE(server.Open(nullptr));
    EXPECT_FALSE(server.ReadRequest());
    EXPECT_EQ((Texts{"[error] [IpcServer.Open] Channel is not defined",
                     "[error] [IpcServer.SendRequest] Channel not yet opened."}),
              log.Lines());
    log.Clear();
    main.GetRuntimeParam()->SetLogControl(0);
    EXPECT_FALSE(server.Open(nullptr));
    EXPECT_FALSE(server.ReadRequest());
    EXPECT_EQ(Texts{}, log.Lines());
}

TEST_F(IpcChannelTest, OpeningLogsItsSteps) {
    main.GetRuntimeParam()->SetLogControl(LOG_CONTROL_IPC_STATE | LOG_CONTROL_FILE_ACCESS);
    CIpcServer server(&main);
    ASSERT_TRUE(server.Open(channel.c_str(), reason)) << reason;
    EXPECT_EQ((Texts{"[info] [IpcServer.Open] Open channel: " + channel,
                     "[info] [IpcServer.Open] Bind ipc server socket",
                     "[info] [IpcServer.Open] OS set file mode \"" + channel + "\" (mode = 511)"}),
              log.Lines());
}

TEST_F(IpcChannelTest, ProcessesOfOtherUsersMayConnect) {
    const mode_t mask = umask(0177);
    CIpcServer server(&main);
    const bool opened = server.Open(channel.c_str(), reason);
    umask(mask);
    ASSERT_TRUE(opened) << reason;
    struct stat data {};
    ASSERT_EQ(0, stat(channel.c_str(), &data));
    EXPECT_EQ(0777u, data.st_mode & 07777);
    EXPECT_TRUE(S_ISSOCK(data.st_mode));
}

TEST_F(IpcChannelTest, ClosingRemovesTheSocketFileAndMayBeRepeated) {
    CIpcServer server(&main);
    EXPECT_TRUE(server.Close()) << "not open";
    ASSERT_TRUE(server.Open(channel.c_str(), reason)) << reason;
    EXPECT_TRUE(server.Close(reason));
    EXPECT_FALSE(server.IsOpened());
    EXPECT_FALSE(support::FileExists(channel));
    EXPECT_TRUE(server.Close());
    ASSERT_TRUE(server.Open(channel.c_str(), reason)) << "opened again: " << reason;
    EXPECT_TRUE(CanConnect(channel));
}

TEST_F(IpcChannelTest, TheDestructorCloses) {
    {
        CIpcServer server(&main);
        ASSERT_TRUE(server.Open(channel.c_str(), reason)) << reason;
    }
    EXPECT_FALSE(support::FileExists(channel));
}

TEST_F(IpcChannelTest, AFailedStepOfOpeningNamesItselfAndLeavesNothing) {
    const std::size_t fds = support::OpenFds().size();
    for (const auto& [call, text] : std::vector<std::pair<faults::Call, std::string>>{
             {faults::Call::Socket, "Fail to bind ipc server socket. "},
             {faults::Call::Chmod, ""},  // the file layer's text as it is
             {faults::Call::Listen, "Fail to listen ipc server socket. "}}) {
        CIpcServer server(&main);
        faults::Fail(call, EPERM);
        EXPECT_FALSE(server.Open(channel.c_str(), reason));
        EXPECT_EQ(text + SystemText(EPERM), reason);
        EXPECT_FALSE(server.IsOpened());
        EXPECT_FALSE(support::FileExists(channel));
    }
    EXPECT_EQ(fds, support::OpenFds().size());
}

TEST_F(IpcChannelTest, AFolderThatIsNotThereIsABindFailure) {
    CIpcServer server(&main);
    EXPECT_FALSE(server.Open((dir / "no/channel").c_str(), reason));
    EXPECT_EQ("Fail to bind ipc server socket. " + SystemText(ENOENT), reason);
}

TEST_F(IpcChannelTest, AChannelThatDoesNotFitTheAddressIsRefusedNotCut) {
    const std::string base = dir.Path() + "/";
    const std::string fitting =
        base + std::string(sizeof(sockaddr_un::sun_path) - 1 - base.size(), 'c');
    CIpcServer server(&main);
    EXPECT_TRUE(server.Open(fitting.c_str(), reason)) << reason;
    server.Close();
    EXPECT_FALSE(server.Open((fitting + "d").c_str(), reason));
    EXPECT_EQ("Fail to bind ipc server socket. " + SystemText(ENAMETOOLONG), reason);
    EXPECT_FALSE(support::FileExists(fitting)) << "no socket of a cut name";
    support::WriteFile(fitting, "not ours");
    EXPECT_FALSE(server.Open((fitting + "d").c_str(), reason));
    EXPECT_EQ("not ours", support::ReadFile(fitting)) << "a cut name removes nobody's file";
}

TEST_F(IpcChannelTest, AReadOnAnOpenChannelWithoutSocketIsNoFailure) {
    CIpcServer server(&main);
    ASSERT_TRUE(server.Open(channel.c_str(), reason)) << reason;
    server.Interrupt();
    EXPECT_TRUE(server.ReadRequest(reason)) << "an interrupted wait is no failure";
    EXPECT_TRUE(server.ReadRequest(reason)) << "and stays interrupted";
}

TEST_F(IpcChannelTest, AThreadServesFromOpenToClose) {
    CIpcServerThread thread;
    EXPECT_FALSE(thread.IsActive());
    ASSERT_TRUE(thread.Open(channel.c_str(), &main, reason)) << reason;
    EXPECT_TRUE(thread.IsActive());
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion, channel)));
    const std::string second = dir / "second";
    ASSERT_TRUE(thread.Open(second.c_str(), &main, reason)) << "closes the first: " << reason;
    EXPECT_FALSE(support::FileExists(channel));
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion, second)));
    thread.Close();
    EXPECT_FALSE(thread.IsActive());
    EXPECT_FALSE(support::FileExists(second));
    thread.Close();
    EXPECT_FALSE(thread.Open((dir / "no/channel").c_str(), &main, reason));
    EXPECT_FALSE(thread.IsActive());
}

TEST_F(IpcChannelTest, DescriptorsBeyond1023AreServed) {
    struct rlimit limit {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    const struct rlimit old = limit;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < 1100) {
        fillers.push_back(dup(STDERR_FILENO));
        ASSERT_NE(-1, fillers.back()) << "this machine allows no more than 1,024 descriptors";
    }
    StartController(main);
    std::vector<std::unique_ptr<RawClient>> silent;
    for (int i = 0; i < 10; ++i) {
        silent.push_back(std::make_unique<RawClient>());
    }
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion)));
    main.StopRemoteController();
    for (const int fd : fillers) {
        close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &old);
}

TEST_F(IpcChannelTest, ManySilentPeersAreBoundedAndTheChannelServes) {
    StartController(main);
    std::vector<std::unique_ptr<RawClient>> silent;
    for (int i = 0; i < 300; ++i) {
        silent.push_back(std::make_unique<RawClient>());
    }
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion)));
    EXPECT_TRUE(silent.front()->HasAnswer(support::kPatience)) << "the oldest is let go";
    EXPECT_TRUE(silent.back()->Send(ipcvectors::kGetVersion));
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(silent.back()->Receive()));
}

// ================================================================================================
// The remote controller of a main object
// ================================================================================================

TEST_F(IpcChannelTest, AStaleSocketFileIsReplaced) {
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        const sockaddr_un address = ChannelAddress(kServerChannel);
        ASSERT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        close(fd);
    }
    ASSERT_TRUE(support::FileExists(kServerChannel));
    StartController(main);
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion)));
}

TEST_F(IpcChannelTest, AnOrdinaryFileInTheWayIsReplaced) {
    support::WriteFile(kServerChannel, "left by somebody");
    StartController(main);
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion)));
}

TEST_F(IpcChannelTest, ALiveChannelIsRefusedAndItsFileLeftAlone) {
    FakePeer other(kServerChannel, ReplyMsg("0.1"));
    struct stat before {};
    ASSERT_EQ(0, stat(kServerChannel.c_str(), &before));
    EXPECT_FALSE(main.StartRemoteController(reason));
    EXPECT_STREQ("Ipc channel is already created by others.", reason);
    EXPECT_EQ(Hex(ipcvectors::kGetVersion), Hex(other.TakeOne())) << "the probe";
    struct stat after {};
    ASSERT_EQ(0, stat(kServerChannel.c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    main.StopRemoteController();
    EXPECT_TRUE(support::FileExists(kServerChannel)) << "not ours to remove";
    EXPECT_FALSE(main.StartRemoteController(reason)) << "asked again, for nothing was kept";
    EXPECT_EQ(1u, other.Count());
}

TEST_F(IpcChannelTest, WhatAnswersWithoutAVersionIsNoServer) {
    FakePeer other(kServerChannel, ReplyBool(true));
    StartController(main);
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion)));
    EXPECT_EQ(1u, other.Count());
    main.StopRemoteController();
}

TEST_F(IpcChannelTest, AFailedThreadObjectIsKept) {
    ASSERT_EQ(0, mkdir(kServerChannel.c_str(), 0755));
    support::WriteFile(kServerChannel + "/x", "");
    EXPECT_FALSE(main.StartRemoteController(reason));
    const std::string expected = "Fail to bind ipc server socket. " + SystemText(EADDRINUSE);
    EXPECT_EQ(expected, reason);
    EXPECT_TRUE(
        log.Has("[error] [NfsIpcServerMain.StartRemoteController] Fail to start ipc server "
                "thread. Reason=" +
                expected));
    std::filesystem::remove_all(kServerChannel);
    EXPECT_TRUE(main.StartRemoteController(reason)) << "a second call does nothing and succeeds";
    EXPECT_FALSE(CanConnect(kServerChannel));
    main.StopRemoteController();
    StartController(main);
    EXPECT_TRUE(CanConnect(kServerChannel));
}

TEST_F(IpcChannelTest, AThreadThatCannotBeMadeLeavesNoChannel) {
    faults::Fail(faults::Call::Thread, EAGAIN);
    EXPECT_FALSE(main.StartRemoteController(reason));
    EXPECT_EQ(SystemText(EAGAIN), reason);
    EXPECT_FALSE(support::FileExists(kServerChannel));
}

TEST_F(IpcChannelTest, ASecondStartDoesNothing) {
    StartController(main);
    EXPECT_TRUE(main.StartRemoteController(reason));
    EXPECT_EQ(2, log.Count("[info] Start Remote Controller"));
    EXPECT_EQ(0u, main.CallCount()) << "the channel is not asked";
    main.StopRemoteController();
    EXPECT_EQ(1, log.Count("[info] Stop Remote Controller"));
    EXPECT_FALSE(support::FileExists(kServerChannel));
}

TEST_F(IpcChannelTest, StoppingWakesTheWaitingThread) {
    for (int i = 0; i < 50; ++i) {
        StartController(main);
        const RawClient silent;
        const auto begin = std::chrono::steady_clock::now();
        auto stopped = std::async(std::launch::async, [&] { main.StopRemoteController(); });
        ASSERT_EQ(std::future_status::ready, stopped.wait_for(support::kPatience)) << "turn " << i;
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
        EXPECT_EQ(Bytes{}, silent.Receive());
        EXPECT_FALSE(support::FileExists(kServerChannel));
    }
}

TEST_F(IpcChannelTest, StartingAndStoppingLeavesNoDescriptors) {
    StartController(main);
    main.StopRemoteController();
    const std::size_t fds = support::OpenFds().size();
    for (int i = 0; i < 20; ++i) {
        StartController(main);
        Exchange(ipcvectors::kGetVersion);
        main.StopRemoteController();
    }
    EXPECT_EQ(fds, support::OpenFds().size());
}

TEST_F(IpcChannelTest, TheDestructorEndsTheThread) {
    {
        RecordingMain other;
        StartController(other);
        EXPECT_TRUE(CanConnect(kServerChannel));
    }
    EXPECT_FALSE(support::FileExists(kServerChannel));
}

// ================================================================================================
// The main object of a server process
// ================================================================================================

namespace {

// Initial of a server process of that identity: its reason, or "ok".
std::string InitialOf(const std::string& id) {
    CNfsIpcServerMain main(id.c_str(), 0);
    char reason[STATUS_SIZE] = "";
    return main.Initial(reason) ? "ok" : reason;
}

}  // namespace

TEST(NfsIpcServerMainTest, TheIdentityMustBeAbleToNameAChannel) {
    EXPECT_EQ("ok", InitialOf("cRun"));
    EXPECT_EQ("ok", InitialOf("server2"));
    EXPECT_EQ("ok", InitialOf("Server"));
    EXPECT_EQ("Cannot use \"server\" as ID", InitialOf("server"));
    EXPECT_EQ("Invalid char \"/\" inside ID", InitialOf("a/b c"));
    EXPECT_EQ("Invalid char \" \" inside ID", InitialOf("a b/c"));
    EXPECT_EQ("Invalid char \"/\" inside ID", InitialOf("/"));
    EXPECT_EQ("Invalid char \" \" inside ID", InitialOf("server "));
    EXPECT_EQ("ID is not defined", InitialOf(""));
}

TEST(NfsIpcServerMainTest, TellsWhatItIs) {
    CNfsIpcServerMain main("sv", 0);
    EXPECT_EQ(1, main.GetAccessMode());
    char text[VERSION_SIZE] = "";
    main.GetDescription(text);
    EXPECT_STREQ("External NFS Server", text);
    main.GetVersion(text);
    EXPECT_STREQ("1.2", text);
    char channel[IPC_CHANNEL_SIZE] = "";
    main.GetIpcServerThreadChannel(channel);
    EXPECT_STREQ("/tmp/nfs-server", channel);
}

TEST(NfsIpcServerMainTest, ALongIdentityDoesNotMatterToTheServersChannel) {
    CNfsIpcServerMain main(std::string(300, 'x').c_str(), 0);
    char reason[STATUS_SIZE] = "";
    EXPECT_TRUE(main.Initial(reason)) << reason;
    EXPECT_TRUE(main.StartRemoteController(reason)) << reason;
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion)));
}

TEST(NfsIpcServerMainTest, RequestsHaveTheirEffects) {
    CNfsIpcServerMain main("sv", 0);
    StartController(main);
    EXPECT_EQ(Hex(ReplyMsg("External NFS Server")), Hex(Exchange(ipcvectors::kGetDescription)));
    EXPECT_EQ(Hex(ReplyInt(1)), Hex(Exchange(ipcvectors::kGetServerStatus)));
    EXPECT_EQ(Hex(ReplyBool(false)), Hex(Exchange(ipcvectors::kIsServerRunning)));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kStart)));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kIsServerRunning)));
    EXPECT_EQ(Hex(ReplyExpt("NFS already running")), Hex(Exchange(ipcvectors::kStart)));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kSetDebugAction)));
    EXPECT_EQ(Hex(ReplyInt(7)), Hex(Exchange(ipcvectors::kGetServerStatus)));
    EXPECT_EQ(Hex(ReplyBool(false)), Hex(Exchange(ipcvectors::kIsSessionExists)));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kAddSession)));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kIsSessionExists)));
    const Bytes count = WithU32(ipcvectors::kGetSessionInfo, 272, 0);
    EXPECT_EQ(Hex(ReplyInt(1)), Hex(Exchange(count)));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kRemoveSession)));
    EXPECT_EQ(Hex(ReplyInt(0)), Hex(Exchange(count)));
    EXPECT_EQ(Hex(kTrue), Hex(Exchange(ipcvectors::kSetLogControl)));
    EXPECT_EQ(258, main.GetRuntimeParam()->GetLogControl());
    EXPECT_EQ(Hex(ReplyExpt("")), Hex(Exchange(ipcvectors::kAddRedirectedFileSegment)))
        << "an unknown file is refused without a text";
    main.StopServer();
    EXPECT_EQ(Hex(ReplyBool(false)), Hex(Exchange(ipcvectors::kIsServerRunning)));
}

TEST(NfsIpcServerMainTest, AListingForTheServersOwnChannelIsAnswered) {
    CNfsIpcServerMain main("sv", 0);
    StartController(main);
    Exchange(ipcvectors::kAddSession);
    EXPECT_EQ(Hex(ReplyInt(1)),
              Hex(Exchange(WithText(ipcvectors::kGetSessionInfo, 16, 256, "server"))));
}

TEST(NfsIpcServerMainTest, ADeadControllerDoesNotKeepAListingFromItsAnswer) {
    CNfsIpcServerMain main("sv", 0);
    StartController(main);
    Exchange(ipcvectors::kAddSession);
    EXPECT_EQ(Hex(ReplyInt(1)), Hex(Exchange(ipcvectors::kGetSessionInfo)));
}

TEST(NfsIpcServerMainTest, AListingsLinesArriveBeforeItsAnswer) {
    CNfsIpcServerMain main("sv", 0);
    StartController(main);
    Exchange(ipcvectors::kAddSession);
    FakePeer controller("/tmp/nfs-ctl");
    EXPECT_EQ(Hex(ReplyInt(1)), Hex(Exchange(ipcvectors::kGetSessionInfo)));
    EXPECT_EQ(Hex(WithText(ipcvectors::kLogMessage, 272, 2048, " session1 - s1 : /tmp/e")),
              Hex(controller.TakeOne()));
    Exchange(WithU32(ipcvectors::kGetSessionInfo, 272, 0));
    EXPECT_EQ(0u, controller.Count()) << "without details there are no lines";
}

TEST(NfsIpcServerMainTest, AFailedStartIsAnsweredWithItsReason) {
    const console::PortHolder busy(support::Transport::Tcp, 2222);
    CNfsIpcServerMain main("sv", 0);
    StartController(main);
    EXPECT_EQ(Hex(ReplyExpt("NFS daemon failed to open port 2222")),
              Hex(Exchange(ipcvectors::kStart)));
    EXPECT_EQ(Hex(ReplyInt(1)), Hex(Exchange(ipcvectors::kGetServerStatus)));
}
