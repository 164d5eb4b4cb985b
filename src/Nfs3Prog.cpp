#include "Nfs3Prog.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>

#include "InputStream.h"
#include "Nfs3Xdr.h"
#include "OutputStream.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

// What a mode carries both ways: set-user-ID, set-group-ID and the nine permission bits.
constexpr unsigned int MODE_MASK = 0x800 | 0x400 | 0x1FF;

// FSINFO properties (RFC 1813, section 3.3.19).
constexpr std::uint32_t FSF3_HOMOGENEOUS = 0x0008;
constexpr std::uint32_t FSF3_CANSETTIME = 0x0010;

// ACCESS bits that a read-only server takes from the grant: modify, extend, delete, execute.
constexpr std::uint32_t ACCESS3_CHANGE = 0x04 | 0x08 | 0x10 | 0x20;

constexpr std::uint32_t MAX_READ = 65536;   // bytes of one READ
constexpr std::uint32_t MAX_WRITE = 16384;  // bytes of one WRITE
constexpr std::uint32_t TRANSFER_MULTIPLE = 512;
constexpr std::uint32_t PREFERRED_READDIR = 8192;
constexpr std::uint32_t FILE_SYNC = 2;
constexpr int MAX_ENTRIES = 10;  // of one listing reply, whatever size the client allows
constexpr unsigned int DEFAULT_FOLDER_MODE = 0755;

using Procedure = int (CNfs3Prog::*)(CInputStream*, COutputStream*, ProcessParam*);

constexpr Procedure PROCEDURES[] = {
    &CNfs3Prog::ProcedureNULL,         // 0
    &CNfs3Prog::ProcedureGETATTR,      // 1
    &CNfs3Prog::ProcedureSETATTR,      // 2
    &CNfs3Prog::ProcedureLOOKUP,       // 3
    &CNfs3Prog::ProcedureACCESS,       // 4
    &CNfs3Prog::ProcedureREADLINK,     // 5
    &CNfs3Prog::ProcedureREAD,         // 6
    &CNfs3Prog::ProcedureWRITE,        // 7
    &CNfs3Prog::ProcedureCREATE,       // 8
    &CNfs3Prog::ProcedureMKDIR,        // 9
    &CNfs3Prog::ProcedureSYMLINK,      // 10
    &CNfs3Prog::ProcedureMKNOD,        // 11
    &CNfs3Prog::ProcedureREMOVE,       // 12
    &CNfs3Prog::ProcedureRMDIR,        // 13
    &CNfs3Prog::ProcedureRENAME,       // 14
    &CNfs3Prog::ProcedureLINK,         // 15
    &CNfs3Prog::ProcedureREADDIR,      // 16
    &CNfs3Prog::ProcedureREADDIRPLUS,  // 17
    &CNfs3Prog::ProcedureFSSTAT,       // 18
    &CNfs3Prog::ProcedureFSINFO,       // 19
    &CNfs3Prog::ProcedurePATHCONF,     // 20
    &CNfs3Prog::ProcedureCOMMIT,       // 21
};
static_assert(std::size(PROCEDURES) == 22);

// Passes over a handle argument that the procedure does not resolve.
void SkipHandle(CInputStream* pIn) {
    COpaquePath unused;
    CNfs3Xdr::Read(pIn, &unused, true);
}

void SkipDirArgs(CInputStream* pIn) {
    SkipHandle(pIn);
    COpaquePath unused;
    CNfs3Xdr::Read(pIn, &unused, true);
}

bool IsDotName(const char* pcName) {
    return std::strcmp(pcName, ".") == 0 || std::strcmp(pcName, "..") == 0;
}

// The next entry that is neither "." nor "..", or null at the end.
const dirent* NextEntry(DIR* pDir) {
    const dirent* pEntry = readdir(pDir);
    while (pEntry != nullptr && IsDotName(pEntry->d_name)) {
        pEntry = readdir(pDir);
    }
    return pEntry;
}

std::uint32_t FileType(mode_t iMode) {
    switch (iMode & S_IFMT) {
        case S_IFIFO:
            return NF3FIFO;
        case S_IFCHR:
            return NF3CHR;
        case S_IFDIR:
            return NF3DIR;
        case S_IFBLK:
            return NF3BLK;
        case S_IFREG:
            return NF3REG;
        case S_IFLNK:
            return NF3LNK;
        case S_IFSOCK:
            return NF3SOCK;
        default:
            return NF3NONE;
    }
}

}  // namespace

CNfs3Prog::CNfs3Prog(CUtilities* pUtilities)
    : CRpcProg(pUtilities),
      m_iSysUpTime(CUtilities::GetCurrentSystemTimeInMilliseconds()),
      m_iFSF3Properties(FSF3_HOMOGENEOUS | FSF3_CANSETTIME) {}

std::uint32_t CNfs3Prog::GetVersion() const { return 3; }

std::uint32_t CNfs3Prog::GetMaxSupportProc() const { return std::size(PROCEDURES); }

void CNfs3Prog::SetUserID(unsigned int uid, unsigned int gid) {
    m_iUId = uid;
    m_iGId = gid;
}

void CNfs3Prog::SetReadOnly(bool bReadOnly) { m_bReadOnly = bReadOnly; }

int CNfs3Prog::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    const LogArgu logArgu{"Nfs3Prog.Process"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    if (m_pUtilities == nullptr) {
        return PROG_RESULT_NOIMP;
    }
    LogCall(pRuntimeParam, logArgu);
    if (pParam->iProc >= std::size(PROCEDURES)) {
        return ProcedureNOIMP(pIn, pOut, pParam);
    }
    try {
        return (this->*PROCEDURES[pParam->iProc])(pIn, pOut, pParam);
    } catch (...) {
        return GetResultOfException(m_pUtilities, pRuntimeParam, logArgu);
    }
}

