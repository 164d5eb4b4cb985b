// The NFS version 3 program (RFC 1813).
#ifndef VELOCAST_NFS3PROG_H
#define VELOCAST_NFS3PROG_H

#include <cstdint>
#include <string>

#include "Nfs3Types.h"
#include "RpcProg.h"

struct LogArgu;

// Every procedure reads all its arguments first, works on local paths, writes status and body, and
// returns PROG_RESULT_DONE whatever the status.  An object outside every export is an I/O error.
// Before- and after-images of directories are never sent.
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

    int ProcedureNULL(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureGETATTR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureSETATTR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureLOOKUP(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureACCESS(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREADLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREAD(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureWRITE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureCREATE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureMKDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureSYMLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureMKNOD(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREMOVE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureRMDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureRENAME(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREADDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureREADDIRPLUS(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureFSSTAT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureFSINFO(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedurePATHCONF(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureCOMMIT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);
    int ProcedureNOIMP(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam);

    // === Paths and attributes ===

    // A file handle to its path; on failure the path stays empty, which the checks refuse.
    bool ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                  COpaquePath* pPath);
    // A directory handle and a name to the joined canonical path.
    bool ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                  diropargs3* pDirArgs, COpaquePath* pPath);
    // Whether the path lies in an export, under whose names the call then logs and notifies.
    nfsstat3 CheckProcessParam(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath);
    static nfsstat3 CheckPath(const char* pcPath, bool bMustExist);
    bool GetNfsFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                          nfs_fh3* pHandle);
    bool GetNfsFileAttributes(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                              fattr3* pAttr);
    // Before-images are not kept: fills nothing and returns false.
    static bool GetNfsFileAttributes(const char* pcPath, wcc_attr* pAttr);
    // Set-user-ID, set-group-ID and the nine permission bits; the same both ways.
    static unsigned int ConvertNfsFileModeToFileMode(unsigned int iMode);
    static unsigned int ConvertFileModeToNfsFileMode(unsigned int iMode);
    // Joins with '/' into PATH_SIZE bytes.  False for a null pointer, and, with an empty result,
    // for a joined path that does not fit.
    static bool AppendFilePath(const char* pcDir, const char* pcName, char* pcOut);
    static bool IsInVaildDirName(const char* pcName);

private:
    // Logs the call of a procedure by its label.
    void LogCall(CRuntimeParam* pRuntimeParam, const LogArgu& logArgu);
    int End(CRuntimeParam* pRuntimeParam, const LogArgu& logArgu, nfsstat3 stat);
    // The export check and, when that passes, the existence check.
    nfsstat3 Check(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath, bool bMustExist);
    // The status of a change in a directory: outside or missing is "no such entry", else read-only.
    nfsstat3 CheckChange(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath);
    bool Update(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath, const sattr3& attr);
    post_op_attr GetPostOpAttr(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);
    void WriteNewObject(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, COutputStream* pOut,
                        nfsstat3 stat, const char* pcPath);
    // The entries of a directory from a cookie on, at most ten; true when the end was reached.
    bool WriteEntries(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, COutputStream* pOut,
                      const char* pcDir, std::uint64_t iCookie, bool bPlus);
    int ReadDirectory(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam,
                      LogArgu* pLogArgu, bool bPlus);

    unsigned int m_iUId = 0;
    unsigned int m_iGId = 0;
    std::uint64_t m_iSysUpTime;  // milliseconds when this object was made; the WRITE verifier
    std::uint32_t m_iFSF3Properties;
    bool m_bReadOnly = false;
};

#endif
