// ctest-labels: threaded
#include "NfsProg.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RecordingUtilities.h"
#include "RpcFixture.h"
#include "RpcServer.h"
#include "ServerSocket.h"
#include "support/Nfs3Client.h"

using support::BuildCall;
using support::Bytes;
using support::ParseReply;
using support::RpcReply;
using support::WithRecordMark;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::uint32_t PROGRAM = 100003;
constexpr std::uint32_t ANY = 0xFFFFFFFF;
constexpr std::uint32_t COMMIT = 21;  // the last procedure
constexpr std::uint32_t NFS3ERR_ACCES_STATUS = 13;

// The NFS program behind the RPC server and one connection.
class NfsProgTest : public testing::Test {
protected:
    NfsProgTest() { m_server.Set(PROGRAM, &m_prog); }

    // The reply to a call; nothing when the server did not recognise it.
    std::optional<RpcReply> Call(std::uint32_t version, std::uint32_t procedure,
                                 std::uint32_t program = PROGRAM, const Bytes& arguments = {}) {
        m_connection.Send(
            WithRecordMark(BuildCall(++m_xid, program, version, procedure, arguments)));
        const std::optional<Bytes> record = m_connection.Receive();
        if (!record) {
            return std::nullopt;
        }
        RpcReply reply = ParseReply(Bytes(record->begin() + 4, record->end()));
        EXPECT_EQ(reply.xid, m_xid);
        return reply;
    }
    void ExpectStatus(std::uint32_t status, std::uint32_t version, std::uint32_t procedure) {
        const std::optional<RpcReply> reply = Call(version, procedure);
        ASSERT_TRUE(reply) << version << ' ' << procedure;
        EXPECT_EQ(reply->acceptStat, status) << version << ' ' << procedure;
    }
    int Process(std::uint32_t version, COutputStream& out) {
        CInputStream in;
        ProcessParam param{version, 0, "192.0.2.9", &m_param};
        return m_prog.Process(&in, &out, &param);
    }

    RecordingUtilities m_log;
    CRuntimeParam m_param{"main", LOG_CONTROL_RPC};
    CNfsProg m_prog{&m_log};
    CRpcServer m_server{&m_log, &m_param};
    PacketConnection m_connection{PROGRAM, &m_server};
    std::uint32_t m_xid = 0;
};

}  // namespace

TEST_F(NfsProgTest, TheVeryFirstCallIsTakenWhateverItsVersion) {
    // None of these makes the version-3 program, so each of them is still the first.
    for (const std::uint32_t version : {2u, 4u, 0u, ANY}) {
        ExpectStatus(support::kProcUnavail, version, 0);
    }
}

TEST_F(NfsProgTest, TheVeryFirstCallIsTakenWhateverItsProcedure) {
    ExpectStatus(support::kProcUnavail, 2, ANY);
    ExpectStatus(support::kProcUnavail, 3, 99);
    // The version-3 program exists by now.
    EXPECT_FALSE(Call(3, 99));
}

TEST_F(NfsProgTest, AnotherVersionIsSkippedOnceTheVersion3ProgramExists) {
    ExpectStatus(support::kSuccess, 3, 0);
    for (const std::uint32_t version : {2u, 4u, ANY}) {
        m_log.Forget();
        EXPECT_FALSE(Call(version, 0)) << version;
        EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Cannot find valid header!!"));
    }
    ExpectStatus(support::kSuccess, 3, 0);
    EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Skipped 132 data for next vaild header"));
}

TEST_F(NfsProgTest, AProcedureBeyondTheLastIsSkippedOnceTheVersion3ProgramExists) {
    ExpectStatus(support::kSuccess, 3, 0);
    EXPECT_FALSE(Call(3, COMMIT + 1));
    EXPECT_FALSE(Call(3, ANY));
    const support::XdrWriter arguments = support::XdrWriter().Opaque(Bytes(56)).U64(0).U32(0);
    EXPECT_TRUE(Call(3, COMMIT, PROGRAM, arguments.Data()));
}

TEST_F(NfsProgTest, ACallForAnotherProgramIsSkippedAndLogged) {
    EXPECT_FALSE(Call(3, 0, 100004));
    EXPECT_TRUE(
        m_log.Has("[RpcServer.SocketReceived] A possible valid header may be skipped, "
                  "ProcId=100004, ProcId=0"));
    ExpectStatus(support::kSuccess, 3, 0);
}