void CNfs3Prog::LogCall(CRuntimeParam* pRuntimeParam, const LogArgu& logArgu) {
    if (pRuntimeParam->IsLogProcFuncName()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s]", logArgu.pcName);
    }
}

int CNfs3Prog::End(CRuntimeParam* pRuntimeParam, const LogArgu& logArgu, nfsstat3 stat) {
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] End stat=%d", logArgu.pcName,
                              static_cast<int>(stat));
    }
    return PROG_RESULT_DONE;
}

// =================================================================================================
// Paths and attributes
// =================================================================================================

bool CNfs3Prog::ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                         COpaquePath* pPath) {
    opaque handle;
    CNfs3Xdr::Read(pIn, &handle);
    char cPath[PATH_SIZE];
    // A handle too short for a file ID belongs to nothing.
    if (handle.iBufLen < 4 || !m_pUtilities->GetFilePath(pRuntimeParam, handle.pBuf, cPath,
                                                         static_cast<int>(sizeof(cPath)))) {
        return false;
    }
    pPath->sPath = cPath;
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Path = %s", pLogArgu->pcName, cPath);
    }
    return true;
}

bool CNfs3Prog::ReadPath(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, CInputStream* pIn,
                         diropargs3* pDirArgs, COpaquePath* pPath) {
    if (!ReadPath(pRuntimeParam, pLogArgu, pIn, &pDirArgs->dir)) {
        return false;
    }
    CNfs3Xdr::Read(pIn, &pDirArgs->name, false);
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Read path=%s, name=%s", pLogArgu->pcName,
                              pDirArgs->dir.sPath.c_str(), pDirArgs->name.sPath.c_str());
    }
    char cJoined[PATH_SIZE];
    char cPath[PATH_SIZE];
    AppendFilePath(pDirArgs->dir.sPath.c_str(), pDirArgs->name.sPath.c_str(), cJoined);
    m_pUtilities->GetCanonicalPath(pRuntimeParam, pLogArgu, cPath, cJoined);
    pPath->sPath = cPath;
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Path = %s", pLogArgu->pcName, cPath);
    }
    return true;
}

nfsstat3 CNfs3Prog::CheckProcessParam(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath) {
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    MountInfo mountInfo;
    if (pcPath == nullptr ||
        !m_pUtilities->GetMountInfoByPath(pRuntimeParam, pLogArgu, pcPath, &mountInfo)) {
        if (pRuntimeParam->IsLogError()) {
            m_pUtilities->LogError(pRuntimeParam, "[%s] Path record not found", pLogArgu->pcName);
        }
        return NFS3ERR_IO;
    }
    pRuntimeParam->SetID(mountInfo.sExportName.c_str());
    pRuntimeParam->SetIpcID(mountInfo.sIcpID.c_str());
    return NFS3_OK;
}

nfsstat3 CNfs3Prog::CheckPath(const char* pcPath, bool bMustExist) {
    if (pcPath == nullptr) {
        return NFS3ERR_STALE;
    }
    return bMustExist && !CUtilities::OS_IsFileExists(pcPath) ? NFS3ERR_IO : NFS3_OK;
}

nfsstat3 CNfs3Prog::Check(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath,
                          bool bMustExist) {
    const nfsstat3 stat = CheckProcessParam(pParam, pLogArgu, pcPath);
    return stat == NFS3_OK ? CheckPath(pcPath, bMustExist) : stat;
}

nfsstat3 CNfs3Prog::CheckChange(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath) {
    const nfsstat3 stat = Check(pParam, pLogArgu, pcPath, true);
    if (stat == NFS3ERR_IO) {
        return NFS3ERR_NOENT;
    }
    return m_bReadOnly ? NFS3ERR_ACCES : stat;
}

bool CNfs3Prog::GetNfsFileHandle(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 const char* pcPath, nfs_fh3* pHandle) {
    return pHandle != nullptr &&
           m_pUtilities->GetFileHandle(pRuntimeParam, pLogArgu, pcPath, pHandle->cHandle,
                                       static_cast<int>(sizeof(pHandle->cHandle)));
}

