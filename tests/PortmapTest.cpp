// Finding the system portmapper, and registering with it (rpcbind, run for real).

#include "Portmap.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "NfsServiceFixture.h"
#include "ServerSocket.h"
#include "support/Faults.h"
#include "support/Rpcbind.h"

namespace faults = support::faults;

using namespace nfstest;
using namespace support;

namespace {

// Whether the process has descriptors to give.
void GiveDescriptors(bool given) {
    for (const faults::Call call : {faults::Call::Socket, faults::Call::Dup}) {
        faults::Clear(call);
        if (!given) {
            faults::Fail(call, EMFILE, faults::kAlways);
        }
    }
}

class OwnedSocket {
public:
    explicit OwnedSocket(int fd) : fd(fd) {}
    ~OwnedSocket() { Close(); }
    OwnedSocket(const OwnedSocket&) = delete;
    OwnedSocket& operator=(const OwnedSocket&) = delete;
    void Close() {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }
    int fd;
};

// A TCP or UDP socket bound to a port (0: any free one) of the wildcard address.
int BoundSocket(int type, std::uint16_t port) {
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        throw std::runtime_error("cannot bind port " + std::to_string(port));
    }
    return fd;
}

int PortOf(int fd) {
    sockaddr_in addr{};
    socklen_t size = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &size);
    return ntohs(addr.sin_port);
}

std::multiset<std::string> BothMappings(const std::string& program, int port) {
    return {program + " 3 tcp " + std::to_string(port), program + " 3 udp " + std::to_string(port)};
}

class PortmapTest : public ::testing::Test {
protected:
    LoggedUtilities utilities;
    LoggedUtilities& log = utilities;
    CRuntimeParam param{"test", LOG_CONTROL_PORTMAP};
    char reason[STATUS_SIZE] = "";
    faults::Guard faultGuard;
};

const std::string kRegisterSvc = "info [Portmap.RegisterSvc] ";

}  // namespace

// --- The probe -----------------------------------------------------------------------------------

TEST_F(PortmapTest, FreePortMeansThatNoPortmapperRuns) {
    CPortmap portmap(&utilities, &param);
    EXPECT_FALSE(portmap.IsRunning());
    EXPECT_FALSE(portmap.IsRunning(true));
    EXPECT_EQ(Texts{}, log.From(""));
    const OwnedSocket still(BoundSocket(SOCK_STREAM, 111));  // the probe has given the port back
}

TEST_F(PortmapTest, PortInUseMeansThatAPortmapperRuns) {
    const OwnedSocket holder(BoundSocket(SOCK_STREAM, 111));
    CPortmap portmap(&utilities, &param);
    EXPECT_TRUE(portmap.IsRunning());
    EXPECT_EQ((Texts{"info [Portmap.IsRunning] Port 111 is already in used"}), log.From(""));
}

TEST_F(PortmapTest, ProbeIsToldUnderThePortmapperBitOnly) {
    const OwnedSocket holder(BoundSocket(SOCK_STREAM, 111));
    param.SetLogControl(kAllLogBits & ~LOG_CONTROL_PORTMAP);
    const CPortmap portmap(&utilities, &param);
    EXPECT_TRUE(portmap.IsRunning());
    EXPECT_EQ(Texts{}, log.From(""));
}

TEST_F(PortmapTest, AnswerOfTheConstructorStands) {
    OwnedSocket holder(BoundSocket(SOCK_STREAM, 111));
    CPortmap portmap(&utilities, &param);
    holder.Close();
    EXPECT_TRUE(portmap.IsRunning());
    EXPECT_TRUE(portmap.IsRunning(false));
    EXPECT_FALSE(portmap.IsRunning(true)) << "a new probe sees the free port";
    EXPECT_TRUE(portmap.IsRunning()) << "and changes nothing";
}

TEST_F(PortmapTest, ProbeThatGetsNoSocketCountsAsNotRunning) {
    const OwnedSocket holder(BoundSocket(SOCK_STREAM, 111));
    GiveDescriptors(false);
    CPortmap portmap(&utilities, &param);
    const bool running = portmap.IsRunning();
    const int fd = portmap.CreateSocket(4711, reason);
    GiveDescriptors(true);
    EXPECT_FALSE(running);
    EXPECT_EQ(-1, fd);
    EXPECT_STREQ("Error opening socket for port 4711", reason);
}

// --- CreateSocket --------------------------------------------------------------------------------

TEST_F(PortmapTest, CreateSocketBindsATcpSocketToThePort) {
    CPortmap portmap(&utilities, &param);
    const OwnedSocket made(portmap.CreateSocket(4711, reason));
    ASSERT_GE(made.fd, 0);
    EXPECT_EQ(4711, PortOf(made.fd));
    int value = 0;
    socklen_t size = sizeof value;
    getsockopt(made.fd, SOL_SOCKET, SO_TYPE, &value, &size);
    EXPECT_EQ(SOCK_STREAM, value);
    getsockopt(made.fd, SOL_SOCKET, SO_REUSEADDR, &value, &size);
    EXPECT_NE(0, value);
    EXPECT_STREQ("", reason);
}

