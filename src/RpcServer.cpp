#include "RpcServer.h"

#include "RuntimeParam.h"
#include "Socket.h"
#include "Utilities.h"

namespace {

constexpr std::uint32_t MSG_REPLY = 1;
constexpr std::uint32_t REPLY_ACCEPTED = 0;

// accept_stat of RFC 5531, section 9; PROG_MISMATCH and SYSTEM_ERR are never sent.
constexpr std::uint32_t ACCEPT_SUCCESS = 0;
constexpr std::uint32_t ACCEPT_PROG_UNAVAIL = 1;
constexpr std::uint32_t ACCEPT_PROC_UNAVAIL = 3;
constexpr std::uint32_t ACCEPT_GARBAGE_ARGS = 4;

// Added to the length of a record with its mark: the last-fragment bit, less the mark's 4 bytes.
constexpr std::uint32_t LAST_FRAGMENT = 0x7FFFFFFC;

std::uint32_t Peek(const unsigned char* pcHeader, std::size_t iOffset) {
    return CSocketStream::ReverseByteOrder(
        reinterpret_cast<const std::uint32_t*>(pcHeader + iOffset));
}

}  // namespace

CRpcServer::CRpcServer(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities),
      m_pRuntimeParam(std::make_unique<CRuntimeParam>("", pRuntimeParam->GetLogControl())) {}

CRpcServer::~CRpcServer() = default;

void CRpcServer::Set(int nProg, CRpcProg* pRpcProg) {
    const unsigned long lIndex = static_cast<unsigned long>(nProg) - FIRST_PROG;
    if (lIndex < m_pProgTable.size()) {
        m_pProgTable[lIndex] = pRpcProg;
    }
}

void CRpcServer::SetLogControl(int iLogControl) { m_pRuntimeParam->SetLogControl(iLogControl); }

CRpcProg* CRpcServer::GetProg(unsigned long lProg) const {
    const unsigned long lIndex = lProg - FIRST_PROG;
    return lIndex < m_pProgTable.size() ? m_pProgTable[lIndex] : nullptr;
}

