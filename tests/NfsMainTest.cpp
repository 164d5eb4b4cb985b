// ctest-labels: threaded
//
// The main object of the internal mode: starting and stopping the services, and its operations.

#include "NfsMain.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "ConsoleFixture.h"
#include "FileLogger.h"
#include "Nfs3Types.h"
#include "RuntimeParam.h"
#include "support/Nfs3Client.h"
#include "Utilities.h"

using namespace console;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

using Lines = std::vector<std::string>;

const Lines kOwnPorts{"111/tcp", "111/udp", "1058/tcp", "1058/udp", "2049/tcp", "2049/udp"};

// A system portmapper that gives every registration the same answer and writes it down.
class FakePortmapper {
public:
    explicit FakePortmapper(bool answer = true)
        : m_answer(answer), m_tcp(Transport::Tcp, 111), m_udp(Transport::Udp, 111) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, kLocalSocket);
        m_local = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(m_local, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(m_local, 16) != 0 || pipe2(m_stop, O_CLOEXEC) != 0) {
            throw std::runtime_error(std::string(kLocalSocket) + ": " + std::strerror(errno));
        }
        m_thread = std::thread([this] { Serve(); });
    }
    ~FakePortmapper() {
        close(m_stop[1]);
        m_thread.join();
        close(m_stop[0]);
        close(m_local);
        unlink(kLocalSocket);
    }
    FakePortmapper(const FakePortmapper&) = delete;
    FakePortmapper& operator=(const FakePortmapper&) = delete;

    // The calls so far, for example "set 100003 3 tcp 2050" and "unset 100003 3".
    Lines Calls() const {
        const std::lock_guard lock(m_mutex);
        return m_calls;
    }
    // The mappings that stand, for example "100003 3 tcp 2050".
    Lines Mappings() const {
        const std::lock_guard lock(m_mutex);
        Lines mappings;
        for (const auto& [key, port] : m_mappings) {
            mappings.push_back(key + " " + port);
        }
        return mappings;
    }

private:
    Bytes Answer(const Bytes& call) {
        XdrReader reader(call);
        const std::uint32_t xid = reader.U32();
        for (int word = 0; word < 4; ++word) {
            reader.U32();  // message type, RPC version, program, version
        }
        const std::uint32_t procedure = reader.U32();
        for (int i = 0; i < 2; ++i) {
            reader.U32();
            reader.Opaque();
        }
        if (procedure == 1 || procedure == 2) {
            std::string service = std::to_string(reader.U32());
            service += " " + std::to_string(reader.U32());
            const std::string transport = reader.String();
            const std::string address = reader.String();
            Note(procedure == 1, service, transport, address);
        }
        XdrWriter reply;
        reply.U32(xid).U32(1).U32(0).U32(0).U32(0).U32(0).U32(m_answer ? 1 : 0);
        return reply.Data();
    }

    void Note(bool set, const std::string& service, const std::string& transport,
              const std::string& address) {
        const std::lock_guard lock(m_mutex);
        if (!set) {
            m_calls.push_back("unset " + service);
            std::erase_if(m_mappings, [&](const auto& entry) {
                return entry.first.starts_with(service + " ");
            });
            return;
        }
        // The last two parts of the address are the bytes of the port.
        const std::size_t low = address.rfind('.');
        const std::size_t high = address.rfind('.', low - 1);
        const int port =
            std::stoi(address.substr(high + 1)) * 256 + std::stoi(address.substr(low + 1));
        m_calls.push_back("set " + service + " " + transport + " " + std::to_string(port));
        if (m_answer) {
            m_mappings[service + " " + transport] = std::to_string(port);
        }
    }

    void Serve() {
        std::vector<pollfd> fds{{m_stop[0], POLLIN, 0}, {m_local, POLLIN, 0}};
        while (poll(fds.data(), fds.size(), -1) < 0 || fds[0].revents == 0) {
            for (std::size_t i = 2; i < fds.size(); ++i) {
                if (fds[i].revents != 0 && !ServeRecord(fds[i].fd)) {
                    close(fds[i].fd);
                    fds.erase(fds.begin() + static_cast<std::ptrdiff_t>(i));
                    break;  // the others are found ready again
                }
            }
            if (fds[1].revents != 0) {
                fds.push_back({accept(m_local, nullptr, nullptr), POLLIN, 0});
            }
        }
        for (std::size_t i = 2; i < fds.size(); ++i) {
            close(fds[i].fd);
        }
    }

    // False when the connection has ended.
    bool ServeRecord(int fd) {
        std::uint8_t mark[4];
        if (recv(fd, mark, sizeof mark, MSG_WAITALL) != 4) {
            return false;
        }
        Bytes message(static_cast<std::size_t>(mark[2] << 8 | mark[3]));
        if (recv(fd, message.data(), message.size(), MSG_WAITALL) !=
            static_cast<ssize_t>(message.size())) {
            return false;
        }
        const Bytes reply = WithRecordMark(Answer(message));
        return send(fd, reply.data(), reply.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(reply.size());
    }

    // Where the system's RPC library looks for a portmapper first.
    static constexpr char kLocalSocket[] = "/var/run/rpcbind.sock";

    const bool m_answer;
    int m_local;
    PortHolder m_tcp;
    PortHolder m_udp;
    int m_stop[2];
    mutable std::mutex m_mutex;
    Lines m_calls;                                  // guarded by m_mutex
    std::map<std::string, std::string> m_mappings;  // guarded by m_mutex
    std::thread m_thread;
};

