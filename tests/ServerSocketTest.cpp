// ctest-labels: threaded
#include "ServerSocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/resource.h>

#include <condition_variable>
#include <csignal>
#include <future>
#include <map>
#include <memory>
#include <numeric>
#include <set>

#include "RecordingUtilities.h"
#include "RpcFixture.h"
#include "support/Faults.h"
#include "support/Nfs3Client.h"
#include "support/Server.h"

namespace faults = support::faults;

using support::Bytes;
using support::RpcClient;
using support::Transport;
using support::WaitFor;
using testing::ElementsAre;
using testing::StartsWith;

namespace {

constexpr unsigned long PROGRAM = 100003;
constexpr int PORT = 2049;
constexpr int SLOTS = 3;

// No more descriptors than are open now, until the end of the scope.
class NoMoreDescriptors {
public:
    NoMoreDescriptors() {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const int next = dup(STDOUT_FILENO);
        close(next);
        rlimit limit = m_before;
        limit.rlim_cur = static_cast<rlim_t>(next);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    rlimit m_before{};
};

// A client whose descriptor exists before it connects.
class RawClient {
public:
    RawClient() : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~RawClient() { close(m_fd); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // Connects and sends a byte.
    void Connect() const {
        const sockaddr_in address = MakeAddress("127.0.0.1", PORT);
        const char byte = 42;
        if (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            ADD_FAILURE() << "no connection";
        }
        EXPECT_EQ(send(m_fd, &byte, 1, MSG_NOSIGNAL), 1);
    }
    // Waits until the byte is sent back (true) or the connection ends.
    bool IsServed() const {
        pollfd entry{m_fd, POLLIN, 0};
        char byte = 0;
        return poll(&entry, 1, static_cast<int>(support::kPatience.count())) > 0 &&
               read(m_fd, &byte, 1) == 1;
    }

private:
    const int m_fd;
};

// The server's end of a client's connection; -1 when it has none.
int AcceptedDescriptor(const RpcClient& client) {
    for (const int fd : support::OpenFds()) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (fd != client.Fd() && getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
            peer.sin_family == AF_INET && ntohs(peer.sin_port) == client.LocalPort()) {
            return fd;
        }
    }
    return -1;
}

// Holds up the connections that have sent something, until each is released.
class HoldingListener : public ISocketListener {
public:
    // Echoes what a released connection has sent.
    void SocketReceived(CSocket* socket) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_held.push_back(socket);
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return m_all || m_released.contains(socket); });
        Echo(socket);
    }
    // The slot of the connection that came as the i-th.
    CSocket* WaitForHeld(std::size_t i) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, support::kPatience, [&] { return m_held.size() > i; })
                   ? m_held[i]
                   : nullptr;
    }
    void Release(CSocket* socket) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_released.insert(socket);
        m_changed.notify_all();
    }
    void ReleaseAll() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_all = true;
        m_changed.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<CSocket*> m_held;   // guarded by m_mutex
    std::set<CSocket*> m_released;  // guarded by m_mutex
    bool m_all = false;             // guarded by m_mutex
};

class ServerSocketTest : public testing::Test {
protected:
    ServerSocketTest() {
        (void)ThreadCount();  // before any test makes the creation of threads fail
        m_server.SetListener(&m_listener);
    }

    void Open(int slots = SLOTS, int port = PORT) {
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(m_server.Open(PROGRAM, port, slots, &m_utilities, reason)) << reason;
    }
    // The reason of an Open that must fail and leave nothing open.
    std::string Refusal() {
        const std::size_t fds = support::OpenFds().size();
        const std::size_t threads = ThreadCount();
        char reason[STATUS_SIZE] = "";
        EXPECT_FALSE(m_server.Open(PROGRAM, PORT, SLOTS, &m_utilities, reason));
        EXPECT_EQ(m_server.GetSocket(), -1);
        EXPECT_EQ(support::OpenFds().size(), fds);
        EXPECT_EQ(ThreadCount(), threads);
        return reason;
    }
    // Sends a byte, waits for it to come back, and tells which slot carried it.
    CSocket* Exchange(RpcClient& client) {
        const std::size_t rounds = m_listener.Rounds();
        client.SendRaw({42});
        EXPECT_THAT(client.ReceiveRaw(1), ElementsAre(42));
        EXPECT_TRUE(m_listener.WaitForRounds(rounds + 1));
        return m_listener.Sockets().at(rounds);
    }
    // Closes a connection and waits until its slot is free.
    static void End(RpcClient& client, const CSocket* slot) {
        client.Close();
        ASSERT_TRUE(WaitFor([slot] { return !slot->IsActive(); }));
    }

