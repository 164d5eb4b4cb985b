// ctest-labels: threaded
// The sending end of the local channel against a peer of the test's own.

#include "IpcClient.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "IpcFixture.h"
#include "IpcWaits.h"
#include "support/Faults.h"

namespace faults = support::faults;

using namespace ipctest;

namespace {

class IpcClientTest : public testing::Test {
protected:
    IpcClientTest() {
        utilities.SetFileLogger(log.Logger());
        CIpcBasic::InitialRequestData(&client.GetDataInst()->request, IPC_REQUEST_TYPE_GET_VERSION);
    }

    bool Send() { return client.SendRequest(channel.c_str(), reason); }
    // One exchange that is answered so.
    void Answered(const Bytes& reply) {
        FakePeer peer(channel, reply);
        ASSERT_TRUE(Send()) << reason;
    }

    faults::Guard guard;
    support::ScopedTempDir dir;
    LogFile log{dir / "log"};
    CUtilities utilities;
    CRuntimeParam param{"me", 0};
    CIpcClient client{&utilities, &param};
    const std::string channel = dir / "channel";
    char reason[STATUS_SIZE] = "";
};

std::string TextOf(const char* text) { return text == nullptr ? "(none)" : text; }

}  // namespace

// ================================================================================================
// The exchange
// ================================================================================================

TEST_F(IpcClientTest, BothBuffersStartAsZeros) {
    const CIpcClient fresh(&utilities, &param);
    IpcDataInst* data = const_cast<CIpcClient&>(fresh).GetDataInst();
    EXPECT_EQ(Bytes(sizeof(IpcDataInst)),
              Bytes(reinterpret_cast<std::uint8_t*>(data),
                    reinterpret_cast<std::uint8_t*>(data) + sizeof(IpcDataInst)));
}

TEST_F(IpcClientTest, SendsExactlyTheMessage) {
    FakePeer peer(channel, ReplyBool(true));
    std::memcpy(client.GetDataInst()->request.cBuf, ipcvectors::kRunTestMode.data(),
                ipcvectors::kRunTestMode.size());
    client.GetDataInst()->request.lDataLen = 3352;
    EXPECT_TRUE(Send());
    EXPECT_EQ(Hex(ipcvectors::kRunTestMode), Hex(peer.TakeOne()));
    EXPECT_STREQ("", reason);
}

TEST_F(IpcClientTest, KeepsTheReplyAndItsLength) {
    Answered(ReplyInt(-3));
    EXPECT_EQ(20, client.GetDataInst()->reply.lDataLen);
    EXPECT_EQ(-3, client.GetIntReply());
}

TEST_F(IpcClientTest, NeedsAChannel) {
    EXPECT_FALSE(client.SendRequest(nullptr, reason));
    EXPECT_STREQ("Channel is not defined", reason);
}