void CRpcServer::SocketReceived(CSocket* pSocket) {
    LogArgu logArgu{"RpcServer.SocketReceived"};
    const std::lock_guard<std::mutex> lock(m_hMutex);
    CRuntimeParam* pParam = m_pRuntimeParam.get();
    pParam->SetID(pSocket->GetRemoteAddress());

    CInputStream* pIn = pSocket->GetInputStream();
    COutputStream* pOut = pSocket->GetOutputStream();
    const unsigned long lProgId = pSocket->GetProgId();
    const int iType = pSocket->GetType();

    for (;;) {
        if (pIn->GetFilledBufferSize() == 0) {
            break;
        }
        if (pParam->IsLogRpc()) {
            m_pUtilities->LogInfo(pParam, "[%s] Input buf size(%u) pos(%u)", logArgu.pcName,
                                  pIn->GetFilledBufferSize(), pIn->GetBufferIndex());
        }
        if (!LookForValidHeader(pParam, &logArgu, lProgId, iType, pIn, pOut)) {
            if (pParam->IsLogRpc()) {
                m_pUtilities->LogInfo(pParam, "[%s] Cannot find valid header!!", logArgu.pcName);
            }
            break;
        }
        const std::uint32_t iCallStart = pIn->GetBufferIndex();
        const std::uint32_t iReplyStart = pOut->GetBufferSize();
        const int iResult = Process(pParam, lProgId, iType, pIn, pOut, pSocket->GetRemoteAddress());
        if (iResult == PROG_RESULT_TRUNCATED &&
            !LookForValidHeader(pParam, &logArgu, lProgId, iType, pIn, pOut)) {
            // The rest of the call may still come: forget this reply (but not an earlier one that
            // was sent in part) and parse the call again from its start.
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
        if (iResult != PROG_RESULT_DONE || iType != SOCKET_TYPE_TCP) {
            break;
        }
    }
}

bool CRpcServer::LookForValidHeader(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                    unsigned long lProgId, int iType, CInputStream* pIn,
                                    COutputStream* /*pOut*/) {
    const bool bStream = iType == SOCKET_TYPE_TCP;
    const std::uint32_t iHeaderLen = bStream ? sizeof(RPC_STM_HEADER) : sizeof(RPC_HEADER);
    const std::size_t iBase = bStream ? offsetof(RPC_STM_HEADER, header) : 0;

    for (std::uint32_t iOffset = 0;; ++iOffset) {
        const unsigned char* pcHeader = pIn->GetFilledBuffer(iOffset, iHeaderLen);
        if (pcHeader == nullptr) {
            return false;
        }
        const std::uint32_t lProg = Peek(pcHeader, iBase + offsetof(RPC_HEADER, lProg));
        const std::uint32_t lVers = Peek(pcHeader, iBase + offsetof(RPC_HEADER, lVers));
        const std::uint32_t lProc = Peek(pcHeader, iBase + offsetof(RPC_HEADER, lProc));
        if (lProg == lProgId) {
            CRpcProg* pProg = GetProg(lProg);
            const auto bAccepts = [](std::uint32_t iLimit, bool bWithin) {
                return iLimit == CRpcProg::ANY || bWithin;
            };
            if (pProg != nullptr && bAccepts(pProg->GetVersion(), pProg->GetVersion() == lVers) &&
                bAccepts(pProg->GetMaxSupportProc(), lProc < pProg->GetMaxSupportProc())) {
                if (iOffset != 0) {
                    pIn->Skip(iOffset);
                    if (pRuntimeParam->IsLogRpc()) {
                        m_pUtilities->LogInfo(pRuntimeParam,
                                              "[%s] Skipped %u data for next vaild header",
                                              pLogArgu->pcName, iOffset);
                    }
                }
                return true;
            }
        } else if (lProg >= 100000 && lProg <= 199999 && lProc <= 99) {
            if (pRuntimeParam->IsLogRpc()) {
                m_pUtilities->LogInfo(
                    pRuntimeParam,
                    "[%s] A possible valid header may be skipped, ProcId=%u, ProcId=%u",
                    pLogArgu->pcName, lProg, lProc);
            }
        }
    }
}

int CRpcServer::ReadHeader(CRuntimeParam* pRuntimeParam, const LogArgu& logArgu, int iType,
                           CInputStream* pIn, RPC_STM_HEADER* pHeader) {
    RPC_HEADER& header = pHeader->header;
    try {
        if (iType == SOCKET_TYPE_TCP) {
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
        return CRpcProg::GetResultOfException(m_pUtilities, pRuntimeParam, logArgu);
    }
    return PROG_RESULT_DONE;
}

int CRpcServer::Process(CRuntimeParam* pRuntimeParam, unsigned long /*lProgId*/, int iType,
                        CInputStream* pIn, COutputStream* pOut, const char* pcRemoteAddr) {
    const LogArgu logArgu{"RpcServer.Process"};
    const bool bStream = iType == SOCKET_TYPE_TCP;
    RPC_STM_HEADER stmHeader{};
    const RPC_HEADER& header = stmHeader.header;
    int iResult = ReadHeader(pRuntimeParam, logArgu, iType, pIn, &stmHeader);

    if (pRuntimeParam->IsLogRpc()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] request header", logArgu.pcName);
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

    CRpcProg* pProg = GetProg(header.lProg);
    if (iResult == PROG_RESULT_GARBAGE) {
        pOut->Write(ACCEPT_GARBAGE_ARGS);
    } else if (pProg == nullptr) {
        pOut->Write(ACCEPT_PROG_UNAVAIL);
    } else {
        const std::uint32_t iStatus = pOut->GetBufferIndex();
        pOut->Write(ACCEPT_SUCCESS);
        ProcessParam param{header.lVers, header.lProc, pcRemoteAddr, pRuntimeParam};
        const std::uint32_t iDecoded = pIn->GetBufferIndex();
        const bool bHeaderCut = iResult == PROG_RESULT_TRUNCATED;
        if (bHeaderCut) {
            // What has come of the credential or the verifier must not be taken for arguments: the
            // call would be answered for another object than its own.  Without any, only a
            // procedure that takes none can be answered already.
            pIn->Skip(pIn->GetFilledBufferSize());
        }
        iResult = pProg->Process(pIn, pOut, &param);
        if (bHeaderCut) {
            // The next header is looked for from where this one could not be decoded further.
            pIn->SetBufferIndex(iDecoded);
        }
        if (iResult == PROG_RESULT_NOIMP || iResult == PROG_RESULT_GARBAGE) {
            pOut->Seek(iStatus, 0);
            pOut->Write(iResult == PROG_RESULT_NOIMP ? ACCEPT_PROC_UNAVAIL : ACCEPT_GARBAGE_ARGS);
        }
    }

    // What is sent is exactly the record that its mark announces.
    pOut->EndRecord();
    if (bStream) {
        const std::uint32_t iLength = pOut->GetBufferIndex() - iRecordStart;
        pOut->Seek(iRecordStart, 0);
        pOut->Write(iLength + LAST_FRAGMENT);
    }
    return iResult;
}
