// ctest-labels: threaded
// What a server process sends to the controllers that its work is done for.

#include "UtilitiesIpcServer.h"

#include <gtest/gtest.h>

#include "IpcBasic.h"
#include "IpcFixture.h"

using namespace ipctest;

namespace {

class UtilitiesIpcServerTest : public testing::Test {
protected:
    UtilitiesIpcServerTest() {
        utilities.SetFileLogger(log.Logger());
        param.SetIpcID("ctl");
    }

    int SetAttributes(CRuntimeParam* of) {
        return utilities.LogUpdateRedirectedFileAttributes(
            of, "/tmp/e/f", true, 0x8899aabbccddeeffULL, false, 1, true, 0xf0000002u);
    }
    int Remove(CRuntimeParam* of) { return utilities.LogRemoveRedirectedFile(of, "/tmp/e/f"); }
    int Rename(CRuntimeParam* of) {
        return utilities.LogRenameRedirectedFile(of, "/tmp/e/f", "/tmp/e/g");
    }
    int Write(CRuntimeParam* of) {
        return utilities.LogWriteRedirectedFile(of, "/tmp/e/f", 0x8000000000000001ULL, 1,
                                                0xf0000003u);
    }

    support::ScopedTempDir dir;
    LogFile log{dir / "log"};
    CUtilitiesIpcServer utilities;
    CRuntimeParam param{"sv", 0};
    CRuntimeParam local{"sv", 0};  // without a controller
};

}  // namespace

TEST_F(UtilitiesIpcServerTest, TheChannelOfAControllerBearsItsName) {
    char channel[IPC_CHANNEL_SIZE] = "";
    utilities.GetIpcCallbackChannel("ctl", channel);
    EXPECT_STREQ("/tmp/nfs-ctl", channel);
}

// ================================================================================================
// Lines
// ================================================================================================

TEST_F(UtilitiesIpcServerTest, LinesTravelByTheirKind) {
    FakePeer controller("/tmp/nfs-ctl");
    char text[] = "hey";
    utilities.LogInfo(&param, text);
    EXPECT_EQ(Hex(WithU32(ipcvectors::kLogMessage, 2320, 1)), Hex(controller.TakeOne()));
    utilities.LogError(&param, text);
    EXPECT_EQ(Hex(WithU32(ipcvectors::kLogMessage, 2320, 2)), Hex(controller.TakeOne()));
    utilities.LogRaw(&param, text);
    EXPECT_EQ(Hex(ipcvectors::kLogMessage), Hex(controller.TakeOne()));
    EXPECT_EQ((Texts{"[info] hey", "[error] hey", " hey"}), log.Lines());
}

TEST_F(UtilitiesIpcServerTest, FormattedLinesTravelToo) {
    FakePeer controller("/tmp/nfs-ctl");
    utilities.LogInfo(&param, "%s %d", "line", 5);
    EXPECT_EQ("line 5", TextAt(controller.TakeOne(), 272, 2048));
}

TEST_F(UtilitiesIpcServerTest, ALineIsLoggedHereFirst) {
    Texts seen;
    FakePeer controller("/tmp/nfs-ctl", [&](const Bytes&) {
        seen = log.Lines();
        return ReplyBool(true);
    });
    char text[] = "hey";
    utilities.LogInfo(&param, text);
    controller.Stop();
    EXPECT_EQ(Texts{"[info] hey"}, seen);
}

TEST_F(UtilitiesIpcServerTest, WithoutAControllerNothingIsSent) {
    FakePeer nobody("/tmp/nfs-");
    FakePeer controller("/tmp/nfs-sv");
    char text[] = "hey";
    utilities.LogInfo(&local, text);
    utilities.LogError(&local, text);
    utilities.LogRaw(&local, text);
    EXPECT_EQ(-1, SetAttributes(&local));
    EXPECT_EQ(-1, Remove(&local));
    EXPECT_EQ(-1, Rename(&local));
    EXPECT_EQ(-1, Write(&local));
    EXPECT_EQ(0u, nobody.Count());
    EXPECT_EQ(0u, controller.Count());
    EXPECT_EQ((Texts{"[info] hey", "[error] hey", " hey"}), log.Lines());
}

TEST_F(UtilitiesIpcServerTest, TheServersOwnChannelIsNoController) {
    FakePeer self(kServerChannel);
    CRuntimeParam claimed("sv", 0);
    claimed.SetIpcID("server");
    char text[] = "hey";
    utilities.LogInfo(&claimed, text);
    EXPECT_EQ(-1, Write(&claimed));
    EXPECT_EQ(0u, self.Count());
    EXPECT_EQ(Texts{"[info] hey"}, log.Lines());
}

TEST_F(UtilitiesIpcServerTest, TheAnswerToALineDoesNotMatter) {
    char text[] = "hey";
    for (const Bytes& answer : {ReplyBool(false), ReplyExpt("no"), Bytes{}}) {
        FakePeer controller("/tmp/nfs-ctl", answer);
        utilities.LogInfo(&param, text);
        EXPECT_EQ(1u, controller.Count());
    }
    utilities.LogInfo(&param, text);  // nobody listens
    EXPECT_EQ(Texts(4, "[info] hey"), log.Lines());
}