    faults::Guard m_guard;
    RecordingUtilities m_utilities;
    ListenerSpy m_listener{Echo};
    CServerSocket m_server;
};

using ServerSocketDeathTest = ServerSocketTest;

}  // namespace

// -------------------------------------------------------------------------------------------------
// Opening
// -------------------------------------------------------------------------------------------------

TEST_F(ServerSocketTest, ServesItsPortOnEveryAddress) {
    Open();
    EXPECT_EQ(m_server.GetPort(), PORT);
    sockaddr_in own{};
    socklen_t size = sizeof own;
    ASSERT_EQ(getsockname(m_server.GetSocket(), reinterpret_cast<sockaddr*>(&own), &size), 0);
    EXPECT_EQ(own.sin_family, AF_INET);
    EXPECT_EQ(own.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(ntohs(own.sin_port), PORT);

    RpcClient first(Transport::Tcp, PORT, "127.0.0.1");
    RpcClient second(Transport::Tcp, PORT, "127.0.0.2");
    EXPECT_STREQ(Exchange(first)->GetRemoteAddress(), "127.0.0.1");
    EXPECT_NE(Exchange(second), nullptr);
}

TEST_F(ServerSocketTest, AConnectionKnowsItsPeerItsTypeAndItsProgram) {
    Open();
    RpcClient client(Transport::Tcp, PORT);
    CSocket* slot = Exchange(client);
    EXPECT_EQ(slot->GetType(), 1);
    EXPECT_EQ(slot->GetProgId(), PROGRAM);
    EXPECT_STREQ(slot->GetRemoteAddress(), "127.0.0.1");
    EXPECT_EQ(slot->GetRemotePort(), client.LocalPort());
}

TEST_F(ServerSocketTest, BacklogIsTheNumberOfSlots) {
    Open(7);
    EXPECT_EQ(faults::LastBacklog(), 7);
}

TEST_F(ServerSocketTest, APortInUseIsRefused) {
    Open();
    CServerSocket second;
    char reason[STATUS_SIZE] = "";
    EXPECT_FALSE(second.Open(PROGRAM, PORT, SLOTS, &m_utilities, reason));
    EXPECT_STREQ(reason, "Fail to bind server socket. Address already in use (98)");
    EXPECT_EQ(second.GetSocket(), -1);
    EXPECT_FALSE(second.Open(PROGRAM, PORT, SLOTS, &m_utilities, nullptr));
    // The one that has the port is not disturbed.
    RpcClient client(Transport::Tcp, PORT);
    EXPECT_NE(Exchange(client), nullptr);
}

TEST_F(ServerSocketTest, ARefusedPortLeavesNothingOpen) {
    CServerSocket holder;
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(holder.Open(PROGRAM, PORT, SLOTS, &m_utilities, reason));
    EXPECT_EQ(Refusal(), "Fail to bind server socket. Address already in use (98)");
    holder.Close();
    Open();
}

TEST_F(ServerSocketTest, NoAddressReuse) {
    Open();
    for (const int option : {SO_REUSEADDR, SO_REUSEPORT}) {
        int value = -1;
        socklen_t size = sizeof value;
        ASSERT_EQ(getsockopt(m_server.GetSocket(), SOL_SOCKET, option, &value, &size), 0);
        EXPECT_EQ(value, 0) << option;
    }
}

TEST_F(ServerSocketTest, APortWithAConnectionThatTheServerHasJustClosedIsRefused) {
    Open();
    RpcClient client(Transport::Tcp, PORT);
    Exchange(client);
    m_server.Close();  // first, so that the connection lingers on this side
    EXPECT_TRUE(client.PeerClosed());
    client.Close();
    EXPECT_EQ(Refusal(), "Fail to bind server socket. Address already in use (98)");
}

TEST_F(ServerSocketTest, WithoutADescriptorTheReasonTellsOfTheCreation) {
    const NoMoreDescriptors limit;
    char reason[STATUS_SIZE] = "";
    EXPECT_FALSE(m_server.Open(PROGRAM, PORT, SLOTS, &m_utilities, reason));
    EXPECT_STREQ(reason, "Fail to create server socket. Too many open files (24)");
    EXPECT_FALSE(m_server.Open(PROGRAM, PORT, SLOTS, &m_utilities, nullptr));
}

TEST_F(ServerSocketTest, AFailingListenIsReportedAndFreesThePort) {
    faults::Fail(faults::Call::Listen, EADDRINUSE);
    EXPECT_EQ(Refusal(), "Fail to listen server socket. Address already in use (98)");
    Open();
}

TEST_F(ServerSocketTest, WithoutAnAcceptThreadTheOpeningFails) {
    faults::Fail(faults::Call::Thread, EAGAIN, faults::kAlways);
    EXPECT_EQ(Refusal(), "Fail to create server socket. Resource temporarily unavailable (11)");
    faults::Clear(faults::Call::Thread);
    Open();
}

TEST_F(ServerSocketTest, OpeningAgainClosesWhatWasOpen) {
    Open();
    RpcClient client(Transport::Tcp, PORT);
    Exchange(client);
    Open(SLOTS, 2050);
    EXPECT_TRUE(client.PeerClosed());
    EXPECT_THROW(RpcClient(Transport::Tcp, PORT), std::runtime_error);
    EXPECT_EQ(m_server.GetPort(), 2050);
    RpcClient next(Transport::Tcp, 2050);
    EXPECT_NE(Exchange(next), nullptr);
}

// -------------------------------------------------------------------------------------------------
// Accepting
// -------------------------------------------------------------------------------------------------

TEST_F(ServerSocketTest, AcceptedConnectionsSendWithoutDelay) {
    Open();
    RpcClient client(Transport::Tcp, PORT);
    Exchange(client);
    const int accepted = AcceptedDescriptor(client);
    ASSERT_NE(accepted, -1);
    int value = 0;
    socklen_t size = sizeof value;
    ASSERT_EQ(getsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &value, &size), 0);
    EXPECT_NE(value, 0);
}

