#include "MountProg.h"

#include <iterator>

#include "InputStream.h"
#include "OutputStream.h"

namespace {

constexpr std::uint32_t MNT3_OK = 0;
constexpr std::uint32_t MNT3ERR_ACCES = 13;

constexpr std::uint32_t HANDLE_SIZE_V1 = 32;  // version 1: fixed-length opaque
constexpr int HANDLE_BUFFER_SIZE = 88;

using Procedure = RpcProcedure<CMountProg, CRpcCall>;

constexpr Procedure NOIMP{"MountProg.ProcedureNOIMP", &CMountProg::ProcedureNOIMP};

constexpr Procedure PROCEDURES[] = {
    {"MountProg.ProcedureNULL", &CMountProg::ProcedureNULL},  // 0
    {"MountProg.ProcedureMNT", &CMountProg::ProcedureMNT},    // 1
    NOIMP,                                                    // 2 DUMP
    {"MountProg.ProcedureUMNT", &CMountProg::ProcedureUMNT},  // 3
    NOIMP,                                                    // 4 UMNTALL
    NOIMP,                                                    // 5 EXPORT
};

constexpr RpcProcedureTable<CMountProg, CRpcCall> TABLE{"MountProg.Process", true, PROCEDURES,
                                                        NOIMP};

}  // namespace

CMountProg::CMountProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

std::uint32_t CMountProg::GetMaxSupportProc() const { return std::size(PROCEDURES); }

int CMountProg::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    return Dispatch(TABLE, pIn, pOut, pParam);
}

bool CMountProg::ReadPath(CRpcCall& call, COpaquePath* pPath) {
    if (pPath == nullptr) {
        return false;
    }
    CInputStream* pIn = call.GetIn();
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
    call.Trace("[%s] Read path = %s", call.GetLabel(), cPath);
    return true;
}

// Each procedure stands under its form in RFC 1813, appendix I: its arguments, then "->" what it
// answers.  What follows says which status is sent when, and where this server differs.

// void MOUNTPROC3_NULL(void)
int CMountProg::ProcedureNULL(CRpcCall& /*call*/) { return PROG_RESULT_DONE; }

// mountlist MOUNTPROC3_DUMP(void), void MOUNTPROC3_UMNTALL(void), exports MOUNTPROC3_EXPORT(void)
//
// Not served, like every number that is no procedure.
int CMountProg::ProcedureNOIMP(CRpcCall& /*call*/) { return PROG_RESULT_NOIMP; }

// mountres3 MOUNTPROC3_MNT(dirpath)
//     -> mountstat3 status; OK: fhandle3 fhandle, int auth_flavors<>
//
// OK.  ACCES: every failure; the log tells an unreadable or empty name, a caller without an
// address, an unknown export and one that a client has mounted already from each other.
// Differs: the path is an export's name; no authentication flavour is announced, and none is
// tested.  Version 1 gets the first 32 bytes of the handle, without a length and without flavours.
int CMountProg::ProcedureMNT(CRpcCall& call) {
    const std::string& sRemoteAddr = call.GetRemoteAddr();
    call.Trace("[%s] From %s, NFS Protocol Version=%u", call.GetLabel(), sRemoteAddr.c_str(),
               call.GetVersion());

    COpaquePath exportName;
    bool bOk = true;
    if (!ReadPath(call, &exportName) || exportName.sPath.empty()) {
        call.LogInfo(LOG_CONTROL_ERROR, "[%s] Fail to read export name", call.GetLabel());
        bOk = false;
    }
    if (sRemoteAddr.empty()) {
        call.LogInfo(LOG_CONTROL_ERROR, "[%s] Fail to get remote address", call.GetLabel());
        bOk = false;
    }
    MountInfo mountInfo;
    if (bOk) {
        char cReason[STATUS_SIZE] = "";
        bOk = m_pUtilities->UpdateMountClientIpAddrByExportName(
            exportName.c_str(), sRemoteAddr.c_str(), &mountInfo, cReason);
        if (!bOk) {
            call.LogError(LOG_CONTROL_ERROR, "[%s] %s", call.GetLabel(), cReason);
        }
    }
    unsigned char cHandle[HANDLE_BUFFER_SIZE];
    bOk = bOk && m_pUtilities->GetFileHandle(call.GetRuntimeParam(), call.GetLogArgu(),
                                             mountInfo.sLocalMountPath.c_str(), cHandle,
                                             HANDLE_BUFFER_SIZE);
    COutputStream* pOut = call.GetOut();
    if (!bOk) {
        call.LogInfo(LOG_CONTROL_GENERAL_INFO, "[%s] Mount FAIL", call.GetLabel());
        pOut->Write(MNT3ERR_ACCES);
        return PROG_RESULT_DONE;
    }
    call.LogInfo(LOG_CONTROL_GENERAL_INFO, "[%s] Mount OK", call.GetLabel());
    pOut->Write(MNT3_OK);
    if (call.GetVersion() == 1) {
        pOut->Write(cHandle, HANDLE_SIZE_V1);
    } else {
        pOut->Write(NFS_HANDLE_SIZE);
        pOut->Write(cHandle, NFS_HANDLE_SIZE);
        pOut->Write(0U);  // number of authentication flavours
    }
    return PROG_RESULT_DONE;
}

// void MOUNTPROC3_UMNT(dirpath)
//
// Always answered, also for an unknown export and for an unreadable name.  Differs: who asks is
// not compared with who has the export mounted.
int CMountProg::ProcedureUMNT(CRpcCall& call) {
    call.Trace("[%s] From %s", call.GetLabel(), call.GetRemoteAddr().c_str());
    COpaquePath exportName;
    if (!ReadPath(call, &exportName)) {
        call.LogInfo(CRpcCall::LOG_ALWAYS, "[%s] Umount FAIL", call.GetLabel());
        return PROG_RESULT_DONE;
    }
    call.LogInfo(LOG_CONTROL_GENERAL_INFO, "[%s] Umount OK", call.GetLabel());
    m_pUtilities->UpdateMountClientIpAddrByExportName(exportName.c_str(), nullptr, nullptr,
                                                      nullptr);
    return PROG_RESULT_DONE;
}