// A main object with a log file.
class NfsMainTest : public testing::Test {
protected:
    NfsMainTest() {
        EXPECT_TRUE(m_logger.Open(0));
        m_main.SetFileLogger(&m_logger);
    }

    bool Start(CNfsMain& nfsMain, int mountPort = 0, int nfsPort = 0) {
        m_status[0] = '\0';
        return nfsMain.StartServer(mountPort, nfsPort, 0, 0, false, m_status);
    }
    bool Start(int mountPort = 0, int nfsPort = 0) { return Start(m_main, mountPort, nfsPort); }
    Lines Log() const { return LogLines(m_folder / "log"); }

    const ScopedTempDir m_folder;
    CFileLogger m_logger{(m_folder / "log").c_str()};
    CNfsMain m_main{"me", 0};
    char m_status[STATUS_SIZE] = "";
};

}  // namespace

// ================================================================================================
// What it is
// ================================================================================================

TEST_F(NfsMainTest, TellsItsVersionDescriptionAndMode) {
    char version[256];
    char description[256];
    m_main.GetVersion(version);
    m_main.GetDescription(description);
    EXPECT_STREQ("1.2", version);
    EXPECT_STREQ("Internal NFS Server", description);
    EXPECT_EQ(0, m_main.GetAccessMode());
}

TEST_F(NfsMainTest, KeepsItsIdAndLogControl) {
    CNfsMain nfsMain("other", 77);
    EXPECT_STREQ("other", nfsMain.GetRuntimeParam()->GetID());
    EXPECT_STREQ("", nfsMain.GetRuntimeParam()->GetIpcID());
    EXPECT_EQ(77, nfsMain.GetRuntimeParam()->GetLogControl());
}

TEST_F(NfsMainTest, OperationsCanBeReplacedByAVariant) {
    struct Variant : CNfsMain {
        using CNfsMain::CNfsMain;
        void StopServer() override {
            ++stops;
            CNfsMain::StopServer();
        }
        int stops = 0;
    };
    Variant variant("v", 0);
    const PortHolder holder(Transport::Tcp, 2049);
    EXPECT_FALSE(Start(variant));
    EXPECT_EQ(1, variant.stops) << "a failed start stops through the variant";
}

// ================================================================================================
// Life
// ================================================================================================

TEST_F(NfsMainTest, InitialNeedsAnId) {
    for (const char* id : {"", static_cast<const char*>(nullptr)}) {
        CNfsMain nameless(id, 0);
        EXPECT_FALSE(nameless.Initial(m_status));
        EXPECT_STREQ("ID is not defined", m_status);
    }
    EXPECT_TRUE(m_main.Initial(m_status));
}

TEST_F(NfsMainTest, TheLifeIsWrittenToTheLogFile) {
    EXPECT_TRUE(m_main.Initial(m_status));
    EXPECT_TRUE(m_main.StartRemoteController(m_status));
    EXPECT_TRUE(Start());
    m_main.StopServer();
    m_main.StopServer();
    m_main.StopRemoteController();
    m_main.Terminate();
    EXPECT_THAT(Log(), ElementsAre("[info] Initial NFS", "[info] Start Remote Controller",
                                   "[info] Start NFS with internal portmapper: MountPort = 1058, "
                                   "NfsPort = 2049",
                                   "[info] Stop NFS", "[info] Stop Remote Controller",
                                   "[info] Terminate NFS"));
}