TEST_F(ServerSocketTest, APeerThatHasGoneSilentlyIsNoticedWithinAMinute) {
    Open();
    RpcClient client(Transport::Tcp, PORT);
    Exchange(client);
    const int accepted = AcceptedDescriptor(client);
    ASSERT_NE(accepted, -1);
    const auto option = [&](int level, int name) {
        int value = -1;
        socklen_t size = sizeof value;
        EXPECT_EQ(getsockopt(accepted, level, name, &value, &size), 0);
        return value;
    };
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 30);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL), 5);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPCNT), 4);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), 50'000);
}

TEST_F(ServerSocketTest, EveryConnectionHasASlotOfItsOwn) {
    Open();
    RpcClient a(Transport::Tcp, PORT);
    CSocket* slotA = Exchange(a);
    RpcClient b(Transport::Tcp, PORT);
    CSocket* slotB = Exchange(b);
    RpcClient c(Transport::Tcp, PORT);
    CSocket* slotC = Exchange(c);
    EXPECT_NE(slotA, slotB);
    EXPECT_NE(slotB, slotC);
    EXPECT_NE(slotA, slotC);
    // Each stays where it is.
    EXPECT_EQ(Exchange(b), slotB);
    EXPECT_EQ(Exchange(a), slotA);
    EXPECT_EQ(Exchange(c), slotC);
}

TEST_F(ServerSocketTest, TheFirstFreeSlotIsTakenInArrayOrder) {
    Open();
    RpcClient a(Transport::Tcp, PORT);
    CSocket* slotA = Exchange(a);
    RpcClient b(Transport::Tcp, PORT);
    CSocket* slotB = Exchange(b);
    RpcClient c(Transport::Tcp, PORT);
    CSocket* slotC = Exchange(c);

    // One free slot in the middle.
    End(b, slotB);
    RpcClient d(Transport::Tcp, PORT);
    EXPECT_EQ(Exchange(d), slotB);

    // All free, freed from the last to the first: the order is the array's, not that of the ends.
    End(c, slotC);
    End(d, slotB);
    End(a, slotA);
    RpcClient e(Transport::Tcp, PORT);
    EXPECT_EQ(Exchange(e), slotA);
    RpcClient f(Transport::Tcp, PORT);
    EXPECT_EQ(Exchange(f), slotB);
    RpcClient g(Transport::Tcp, PORT);
    EXPECT_EQ(Exchange(g), slotC);
}

