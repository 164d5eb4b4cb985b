// ctest-labels: threaded
#include "Socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/resource.h>

#include <cerrno>
#include <future>

#include "RpcFixture.h"
#include "support/Faults.h"

namespace faults = support::faults;

using support::Bytes;
using support::ToBytes;
using support::WaitFor;
using testing::ElementsAre;

namespace {

constexpr std::uint32_t BUFFER_SIZE = 1'048'576;
constexpr unsigned long PROGRAM = 100003;

// A local stream pair; the first end is the test's, the second is given away.
struct StreamPair {
    StreamPair() {
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
            throw std::runtime_error("no socket pair");
        }
    }
    ~StreamPair() { Disappear(); }
    StreamPair(const StreamPair&) = delete;
    StreamPair& operator=(const StreamPair&) = delete;

    int Given() const { return fds[1]; }
    bool Write(const Bytes& bytes) const {
        std::size_t written = 0;
        while (written < bytes.size()) {
            const ssize_t count = write(fds[0], bytes.data() + written, bytes.size() - written);
            if (count <= 0) {
                return false;
            }
            written += static_cast<std::size_t>(count);
        }
        return true;
    }
    // Waits for so many bytes.
    Bytes Read(std::size_t size) const {
        Bytes bytes;
        while (bytes.size() < size) {
            pollfd entry{fds[0], POLLIN, 0};
            Bytes more(size - bytes.size());
            const ssize_t count = poll(&entry, 1, static_cast<int>(support::kPatience.count())) > 0
                                      ? read(fds[0], more.data(), more.size())
                                      : 0;
            if (count <= 0) {
                break;
            }
            bytes.insert(bytes.end(), more.begin(), more.begin() + count);
        }
        return bytes;
    }
    void Disappear() {
        if (fds[0] != -1) {
            close(fds[0]);
            fds[0] = -1;
        }
    }

    int fds[2] = {-1, -1};
};

// A UDP socket of the test's own, bound to a port of the loopback interface, and its address.
struct UdpEnd {
    UdpEnd() : fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        address = MakeAddress("127.0.0.1", 0);
        socklen_t size = sizeof address;
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw std::runtime_error("no UDP socket");
        }
    }
    ~UdpEnd() {
        if (fd != -1) {
            close(fd);
        }
    }
    UdpEnd(const UdpEnd&) = delete;
    UdpEnd& operator=(const UdpEnd&) = delete;

    int Give() { return std::exchange(fd, -1); }
    int Port() const { return ntohs(address.sin_port); }
    bool SendTo(const UdpEnd& peer, const Bytes& bytes) const {
        return sendto(fd, bytes.data(), bytes.size(), 0,
                      reinterpret_cast<const sockaddr*>(&peer.address),
                      sizeof peer.address) == static_cast<ssize_t>(bytes.size());
    }
    Bytes Receive() const {
        pollfd entry{fd, POLLIN, 0};
        Bytes bytes(65536);
        const ssize_t count = poll(&entry, 1, static_cast<int>(support::kPatience.count())) > 0
                                  ? recv(fd, bytes.data(), bytes.size(), 0)
                                  : 0;
        bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return bytes;
    }

    int fd;
    sockaddr_in address;
};

// What is still to be sent.
Bytes Unsent(CSocket& socket) {
    const COutputStream* out = socket.GetOutputStream();
    return Bytes(out->GetBuffer(), out->GetBuffer() + out->GetBufferSize());
}

