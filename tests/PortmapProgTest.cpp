// The server's own portmapper: GETPORT and nothing else.

#include "PortmapProg.h"

#include "NfsServiceFixture.h"

using namespace nfstest;
using namespace support;

namespace {

class PortmapProgTest : public NfsServiceTest {};

class PortmapProgAloneTest : public ::testing::Test {
protected:
    static Bytes GetPort(std::uint32_t program) { return Words({program, 3, 6, 0}); }

    ProgramBench bench;
    CPortmapProg program{&bench.utilities};
};

// Every number that has no service behind it, at and beyond both ends of the table.
constexpr std::uint32_t kUnknown[] = {0,
                                      1,
                                      99999,
                                      100000,
                                      100001,
                                      100002,
                                      100004,
                                      100009,
                                      100010,
                                      200003,
                                      100003 + (1u << 31),
                                      0x7FFFFFFF,
                                      0x80000000,
                                      0xFFFFFFFF};

}  // namespace

TEST_F(PortmapProgTest, GetPortAnswersThePortsOfNfsAndMount) {
    for (const Transport transport : {Transport::Tcp, Transport::Udp}) {
        PortmapClient portmap(transport);
        const GetPortResult nfsPort = portmap.GetPort(kNfsProgram);
        EXPECT_EQ(kSuccess, nfsPort.rpc.acceptStat);
        EXPECT_EQ(Hex(Words({2049})), Hex(nfsPort.rpc.body));
        EXPECT_EQ(Hex(Words({1058})), Hex(portmap.GetPort(kMountProgram).rpc.body));
    }
}

TEST_F(PortmapProgTest, GetPortAnswersZeroForEveryOtherProgram) {
    PortmapClient portmap(Transport::Udp);
    for (const std::uint32_t number : kUnknown) {
        const GetPortResult result = portmap.GetPort(number);
        EXPECT_EQ(kSuccess, result.rpc.acceptStat) << number;
        EXPECT_EQ(Hex(Words({0})), Hex(result.rpc.body)) << number;
    }
}

TEST_F(PortmapProgTest, GetPortLooksAtTheProgramOnly) {
    PortmapClient portmap(Transport::Tcp);
    EXPECT_EQ(2049u, portmap.GetPort(kNfsProgram, 3, 17).port);
    EXPECT_EQ(2049u, portmap.GetPort(kNfsProgram, 0xFFFFFFFF, 0x80000000).port);
    EXPECT_EQ(
        Hex(Words({2049})),
        Hex(portmap.Rpc().Call(kPortmapProgram, 2, 3, Words({100003, 1, 2, 0xFFFFFFFF})).body));
    EXPECT_EQ(Hex(Words({2049})),
              Hex(portmap.Rpc().Call(kPortmapProgram, 77, 3, Words({100003, 3, 6, 0})).body))
        << "any version of the portmapper protocol";
}

TEST_F(PortmapProgTest, NullAndEveryOtherProcedureAreUnavailable) {
    PortmapClient portmap(Transport::Udp);
    Log(LOG_CONTROL_PROC_FUNC_NAME);
    EXPECT_EQ(kProcUnavail, portmap.Null().acceptStat);
    for (const std::uint32_t procedure : {1u, 2u, 4u, 5u}) {
        const RpcReply reply =
            portmap.Rpc().Call(kPortmapProgram, 2, procedure, Words({100003, 3, 6, 4711}));
        EXPECT_EQ(kProcUnavail, reply.acceptStat) << procedure;
        EXPECT_TRUE(reply.body.empty()) << procedure;
    }
    EXPECT_EQ(Texts(5, "info [PortmapProg.ProcedureNOIMP]"), log.From(""));
    EXPECT_EQ(2049u, portmap.GetPort(kNfsProgram).port) << "SET and UNSET have changed nothing";
}

TEST(PortmapProgPortsTest, PortsGivenAtStartAreAnswered) {
    LoggedMain service;
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(service.StartServer(3058, 3049, 0, 0, false, reason)) << reason;
    PortmapClient portmap(Transport::Udp);
    EXPECT_EQ(3049u, portmap.GetPort(kNfsProgram).port);
    EXPECT_EQ(3058u, portmap.GetPort(kMountProgram).port);
}

TEST_F(PortmapProgTest, LogsEachLineUnderItsOwnBit) {
    PortmapClient portmap(Transport::Udp);
    const auto linesAt = [&](int bits, std::uint32_t number) {
        Log(bits);
        portmap.GetPort(number);
        return log.From("[PortmapProg");
    };
    EXPECT_EQ((Texts{"info [PortmapProg.ProcedureGETPORT]"}),
              linesAt(LOG_CONTROL_PROC_FUNC_NAME, kNfsProgram))
        << "Process has no line of its own";
    EXPECT_EQ((Texts{"info [PortmapProg.ProcedureGETPORT] lProg = 100003, lPort = 2049"}),
              linesAt(LOG_CONTROL_PROC_FUNC_ARGU, kNfsProgram));
    EXPECT_EQ((Texts{"info [PortmapProg.ProcedureGETPORT] lProg = -1, lPort = 0"}),
              linesAt(LOG_CONTROL_PROC_FUNC_ARGU, 0xFFFFFFFF));
    EXPECT_EQ(Texts{},
              linesAt(kAllLogBits & ~(LOG_CONTROL_PROC_FUNC_NAME | LOG_CONTROL_PROC_FUNC_ARGU),
                      kNfsProgram));
    Log(kAllLogBits & ~(LOG_CONTROL_PROC_FUNC_NAME | LOG_CONTROL_RPC));
    portmap.Null();
    EXPECT_EQ(Texts{}, log.From(""));
}

