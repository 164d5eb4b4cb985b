// The portmapper program 100000 (RFC 1833), of which only GETPORT is served.
#ifndef VELOCAST_PORTMAPPROG_H
#define VELOCAST_PORTMAPPROG_H

#include <array>
#include <cstdint>

#include "RpcProg.h"

// The argument of GETPORT, big-endian on the wire (RFC 1833, section 3.1).
struct PORTMAP_HEADER {
    std::uint32_t lProg;   //  0
    std::uint32_t lVers;   //  4  ignored
    std::uint32_t lProto;  //  8  ignored
    std::uint32_t lPort;   // 12  ignored
};
static_assert(sizeof(PORTMAP_HEADER) == 16);

// Thread safety: Set is called before the sockets are open.
class CPortmapProg : public CRpcProg {
public:
    explicit CPortmapProg(CUtilities* pUtilities);

    // Stores the port of a program; any but the PROGS served ones is ignored.
    void Set(unsigned long prog, unsigned long port);

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    std::uint32_t GetMaxSupportProc() const override;

    int ProcedureGETPORT(CRpcCall& call);
    int ProcedureNOIMP(CRpcCall& call);

private:
    std::array<std::uint32_t, PROGS> m_lPortTable{};  // index: program number minus FIRST_PROG
};

#endif
