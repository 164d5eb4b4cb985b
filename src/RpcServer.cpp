#include "RpcServer.h"

#include <cstring>

#include "RuntimeParam.h"
#include "Socket.h"
#include "Utilities.h"

namespace {

constexpr const char* PROCESS_LABEL = "RpcServer.Process";

constexpr std::uint32_t MSG_REPLY = 1;
constexpr std::uint32_t REPLY_ACCEPTED = 0;

// accept_stat of RFC 5531, section 9; PROG_MISMATCH and SYSTEM_ERR are never sent.
constexpr std::uint32_t ACCEPT_SUCCESS = 0;
constexpr std::uint32_t ACCEPT_PROG_UNAVAIL = 1;
constexpr std::uint32_t ACCEPT_PROC_UNAVAIL = 3;
constexpr std::uint32_t ACCEPT_GARBAGE_ARGS = 4;

// What looks like a call for another program, when the search passes over it.
constexpr std::uint32_t LAST_LIKELY_PROG = 199999;
constexpr std::uint32_t LAST_LIKELY_PROC = 99;

// Added to the length of a record with its mark: the last-fragment bit, less the mark's 4 bytes.
constexpr std::uint32_t LAST_FRAGMENT = 0x7FFFFFFC;

// The number at a position of a header that lies anywhere in the input.
std::uint32_t Peek(const unsigned char* pcHeader, std::size_t iOffset) {
    std::uint32_t iWire = 0;
    std::memcpy(&iWire, pcHeader + iOffset, sizeof(iWire));
    return CSocketStream::ReverseByteOrder(&iWire);
}

// Whether the header search takes a call of that version and procedure for one of the program's.
bool Accepts(const CRpcProg& prog, std::uint32_t lVers, std::uint32_t lProc) {
    const std::uint32_t iVersion = prog.GetVersion();
    const std::uint32_t iProcs = prog.GetMaxSupportProc();
    return (iVersion == CRpcProg::ANY || lVers == iVersion) &&
           (iProcs == CRpcProg::ANY || lProc < iProcs);
}

}  // namespace

CRpcServer::CRpcServer(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities),
      m_pRuntimeParam(std::make_unique<CRuntimeParam>("", pRuntimeParam->GetLogControl())) {}

CRpcServer::~CRpcServer() = default;

void CRpcServer::Set(int nProg, CRpcProg* pRpcProg) {
    const unsigned long lIndex = static_cast<unsigned long>(nProg) - CRpcProg::FIRST_PROG;
    if (lIndex < m_pProgTable.size()) {
        m_pProgTable[lIndex] = pRpcProg;
    }
}

void CRpcServer::SetLogControl(int iLogControl) { m_pRuntimeParam->SetLogControl(iLogControl); }

CRpcProg* CRpcServer::GetProg(unsigned long lProg) const {
    const unsigned long lIndex = lProg - CRpcProg::FIRST_PROG;
    return lIndex < m_pProgTable.size() ? m_pProgTable[lIndex] : nullptr;
}

// =================================================================================================
// From received bytes to calls
// =================================================================================================

void CRpcServer::SocketReceived(CSocket* pSocket) {
    const CMutexLock lock(m_hMutex);
    m_pRuntimeParam->SetID(pSocket->GetRemoteAddress());
    while (pSocket->GetInputStream()->GetFilledBufferSize() != 0 && ServeCall(pSocket)) {
    }
}

