#include "PortmapProg.h"

#include <iterator>

#include "InputStream.h"
#include "OutputStream.h"

namespace {

using Procedure = RpcProcedure<CPortmapProg, CRpcCall>;

constexpr Procedure NOIMP{"PortmapProg.ProcedureNOIMP", &CPortmapProg::ProcedureNOIMP};

// The whole protocol is recognised, although only GETPORT is served.
constexpr Procedure PROCEDURES[] = {
    NOIMP,                                                              // 0 NULL
    NOIMP,                                                              // 1 SET
    NOIMP,                                                              // 2 UNSET
    {"PortmapProg.ProcedureGETPORT", &CPortmapProg::ProcedureGETPORT},  // 3
    NOIMP,                                                              // 4 DUMP
    NOIMP,                                                              // 5 CALLIT
};

constexpr RpcProcedureTable<CPortmapProg, CRpcCall> TABLE{"PortmapProg.Process", false, PROCEDURES,
                                                          NOIMP};

}  // namespace

CPortmapProg::CPortmapProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

std::uint32_t CPortmapProg::GetMaxSupportProc() const { return std::size(PROCEDURES); }

void CPortmapProg::Set(unsigned long prog, unsigned long port) {
    const unsigned long lIndex = prog - FIRST_PROG;
    if (lIndex < m_lPortTable.size()) {
        m_lPortTable[lIndex] = static_cast<std::uint32_t>(port);
    }
}

int CPortmapProg::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    return Dispatch(TABLE, pIn, pOut, pParam);
}

// Every procedure but GETPORT, NULL included.
int CPortmapProg::ProcedureNOIMP(CRpcCall& /*call*/) { return PROG_RESULT_NOIMP; }

// unsigned int PMAPPROC_GETPORT(mapping)                                   (RFC 1833, section 3.1)
//     unsigned int prog, vers, prot, port -> unsigned int port
//
// 0 for a program that is not registered.  Differs: version and protocol are not looked at, as
// every program has one port for all of them.
int CPortmapProg::ProcedureGETPORT(CRpcCall& call) {
    PORTMAP_HEADER header{};
    call.GetIn()->Read(&header.lProg);
    call.GetIn()->Skip(sizeof(header) - sizeof(header.lProg));
    const std::uint32_t iIndex = header.lProg - FIRST_PROG;
    header.lPort = iIndex < m_lPortTable.size() ? m_lPortTable[iIndex] : 0;
    call.GetOut()->Write(header.lPort);
    call.Trace("[%s] lProg = %d, lPort = %d", call.GetLabel(), static_cast<int>(header.lProg),
               static_cast<int>(header.lPort));
    return PROG_RESULT_DONE;
}
