// The dispatch of a program that is a table of procedures.

#include "RpcProg.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "InputStream.h"
#include "NfsServiceFixture.h"
#include "OutputStream.h"

using namespace nfstest;

namespace {

// Two procedures, the second of which throws what the test says; 1 is not served.
class TableProg : public CRpcProg {
public:
    TableProg(CUtilities* utilities, bool logEachCall)
        : CRpcProg(utilities), m_logEachCall(logEachCall) {}

    int Process(CInputStream* in, COutputStream* out, ProcessParam* param) override {
        static constexpr RpcProcedure<TableProg, CRpcCall> kNoImp{"Prog.NoImp", &TableProg::NoImp};
        static constexpr RpcProcedure<TableProg, CRpcCall> kProcedures[] = {
            {"Prog.Answer", &TableProg::Answer}, kNoImp, {"Prog.Throw", &TableProg::Throw}};
        return Dispatch(RpcProcedureTable<TableProg, CRpcCall>{"Prog.Process", m_logEachCall,
                                                               kProcedures, kNoImp},
                        in, out, param);
    }

    int Answer(CRpcCall& call) {
        call.GetOut()->Write(call.GetVersion());
        return PROG_RESULT_DONE;
    }
    int NoImp(CRpcCall& /*call*/) { return PROG_RESULT_NOIMP; }
    int Throw(CRpcCall& call) {
        std::uint32_t word = 0;
        call.GetIn()->Read(&word);
        throw std::runtime_error("whatever");
    }

private:
    const bool m_logEachCall;
};

}  // namespace

TEST(RpcProgTest, NumberChoosesTheProcedureAndItsLabel) {
    ProgramBench bench;
    bench.logControl = kAllLogBits;
    for (const bool logEachCall : {false, true}) {
        TableProg program(&bench.utilities, logEachCall);
        const auto linesOf = [&](std::uint32_t procedure, int result) {
            bench.log.Forget();
            EXPECT_EQ(result, bench.Run(program, procedure).result);
            Texts lines = bench.log.From("");
            if (logEachCall && !lines.empty()) {
                EXPECT_EQ("info [Prog.Process]", lines[0]);
                lines.erase(lines.begin());
            }
            return lines;
        };
        EXPECT_EQ((Texts{"info [Prog.Answer]"}), linesOf(0, PROG_RESULT_DONE));
        for (const std::uint32_t procedure : {1u, 3u, 0xFFFFFFFFu}) {
            EXPECT_EQ((Texts{"info [Prog.NoImp]"}), linesOf(procedure, PROG_RESULT_NOIMP));
        }
    }
}

TEST(RpcProgTest, ExceptionsAreLoggedUnderTheProgramAndBecomeResults) {
    ProgramBench bench;
    bench.logControl = LOG_CONTROL_ERROR;
    TableProg program(&bench.utilities, true);
    EXPECT_EQ(PROG_RESULT_TRUNCATED, bench.Run(program, 2).result);
    EXPECT_EQ(PROG_RESULT_GARBAGE, bench.Run(program, 2, Words({1})).result);
    EXPECT_EQ((Texts{"error [Prog.Process] Data is truncated.Missing 4 data",
                     "error [Prog.Process] Unknown exception"}),
              bench.log.From(""));
}

TEST(RpcProgTest, NothingIsServedWithoutAServiceObject) {
    ProgramBench bench;
    bench.logControl = kAllLogBits;
    TableProg program(nullptr, true);
    const Outcome outcome = bench.Run(program, 0);
    EXPECT_EQ(PROG_RESULT_NOIMP, outcome.result);
    EXPECT_TRUE(outcome.reply.empty());
}