bool CNfs3Prog::GetNfsFileAttributes(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                     const char* pcPath, fattr3* pAttr) {
    struct stat data {};
    if (m_pUtilities->OS_GetFileStat(pRuntimeParam, pLogArgu, pcPath, &data, nullptr) == -1) {
        return false;
    }
    pAttr->type = FileType(data.st_mode);
    const bool bDevice = pAttr->type == NF3CHR || pAttr->type == NF3BLK;
    const auto iDevice = static_cast<std::uint32_t>(bDevice ? data.st_rdev : data.st_dev);
    pAttr->rdev.specdata1 = iDevice >> 8 & 0xFF;
    pAttr->rdev.specdata2 = iDevice & ~0xFF00U;
    pAttr->mode = ConvertFileModeToNfsFileMode(data.st_mode);
    pAttr->nlink = static_cast<std::uint32_t>(data.st_nlink);
    pAttr->uid = data.st_uid;
    pAttr->gid = data.st_gid;
    pAttr->fsid = static_cast<std::uint32_t>(CUtilities::GetFileSystemID(pcPath));
    pAttr->size = static_cast<std::uint64_t>(data.st_size);
    if (pAttr->type == NF3REG) {
        pAttr->size = static_cast<std::uint64_t>(
            m_pUtilities->GetFileSize(pRuntimeParam, pLogArgu, pcPath, data.st_size));
    }
    pAttr->used = pAttr->size;
    // The inode number, not the file ID that listings report.
    pAttr->fileid = static_cast<std::uint32_t>(data.st_ino);
    pAttr->atime = {static_cast<std::uint32_t>(data.st_atime), 0};
    pAttr->mtime = {static_cast<std::uint32_t>(data.st_mtime), 0};
    pAttr->ctime = {static_cast<std::uint32_t>(data.st_ctime), 0};
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(
            pRuntimeParam,
            "[%s] Path=%s, type=%u, mode=%x, nlink=%u, uid=%u, gid=%u, size=%lld, used=%lld, "
            "rdev.1=%u, rdev.2=%u, fsid=%llu, atime.s=%u, atime.ns=%u, mtime.s=%u, mtime.ns=%u, "
            "ctime.s=%u, ctime.ns=%u",
            pLogArgu->pcName, pcPath, pAttr->type, pAttr->mode, pAttr->nlink, pAttr->uid,
            pAttr->gid, static_cast<long long>(pAttr->size), static_cast<long long>(pAttr->used),
            pAttr->rdev.specdata1, pAttr->rdev.specdata2,
            static_cast<unsigned long long>(pAttr->fsid), pAttr->atime.seconds,
            pAttr->atime.nseconds, pAttr->mtime.seconds, pAttr->mtime.nseconds,
            pAttr->ctime.seconds, pAttr->ctime.nseconds);
    }
    return true;
}

bool CNfs3Prog::GetNfsFileAttributes(const char* /*pcPath*/, wcc_attr* /*pAttr*/) { return false; }

post_op_attr CNfs3Prog::GetPostOpAttr(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                      const char* pcPath) {
    post_op_attr attr;
    attr.attributes_follow =
        GetNfsFileAttributes(pRuntimeParam, pLogArgu, pcPath, &attr.attributes);
    return attr;
}

unsigned int CNfs3Prog::ConvertNfsFileModeToFileMode(unsigned int iMode) {
    return iMode & MODE_MASK;
}

unsigned int CNfs3Prog::ConvertFileModeToNfsFileMode(unsigned int iMode) {
    return iMode & MODE_MASK;
}

bool CNfs3Prog::AppendFilePath(const char* pcDir, const char* pcName, char* pcOut) {
    if (pcDir == nullptr || pcName == nullptr || pcOut == nullptr) {
        return false;
    }
    const int iLen = std::snprintf(pcOut, PATH_SIZE, "%s%c%s", pcDir, '/', pcName);
    if (iLen < 0 || static_cast<std::size_t>(iLen) >= PATH_SIZE) {
        *pcOut = '\0';  // a cut path would be another file's
        return false;
    }
    return true;
}

bool CNfs3Prog::IsInVaildDirName(const char* pcName) {
    return pcName == nullptr || IsDotName(pcName);
}

bool CNfs3Prog::Update(ProcessParam* pParam, LogArgu* pLogArgu, const char* pcPath,
                       const sattr3& attr) {
    return m_pUtilities->UpdateFileAttributes(
        pParam->pRuntimeParam, pLogArgu, pcPath, attr.mode.set_it, attr.mode.mode, attr.uid.set_it,
        attr.uid.uid, attr.gid.set_it, attr.gid.gid, attr.size.set_it, attr.size.size,
        attr.atime.set_it != 0, attr.atime.atime.seconds, attr.atime.atime.nseconds,
        attr.mtime.set_it != 0, attr.mtime.mtime.seconds, attr.mtime.mtime.nseconds);
}

// =================================================================================================
// Attributes and data
// =================================================================================================

// void NULL(void)
int CNfs3Prog::ProcedureNULL(CInputStream* /*pIn*/, COutputStream* /*pOut*/, ProcessParam* pParam) {
    LogCall(pParam->pRuntimeParam, {"Nfs3Prog.ProcedureNULL"});
    return PROG_RESULT_DONE;
}

int CNfs3Prog::ProcedureNOIMP(CInputStream* /*pIn*/, COutputStream* /*pOut*/,
                              ProcessParam* pParam) {
    LogCall(pParam->pRuntimeParam, {"Nfs3Prog.ProcedureNOIMP"});
    return PROG_RESULT_NOIMP;
}

// GETATTR(object) -> attributes
int CNfs3Prog::ProcedureGETATTR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureGETATTR"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    COpaquePath path;
    ReadPath(pRuntimeParam, &logArgu, pIn, &path);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, true);
    fattr3 attr;
    if (stat == NFS3_OK && !GetNfsFileAttributes(pRuntimeParam, &logArgu, pcPath, &attr)) {
        stat = NFS3ERR_IO;
    }
    CNfs3Xdr::Write(pOut, stat);
    if (stat == NFS3_OK) {
        CNfs3Xdr::Write(pOut, attr);
    }
    return End(pRuntimeParam, logArgu, stat);
}