void Put(CSocket& socket, const Bytes& bytes) {
    socket.GetOutputStream()->Write(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

// Sends on a thread of its own, as the server does: the plans for sends concern such threads only.
void SendFromThread(CSocket& socket) {
    std::async(std::launch::async, [&socket] { socket.Send(); }).get();
}

class SocketTest : public testing::Test {
protected:
    faults::Guard m_guard;
};

}  // namespace

// -------------------------------------------------------------------------------------------------
// State
// -------------------------------------------------------------------------------------------------

TEST_F(SocketTest, IsClosedAndEmptyAtFirst) {
    CSocket tcp(SOCKET_TYPE_TCP, 100005);
    EXPECT_EQ(tcp.GetType(), 1);
    EXPECT_EQ(tcp.GetProgId(), 100005u);
    EXPECT_FALSE(tcp.IsActive());
    EXPECT_STREQ(tcp.GetRemoteAddress(), "0.0.0.0");
    EXPECT_EQ(tcp.GetRemotePort(), 0);
    EXPECT_EQ(tcp.GetInputStream()->GetFilledBufferSize(), 0u);
    EXPECT_EQ(tcp.GetOutputStream()->GetBufferSize(), 0u);
    EXPECT_EQ(CSocket(SOCKET_TYPE_UDP, 100000).GetType(), 2);
}

TEST_F(SocketTest, IsDestroyedVirtually) { static_assert(std::has_virtual_destructor_v<CSocket>); }

TEST_F(SocketTest, LastErrorIsTheSystems) {
    errno = ENOENT;
    EXPECT_EQ(SocketGetLastError(), ENOENT);
    errno = ECONNRESET;
    EXPECT_EQ(SocketGetLastError(), ECONNRESET);
}

TEST_F(SocketTest, OpenTakesTheAddressItIsGiven) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    const sockaddr_in address = MakeAddress("198.51.100.23", 1021);
    socket.Open(pair.Given(), &listener, &address);
    EXPECT_TRUE(socket.IsActive());
    EXPECT_STREQ(socket.GetRemoteAddress(), "198.51.100.23");
    EXPECT_EQ(socket.GetRemotePort(), 1021);
}

TEST_F(SocketTest, OpenWithoutAnAddressKeepsTheLastOne) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair first;
    const StreamPair second;
    const sockaddr_in address = MakeAddress("198.51.100.23", 1021);
    socket.Open(first.Given(), &listener, &address);
    socket.Open(second.Given(), &listener, nullptr);
    EXPECT_STREQ(socket.GetRemoteAddress(), "198.51.100.23");
}

TEST_F(SocketTest, OpenWithoutADescriptorStartsNothing) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const std::size_t threads = ThreadCount();
    const sockaddr_in address = MakeAddress("198.51.100.23", 1021);
    socket.Open(-1, &listener, &address);
    EXPECT_FALSE(socket.IsActive());
    EXPECT_EQ(ThreadCount(), threads);
    EXPECT_STREQ(socket.GetRemoteAddress(), "198.51.100.23");
}

TEST_F(SocketTest, WithoutAReceiveThreadTheSlotIsFreeAgain) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair first;
    faults::Fail(faults::Call::Thread, EAGAIN, faults::kAlways);
    EXPECT_FALSE(socket.Open(first.Given(), &listener, nullptr));
    EXPECT_EQ(errno, EAGAIN);
    faults::Clear(faults::Call::Thread);
    EXPECT_FALSE(socket.IsActive());
    EXPECT_FALSE(IsOpen(first.Given()));

    const StreamPair second;
    EXPECT_TRUE(socket.Open(second.Given(), &listener, nullptr));
    ASSERT_TRUE(second.Write({1}));
    EXPECT_TRUE(listener.WaitForRounds(1));
}

// -------------------------------------------------------------------------------------------------
// Receiving
// -------------------------------------------------------------------------------------------------

TEST_F(SocketTest, ReceivedBytesAreAddedAndTheListenerIsTold) {
    Bytes seen;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    ListenerSpy listener([&](CSocket* received) {
        EXPECT_EQ(received, &socket);
        seen = ListenerSpy::TakeAll(received);
    });
    const StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    ASSERT_TRUE(pair.Write({1, 2, 3}));
    ASSERT_TRUE(listener.WaitForRounds(1));
    EXPECT_THAT(seen, ElementsAre(1, 2, 3));
    socket.Close();
}