TEST_F(NfsMainTest, TheLifeIsNotToldWithoutALogFile) {
    CNfsMain silent("x", LOG_CONTROL_ERROR);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(silent.Initial(m_status));
    EXPECT_TRUE(silent.StartRemoteController(m_status));
    EXPECT_TRUE(Start(silent));
    silent.StopServer();
    silent.StopRemoteController();
    silent.Terminate();
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_F(NfsMainTest, ThereIsNoRemoteControllerAndGeneralInfoTellsSo) {
    CNfsMain talkative("x", LOG_CONTROL_GENERAL_INFO);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(talkative.StartRemoteController(m_status));
    talkative.StopRemoteController();
    EXPECT_EQ(
        "[info] (x) [NfsMain.StartRemoteController] No remote controller to start. It is NOT "
        "support in internal server mode.\n"
        "[info] (x) [NfsMain.StopRemoteController] No remote controller to stop. It is NOT support "
        "in internal server mode.\n",
        testing::internal::GetCapturedStdout());
}

// ================================================================================================
// Status and auto shutdown
// ================================================================================================

TEST_F(NfsMainTest, TheStatusIsASetOfBits) {
    EXPECT_EQ(1, m_main.GetServerStatus());
    EXPECT_TRUE(m_main.SetDebugActionEnabled(true));
    EXPECT_EQ(5, m_main.GetServerStatus());
    ASSERT_TRUE(Start());
    EXPECT_EQ(7, m_main.GetServerStatus());
    EXPECT_TRUE(m_main.SetDebugActionEnabled(false));
    EXPECT_EQ(3, m_main.GetServerStatus());
    EXPECT_TRUE(m_main.IsServerRunning());
    m_main.StopServer();
    EXPECT_EQ(1, m_main.GetServerStatus());
    EXPECT_FALSE(m_main.IsServerRunning());
}

TEST_F(NfsMainTest, AnAutoShutdownRequestIsHonouredOnlyWhenEnabled) {
    EXPECT_FALSE(m_main.IsAutoShutdownEnabled());
    EXPECT_FALSE(m_main.RequestAutoShutdown());
    EXPECT_FALSE(m_main.IsAutoShutdownRequested());

    m_main.EnableAutoShutdown(true);
    EXPECT_TRUE(m_main.IsAutoShutdownEnabled());
    EXPECT_FALSE(m_main.IsAutoShutdownRequested()) << "the refused request is not made up for";
    EXPECT_TRUE(m_main.RequestAutoShutdown());
    EXPECT_TRUE(m_main.IsAutoShutdownRequested());
}

TEST_F(NfsMainTest, AutoShutdownCanBeDisabledAgain) {
    m_main.EnableAutoShutdown(true);
    m_main.EnableAutoShutdown(false);
    EXPECT_FALSE(m_main.RequestAutoShutdown());
    EXPECT_FALSE(m_main.IsAutoShutdownRequested());
}

TEST_F(NfsMainTest, AnAutoShutdownRequestStopsNothingByItself) {
    m_main.EnableAutoShutdown(true);
    ASSERT_TRUE(Start());
    EXPECT_TRUE(m_main.RequestAutoShutdown());
    EXPECT_EQ(3, m_main.GetServerStatus());
}

// ================================================================================================
// Starting
// ================================================================================================

TEST_F(NfsMainTest, StartsOnTheDefaultPorts) {
    ASSERT_TRUE(Start()) << m_status;
    EXPECT_EQ(kOwnPorts, TakenPorts(kDefaultPorts));
    for (const Transport transport : {Transport::Tcp, Transport::Udp}) {
        EXPECT_EQ(2049u, PortmapClient(transport).GetPort(kNfsProgram).port);
        EXPECT_EQ(1058u, PortmapClient(transport).GetPort(kMountProgram).port);
        EXPECT_EQ(kSuccess, Nfs3Client(transport).Null().acceptStat);
        EXPECT_EQ(kSuccess, MountClient(transport).Null().acceptStat);
    }
}

TEST_F(NfsMainTest, ANegativePortIsTheDefaultToo) {
    ASSERT_TRUE(Start(-1, -2049)) << m_status;
    EXPECT_EQ(kOwnPorts, TakenPorts(kDefaultPorts));
}

TEST_F(NfsMainTest, AGivenPortIsTaken) {
    ASSERT_TRUE(Start(3058, 3049)) << m_status;
    EXPECT_THAT(TakenPorts(kDefaultPorts), ElementsAre("111/tcp", "111/udp"));
    EXPECT_EQ(3049u, PortmapClient(Transport::Udp).GetPort(kNfsProgram).port);
    EXPECT_EQ(3058u, PortmapClient(Transport::Udp).GetPort(kMountProgram).port);
    EXPECT_EQ(kSuccess, Nfs3Client(Transport::Tcp, 3049).Null().acceptStat);
    EXPECT_EQ(kSuccess, MountClient(Transport::Udp, 3058).Null().acceptStat);
    EXPECT_THAT(Log(), ElementsAre("[info] Start NFS with internal portmapper: MountPort = 3058, "
                                   "NfsPort = 3049"));
}

TEST_F(NfsMainTest, EachPortServesItsOwnProgram) {
    ASSERT_TRUE(Start());
    // A call for another program finds no valid header there and gets no answer; the next one does.
    const std::map<int, std::uint32_t> programs{
        {111, kPortmapProgram}, {2049, kNfsProgram}, {1058, kMountProgram}};
    for (const auto& [port, own] : programs) {
        for (const auto& [otherPort, other] : programs) {
            const bool answered = RpcClient(Transport::Udp, port)
                                      .TryCall(other, other == kPortmapProgram ? 2 : 3, 0, {},
                                               Milliseconds(other == own ? 20'000 : 100))
                                      .has_value();
            EXPECT_EQ(own == other, answered) << port << " " << other;
        }
    }
}

TEST_F(NfsMainTest, EachServiceHasItsNumberOfConnections) {
    ASSERT_TRUE(Start());
    // As many clients as there are slots are served at the same time.
    std::vector<std::unique_ptr<RpcClient>> clients;
    const auto connect = [&](int port, std::uint32_t program, std::uint32_t version, int count) {
        for (int i = 0; i < count; ++i) {
            clients.push_back(std::make_unique<RpcClient>(Transport::Tcp, port));
            EXPECT_TRUE(clients.back()->TryCall(program, version, 0).has_value()) << port;
        }
    };
    connect(111, kPortmapProgram, 2, 3);
    connect(2049, kNfsProgram, 3, 10);
    connect(1058, kMountProgram, 3, 3);
}

TEST_F(NfsMainTest, TheUserAndTheGroupDoNotChangeWhoOwnsTheFiles) {
    WriteFile(m_folder / "file", "x");
    ASSERT_TRUE(m_main.AddMountPoint(m_folder.Path().c_str(), "vm01", m_status));
    ASSERT_TRUE(m_main.StartServer(0, 0, 1234, 567, false, m_status));
    const Handle root = MountClient(Transport::Udp).Mnt("vm01").handle;
    Nfs3Client nfs(Transport::Udp);
    const AttributesResult attributes = nfs.GetAttr(nfs.Lookup(root, "file").handle);
    struct stat data {};
    ASSERT_EQ(0, stat((m_folder / "file").c_str(), &data));
    EXPECT_EQ(data.st_uid, attributes.attributes.uid);
    EXPECT_EQ(data.st_gid, attributes.attributes.gid);
    EXPECT_EQ(NFS3_OK, nfs.MkDir(root, "new").status) << "it is not read-only";
}

TEST_F(NfsMainTest, TheNfsProgramGetsTheReadOnlyFlag) {
    ASSERT_TRUE(m_main.AddMountPoint(m_folder.Path().c_str(), "vm01", m_status));
    ASSERT_TRUE(m_main.StartServer(0, 0, 0, 0, true, m_status));
    const Handle root = MountClient(Transport::Udp).Mnt("vm01").handle;
    EXPECT_NE(NFS3_OK, Nfs3Client(Transport::Udp).MkDir(root, "new").status);
    EXPECT_FALSE(FileExists(m_folder / "new"));
}

TEST_F(NfsMainTest, ASecondStartChangesNothing) {
    ASSERT_TRUE(m_main.AddMountPoint("/nonexistent", "vm01", m_status));
    ASSERT_TRUE(Start());
    Nfs3Client nfs;
    ASSERT_EQ(kSuccess, nfs.Null().acceptStat);
    EXPECT_FALSE(Start(3058, 3049));
    EXPECT_STREQ("NFS already running", m_status);
    EXPECT_EQ(3, m_main.GetServerStatus());
    EXPECT_EQ(1, m_main.GetMountInfo(false, false));
    EXPECT_EQ(kOwnPorts, TakenPorts(kDefaultPorts));
    EXPECT_TRUE(TakenPorts({3058, 3049}).empty());
    EXPECT_EQ(kSuccess, nfs.Null().acceptStat) << "the connection lives on";
    EXPECT_EQ(1u, Log().size());
}

// ================================================================================================
// Ports in use
// ================================================================================================

namespace {

struct BusyPort {
    int port;
    Transport transport;
    const char* logged;        // the line of the log control
    const char* loggedAlways;  // the line of the log file
    const char* status;
};

// Names the parameter in the test's name.
std::string BusyName(const testing::TestParamInfo<BusyPort>& info) {
    return "Port" + std::to_string(info.param.port) +
           (info.param.transport == Transport::Tcp ? "Tcp" : "Udp");
}

std::string BindReason(Transport transport) {
    return std::string("Fail to bind ") + (transport == Transport::Tcp ? "server" : "datagram") +
           " socket. Address already in use (98)";
}

class BusyPortTest : public NfsMainTest, public testing::WithParamInterface<BusyPort> {
protected:
    void ExpectFailedStart(CNfsMain& nfsMain) {
        const std::vector<int> before = OpenFds();
        const PortHolder holder(GetParam().transport, GetParam().port);
        EXPECT_FALSE(Start(nfsMain));
        EXPECT_STREQ(GetParam().status, m_status);
        EXPECT_EQ(1, nfsMain.GetServerStatus());
        // Only the port that we hold is taken.
        EXPECT_EQ(1u, TakenPorts(kDefaultPorts).size());
        EXPECT_EQ(before.size() + 1, OpenFds().size());
    }
    std::string WithReason(const char* line) const {
        return line + BindReason(GetParam().transport);
    }
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Services, BusyPortTest,
    testing::Values(
        // A TCP port 111 that is in use is a system portmapper.
        BusyPort{111, Transport::Udp, "Fail to start PortMap daemon. Reason=",
                 "Fail to start PortMap daemon on port 111. Reason=",
                 "PortMap daemon failed to open port 111"},
        BusyPort{2049, Transport::Tcp, "[NfsMain.StartServer] Fail to start NFS daemon. Reason=",
                 "Fail to start NFS daemon on port 2049. Reason=",
                 "NFS daemon failed to open port 2049"},
        BusyPort{2049, Transport::Udp, "[NfsMain.StartServer] Fail to start NFS daemon. Reason=",
                 "Fail to start NFS daemon on port 2049. Reason=",
                 "NFS daemon failed to open port 2049"},
        BusyPort{1058, Transport::Tcp, "[NfsMain.StartServer] Fail to start Mount daemon. Reason=",
                 "Fail to start Mount daemon on port 1058. Reason=",
                 "Mount daemon failed to open port 1058"},
        BusyPort{1058, Transport::Udp, "[NfsMain.StartServer] Fail to start Mount daemon. Reason=",
                 "Fail to start Mount daemon on port 1058. Reason=",
                 "Mount daemon failed to open port 1058"}),
    BusyName);

TEST_P(BusyPortTest, FailsTheStartAndClosesWhatWasOpen) {
    CNfsMain silent("x", 0);
    testing::internal::CaptureStdout();
    ExpectFailedStart(silent);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_P(BusyPortTest, IsLoggedAsAnErrorWithoutALogFile) {
    CNfsMain nfsMain("x", LOG_CONTROL_ERROR);
    testing::internal::CaptureStdout();
    ExpectFailedStart(nfsMain);
    EXPECT_EQ("[erro] (x) " + WithReason(GetParam().logged) + "\n",
              testing::internal::GetCapturedStdout());
}

TEST_P(BusyPortTest, IsWrittenToTheLogFileWhateverTheLogControl) {
    ExpectFailedStart(m_main);
    EXPECT_THAT(Log(), ElementsAre("[info] Start NFS with internal portmapper: MountPort = 1058, "
                                   "NfsPort = 2049",
                                   "[error] " + WithReason(GetParam().loggedAlways)));
}

TEST_P(BusyPortTest, IsWrittenToTheLogFileTwiceWhenErrorsAreLogged) {
    m_main.SetLogControl(LOG_CONTROL_ERROR);
    ExpectFailedStart(m_main);
    EXPECT_THAT(Log(), ElementsAre("[info] Start NFS with internal portmapper: MountPort = 1058, "
                                   "NfsPort = 2049",
                                   "[error] " + WithReason(GetParam().logged),
                                   "[error] " + WithReason(GetParam().loggedAlways)));
}

TEST_P(BusyPortTest, CanBeStartedOnceItIsFree) {
    ExpectFailedStart(m_main);
    ASSERT_TRUE(Start()) << m_status;
    EXPECT_EQ(kOwnPorts, TakenPorts(kDefaultPorts));
    EXPECT_EQ(kSuccess, Nfs3Client(Transport::Udp).Null().acceptStat);
}

TEST_F(NfsMainTest, AGivenPortThatIsInUseIsTheOneInTheStatus) {
    const PortHolder holder(Transport::Tcp, 3049);
    EXPECT_FALSE(Start(3058, 3049));
    EXPECT_STREQ("NFS daemon failed to open port 3049", m_status);
    EXPECT_FALSE(Start(3049, 3050));
    EXPECT_STREQ("Mount daemon failed to open port 3049", m_status);
    EXPECT_TRUE(TakenPorts({111, 3050, 3058}).empty());
}

TEST_F(NfsMainTest, TheFirstServiceThatFailsEndsTheStart) {
    const PortHolder nfs(Transport::Tcp, 2049);
    const PortHolder mount(Transport::Tcp, 1058);
    EXPECT_FALSE(Start());
    EXPECT_STREQ("NFS daemon failed to open port 2049", m_status);
    EXPECT_THAT(Log(), Not(Contains(HasSubstr("Mount daemon"))));
}

TEST_F(NfsMainTest, AFailedStartDropsTheExports) {
    ASSERT_TRUE(m_main.AddMountPoint("/nonexistent", "vm01", m_status));
    m_main.AddSessionInfo("s", "/a");
    const PortHolder holder(Transport::Tcp, 2049);
    EXPECT_FALSE(Start());
    EXPECT_EQ(0, m_main.GetMountInfo(false, false));
    EXPECT_EQ(0, m_main.GetSessionInfo(false));
}

// ================================================================================================
// Beside a system portmapper
// ================================================================================================

TEST_F(NfsMainTest, StartsOneAboveTheDefaultsBesideAPortmapper) {
    const FakePortmapper portmapper;
    ASSERT_TRUE(Start()) << m_status;
    EXPECT_THAT(TakenPorts(kDefaultPorts),
                ElementsAre("111/tcp", "111/udp", "1059/tcp", "1059/udp", "2050/tcp", "2050/udp"));
    EXPECT_THAT(Log(), ElementsAre("[info] Start NFS with external portmapper: MountPort = 1059, "
                                   "NfsPort = 2050"));
    EXPECT_EQ(kSuccess, Nfs3Client(Transport::Tcp, 2050).Null().acceptStat);
    EXPECT_EQ(kSuccess, MountClient(Transport::Udp, 1059).Null().acceptStat);
}

TEST_F(NfsMainTest, RegistersNfsBeforeMountAndWithdrawsBoth) {
    const FakePortmapper portmapper;
    ASSERT_TRUE(Start()) << m_status;
    const Lines mappings{"100003 3 tcp 2050", "100003 3 udp 2050", "100005 3 tcp 1059",
                         "100005 3 udp 1059"};
    EXPECT_EQ(mappings, portmapper.Mappings());
    const Lines started = portmapper.Calls();
    EXPECT_LT(std::find(started.begin(), started.end(), "set 100003 3 tcp 2050"),
              std::find(started.begin(), started.end(), "set 100005 3 udp 1059"));

    m_main.StopServer();
    EXPECT_THAT(portmapper.Mappings(), IsEmpty());
    const Lines all = portmapper.Calls();
    const Lines stopped(all.begin() + static_cast<std::ptrdiff_t>(started.size()), all.end());
    EXPECT_THAT(stopped, Contains("unset 100003 3"));
    EXPECT_THAT(stopped, Contains("unset 100005 3"));
    EXPECT_LT(std::find(stopped.begin(), stopped.end(), "unset 100003 3"),
              std::find(stopped.begin(), stopped.end(), "unset 100005 3"));
    EXPECT_THAT(TakenPorts(kDefaultPorts), ElementsAre("111/tcp", "111/udp"));
}

TEST_F(NfsMainTest, AGivenPortIsTakenAsItIsBesideAPortmapper) {
    const FakePortmapper portmapper;
    ASSERT_TRUE(Start(1058, 3049)) << m_status;
    EXPECT_THAT(portmapper.Mappings(), ElementsAre("100003 3 tcp 3049", "100003 3 udp 3049",
                                                   "100005 3 tcp 1058", "100005 3 udp 1058"));
}

TEST_F(NfsMainTest, ADestroyedServerIsNotWithdrawn) {
    const FakePortmapper portmapper;
    {
        CNfsMain nfsMain("x", 0);
        ASSERT_TRUE(Start(nfsMain)) << m_status;
    }
    EXPECT_EQ(4u, portmapper.Mappings().size());
    EXPECT_THAT(TakenPorts(kDefaultPorts), ElementsAre("111/tcp", "111/udp"));
}

TEST_F(NfsMainTest, ARefusedRegistrationFailsTheStartAfterBothWereTried) {
    const FakePortmapper portmapper(false);
    EXPECT_FALSE(Start());
    EXPECT_EQ(1, m_main.GetServerStatus());
    EXPECT_THAT(
        Log(),
        ElementsAre("[info] Start NFS with external portmapper: MountPort = 1059, NfsPort = 2050",
                    "[error] Fail to register NFS daemon to external portmapper. Reason=Fail to "
                    "register socket for port 2050. Reason=Unable to register UDP for 100003 ver=3",
                    "[error] Fail to register Mount daemon to external portmapper. Reason=Fail to "
                    "register socket for port 1059. Reason=Unable to register UDP for 100005 "
                    "ver=3"));
    EXPECT_THAT(portmapper.Calls(), Contains(StartsWith("set 100003 ")));
    EXPECT_THAT(portmapper.Calls(), Contains(StartsWith("set 100005 ")));
    EXPECT_THAT(TakenPorts(kDefaultPorts), ElementsAre("111/tcp", "111/udp"));
}

TEST_F(NfsMainTest, ARefusedRegistrationIsToldToTheLogFileOnly) {
    const FakePortmapper portmapper(false);
    CNfsMain nfsMain("x", LOG_CONTROL_ERROR);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(Start(nfsMain));
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST_F(NfsMainTest, ABusyPortBesideAPortmapperIsNotRegistered) {
    const FakePortmapper portmapper;
    const PortHolder holder(Transport::Udp, 1059);
    EXPECT_FALSE(Start());
    EXPECT_STREQ("Mount daemon failed to open port 1059", m_status);
    EXPECT_THAT(portmapper.Calls(), Not(Contains(StartsWith("set "))));
}

TEST_F(NfsMainTest, LooksForAPortmapperAtEachStart) {
    {
        const FakePortmapper portmapper;
        ASSERT_TRUE(Start()) << m_status;
        m_main.StopServer();
    }
    ASSERT_TRUE(Start()) << m_status;
    EXPECT_EQ(kOwnPorts, TakenPorts(kDefaultPorts));
}

// ================================================================================================
// Stopping
// ================================================================================================

TEST_F(NfsMainTest, StopReleasesThePortsAndItsClients) {
    ASSERT_TRUE(Start());
    Nfs3Client connected;
    ASSERT_EQ(kSuccess, connected.Null().acceptStat);
    RpcClient half(Transport::Tcp, 111);
    half.SendRaw({0x80, 0, 0});
    m_main.StopServer();
    EXPECT_TRUE(connected.Rpc().PeerClosed());
    EXPECT_TRUE(half.PeerClosed());
    for (const int port : {111, 1058, 2049}) {
        EXPECT_TRUE(PortHolder::IsFree(Transport::Udp, port)) << port;
        EXPECT_THROW(RpcClient(Transport::Tcp, port), std::runtime_error) << port;
    }
}

TEST_F(NfsMainTest, StopDropsExportsSessionsAndCachedDescriptors) {
    WriteFile(m_folder / "file", "text");
    ASSERT_TRUE(m_main.AddMountPoint(m_folder.Path().c_str(), "vm01", m_status));
    m_main.AddSessionInfo("s", "/a");
    const std::size_t before = OpenFds().size();
    ASSERT_TRUE(Start());
    const Handle root = MountClient(Transport::Udp).Mnt("vm01").handle;
    Nfs3Client nfs(Transport::Udp);
    EXPECT_EQ(4u, nfs.Read(nfs.Lookup(root, "file").handle, 0, 4).count);
    m_main.StopServer();
    EXPECT_EQ(0, m_main.GetMountInfo(false, false));
    EXPECT_FALSE(m_main.IsSessionExists("s"));
    EXPECT_EQ(before, OpenFds().size() - 1) << "only our own socket is left";
}

TEST_F(NfsMainTest, StopBeforeAStartOnlyResetsTheTables) {
    ASSERT_TRUE(m_main.AddMountPoint("/nonexistent", "vm01", m_status));
    m_main.StopServer();
    EXPECT_EQ(0, m_main.GetMountInfo(false, false));
    EXPECT_THAT(Log(), IsEmpty());
    EXPECT_EQ(1, m_main.GetServerStatus());
}

TEST_F(NfsMainTest, MayBeStartedAndStoppedAgainAndAgain) {
    ASSERT_TRUE(Start());
    m_main.StopServer();
    const std::size_t before = OpenFds().size();
    for (int run = 0; run < 20; ++run) {
        ASSERT_TRUE(Start()) << run << " " << m_status;
        ASSERT_TRUE(m_main.AddMountPoint(m_folder.Path().c_str(), "vm01", m_status));
        EXPECT_EQ(support::MNT3_OK, MountClient(Transport::Udp).Mnt("vm01").status);
        m_main.StopServer();
        ASSERT_EQ(1, m_main.GetServerStatus());
    }
    EXPECT_EQ(before, OpenFds().size());
    EXPECT_TRUE(TakenPorts(kDefaultPorts).empty());
}

TEST_F(NfsMainTest, TheDestructorClosesWhatRuns) {
    const std::size_t before = OpenFds().size();
    {
        CNfsMain nfsMain("x", 0);
        ASSERT_TRUE(Start(nfsMain));
        Nfs3Client nfs;
        EXPECT_EQ(kSuccess, nfs.Null().acceptStat);
    }
    EXPECT_EQ(before, OpenFds().size());
    EXPECT_TRUE(TakenPorts(kDefaultPorts).empty());
}

// ================================================================================================
// Operations on the tables
// ================================================================================================

TEST_F(NfsMainTest, MountPointsAreAddedForNobodyInParticularAndRemovedByPath) {
    EXPECT_TRUE(m_main.AddMountPoint("/nonexistent/b", "b", m_status));
    EXPECT_TRUE(m_main.AddMountPoint("/nonexistent/a", "a", m_status));
    EXPECT_FALSE(m_main.AddMountPoint("/nonexistent/a", "c", m_status));
    EXPECT_STREQ("Local mount path \"/nonexistent/a\" already defined", m_status);
    EXPECT_TRUE(m_main.AddMountPoint("/nonexistent/c", "c", "ipc", m_status));
    EXPECT_EQ(3, m_main.GetMountInfo(false, true));
    EXPECT_EQ(0, m_main.GetMountInfo(true, true));
    m_main.RemoveMountPoint("/nonexistent/a");
    EXPECT_EQ(2, m_main.GetMountInfo(false, false));
    EXPECT_THAT(Log(), ElementsAre("  mount1 - /nonexistent/a : a () []",
                                   "  mount2 - /nonexistent/b : b () []",
                                   "  mount3 - /nonexistent/c : c () [ipc]"));
}

TEST_F(NfsMainTest, MountPointOperationsHaveTheirLabels) {
    m_main.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    EXPECT_TRUE(m_main.AddMountPoint("/nonexistent", "a", m_status));
    m_main.RemoveMountPoint("/nonexistent");
    const std::string end = "] Fail to get canonical path from non-exist path: /nonexistent";
    EXPECT_THAT(Log(), ElementsAre("[info] [NfsMain.AddMountPoint" + end,
                                   "[info] [NfsMain.AddMountPoint" + end,
                                   "[info] [NfsMain.RemoveMountPoint" + end));
}

TEST_F(NfsMainTest, MountedExportsCanBeCountedAlone) {
    ASSERT_TRUE(m_main.AddMountPoint(m_folder.Path().c_str(), "vm01", m_status));
    ASSERT_TRUE(m_main.AddMountPoint("/nonexistent", "vm02", m_status));
    ASSERT_TRUE(Start());
    ASSERT_EQ(support::MNT3_OK, MountClient(Transport::Udp).Mnt("vm01").status);
    EXPECT_EQ(1, m_main.GetMountInfo(true, true));
    EXPECT_EQ(2, m_main.GetMountInfo(false, false));
    EXPECT_THAT(Log(), Contains("  mount1 - " + m_folder.Path() + " : vm01 (127.0.0.1) []"));
}

TEST_F(NfsMainTest, TheListsGoToTheGivenParameters) {
    CNfsMain nfsMain("own", 0);
    EXPECT_TRUE(nfsMain.AddMountPoint("/nonexistent", "a", m_status));
    nfsMain.AddSessionInfo("s", "/a");
    nfsMain.AddVSphereInfo("ds", "host", "443", "user", "secret");
    CRuntimeParam other("other", 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(1, nfsMain.GetMountInfo(&other, false, true));
    EXPECT_EQ(1, nfsMain.GetSessionInfo(&other, true));
    EXPECT_EQ(1, nfsMain.GetVSphereInfo(&other, true));
    EXPECT_EQ(
        " mount1 - /nonexistent : a () []\n session1 - s : /a\n NFS datastore1 - ds (host:443)\n",
        testing::internal::GetCapturedStdout());
}

TEST_F(NfsMainTest, SessionsAreAddedFoundAndRemoved) {
    m_main.AddSessionInfo("s1", "/a");
    m_main.AddSessionInfo("s2", "/b");
    EXPECT_TRUE(m_main.IsSessionExists("s1"));
    EXPECT_TRUE(m_main.IsLocalSessionExists("s2"));
    EXPECT_FALSE(m_main.IsSessionExists("s3"));
    EXPECT_EQ(2, m_main.GetSessionInfo(true));
    m_main.RemoveSessionInfo("s1");
    EXPECT_FALSE(m_main.IsSessionExists("s1"));
    EXPECT_EQ(1, m_main.GetSessionInfo(false));
    EXPECT_THAT(Log(), ElementsAre("  session1 - s1 : /a", "  session2 - s2 : /b"));
}

TEST_F(NfsMainTest, DatastoresAreAddedListedAndRemoved) {
    m_main.AddVSphereInfo("ds-2", "host2", "80", "user", "secret");
    m_main.AddVSphereInfo("ds-1", "host1", "443", "user", "secret");
    EXPECT_EQ(2, m_main.GetVSphereInfo(true));
    m_main.RemoveVSphereInfo("ds-2");
    EXPECT_EQ(1, m_main.GetVSphereInfo(false));
    m_main.RemoveVSphereInfo("ds-1");
    EXPECT_EQ(0, m_main.GetVSphereInfo(true));
    EXPECT_THAT(Log(), ElementsAre("  NFS datastore1 - ds-1 (host1:443)",
                                   "  NFS datastore2 - ds-2 (host2:80)"));
}

TEST_F(NfsMainTest, CachedDescriptorsAreClosedOneByOneAndByFolder) {
    ASSERT_EQ(0, mkdir((m_folder / "sub").c_str(), 0755));
    WriteFile(m_folder / "file", "text");
    WriteFile(m_folder / "sub/file", "text");
    ASSERT_TRUE(m_main.AddMountPoint(m_folder.Path().c_str(), "vm01", m_status));
    ASSERT_TRUE(Start());
    const Handle root = MountClient(Transport::Udp).Mnt("vm01").handle;
    Nfs3Client nfs(Transport::Udp);
    const Handle other = nfs.Lookup(nfs.Lookup(root, "sub").handle, "file").handle;
    nfs.Read(other, 0, 4);
    const std::size_t before = OpenFds().size();
    nfs.Read(nfs.Lookup(root, "file").handle, 0, 4);
    ASSERT_EQ(before + 1, OpenFds().size());

    const std::size_t logged = Log().size();
    m_main.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    m_main.CloseCachedFileHandle((m_folder / "file").c_str());
    EXPECT_EQ(before, OpenFds().size());
    m_main.CloseCachedFileHandle((m_folder / "file").c_str());
    m_main.CloseAllCachedFileHandles((m_folder / "su").c_str());
    EXPECT_EQ(before, OpenFds().size());
    m_main.CloseAllCachedFileHandles((m_folder / "sub").c_str());
    EXPECT_EQ(before - 1, OpenFds().size());
    m_main.SetLogControl(0);

    Lines lines = Log();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(logged));
    EXPECT_THAT(lines, ElementsAre(AllOf(StartsWith("[info] [NfsMain.CloseCachedFileHandle] "),
                                         HasSubstr(m_folder / "file")),
                                   AllOf(StartsWith("[info] [NfsMain.CloseAllCachedFileHandles] "),
                                         HasSubstr(m_folder / "sub/file"))));
}

// ================================================================================================
// Log control
// ================================================================================================

TEST_F(NfsMainTest, TheLogControlReachesTheRunningRpcServer) {
    ASSERT_TRUE(Start());
    Nfs3Client nfs(Transport::Udp);
    const std::size_t started = Log().size();
    nfs.Null();
    EXPECT_EQ(started, Log().size());

    m_main.SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
    EXPECT_EQ(LOG_CONTROL_PROC_FUNC_NAME, m_main.GetRuntimeParam()->GetLogControl());
    nfs.Null();
    const Lines lines = Log();
    EXPECT_GT(lines.size(), started);
    EXPECT_EQ("[info] [Nfs3Prog.ProcedureNULL]", lines.back());

    m_main.SetLogControl(0);
    nfs.Null();
    EXPECT_EQ(lines, Log());
}

TEST_F(NfsMainTest, TheLogControlOfAStoppedServerHoldsForTheNextStart) {
    m_main.SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
    ASSERT_TRUE(Start());
    Nfs3Client(Transport::Udp).Null();
    EXPECT_EQ("[info] [Nfs3Prog.ProcedureNULL]", Log().back());
}

TEST_F(NfsMainTest, TheLogControlMayBeChangedWhileTheServerStartsAndStops) {
    std::atomic<bool> done = false;
    std::thread control([&] {
        for (int i = 0; !done; ++i) {
            m_main.SetLogControl(i % 2 == 0 ? LOG_CONTROL_RPC : 0);
            m_main.GetServerStatus();
        }
    });
    for (int run = 0; run < 5; ++run) {
        EXPECT_TRUE(Start()) << m_status;
        EXPECT_EQ(kSuccess, Nfs3Client(Transport::Udp).Null().acceptStat);
        m_main.StopServer();
    }
    done = true;
    control.join();
}
