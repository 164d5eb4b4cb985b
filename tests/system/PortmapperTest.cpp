// ctest-labels: threaded
//
// Finding the ports: beside a real system portmapper (rpcbind), and from the server itself.

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <set>
#include <string>

#include "Nfs3Types.h"
#include "support/Nfs3Client.h"
#include "support/Rpcbind.h"
#include "support/Server.h"

using namespace support;

namespace {

constexpr std::uint32_t kTcp = 6;
constexpr std::uint32_t kUdp = 17;

bool Answers(int port) {
    try {
        const RpcClient connection(Transport::Tcp, port);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

const std::multiset<std::string> kFourMappings{
    "100003 3 tcp 2050",
    "100003 3 udp 2050",
    "100005 3 tcp 1059",
    "100005 3 udp 1059",
};

}  // namespace

TEST(ExternalPortmapperTest, HoldsTheFourMappingsWhileTheServerRuns) {
    Rpcbind rpcbind;
    ASSERT_TRUE(Mappings().empty());
    Server server;
    EXPECT_EQ(kFourMappings, Mappings());
    server.Stop();
    EXPECT_TRUE(Mappings().empty());
}

TEST(ExternalPortmapperTest, LosesTheMappingsWhenTheServerIsTerminated) {
    Rpcbind rpcbind;
    Server server;
    ASSERT_EQ(kFourMappings, Mappings());
    server.Stop(Server::StopBy::Terminate);
    EXPECT_TRUE(Mappings().empty());
}

TEST(ExternalPortmapperTest, LeavesItThePortAndServesOneAboveTheDefaults) {
    Rpcbind rpcbind;
    Server server;
    const ScopedTempDir folder;
    server.AddExport(folder.Path(), "vm01");

    EXPECT_FALSE(Answers(2049));
    EXPECT_FALSE(Answers(1058));
    for (const Transport transport : {Transport::Tcp, Transport::Udp}) {
        MountClient mount(transport, 1059);
        const MountResult root = mount.Mnt("vm01");
        ASSERT_EQ(MNT3_OK, root.status);
        EXPECT_EQ(NFS3_OK, Nfs3Client(transport, 2050).GetAttr(root.handle).status);
        mount.Umnt("vm01");
    }
}

TEST(ExternalPortmapperTest, AnswersGetPortWithTheServersPorts) {
    Rpcbind rpcbind;
    Server server;
    for (const Transport transport : {Transport::Tcp, Transport::Udp}) {
        PortmapClient portmap(transport);
        for (const std::uint32_t protocol : {kTcp, kUdp}) {
            EXPECT_EQ(2050u, portmap.GetPort(kNfsProgram, 3, protocol).port);
            EXPECT_EQ(1059u, portmap.GetPort(kMountProgram, 3, protocol).port);
        }
    }
}

TEST(ExternalPortmapperTest, RegistersPortsThatAreGivenAsTheyAre) {
    Rpcbind rpcbind;
    Server server({.mountPort = 3058, .nfsPort = 3049});
    EXPECT_EQ((std::multiset<std::string>{"100003 3 tcp 3049", "100003 3 udp 3049",
                                          "100005 3 tcp 3058", "100005 3 udp 3058"}),
              Mappings());
}

TEST(ExternalPortmapperTest, StaleMappingsAreReplaced) {
    Rpcbind rpcbind;
    {
        Server killed({.mountPort = 3058, .nfsPort = 3049});
        killed.Program().Signal(SIGKILL);
        EXPECT_EQ(ExitStatus::Signal(SIGKILL), killed.WaitForDeath());
    }
    ASSERT_EQ(4u, Mappings().size()) << "nobody withdrew them";
    Server server;
    EXPECT_EQ(kFourMappings, Mappings());
}

TEST(ExternalPortmapperTest, IsUsedAgainAfterARestart) {
    Rpcbind rpcbind;
    for (int run = 0; run < 2; ++run) {
        Server server;
        EXPECT_EQ(kFourMappings, Mappings());
        server.Stop();
        EXPECT_TRUE(Mappings().empty());
    }
}

class OwnPortmapperTest : public testing::TestWithParam<Transport> {};

INSTANTIATE_TEST_SUITE_P(Transports, OwnPortmapperTest,
                         testing::Values(Transport::Tcp, Transport::Udp), [](const auto& info) {
                             return info.param == Transport::Tcp ? "Tcp" : "Udp";
                         });

TEST_P(OwnPortmapperTest, AnswersGetPortWithTheDefaultPorts) {
    Server server;
    PortmapClient portmap(GetParam());
    EXPECT_EQ(2049u, portmap.GetPort(kNfsProgram).port);
    EXPECT_EQ(1058u, portmap.GetPort(kMountProgram).port);
}

TEST_P(OwnPortmapperTest, AnswersGetPortWithGivenPorts) {
    Server server({.mountPort = 3058, .nfsPort = 3049});
    PortmapClient portmap(GetParam());
    EXPECT_EQ(3049u, portmap.GetPort(kNfsProgram).port);
    EXPECT_EQ(3058u, portmap.GetPort(kMountProgram).port);
}

TEST_P(OwnPortmapperTest, AnswersGetPortWithZeroForEveryOtherProgram) {
    Server server;
    PortmapClient portmap(GetParam());
    for (const std::uint32_t program : {100000u, 100001u, 100009u, 99999u, 100010u}) {
        const GetPortResult result = portmap.GetPort(program);
        EXPECT_EQ(kSuccess, result.rpc.acceptStat) << program;
        EXPECT_EQ((Bytes{0, 0, 0, 0}), result.rpc.body) << program;
    }
}

TEST_P(OwnPortmapperTest, AnswersNothingButGetPort) {
    Server server;
    PortmapClient portmap(GetParam());
    EXPECT_EQ(kProcUnavail, portmap.Null().acceptStat);
}