TEST_F(NfsProgTest, VersionAndProceduresAreTheVersion3ProgramsOnceItExists) {
    EXPECT_EQ(m_prog.GetVersion(), ANY);
    EXPECT_EQ(m_prog.GetMaxSupportProc(), ANY);
    COutputStream out;
    EXPECT_EQ(Process(2, out), PROG_RESULT_NOIMP);
    EXPECT_EQ(out.GetBufferSize(), 0u);
    EXPECT_EQ(m_prog.GetVersion(), ANY);
    EXPECT_EQ(m_prog.GetMaxSupportProc(), ANY);
    EXPECT_EQ(Process(3, out), PROG_RESULT_DONE);
    EXPECT_EQ(m_prog.GetVersion(), 3u);
    EXPECT_EQ(m_prog.GetMaxSupportProc(), 22u);
    // Another version is refused as before, also when it gets here.
    EXPECT_EQ(Process(2, out), PROG_RESULT_NOIMP);
    EXPECT_EQ(Process(4, out), PROG_RESULT_NOIMP);
}

// -------------------------------------------------------------------------------------------------
// What is stored and passed on
// -------------------------------------------------------------------------------------------------

namespace {

class NfsProgSettingsTest : public NfsProgTest {
protected:
    NfsProgSettingsTest() {
        LogArgu argu{"Test"};
        char status[STATUS_SIZE] = "";
        if (!m_log.AddMountInfo(&m_param, &argu, m_folder.Path().c_str(), "vm01", "", status)) {
            throw std::runtime_error(status);
        }
        m_root.resize(56);
        m_log.GetFileHandle(&m_param, &argu, m_folder.Path().c_str(), m_root.data(), 56);
        m_tcp.SetListener(&m_server);
        if (!m_tcp.Open(PROGRAM, 2049, 3, &m_log, status)) {
            throw std::runtime_error(status);
        }
    }
    ~NfsProgSettingsTest() override {
        m_tcp.Close();
        LogArgu argu{"Test"};
        m_log.Reset(&m_param, &argu);
    }

    std::uint32_t CreateStatus(const std::string& name) {
        return support::Nfs3Client().Create(m_root, name).status;
    }

    support::ScopedTempDir m_folder;
    support::Handle m_root;
    CServerSocket m_tcp;
};

}  // namespace

TEST_F(NfsProgSettingsTest, FilesMayBeMadeUnlessToldOtherwise) {
    EXPECT_EQ(CreateStatus("a"), 0u);
    EXPECT_TRUE(support::FileExists(m_folder / "a"));
}

TEST_F(NfsProgSettingsTest, ReadOnlySetBeforeTheFirstCallHolds) {
    m_prog.SetReadOnly(true);
    EXPECT_EQ(CreateStatus("a"), NFS3ERR_ACCES_STATUS);
}

TEST_F(NfsProgSettingsTest, ReadOnlySetLaterReachesTheVersion3Program) {
    EXPECT_EQ(CreateStatus("a"), 0u);
    m_prog.SetReadOnly(true);
    EXPECT_EQ(CreateStatus("b"), NFS3ERR_ACCES_STATUS);
    m_prog.SetReadOnly(false);
    EXPECT_EQ(CreateStatus("c"), 0u);
}

TEST_F(NfsProgSettingsTest, TheVersion3ProgramIsMadeOnceAndKept) {
    // Its write verifier is the time of its making.
    support::Nfs3Client client;
    const support::CreateResult file = client.Create(m_root, "a");
    ASSERT_TRUE(file.handle);
    const std::uint64_t verifier = client.Write(*file.handle, 0, {1}).verifier;
    const auto milliseconds = [] {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
    };
    const auto start = milliseconds();
    ASSERT_TRUE(support::WaitFor([&] { return milliseconds() > start + 2; }));
    EXPECT_EQ(client.Write(*file.handle, 0, {2}).verifier, verifier);
    EXPECT_LE(verifier, static_cast<std::uint64_t>(start));
}

TEST_F(NfsProgSettingsTest, UserIdsMayBeSetAtAnyTimeAndChangeNoOwner) {
    m_prog.SetUserID(4711, 4712);
    support::Nfs3Client client;
    const support::CreateResult file = client.Create(m_root, "a");
    ASSERT_TRUE(file.attributes);
    EXPECT_EQ(file.attributes->uid, geteuid());
    m_prog.SetUserID(1, 2);
    EXPECT_EQ(client.GetAttr(*file.handle).attributes.uid, geteuid());
}