// SETATTR(object, new_attributes, guard) -> obj_wcc.  Not refused by a read-only server.  The guard
// is held against a before-image that is never filled: it passes only for a ctime of 0 seconds.
int CNfs3Prog::ProcedureSETATTR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureSETATTR"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    COpaquePath path;
    sattr3 attr;
    sattrguard3 guard;
    ReadPath(pRuntimeParam, &logArgu, pIn, &path);
    CNfs3Xdr::Read(pIn, &attr, false);
    CNfs3Xdr::Read(pIn, &guard);
    const char* pcPath = path.sPath.c_str();
    const bool bLog = pRuntimeParam->IsLogProcFuncArgu();
    if (bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Guard check: %d, time: %lld", logArgu.pcName,
                              guard.check, static_cast<long long>(guard.obj_ctime.seconds));
    }

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, true);
    wcc_attr before;
    GetNfsFileAttributes(pcPath, &before);
    if (stat == NFS3_OK && guard.check && guard.obj_ctime.seconds != before.ctime.seconds) {
        stat = NFS3ERR_NOT_SYNC;
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam,
                                  "[%s] Guard check fail, client: %lld, server: %lld",
                                  logArgu.pcName, static_cast<long long>(guard.obj_ctime.seconds),
                                  static_cast<long long>(before.ctime.seconds));
        }
    }
    if (stat == NFS3_OK && (m_iFSF3Properties & FSF3_CANSETTIME) == 0 &&
        (attr.atime.set_it != 0 || attr.mtime.set_it != 0)) {
        stat = NFS3ERR_INVAL;
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Server don't allow settime", logArgu.pcName);
        }
    }
    if (stat == NFS3_OK && !Update(pParam, &logArgu, pcPath, attr)) {
        stat = NFS3ERR_INVAL;
        if (pRuntimeParam->IsLogError()) {
            m_pUtilities->LogError(pRuntimeParam, "[%s] Update file attribute to %s fail",
                                   logArgu.pcName, pcPath);
        }
    }
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, wcc_data{});
    return End(pRuntimeParam, logArgu, stat);
}

// LOOKUP(dir, name) -> object, obj_attributes, dir_attributes.  "." and ".." are resolved as in any
// path.  What does not exist, or lies outside every export, is "no such entry".
int CNfs3Prog::ProcedureLOOKUP(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureLOOKUP"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    diropargs3 dirArgs;
    COpaquePath path;
    ReadPath(pRuntimeParam, &logArgu, pIn, &dirArgs, &path);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, true);
    if (stat == NFS3ERR_IO) {
        stat = NFS3ERR_NOENT;
    }
    CNfs3Xdr::Write(pOut, stat);
    if (stat == NFS3_OK) {
        nfs_fh3 handle{};
        GetNfsFileHandle(pRuntimeParam, &logArgu, pcPath, &handle);
        CNfs3Xdr::Write(pOut, handle, false);
        CNfs3Xdr::Write(pOut, GetPostOpAttr(pRuntimeParam, &logArgu, pcPath));
    }
    CNfs3Xdr::Write(pOut, post_op_attr{});
    return End(pRuntimeParam, logArgu, stat);
}

// ACCESS(object, access) -> obj_attributes, access.  Every requested right is granted, except those
// to change (and to execute) on a read-only server.
int CNfs3Prog::ProcedureACCESS(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureACCESS"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    COpaquePath path;
    std::uint32_t iAccess = 0;
    ReadPath(pRuntimeParam, &logArgu, pIn, &path);
    CNfs3Xdr::Read(pIn, &iAccess);
    const char* pcPath = path.sPath.c_str();

    const nfsstat3 stat = Check(pParam, &logArgu, pcPath, true);
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Readonly: %d, access: %x", logArgu.pcName,
                              m_bReadOnly, iAccess);
    }
    CNfs3Xdr::Write(pOut, stat);
    if (stat == NFS3_OK) {
        CNfs3Xdr::Write(pOut, GetPostOpAttr(pRuntimeParam, &logArgu, pcPath));
        CNfs3Xdr::Write(pOut, m_bReadOnly ? iAccess & ~ACCESS3_CHANGE : iAccess);
    } else {
        CNfs3Xdr::Write(pOut, post_op_attr{});
    }
    return End(pRuntimeParam, logArgu, stat);
}

// READLINK(symlink) -> symlink_attributes, data.  Not served: the handle is not resolved, so that
// the empty path is outside every export.
int CNfs3Prog::ProcedureREADLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureREADLINK"};
    LogCall(pParam->pRuntimeParam, logArgu);
    SkipHandle(pIn);
    const nfsstat3 stat = CheckProcessParam(pParam, &logArgu, "");
    CNfs3Xdr::Write(pOut, stat);
    if (stat == NFS3_OK) {
        CNfs3Xdr::Write(pOut, opaque{}, false);
    }
    CNfs3Xdr::Write(pOut, post_op_attr{});
    return End(pParam->pRuntimeParam, logArgu, stat);
}