TEST_F(PortmapTest, CreateSocketOnAPortInUseSaysSo) {
    const OwnedSocket holder(BoundSocket(SOCK_STREAM, 4711));
    CPortmap portmap(&utilities, &param);
    const std::size_t before = OpenFds().size();
    EXPECT_EQ(-2, portmap.CreateSocket(4711, reason));
    EXPECT_STREQ("Error binding socket with port 4711", reason);
    EXPECT_EQ(-2, portmap.CreateSocket(4711, nullptr)) << "without a buffer for the reason";
    EXPECT_EQ(before, OpenFds().size()) << "no descriptor is left behind";
}

// --- Without a portmapper ------------------------------------------------------------------------

TEST_F(PortmapTest, NothingIsRegisteredWithoutAPortmapper) {
    CPortmap portmap(&utilities, &param);
    const OwnedSocket listener(BoundSocket(SOCK_STREAM, 4711));
    EXPECT_FALSE(portmap.Register(100003, 3, listener.fd, 4711, reason));
    EXPECT_STREQ("Portmapper is not running.", reason);

    reason[0] = '\0';
    portmap.Unregister(100003, 3, reason);
    EXPECT_STREQ("Portmapper is not running.", reason);
    portmap.Unregister(100003, 3, nullptr);
    EXPECT_EQ(Texts{}, log.From(""));
}

// --- With rpcbind --------------------------------------------------------------------------------

TEST_F(PortmapTest, RegistersTheListeningPortForUdpAndTcp) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    ASSERT_TRUE(portmap.IsRunning());
    log.Forget();
    CServerSocket listener;
    ASSERT_TRUE(listener.Open(100003, 2050, 3, &utilities, reason)) << reason;
    EXPECT_TRUE(portmap.Register(100003, 3, &listener, reason)) << reason;
    EXPECT_EQ(BothMappings("100003", 2050), Mappings());
    EXPECT_EQ((Texts{kRegisterSvc + "Creating UDP for 100003 ver=3",
                     kRegisterSvc + "Registering UDP for 100003 ver=3",
                     kRegisterSvc + "Registered UDP for 100003 ver=3",
                     kRegisterSvc + "Creating TCP for 100003 ver=3",
                     kRegisterSvc + "Registering TCP for 100003 ver=3",
                     kRegisterSvc + "Registered TCP for 100003 ver=3"}),
              log.From(""));

    log.Forget();
    portmap.Unregister(100003, 3, reason);
    EXPECT_TRUE(Mappings().empty());
    EXPECT_EQ((Texts{"info [Portmap.Unregister] Unregistered the program 100003 ver=3"}),
              log.From(""));
    EXPECT_STREQ("", reason);
}

TEST_F(PortmapTest, RegisteringKeepsTheListeningSocketServing) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    CServerSocket listener;
    ASSERT_TRUE(listener.Open(100003, 2050, 3, &utilities, reason)) << reason;
    ASSERT_TRUE(portmap.Register(100003, 3, &listener, reason)) << reason;
    RpcClient client(Transport::Tcp, 2050);
    portmap.Unregister(100003, 3, nullptr);
    EXPECT_FALSE(client.PeerClosed(Milliseconds(50)));
    RpcClient another(Transport::Tcp, 2050);
}

TEST_F(PortmapTest, RegistrationIsToldUnderThePortmapperBitOnly) {
    Rpcbind rpcbind;
    param.SetLogControl(kAllLogBits & ~LOG_CONTROL_PORTMAP);
    CPortmap portmap(&utilities, &param);
    const OwnedSocket listener(BoundSocket(SOCK_STREAM, 4711));
    EXPECT_TRUE(portmap.Register(100003, 3, listener.fd, 4711, reason)) << reason;
    portmap.Unregister(100003, 3, nullptr);
    EXPECT_EQ(Texts{}, log.From(""));
}

TEST_F(PortmapTest, StaleMappingIsReplaced) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    const OwnedSocket first(BoundSocket(SOCK_STREAM, 4711));
    const OwnedSocket second(BoundSocket(SOCK_STREAM, 4712));
    ASSERT_TRUE(portmap.Register(100005, 3, first.fd, 4711, reason)) << reason;
    EXPECT_TRUE(portmap.Register(100005, 3, second.fd, 4712, reason)) << reason;
    EXPECT_EQ(BothMappings("100005", 4712), Mappings());
}

TEST_F(PortmapTest, SocketZeroHasOneMadeOnThePort) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    const std::size_t before = OpenFds().size();
    EXPECT_TRUE(portmap.Register(100003, 3, 0, 4711, reason)) << reason;
    EXPECT_EQ(BothMappings("100003", 4711), Mappings());
    portmap.Unregister(100003, 3, nullptr);
    EXPECT_EQ(before, OpenFds().size());
}

