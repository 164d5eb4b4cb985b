// The NFS version 3 program (RFC 1813).
#ifndef VELOCAST_NFS3PROG_H
#define VELOCAST_NFS3PROG_H

#include <array>
#include <cstdint>
#include <string>

#include "MountProg.h"
#include "RpcProg.h"

struct LogArgu;

// === The types of RFC 1813, section 2.5 and 2.6, as held in memory ===

enum nfsstat3 : std::uint32_t {
    NFS3_OK = 0,
    NFS3ERR_NOENT = 2,
    NFS3ERR_IO = 5,
    NFS3ERR_ACCES = 13,
    NFS3ERR_EXIST = 17,
    NFS3ERR_INVAL = 22,
    NFS3ERR_FBIG = 27,
    NFS3ERR_STALE = 70,
    NFS3ERR_NOT_SYNC = 10002,
    NFS3ERR_NOTSUPP = 10004,
    NFS3ERR_BADTYPE = 10007,
};

enum ftype3 : std::uint32_t {
    NF3NONE = 0,  // none of the known types
    NF3REG = 1,
    NF3DIR = 2,
    NF3BLK = 3,
    NF3CHR = 4,
    NF3LNK = 5,
    NF3SOCK = 6,
    NF3FIFO = 7,
};

// A run of bytes in the input stream's buffer; not a copy.
struct opaque {
    const unsigned char* pBuf = nullptr;
    std::uint32_t iBufLen = 0;
};

struct diropargs3 {
    COpaquePath dir;  // path of the directory
    COpaquePath name;
};

// Bytes 0 to 3: file ID, least significant byte first; bytes 4 to 55: zero.
struct nfs_fh3 {
    unsigned char cHandle[56];
};
static_assert(sizeof(nfs_fh3) == 56);

struct specdata3 {
    std::uint32_t specdata1 = 0;
    std::uint32_t specdata2 = 0;
};

struct nfstime3 {
    std::uint32_t seconds = 0;
    std::uint32_t nseconds = 0;
};

struct sattrguard3 {
    bool check = false;
    nfstime3 obj_ctime;
};

struct fattr3 {
    std::uint32_t type = 0;
    std::uint32_t mode = 0;
    std::uint32_t nlink = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::uint64_t size = 0;  // bytes
    std::uint64_t used = 0;  // bytes
    specdata3 rdev;
    std::uint64_t fsid = 0;
    std::uint64_t fileid = 0;
    nfstime3 atime;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct post_op_attr {
    bool attributes_follow = false;
    fattr3 attributes;
};

struct wcc_attr {
    std::uint64_t size = 0;
    nfstime3 mtime;
    nfstime3 ctime;
};

struct pre_op_attr {
    bool attributes_follow = false;
    wcc_attr attributes;
};

struct wcc_data {
    pre_op_attr before;
    post_op_attr after;
};

struct post_op_fh3 {
    bool handle_follows = false;
    nfs_fh3 handle{};
};

struct set_mode3 {
    bool set_it = false;
    std::uint32_t mode = 0;
};

struct set_uid3 {
    bool set_it = false;
    std::uint32_t uid = 0;
};

struct set_gid3 {
    bool set_it = false;
    std::uint32_t gid = 0;
};

struct set_size3 {
    bool set_it = false;
    std::uint64_t size = 0;
};

// time_how: 0 don't change, 1 the server's time (which arrives as time 0), 2 the client's time.
struct set_atime {
    std::uint32_t set_it = 0;
    nfstime3 atime;
};

struct set_mtime {
    std::uint32_t set_it = 0;
    nfstime3 mtime;
};

struct sattr3 {
    set_mode3 mode;
    set_uid3 uid;
    set_gid3 gid;
    set_size3 size;
    set_atime atime;
    set_mtime mtime;
};

struct createhow3 {
    std::uint32_t mode = 0;  // 0 unchecked, 1 guarded, 2 exclusive
    sattr3 obj_attributes;
    std::uint64_t verf = 0;
};

struct mknoddata3 {
    std::uint32_t type = 0;
    sattr3 dev_attributes;
    specdata3 dev_spec;
    sattr3 pipe_attributes;
};

// Every procedure reads all its arguments first, works on local paths, writes status and body, and
// returns PROG_RESULT_DONE whatever the status.  An object outside every export is an I/O error.
// Before- and after-images of directories are never sent.
//
// Thread safety: as CRpcProg; SetUserID and SetReadOnly are called before serving.
class CNfs3Prog : public CRpcProg {
public:
    explicit CNfs3Prog(CUtilities* pUtilities);

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    std::uint32_t GetVersion() override;
    std::uint32_t GetMaxSupportProc() override;

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

    // === Readers; all throw CDataTruncatedExpt ===

    static void Read(CInputStream* pIn, bool* pValue);  // true exactly when the word is 1
    static void Read(CInputStream* pIn, std::uint32_t* pValue);
    static void Read(CInputStream* pIn, std::uint64_t* pValue);
    static void Read(CInputStream* pIn, nfstime3* pTime);
    static void Read(CInputStream* pIn, opaque* pOpaque);
    // With bSkip the values are passed over and nothing is set.
    static void Read(CInputStream* pIn, sattr3* pAttr, bool bSkip);
    static void Read(CInputStream* pIn, sattrguard3* pGuard);
    // With bSkip the text stays as it is; a text of PATH_SIZE bytes or more is read as empty.
    static void Read(CInputStream* pIn, COpaquePath* pPath, bool bSkip);
    static void Read(CInputStream* pIn, createhow3* pHow);
    static void Read(CInputStream* pIn, mknoddata3* pData, bool bSkip);

    // === Writers; with bLengthOnly only the length word ===

    static void Write(COutputStream* pOut, bool bValue);
    static void Write(COutputStream* pOut, std::uint32_t iValue);
    static void Write(COutputStream* pOut, std::uint64_t iValue);
    static void Write(COutputStream* pOut, const nfstime3& time);
    static void Write(COutputStream* pOut, const specdata3& spec);
    static void Write(COutputStream* pOut, const fattr3& attr);
    static void Write(COutputStream* pOut, const opaque& data, bool bLengthOnly);
    static void Write(COutputStream* pOut, const COpaquePath& path, bool bLengthOnly);
    static void Write(COutputStream* pOut, const nfs_fh3& handle, bool bLengthOnly);
    static void Write(COutputStream* pOut, const post_op_attr& attr);
    static void Write(COutputStream* pOut, const wcc_attr& attr);
    static void Write(COutputStream* pOut, const pre_op_attr& attr);
    static void Write(COutputStream* pOut, const wcc_data& wcc);
    static void Write(COutputStream* pOut, const post_op_fh3& handle);

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