// READ(file, offset, count) -> file_attributes, count, eof, data.  The file is read straight into
// the reply behind placeholders, which are rewritten once the count is known.
int CNfs3Prog::ProcedureREAD(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureREAD"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    COpaquePath path;
    std::uint64_t iOffset = 0;
    std::uint32_t iCount = 0;
    ReadPath(pRuntimeParam, &logArgu, pIn, &path);
    CNfs3Xdr::Read(pIn, &iOffset);
    CNfs3Xdr::Read(pIn, &iCount);
    const char* pcPath = path.sPath.c_str();
    const bool bLog = pRuntimeParam->IsLogProcFuncArgu();
    const auto iLogOffset = static_cast<unsigned long long>(iOffset);

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, true);
    std::uint32_t iRead = 0;
    bool bEof = true;
    const auto writeBody = [&] {
        CNfs3Xdr::Write(pOut, post_op_attr{});
        CNfs3Xdr::Write(pOut, iRead);
        CNfs3Xdr::Write(pOut, bEof);
        CNfs3Xdr::Write(pOut, iRead);  // length of the data
    };

    const std::uint32_t iStatus = pOut->GetBufferIndex();
    CNfs3Xdr::Write(pOut, stat);
    const std::uint32_t iBody = pOut->GetBufferIndex();
    if (stat == NFS3_OK) {
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Offset=%llu, length=%u", logArgu.pcName,
                                  iLogOffset, iCount);
        }
        writeBody();
        if (pOut->GetFreeBufferSize() < iCount) {
            stat = NFS3ERR_INVAL;
            m_pUtilities->LogError(
                pRuntimeParam,
                "[%s] Count bigger than free buffer (path=%s, offset=%llu length=%u)",
                logArgu.pcName, pcPath, iLogOffset, iCount);
        } else if (iCount > 0) {
            const int iResult =
                m_pUtilities->ReadFile(pRuntimeParam, &logArgu, pcPath, iOffset, SEEK_SET,
                                       pOut->GetCurrentBuffer(), std::min(iCount, MAX_READ), &bEof);
            if (iResult < 0) {
                stat = NFS3ERR_INVAL;
                m_pUtilities->LogError(pRuntimeParam,
                                       "[%s] Read return -1 (path=%s, offset=%llu length=%u)",
                                       logArgu.pcName, pcPath, iLogOffset, iCount);
            } else {
                iRead = static_cast<std::uint32_t>(iResult);
            }
        }
        if (stat != NFS3_OK) {
            // A host that cannot read its disk is told of in every log, whatever its control.
            m_pUtilities->LogError(pRuntimeParam, "[%s] Read fail", logArgu.pcName);
            pOut->Seek(iStatus, 0);
            CNfs3Xdr::Write(pOut, stat);
        }
    }
    if (stat != NFS3_OK) {
        CNfs3Xdr::Write(pOut, post_op_attr{});
        return End(pRuntimeParam, logArgu, stat);
    }
    if (bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Read=%u (eof=%s)", logArgu.pcName, iRead,
                              bEof ? "T" : "F");
    }
    pOut->Write(nullptr, iRead);  // already in place
    pOut->WriteRemainOpaque(iRead);
    const std::uint32_t iEnd = pOut->GetBufferIndex();
    pOut->Seek(iBody, 0);
    writeBody();
    pOut->Seek(iEnd, 0);
    return End(pRuntimeParam, logArgu, stat);
}

// WRITE(file, offset, count, stable, data) -> file_wcc, count, committed, verf.  Answers the bytes
// really written, at most MAX_WRITE: clients send the rest again.
int CNfs3Prog::ProcedureWRITE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureWRITE"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    COpaquePath path;
    std::uint64_t iOffset = 0;
    std::uint32_t iCount = 0;
    std::uint32_t iStable = 0;
    opaque data;
    ReadPath(pRuntimeParam, &logArgu, pIn, &path);
    CNfs3Xdr::Read(pIn, &iOffset);
    CNfs3Xdr::Read(pIn, &iCount);
    CNfs3Xdr::Read(pIn, &iStable);
    CNfs3Xdr::Read(pIn, &data);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, true);
    if (m_bReadOnly) {
        stat = NFS3ERR_ACCES;
    }
    std::uint32_t iWritten = 0;
    if (stat == NFS3_OK) {
        if (pRuntimeParam->IsLogProcFuncArgu()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Offset=%llu, length=%u, count=%u",
                                  logArgu.pcName, static_cast<unsigned long long>(iOffset),
                                  data.iBufLen, iCount);
        }
        const std::uint64_t iMaxSize = CUtilities::GetMaxFileSize(pcPath);
        if (iOffset > iMaxSize || iCount > iMaxSize - iOffset) {
            stat = NFS3ERR_FBIG;
        } else if (iCount > 0) {
            // The count decides, but never beyond the bytes that came.
            const std::uint32_t iLen = std::min({iCount, MAX_WRITE, data.iBufLen});
            const int iResult = m_pUtilities->WriteFile(pRuntimeParam, &logArgu, pcPath, iOffset,
                                                        SEEK_SET, data.pBuf, iLen);
            if (iResult < 0) {
                stat = NFS3ERR_INVAL;
            } else {
                iWritten = static_cast<std::uint32_t>(iResult);
            }
        }
    }
    if (stat != NFS3_OK) {
        if (pRuntimeParam->IsLogError()) {
            m_pUtilities->LogError(pRuntimeParam, "[%s] Write fail", logArgu.pcName);
        }
    } else if (pRuntimeParam->IsLogProcFuncArgu()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Write=%u", logArgu.pcName, iWritten);
    }
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, wcc_data{});
    if (stat == NFS3_OK) {
        CNfs3Xdr::Write(pOut, iWritten);
        CNfs3Xdr::Write(pOut, FILE_SYNC);
        CNfs3Xdr::Write(pOut, m_iSysUpTime);
    }
    return End(pRuntimeParam, logArgu, stat);
}

// FSSTAT(fsroot) -> obj_attributes, tbytes, fbytes, abytes, tfiles, ffiles, afiles, invarsec
int CNfs3Prog::ProcedureFSSTAT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureFSSTAT"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    COpaquePath path;
    ReadPath(pRuntimeParam, &logArgu, pIn, &path);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, true);
    post_op_attr attr;
    if (stat == NFS3_OK) {
        attr = GetPostOpAttr(pRuntimeParam, &logArgu, pcPath);
        stat = attr.attributes_follow ? NFS3_OK : NFS3ERR_IO;
    }
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, attr);
    if (stat == NFS3_OK) {
        pOut->Write8(CUtilities::GetTotalDiskSpace(pcPath));
        pOut->Write8(CUtilities::GetFreeDiskSpace(pcPath));
        pOut->Write8(CUtilities::GetFreeDiskSpaceAvailableToCaller(pcPath));
        pOut->Write8(CUtilities::GetTotalFileSlots(pcPath));
        pOut->Write8(CUtilities::GetFreeFileSlots(pcPath));
        pOut->Write8(CUtilities::GetFreeFileSlotsAvailableToCaller(pcPath));
        pOut->Write(0U);  // invarsec
    }
    return End(pRuntimeParam, logArgu, stat);
}

