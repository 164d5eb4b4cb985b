// What the RPC server asks of a program that it serves.
#ifndef VELOCAST_RPCPROG_H
#define VELOCAST_RPCPROG_H

#include <cstdint>
#include <string>

class CInputStream;
class COutputStream;
class CRuntimeParam;
class CUtilities;
struct LogArgu;

// Program results; the RPC server turns them into accept statuses (RFC 5531, section 9).
inline constexpr int PROG_RESULT_DONE = 0;       // results written, SUCCESS
inline constexpr int PROG_RESULT_GARBAGE = 1;    // arguments not decoded, GARBAGE_ARGS
inline constexpr int PROG_RESULT_NOIMP = 2;      // procedure or version not served, PROC_UNAVAIL
inline constexpr int PROG_RESULT_TRUNCATED = 3;  // input ended inside the call; may be tried again

// One call, handed to the program; all pointers are borrowed for its duration.
struct ProcessParam {
    std::uint32_t iVersion;        // program version of the call
    std::uint32_t iProc;           // procedure number of the call
    std::string sRemoteAddr;       // dotted IPv4 address of the caller
    CRuntimeParam* pRuntimeParam;  // the RPC server's; the program may set its ID and IPC ID
};

// Thread safety: Process is never entered by two network threads at once (the RPC server's mutex).
class CRpcProg {
public:
    // GetVersion and GetMaxSupportProc: any version, any procedure is accepted.
    static constexpr std::uint32_t ANY = 0xFFFFFFFF;

    // pUtilities is borrowed.
    explicit CRpcProg(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}
    virtual ~CRpcProg() = default;
    CRpcProg(const CRpcProg&) = delete;
    CRpcProg& operator=(const CRpcProg&) = delete;

    // Reads the arguments, writes the results behind the accept status; a PROG_RESULT_ value.
    virtual int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) = 0;
    // The one version that the header search accepts, or ANY.
    virtual std::uint32_t GetVersion();
    // The number of procedures: a call is recognised when its procedure is less, or ANY.
    virtual std::uint32_t GetMaxSupportProc();

    // The program result for the exception that is being handled, which is logged as an error: what
    // ended the input asks for more of it, anything else is garbage.
    static int GetResultOfException(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam,
                                    const LogArgu& logArgu);

protected:
    CUtilities* m_pUtilities;
};

#endif