TEST_F(PortmapTest, SocketZeroOnAPortInUseFails) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    const OwnedSocket holder(BoundSocket(SOCK_STREAM, 4711));
    EXPECT_FALSE(portmap.Register(100003, 3, 0, 4711, reason));
    EXPECT_STREQ(
        "Fail to opening register socket for port 4711. Reason=Error binding socket with port 4711",
        reason);
    EXPECT_TRUE(Mappings().empty());
}

TEST_F(PortmapTest, SocketThatIsNoneFailsAtTheUdpTransport) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    log.Forget();
    EXPECT_FALSE(portmap.RegisterSvc(100003, 3, -1, reason));
    EXPECT_STREQ("Cannot create UDP for 100003 ver=3", reason);
    EXPECT_EQ((Texts{kRegisterSvc + "Creating UDP for 100003 ver=3"}), log.From(""));
    EXPECT_FALSE(portmap.Register(100003, 3, -1, 4711, reason));
    EXPECT_STREQ("Fail to register socket for port 4711. Reason=Cannot create UDP for 100003 ver=3",
                 reason);
}

TEST_F(PortmapTest, MappingOfAnotherServerIsNotOverwritten) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    const OwnedSocket first(BoundSocket(SOCK_STREAM, 4711));
    const OwnedSocket second(BoundSocket(SOCK_STREAM, 4712));
    ASSERT_TRUE(portmap.RegisterSvc(100003, 3, first.fd, reason)) << reason;
    log.Forget();
    EXPECT_FALSE(portmap.RegisterSvc(100003, 3, second.fd, reason));
    EXPECT_STREQ("Unable to register UDP for 100003 ver=3", reason);
    EXPECT_EQ((Texts{kRegisterSvc + "Creating UDP for 100003 ver=3",
                     kRegisterSvc + "Registering UDP for 100003 ver=3"}),
              log.From(""));
    EXPECT_EQ(BothMappings("100003", 4711), Mappings());
}

TEST_F(PortmapTest, TcpMappingOfAnotherServerFailsTheSecondHalf) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    const OwnedSocket first(BoundSocket(SOCK_STREAM, 4711));
    const OwnedSocket second(BoundSocket(SOCK_STREAM, 4712));
    ASSERT_TRUE(portmap.RegisterSvc(100003, 3, first.fd, reason)) << reason;
    // Takes the UDP mapping away, over a transport of its own.
    const RunResult deleted = RunProgram({"rpcinfo", "-T", "udp", "-d", "100003", "3"});
    ASSERT_EQ(ExitStatus::Code(0), deleted.status) << deleted.errors;
    ASSERT_EQ((std::multiset<std::string>{"100003 3 tcp 4711"}), Mappings());
    log.Forget();
    EXPECT_FALSE(portmap.RegisterSvc(100003, 3, second.fd, reason));
    EXPECT_STREQ("Unable to register TCP for 100003 ver=3", reason);
    EXPECT_EQ((Texts{kRegisterSvc + "Creating UDP for 100003 ver=3",
                     kRegisterSvc + "Registering UDP for 100003 ver=3",
                     kRegisterSvc + "Registered UDP for 100003 ver=3",
                     kRegisterSvc + "Creating TCP for 100003 ver=3",
                     kRegisterSvc + "Registering TCP for 100003 ver=3"}),
              log.From(""));
}

TEST_F(PortmapTest, DescriptorsThatRunOutFailAtTheTcpTransport) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    const OwnedSocket listener(BoundSocket(SOCK_STREAM, 4711));
    log.Forget();
    log.At("Creating TCP", [] { GiveDescriptors(false); });
    const bool registered = portmap.RegisterSvc(100003, 3, listener.fd, reason);
    GiveDescriptors(true);
    EXPECT_FALSE(registered);
    EXPECT_STREQ("Cannot create TCP for 100003 ver=3", reason);
    EXPECT_EQ((Texts{kRegisterSvc + "Creating UDP for 100003 ver=3",
                     kRegisterSvc + "Registering UDP for 100003 ver=3",
                     kRegisterSvc + "Registered UDP for 100003 ver=3",
                     kRegisterSvc + "Creating TCP for 100003 ver=3"}),
              log.From(""));
}

TEST_F(PortmapTest, PortmapperThatHasGoneFailsTheRegistration) {
    Rpcbind rpcbind;
    CPortmap portmap(&utilities, &param);
    rpcbind.Stop();
    const OwnedSocket listener(BoundSocket(SOCK_STREAM, 4711));
    EXPECT_FALSE(portmap.Register(100003, 3, listener.fd, 4711, reason));
    EXPECT_STREQ(
        "Fail to register socket for port 4711. Reason=Unable to register UDP for 100003 ver=3",
        reason);
}