TEST_F(SocketTest, UnreadBytesAreCompactedInFrontOfWhatComesNext) {
    std::vector<Bytes> unread;
    std::vector<std::uint32_t> indexes;
    std::vector<std::uint32_t> rooms;
    ListenerSpy listener([&](CSocket* socket) {
        CInputStream* in = socket->GetInputStream();
        indexes.push_back(in->GetBufferIndex());
        rooms.push_back(in->GetFreeBufferSize());
        unread.emplace_back(in->GetCurrentBuffer(),
                            in->GetCurrentBuffer() + in->GetFilledBufferSize());
        in->Skip(1);
    });
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    ASSERT_TRUE(pair.Write({1, 2, 3}));
    ASSERT_TRUE(listener.WaitForRounds(1));
    ASSERT_TRUE(pair.Write({4}));
    ASSERT_TRUE(listener.WaitForRounds(2));
    EXPECT_THAT(unread, ElementsAre(Bytes{1, 2, 3}, Bytes{2, 3, 4}));
    EXPECT_THAT(indexes, ElementsAre(0, 0));
    EXPECT_THAT(rooms, ElementsAre(BUFFER_SIZE - 3, BUFFER_SIZE - 3));
    socket.Close();
}

TEST_F(SocketTest, APeerThatClosesEndsTheLoopAndLeavesTheDescriptorOpen) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    pair.Disappear();
    ASSERT_TRUE(WaitFor([&] { return !socket.IsActive(); }));
    EXPECT_TRUE(IsOpen(pair.Given()));
    EXPECT_EQ(listener.Rounds(), 0u);

    const int old = pair.Given();
    const StreamPair next;
    socket.Open(next.Given(), &listener, nullptr);
    EXPECT_FALSE(IsOpen(old));
    EXPECT_TRUE(socket.IsActive());
}

TEST_F(SocketTest, APeerHasClosedOnceItSendsNoMore) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    ListenerSpy listener([&](CSocket*) { released.wait(); });  // before the end is received
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    EXPECT_FALSE(socket.IsPeerClosed());
    StreamPair half;
    socket.Open(half.Given(), &listener, nullptr);
    EXPECT_FALSE(socket.IsPeerClosed());
    ASSERT_TRUE(half.Write({1}));
    EXPECT_FALSE(socket.IsPeerClosed());
    shutdown(half.fds[0], SHUT_WR);
    EXPECT_TRUE(socket.IsPeerClosed());
    EXPECT_TRUE(socket.IsActive());
    release.set_value();
    EXPECT_TRUE(WaitFor([&] { return !socket.IsActive(); }));

    StreamPair whole;
    socket.Open(whole.Given(), &listener, nullptr);
    whole.Disappear();
    EXPECT_TRUE(socket.IsPeerClosed());
}

TEST_F(SocketTest, AReceiveErrorEndsTheLoop) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    socket.Open(fds[0], &listener, nullptr);  // not a socket: recv fails
    EXPECT_TRUE(WaitFor([&] { return !socket.IsActive(); }));
    EXPECT_EQ(listener.Rounds(), 0u);
    close(fds[1]);
}

TEST_F(SocketTest, AnInterruptedReceiveIsTakenUpAgain) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    faults::Fail(faults::Call::Recv, EINTR, 3, faults::On::OtherThreads);
    socket.Open(pair.Given(), &listener, nullptr);
    ASSERT_TRUE(pair.Write({1}));
    EXPECT_TRUE(listener.WaitForRounds(1));
    EXPECT_GE(faults::Count(faults::Call::Recv, faults::On::OtherThreads), 4);
}

TEST_F(SocketTest, StreamsKeepWhatAConnectionLeftInThem) {
    Bytes unread;
    ListenerSpy listener([&](CSocket* socket) {
        CInputStream* in = socket->GetInputStream();
        unread.assign(in->GetCurrentBuffer(), in->GetCurrentBuffer() + in->GetFilledBufferSize());
        Put(*socket, {static_cast<std::uint8_t>(unread.size())});
    });
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    StreamPair first;
    socket.Open(first.Given(), &listener, nullptr);
    ASSERT_TRUE(first.Write({1, 2, 3}));
    ASSERT_TRUE(listener.WaitForRounds(1));
    first.Disappear();
    ASSERT_TRUE(WaitFor([&] { return !socket.IsActive(); }));

    const StreamPair second;
    socket.Open(second.Given(), &listener, nullptr);
    ASSERT_TRUE(second.Write({4}));
    ASSERT_TRUE(listener.WaitForRounds(2));
    EXPECT_THAT(unread, ElementsAre(1, 2, 3, 4));
    socket.Send();
    EXPECT_THAT(second.Read(2), ElementsAre(3, 4));
    socket.Close();
}