TEST_F(UtilitiesIpcServerTest, TheFailureOfASendIsLoggedHereOnly) {
    param.SetLogControl(LOG_CONTROL_ERROR);
    char text[] = "hey";
    utilities.LogInfo(&param, text);
    EXPECT_EQ(
        (Texts{"[info] hey", "[error] [IpcClient.SendRequest] Fail to connect ipc client socket. " +
                                 SystemText(ENOENT)}),
        log.Lines());
}

TEST_F(UtilitiesIpcServerTest, TheLinesAboutSendingAreNotSent) {
    param.SetLogControl(LOG_CONTROL_IPC | LOG_CONTROL_IPC_STATE);
    FakePeer controller("/tmp/nfs-ctl");
    char text[] = "hey";
    utilities.LogInfo(&param, text);
    EXPECT_EQ(1u, controller.Count());
    EXPECT_EQ(8u, log.Lines().size()) << "the line, five states and two traces";
}

TEST_F(UtilitiesIpcServerTest, TextsTooLongForTheirFieldAreCut) {
    FakePeer controller("/tmp/nfs-ctl", ReplyInt(0));
    std::string text(5000, 't');
    CRuntimeParam longNamed(std::string(400, 'n').c_str(), 0);
    longNamed.SetIpcID("ctl");
    utilities.LogRaw(&longNamed, text.data());
    EXPECT_EQ(Hex(WithText(WithText(ipcvectors::kLogMessage, 16, 256, std::string(255, 'n')), 272,
                           2048, std::string(2047, 't'))),
              Hex(controller.TakeOne()));
    const std::string path(4000, 'p');
    EXPECT_EQ(0, utilities.LogRenameRedirectedFile(&param, path.c_str(), path.c_str()));
    EXPECT_EQ(Hex(WithText(WithText(ipcvectors::kRenameFile, 272, 1024, std::string(1023, 'p')),
                           1296, 1024, std::string(1023, 'p'))),
              Hex(controller.TakeOne()));
}

// ================================================================================================
// Notifications
// ================================================================================================

TEST_F(UtilitiesIpcServerTest, NotificationsTravelAndTheirAnswerReturns) {
    FakePeer controller("/tmp/nfs-ctl", ReplyInt(77));
    EXPECT_EQ(77, SetAttributes(&param));
    EXPECT_EQ(Hex(ipcvectors::kSetAttributes), Hex(controller.TakeOne()));
    EXPECT_EQ(77, Remove(&param));
    EXPECT_EQ(Hex(ipcvectors::kRemoveFile), Hex(controller.TakeOne()));
    EXPECT_EQ(77, Rename(&param));
    EXPECT_EQ(Hex(ipcvectors::kRenameFile), Hex(controller.TakeOne()));
    EXPECT_EQ(77, Write(&param));
    EXPECT_EQ(Hex(ipcvectors::kWriteFile), Hex(controller.TakeOne()));
}

TEST_F(UtilitiesIpcServerTest, EachFlagOfTheAttributesStandsForItself) {
    FakePeer controller("/tmp/nfs-ctl", ReplyInt(0));
    for (int flags = 0; flags < 8; ++flags) {
        utilities.LogUpdateRedirectedFileAttributes(&param, "/f", (flags & 1) != 0, 1,
                                                    (flags & 2) != 0, 2, (flags & 4) != 0, 3);
        const Bytes message = controller.TakeOne();
        EXPECT_EQ((flags & 1) != 0 ? 1u : 0u, U32At(message, 1296));
        EXPECT_EQ((flags & 2) != 0 ? 1u : 0u, U32At(message, 1308));
        EXPECT_EQ((flags & 4) != 0 ? 1u : 0u, U32At(message, 1316));
    }
}

TEST_F(UtilitiesIpcServerTest, ANotificationWithoutAnAnswerIsMinusOne) {
    const auto expectNone = [this](const char* why) {
        EXPECT_EQ(-1, SetAttributes(&param)) << why;
        EXPECT_EQ(-1, Remove(&param)) << why;
        EXPECT_EQ(-1, Rename(&param)) << why;
        EXPECT_EQ(-1, Write(&param)) << why;
    };
    expectNone("nobody listens");
    FakePeer controller("/tmp/nfs-ctl", Bytes{});
    expectNone("closed without an answer");
    controller.SetAnswer([](const Bytes&) { return ReplyBool(true); });
    expectNone("another kind of answer");
    controller.SetAnswer([](const Bytes&) { return ReplyExpt("Unknown callback type (2)"); });
    expectNone("an error");
}

TEST_F(UtilitiesIpcServerTest, SendersOnManyThreadsReachTheirOwnControllers) {
    constexpr int kThreads = 4;
    std::vector<std::unique_ptr<FakePeer>> controllers;
    for (int t = 0; t < kThreads; ++t) {
        controllers.push_back(
            std::make_unique<FakePeer>("/tmp/nfs-c" + std::to_string(t), ReplyInt(t)));
    }
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            CRuntimeParam own("sv", 0);
            own.SetIpcID(("c" + std::to_string(t)).c_str());
            for (int i = 0; i < 100; ++i) {
                wrong += Write(&own) == t ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0, wrong);
    for (const auto& controller : controllers) {
        EXPECT_EQ(100u, controller->Count());
    }
}