bool CRpcServer::ServeCall(CSocket* pSocket) {
    LogArgu logArgu{"RpcServer.SocketReceived"};
    CRuntimeParam* pParam = m_pRuntimeParam.get();
    CInputStream* pIn = pSocket->GetInputStream();
    COutputStream* pOut = pSocket->GetOutputStream();
    const unsigned long lProgId = pSocket->GetProgId();
    const int iType = pSocket->GetType();

    if (pParam->IsLogRpc()) {
        m_pUtilities->LogInfo(pParam, "[%s] Input buf size(%u) pos(%u)", logArgu.pcName,
                              pIn->GetFilledBufferSize(), pIn->GetBufferIndex());
    }
    if (!LookForValidHeader(pParam, &logArgu, lProgId, iType, pIn, pOut)) {
        if (pParam->IsLogRpc()) {
            m_pUtilities->LogInfo(pParam, "[%s] Cannot find valid header!!", logArgu.pcName);
        }
        return false;
    }
    const std::uint32_t iCallStart = pIn->GetBufferIndex();
    const std::uint32_t iReplyStart = pOut->GetBufferSize();
    const int iResult = Process(pParam, lProgId, iType, pIn, pOut, pSocket->GetRemoteAddress());
    if (iResult == PROG_RESULT_TRUNCATED &&
        !LookForValidHeader(pParam, &logArgu, lProgId, iType, pIn, pOut)) {
        // The rest of the call may still come: forget this reply (but not an earlier one that was
        // sent in part) and parse the call again from its start.
        pOut->Seek(iReplyStart, 0);
        pOut->EndRecord();
        pIn->SetBufferIndex(iCallStart);
        if (pParam->IsLogRpc()) {
            m_pUtilities->LogInfo(pParam, "[%s] Reset input buffer postion", logArgu.pcName);
        }
    }
    if (pParam->IsLogRpc()) {
        m_pUtilities->LogInfo(pParam, "[%s] Output buf size(%u)", logArgu.pcName,
                              pOut->GetBufferSize());
    }
    pSocket->Send();
    return iResult == PROG_RESULT_DONE && iType == SOCKET_TYPE_TCP;
}

bool CRpcServer::LookForValidHeader(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    unsigned long lProgId, int iType, CInputStream* pIn,
                                    COutputStream* /*pOut*/) {
    const bool bStream = iType == SOCKET_TYPE_TCP;
    const std::uint32_t iHeaderLen = bStream ? sizeof(RPC_STM_HEADER) : sizeof(RPC_HEADER);
    const std::size_t iBase = bStream ? offsetof(RPC_STM_HEADER, header) : 0;
    const CRpcProg* pProg = GetProg(lProgId);

    std::uint32_t iOffset = 0;
    for (;; ++iOffset) {
        const unsigned char* pcHeader = pIn->GetFilledBuffer(iOffset, iHeaderLen);
        if (pcHeader == nullptr) {
            return false;
        }
        const std::uint32_t lProg = Peek(pcHeader, iBase + offsetof(RPC_HEADER, lProg));
        const std::uint32_t lVers = Peek(pcHeader, iBase + offsetof(RPC_HEADER, lVers));
        const std::uint32_t lProc = Peek(pcHeader, iBase + offsetof(RPC_HEADER, lProc));
        if (lProg == lProgId) {
            if (pProg != nullptr && Accepts(*pProg, lVers, lProc)) {
                break;
            }
        } else if (lProg >= CRpcProg::FIRST_PROG && lProg <= LAST_LIKELY_PROG &&
                   lProc <= LAST_LIKELY_PROC && pRuntimeParam->IsLogRpc()) {
            m_pUtilities->LogInfo(pRuntimeParam,
                                  "[%s] A possible valid header may be skipped, ProcId=%u, "
                                  "ProcId=%u",
                                  pLogArgu->pcName, lProg, lProc);
        }
    }
    if (iOffset != 0) {
        pIn->Skip(iOffset);
        if (pRuntimeParam->IsLogRpc()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Skipped %u data for next vaild header",
                                  pLogArgu->pcName, iOffset);
        }
    }
    return true;
}

// =================================================================================================
// From a call to its reply
// =================================================================================================

int CRpcServer::Process(CRuntimeParam* pRuntimeParam, unsigned long /*lProgId*/, int iType,
                        CInputStream* pIn, COutputStream* pOut, const char* pcRemoteAddr) {
    const bool bStream = iType == SOCKET_TYPE_TCP;
    RPC_STM_HEADER stmHeader{};
    const RPC_HEADER& header = stmHeader.header;
    const int iHeaderResult = ReadHeader(pRuntimeParam, bStream, pIn, &stmHeader);
    LogHeader(pRuntimeParam, bStream, stmHeader);

    pOut->Seek(0, 2);  // behind the rest of a reply that was sent in part
    const std::uint32_t iRecordStart = pOut->GetBufferIndex();
    if (bStream) {
        pOut->Write(stmHeader.lHeader);  // place of the mark
    }
    pOut->Write(header.lXID);
    pOut->Write(MSG_REPLY);
    pOut->Write(REPLY_ACCEPTED);
    pOut->Write(header.verf.lFlavor);
    pOut->Write(header.verf.lLength);
    const int iResult = RunProgram(pRuntimeParam, header, iHeaderResult, pIn, pOut, pcRemoteAddr);

    // What is sent is exactly the record that its mark announces.
    pOut->EndRecord();
    if (bStream) {
        const std::uint32_t iLength = pOut->GetBufferIndex() - iRecordStart;
        pOut->Seek(iRecordStart, 0);
        pOut->Write(iLength + LAST_FRAGMENT);
    }
    return iResult;
}