TEST_F(PortmapProgAloneTest, TableIsEmptyAtFirstAndHoldsTenPrograms) {
    for (std::uint32_t number = 100000; number <= 100009; ++number) {
        EXPECT_EQ(Hex(Words({0})), Hex(bench.Run(program, 3, GetPort(number)).reply)) << number;
    }
    for (std::uint32_t number = 100000; number <= 100009; ++number) {
        program.Set(number, number - 99000);
    }
    for (std::uint32_t number = 100000; number <= 100009; ++number) {
        const Outcome outcome = bench.Run(program, 3, GetPort(number));
        EXPECT_EQ(PROG_RESULT_DONE, outcome.result);
        EXPECT_EQ(Hex(Words({number - 99000})), Hex(outcome.reply)) << number;
    }
    for (const std::uint32_t number : {99999u, 100010u, 0u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Hex(Words({0})), Hex(bench.Run(program, 3, GetPort(number)).reply)) << number;
    }
}

TEST_F(PortmapProgAloneTest, TheWholeArgumentIsConsumed) {
    EXPECT_EQ(4u, bench.Run(program, 3, GetPort(100003) + Words({7})).unread);
}

TEST_F(PortmapProgAloneTest, ProceduresBeyondTheTableAreNotImplemented) {
    for (const std::uint32_t procedure : {0u, 6u, 22u, 0x80000003u, 0xFFFFFFFFu}) {
        const Outcome outcome = bench.Run(program, procedure, GetPort(100003));
        EXPECT_EQ(PROG_RESULT_NOIMP, outcome.result) << procedure;
        EXPECT_TRUE(outcome.reply.empty()) << procedure;
    }
}

TEST_F(PortmapProgAloneTest, NothingIsImplementedWithoutTheServiceObject) {
    CPortmapProg orphan(nullptr);
    bench.logControl = kAllLogBits;
    EXPECT_EQ(PROG_RESULT_NOIMP, bench.Run(orphan, 3, GetPort(100003)).result);
    EXPECT_EQ(PROG_RESULT_NOIMP, bench.Run(orphan, 0).result);
}

TEST_F(PortmapProgAloneTest, RecognisesSixProceduresOfAnyVersion) {
    EXPECT_EQ(6u, program.GetMaxSupportProc());
    EXPECT_EQ(0xFFFFFFFFu, program.GetVersion());
}

TEST_F(PortmapProgAloneTest, ArgumentsThatEndEarlyAreTruncated) {
    const Bytes arguments = GetPort(100003);
    bench.logControl = LOG_CONTROL_ERROR;
    for (std::size_t size = 0; size < arguments.size(); ++size) {
        SCOPED_TRACE(size);
        bench.log.Forget();
        const auto end = arguments.begin() + static_cast<std::ptrdiff_t>(size);
        const Outcome outcome = bench.Run(program, 3, Bytes(arguments.begin(), end));
        EXPECT_EQ(PROG_RESULT_TRUNCATED, outcome.result);
        EXPECT_TRUE(outcome.reply.empty());
        const std::size_t missing = size < 4 ? 4 - size : 16 - size;
        EXPECT_EQ((Texts{"error [PortmapProg.Process] Data is truncated.Missing " +
                         std::to_string(missing) + " data"}),
                  bench.log.From(""));
    }
    bench.log.Forget();
    bench.logControl = 0;
    EXPECT_EQ(PROG_RESULT_TRUNCATED, bench.Run(program, 3).result);
    EXPECT_EQ(Texts{}, bench.log.From(""));
}

TEST_F(PortmapProgAloneTest, AnyOtherExceptionIsGarbage) {
    bench.log.ThrowAt("lProg = ");
    bench.logControl = LOG_CONTROL_PROC_FUNC_ARGU | LOG_CONTROL_ERROR;
    EXPECT_EQ(PROG_RESULT_GARBAGE, bench.Run(program, 3, GetPort(100003)).result);
    EXPECT_EQ((Texts{"error [PortmapProg.Process] Unknown exception"}), bench.log.From(""));
    bench.log.Forget();
    bench.logControl = LOG_CONTROL_PROC_FUNC_ARGU;
    EXPECT_EQ(PROG_RESULT_GARBAGE, bench.Run(program, 3, GetPort(100003)).result);
    EXPECT_EQ(Texts{}, bench.log.From(""));
}
