// ctest-labels: threaded
#include "RpcServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <random>
#include <type_traits>

#include "DatagramSocket.h"
#include "RecordingUtilities.h"
#include "RpcFixture.h"
#include "ServerSocket.h"
#include "support/Faults.h"

namespace faults = support::faults;

using support::BuildCall;
using support::Bytes;
using support::OpaqueAuth;
using support::ParseReply;
using support::RpcClient;
using support::RpcReply;
using support::Transport;
using support::WithRecordMark;
using support::XdrReader;
using support::XdrWriter;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr std::uint32_t PROGRAM = 100003;
constexpr std::uint32_t VERSION = 3;
constexpr std::uint32_t PROCEDURES = 10;
constexpr std::uint32_t NOTHING = 0;  // a procedure without arguments and results
constexpr std::uint32_t NEXT_NUMBER = ScriptedProg::NEXT_NUMBER;
constexpr int PORT = 2049;
constexpr int LOG_ALL = 1023;

const Bytes GARBAGE(7, 0xFF);

Bytes Word(std::uint32_t value) { return XdrWriter().U32(value).Data(); }

// A whole TCP call of the test program.
Bytes Call(std::uint32_t xid, std::uint32_t procedure = NOTHING, const Bytes& arguments = {},
           const OpaqueAuth& credential = {}, const OpaqueAuth& verifier = {}) {
    return WithRecordMark(
        BuildCall(xid, PROGRAM, VERSION, procedure, arguments, credential, verifier));
}

// A TCP reply: one record that is whole and announces its own length.
RpcReply Record(const Bytes& bytes) {
    XdrReader reader(bytes);
    const std::uint32_t mark = reader.U32();
    EXPECT_EQ(mark, 0x80000000u + (bytes.size() - 4));
    return ParseReply(reader.Raw(reader.Remaining()));
}

// The records of a byte stream that holds nothing else.
std::vector<RpcReply> Records(const Bytes& stream) {
    std::vector<RpcReply> replies;
    XdrReader reader(stream);
    while (!reader.AtEnd()) {
        const std::uint32_t mark = reader.U32();
        EXPECT_EQ(mark >> 31, 1u);
        replies.push_back(ParseReply(reader.Raw(mark & 0x7FFFFFFF)));
    }
    return replies;
}

Bytes Joined(const std::vector<Bytes>& messages) {
    Bytes all;
    for (const Bytes& message : messages) {
        all.insert(all.end(), message.begin(), message.end());
    }
    return all;
}

Bytes FirstBytes(const Bytes& bytes, std::size_t count) {
    return Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
}
Bytes BytesFrom(const Bytes& bytes, std::size_t count) {
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(count), bytes.end());
}

void Receive(CInputStream& stream, const Bytes& bytes) {
    std::copy(bytes.begin(), bytes.end(), stream.GetFreeBuffer());
    stream.AddFilledBufferSize(static_cast<std::uint32_t>(bytes.size()));
}

Bytes Extent(const COutputStream& stream) {
    return Bytes(stream.GetBuffer(), stream.GetBuffer() + stream.GetBufferSize());
}

// A server with one program and its log.
class RpcServerTest : public testing::Test {
protected:
    RpcServerTest() { m_server.Set(PROGRAM, &m_prog); }

    // Log lines are of no interest to the test that calls this.
    void Silence() { m_server.SetLogControl(0); }

    faults::Guard m_guard;
    RecordingUtilities m_log;
    CRuntimeParam m_mainParam{"main", LOG_ALL};
    CRpcServer m_server{&m_log, &m_mainParam};
    ScriptedProg m_prog{&m_log, VERSION, PROCEDURES};
};

// The same behind a real UDP port.
class RpcServerOverUdpTest : public RpcServerTest {
protected:
    RpcServerOverUdpTest() {
        m_socket.SetListener(&m_spy);
        char reason[STATUS_SIZE] = "";
        if (!m_socket.Open(PROGRAM, PORT, &m_log, reason)) {
            throw std::runtime_error(reason);
        }
    }
    // Returns when the server has done all it does about this datagram.
    void Send(RpcClient& client, const Bytes& datagram) {
        const std::size_t rounds = m_spy.Rounds();
        client.SendRaw(datagram);
        ASSERT_TRUE(m_spy.WaitForRounds(rounds + 1));
    }
    // What has come by now.
    static Bytes Received(RpcClient& client) {
        return client.ReceiveRaw(65536, support::Milliseconds(0));
    }

    ListenerSpy m_spy{&m_server};
    CDatagramSocket m_socket;
};

}  // namespace

// -------------------------------------------------------------------------------------------------
// Calls and replies, byte by byte
// -------------------------------------------------------------------------------------------------

TEST(RpcHeaderTest, LiesOnTheWireAsTheStructuresSay) {
    static_assert(sizeof(OPAQUE_AUTH) == 8 && sizeof(RPC_HEADER) == 40);
    static_assert(sizeof(RPC_STM_HEADER) == 44 && offsetof(RPC_STM_HEADER, header) == 4);
    static_assert(offsetof(RPC_HEADER, lXID) == 0 && offsetof(RPC_HEADER, lMsg) == 4);
    static_assert(offsetof(RPC_HEADER, lRpcvers) == 8 && offsetof(RPC_HEADER, lProg) == 12);
    static_assert(offsetof(RPC_HEADER, lVers) == 16 && offsetof(RPC_HEADER, lProc) == 20);
    static_assert(offsetof(RPC_HEADER, cred) == 24 && offsetof(RPC_HEADER, verf) == 32);
    static_assert(std::is_standard_layout_v<RPC_STM_HEADER>);
    static_assert(std::is_base_of_v<ISocketListener, CRpcServer>);
    static_assert(std::has_virtual_destructor_v<CRpcServer>);
}

TEST_F(RpcServerTest, AnswersATcpCallByteByByte) {
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send({
        0x80, 0x00, 0x00, 0x2C,  // record mark: last fragment, 44 bytes
        0x12, 0x34, 0x56, 0x78,  // xid
        0x00, 0x00, 0x00, 0x00,  // CALL
        0x00, 0x00, 0x00, 0x02,  // RPC version 2
        0x00, 0x01, 0x86, 0xA3,  // program 100003
        0x00, 0x00, 0x00, 0x03,  // program version 3
        0x00, 0x00, 0x00, 0x01,  // procedure 1
        0x00, 0x00, 0x00, 0x00,  // credential flavour: AUTH_NONE
        0x00, 0x00, 0x00, 0x00,  // credential length
        0x00, 0x00, 0x00, 0x00,  // verifier flavour: AUTH_NONE
        0x00, 0x00, 0x00, 0x00,  // verifier length
        0x00, 0x00, 0x00, 0x29,  // argument: 41
    });
    EXPECT_EQ(connection.Receive(), (Bytes{
                                        0x80, 0x00, 0x00, 0x1C,  // record mark: last, 28 bytes
                                        0x12, 0x34, 0x56, 0x78,  // xid
                                        0x00, 0x00, 0x00, 0x01,  // REPLY
                                        0x00, 0x00, 0x00, 0x00,  // MSG_ACCEPTED
                                        0x00, 0x00, 0x00, 0x00,  // verifier flavour
                                        0x00, 0x00, 0x00, 0x00,  // verifier length
                                        0x00, 0x00, 0x00, 0x00,  // SUCCESS
                                        0x00, 0x00, 0x00, 0x2A,  // result: 42
                                    }));
}

TEST_F(RpcServerOverUdpTest, AnswersADatagramByteByByte) {
    RpcClient client(Transport::Udp, PORT);
    Send(client, {
                     0x12, 0x34, 0x56, 0x78,  // xid
                     0x00, 0x00, 0x00, 0x00,  // CALL
                     0x00, 0x00, 0x00, 0x02,  // RPC version 2
                     0x00, 0x01, 0x86, 0xA3,  // program 100003
                     0x00, 0x00, 0x00, 0x03,  // program version 3
                     0x00, 0x00, 0x00, 0x01,  // procedure 1
                     0x00, 0x00, 0x00, 0x00,  // credential flavour: AUTH_NONE
                     0x00, 0x00, 0x00, 0x00,  // credential length
                     0x00, 0x00, 0x00, 0x00,  // verifier flavour: AUTH_NONE
                     0x00, 0x00, 0x00, 0x00,  // verifier length
                     0x00, 0x00, 0x00, 0x29,  // argument: 41
                 });
    EXPECT_EQ(Received(client), (Bytes{
                                    0x12, 0x34, 0x56, 0x78,  // xid
                                    0x00, 0x00, 0x00, 0x01,  // REPLY
                                    0x00, 0x00, 0x00, 0x00,  // MSG_ACCEPTED
                                    0x00, 0x00, 0x00, 0x00,  // verifier flavour
                                    0x00, 0x00, 0x00, 0x00,  // verifier length
                                    0x00, 0x00, 0x00, 0x00,  // SUCCESS
                                    0x00, 0x00, 0x00, 0x2A,  // result: 42
                                }));
}