TEST_F(IpcClientTest, EveryFailingStepNamesItself) {
    EXPECT_FALSE(Send());
    EXPECT_EQ("Fail to connect ipc client socket. " + SystemText(ENOENT), reason);

    FakePeer peer(channel, ReplyBool(true));
    faults::Fail(faults::Call::Socket, EMFILE);
    EXPECT_FALSE(Send());
    EXPECT_EQ("Fail to open ipc client socket. " + SystemText(EMFILE), reason);
    faults::Fail(faults::Call::Send, EPIPE);
    EXPECT_FALSE(Send());
    EXPECT_EQ("Fail to send ipc client request. " + SystemText(EPIPE), reason);
    faults::Fail(faults::Call::Recv, EIO);
    EXPECT_FALSE(Send());
    EXPECT_EQ("Fail to read ipc server reply. " + SystemText(EIO), reason);
    peer.Stop();

    const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    const sockaddr_un address = ChannelAddress(channel);
    ASSERT_EQ(0, bind(stale, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    EXPECT_FALSE(Send());
    EXPECT_EQ("Fail to connect ipc client socket. " + SystemText(ECONNREFUSED), reason);
    close(stale);
}

TEST_F(IpcClientTest, AChannelThatDoesNotFitTheAddressIsNotCut) {
    const std::string fitting =
        dir.Path() + "/" + std::string(sizeof(sockaddr_un::sun_path) - 2 - dir.Path().size(), 'c');
    FakePeer peer(fitting, ReplyBool(true));
    EXPECT_FALSE(client.SendRequest((fitting + "d").c_str(), reason));
    EXPECT_EQ("Fail to connect ipc client socket. " + SystemText(ENAMETOOLONG), reason);
    EXPECT_TRUE(client.SendRequest(fitting.c_str(), reason)) << reason;
    EXPECT_EQ(1u, peer.Count());
}

TEST_F(IpcClientTest, AReplyOfNoBytesIsAFailedExchange) {
    FakePeer peer(channel, Bytes{});
    EXPECT_FALSE(Send());
    EXPECT_EQ("Fail to read ipc server reply. " + SystemText(ECONNRESET), reason);
    EXPECT_EQ(1u, peer.Count());
}

TEST_F(IpcClientTest, AnInterruptedReadGoesOn) {
    FakePeer peer(channel, ReplyInt(9));
    faults::Fail(faults::Call::Recv, EINTR, 2);
    EXPECT_TRUE(Send()) << reason;
    EXPECT_EQ(9, client.GetIntReply());
}

TEST_F(IpcClientTest, AShortWriteIsLoggedAndTheExchangeGoesOn) {
    FakePeer peer(channel, ReplyBool(true));
    faults::Shorten(faults::Call::Send, 5);
    EXPECT_TRUE(Send()) << reason;
    EXPECT_EQ(5u, peer.TakeOne().size());
    EXPECT_TRUE(client.GetBoolReply());
    EXPECT_EQ(Texts{"[error] [IpcClient.SendRequest] Fail to send complete ipc client request. "
                    "(Send = 5, Target = 16)"},
              log.Lines());
}

TEST_F(IpcClientTest, NoMoreThanFourKilobytesAreReadOnce) {
    Bytes large = ReplyMsg("text");
    large.resize(8000, 'z');
    Answered(large);
    EXPECT_EQ(4096, client.GetDataInst()->reply.lDataLen);
    EXPECT_EQ("text", TextOf(client.GetMsgReply()));
}

TEST_F(IpcClientTest, EveryExchangeClosesItsSocket) {
    FakePeer peer(channel, ReplyBool(true));
    ASSERT_TRUE(Send());
    const std::size_t fds = support::OpenFds().size();
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(Send());
        faults::Fail(faults::Call::Send, EPIPE);
        ASSERT_FALSE(Send());
        faults::Fail(faults::Call::Recv, EIO);
        ASSERT_FALSE(Send());
        ASSERT_FALSE(client.SendRequest((dir / "nobody").c_str(), reason));
    }
    // The peer's own ends close a moment later.
    EXPECT_TRUE(support::WaitFor([&] { return support::OpenFds().size() <= fds; }));
}

// ================================================================================================
// Peers that do not answer
// ================================================================================================

namespace {

// Listens and accepts nobody until it is told to; its queue takes one connection.
class BusyPeer {
public:
    explicit BusyPeer(const std::string& channel) : m_fd(socket(AF_UNIX, SOCK_STREAM, 0)) {
        const sockaddr_un address = ChannelAddress(channel);
        if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(m_fd, 0) != 0) {
            throw std::runtime_error("listen " + channel);
        }
    }
    ~BusyPeer() { close(m_fd); }
    BusyPeer(const BusyPeer&) = delete;
    BusyPeer& operator=(const BusyPeer&) = delete;

    // Accepts the next connection and answers its message, if it sends one.
    void Serve(const Bytes& answer) const {
        const int fd = accept(m_fd, nullptr, nullptr);
        Bytes message(4096);
        if (recv(fd, message.data(), message.size(), 0) > 0) {
            send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        close(fd);
    }

private:
    int m_fd;
};

}  // namespace

TEST_F(IpcClientTest, AFullQueueIsWaitedFor) {
    const BusyPeer peer(channel);
    std::vector<std::unique_ptr<RawClient>> filling;
    filling.push_back(std::make_unique<RawClient>(channel));
    auto sent = std::async(std::launch::async, [this] { return Send(); });
    EXPECT_EQ(std::future_status::timeout, sent.wait_for(Milliseconds(300))) << "there is no limit";
    filling.clear();
    peer.Serve({});
    peer.Serve(ReplyInt(5));
    EXPECT_TRUE(sent.get()) << reason;
    EXPECT_EQ(5, client.GetIntReply());
}

TEST_F(IpcClientTest, AWaitForAnAnswerCanBeEnded) {
    const BusyPeer peer(channel);
    CIpcWaits waits;
    CIpcClient ended(&utilities, &param, &waits);
    CIpcBasic::InitialRequestData(&ended.GetDataInst()->request, IPC_REQUEST_TYPE_GET_VERSION);
    auto sent =
        std::async(std::launch::async, [&] { return ended.SendRequest(channel.c_str(), reason); });
    EXPECT_EQ(std::future_status::timeout, sent.wait_for(Milliseconds(300))) << "there is no limit";
    waits.Refuse();
    EXPECT_FALSE(sent.get());
    EXPECT_EQ("Fail to read ipc server reply. " + SystemText(ECANCELED), reason);
}

TEST_F(IpcClientTest, AWaitForAFullQueueCanBeEnded) {
    const BusyPeer peer(channel);
    const RawClient filling(channel);
    CIpcWaits waits;
    CIpcClient ended(&utilities, &param, &waits);
    auto sent =
        std::async(std::launch::async, [&] { return ended.SendRequest(channel.c_str(), reason); });
    EXPECT_EQ(std::future_status::timeout, sent.wait_for(Milliseconds(300)));
    waits.Refuse();
    EXPECT_FALSE(sent.get());
    EXPECT_EQ("Fail to connect ipc client socket. " + SystemText(ECANCELED), reason);
    EXPECT_FALSE(ended.SendRequest(channel.c_str(), reason)) << "refused before it waits";
}

TEST_F(IpcClientTest, AStateLineFollowsTheLogControlOfItsMoment) {
    const BusyPeer peer(channel);
    auto filling = std::make_unique<RawClient>(channel);
    auto sent = std::async(std::launch::async, [this] { return Send(); });
    ASSERT_EQ(std::future_status::timeout, sent.wait_for(Milliseconds(300)));
    param.SetLogControl(LOG_CONTROL_IPC_STATE);
    filling.reset();
    peer.Serve({});
    peer.Serve(ReplyInt(5));
    EXPECT_TRUE(sent.get()) << reason;
    const std::string label = "[info] [IpcClient.SendRequest] ";
    EXPECT_EQ((Texts{label + "Send ipc client request", label + "Read ipc server reply"}),
              log.Lines());
}

// ================================================================================================
// Accessors
// ================================================================================================

TEST_F(IpcClientTest, BeforeAnExchangeEveryAccessorGivesItsDefault) {
    EXPECT_FALSE(client.GetBoolReply());
    EXPECT_EQ(0, client.GetLongReply());
    EXPECT_EQ(-1, client.GetIntReply());
    EXPECT_EQ(nullptr, client.GetExptReply());
    EXPECT_EQ(nullptr, client.GetMsgReply());
}

TEST_F(IpcClientTest, EachAccessorTakesOnlyItsKind) {
    const struct {
        Bytes reply;
        bool boolean;
        long number;
        int count;
        std::string expt;
        std::string msg;
    } cases[] = {
        {ReplyBool(true), true, 0, -1, "(none)", "(none)"},
        {ReplyBool(false), false, 0, -1, "(none)", "(none)"},
        {ipcvectors::kReplyLong, false, -2, -1, "(none)", "(none)"},
        {ipcvectors::kReplyInt, false, 0, 123456, "(none)", "(none)"},
        {ipcvectors::kReplyExpt, false, 0, -1, "no", "(none)"},
        {ipcvectors::kReplyMsg, false, 0, -1, "(none)", "1.2"},
        {ipcvectors::kReplyNone, false, 0, -1, "(none)", "(none)"},
        {WithU32(ReplyInt(5), 4, 6), false, 0, -1, "(none)", "(none)"},
    };
    for (const auto& expected : cases) {
        Answered(expected.reply);
        EXPECT_EQ(expected.boolean, client.GetBoolReply()) << Hex(expected.reply);
        EXPECT_EQ(expected.number, client.GetLongReply()) << Hex(expected.reply);
        EXPECT_EQ(expected.count, client.GetIntReply()) << Hex(expected.reply);
        EXPECT_EQ(expected.expt, TextOf(client.GetExptReply())) << Hex(expected.reply);
        EXPECT_EQ(expected.msg, TextOf(client.GetMsgReply())) << Hex(expected.reply);
    }
}

TEST_F(IpcClientTest, OnlyTheReplyGroupCounts) {
    for (const std::uint32_t group : {0u, 2u, 3u, 4u, 0xFFFFFFFFu}) {
        Answered(WithU32(ReplyBool(true), 0, group));
        EXPECT_FALSE(client.GetBoolReply()) << group;
        Answered(WithU32(ReplyInt(7), 0, group));
        EXPECT_EQ(-1, client.GetIntReply()) << group;
        Answered(WithU32(ipcvectors::kReplyLong, 0, group));
        EXPECT_EQ(0, client.GetLongReply()) << group;
        Answered(WithU32(ReplyMsg("x"), 0, group));
        EXPECT_EQ(nullptr, client.GetMsgReply()) << group;
        Answered(WithU32(ReplyExpt("x"), 0, group));
        EXPECT_EQ(nullptr, client.GetExptReply()) << group;
    }
}

TEST_F(IpcClientTest, AShortReplyIsCompletedByZeros) {
    const Bytes yes = ReplyBool(true);
    Answered(Bytes(yes.begin(), yes.begin() + 16));
    EXPECT_FALSE(client.GetBoolReply());
    const Bytes expt = ReplyExpt("abcdef");
    CIpcClient other(&utilities, &param);
    CIpcBasic::InitialRequestData(&other.GetDataInst()->request, IPC_REQUEST_TYPE_GET_VERSION);
    FakePeer peer(channel, Bytes(expt.begin(), expt.begin() + 19));
    ASSERT_TRUE(other.SendRequest(channel.c_str(), reason));
    EXPECT_EQ("abc", TextOf(other.GetExptReply()));
    peer.SetAnswer([](const Bytes&) { return Bytes{1}; });
    CIpcClient third(&utilities, &param);
    CIpcBasic::InitialRequestData(&third.GetDataInst()->request, IPC_REQUEST_TYPE_GET_VERSION);
    ASSERT_TRUE(third.SendRequest(channel.c_str(), reason));
    EXPECT_EQ(-1, third.GetIntReply());
}

TEST_F(IpcClientTest, ATextWithoutNulEndsWithItsField) {
    Bytes full = ReplyMsg(std::string(2048, 'm'));
    full.resize(4096, 'X');
    Answered(full);
    EXPECT_EQ(std::string(2047, 'm'), TextOf(client.GetMsgReply()));
    full[4] = 4;
    Answered(full);
    EXPECT_EQ(std::string(2047, 'm'), TextOf(client.GetExptReply()));
}

TEST_F(IpcClientTest, AnyByteButZeroIsTrue) {
    Answered(WithU32(ReplyBool(true), 16, 0x80));
    EXPECT_TRUE(client.GetBoolReply());
    Answered(WithU32(ReplyBool(true), 16, 0x100));
    EXPECT_FALSE(client.GetBoolReply()) << "padding carries no meaning";
}

// ================================================================================================
// Log lines
// ================================================================================================

TEST_F(IpcClientTest, StateLinesAndTracesFollowAnExchange) {
    param.SetLogControl(LOG_CONTROL_IPC | LOG_CONTROL_IPC_STATE);
    Answered(ReplyMsg("1.2"));
    const std::string label = "[info] [IpcClient.SendRequest] ";
    EXPECT_EQ((Texts{label + "Open channel: " + channel,
                     label + "Request action group (type = 1, ver = 1.2, dataLen = 16)",
                     label + "Open ipc client socket", label + "Connect ipc client socket",
                     label + "Send ipc client request", label + "Read ipc server reply",
                     label + "Reply action group (type = 5, ver = 1.2, dataLen = 2064)"}),
              log.Lines());
}

TEST_F(IpcClientTest, StateLinesAndTracesHaveBitsOfTheirOwn) {
    param.SetLogControl(kAllLogBits & ~(LOG_CONTROL_IPC | LOG_CONTROL_IPC_STATE));
    Answered(ReplyMsg("1.2"));
    EXPECT_EQ(Texts{}, log.Lines());
    param.SetLogControl(LOG_CONTROL_IPC);
    Answered(ReplyMsg("1.2"));
    EXPECT_EQ(2u, log.Lines().size());
    log.Clear();
    param.SetLogControl(LOG_CONTROL_IPC_STATE);
    Answered(ReplyMsg("1.2"));
    EXPECT_EQ(5u, log.Lines().size());
}

TEST_F(IpcClientTest, TheFormWithoutABufferLogsItsReason) {
    param.SetLogControl(LOG_CONTROL_ERROR);
    EXPECT_FALSE(client.SendRequest(channel.c_str()));
    EXPECT_FALSE(client.SendRequest(nullptr));
    EXPECT_EQ((Texts{"[error] [IpcClient.SendRequest] Fail to connect ipc client socket. " +
                         SystemText(ENOENT),
                     "[error] [IpcClient.SendRequest] Channel is not defined"}),
              log.Lines());
    log.Clear();
    EXPECT_FALSE(Send()) << "the form with a buffer";
    param.SetLogControl(kAllLogBits &
                        ~(LOG_CONTROL_ERROR | LOG_CONTROL_IPC | LOG_CONTROL_IPC_STATE));
    EXPECT_FALSE(client.SendRequest(channel.c_str()));
    EXPECT_EQ(Texts{}, log.Lines());
    FakePeer peer(channel, ReplyBool(true));
    EXPECT_TRUE(client.SendRequest(channel.c_str()));
    EXPECT_TRUE(client.GetBoolReply());
}
