#include "PortmapProg.h"

#include "InputStream.h"
#include "OutputStream.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

constexpr std::uint32_t PMAPPROC_GETPORT = 3;

}  // namespace

CPortmapProg::CPortmapProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

// The whole portmapper protocol is recognised, although only GETPORT is served.
std::uint32_t CPortmapProg::GetMaxSupportProc() { return 6; }

void CPortmapProg::Set(unsigned long prog, unsigned long port) {
    const unsigned long lIndex = prog - FIRST_PROG;
    if (lIndex < m_lPortTable.size()) {
        m_lPortTable[lIndex] = static_cast<std::uint32_t>(port);
    }
}

int CPortmapProg::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    const LogArgu logArgu{"PortmapProg.Process"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    if (m_pUtilities == nullptr || pParam->iProc != PMAPPROC_GETPORT) {
        return ProcedureNOIMP(pIn, pOut, pParam);
    }
    try {
        return ProcedureGETPORT(pIn, pOut, pParam);
    } catch (...) {
        return GetResultOfException(m_pUtilities, pRuntimeParam, logArgu);
    }
}

int CPortmapProg::ProcedureNOIMP(CInputStream* /*pIn*/, COutputStream* /*pOut*/,
                                 ProcessParam* pParam) {
    if (m_pUtilities != nullptr && pParam->pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pParam->pRuntimeParam, "[%s]", "PortmapProg.ProcedureNOIMP");
    }
    return PROG_RESULT_NOIMP;
}

// unsigned int GETPORT(mapping).  0 for a program that is not registered.
int CPortmapProg::ProcedureGETPORT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    const LogArgu logArgu{"PortmapProg.ProcedureGETPORT"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    if (pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s]", logArgu.pcName);
    }
    PORTMAP_HEADER header{};
    pIn->Read(&header.lProg);
    pIn->Skip(sizeof(header) - sizeof(header.lProg));
    const std::uint32_t iIndex = header.lProg - FIRST_PROG;
    header.lPort = iIndex < m_lPortTable.size() ? m_lPortTable[iIndex] : 0;
    pOut->Write(header.lPort);
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] lProg = %d, lPort = %d", logArgu.pcName,
                              static_cast<int>(header.lProg), static_cast<int>(header.lPort));
    }
    return PROG_RESULT_DONE;
}