TEST_F(RpcServerTest, TheProgramLearnsVersionProcedureAndCaller) {
    PacketConnection connection(PROGRAM, &m_server);
    CRuntimeParam* given = nullptr;
    m_prog.OnCall([&](CInputStream& in, COutputStream& out, ProcessParam& param) {
        given = param.pRuntimeParam;
        EXPECT_EQ(&in, connection.Socket().GetInputStream());
        EXPECT_EQ(&out, connection.Socket().GetOutputStream());
        return PROG_RESULT_DONE;
    });
    connection.Send(Call(1, 7));
    ASSERT_THAT(m_prog.Calls(), SizeIs(1));
    const SeenCall call = m_prog.Calls()[0];
    EXPECT_EQ(call.version, VERSION);
    EXPECT_EQ(call.procedure, 7u);
    EXPECT_EQ(call.address, PacketConnection::ADDRESS);
    EXPECT_NE(given, nullptr);
    EXPECT_NE(given, &m_mainParam);  // the RPC server's own
}

TEST_F(RpcServerTest, TheRecordMarkAnnouncesTheReplyWithoutItself) {
    Silence();
    PacketConnection connection(PROGRAM, &m_server);
    for (const std::uint32_t size : {0u, 4u, 100u, 8192u, 100'000u}) {
        m_prog.OnCall([size](CInputStream&, COutputStream& out, ProcessParam&) {
            out.Write(Bytes(size, 7).data(), size);
            return PROG_RESULT_DONE;
        });
        connection.Send(Call(size));
        const std::optional<Bytes> reply = connection.Receive();
        ASSERT_TRUE(reply) << size;
        EXPECT_EQ(XdrReader(*reply).U32(), 0x80000000u + 24 + size);
        EXPECT_EQ(reply->size(), 4u + 24 + size);
    }
}

TEST_F(RpcServerTest, FillBehindTheLastOpaqueIsPartOfTheRecord) {
    PacketConnection connection(PROGRAM, &m_server);
    m_prog.OnCall([](CInputStream&, COutputStream& out, ProcessParam&) {
        out.Write(5u);
        out.Write("abcde", 5);
        out.WriteRemainOpaque(5);
        return PROG_RESULT_DONE;
    });
    connection.Send(Concat({Call(1), Call(2)}));
    for (const std::uint32_t xid : {1u, 2u}) {
        const std::optional<Bytes> reply = connection.Receive();
        ASSERT_TRUE(reply);
        const RpcReply record = Record(*reply);
        EXPECT_EQ(record.xid, xid);
        EXPECT_EQ(record.body.size(), 12u);
    }
}

TEST_F(RpcServerTest, AReplyLargerThanTheBufferIsCutToARecordThatFits) {
    Silence();
    m_prog.OnCall([](CInputStream&, COutputStream& out, ProcessParam&) {
        const Bytes block(1000, 7);
        while (out.Write(block.data(), 1000) != 0) {
        }
        return PROG_RESULT_DONE;
    });
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);  // without a connection the reply stays here
    Receive(*socket.GetInputStream(), Call(1));
    m_server.SocketReceived(&socket);
    const Bytes reply = Extent(*socket.GetOutputStream());
    EXPECT_EQ(reply.size(), 1'048'576u);
    EXPECT_EQ(XdrReader(FirstBytes(reply, 4)).U32(), 0x80000000u + 1'048'572);
}

// -------------------------------------------------------------------------------------------------
// The header search, on both socket types
// -------------------------------------------------------------------------------------------------

namespace {

class HeaderSearchTest : public RpcServerTest, public testing::WithParamInterface<int> {
protected:
    bool Stream() const { return GetParam() == SOCKET_TYPE_TCP; }
    std::uint32_t HeaderSize() const { return Stream() ? 44 : 40; }

    // A header for a program, filled up with nothing else.
    Bytes Header(std::uint32_t program, std::uint32_t version, std::uint32_t procedure) const {
        const Bytes call = BuildCall(0x11111111, program, version, procedure);
        return Stream() ? WithRecordMark(call) : call;
    }
    // Runs the search over these bytes alone.
    bool Find(const Bytes& bytes, std::uint32_t program = PROGRAM) {
        m_in.ResetBuffer();
        Receive(m_in, bytes);
        COutputStream out;
        LogArgu argu{"Some.Label"};
        const bool found =
            m_server.LookForValidHeader(&m_param, &argu, program, GetParam(), &m_in, &out);
        EXPECT_EQ(out.GetBufferSize(), 0u);
        if (!found) {
            EXPECT_EQ(m_in.GetBufferIndex(), 0u) << "bytes were consumed";
        }
        EXPECT_EQ(m_in.GetBufferIndex() + m_in.GetFilledBufferSize(), bytes.size());
        return found;
    }
    // The same with another program in the table.
    bool FindFor(ScriptedProg& prog, std::uint32_t version, std::uint32_t procedure) {
        m_server.Set(PROGRAM, &prog);
        return Find(Header(PROGRAM, version, procedure));
    }

    CRuntimeParam m_param{"peer", LOG_CONTROL_RPC};
    CInputStream m_in;
};

}  // namespace

TEST_P(HeaderSearchTest, NeedsAWholeHeader) {
    const Bytes header = Header(PROGRAM, VERSION, 0);
    ASSERT_EQ(header.size(), HeaderSize());
    EXPECT_TRUE(Find(header));
    EXPECT_EQ(m_in.GetBufferIndex(), 0u);
    for (std::size_t size = 0; size < header.size(); ++size) {
        EXPECT_FALSE(Find(FirstBytes(header, size))) << size;
    }
    EXPECT_THAT(m_log.Texts(), IsEmpty());
}

TEST_P(HeaderSearchTest, GoesForwardByteByByte) {
    for (std::size_t garbage = 1; garbage <= 9; ++garbage) {
        m_log.Forget();
        EXPECT_TRUE(Find(Concat({Bytes(garbage, 0xFF), Header(PROGRAM, VERSION, 0)}))) << garbage;
        EXPECT_EQ(m_in.GetBufferIndex(), garbage);
        EXPECT_THAT(m_log.Infos(), ElementsAre("[Some.Label] Skipped " + std::to_string(garbage) +
                                               " data for next vaild header"));
    }
}

TEST_P(HeaderSearchTest, StartsAtTheInputsPosition) {
    const Bytes header = Header(PROGRAM, VERSION, 0);
    Receive(m_in, Concat({header, {9, 9}, header}));
    m_in.Skip(1);
    COutputStream out;
    LogArgu argu{"Some.Label"};
    EXPECT_TRUE(m_server.LookForValidHeader(&m_param, &argu, PROGRAM, GetParam(), &m_in, &out));
    EXPECT_EQ(m_in.GetBufferIndex(), header.size() + 2);
}

TEST_P(HeaderSearchTest, TakesTheFirstOfSeveralHeaders) {
    EXPECT_TRUE(Find(Concat({GARBAGE, Header(PROGRAM, VERSION, 0), Header(PROGRAM, VERSION, 1)})));
    EXPECT_EQ(m_in.GetBufferIndex(), 7u);
}

TEST_P(HeaderSearchTest, LooksAtNothingButProgramVersionAndProcedure) {
    Bytes header(HeaderSize(), 0xEE);  // record mark, xid, type, RPC version, credential: anything
    const Bytes words = XdrWriter().U32(PROGRAM).U32(VERSION).U32(4).Data();
    std::copy(words.begin(), words.end(), header.begin() + (Stream() ? 16 : 12));
    EXPECT_TRUE(Find(header));
}

