#include "Nfs3Call.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "InputStream.h"
#include "RpcProg.h"

namespace {

// The part of a mode that is carried, both ways.
constexpr unsigned int MODE_MASK = 0x800 | 0x400 | 0x1FF;

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

// =================================================================================================
// Arguments
// =================================================================================================

COpaquePath CNfs3Call::ReadHandle() {
    COpaquePath path;
    ReadPath(&path);
    return path;
}

COpaquePath CNfs3Call::ReadDirAndName() {
    diropargs3 dirArgs;
    COpaquePath path;
    ReadPath(&dirArgs, &path);
    return path;
}

void CNfs3Call::SkipHandle() { Skip<COpaquePath>(); }

void CNfs3Call::SkipDirAndName() {
    SkipHandle();
    Skip<COpaquePath>();
}

bool CNfs3Call::ReadPath(COpaquePath* pPath) {
    const auto handle = Read<opaque>();
    char cPath[PATH_SIZE];
    // A handle too short for a file ID belongs to nothing.
    if (handle.iBufLen < sizeof(std::uint32_t) ||
        !GetUtilities()->GetFilePath(GetRuntimeParam(), handle.pBuf, cPath,
                                     static_cast<int>(sizeof(cPath)))) {
        return false;
    }
    pPath->sPath = cPath;
    Trace("[%s] Path = %s", GetLabel(), cPath);
    return true;
}

bool CNfs3Call::ReadPath(diropargs3* pDirArgs, COpaquePath* pPath) {
    if (!ReadPath(&pDirArgs->dir)) {
        return false;
    }
    CNfs3Xdr::Read(GetIn(), &pDirArgs->name);
    Trace("[%s] Read path=%s, name=%s", GetLabel(), pDirArgs->dir.c_str(), pDirArgs->name.c_str());
    char cJoined[PATH_SIZE];
    char cPath[PATH_SIZE];
    AppendFilePath(pDirArgs->dir.c_str(), pDirArgs->name.c_str(), cJoined);
    GetUtilities()->GetCanonicalPath(GetRuntimeParam(), GetLogArgu(), cPath, cJoined);
    pPath->sPath = cPath;
    Trace("[%s] Path = %s", GetLabel(), cPath);
    return true;
}

// =================================================================================================
// Checks
// =================================================================================================

nfsstat3 CNfs3Call::CheckProcessParam(const char* pcPath) {
    MountInfo mountInfo;
    if (pcPath == nullptr ||
        !GetUtilities()->GetMountInfoByPath(GetRuntimeParam(), GetLogArgu(), pcPath, &mountInfo)) {
        LogError(LOG_CONTROL_ERROR, "[%s] Path record not found", GetLabel());
        return NFS3ERR_IO;
    }
    GetRuntimeParam()->SetID(mountInfo.sExportName.c_str());
    GetRuntimeParam()->SetIpcID(mountInfo.sIcpID.c_str());
    return NFS3_OK;
}

nfsstat3 CNfs3Call::CheckPath(const char* pcPath, bool bMustExist) {
    if (pcPath == nullptr) {
        return NFS3ERR_STALE;
    }
    return bMustExist && !CUtilities::OS_IsFileExists(pcPath) ? NFS3ERR_IO : NFS3_OK;
}

nfsstat3 CNfs3Call::Check(const char* pcPath) {
    const nfsstat3 stat = CheckProcessParam(pcPath);
    return stat == NFS3_OK ? CheckPath(pcPath, false) : stat;
}

nfsstat3 CNfs3Call::CheckExisting(const char* pcPath) {
    const nfsstat3 stat = CheckProcessParam(pcPath);
    return stat == NFS3_OK ? CheckPath(pcPath, true) : stat;
}

nfsstat3 CNfs3Call::CheckAttributes(const char* pcPath, post_op_attr* pAttr) {
    const nfsstat3 stat = CheckExisting(pcPath);
    if (stat != NFS3_OK) {
        return stat;
    }
    *pAttr = GetPostOpAttr(pcPath);
    return pAttr->attributes_follow ? NFS3_OK : NFS3ERR_IO;
}

nfsstat3 CNfs3Call::CheckUnresolved() { return CheckProcessParam(""); }

// =================================================================================================
// Attributes and handles of a path
// =================================================================================================

bool CNfs3Call::GetNfsFileHandle(const char* pcPath, nfs_fh3* pHandle) {
    return pHandle != nullptr &&
           GetUtilities()->GetFileHandle(GetRuntimeParam(), GetLogArgu(), pcPath, pHandle->cHandle,
                                         static_cast<int>(sizeof(pHandle->cHandle)));
}

bool CNfs3Call::GetNfsFileAttributes(const char* pcPath, fattr3* pAttr) {
    struct stat data {};
    if (GetUtilities()->OS_GetFileStat(GetRuntimeParam(), GetLogArgu(), pcPath, &data, nullptr) ==
        -1) {
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
            GetUtilities()->GetFileSize(GetRuntimeParam(), GetLogArgu(), pcPath, data.st_size));
    }
    pAttr->used = pAttr->size;
    // The inode number, not the file ID that listings report.
    pAttr->fileid = static_cast<std::uint32_t>(data.st_ino);
    pAttr->atime = {static_cast<std::uint32_t>(data.st_atime), 0};
    pAttr->mtime = {static_cast<std::uint32_t>(data.st_mtime), 0};
    pAttr->ctime = {static_cast<std::uint32_t>(data.st_ctime), 0};
    Trace(
        "[%s] Path=%s, type=%u, mode=%x, nlink=%u, uid=%u, gid=%u, size=%lld, used=%lld, "
        "rdev.1=%u, rdev.2=%u, fsid=%llu, atime.s=%u, atime.ns=%u, mtime.s=%u, mtime.ns=%u, "
        "ctime.s=%u, ctime.ns=%u",
        GetLabel(), pcPath, pAttr->type, pAttr->mode, pAttr->nlink, pAttr->uid, pAttr->gid,
        static_cast<long long>(pAttr->size), static_cast<long long>(pAttr->used),
        pAttr->rdev.specdata1, pAttr->rdev.specdata2, static_cast<unsigned long long>(pAttr->fsid),
        pAttr->atime.seconds, pAttr->atime.nseconds, pAttr->mtime.seconds, pAttr->mtime.nseconds,
        pAttr->ctime.seconds, pAttr->ctime.nseconds);
    return true;
}