TEST_F(SocketTest, AFullInputBufferEndsTheTcpLoop) {
    std::atomic<std::uint32_t> filled{0};
    ListenerSpy listener([&](CSocket* socket) {  // takes nothing
        filled = socket->GetInputStream()->GetFilledBufferSize();
    });
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    ASSERT_TRUE(pair.Write(Bytes(BUFFER_SIZE - 1, 7)));
    ASSERT_TRUE(WaitFor([&] { return filled == BUFFER_SIZE - 1; }));
    EXPECT_TRUE(socket.IsActive());
    ASSERT_TRUE(pair.Write({1, 2, 3}));  // one byte fits
    ASSERT_TRUE(WaitFor([&] { return !socket.IsActive(); }));
    socket.Close();
    EXPECT_EQ(socket.GetInputStream()->GetFilledBufferSize(), BUFFER_SIZE);
    EXPECT_EQ(socket.GetInputStream()->GetCurrentBuffer()[BUFFER_SIZE - 1], 1);
}

TEST_F(SocketTest, AFullInputBufferEndsTheUdpLoop) {
    std::atomic<std::uint32_t> filled{0};
    ListenerSpy listener([&](CSocket* socket) {  // takes nothing
        filled = socket->GetInputStream()->GetFilledBufferSize();
    });
    CSocket socket(SOCKET_TYPE_UDP, PROGRAM);
    UdpEnd server;
    const UdpEnd client;
    socket.Open(server.Give(), &listener, nullptr);
    const Bytes datagram(65'000, 7);
    for (std::uint32_t sent = 0; sent < BUFFER_SIZE; sent += 65'000) {
        ASSERT_TRUE(client.SendTo(server, datagram));
        const std::uint32_t expected = std::min(sent + 65'000, BUFFER_SIZE);
        ASSERT_TRUE(WaitFor([&] { return filled == expected; })) << expected;
    }
    EXPECT_TRUE(WaitFor([&] { return !socket.IsActive(); }));
}

// -------------------------------------------------------------------------------------------------
// UDP
// -------------------------------------------------------------------------------------------------

TEST_F(SocketTest, ADatagramIsAnsweredToItsSender) {
    ListenerSpy listener(Echo);
    CSocket socket(SOCKET_TYPE_UDP, PROGRAM);
    UdpEnd server;
    const UdpEnd first;
    const UdpEnd second;
    socket.Open(server.Give(), &listener, nullptr);
    for (std::uint8_t i = 0; i < 10; ++i) {
        const UdpEnd& client = i % 3 == 0 ? first : second;
        ASSERT_TRUE(client.SendTo(server, {i}));
        EXPECT_THAT(client.Receive(), ElementsAre(i));
        ASSERT_TRUE(listener.WaitForRounds(i + std::size_t{1}));
        EXPECT_STREQ(socket.GetRemoteAddress(), "127.0.0.1");
        EXPECT_EQ(socket.GetRemotePort(), client.Port());
    }
}

TEST_F(SocketTest, AnEmptyDatagramIsIgnored) {
    ListenerSpy listener(Echo);
    CSocket socket(SOCKET_TYPE_UDP, PROGRAM);
    UdpEnd server;
    const UdpEnd client;
    socket.Open(server.Give(), &listener, nullptr);
    ASSERT_TRUE(client.SendTo(server, {}));
    ASSERT_TRUE(client.SendTo(server, {}));
    ASSERT_TRUE(client.SendTo(server, {5}));
    EXPECT_THAT(client.Receive(), ElementsAre(5));
    ASSERT_TRUE(listener.WaitForRounds(1));
    EXPECT_EQ(listener.Rounds(), 1u);
    EXPECT_TRUE(socket.IsActive());
}

TEST_F(SocketTest, ADatagramThatCannotBeSentIsNotPutInFrontOfTheNext) {
    bool large = true;
    ListenerSpy listener([&](CSocket* socket) {
        ListenerSpy::TakeAll(socket);
        Put(*socket, large ? Bytes(70'000, 1) : Bytes{2});
        socket->Send();
        large = false;
    });
    CSocket socket(SOCKET_TYPE_UDP, PROGRAM);
    UdpEnd server;
    const UdpEnd client;
    socket.Open(server.Give(), &listener, nullptr);
    ASSERT_TRUE(client.SendTo(server, {1}));
    ASSERT_TRUE(client.SendTo(server, {1}));
    EXPECT_THAT(client.Receive(), ElementsAre(2));
    ASSERT_TRUE(listener.WaitForRounds(2));
}

// -------------------------------------------------------------------------------------------------
// Sending
// -------------------------------------------------------------------------------------------------

TEST_F(SocketTest, SendTakesTheWholeExtentWhereverTheIndexIs) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    Put(socket, {1, 2, 3, 4, 5});
    socket.GetOutputStream()->Seek(2, 0);
    socket.Send();
    EXPECT_THAT(pair.Read(5), ElementsAre(1, 2, 3, 4, 5));
    EXPECT_EQ(socket.GetOutputStream()->GetBufferSize(), 0u);
    EXPECT_EQ(socket.GetOutputStream()->GetBufferIndex(), 0u);
}

TEST_F(SocketTest, SendWithoutADescriptorKeepsTheOutput) {
    faults::Clear(faults::Call::Send, faults::On::OtherThreads);
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    Put(socket, {1, 2});
    SendFromThread(socket);
    EXPECT_THAT(Unsent(socket), ElementsAre(1, 2));
    EXPECT_TRUE(faults::Sizes(faults::Call::Send, faults::On::OtherThreads).empty());
}

TEST_F(SocketTest, SendOfNothingDoesNotReachTheSystem) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    faults::Clear(faults::Call::Send, faults::On::OtherThreads);
    SendFromThread(socket);
    EXPECT_TRUE(faults::Sizes(faults::Call::Send, faults::On::OtherThreads).empty());
    Put(socket, {1, 2});
    SendFromThread(socket);
    EXPECT_THAT(faults::Sizes(faults::Call::Send, faults::On::OtherThreads), ElementsAre(2));
}

TEST_F(SocketTest, APartialSendLeavesTheRestForTheNextOne) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    faults::Shorten(faults::Call::Send, 2, 1, faults::On::OtherThreads);
    Put(socket, {1, 2, 3, 4, 5});
    SendFromThread(socket);
    EXPECT_THAT(Unsent(socket), ElementsAre(3, 4, 5));

    socket.GetOutputStream()->Seek(0, 2);
    Put(socket, {6});
    SendFromThread(socket);
    EXPECT_THAT(pair.Read(6), ElementsAre(1, 2, 3, 4, 5, 6));
    EXPECT_THAT(faults::Sizes(faults::Call::Send, faults::On::OtherThreads),
                ElementsAre(5, 4));  // one call of the system each
    EXPECT_EQ(socket.GetOutputStream()->GetBufferSize(), 0u);
}

TEST_F(SocketTest, ASendErrorIsIgnoredAndLosesNothing) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    faults::Fail(faults::Call::Send, EAGAIN, 1, faults::On::OtherThreads);
    faults::Skip(faults::Call::Send, 1, faults::On::OtherThreads);
    Put(socket, {1, 2, 3});
    SendFromThread(socket);
    SendFromThread(socket);
    EXPECT_THAT(Unsent(socket), ElementsAre(1, 2, 3));
    EXPECT_TRUE(socket.IsActive());
    SendFromThread(socket);
    EXPECT_THAT(pair.Read(3), ElementsAre(1, 2, 3));
}