TEST_P(HeaderSearchTest, TheVersionMustBeTheProgramsOwn) {
    EXPECT_TRUE(Find(Header(PROGRAM, 3, 0)));
    for (const std::uint32_t version : {0u, 2u, 4u, 0xFFFFFFFFu}) {
        EXPECT_FALSE(Find(Header(PROGRAM, version, 0))) << version;
    }
    EXPECT_THAT(m_log.Texts(), IsEmpty());  // the port's own program is not "another call"
}

TEST_P(HeaderSearchTest, TheProcedureMustBeLessThanTheirNumber) {
    for (const std::uint32_t procedure : {0u, 1u, 9u}) {
        EXPECT_TRUE(Find(Header(PROGRAM, VERSION, procedure))) << procedure;
    }
    for (const std::uint32_t procedure : {10u, 11u, 99u, 0xFFFFFFFFu}) {
        EXPECT_FALSE(Find(Header(PROGRAM, VERSION, procedure))) << procedure;
    }
    EXPECT_THAT(m_log.Texts(), IsEmpty());
}

TEST_P(HeaderSearchTest, AProgramMayTakeAnyVersion) {
    ScriptedProg prog(&m_log, CRpcProg::ANY, 10);
    for (const std::uint32_t version : {0u, 2u, 3u, 0xFFFFFFFFu}) {
        EXPECT_TRUE(FindFor(prog, version, 9)) << version;
        EXPECT_FALSE(FindFor(prog, version, 10)) << version;
    }
}