bool CNfs3Call::GetNfsFileAttributes(const char* /*pcPath*/, wcc_attr* /*pAttr*/) { return false; }

post_op_attr CNfs3Call::GetPostOpAttr(const char* pcPath) {
    post_op_attr attr;
    attr.attributes_follow = GetNfsFileAttributes(pcPath, &attr.attributes);
    return attr;
}

post_op_fh3 CNfs3Call::GetPostOpHandle(const char* pcPath) {
    post_op_fh3 handle;
    handle.handle_follows = GetNfsFileHandle(pcPath, &handle.handle);
    return handle;
}

// =================================================================================================
// Results
// =================================================================================================

void CNfs3Call::PassOverData(std::uint32_t iLen) {
    GetOut()->Write(nullptr, iLen);
    GetOut()->WriteRemainOpaque(iLen);
}

int CNfs3Call::End(nfsstat3 stat) {
    Trace("[%s] End stat=%d", GetLabel(), static_cast<int>(stat));
    return PROG_RESULT_DONE;
}

// =================================================================================================
// Names and modes
// =================================================================================================

bool CNfs3Call::AppendFilePath(const char* pcDir, const char* pcName, char* pcOut) {
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

bool CNfs3Call::IsInVaildDirName(const char* pcName) {
    return pcName == nullptr || std::strcmp(pcName, ".") == 0 || std::strcmp(pcName, "..") == 0;
}

unsigned int CNfs3Call::ConvertNfsFileModeToFileMode(unsigned int iMode) {
    return iMode & MODE_MASK;
}

unsigned int CNfs3Call::ConvertFileModeToNfsFileMode(unsigned int iMode) {
    return iMode & MODE_MASK;
}