// FSINFO(fsroot) -> obj_attributes, the sizes of transfers, maxfilesize, time_delta, properties
int CNfs3Prog::ProcedureFSINFO(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureFSINFO"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    COpaquePath path;
    ReadPath(pRuntimeParam, &logArgu, pIn, &path);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, true);
    post_op_attr attr;
    if (stat == NFS3_OK) {
        attr = GetPostOpAttr(pRuntimeParam, &logArgu, pcPath);
        stat = attr.attributes_follow ? NFS3_OK : NFS3ERR_IO;
    }
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, attr);
    if (stat == NFS3_OK) {
        CNfs3Xdr::Write(pOut, MAX_READ);           // rtmax
        CNfs3Xdr::Write(pOut, MAX_READ);           // rtpref
        CNfs3Xdr::Write(pOut, TRANSFER_MULTIPLE);  // rtmult
        CNfs3Xdr::Write(pOut, MAX_WRITE);          // wtmax
        CNfs3Xdr::Write(pOut, MAX_WRITE);          // wtpref
        CNfs3Xdr::Write(pOut, TRANSFER_MULTIPLE);  // wtmult
        CNfs3Xdr::Write(pOut, PREFERRED_READDIR);  // dtpref
        pOut->Write8(CUtilities::GetMaxFileSize(pcPath));
        CNfs3Xdr::Write(pOut, nfstime3{1, 0});  // time_delta
        CNfs3Xdr::Write(pOut, m_iFSF3Properties);
    }
    return End(pRuntimeParam, logArgu, stat);
}

// PATHCONF(object) -> obj_attributes, limits.  Not served, as READLINK.
int CNfs3Prog::ProcedurePATHCONF(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedurePATHCONF"};
    LogCall(pParam->pRuntimeParam, logArgu);
    SkipHandle(pIn);
    const nfsstat3 stat = CheckProcessParam(pParam, &logArgu, "");
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, post_op_attr{});
    if (stat == NFS3_OK) {
        CNfs3Xdr::Write(pOut, 0U);     // linkmax
        CNfs3Xdr::Write(pOut, 255U);   // name_max
        CNfs3Xdr::Write(pOut, false);  // no_trunc
        CNfs3Xdr::Write(pOut, true);   // chown_restricted
        CNfs3Xdr::Write(pOut, true);   // case_insensitive
        CNfs3Xdr::Write(pOut, true);   // case_preserving
    }
    return End(pParam->pRuntimeParam, logArgu, stat);
}

// COMMIT(file, offset, count) -> file_wcc, verf.  Not served, as READLINK: every WRITE is already
// FILE_SYNC.
int CNfs3Prog::ProcedureCOMMIT(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureCOMMIT"};
    LogCall(pParam->pRuntimeParam, logArgu);
    SkipHandle(pIn);
    pIn->Skip(8);  // offset
    pIn->Skip(4);  // count
    const nfsstat3 stat = CheckProcessParam(pParam, &logArgu, "");
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, wcc_data{});
    if (stat == NFS3_OK) {
        pOut->Write8(0);
    }
    return End(pParam->pRuntimeParam, logArgu, stat);
}

// =================================================================================================
// Directories and names
// =================================================================================================

// The results of CREATE and MKDIR: obj, obj_attributes, dir_wcc.
void CNfs3Prog::WriteNewObject(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, COutputStream* pOut,
                               nfsstat3 stat, const char* pcPath) {
    CNfs3Xdr::Write(pOut, stat);
    if (stat == NFS3_OK) {
        post_op_fh3 handle;
        handle.handle_follows = GetNfsFileHandle(pRuntimeParam, pLogArgu, pcPath, &handle.handle);
        CNfs3Xdr::Write(pOut, handle);
        CNfs3Xdr::Write(pOut, GetPostOpAttr(pRuntimeParam, pLogArgu, pcPath));
    }
    CNfs3Xdr::Write(pOut, wcc_data{});
}

// CREATE(where, how) -> obj, obj_attributes, dir_wcc.  The verifier of an exclusive create is read
// and not kept.
int CNfs3Prog::ProcedureCREATE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureCREATE"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    diropargs3 where;
    COpaquePath path;
    createhow3 how;
    ReadPath(pRuntimeParam, &logArgu, pIn, &where, &path);
    CNfs3Xdr::Read(pIn, &how);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, false);
    if (m_bReadOnly) {
        stat = NFS3ERR_ACCES;
    }
    if (stat == NFS3_OK) {
        const bool bLog = pRuntimeParam->IsLogProcFuncArgu();
        const bool bExists = CUtilities::OS_IsFileExists(pcPath);
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Mode: %d, Is file exist before create: %d",
                                  logArgu.pcName, static_cast<int>(how.mode), bExists);
        }
        if (how.mode > CREATE_EXCLUSIVE) {
            stat = NFS3ERR_IO;
        } else if (how.mode == CREATE_GUARDED && bExists) {
            stat = NFS3ERR_EXIST;
        } else if (!m_pUtilities->NewFile(pRuntimeParam, &logArgu, pcPath) ||
                   !Update(pParam, &logArgu, pcPath, how.obj_attributes)) {
            stat = NFS3ERR_IO;
        }
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Is file exist after create: %d",
                                  logArgu.pcName, CUtilities::OS_IsFileExists(pcPath));
        }
    }
    WriteNewObject(pRuntimeParam, &logArgu, pOut, stat, pcPath);
    return End(pRuntimeParam, logArgu, stat);
}