TEST_F(ServerSocketTest, TheDescriptorOfAnEndedConnectionStaysOpenUntilItsSlotIsUsedAgain) {
    Open();
    RpcClient first(Transport::Tcp, PORT);
    CSocket* slot = Exchange(first);
    const int old = AcceptedDescriptor(first);
    ASSERT_NE(old, -1);
    End(first, slot);
    EXPECT_TRUE(IsOpen(old));

    RpcClient second(Transport::Tcp, PORT);
    EXPECT_EQ(Exchange(second), slot);
    EXPECT_FALSE(IsOpen(old));
}

TEST_F(ServerSocketTest, UnreadInputStaysInTheSlotForTheNextConnection) {
    std::mutex mutex;
    Bytes unread;
    ListenerSpy keeping([&](CSocket* socket) {
        const CInputStream* in = socket->GetInputStream();
        const std::lock_guard<std::mutex> lock(mutex);
        unread.assign(in->GetCurrentBuffer(), in->GetCurrentBuffer() + in->GetFilledBufferSize());
    });
    CServerSocket server;
    server.SetListener(&keeping);
    ASSERT_TRUE(server.Open(PROGRAM, PORT, SLOTS, &m_utilities, nullptr));
    RpcClient first(Transport::Tcp, PORT);
    first.SendRaw({1, 2, 3});
    ASSERT_TRUE(keeping.WaitForRounds(1));
    End(first, keeping.Sockets().at(0));
    RpcClient second(Transport::Tcp, PORT);
    second.SendRaw({4});
    ASSERT_TRUE(keeping.WaitForRounds(2));
    const std::lock_guard<std::mutex> lock(mutex);
    EXPECT_THAT(unread, ElementsAre(1, 2, 3, 4));
}

TEST_F(ServerSocketTest, UnsentOutputGoesToTheNextConnectionOfTheSlot) {
    Open();
    faults::Skip(faults::Call::Send, 1,
                 faults::On::OtherThreads);  // the first connection's answer is not taken
    RpcClient first(Transport::Tcp, PORT);
    first.SendRaw({1, 2});
    ASSERT_TRUE(m_listener.WaitForRounds(1));
    End(first, m_listener.Sockets().at(0));
    RpcClient second(Transport::Tcp, PORT);
    second.SendRaw({3});
    ASSERT_TRUE(m_listener.WaitForRounds(2));
    EXPECT_THAT(second.ReceiveRaw(10), testing::Contains(1));
}

TEST_F(ServerSocketTest, AFailedAcceptIsTriedAgain) {
    Open();
    RpcClient before(Transport::Tcp, PORT);
    Exchange(before);  // sanitizers need descriptors when they see a class for the first time
    const RawClient first;
    const RawClient second;
    {
        const NoMoreDescriptors limit;
        // One of them may get the number that a waiting accept has set aside.
        first.Connect();
        second.Connect();
        // The accept thread is at work with a connection that it cannot take: its time grows.
        const auto busy = [] {
            timespec used{};
            clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
            return used.tv_sec * 1000 + used.tv_nsec / 1'000'000;
        };
        const auto start = busy();
        ASSERT_TRUE(WaitFor([&] { return busy() > start + 20; }));
        EXPECT_LE(m_listener.Rounds(), 2u);
    }
    EXPECT_TRUE(first.IsServed());
    EXPECT_TRUE(second.IsServed());
}

TEST_F(ServerSocketTest, AConnectionWithTheNumberOfStandardInputCountsAsAFailure) {
    Open();
    const std::vector<RawClient> clients(SLOTS);
    const int input = dup(STDIN_FILENO);
    ASSERT_NE(input, -1);
    close(STDIN_FILENO);
    // The first may still get the number that a waiting accept has set aside; then the second gets
    // the free one. Only that client is told that it is not served.
    std::vector<bool> served;
    for (const RawClient& client : clients) {
        client.Connect();
        served.push_back(client.IsServed());
    }
    EXPECT_EQ(std::count(served.begin(), served.end(), false), 1);
    EXPECT_TRUE(served.back());
    dup2(input, STDIN_FILENO);
    close(input);
}

TEST_F(ServerSocketTest, DescriptorsAbove1023AreServed) {
    std::vector<int> fillers;
    while (fillers.empty() || fillers.back() < 1100) {
        fillers.push_back(dup(STDOUT_FILENO));
        ASSERT_NE(fillers.back(), -1) << "the limit of open files is too low for this test";
    }
    Open();
    EXPECT_GT(m_server.GetSocket(), 1023);
    RpcClient client(Transport::Tcp, PORT);
    EXPECT_NE(Exchange(client), nullptr);
    EXPECT_GT(AcceptedDescriptor(client), 1023);
    client.Close();
    m_server.Close();
    for (const int fd : fillers) {
        close(fd);
    }
}