TEST_P(HeaderSearchTest, AProgramMayTakeAnyProcedure) {
    ScriptedProg prog(&m_log, 3, CRpcProg::ANY);
    for (const std::uint32_t procedure : {0u, 100u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        EXPECT_TRUE(FindFor(prog, 3, procedure)) << procedure;
        EXPECT_FALSE(FindFor(prog, 2, procedure)) << procedure;
    }
}

TEST_P(HeaderSearchTest, TheBaseOfAllProgramsTakesEverything) {
    class Plain : public CRpcProg {
    public:
        using CRpcProg::CRpcProg;
        int Process(CInputStream*, COutputStream*, ProcessParam*) override { return 0; }
    };
    Plain plain(&m_log);
    EXPECT_EQ(plain.GetVersion(), 0xFFFFFFFFu);
    EXPECT_EQ(plain.GetMaxSupportProc(), 0xFFFFFFFFu);
    m_server.Set(PROGRAM, &plain);
    EXPECT_TRUE(Find(Header(PROGRAM, 77, 0xFFFFFFFF)));
}

TEST_P(HeaderSearchTest, TheProgramMustBeThePortsOwn) {
    ScriptedProg other(&m_log, VERSION, PROCEDURES);
    m_server.Set(100005, &other);  // served, but on another port
    EXPECT_FALSE(Find(Header(100005, VERSION, 0)));
    EXPECT_FALSE(Find(Header(100004, VERSION, 0)));
    EXPECT_TRUE(Find(Header(100005, VERSION, 0), 100005));
}

TEST_P(HeaderSearchTest, AProgramThatIsNotRegisteredHasNoHeaders) {
    EXPECT_FALSE(Find(Header(100000, 2, 0), 100000));
    m_server.Set(PROGRAM, nullptr);
    EXPECT_FALSE(Find(Header(PROGRAM, VERSION, 0)));
}

TEST_P(HeaderSearchTest, ACallForAnotherProgramIsLogged) {
    EXPECT_FALSE(Find(Header(100004, 1, 7)));
    EXPECT_THAT(m_log.Infos(), ElementsAre("[Some.Label] A possible valid header may be skipped, "
                                           "ProcId=100004, ProcId=7"));
}

TEST_P(HeaderSearchTest, OnlyPlausibleProgramsAndProceduresAreLogged) {
    struct {
        std::uint32_t program;
        std::uint32_t procedure;
        bool logged;
    } const cases[] = {
        {99'999, 0, false},  {100'000, 0, true},    {199'999, 0, true},    {200'000, 0, false},
        {100'004, 99, true}, {100'004, 100, false}, {100'004, ~0u, false},
    };
    for (const auto& one : cases) {
        m_log.Forget();
        EXPECT_FALSE(Find(Header(one.program, VERSION, one.procedure)));
        EXPECT_EQ(m_log.Texts().size(), one.logged ? 1u : 0u)
            << one.program << ' ' << one.procedure;
    }
}

TEST_P(HeaderSearchTest, IsSilentWithoutRpcLogging) {
    m_param.SetLogControl(LOG_ALL & ~LOG_CONTROL_RPC);
    EXPECT_FALSE(Find(Header(100004, 1, 7)));
    EXPECT_TRUE(Find(Concat({GARBAGE, Header(PROGRAM, VERSION, 0)})));
    EXPECT_THAT(m_log.Texts(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Types, HeaderSearchTest, testing::Values(SOCKET_TYPE_TCP, SOCKET_TYPE_UDP),
                         [](const auto& info) { return info.param == 1 ? "Tcp" : "Udp"; });

TEST_F(RpcServerTest, GarbageBeforeATcpCallIsSkipped) {
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Concat({GARBAGE, Call(1, NEXT_NUMBER, Word(41))}));
    const std::optional<Bytes> reply = connection.Receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(Record(*reply).body, Word(42));
    EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Skipped 7 data for next vaild header"));
}

TEST_F(RpcServerOverUdpTest, GarbageBeforeACallInADatagramIsSkipped) {
    RpcClient client(Transport::Udp, PORT);
    Send(client, Concat({GARBAGE, BuildCall(5, PROGRAM, VERSION, NEXT_NUMBER, Word(41))}));
    const RpcReply reply = ParseReply(Received(client));
    EXPECT_EQ(reply.xid, 5u);
    EXPECT_EQ(reply.body, Word(42));
    EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Skipped 7 data for next vaild header"));
}

TEST_F(RpcServerTest, BytesWithoutAHeaderStayForTheNextReceive) {
    PacketConnection connection(PROGRAM, &m_server);
    const Bytes call = Call(1, NEXT_NUMBER, Word(41));
    connection.Send(FirstBytes(call, 43));
    EXPECT_FALSE(connection.Receive());
    EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Cannot find valid header!!"));
    EXPECT_THAT(m_prog.Calls(), IsEmpty());
    connection.Send(BytesFrom(call, 43));
    const std::optional<Bytes> reply = connection.Receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(Record(*reply).body, Word(42));
}

TEST_F(RpcServerTest, CallsThatAreNotTheProgramsAreSkippedAndNotAnswered) {
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(WithRecordMark(BuildCall(1, PROGRAM, 2, 0)));         // wrong version
    connection.Send(WithRecordMark(BuildCall(2, 100004, VERSION, 0)));    // wrong program
    connection.Send(WithRecordMark(BuildCall(3, PROGRAM, VERSION, 10)));  // no such procedure
    EXPECT_FALSE(connection.Receive());
    connection.Send(Call(4));
    const std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(1));
    EXPECT_EQ(Record(replies[0]).xid, 4u);
    EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Skipped 132 data for next vaild header"));
}

// -------------------------------------------------------------------------------------------------
// Results of programs
// -------------------------------------------------------------------------------------------------

namespace {

struct ResultCase {
    int result;
    std::uint32_t acceptStatus;
    bool bodyKept;
};

class ProgramResultTest : public RpcServerTest, public testing::WithParamInterface<ResultCase> {};

}  // namespace

TEST_P(ProgramResultTest, BecomesItsAcceptStatus) {
    const ResultCase& expected = GetParam();
    m_prog.OnCall([&](CInputStream&, COutputStream& out, ProcessParam& param) {
        if (param.iProc != 5) {
            return PROG_RESULT_DONE;
        }
        out.Write(0xABCDABCDu);
        out.Write("xyz", 3);
        out.WriteRemainOpaque(3);
        return expected.result;
    });
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Call(1, 5));
    const std::optional<Bytes> reply = connection.Receive();
    ASSERT_TRUE(reply);
    const RpcReply record = Record(*reply);
    EXPECT_EQ(record.xid, 1u);
    EXPECT_EQ(record.messageType, 1u);
    EXPECT_EQ(record.replyStat, 0u);
    EXPECT_EQ(record.acceptStat, expected.acceptStatus);
    // What was written before the status was replaced is neither sent nor left behind.
    EXPECT_EQ(record.body.size(), expected.bodyKept ? 8u : 0u);
    EXPECT_FALSE(connection.Receive());
    connection.Send(Call(2));
    const std::optional<Bytes> next = connection.Receive();
    ASSERT_TRUE(next);
    EXPECT_EQ(Record(*next).xid, 2u);
    EXPECT_EQ(Record(*next).acceptStat, support::kSuccess);
}

INSTANTIATE_TEST_SUITE_P(All, ProgramResultTest,
                         testing::Values(ResultCase{0, support::kSuccess, true},
                                         ResultCase{1, support::kGarbageArgs, false},
                                         ResultCase{2, support::kProcUnavail, false},
                                         ResultCase{4, support::kSuccess, true},
                                         ResultCase{99, support::kSuccess, true},
                                         ResultCase{-1, support::kSuccess, true}),
                         [](const auto& info) {
                             return info.param.result < 0
                                        ? std::string("Negative")
                                        : "Result" + std::to_string(info.param.result);
                         });

TEST_F(RpcServerTest, OnlyASuccessfulCallLetsTheRoundGoOn) {
    int result = 0;
    m_prog.OnCall([&](CInputStream&, COutputStream&, ProcessParam& param) {
        return param.iProc == 5 ? result : PROG_RESULT_DONE;
    });
    for (const int failure : {1, 2, 4, -1}) {
        PacketConnection connection(PROGRAM, &m_server);
        result = failure;
        connection.Send(Concat({Call(1, 5), Call(2)}));
        ASSERT_THAT(connection.ReceiveAll(), SizeIs(1)) << failure;
        // The second call waits for the next receive, and then comes first.
        connection.Send(Call(3));
        const std::vector<Bytes> replies = connection.ReceiveAll();
        ASSERT_THAT(replies, SizeIs(2)) << failure;
        EXPECT_EQ(Record(replies[0]).xid, 2u);
        EXPECT_EQ(Record(replies[1]).xid, 3u);
    }
}

TEST_F(RpcServerTest, AnExceptionOfAProgramPassesThroughAndLeavesTheServerUsable) {
    CSocket socket(SOCKET_TYPE_TCP, PROGRAM);
    m_prog.OnCall([](CInputStream&, COutputStream&, ProcessParam&) -> int {
        throw std::logic_error("from the program");
    });
    Receive(*socket.GetInputStream(), Call(1));
    EXPECT_THROW(m_server.SocketReceived(&socket), std::logic_error);

    m_prog.OnCall(nullptr);
    CSocket second(SOCKET_TYPE_TCP, PROGRAM);
    Receive(*second.GetInputStream(), Call(2));
    m_server.SocketReceived(&second);  // would wait for ever if the lock were still held
    EXPECT_EQ(Record(Extent(*second.GetOutputStream())).xid, 2u);
}

namespace {

// Process called directly: only so a call gets there that the search would not let through.
class ProcessOfTest : public RpcServerTest, public testing::WithParamInterface<int> {
protected:
    bool Stream() const { return GetParam() == SOCKET_TYPE_TCP; }
    RpcReply Process(const Bytes& message, int expectedResult) {
        CInputStream in;
        COutputStream out;
        Receive(in, Stream() ? WithRecordMark(message) : message);
        EXPECT_EQ(m_server.Process(&m_mainParam, PROGRAM, GetParam(), &in, &out, "192.0.2.9"),
                  expectedResult);
        if (Stream()) {
            EXPECT_EQ(out.GetBufferIndex(), 4u);  // just behind the record mark
        }
        const Bytes reply = Extent(out);
        return Stream() ? Record(reply) : ParseReply(reply);
    }
};

}  // namespace

TEST_P(ProcessOfTest, AProgramThatIsNotRegisteredIsUnavailable) {
    for (const std::uint32_t program : {0u, 99'999u, 100'000u, 100'009u, 100'010u, 0xFFFFFFFFu}) {
        const RpcReply reply = Process(BuildCall(8, program, VERSION, 0), 0);
        EXPECT_EQ(reply.xid, 8u);
        EXPECT_EQ(reply.acceptStat, support::kProgUnavail) << program;
        EXPECT_TRUE(reply.body.empty());
    }
    EXPECT_THAT(m_prog.Calls(), IsEmpty());
}

TEST_P(ProcessOfTest, AnyNumberOfTheTableCanBeServed) {
    for (const int program : {100'000, 100'001, 100'009}) {
        ScriptedProg prog(&m_log);
        m_server.Set(program, &prog);
        const auto number = static_cast<std::uint32_t>(program);
        EXPECT_EQ(Process(BuildCall(8, number, VERSION, NEXT_NUMBER, Word(1)), 0).body, Word(2));
        EXPECT_EQ(prog.Calls().size(), 1u);
        m_server.Set(program, nullptr);
        EXPECT_EQ(Process(BuildCall(8, number, VERSION, 0), 0).acceptStat, support::kProgUnavail);
    }
}

TEST_P(ProcessOfTest, NumbersOutsideTheTableAreNotStored) {
    ScriptedProg prog(&m_log);
    for (const int program : {99'999, 100'010, 0, -1}) {
        m_server.Set(program, &prog);
        EXPECT_EQ(
            Process(BuildCall(8, static_cast<std::uint32_t>(program), VERSION, 0), 0).acceptStat,
            support::kProgUnavail);
    }
    EXPECT_THAT(prog.Calls(), IsEmpty());
}

TEST_P(ProcessOfTest, TheResultIsTheProgramsCode) {
    for (const int result : {0, 1, 2, 3, 17, -5}) {
        m_prog.OnCall([result](CInputStream&, COutputStream&, ProcessParam&) { return result; });
        Process(BuildCall(8, PROGRAM, VERSION, 0), result);
    }
    EXPECT_EQ(m_prog.Calls().at(0).address, "192.0.2.9");
}

TEST_P(ProcessOfTest, MessageTypeAndRpcVersionAreNotChecked) {
    const Bytes message = XdrWriter()
                              .U32(8)
                              .U32(1)  // REPLY
                              .U32(9)  // no RPC version that there is
                              .U32(PROGRAM)
                              .U32(VERSION)
                              .U32(NEXT_NUMBER)
                              .U32(0)
                              .U32(0)
                              .U32(0)
                              .U32(0)
                              .U32(41)
                              .Data();
    const RpcReply reply = Process(message, 0);
    EXPECT_EQ(reply.messageType, 1u);
    EXPECT_EQ(reply.replyStat, 0u);
    EXPECT_EQ(reply.acceptStat, support::kSuccess);
    EXPECT_EQ(reply.body, Word(42));
}

TEST_P(ProcessOfTest, AnExceptionOfAProgramPassesThrough) {
    m_prog.OnCall([](CInputStream&, COutputStream&, ProcessParam&) -> int {
        throw std::logic_error("from the program");
    });
    EXPECT_THROW(Process(BuildCall(8, PROGRAM, VERSION, 0), 0), std::logic_error);
}

INSTANTIATE_TEST_SUITE_P(Types, ProcessOfTest, testing::Values(SOCKET_TYPE_TCP, SOCKET_TYPE_UDP),
                         [](const auto& info) { return info.param == 1 ? "Tcp" : "Udp"; });

// -------------------------------------------------------------------------------------------------
// Credentials and verifiers
// -------------------------------------------------------------------------------------------------

namespace {

// A TCP call with bodies exactly as long as they say, without any fill.
Bytes CallWithAuth(std::uint32_t xid, std::uint32_t procedure, const OpaqueAuth& credential,
                   const OpaqueAuth& verifier, const Bytes& arguments) {
    XdrWriter call;
    call.U32(xid).U32(0).U32(2).U32(PROGRAM).U32(VERSION).U32(procedure);
    for (const OpaqueAuth* auth : {&credential, &verifier}) {
        call.U32(auth->flavor).U32(static_cast<std::uint32_t>(auth->body.size())).Raw(auth->body);
    }
    call.Raw(arguments);
    return WithRecordMark(call.Data());
}

}  // namespace

TEST_F(RpcServerTest, ACredentialIsSkippedWhateverItSays) {
    PacketConnection connection(PROGRAM, &m_server);
    const OpaqueAuth credentials[] = {
        support::AuthSys(1000, 100, {1, 2, 3}), {6, Bytes(400, 0xFF)}, {0xFFFFFFFF, {}}};
    for (const OpaqueAuth& credential : credentials) {
        connection.Send(Call(1, NEXT_NUMBER, Word(41), credential));
        const std::optional<Bytes> reply = connection.Receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(Record(*reply).body, Word(42));
    }
}

TEST_F(RpcServerTest, NoFillIsSkippedAfterACredentialOrAVerifier) {
    PacketConnection connection(PROGRAM, &m_server);
    for (const std::size_t size : {1u, 2u, 3u, 5u}) {
        connection.Send(CallWithAuth(1, NEXT_NUMBER, {1, Bytes(size, 0xEE)},
                                     {2, Bytes(size + 1, 0xDD)}, Word(41)));
        const std::optional<Bytes> reply = connection.Receive();
        ASSERT_TRUE(reply);
        EXPECT_EQ(Record(*reply).body, Word(42)) << size;
        EXPECT_EQ(Record(*reply).verifierLength, size + 1);
    }
}

TEST_F(RpcServerTest, TheVerifiersTwoWordsAreEchoedWithoutItsBody) {
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Call(1, NEXT_NUMBER, Word(41), {}, {6, Bytes(8, 0xEE)}));
    EXPECT_EQ(connection.Receive(), (Bytes{
                                        0x80, 0x00, 0x00, 0x1C,  // record mark: last, 28 bytes
                                        0x00, 0x00, 0x00, 0x01,  // xid
                                        0x00, 0x00, 0x00, 0x01,  // REPLY
                                        0x00, 0x00, 0x00, 0x00,  // MSG_ACCEPTED
                                        0x00, 0x00, 0x00, 0x06,  // the call's verifier flavour
                                        0x00, 0x00, 0x00, 0x08,  // and length
                                        0x00, 0x00, 0x00, 0x00,  // SUCCESS
                                        0x00, 0x00, 0x00, 0x2A,  // result: 42
                                    }));
}

// -------------------------------------------------------------------------------------------------
// Calls that are cut
// -------------------------------------------------------------------------------------------------

namespace {

// A program that takes arguments of this many bytes and answers a word.
ScriptedProg::Handler TakesBytes(std::uint32_t size) {
    return [size](CInputStream& in, COutputStream& out, ProcessParam&) {
        try {
            in.Skip(size);
        } catch (const CDataTruncatedExpt&) {
            return PROG_RESULT_TRUNCATED;
        }
        out.Write(size);
        return PROG_RESULT_DONE;
    };
}

}  // namespace

TEST_F(RpcServerTest, ACallCutInItsArgumentsIsParsedAgainFromItsStart) {
    m_prog.OnCall(TakesBytes(100));
    PacketConnection connection(PROGRAM, &m_server);
    const Bytes call = Call(9, 5, Bytes(100, 0x55));
    connection.Send(FirstBytes(call, 60));
    EXPECT_FALSE(connection.Receive());
    EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Reset input buffer postion"));
    connection.Send(Bytes(call.begin() + 60, call.begin() + 100));
    EXPECT_FALSE(connection.Receive());
    connection.Send(BytesFrom(call, 100));
    const std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(1));
    EXPECT_EQ(Record(replies[0]).xid, 9u);
    EXPECT_EQ(Record(replies[0]).body, Word(100));
    EXPECT_EQ(m_prog.Calls().size(), 3u);
    EXPECT_EQ(m_log.Count("[RpcServer.SocketReceived] Reset input buffer postion"), 2u);
}

