// Turns received bytes into ONC RPC calls (RFC 5531) and sends the programs' replies.
#ifndef VELOCAST_RPCSERVER_H
#define VELOCAST_RPCSERVER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "Mutex.h"
#include "RpcProg.h"
#include "SocketListener.h"

struct LogArgu;

// Flavour and body length of a credential or a verifier; the body follows (RFC 5531, section 8.2).
struct OPAQUE_AUTH {
    std::uint32_t lFlavor;
    std::uint32_t lLength;  // bytes; no fill is skipped after the body
};
static_assert(sizeof(OPAQUE_AUTH) == 8);

// A call header as it lies in a datagram, big-endian.  The position of verf holds for an empty
// credential only; the header search looks at nothing behind lProc.
struct RPC_HEADER {
    std::uint32_t lXID;      //  0  transaction, echoed in the reply
    std::uint32_t lMsg;      //  4  message type, not checked
    std::uint32_t lRpcvers;  //  8  RPC version, not checked
    std::uint32_t lProg;     // 12  program
    std::uint32_t lVers;     // 16  program version
    std::uint32_t lProc;     // 20  procedure
    OPAQUE_AUTH cred;        // 24  not interpreted
    OPAQUE_AUTH verf;        // 32  echoed without its body
};
static_assert(sizeof(RPC_HEADER) == 40);
static_assert(offsetof(RPC_HEADER, lProg) == 12 && offsetof(RPC_HEADER, lVers) == 16 &&
              offsetof(RPC_HEADER, lProc) == 20 && offsetof(RPC_HEADER, cred) == 24 &&
              offsetof(RPC_HEADER, verf) == 32);

// The same behind the record mark of a TCP stream (RFC 5531, section 11).
struct RPC_STM_HEADER {
    std::uint32_t lHeader;  // 0  record mark, read but not checked
    RPC_HEADER header;      // 4
};
static_assert(sizeof(RPC_STM_HEADER) == 44 && offsetof(RPC_STM_HEADER, header) == 4);

// Calls are found by a search for a plausible header, byte by byte, so that a garbled stream
// recovers by itself.  Incoming fragments are not reassembled; every reply is one last fragment.
//
// Thread safety: SocketReceived is called by every socket thread and serialises all of them; Set
// is called before the sockets are open.
class CRpcServer : public ISocketListener {
public:
    // Both are borrowed; the log control is copied.
    CRpcServer(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);
    ~CRpcServer() override;

    // Registers a program (borrowed) under its number; any but those of a CRpcProg is ignored.
    void Set(int nProg, CRpcProg* pRpcProg);
    void SetLogControl(int iLogControl);

    void SocketReceived(CSocket* pSocket) override;

    // Moves the input to the first call header for program lProgId on a socket of type iType and
    // returns true, or consumes nothing and returns false.  REQUIRES: m_hMutex held, or no sockets.
    bool LookForValidHeader(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, unsigned long lProgId,
                            int iType, CInputStream* pIn, COutputStream* pOut) REQUIRES(m_hMutex);
    // Decodes the call at the input's position, runs its program and builds the reply behind what
    // the output still holds.  A PROG_RESULT_ value.  A call whose credential or verifier has not
    // come whole is run without arguments.  REQUIRES: as above.
    int Process(CRuntimeParam* pRuntimeParam, unsigned long lProgId, int iType, CInputStream* pIn,
                COutputStream* pOut, const char* pcRemoteAddr) REQUIRES(m_hMutex);

private:
    // The registered program of that number, or null.
    CRpcProg* GetProg(unsigned long lProg) const;

    // Finds, runs and answers one call of the input.  True when another one may follow at once.
    bool ServeCall(CSocket* pSocket) REQUIRES(m_hMutex);

    // The parts of Process, in their order.
    //
    // Fills the header as far as the input reaches; 0, or the result of a failed decoding.
    int ReadHeader(CRuntimeParam* pRuntimeParam, bool bStream, CInputStream* pIn,
                   RPC_STM_HEADER* pHeader) const;
    void LogHeader(CRuntimeParam* pRuntimeParam, bool bStream, const RPC_STM_HEADER& stmHeader);
    // Writes the accept status and the results.  iHeaderResult is that of ReadHeader; returns the
    // result of the call.
    int RunProgram(CRuntimeParam* pRuntimeParam, const RPC_HEADER& header, int iHeaderResult,
                   CInputStream* pIn, COutputStream* pOut, const char* pcRemoteAddr)
        REQUIRES(m_hMutex);

    std::array<CRpcProg*, CRpcProg::PROGS> m_pProgTable{};  // index: number minus FIRST_PROG
    // Held for a whole SocketReceived: while a program works, while a controller's answer to its
    // notification is awaited, and while the reply is sent.  Only m_hMutexServer is outside it.
    CMutex m_hMutex;
    CUtilities* m_pUtilities;
    // The identities are guarded by m_hMutex; the log control may change at any time.
    std::unique_ptr<CRuntimeParam> m_pRuntimeParam;
};

#endif