TEST_F(ServerSocketTest, AllSlotsMayBeActive) {
    Open(10);
    std::vector<std::unique_ptr<RpcClient>> clients;
    for (int i = 0; i < 10; ++i) {
        clients.push_back(std::make_unique<RpcClient>(Transport::Tcp, PORT));
        EXPECT_NE(Exchange(*clients.back()), nullptr);
    }
    for (const auto& client : clients) {
        EXPECT_NE(Exchange(*client), nullptr);
    }
}

TEST_F(ServerSocketTest, ConnectionsOneAfterAnotherAlwaysFindASlot) {
    Open(1);
    for (int i = 0; i < 500; ++i) {
        RpcClient client(Transport::Tcp, PORT);
        EXPECT_NE(Exchange(client), nullptr);
    }
}

TEST_F(ServerSocketTest, AConnectionWaitsForTheSlotOfAPeerThatHasClosed) {
    HoldingListener listener;
    CServerSocket server;
    server.SetListener(&listener);
    ASSERT_TRUE(server.Open(PROGRAM, PORT, 2, &m_utilities, nullptr));
    const RpcClient living(Transport::Tcp, PORT);
    CSocket* slot = nullptr;
    {
        RpcClient closed(Transport::Tcp, PORT);
        closed.SendRaw({1});
        slot = listener.WaitForHeld(0);
        ASSERT_NE(slot, nullptr);
    }
    RpcClient next(Transport::Tcp, PORT);
    next.SendRaw({42});
    // The accept thread has it, and no slot for it yet.
    ASSERT_TRUE(WaitFor([&] { return AcceptedDescriptor(next) != -1; }));
    EXPECT_TRUE(slot->IsActive());
    listener.Release(slot);
    EXPECT_EQ(listener.WaitForHeld(1), slot);
    EXPECT_THAT(next.ReceiveRaw(1), ElementsAre(42));
}

TEST_F(ServerSocketTest, AStopDoesNotWaitForASlot) {
    HoldingListener listener;
    CServerSocket server;
    server.SetListener(&listener);
    ASSERT_TRUE(server.Open(PROGRAM, PORT, 1, &m_utilities, nullptr));
    {
        RpcClient closed(Transport::Tcp, PORT);
        closed.SendRaw({1});
        ASSERT_NE(listener.WaitForHeld(0), nullptr);
    }
    RpcClient next(Transport::Tcp, PORT);
    ASSERT_TRUE(WaitFor([&] { return AcceptedDescriptor(next) != -1; }));
    std::future<void> stop = std::async(std::launch::async, [&] { server.Interrupt(); });
    EXPECT_EQ(stop.wait_for(support::kPatience), std::future_status::ready);
    EXPECT_TRUE(next.PeerClosed());
    listener.ReleaseAll();
}

TEST_F(ServerSocketDeathTest, AConnectionWaitsForASlotForAMinuteOnly) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto overflow = [this] {
        HoldingListener listener;
        CServerSocket server;
        server.SetListener(&listener);
        server.Open(PROGRAM, PORT, 1, &m_utilities, nullptr);
        {
            RpcClient closed(Transport::Tcp, PORT);
            closed.SendRaw({1});
            listener.WaitForHeld(0);
        }
        faults::Skip(faults::Call::Sleep, faults::kAlways, faults::On::OtherThreads);
        const RpcClient next(Transport::Tcp, PORT);
        (void)WaitFor([] { return false; });
        listener.ReleaseAll();
    };
    EXPECT_EXIT(overflow(), testing::KilledBySignal(SIGABRT), "i < m_nMaxNum");
}

TEST_F(ServerSocketDeathTest, AConnectionWithoutASlotEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto overflow = [this] {
        Open(2);
        RpcClient first(Transport::Tcp, PORT);
        Exchange(first);
        RpcClient second(Transport::Tcp, PORT);
        Exchange(second);
        RpcClient third(Transport::Tcp, PORT);
        (void)WaitFor([] { return false; });
    };
    EXPECT_EXIT(overflow(), testing::KilledBySignal(SIGABRT),
                "i < m_nMaxNum.*Run.*src/ServerSocket");
}

// The slots of the server's own ports, counted in connections to the real program.
struct Service {
    const char* name;
    int port;
    std::uint32_t program;
    std::uint32_t version;
    int slots;
};