TEST_F(RpcServerTest, ACutCallBehindWholeOnesHoldsNothingUp) {
    PacketConnection connection(PROGRAM, &m_server);
    const Bytes cut = Call(3, NEXT_NUMBER, Word(30));
    connection.Send(Concat(
        {Call(1, NEXT_NUMBER, Word(10)), Call(2, NEXT_NUMBER, Word(20)), FirstBytes(cut, 46)}));
    EXPECT_THAT(connection.ReceiveAll(), SizeIs(2));
    connection.Send(Concat({BytesFrom(cut, 46), Call(4, NEXT_NUMBER, Word(40))}));
    const std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(2));
    EXPECT_EQ(Record(replies[0]).body, Word(31));
    EXPECT_EQ(Record(replies[1]).body, Word(41));
}

TEST_F(RpcServerTest, WithALaterHeaderTheReplyOfATruncatedCallIsSent) {
    m_prog.OnCall([](CInputStream&, COutputStream& out, ProcessParam& param) {
        if (param.iProc != 5) {
            return PROG_RESULT_DONE;
        }
        out.Write(0xABCDABCDu);
        return PROG_RESULT_TRUNCATED;
    });
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Concat({Call(1, 5), GARBAGE, Call(2)}));
    std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(1));
    EXPECT_EQ(Record(replies[0]).xid, 1u);
    EXPECT_EQ(Record(replies[0]).acceptStat, support::kSuccess);
    EXPECT_EQ(Record(replies[0]).body, Word(0xABCDABCD));
    EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Skipped 7 data for next vaild header"));
    EXPECT_FALSE(m_log.Has("[RpcServer.SocketReceived] Reset input buffer postion"));
    // The later call waits for the next receive.
    EXPECT_EQ(m_prog.Calls().size(), 1u);
    connection.Send(Call(3));
    replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(2));
    EXPECT_EQ(Record(replies[0]).xid, 2u);
    EXPECT_EQ(Record(replies[1]).xid, 3u);
}

TEST_F(RpcServerTest, WithoutALaterHeaderTheReplyOfATruncatedCallIsDropped) {
    m_prog.OnCall([](CInputStream&, COutputStream& out, ProcessParam&) {
        out.Write(0xABCDABCDu);
        return PROG_RESULT_TRUNCATED;
    });
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Call(1));
    EXPECT_FALSE(connection.Receive());
    connection.Socket().Close();
    EXPECT_EQ(connection.Socket().GetOutputStream()->GetBufferSize(), 0u);
    EXPECT_EQ(connection.Socket().GetInputStream()->GetFilledBufferSize(), Call(1).size());
}

TEST_F(RpcServerTest, ACallWithoutArgumentsThatIsCutInItsCredentialIsAnsweredEarly) {
    PacketConnection connection(PROGRAM, &m_server);
    const Bytes call = Call(7, NOTHING, {}, {1, Bytes(200, 0xEE)}, {6, Bytes(4, 0xDD)});
    connection.Send(FirstBytes(call, 100));
    EXPECT_THAT(m_log.Errors(),
                ElementsAre("[RpcServer.Process] Data is truncated.Missing 136 data"));
    const std::optional<Bytes> reply = connection.Receive();
    ASSERT_TRUE(reply);
    const RpcReply record = Record(*reply);
    EXPECT_EQ(record.xid, 7u);
    EXPECT_EQ(record.acceptStat, support::kSuccess);
    // The verifier had not come yet.
    EXPECT_EQ(record.verifierFlavor, 0u);
    EXPECT_EQ(record.verifierLength, 0u);
    // The rest is no call of its own, and does not hide the next one.
    connection.Send(BytesFrom(call, 100));
    EXPECT_FALSE(connection.Receive());
    connection.Send(Call(8));
    const std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(1));
    EXPECT_EQ(Record(replies[0]).xid, 8u);
}

TEST_F(RpcServerTest, ACallWithArgumentsThatIsCutInItsCredentialIsAnsweredOnceItIsWhole) {
    m_prog.OnCall(TakesBytes(300));
    PacketConnection connection(PROGRAM, &m_server);
    const Bytes call = Call(7, 5, Bytes(300, 0x55), {1, Bytes(200, 0xEE)}, {6, Bytes(4, 0xDD)});
    connection.Send(FirstBytes(call, 100));
    EXPECT_FALSE(connection.Receive());
    EXPECT_EQ(m_prog.Calls().size(), 1u);  // dispatched all the same
    connection.Send(BytesFrom(call, 100));
    const std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(1));
    EXPECT_EQ(Record(replies[0]).xid, 7u);
    EXPECT_EQ(Record(replies[0]).verifierFlavor, 6u);
    EXPECT_EQ(Record(replies[0]).verifierLength, 4u);
    EXPECT_EQ(Record(replies[0]).body, Word(300));
}

TEST_F(RpcServerTest, ACallCutInItsCredentialFindsNoArguments) {
    std::vector<std::uint32_t> available;
    m_prog.OnCall([&](CInputStream& in, COutputStream& out, ProcessParam& param) {
        available.push_back(in.GetFilledBufferSize());
        return ScriptedProg::AnswerNextNumber(in, out, param);
    });
    PacketConnection connection(PROGRAM, &m_server);
    const Bytes call = Call(7, NEXT_NUMBER, Word(41), {1, Bytes(200, 0xEE)}, {6, Bytes(4, 0xDD)});
    connection.Send(FirstBytes(call, 100));
    EXPECT_FALSE(connection.Receive());
    connection.Send(BytesFrom(call, 100));
    const std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(1));
    EXPECT_EQ(Record(replies[0]).body, Word(42));
    EXPECT_THAT(available, ElementsAre(0, 4));
}

