// What the RPC server asks of a program that it serves, and how a program that is a table of
// procedures answers.
#ifndef VELOCAST_RPCPROG_H
#define VELOCAST_RPCPROG_H

#include <cstdint>
#include <span>

#include "RpcCall.h"

// Program results; the RPC server turns them into accept statuses (RFC 5531, section 9).
inline constexpr int PROG_RESULT_DONE = 0;       // results written, SUCCESS
inline constexpr int PROG_RESULT_GARBAGE = 1;    // arguments not decoded, GARBAGE_ARGS
inline constexpr int PROG_RESULT_NOIMP = 2;      // procedure or version not served, PROC_UNAVAIL
inline constexpr int PROG_RESULT_TRUNCATED = 3;  // input ended inside the call; may be tried again

// A procedure: reads its arguments, checks, acts, and writes its results behind the accept status.
// Returns a PROG_RESULT_ value.
template <typename Prog, typename Call>
struct RpcProcedure {
    const char* pcLabel;  // of all its log lines
    int (Prog::*pRun)(Call&);
};

// All procedures of a program.
template <typename Prog, typename Call>
struct RpcProcedureTable {
    const char* pcLabel;  // of the lines about a call whatever its procedure
    bool bLogEachCall;    // whether such a line, too, names the call
    std::span<const RpcProcedure<Prog, Call>> procedures;  // by procedure number
    RpcProcedure<Prog, Call> noImp;                        // every other number
};

// Thread safety: Process is never entered by two network threads at once (the RPC server's mutex).
class CRpcProg {
public:
    // GetVersion and GetMaxSupportProc: any version, any procedure is accepted.
    static constexpr std::uint32_t ANY = 0xFFFFFFFF;
    // Programs have one of PROGS numbers, from this one on.
    static constexpr std::uint32_t FIRST_PROG = 100000;
    static constexpr std::uint32_t PROGS = 10;

    // pUtilities is borrowed.
    explicit CRpcProg(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}
    virtual ~CRpcProg() = default;
    CRpcProg(const CRpcProg&) = delete;
    CRpcProg& operator=(const CRpcProg&) = delete;

    // Reads the arguments, writes the results behind the accept status; a PROG_RESULT_ value.
    virtual int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) = 0;
    // The one version that the header search accepts, or ANY.
    virtual std::uint32_t GetVersion() const;
    // The number of procedures: a call is recognised when its procedure is less, or ANY.
    virtual std::uint32_t GetMaxSupportProc() const;

    // The program result for the exception that is being handled, which is logged as an error under
    // a label: what ended the input asks for more of it, anything else is garbage.
    static int GetResultOfException(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam,
                                    const char* pcLabel);

protected:
    // Process of a program that is a table: runs the procedure of the call.  Without a service
    // object nothing is served.
    template <typename Prog, typename Call>
    int Dispatch(const RpcProcedureTable<Prog, Call>& table, CInputStream* pIn, COutputStream* pOut,
                 ProcessParam* pParam) {
        if (m_pUtilities == nullptr) {
            return PROG_RESULT_NOIMP;
        }
        if (table.bLogEachCall) {
            CRpcCall(m_pUtilities, table.pcLabel, pIn, pOut, pParam).LogName();
        }
        try {
            const RpcProcedure<Prog, Call>& procedure = pParam->iProc < table.procedures.size()
                                                            ? table.procedures[pParam->iProc]
                                                            : table.noImp;
            Call call(m_pUtilities, procedure.pcLabel, pIn, pOut, pParam);
            call.LogName();
            return (static_cast<Prog*>(this)->*procedure.pRun)(call);
        } catch (...) {
            return GetResultOfException(m_pUtilities, pParam->pRuntimeParam, table.pcLabel);
        }
    }

    CUtilities* m_pUtilities;
};

#endif