TEST_F(SocketTest, APeerThatDisappearsDoesNotEndTheProcess) {
    std::promise<void> gone;
    ListenerSpy listener([&](CSocket* socket) {
        ListenerSpy::TakeAll(socket);
        gone.get_future().wait();
        // The first is refused because of the reset, the second because the connection has ended:
        // the latter raises SIGPIPE unless the sender asks for none.
        for (int i = 0; i < 2; ++i) {
            Put(*socket, {1});
            socket->Send();
        }
    });
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    ASSERT_TRUE(pair.Write({1}));
    pair.Disappear();
    gone.set_value();
    EXPECT_TRUE(listener.WaitForRounds(1));
    EXPECT_TRUE(WaitFor([&] { return !socket.IsActive(); }));
}

// -------------------------------------------------------------------------------------------------
// Closing
// -------------------------------------------------------------------------------------------------

TEST_F(SocketTest, CloseWakesAndJoinsAThreadThatReceivesFromAConnection) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    const std::size_t threads = ThreadCount();
    socket.Open(pair.Given(), &listener, nullptr);
    EXPECT_EQ(ThreadCount(), threads + 1);
    socket.Close();
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
    EXPECT_FALSE(socket.IsActive());
    EXPECT_FALSE(IsOpen(pair.Given()));
    EXPECT_TRUE(pair.Read(1).empty());  // the peer sees the end
}

