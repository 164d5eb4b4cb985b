#include "MountProg.h"

#include <iterator>

#include "InputStream.h"
#include "OutputStream.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

constexpr std::uint32_t MNT3_OK = 0;
constexpr std::uint32_t MNT3ERR_ACCES = 13;

constexpr std::uint32_t HANDLE_SIZE_V1 = 32;  // version 1: fixed-length opaque
constexpr int HANDLE_BUFFER_SIZE = 88;

using Procedure = int (CMountProg::*)(CInputStream*, COutputStream*, ProcessParam*);

constexpr Procedure PROCEDURES[] = {
    &CMountProg::ProcedureNULL,   // 0
    &CMountProg::ProcedureMNT,    // 1
    &CMountProg::ProcedureNOIMP,  // 2 DUMP
    &CMountProg::ProcedureUMNT,   // 3
    &CMountProg::ProcedureNOIMP,  // 4 UMNTALL
    &CMountProg::ProcedureNOIMP,  // 5 EXPORT
};

}  // namespace

CMountProg::CMountProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

std::uint32_t CMountProg::GetMaxSupportProc() { return std::size(PROCEDURES); }

int CMountProg::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    const LogArgu logArgu{"MountProg.Process"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    if (m_pUtilities == nullptr) {
        return PROG_RESULT_NOIMP;
    }
    if (pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s]", logArgu.pcName);
    }
    if (pParam->iProc >= std::size(PROCEDURES)) {
        return ProcedureNOIMP(pIn, pOut, pParam);
    }
    try {
        return (this->*PROCEDURES[pParam->iProc])(pIn, pOut, pParam);
    } catch (...) {
        return GetResultOfException(m_pUtilities, pRuntimeParam, logArgu);
    }
}

int CMountProg::ProcedureNOIMP(CInputStream* /*pIn*/, COutputStream* /*pOut*/,
                               ProcessParam* pParam) {
    if (pParam->pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pParam->pRuntimeParam, "[%s]", "MountProg.ProcedureNOIMP");
    }
    return PROG_RESULT_NOIMP;
}

bool CMountProg::ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                          COpaquePath* pPath) {
    if (pPath == nullptr) {
        return false;
    }
    std::uint32_t iLen = 0;
    pIn->Read(&iLen);
    if (iLen >= PATH_SIZE) {
        return false;
    }
    char cPath[PATH_SIZE];
    if (iLen != 0) {
        pIn->Read(cPath, iLen);
        pIn->SkipRemainOpaque(iLen);
    }
    cPath[iLen] = '\0';
    pPath->sPath = cPath;
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Read path = %s", pLogArgu->pcName, cPath);
    }
    return true;
}

// void NULL(void)
int CMountProg::ProcedureNULL(CInputStream* /*pIn*/, COutputStream* /*pOut*/,
                              ProcessParam* pParam) {
    if (pParam->pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pParam->pRuntimeParam, "[%s]", "MountProg.ProcedureNULL");
    }
    return PROG_RESULT_DONE;
}

// mountres3 MNT(dirpath).  The path is an export name.  Every failure is "access denied", and no
// authentication flavour is announced.
int CMountProg::ProcedureMNT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"MountProg.ProcedureMNT"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    if (pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s]", logArgu.pcName);
    }
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] From %s, NFS Protocol Version=%u",
                              logArgu.pcName, pParam->sRemoteAddr.c_str(), pParam->iVersion);
    }

    bool bOk = true;
    COpaquePath exportName;
    if (!ReadPath(pRuntimeParam, &logArgu, pIn, &exportName) || exportName.sPath.empty()) {
        if (pRuntimeParam->IsLogError()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fail to read export name", logArgu.pcName);
        }
        bOk = false;
    }
    if (pParam->sRemoteAddr.empty()) {
        if (pRuntimeParam->IsLogError()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fail to get remote address", logArgu.pcName);
        }
        bOk = false;
    }
    MountInfo mountInfo;
    if (bOk) {
        char cReason[STATUS_SIZE] = "";
        bOk = m_pUtilities->UpdateMountClientIpAddrByExportName(
            exportName.sPath.c_str(), pParam->sRemoteAddr.c_str(), &mountInfo, cReason);
        if (!bOk && pRuntimeParam->IsLogError()) {
            m_pUtilities->LogError(pRuntimeParam, "[%s] %s", logArgu.pcName, cReason);
        }
    }
    unsigned char cHandle[HANDLE_BUFFER_SIZE];
    bOk = bOk &&
          m_pUtilities->GetFileHandle(pRuntimeParam, &logArgu, mountInfo.sLocalMountPath.c_str(),
                                      cHandle, HANDLE_BUFFER_SIZE);
    if (pRuntimeParam->IsLogGeneralInfo()) {
        if (bOk) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mount OK", logArgu.pcName);
        } else {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mount FAIL", logArgu.pcName);
        }
    }
    if (!bOk) {
        pOut->Write(MNT3ERR_ACCES);
        return PROG_RESULT_DONE;
    }
    pOut->Write(MNT3_OK);
    if (pParam->iVersion == 1) {
        pOut->Write(cHandle, HANDLE_SIZE_V1);
    } else {
        pOut->Write(NFS_HANDLE_SIZE);
        pOut->Write(cHandle, NFS_HANDLE_SIZE);
        pOut->Write(0U);  // number of authentication flavours
    }
    return PROG_RESULT_DONE;
}

// void UMNT(dirpath).  Always answered, also for an unknown export.
int CMountProg::ProcedureUMNT(CInputStream* pIn, COutputStream* /*pOut*/, ProcessParam* pParam) {
    LogArgu logArgu{"MountProg.ProcedureUMNT"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    if (pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s]", logArgu.pcName);
    }
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] From %s", logArgu.pcName,
                              pParam->sRemoteAddr.c_str());
    }
    COpaquePath exportName;
    const bool bOk = ReadPath(pRuntimeParam, &logArgu, pIn, &exportName);
    if (bOk) {
        if (pRuntimeParam->IsLogGeneralInfo()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Umount OK", logArgu.pcName);
        }
        m_pUtilities->UpdateMountClientIpAddrByExportName(exportName.sPath.c_str(), nullptr,
                                                          nullptr, nullptr);
    } else {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Umount FAIL", logArgu.pcName);
    }
    return PROG_RESULT_DONE;
}