TEST_F(RpcServerTest, ALaterHeaderIsFoundInWhatACutCallTookForItsCredential) {
    PacketConnection connection(PROGRAM, &m_server);
    // The first call announces a credential that never comes; the others are whole.
    Bytes broken = Call(1, NEXT_NUMBER, Word(10), {1, Bytes(8, 0xEE)});
    broken[34] = 0x7F;
    connection.Send(Concat({broken, Call(2, NEXT_NUMBER, Word(20))}));
    std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(1));
    EXPECT_EQ(Record(replies[0]).xid, 1u);
    EXPECT_THAT(Record(replies[0]).body, IsEmpty());
    connection.Send(Call(3, NEXT_NUMBER, Word(30)));
    replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(2));
    EXPECT_EQ(Record(replies[0]).body, Word(21));
    EXPECT_EQ(Record(replies[1]).body, Word(31));
}

TEST_F(RpcServerTest, ACallCutInItsVerifierIsDispatchedToo) {
    PacketConnection connection(PROGRAM, &m_server);
    const Bytes call = Call(7, NOTHING, {}, {}, {6, Bytes(100, 0xDD)});
    connection.Send(FirstBytes(call, 50));
    EXPECT_THAT(m_log.Errors(),
                ElementsAre("[RpcServer.Process] Data is truncated.Missing 94 data"));
    const std::optional<Bytes> reply = connection.Receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(Record(*reply).verifierFlavor, 6u);
    EXPECT_EQ(Record(*reply).verifierLength, 100u);
}

TEST_F(RpcServerTest, ACredentialLengthBeyondAllBoundsIsATruncation) {
    PacketConnection connection(PROGRAM, &m_server);
    XdrWriter call;
    call.U32(7).U32(0).U32(2).U32(PROGRAM).U32(VERSION).U32(NOTHING);
    call.U32(1).U32(0xFFFFFFFF).U32(0).U32(0);
    connection.Send(WithRecordMark(call.Data()));
    EXPECT_THAT(m_log.Errors(),
                ElementsAre("[RpcServer.Process] Data is truncated.Missing 4294967287 data"));
    EXPECT_TRUE(connection.Receive());
}

TEST_F(RpcServerTest, ATruncationIsSilentWithoutErrorLogging) {
    m_server.SetLogControl(LOG_ALL & ~LOG_CONTROL_ERROR);
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(FirstBytes(Call(7, NOTHING, {}, {1, Bytes(200, 0xEE)}), 100));
    EXPECT_THAT(m_log.Errors(), IsEmpty());
    EXPECT_THAT(m_log.Infos(), Not(IsEmpty()));
}

TEST_F(RpcServerTest, AnUnfinishedCallStaysForTheNextConnectionOfTheSlot) {
    ListenerSpy spy(&m_server);
    CServerSocket server;
    server.SetListener(&spy);
    ASSERT_TRUE(server.Open(PROGRAM, PORT, 2, &m_log, nullptr));
    const Bytes call = Call(9, NEXT_NUMBER, Word(41));
    {
        RpcClient first(Transport::Tcp, PORT);
        first.SendRaw(FirstBytes(call, 46));
        ASSERT_TRUE(spy.WaitForRounds(1));
    }
    ASSERT_TRUE(support::WaitFor([&] { return !spy.Sockets().at(0)->IsActive(); }));
    RpcClient second(Transport::Tcp, PORT);
    second.SendRaw(BytesFrom(call, 46));
    const RpcReply reply = second.ReceiveReply();
    EXPECT_EQ(reply.xid, 9u);
    EXPECT_EQ(reply.body, Word(42));
}

// -------------------------------------------------------------------------------------------------
// Several calls
// -------------------------------------------------------------------------------------------------

TEST_F(RpcServerTest, PipelinedCallsAreAnsweredInOrderEachWithASendOfItsOwn) {
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Concat({Call(1, NEXT_NUMBER, Word(10)), Call(2, NEXT_NUMBER, Word(20)),
                            Call(3, NEXT_NUMBER, Word(30))}));
    const std::vector<Bytes> replies = connection.ReceiveAll();
    ASSERT_THAT(replies, SizeIs(3));
    for (std::uint32_t i = 0; i < 3; ++i) {
        const RpcReply reply = Record(replies[i]);
        EXPECT_EQ(reply.xid, i + 1);
        EXPECT_EQ(reply.body, Word(10 * (i + 1) + 1));
    }
}

TEST_F(RpcServerTest, AReplyIsSentBeforeTheNextCallIsLookedAt) {
    PacketConnection connection(PROGRAM, &m_server);
    std::vector<bool> sentBefore;
    m_prog.OnCall([&](CInputStream&, COutputStream& out, ProcessParam&) {
        sentBefore.push_back(connection.HasMessage());
        EXPECT_EQ(out.GetBufferSize(), 28u);  // this reply's header and nothing else
        return PROG_RESULT_DONE;
    });
    connection.Send(Concat({Call(1), Call(2)}));
    EXPECT_THAT(sentBefore, ElementsAre(false, true));
}

TEST_F(RpcServerOverUdpTest, ADatagramIsOneCall) {
    RpcClient first(Transport::Udp, PORT);
    RpcClient second(Transport::Udp, PORT);
    const auto call = [](std::uint32_t xid) { return BuildCall(xid, PROGRAM, VERSION, NOTHING); };
    Send(first, Concat({call(1), call(2)}));
    EXPECT_EQ(ParseReply(Received(first)).xid, 1u);
    EXPECT_TRUE(Received(first).empty());
    // What is left waits for the next datagram, and is answered to that one's sender.
    Send(second, call(3));
    EXPECT_EQ(ParseReply(Received(second)).xid, 2u);
    EXPECT_TRUE(Received(second).empty());
    EXPECT_TRUE(Received(first).empty());
    Send(first, call(4));
    EXPECT_EQ(ParseReply(Received(first)).xid, 3u);
}

TEST_F(RpcServerOverUdpTest, AFailedCallEndsTheRoundToo) {
    m_prog.OnCall([](CInputStream&, COutputStream&, ProcessParam&) { return PROG_RESULT_NOIMP; });
    RpcClient client(Transport::Udp, PORT);
    Send(client, Concat({BuildCall(1, PROGRAM, VERSION, NOTHING),
                         BuildCall(2, PROGRAM, VERSION, NOTHING)}));
    EXPECT_EQ(ParseReply(Received(client)).acceptStat, support::kProcUnavail);
    EXPECT_TRUE(Received(client).empty());
}

TEST_F(RpcServerOverUdpTest, ACallCutInItsArgumentsWaitsForTheNextDatagram) {
    RpcClient client(Transport::Udp, PORT);
    const Bytes call = BuildCall(1, PROGRAM, VERSION, NEXT_NUMBER, Word(41));
    Send(client, FirstBytes(call, 41));
    EXPECT_TRUE(Received(client).empty());
    EXPECT_TRUE(m_log.Has("[RpcServer.SocketReceived] Reset input buffer postion"));
    Send(client, BytesFrom(call, 41));
    EXPECT_EQ(ParseReply(Received(client)).body, Word(42));
}

TEST_F(RpcServerOverUdpTest, RepliesGoToTheirSenders) {
    RpcClient first(Transport::Udp, PORT);
    RpcClient second(Transport::Udp, PORT);
    for (std::uint32_t i = 0; i < 20; ++i) {
        RpcClient& client = i % 3 == 0 ? first : second;
        EXPECT_EQ(client.Call(PROGRAM, VERSION, NEXT_NUMBER, Word(i)).body, Word(i + 1));
    }
}