// MKDIR(where, attributes) -> obj, obj_attributes, dir_wcc.  Of the attributes only the mode
// counts.
int CNfs3Prog::ProcedureMKDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureMKDIR"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    diropargs3 where;
    COpaquePath path;
    sattr3 attr;
    ReadPath(pRuntimeParam, &logArgu, pIn, &where, &path);
    CNfs3Xdr::Read(pIn, &attr, false);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = Check(pParam, &logArgu, pcPath, false);
    if (m_bReadOnly) {
        stat = NFS3ERR_ACCES;
    }
    if (stat == NFS3_OK) {
        const unsigned int iMode = attr.mode.set_it ? attr.mode.mode : DEFAULT_FOLDER_MODE;
        if (m_pUtilities->OS_FolderCreate(pRuntimeParam, &logArgu, pcPath, static_cast<int>(iMode),
                                          nullptr) == -1) {
            stat = NFS3ERR_IO;
        }
    }
    WriteNewObject(pRuntimeParam, &logArgu, pOut, stat, pcPath);
    return End(pRuntimeParam, logArgu, stat);
}

// SYMLINK(where, symlink) -> obj, obj_attributes, dir_wcc.  Not served, as READLINK.
int CNfs3Prog::ProcedureSYMLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureSYMLINK"};
    LogCall(pParam->pRuntimeParam, logArgu);
    sattr3 attr;
    opaque target;
    SkipDirArgs(pIn);
    CNfs3Xdr::Read(pIn, &attr, true);
    CNfs3Xdr::Read(pIn, &target);
    const nfsstat3 stat = CheckProcessParam(pParam, &logArgu, "");
    CNfs3Xdr::Write(pOut, stat);
    if (stat == NFS3_OK) {
        CNfs3Xdr::Write(pOut, post_op_fh3{});
        CNfs3Xdr::Write(pOut, post_op_attr{});
    }
    CNfs3Xdr::Write(pOut, wcc_data{});
    return End(pParam->pRuntimeParam, logArgu, stat);
}

// MKNOD(where, what) -> obj, obj_attributes, dir_wcc.  Not served; the status tells which types
// could be served elsewhere.
int CNfs3Prog::ProcedureMKNOD(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureMKNOD"};
    LogCall(pParam->pRuntimeParam, logArgu);
    mknoddata3 what;
    SkipDirArgs(pIn);
    CNfs3Xdr::Read(pIn, &what, true);
    CheckProcessParam(pParam, &logArgu, "");
    const bool bNode =
        what.type == NF3BLK || what.type == NF3CHR || what.type == NF3SOCK || what.type == NF3FIFO;
    const nfsstat3 stat = bNode ? NFS3ERR_NOTSUPP : NFS3ERR_BADTYPE;
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, wcc_data{});
    return End(pParam->pRuntimeParam, logArgu, stat);
}

// REMOVE(object) -> dir_wcc
int CNfs3Prog::ProcedureREMOVE(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureREMOVE"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    diropargs3 object;
    COpaquePath path;
    ReadPath(pRuntimeParam, &logArgu, pIn, &object, &path);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = CheckChange(pParam, &logArgu, pcPath);
    if (stat == NFS3_OK && !m_pUtilities->RemoveFile(pRuntimeParam, &logArgu, pcPath)) {
        stat = NFS3ERR_IO;
    }
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, wcc_data{});
    return End(pRuntimeParam, logArgu, stat);
}

// RMDIR(object) -> dir_wcc.  Whether it is an empty directory is the file system's question.
int CNfs3Prog::ProcedureRMDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureRMDIR"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    diropargs3 object;
    COpaquePath path;
    ReadPath(pRuntimeParam, &logArgu, pIn, &object, &path);
    const char* pcPath = path.sPath.c_str();

    nfsstat3 stat = CheckChange(pParam, &logArgu, pcPath);
    if (stat == NFS3_OK &&
        m_pUtilities->OS_FolderRemove(pRuntimeParam, &logArgu, pcPath, nullptr) == -1) {
        stat = NFS3ERR_IO;
    }
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, wcc_data{});
    return End(pRuntimeParam, logArgu, stat);
}

// RENAME(from, to) -> fromdir_wcc, todir_wcc.  The target is not held against the exports.
int CNfs3Prog::ProcedureRENAME(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureRENAME"};
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, logArgu);
    diropargs3 from;
    diropargs3 to;
    COpaquePath pathFrom;
    COpaquePath pathTo;
    ReadPath(pRuntimeParam, &logArgu, pIn, &from, &pathFrom);
    ReadPath(pRuntimeParam, &logArgu, pIn, &to, &pathTo);

    nfsstat3 stat = CheckChange(pParam, &logArgu, pathFrom.sPath.c_str());
    if (stat == NFS3_OK) {
        stat = CheckPath(pathTo.sPath.c_str(), false);
    }
    if (stat == NFS3_OK &&
        !m_pUtilities->RenameFile(pRuntimeParam, &logArgu, pathFrom.sPath.c_str(),
                                  pathTo.sPath.c_str())) {
        stat = NFS3ERR_IO;
    }
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, wcc_data{});
    CNfs3Xdr::Write(pOut, wcc_data{});
    return End(pRuntimeParam, logArgu, stat);
}

// LINK(file, link) -> file_attributes, linkdir_wcc.  Not served, as READLINK.
int CNfs3Prog::ProcedureLINK(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureLINK"};
    LogCall(pParam->pRuntimeParam, logArgu);
    SkipHandle(pIn);
    SkipDirArgs(pIn);
    const nfsstat3 stat = CheckProcessParam(pParam, &logArgu, "");
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, post_op_attr{});
    CNfs3Xdr::Write(pOut, wcc_data{});
    return End(pParam->pRuntimeParam, logArgu, stat);
}

