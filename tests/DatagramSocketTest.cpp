// ctest-labels: threaded
#include "DatagramSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "NfsMain.h"
#include "RecordingUtilities.h"
#include "RpcFixture.h"
#include "support/Faults.h"

namespace faults = support::faults;

using support::Bytes;
using support::RpcClient;
using support::Transport;
using support::WaitFor;
using testing::ElementsAre;

namespace {

constexpr unsigned long PROGRAM = 100005;
constexpr int PORT = 1058;

class Service : public CNfsMain {
public:
    Service() { InitMemberVaribles("test", 0); }
    ~Service() override {
        StopServer();
        Terminate();
    }
};

class DatagramSocketTest : public testing::Test {
protected:
    DatagramSocketTest() { m_server.SetListener(&m_listener); }

    void Open(int port = PORT) {
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(m_server.Open(PROGRAM, port, &m_utilities, reason)) << reason;
    }
    static void ExpectEcho(RpcClient& client, std::uint8_t byte) {
        client.SendRaw({byte});
        EXPECT_THAT(client.ReceiveRaw(10), ElementsAre(byte));
    }
    // The descriptor of the UDP socket on the port; -1 when there is none.
    static int Descriptor() {
        for (const int fd : support::OpenFds()) {
            sockaddr_in own{};
            socklen_t size = sizeof own;
            int type = 0;
            socklen_t typeSize = sizeof type;
            if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size) == 0 &&
                own.sin_family == AF_INET && ntohs(own.sin_port) == PORT &&
                getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeSize) == 0 && type == SOCK_DGRAM) {
                return fd;
            }
        }
        return -1;
    }

    faults::Guard m_guard;
    RecordingUtilities m_utilities;
    ListenerSpy m_listener{Echo};
    CDatagramSocket m_server;
};

}  // namespace

TEST_F(DatagramSocketTest, ServesItsPortOnEveryAddress) {
    Open();
    EXPECT_EQ(m_server.GetPort(), PORT);
    sockaddr_in own{};
    socklen_t size = sizeof own;
    ASSERT_EQ(getsockname(Descriptor(), reinterpret_cast<sockaddr*>(&own), &size), 0);
    EXPECT_EQ(own.sin_addr.s_addr, htonl(INADDR_ANY));
    RpcClient client(Transport::Udp, PORT);
    ExpectEcho(client, 7);
}

TEST_F(DatagramSocketTest, TheListenerSeesADatagramSocketOfTheProgram) {
    Open();
    RpcClient client(Transport::Udp, PORT);
    ExpectEcho(client, 7);
    ASSERT_TRUE(m_listener.WaitForRounds(1));
    CSocket* socket = m_listener.Sockets().at(0);
    EXPECT_EQ(socket->GetType(), 2);
    EXPECT_EQ(socket->GetProgId(), PROGRAM);
    EXPECT_STREQ(socket->GetRemoteAddress(), "127.0.0.1");
    EXPECT_EQ(socket->GetRemotePort(), client.LocalPort());
}

TEST_F(DatagramSocketTest, EachReplyGoesToTheSenderOfTheDatagramJustReceived) {
    Open();
    RpcClient first(Transport::Udp, PORT);
    RpcClient second(Transport::Udp, PORT);
    for (std::uint8_t i = 0; i < 20; ++i) {
        ExpectEcho(i % 3 == 0 ? first : second, i);
    }
}

TEST_F(DatagramSocketTest, AnEmptyDatagramDoesNotEndTheService) {
    Open();
    RpcClient client(Transport::Udp, PORT);
    client.SendRaw({});
    ExpectEcho(client, 7);
    ASSERT_TRUE(m_listener.WaitForRounds(1));
    EXPECT_EQ(m_listener.Rounds(), 1u);
}

TEST_F(DatagramSocketTest, APortInUseIsRefused) {
    Open();
    const std::size_t fds = support::OpenFds().size();
    const std::size_t threads = ThreadCount();
    CDatagramSocket second;
    char reason[STATUS_SIZE] = "";
    EXPECT_FALSE(second.Open(PROGRAM, PORT, &m_utilities, reason));
    EXPECT_STREQ(reason, "Fail to bind datagram socket. Address already in use (98)");
    EXPECT_FALSE(second.Open(PROGRAM, PORT, &m_utilities, nullptr));
    EXPECT_EQ(support::OpenFds().size(), fds);
    EXPECT_EQ(ThreadCount(), threads);
    RpcClient client(Transport::Udp, PORT);
    ExpectEcho(client, 7);
}

TEST_F(DatagramSocketTest, NoAddressReuse) {
    Open();
    for (const int option : {SO_REUSEADDR, SO_REUSEPORT}) {
        int value = -1;
        socklen_t size = sizeof value;
        ASSERT_EQ(getsockopt(Descriptor(), SOL_SOCKET, option, &value, &size), 0);
        EXPECT_EQ(value, 0) << option;
    }
}