TEST_F(RpcServerTest, AStreamCutAnywhereIsAnsweredCallByCall) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    Silence();
    PacketConnection connection(PROGRAM, &m_server);
    Bytes stream;
    constexpr std::uint32_t CALLS = 300;
    for (std::uint32_t i = 0; i < CALLS; ++i) {
        stream = Concat({stream, Bytes(random() % 3 == 0 ? random() % 10 : 0, 0xFF),
                         Call(i, NEXT_NUMBER, Word(7 * i))});
    }
    std::vector<Bytes> messages;
    for (std::size_t at = 0; at < stream.size();) {
        const std::size_t size = std::min<std::size_t>(1 + random() % 200, stream.size() - at);
        connection.Send(Bytes(stream.begin() + static_cast<std::ptrdiff_t>(at),
                              stream.begin() + static_cast<std::ptrdiff_t>(at + size)));
        at += size;
        for (Bytes& message : connection.ReceiveAll()) {
            messages.push_back(std::move(message));
        }
    }
    ASSERT_EQ(messages.size(), CALLS);
    for (std::uint32_t i = 0; i < CALLS; ++i) {
        const RpcReply reply = Record(messages[i]);
        EXPECT_EQ(reply.xid, i);
        EXPECT_EQ(reply.body, Word(7 * i + 1));
    }
}

// -------------------------------------------------------------------------------------------------
// Replies that are sent in part
// -------------------------------------------------------------------------------------------------

TEST_F(RpcServerTest, TheRestOfAPartialReplyGoesOutInFrontOfTheNextOne) {
    PacketConnection connection(PROGRAM, &m_server);
    for (const std::size_t taken : {1, 4, 10, 31}) {
        faults::Shorten(faults::Call::Send, taken, 1, faults::On::OtherThreads);
        connection.Send(Call(1, NEXT_NUMBER, Word(10)));
        const std::optional<Bytes> part = connection.Receive();
        ASSERT_TRUE(part);
        EXPECT_EQ(part->size(), taken);
        connection.Send(Call(2, NEXT_NUMBER, Word(20)));
        const std::vector<RpcReply> replies =
            Records(Concat({*part, Joined(connection.ReceiveAll())}));
        ASSERT_THAT(replies, SizeIs(2)) << taken;
        EXPECT_EQ(replies[0].xid, 1u);
        EXPECT_EQ(replies[0].body, Word(11));
        EXPECT_EQ(replies[1].xid, 2u);
        EXPECT_EQ(replies[1].body, Word(21));
    }
}

TEST_F(RpcServerTest, AReplyThatTheSystemDoesNotTakeGoesOutWithTheNextOne) {
    PacketConnection connection(PROGRAM, &m_server);
    faults::Fail(faults::Call::Send, EAGAIN, 1, faults::On::OtherThreads);
    connection.Send(Call(1));
    EXPECT_FALSE(connection.Receive());
    connection.Send(Call(2));
    const std::vector<RpcReply> replies = Records(Joined(connection.ReceiveAll()));
    ASSERT_THAT(replies, SizeIs(2));
    EXPECT_EQ(replies[0].xid, 1u);
    EXPECT_EQ(replies[1].xid, 2u);
}

TEST_F(RpcServerTest, ATruncatedCallDoesNotTakeTheRestOfAnEarlierReplyWithIt) {
    PacketConnection connection(PROGRAM, &m_server);
    faults::Shorten(faults::Call::Send, 10, 1, faults::On::OtherThreads);
    const Bytes cut = Call(2, NEXT_NUMBER, Word(20));
    connection.Send(Call(1, NEXT_NUMBER, Word(10)));
    connection.Send(FirstBytes(cut, 46));
    // The whole first reply is there, and nothing of the second.
    const Bytes first = Joined(connection.ReceiveAll());
    EXPECT_EQ(Record(first).body, Word(11));
    connection.Send(BytesFrom(cut, 46));
    EXPECT_EQ(Record(Joined(connection.ReceiveAll())).body, Word(21));
}

TEST_F(RpcServerTest, AReplacedStatusBehindAPartialReplyLeavesBothRecordsWhole) {
    m_prog.OnCall([](CInputStream&, COutputStream& out, ProcessParam& param) {
        out.Write(0xABCDABCDu);
        return param.iProc == 5 ? PROG_RESULT_GARBAGE : PROG_RESULT_DONE;
    });
    PacketConnection connection(PROGRAM, &m_server);
    faults::Shorten(faults::Call::Send, 6, 1, faults::On::OtherThreads);
    faults::Skip(faults::Call::Send, 1, faults::On::OtherThreads);
    connection.Send(Call(1));
    connection.Send(Call(2, 5));
    connection.Send(Call(3));
    const std::vector<RpcReply> replies = Records(Joined(connection.ReceiveAll()));
    ASSERT_THAT(replies, SizeIs(3));
    EXPECT_EQ(replies[0].body, Word(0xABCDABCD));
    EXPECT_EQ(replies[1].acceptStat, support::kGarbageArgs);
    EXPECT_TRUE(replies[1].body.empty());
    EXPECT_EQ(replies[2].xid, 3u);
}

TEST_F(RpcServerTest, HoweverSendsAreCutEveryRecordArrivesWhole) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    Silence();
    m_prog.OnCall([](CInputStream& in, COutputStream& out, ProcessParam&) {
        std::uint32_t size = 0;
        in.Read(&size);
        out.Write(Bytes(size, static_cast<std::uint8_t>(size)).data(), size);
        return size % 5 == 4 ? PROG_RESULT_NOIMP : PROG_RESULT_DONE;
    });
    PacketConnection connection(PROGRAM, &m_server);
    std::vector<std::uint32_t> sizes;
    Bytes stream;
    for (std::uint32_t i = 0; i < 500; ++i) {
        sizes.push_back(static_cast<std::uint32_t>(random() % 400));
        const std::uint64_t kind = random() % 4;
        faults::Clear(faults::Call::Send, faults::On::OtherThreads);
        if (kind == 0) {
            faults::Fail(faults::Call::Send, EAGAIN, 1, faults::On::OtherThreads);
        } else if (kind != 1) {
            const std::size_t taken = random() % 500;
            faults::Shorten(faults::Call::Send, taken, 1, faults::On::OtherThreads);
        }
        connection.Send(Call(i, 5, Word(sizes.back())));
        stream = Concat({stream, Joined(connection.ReceiveAll())});
    }
    faults::Clear(faults::Call::Send, faults::On::OtherThreads);
    connection.Send(Call(500, 5, Word(0)));
    stream = Concat({stream, Joined(connection.ReceiveAll())});

    const std::vector<RpcReply> replies = Records(stream);
    ASSERT_THAT(replies, SizeIs(501));
    for (std::uint32_t i = 0; i < 500; ++i) {
        const std::uint32_t size = sizes[i];
        EXPECT_EQ(replies[i].xid, i);
        EXPECT_EQ(replies[i].body,
                  size % 5 == 4 ? Bytes() : Bytes(size, static_cast<std::uint8_t>(size)));
    }
}