class ServiceSlotsTest : public testing::TestWithParam<Service> {};

TEST_P(ServiceSlotsTest, OneConnectionMoreEndsTheServer) {
    const Service& service = GetParam();
    support::Server server;
    std::vector<std::unique_ptr<RpcClient>> clients;
    for (int i = 0; i < service.slots; ++i) {
        clients.push_back(std::make_unique<RpcClient>(Transport::Tcp, service.port));
        EXPECT_TRUE(clients.back()->TryCall(service.program, service.version, 0));
    }
    const RpcClient oneMore(Transport::Tcp, service.port);
    EXPECT_EQ(server.WaitForDeath(), support::ExitStatus::Signal(SIGABRT));
    EXPECT_THAT(server.Output(), testing::HasSubstr("i < m_nMaxNum"));
}

INSTANTIATE_TEST_SUITE_P(Ports, ServiceSlotsTest,
                         testing::Values(Service{"Portmapper", 111, support::kPortmapProgram, 2, 3},
                                         Service{"Nfs", 2049, support::kNfsProgram, 3, 10},
                                         Service{"Mount", 1058, support::kMountProgram, 3, 3}),
                         [](const auto& info) { return std::string(info.param.name); });

// -------------------------------------------------------------------------------------------------
// Closing
// -------------------------------------------------------------------------------------------------

TEST_F(ServerSocketTest, CloseWakesAndJoinsTheThreadInAccept) {
    const std::size_t threads = ThreadCount();
    const std::size_t fds = support::OpenFds().size();
    Open();
    EXPECT_EQ(ThreadCount(), threads + 1);
    m_server.Close();
    EXPECT_EQ(m_server.GetSocket(), -1);
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
    EXPECT_EQ(support::OpenFds().size(), fds);
    EXPECT_THROW(RpcClient(Transport::Tcp, PORT), std::runtime_error);
}

TEST_F(ServerSocketTest, CloseEndsEveryConnectionAndJoinsItsThread) {
    const std::size_t threads = ThreadCount();
    const std::size_t fds = support::OpenFds().size();
    Open();
    std::vector<std::unique_ptr<RpcClient>> clients;
    for (int i = 0; i < SLOTS; ++i) {
        clients.push_back(std::make_unique<RpcClient>(Transport::Tcp, PORT));
        Exchange(*clients.back());
    }
    EXPECT_EQ(ThreadCount(), threads + 1 + SLOTS);
    m_server.Close();
    for (const auto& client : clients) {
        EXPECT_TRUE(client->PeerClosed());
    }
    clients.clear();
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
    EXPECT_EQ(support::OpenFds().size(), fds);
}

TEST_F(ServerSocketTest, CloseReleasesDescriptorsOfConnectionsThatEndedBefore) {
    const std::size_t fds = support::OpenFds().size();
    Open();
    RpcClient client(Transport::Tcp, PORT);
    CSocket* slot = Exchange(client);
    End(client, slot);
    m_server.Close();
    EXPECT_EQ(support::OpenFds().size(), fds);
}

TEST_F(ServerSocketTest, CloseMayBeRepeatedAndThePortOpenedAgain) {
    m_server.Close();
    for (int i = 0; i < 3; ++i) {
        Open();
        m_server.Close();
        m_server.Close();
    }
}

TEST_F(ServerSocketTest, DestructionCloses) {
    const std::size_t threads = ThreadCount();
    const std::size_t fds = support::OpenFds().size();
    {
        CServerSocket server;
        server.SetListener(&m_listener);
        ASSERT_TRUE(server.Open(PROGRAM, PORT, SLOTS, &m_utilities, nullptr));
    }
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
    EXPECT_EQ(support::OpenFds().size(), fds);
}

TEST_F(ServerSocketTest, CloseWhileConnectionsComeAndGo) {
    for (int i = 0; i < 20; ++i) {
        Open(10, 3000 + i);
        std::atomic<bool> stop{false};
        std::future<void> clients = std::async(std::launch::async, [&stop, i] {
            while (!stop) {
                try {
                    RpcClient client(Transport::Tcp, 3000 + i);
                    client.SendRaw({1});
                    client.ReceiveRaw(1);
                } catch (const std::runtime_error&) {
                    // The port is closed.
                }
            }
        });
        ASSERT_TRUE(m_listener.WaitForRounds(m_listener.Rounds() + 1));
        m_server.Close();
        stop = true;
        clients.get();
    }
}