// READDIR(dir, cookie, cookieverf, count) -> dir_attributes, cookieverf, entries, eof.  The size
// hint bounds nothing; the verifier is echoed and never tested.
int CNfs3Prog::ProcedureREADDIR(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureREADDIR"};
    return ReadDirectory(pIn, pOut, pParam, &logArgu, false);
}

// READDIRPLUS(dir, cookie, cookieverf, dircount, maxcount) -> as READDIR, with name_attributes and
// name_handle behind each entry.
int CNfs3Prog::ProcedureREADDIRPLUS(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    LogArgu logArgu{"Nfs3Prog.ProcedureREADDIRPLUS"};
    return ReadDirectory(pIn, pOut, pParam, &logArgu, true);
}

int CNfs3Prog::ReadDirectory(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam,
                             LogArgu* pLogArgu, bool bPlus) {
    CRuntimeParam* pRuntimeParam = pParam->pRuntimeParam;
    LogCall(pRuntimeParam, *pLogArgu);
    COpaquePath path;
    std::uint64_t iCookie = 0;
    std::uint64_t iCookieVerf = 0;
    std::uint32_t iCount = 0;
    std::uint32_t iMaxCount = 0;
    ReadPath(pRuntimeParam, pLogArgu, pIn, &path);
    CNfs3Xdr::Read(pIn, &iCookie);
    CNfs3Xdr::Read(pIn, &iCookieVerf);
    CNfs3Xdr::Read(pIn, &iCount);
    if (bPlus) {
        CNfs3Xdr::Read(pIn, &iMaxCount);
    }
    const char* pcPath = path.sPath.c_str();
    if (pRuntimeParam->IsLogProcFuncArgu()) {
        const auto iLogCookie = static_cast<unsigned long long>(iCookie);
        const auto iLogVerf = static_cast<unsigned long long>(iCookieVerf);
        if (bPlus) {
            m_pUtilities->LogInfo(pRuntimeParam,
                                  "[%s] Cookie=%llu, cookieverf=%llu, dircount=%u, maxcount=%u",
                                  pLogArgu->pcName, iLogCookie, iLogVerf, iCount, iMaxCount);
        } else {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Cookie=%llu, cookieverf=%llu, count=%u",
                                  pLogArgu->pcName, iLogCookie, iLogVerf, iCount);
        }
    }

    nfsstat3 stat = Check(pParam, pLogArgu, pcPath, true);
    post_op_attr attr;
    if (stat == NFS3_OK) {
        attr = GetPostOpAttr(pRuntimeParam, pLogArgu, pcPath);
        stat = attr.attributes_follow ? NFS3_OK : NFS3ERR_IO;
    }
    CNfs3Xdr::Write(pOut, stat);
    CNfs3Xdr::Write(pOut, attr);
    if (stat == NFS3_OK) {
        CNfs3Xdr::Write(pOut, iCookieVerf);
        const bool bEof = WriteEntries(pRuntimeParam, pLogArgu, pOut, pcPath, iCookie, bPlus);
        CNfs3Xdr::Write(pOut, false);  // no entry follows
        CNfs3Xdr::Write(pOut, bEof);
    }
    return End(pRuntimeParam, *pLogArgu, stat);
}

bool CNfs3Prog::WriteEntries(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, COutputStream* pOut,
                             const char* pcDir, std::uint64_t iCookie, bool bPlus) {
    struct CloseDir {
        void operator()(DIR* pDir) const { closedir(pDir); }
    };
    const std::unique_ptr<DIR, CloseDir> pDir(opendir(pcDir));
    if (pDir == nullptr) {
        return true;
    }
    // The cookie is the number of entries already returned, of which the low 32 bits count.
    for (auto n = static_cast<std::int32_t>(iCookie); n >= 1; --n) {
        if (NextEntry(pDir.get()) == nullptr) {
            return true;
        }
    }
    for (int i = 0; i < MAX_ENTRIES; ++i) {
        const dirent* pEntry = NextEntry(pDir.get());
        if (pEntry == nullptr) {
            return true;
        }
        char cPath[PATH_SIZE];
        // A path that does not fit has no ID of its own, and nothing can be said of what lies
        // there.
        const bool bFits = AppendFilePath(pcDir, pEntry->d_name, cPath);
        CNfs3Xdr::Write(pOut, true);
        CNfs3Xdr::Write(
            pOut, std::uint64_t{bFits ? m_pUtilities->GetFileID(pRuntimeParam, pLogArgu, cPath)
                                      : static_cast<std::uint32_t>(pEntry->d_ino)});
        CNfs3Xdr::Write(pOut, COpaquePath{pEntry->d_name}, false);
        ++iCookie;
        CNfs3Xdr::Write(pOut, iCookie);
        if (pRuntimeParam->IsLogProcFuncArgu()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Cookie=%llu, name=%s", pLogArgu->pcName,
                                  static_cast<unsigned long long>(iCookie), pEntry->d_name);
        }
        if (bPlus) {
            post_op_attr attr;
            post_op_fh3 handle;
            if (bFits) {
                attr = GetPostOpAttr(pRuntimeParam, pLogArgu, cPath);
                handle.handle_follows =
                    GetNfsFileHandle(pRuntimeParam, pLogArgu, cPath, &handle.handle);
            }
            CNfs3Xdr::Write(pOut, attr);
            CNfs3Xdr::Write(pOut, handle);
        }
    }
    return false;
}
