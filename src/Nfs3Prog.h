// The NFS version 3 program (RFC 1813).
#ifndef VELOCAST_NFS3PROG_H
#define VELOCAST_NFS3PROG_H

#include <cstdint>

#include "Nfs3Types.h"
#include "RpcProg.h"

class CNfs3Call;

// The procedures of RFC 1813, each under its contract in the source.  Their order is that of the
// source, not of their numbers.
//
// Thread safety: as CRpcProg; SetUserID and SetReadOnly are called before serving.
class CNfs3Prog : public CRpcProg {
public:
    explicit CNfs3Prog(CUtilities* pUtilities);

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    std::uint32_t GetVersion() const override;
    std::uint32_t GetMaxSupportProc() const override;

    // Stored only: attributes report the owner that the local file system reports.
    void SetUserID(unsigned int uid, unsigned int gid);
    void SetReadOnly(bool bReadOnly);

    int ProcedureNULL(CNfs3Call& call);
    int ProcedureNOIMP(CNfs3Call& call);

    // === Attributes and data ===

    int ProcedureGETATTR(CNfs3Call& call);
    int ProcedureSETATTR(CNfs3Call& call);
    int ProcedureLOOKUP(CNfs3Call& call);
    int ProcedureACCESS(CNfs3Call& call);
    int ProcedureREADLINK(CNfs3Call& call);
    int ProcedureREAD(CNfs3Call& call);
    int ProcedureWRITE(CNfs3Call& call);
    int ProcedureFSSTAT(CNfs3Call& call);
    int ProcedureFSINFO(CNfs3Call& call);
    int ProcedurePATHCONF(CNfs3Call& call);
    int ProcedureCOMMIT(CNfs3Call& call);

    // === Directories and names ===

    int ProcedureCREATE(CNfs3Call& call);
    int ProcedureMKDIR(CNfs3Call& call);
    int ProcedureSYMLINK(CNfs3Call& call);
    int ProcedureMKNOD(CNfs3Call& call);
    int ProcedureREMOVE(CNfs3Call& call);
    int ProcedureRMDIR(CNfs3Call& call);
    int ProcedureRENAME(CNfs3Call& call);
    int ProcedureLINK(CNfs3Call& call);
    int ProcedureREADDIR(CNfs3Call& call);
    int ProcedureREADDIRPLUS(CNfs3Call& call);

private:
    // The check before an object's name is taken away: NOENT when it is missing or outside every
    // export, else ACCES on a read-only server.
    nfsstat3 CheckChange(CNfs3Call& call, const char* pcPath);
    bool Update(CNfs3Call& call, const char* pcPath, const sattr3& attr);
    // Reads into the place where the next value of the reply would go.  OK, or INVAL, which is
    // logged.
    nfsstat3 ReadIntoReply(CNfs3Call& call, const char* pcPath, unsigned long long iOffset,
                           std::uint32_t iCount, std::uint32_t* piRead, bool* pbEof);
    // The end of CREATE and MKDIR.
    static int EndNewObject(CNfs3Call& call, nfsstat3 stat, const char* pcPath);
    // The end of READDIR and READDIRPLUS, once the arguments are read.
    int ListDirectory(CNfs3Call& call, const char* pcPath, std::uint64_t iCookie,
                      std::uint64_t iCookieVerf, bool bPlus);
    // The entries of a directory from a cookie on, at most ten; true when the end was reached.
    bool WriteEntries(CNfs3Call& call, const char* pcDir, std::uint64_t iCookie, bool bPlus);

    unsigned int m_iUId = 0;
    unsigned int m_iGId = 0;
    std::uint64_t m_iSysUpTime;  // milliseconds when this object was made; the WRITE verifier
    std::uint32_t m_iFSF3Properties;
    bool m_bReadOnly = false;
};

#endif