TEST_F(RpcServerTest, APeerThatDisappearsMidReplyDoesNotEndTheProcess) {
    Silence();
    m_prog.OnCall([](CInputStream&, COutputStream& out, ProcessParam&) {
        out.Write(nullptr, 900'000);
        return PROG_RESULT_DONE;
    });
    CServerSocket server;
    server.SetListener(&m_server);
    ASSERT_TRUE(server.Open(PROGRAM, PORT, 2, &m_log, nullptr));
    const std::size_t idle = ThreadCount();
    for (int i = 0; i < 20; ++i) {
        RpcClient client(Transport::Tcp, PORT);
        client.SendRaw(Concat({Call(1), Call(2), Call(3), Call(4), Call(5)}));
        ASSERT_THAT(client.ReceiveRaw(1000), Not(IsEmpty()));
        const linger reset{1, 0};
        setsockopt(client.Fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        client.Close();
        ASSERT_TRUE(support::WaitFor([&] { return ThreadCount() == idle; }));
    }
    // The first slot keeps what could not be sent for whoever comes there; the second one serves.
    m_prog.OnCall(nullptr);
    const RpcClient first(Transport::Tcp, PORT);
    RpcClient second(Transport::Tcp, PORT);
    EXPECT_EQ(second.Call(PROGRAM, VERSION, NEXT_NUMBER, Word(41)).body, Word(42));
}

// -------------------------------------------------------------------------------------------------
// Log lines and identities
// -------------------------------------------------------------------------------------------------

TEST_F(RpcServerTest, RpcLoggingTellsOfEveryStepOfATcpCall) {
    m_server.SetLogControl(LOG_CONTROL_RPC);
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Concat({Call(16, NEXT_NUMBER, Word(41)), {1, 2, 3}}));
    EXPECT_THAT(m_log.Texts(),
                ElementsAre("[RpcServer.SocketReceived] Input buf size(51) pos(0)",
                            "[RpcServer.Process] request header",
                            " --- header=2147483692",  //
                            " --- nXID=16",            //
                            " --- nmsg=0",             //
                            " --- nrpcvers=2",         //
                            " --- nprog=100003",       //
                            " --- nvers=3",            //
                            " --- nproc=1",            //
                            "[RpcServer.SocketReceived] Output buf size(32)",
                            "[RpcServer.SocketReceived] Input buf size(3) pos(48)",
                            "[RpcServer.SocketReceived] Cannot find valid header!!"));
    for (const LogLine& line : m_log.Lines()) {
        EXPECT_EQ(line.kind, LogKind::Info) << line;
        EXPECT_EQ(line.id, PacketConnection::ADDRESS) << line;
    }
}

TEST_F(RpcServerOverUdpTest, RpcLoggingTellsOfEveryStepOfADatagram) {
    m_server.SetLogControl(LOG_CONTROL_RPC);
    RpcClient client(Transport::Udp, PORT);
    Send(client, BuildCall(16, PROGRAM, VERSION, NEXT_NUMBER, Word(41)));
    EXPECT_THAT(m_log.Texts(), ElementsAre("[RpcServer.SocketReceived] Input buf size(44) pos(0)",
                                           "[RpcServer.Process] request header",
                                           " --- nXID=16",       //
                                           " --- nmsg=0",        //
                                           " --- nrpcvers=2",    //
                                           " --- nprog=100003",  //
                                           " --- nvers=3",       //
                                           " --- nproc=1",       //
                                           "[RpcServer.SocketReceived] Output buf size(28)"));
    EXPECT_EQ(m_log.Lines()[0].id, "127.0.0.1");
}

TEST_F(RpcServerTest, RpcLoggingTellsOfATruncatedCall) {
    m_server.SetLogControl(LOG_CONTROL_RPC | LOG_CONTROL_ERROR);
    m_prog.OnCall(TakesBytes(300));
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(FirstBytes(Call(16, 5, {}, {1, Bytes(200, 0xEE)}), 100));
    EXPECT_THAT(m_log.Texts(), ElementsAre("[RpcServer.SocketReceived] Input buf size(100) pos(0)",
                                           "[RpcServer.Process] Data is truncated.Missing 136 data",
                                           "[RpcServer.Process] request header",
                                           " --- header=2147483888",  //
                                           " --- nXID=16",            //
                                           " --- nmsg=0",             //
                                           " --- nrpcvers=2",         //
                                           " --- nprog=100003",       //
                                           " --- nvers=3",            //
                                           " --- nproc=5",            //
                                           "[RpcServer.SocketReceived] Reset input buffer postion",
                                           "[RpcServer.SocketReceived] Output buf size(0)"));
    EXPECT_EQ(m_log.Lines()[1].kind, LogKind::Error);
}

TEST_F(RpcServerTest, IsSilentWithoutItsCategories) {
    m_server.SetLogControl(LOG_ALL & ~(LOG_CONTROL_RPC | LOG_CONTROL_ERROR));
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Concat({GARBAGE, Call(1, NEXT_NUMBER, Word(1)), Call(2, NEXT_NUMBER)}));
    connection.Send(FirstBytes(Call(7, NOTHING, {}, {1, Bytes(200, 0xEE)}), 100));
    EXPECT_THAT(m_log.Texts(), IsEmpty());
}

TEST_F(RpcServerTest, LogControlIsCopiedAtConstructionAndReplacedBySetLogControl) {
    m_mainParam.SetLogControl(0);  // a copy was taken before
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Call(1));
    EXPECT_THAT(m_log.Texts(), Not(IsEmpty()));
    m_server.SetLogControl(0);
    m_log.Forget();
    connection.Send(Call(2));
    EXPECT_THAT(m_log.Texts(), IsEmpty());
    m_server.SetLogControl(LOG_CONTROL_RPC);
    connection.Send(Call(3));
    EXPECT_THAT(m_log.Texts(), Not(IsEmpty()));
}

TEST_F(RpcServerTest, EveryReceiveIsDoneUnderThePeersAddress) {
    m_prog.OnCall([](CInputStream&, COutputStream&, ProcessParam& param) {
        param.pRuntimeParam->SetID("vm01");
        param.pRuntimeParam->SetIpcID("controller");
        return PROG_RESULT_DONE;
    });
    PacketConnection connection(PROGRAM, &m_server);
    connection.Send(Concat({Call(1), Call(2)}));
    connection.Send(Call(3));
    const std::vector<SeenCall> calls = m_prog.Calls();
    ASSERT_THAT(calls, SizeIs(3));
    EXPECT_EQ(calls[0].id, PacketConnection::ADDRESS);
    EXPECT_EQ(calls[0].ipcId, "");
    // The program's identity holds for the rest of the round; the next one starts with the peer's.
    EXPECT_EQ(calls[1].id, "vm01");
    EXPECT_EQ(calls[2].id, PacketConnection::ADDRESS);
    // The IPC identity is not cleared between calls.
    EXPECT_EQ(calls[1].ipcId, "controller");
    EXPECT_EQ(calls[2].ipcId, "controller");
    EXPECT_STREQ(m_mainParam.GetID(), "main");
    EXPECT_STREQ(m_mainParam.GetIpcID(), "");

    const std::vector<LogLine> lines = m_log.Lines();
    const auto output = std::find_if(lines.begin(), lines.end(), [](const LogLine& line) {
        return line.text == "[RpcServer.SocketReceived] Output buf size(28)";
    });
    ASSERT_NE(output, lines.end());
    EXPECT_EQ(output->id, "vm01");
}

// -------------------------------------------------------------------------------------------------
// Many sockets
// -------------------------------------------------------------------------------------------------

TEST_F(RpcServerTest, ProgramsAreNeverEnteredByTwoSocketsAtOnce) {
    Silence();
    int inside = 0;  // written without a lock of its own: the server's is to protect it
    int served = 0;
    bool alone = true;
    const auto handler = [&](CInputStream& in, COutputStream& out, ProcessParam& param) {
        alone = alone && inside == 0;
        ++inside;
        ++served;
        param.pRuntimeParam->SetID("some identity that is too long to be stored in place");
        std::this_thread::yield();
        const int result = ScriptedProg::AnswerNextNumber(in, out, param);
        --inside;
        return result;
    };
    ScriptedProg mount(&m_log, VERSION, PROCEDURES);
    m_server.Set(100005, &mount);
    m_prog.OnCall(handler);
    mount.OnCall(handler);
    {
        CServerSocket nfsTcp;
        CServerSocket mountTcp;
        CDatagramSocket nfsUdp;
        CDatagramSocket mountUdp;
        nfsTcp.SetListener(&m_server);
        mountTcp.SetListener(&m_server);
        nfsUdp.SetListener(&m_server);
        mountUdp.SetListener(&m_server);
        ASSERT_TRUE(nfsTcp.Open(PROGRAM, PORT, 3, &m_log, nullptr));
        ASSERT_TRUE(mountTcp.Open(100005, 1058, 3, &m_log, nullptr));
        ASSERT_TRUE(nfsUdp.Open(PROGRAM, PORT, &m_log, nullptr));
        ASSERT_TRUE(mountUdp.Open(100005, 1058, &m_log, nullptr));

        constexpr std::uint32_t CALLS = 200;
        std::vector<std::future<void>> clients;
        for (const auto& [transport, program, port] :
             {std::tuple(Transport::Tcp, PROGRAM, PORT), std::tuple(Transport::Tcp, PROGRAM, PORT),
              std::tuple(Transport::Tcp, 100005u, 1058), std::tuple(Transport::Udp, PROGRAM, PORT),
              std::tuple(Transport::Udp, 100005u, 1058)}) {
            clients.push_back(std::async(std::launch::async, [=] {
                RpcClient client(transport, port);
                for (std::uint32_t i = 0; i < CALLS; ++i) {
                    EXPECT_EQ(client.Call(program, VERSION, NEXT_NUMBER, Word(i)).body,
                              Word(i + 1));
                }
            }));
        }
        for (std::future<void>& client : clients) {
            client.get();
        }
    }
    EXPECT_TRUE(alone);
    EXPECT_EQ(served, 5 * 200);
}