TEST_F(DatagramSocketTest, WithoutADescriptorTheReasonTellsOfTheCreation) {
    Open();  // sanitizers need descriptors when they see a class for the first time
    m_server.Close();
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    char reason[STATUS_SIZE] = "";
    EXPECT_FALSE(m_server.Open(PROGRAM, PORT, &m_utilities, reason));
    EXPECT_FALSE(m_server.Open(PROGRAM, PORT, &m_utilities, nullptr));
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_STREQ(reason, "Fail to create datagram socket. Too many open files (24)");
    Open();
}

TEST_F(DatagramSocketTest, WithoutAReceiveThreadTheOpeningFails) {
    (void)ThreadCount();  // before the creation of threads fails
    const std::size_t fds = support::OpenFds().size();
    faults::Fail(faults::Call::Thread, EAGAIN, faults::kAlways);
    char reason[STATUS_SIZE] = "";
    EXPECT_FALSE(m_server.Open(PROGRAM, PORT, &m_utilities, reason));
    EXPECT_STREQ(reason, "Fail to create datagram socket. Resource temporarily unavailable (11)");
    EXPECT_EQ(support::OpenFds().size(), fds);
    EXPECT_EQ(Descriptor(), -1);
    m_server.Close();
    faults::Clear(faults::Call::Thread);
    Open();
    RpcClient client(Transport::Udp, PORT);
    ExpectEcho(client, 7);
}

// Every port is served over TCP and UDP: six threads of three programs.
TEST_F(DatagramSocketTest, TheServiceDoesNotStartWithoutOneOfItsThreads) {
    Service service;
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(service.Initial(reason)) << reason;
    for (int threads = 0; threads < 6; ++threads) {
        SCOPED_TRACE(threads);
        reason[0] = '\0';
        faults::Pass(faults::Call::Thread, threads);
        faults::Fail(faults::Call::Thread, EAGAIN, faults::kAlways);
        EXPECT_FALSE(service.StartServer(0, 0, 0, 0, false, reason));
        faults::Clear(faults::Call::Thread);
        EXPECT_THAT(std::string(reason), testing::HasSubstr("daemon failed to open port"));
        EXPECT_EQ(Descriptor(), -1);
    }
    EXPECT_TRUE(service.StartServer(0, 0, 0, 0, false, reason)) << reason;
    EXPECT_NE(Descriptor(), -1);
}

TEST_F(DatagramSocketTest, OpeningAgainClosesWhatWasOpen) {
    Open(2050);
    const std::size_t fds = support::OpenFds().size();
    const std::size_t threads = ThreadCount();
    Open();
    EXPECT_EQ(support::OpenFds().size(), fds);
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
    EXPECT_EQ(m_server.GetPort(), PORT);
    RpcClient client(Transport::Udp, PORT);
    ExpectEcho(client, 7);
    CDatagramSocket other;
    EXPECT_TRUE(other.Open(PROGRAM, 2050, &m_utilities, nullptr));
}

TEST_F(DatagramSocketTest, CloseWakesAndJoinsTheReceivingThread) {
    const std::size_t fds = support::OpenFds().size();
    const std::size_t threads = ThreadCount();
    Open();
    EXPECT_EQ(ThreadCount(), threads + 1);
    m_server.Close();
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
    EXPECT_EQ(support::OpenFds().size(), fds);
    EXPECT_EQ(Descriptor(), -1);
}

TEST_F(DatagramSocketTest, CloseMayBeRepeatedAndThePortOpenedAgain) {
    m_server.Close();
    RpcClient client(Transport::Udp, PORT);
    for (std::uint8_t i = 0; i < 20; ++i) {
        Open();
        ExpectEcho(client, i);
        m_server.Close();
        m_server.Close();
    }
}

TEST_F(DatagramSocketTest, DestructionCloses) {
    const std::size_t fds = support::OpenFds().size();
    const std::size_t threads = ThreadCount();
    {
        CDatagramSocket server;
        server.SetListener(&m_listener);
        ASSERT_TRUE(server.Open(PROGRAM, PORT, &m_utilities, nullptr));
    }
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
    EXPECT_EQ(support::OpenFds().size(), fds);
}

TEST_F(DatagramSocketTest, DescriptorsAbove1023AreServed) {
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < 1100) {
        fillers.push_back(dup(STDOUT_FILENO));
        ASSERT_NE(fillers.back(), -1) << "the limit of open files is too low for this test";
    }
    Open();
    EXPECT_GT(Descriptor(), 1023);
    RpcClient client(Transport::Udp, PORT);
    ExpectEcho(client, 7);
    m_server.Close();
    for (const int fd : fillers) {
        close(fd);
    }
}