TEST_F(SocketTest, CloseWakesAndJoinsAThreadThatReceivesDatagrams) {
    ListenerSpy listener(Echo);
    CSocket socket(SOCKET_TYPE_UDP, PROGRAM);
    UdpEnd server;
    const UdpEnd client;
    const std::size_t threads = ThreadCount();
    const int fd = server.Give();
    socket.Open(fd, &listener, nullptr);
    ASSERT_TRUE(client.SendTo(server, {1}));
    EXPECT_THAT(client.Receive(), ElementsAre(1));
    socket.Close();
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
    EXPECT_FALSE(socket.IsActive());
    EXPECT_FALSE(IsOpen(fd));
}

TEST_F(SocketTest, CloseWaitsForTheListener) {
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    ListenerSpy listener([&](CSocket* socket) {
        ListenerSpy::TakeAll(socket);
        entered.set_value();
        leave.get_future().wait();
        left = true;
    });
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const StreamPair pair;
    socket.Open(pair.Given(), &listener, nullptr);
    ASSERT_TRUE(pair.Write({1}));
    entered.get_future().wait();
    std::future<bool> closed = std::async(std::launch::async, [&] {
        socket.Close();
        return left.load();
    });
    // The connection is shut down while the listener still works.
    EXPECT_TRUE(pair.Read(1).empty());
    leave.set_value();
    EXPECT_TRUE(closed.get());
}

TEST_F(SocketTest, CloseMayBeRepeatedAndTheSocketOpenedAgain) {
    ListenerSpy listener;
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    socket.Close();
    for (std::size_t i = 1; i <= 3; ++i) {
        const StreamPair pair;
        socket.Open(pair.Given(), &listener, nullptr);
        ASSERT_TRUE(pair.Write({1}));
        ASSERT_TRUE(listener.WaitForRounds(i));
        socket.Close();
        socket.Close();
        EXPECT_FALSE(socket.IsActive());
    }
}

TEST_F(SocketTest, DestructionClosesTheConnection) {
    ListenerSpy listener;
    const StreamPair pair;
    const std::size_t threads = ThreadCount();
    {
        CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
        socket.Open(pair.Given(), &listener, nullptr);
    }
    EXPECT_FALSE(IsOpen(pair.Given()));
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
}

TEST_F(SocketTest, ManyConnectionsLeakNeitherDescriptorsNorThreads) {
    ListenerSpy listener(Echo);
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    const std::size_t fds = support::OpenFds().size();
    const std::size_t threads = ThreadCount();
    for (std::uint8_t i = 0; i < 100; ++i) {
        const StreamPair pair;
        socket.Open(pair.Given(), &listener, nullptr);
        ASSERT_TRUE(pair.Write({i}));
        ASSERT_THAT(pair.Read(1), ElementsAre(i));
    }
    socket.Close();
    EXPECT_EQ(support::OpenFds().size(), fds);
    EXPECT_TRUE(WaitFor([&] { return ThreadCount() == threads; }));
}