int CRpcServer::ReadHeader(CRuntimeParam* pRuntimeParam, bool bStream, CInputStream* pIn,
                           RPC_STM_HEADER* pHeader) const {
    RPC_HEADER& header = pHeader->header;
    try {
        if (bStream) {
            pIn->Read(&pHeader->lHeader);
        }
        pIn->Read(&header.lXID);
        pIn->Read(&header.lMsg);
        pIn->Read(&header.lRpcvers);
        pIn->Read(&header.lProg);
        pIn->Read(&header.lVers);
        pIn->Read(&header.lProc);
        pIn->Read(&header.cred.lFlavor);
        pIn->Read(&header.cred.lLength);
        pIn->Skip(header.cred.lLength);
        pIn->Read(&header.verf.lFlavor);
        pIn->Read(&header.verf.lLength);
        pIn->Skip(header.verf.lLength);
    } catch (...) {
        return CRpcProg::GetResultOfException(m_pUtilities, pRuntimeParam, PROCESS_LABEL);
    }
    return PROG_RESULT_DONE;
}

void CRpcServer::LogHeader(CRuntimeParam* pRuntimeParam, bool bStream,
                           const RPC_STM_HEADER& stmHeader) {
    if (!pRuntimeParam->IsLogRpc()) {
        return;
    }
    const RPC_HEADER& header = stmHeader.header;
    m_pUtilities->LogInfo(pRuntimeParam, "[%s] request header", PROCESS_LABEL);
    if (bStream) {
        m_pUtilities->LogInfo(pRuntimeParam, " --- header=%u", stmHeader.lHeader);
    }
    m_pUtilities->LogInfo(pRuntimeParam, " --- nXID=%u", header.lXID);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nmsg=%u", header.lMsg);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nrpcvers=%u", header.lRpcvers);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nprog=%u", header.lProg);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nvers=%u", header.lVers);
    m_pUtilities->LogInfo(pRuntimeParam, " --- nproc=%u", header.lProc);
}

int CRpcServer::RunProgram(CRuntimeParam* pRuntimeParam, const RPC_HEADER& header,
                           int iHeaderResult, CInputStream* pIn, COutputStream* pOut,
                           const char* pcRemoteAddr) {
    if (iHeaderResult == PROG_RESULT_GARBAGE) {
        pOut->Write(ACCEPT_GARBAGE_ARGS);
        return iHeaderResult;
    }
    CRpcProg* pProg = GetProg(header.lProg);
    if (pProg == nullptr) {
        pOut->Write(ACCEPT_PROG_UNAVAIL);
        return iHeaderResult;
    }
    const std::uint32_t iStatus = pOut->GetBufferIndex();
    pOut->Write(ACCEPT_SUCCESS);
    ProcessParam param{header.lVers, header.lProc, pcRemoteAddr, pRuntimeParam};
    const std::uint32_t iDecoded = pIn->GetBufferIndex();
    const bool bHeaderCut = iHeaderResult == PROG_RESULT_TRUNCATED;
    if (bHeaderCut) {
        // What has come of the credential or the verifier must not be taken for arguments: the call
        // would be answered for another object than its own.  Without any, only a procedure that
        // takes none can be answered already.
        pIn->Skip(pIn->GetFilledBufferSize());
    }
    const int iResult = pProg->Process(pIn, pOut, &param);
    if (bHeaderCut) {
        // The next header is looked for from where this one could not be decoded further.
        pIn->SetBufferIndex(iDecoded);
    }
    if (iResult == PROG_RESULT_NOIMP || iResult == PROG_RESULT_GARBAGE) {
        pOut->Seek(iStatus, 0);
        pOut->Write(iResult == PROG_RESULT_NOIMP ? ACCEPT_PROC_UNAVAIL : ACCEPT_GARBAGE_ARGS);
    }
    return iResult;
}
