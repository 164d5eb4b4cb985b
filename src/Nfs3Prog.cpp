#include "Nfs3Prog.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string_view>

#include "Nfs3Call.h"
#include "OutputStream.h"

namespace {

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

constexpr post_op_attr NO_ATTRIBUTES{};
constexpr wcc_data NO_IMAGES{};

using Procedure = RpcProcedure<CNfs3Prog, CNfs3Call>;

constexpr Procedure PROCEDURES[] = {
    {"Nfs3Prog.ProcedureNULL", &CNfs3Prog::ProcedureNULL},                // 0
    {"Nfs3Prog.ProcedureGETATTR", &CNfs3Prog::ProcedureGETATTR},          // 1
    {"Nfs3Prog.ProcedureSETATTR", &CNfs3Prog::ProcedureSETATTR},          // 2
    {"Nfs3Prog.ProcedureLOOKUP", &CNfs3Prog::ProcedureLOOKUP},            // 3
    {"Nfs3Prog.ProcedureACCESS", &CNfs3Prog::ProcedureACCESS},            // 4
    {"Nfs3Prog.ProcedureREADLINK", &CNfs3Prog::ProcedureREADLINK},        // 5
    {"Nfs3Prog.ProcedureREAD", &CNfs3Prog::ProcedureREAD},                // 6
    {"Nfs3Prog.ProcedureWRITE", &CNfs3Prog::ProcedureWRITE},              // 7
    {"Nfs3Prog.ProcedureCREATE", &CNfs3Prog::ProcedureCREATE},            // 8
    {"Nfs3Prog.ProcedureMKDIR", &CNfs3Prog::ProcedureMKDIR},              // 9
    {"Nfs3Prog.ProcedureSYMLINK", &CNfs3Prog::ProcedureSYMLINK},          // 10
    {"Nfs3Prog.ProcedureMKNOD", &CNfs3Prog::ProcedureMKNOD},              // 11
    {"Nfs3Prog.ProcedureREMOVE", &CNfs3Prog::ProcedureREMOVE},            // 12
    {"Nfs3Prog.ProcedureRMDIR", &CNfs3Prog::ProcedureRMDIR},              // 13
    {"Nfs3Prog.ProcedureRENAME", &CNfs3Prog::ProcedureRENAME},            // 14
    {"Nfs3Prog.ProcedureLINK", &CNfs3Prog::ProcedureLINK},                // 15
    {"Nfs3Prog.ProcedureREADDIR", &CNfs3Prog::ProcedureREADDIR},          // 16
    {"Nfs3Prog.ProcedureREADDIRPLUS", &CNfs3Prog::ProcedureREADDIRPLUS},  // 17
    {"Nfs3Prog.ProcedureFSSTAT", &CNfs3Prog::ProcedureFSSTAT},            // 18
    {"Nfs3Prog.ProcedureFSINFO", &CNfs3Prog::ProcedureFSINFO},            // 19
    {"Nfs3Prog.ProcedurePATHCONF", &CNfs3Prog::ProcedurePATHCONF},        // 20
    {"Nfs3Prog.ProcedureCOMMIT", &CNfs3Prog::ProcedureCOMMIT},            // 21
};
static_assert(std::size(PROCEDURES) == 22);

constexpr RpcProcedureTable<CNfs3Prog, CNfs3Call> TABLE{
    "Nfs3Prog.Process", true, PROCEDURES, {"Nfs3Prog.ProcedureNOIMP", &CNfs3Prog::ProcedureNOIMP}};

// The next entry that is neither "." nor "..", or null at the end.
const dirent* NextEntry(DIR* pDir) {
    const dirent* pEntry = readdir(pDir);
    while (pEntry != nullptr && CNfs3Call::IsInVaildDirName(pEntry->d_name)) {
        pEntry = readdir(pDir);
    }
    return pEntry;
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
    return Dispatch(TABLE, pIn, pOut, pParam);
}

// Each procedure stands under its form in RFC 1813, section 3.3: its arguments, then "->" what
// follows the status OK, then "else" what follows any other.  After that come the statuses that
// are sent, and where this server differs.
//
// Common to all: an object is a path.  STALE is never sent: a handle that belongs to nothing, or to
// what has gone, is answered like a missing object.  A wcc_data is always empty, because images
// from before and after a change are not kept.

// void NFSPROC3_NULL(void)
int CNfs3Prog::ProcedureNULL(CNfs3Call& /*call*/) { return PROG_RESULT_DONE; }

// Every number that is no procedure.
int CNfs3Prog::ProcedureNOIMP(CNfs3Call& /*call*/) { return PROG_RESULT_NOIMP; }

// =================================================================================================
// Attributes and data
// =================================================================================================

// GETATTR3res NFSPROC3_GETATTR(GETATTR3args)
//     nfs_fh3 object
//     -> fattr3 obj_attributes
//
// OK.  IO: missing, outside every export, or without attributes.
// Differs: the owner is the local one; times are whole seconds.
int CNfs3Prog::ProcedureGETATTR(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();

    nfsstat3 stat = call.CheckExisting(path.c_str());
    fattr3 attr;
    if (stat == NFS3_OK && !call.GetNfsFileAttributes(path.c_str(), &attr)) {
        stat = NFS3ERR_IO;
    }
    call.Write(stat);
    if (stat == NFS3_OK) {
        call.Write(attr);
    }
    return call.End(stat);
}

// SETATTR3res NFSPROC3_SETATTR(SETATTR3args)
//     nfs_fh3 object, sattr3 new_attributes, sattrguard3 guard
//     -> wcc_data obj_wcc
//     else wcc_data obj_wcc
//
// OK.  IO: missing or outside every export.  NOT_SYNC: the guard does not hold.  INVAL: times that
// cannot be set, or a change that failed.
// Differs: a read-only server does not refuse it.  The guard is held, in seconds, against a
// before-image that is never filled: it holds for a ctime of 0 seconds only.
int CNfs3Prog::ProcedureSETATTR(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();
    const auto attr = call.Read<sattr3>();
    const auto guard = call.Read<sattrguard3>();
    call.Trace("[%s] Guard check: %d, time: %lld", call.GetLabel(), guard.check,
               static_cast<long long>(guard.obj_ctime.seconds));

    nfsstat3 stat = call.CheckExisting(path.c_str());
    wcc_attr before;
    CNfs3Call::GetNfsFileAttributes(path.c_str(), &before);
    if (stat == NFS3_OK && guard.check && guard.obj_ctime.seconds != before.ctime.seconds) {
        stat = NFS3ERR_NOT_SYNC;
        call.Trace("[%s] Guard check fail, client: %lld, server: %lld", call.GetLabel(),
                   static_cast<long long>(guard.obj_ctime.seconds),
                   static_cast<long long>(before.ctime.seconds));
    }
    if (stat == NFS3_OK && (m_iFSF3Properties & FSF3_CANSETTIME) == 0 &&
        (attr.atime.set_it != DONT_CHANGE || attr.mtime.set_it != DONT_CHANGE)) {
        stat = NFS3ERR_INVAL;
        call.Trace("[%s] Server don't allow settime", call.GetLabel());
    }
    if (stat == NFS3_OK && !Update(call, path.c_str(), attr)) {
        stat = NFS3ERR_INVAL;
        call.LogError(LOG_CONTROL_ERROR, "[%s] Update file attribute to %s fail", call.GetLabel(),
                      path.c_str());
    }
    call.Write(stat, NO_IMAGES);
    return call.End(stat);
}

bool CNfs3Prog::Update(CNfs3Call& call, const char* pcPath, const sattr3& attr) {
    return m_pUtilities->UpdateFileAttributes(
        call.GetRuntimeParam(), call.GetLogArgu(), pcPath, attr.mode.set_it, attr.mode.mode,
        attr.uid.set_it, attr.uid.uid, attr.gid.set_it, attr.gid.gid, attr.size.set_it,
        attr.size.size, attr.atime.set_it != DONT_CHANGE, attr.atime.atime.seconds,
        attr.atime.atime.nseconds, attr.mtime.set_it != DONT_CHANGE, attr.mtime.mtime.seconds,
        attr.mtime.mtime.nseconds);
}

// LOOKUP3res NFSPROC3_LOOKUP(LOOKUP3args)
//     diropargs3 what
//     -> nfs_fh3 object, post_op_attr obj_attributes, post_op_attr dir_attributes
//     else post_op_attr dir_attributes
//
// OK.  NOENT: missing or outside every export.
// Differs: "." and ".." are resolved as in any path, as are symbolic links.  The attributes of the
// directory are never sent.
int CNfs3Prog::ProcedureLOOKUP(CNfs3Call& call) {
    const COpaquePath path = call.ReadDirAndName();

    nfsstat3 stat = call.CheckExisting(path.c_str());
    if (stat == NFS3ERR_IO) {
        stat = NFS3ERR_NOENT;
    }
    call.Write(stat);
    if (stat == NFS3_OK) {
        nfs_fh3 handle{};
        call.GetNfsFileHandle(path.c_str(), &handle);
        call.Write(handle);
        call.Write(call.GetPostOpAttr(path.c_str()));
    }
    call.Write(NO_ATTRIBUTES);
    return call.End(stat);
}

// ACCESS3res NFSPROC3_ACCESS(ACCESS3args)
//     nfs_fh3 object, uint32 access
//     -> post_op_attr obj_attributes, uint32 access
//     else post_op_attr obj_attributes
//
// OK.  IO: missing or outside every export.
// Differs: every requested right is granted, except those to change, and to execute, on a
// read-only server.  No attributes are sent with a failure.
int CNfs3Prog::ProcedureACCESS(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();
    const auto iAccess = call.Read<std::uint32_t>();

    const nfsstat3 stat = call.CheckExisting(path.c_str());
    call.Trace("[%s] Readonly: %d, access: %x", call.GetLabel(), m_bReadOnly, iAccess);
    call.Write(stat);
    if (stat == NFS3_OK) {
        call.Write(call.GetPostOpAttr(path.c_str()),
                   m_bReadOnly ? iAccess & ~ACCESS3_CHANGE : iAccess);
    } else {
        call.Write(NO_ATTRIBUTES);
    }
    return call.End(stat);
}

// READLINK3res NFSPROC3_READLINK(READLINK3args)
//     nfs_fh3 symlink
//     -> post_op_attr symlink_attributes, nfspath3 data
//     else post_op_attr symlink_attributes
//
// IO, because it is not served.  OK beside an export whose folder is the empty path.
// Differs: on OK an empty text stands before the attributes, of which there are none.
int CNfs3Prog::ProcedureREADLINK(CNfs3Call& call) {
    call.SkipHandle();

    const nfsstat3 stat = call.CheckUnresolved();
    call.Write(stat);
    if (stat == NFS3_OK) {
        call.Write(opaque{});
    }
    call.Write(NO_ATTRIBUTES);
    return call.End(stat);
}

// READ3res NFSPROC3_READ(READ3args)
//     nfs_fh3 file, offset3 offset, count3 count
//     -> post_op_attr file_attributes, count3 count, bool eof, opaque data<>
//     else post_op_attr file_attributes
//
// OK.  IO: missing or outside every export.  INVAL: more than the reply has room for, or the read
// failed.
// Differs: at most MAX_READ bytes.  A count of 0 is always at the end.  Attributes are never sent.
int CNfs3Prog::ProcedureREAD(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();
    const unsigned long long iOffset = call.Read<std::uint64_t>();
    const auto iCount = call.Read<std::uint32_t>();

    nfsstat3 stat = call.CheckExisting(path.c_str());
    std::uint32_t iRead = 0;
    bool bEof = true;
    const std::uint32_t iStatus = call.GetPlace();
    call.Write(stat);
    const std::uint32_t iBody = call.GetPlace();
    if (stat == NFS3_OK) {
        call.Trace("[%s] Offset=%llu, length=%u", call.GetLabel(), iOffset, iCount);
        // The data goes straight to its place, behind fields that are known only after it.
        call.Write(NO_ATTRIBUTES, iRead, bEof, iRead);
        stat = ReadIntoReply(call, path.c_str(), iOffset, iCount, &iRead, &bEof);
    }
    if (stat != NFS3_OK) {
        call.GoTo(iStatus);
        call.Write(stat, NO_ATTRIBUTES);
        return call.End(stat);
    }
    call.Trace("[%s] Read=%u (eof=%s)", call.GetLabel(), iRead, bEof ? "T" : "F");
    call.PassOverData(iRead);
    call.WriteAt(iBody, NO_ATTRIBUTES, iRead, bEof, iRead);
    return call.End(stat);
}

nfsstat3 CNfs3Prog::ReadIntoReply(CNfs3Call& call, const char* pcPath, unsigned long long iOffset,
                                  std::uint32_t iCount, std::uint32_t* piRead, bool* pbEof) {
    if (iCount == 0) {
        return NFS3_OK;
    }
    // The failures are logged whatever the log control: a host could not read its disk.
    COutputStream* pOut = call.GetOut();
    if (pOut->GetFreeBufferSize() < iCount) {
        call.LogError(CRpcCall::LOG_ALWAYS,
                      "[%s] Count bigger than free buffer (path=%s, offset=%llu length=%u)",
                      call.GetLabel(), pcPath, iOffset, iCount);
    } else {
        const int iResult = m_pUtilities->ReadFile(
            call.GetRuntimeParam(), call.GetLogArgu(), pcPath, iOffset, SEEK_SET,
            pOut->GetCurrentBuffer(), std::min(iCount, MAX_READ), pbEof);
        if (iResult >= 0) {
            *piRead = static_cast<std::uint32_t>(iResult);
            return NFS3_OK;
        }
        call.LogError(CRpcCall::LOG_ALWAYS, "[%s] Read return -1 (path=%s, offset=%llu length=%u)",
                      call.GetLabel(), pcPath, iOffset, iCount);
    }
    call.LogError(CRpcCall::LOG_ALWAYS, "[%s] Read fail", call.GetLabel());
    return NFS3ERR_INVAL;
}

// WRITE3res NFSPROC3_WRITE(WRITE3args)
//     nfs_fh3 file, offset3 offset, count3 count, stable_how stable, opaque data<>
//     -> wcc_data file_wcc, count3 count, stable_how committed, writeverf3 verf
//     else wcc_data file_wcc
//
// OK.  ACCES: a read-only server, whatever the object.  IO: missing or outside every export.  FBIG:
// beyond the largest file.  INVAL: the write failed.
// Differs: at most MAX_WRITE bytes, told in the count: clients send the rest again.  Every write is
// FILE_SYNC.
int CNfs3Prog::ProcedureWRITE(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();
    const unsigned long long iOffset = call.Read<std::uint64_t>();
    const auto iCount = call.Read<std::uint32_t>();
    call.Read<std::uint32_t>();  // stable
    const auto data = call.Read<opaque>();

    nfsstat3 stat = call.CheckExisting(path.c_str());
    if (m_bReadOnly) {
        stat = NFS3ERR_ACCES;
    }
    std::uint32_t iWritten = 0;
    if (stat == NFS3_OK) {
        call.Trace("[%s] Offset=%llu, length=%u, count=%u", call.GetLabel(), iOffset, data.iBufLen,
                   iCount);
        const std::uint64_t iMaxSize = CUtilities::GetMaxFileSize(path.c_str());
        if (iOffset > iMaxSize || iCount > iMaxSize - iOffset) {
            stat = NFS3ERR_FBIG;
        } else if (iCount > 0) {
            // The count decides, but never beyond the bytes that came.
            const std::uint32_t iLen = std::min({iCount, MAX_WRITE, data.iBufLen});
            const int iResult =
                m_pUtilities->WriteFile(call.GetRuntimeParam(), call.GetLogArgu(), path.c_str(),
                                        iOffset, SEEK_SET, data.pBuf, iLen);
            if (iResult < 0) {
                stat = NFS3ERR_INVAL;
            } else {
                iWritten = static_cast<std::uint32_t>(iResult);
            }
        }
    }
    if (stat != NFS3_OK) {
        call.LogError(LOG_CONTROL_ERROR, "[%s] Write fail", call.GetLabel());
    } else {
        call.Trace("[%s] Write=%u", call.GetLabel(), iWritten);
    }
    call.Write(stat, NO_IMAGES);
    if (stat == NFS3_OK) {
        call.Write(iWritten, FILE_SYNC, m_iSysUpTime);
    }
    return call.End(stat);
}

// FSSTAT3res NFSPROC3_FSSTAT(FSSTAT3args)
//     nfs_fh3 fsroot
//     -> post_op_attr obj_attributes, size3 tbytes, size3 fbytes, size3 abytes, size3 tfiles,
//        size3 ffiles, size3 afiles, uint32 invarsec
//     else post_op_attr obj_attributes
//
// OK.  IO: missing, outside every export, or without attributes.
// Differs: any object of the file system will do.  No attributes are sent with a failure.
int CNfs3Prog::ProcedureFSSTAT(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();
    const char* pcPath = path.c_str();

    post_op_attr attr;
    const nfsstat3 stat = call.CheckAttributes(pcPath, &attr);
    call.Write(stat, attr);
    if (stat == NFS3_OK) {
        call.Write(std::uint64_t{CUtilities::GetTotalDiskSpace(pcPath)},
                   std::uint64_t{CUtilities::GetFreeDiskSpace(pcPath)},
                   std::uint64_t{CUtilities::GetFreeDiskSpaceAvailableToCaller(pcPath)},
                   std::uint64_t{CUtilities::GetTotalFileSlots(pcPath)},
                   std::uint64_t{CUtilities::GetFreeFileSlots(pcPath)},
                   std::uint64_t{CUtilities::GetFreeFileSlotsAvailableToCaller(pcPath)},
                   0U);  // invarsec
    }
    return call.End(stat);
}

// FSINFO3res NFSPROC3_FSINFO(FSINFO3args)
//     nfs_fh3 fsroot
//     -> post_op_attr obj_attributes, uint32 rtmax, uint32 rtpref, uint32 rtmult, uint32 wtmax,
//        uint32 wtpref, uint32 wtmult, uint32 dtpref, size3 maxfilesize, nfstime3 time_delta,
//        uint32 properties
//     else post_op_attr obj_attributes
//
// OK.  IO: missing, outside every export, or without attributes.
// Differs: as FSSTAT.  Neither hard nor symbolic links are announced.
int CNfs3Prog::ProcedureFSINFO(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();

    post_op_attr attr;
    const nfsstat3 stat = call.CheckAttributes(path.c_str(), &attr);
    call.Write(stat, attr);
    if (stat == NFS3_OK) {
        call.Write(MAX_READ,           // rtmax
                   MAX_READ,           // rtpref
                   TRANSFER_MULTIPLE,  // rtmult
                   MAX_WRITE,          // wtmax
                   MAX_WRITE,          // wtpref
                   TRANSFER_MULTIPLE,  // wtmult
                   PREFERRED_READDIR,  // dtpref
                   std::uint64_t{CUtilities::GetMaxFileSize(path.c_str())},
                   nfstime3{1, 0},  // time_delta
                   m_iFSF3Properties);
    }
    return call.End(stat);
}

// PATHCONF3res NFSPROC3_PATHCONF(PATHCONF3args)
//     nfs_fh3 object
//     -> post_op_attr obj_attributes, uint32 linkmax, uint32 name_max, bool no_trunc,
//        bool chown_restricted, bool case_insensitive, bool case_preserving
//     else post_op_attr obj_attributes
//
// IO, because it is not served.  OK beside an export whose folder is the empty path.
// Differs: attributes are never sent.
int CNfs3Prog::ProcedurePATHCONF(CNfs3Call& call) {
    call.SkipHandle();

    const nfsstat3 stat = call.CheckUnresolved();
    call.Write(stat, NO_ATTRIBUTES);
    if (stat == NFS3_OK) {
        call.Write(0U,     // linkmax
                   255U,   // name_max
                   false,  // no_trunc
                   true,   // chown_restricted
                   true,   // case_insensitive
                   true);  // case_preserving
    }
    return call.End(stat);
}

// COMMIT3res NFSPROC3_COMMIT(COMMIT3args)
//     nfs_fh3 file, offset3 offset, count3 count
//     -> wcc_data file_wcc, writeverf3 verf
//     else wcc_data file_wcc
//
// IO, because it is not served: every WRITE is FILE_SYNC already.  OK beside an export whose folder
// is the empty path.
// Differs: on OK the verifier is 0, not that of WRITE.
int CNfs3Prog::ProcedureCOMMIT(CNfs3Call& call) {
    call.SkipHandle();
    call.Read<std::uint64_t>();  // offset
    call.Read<std::uint32_t>();  // count

    const nfsstat3 stat = call.CheckUnresolved();
    call.Write(stat, NO_IMAGES);
    if (stat == NFS3_OK) {
        call.Write(std::uint64_t{0});
    }
    return call.End(stat);
}

// =================================================================================================
// Directories and names
// =================================================================================================

// CREATE3res NFSPROC3_CREATE(CREATE3args)
//     diropargs3 where, createhow3 how
//     -> post_op_fh3 obj, post_op_attr obj_attributes, wcc_data dir_wcc
//     else wcc_data dir_wcc
//
// OK.  ACCES: a read-only server, whatever the name.  IO: outside every export, an unknown mode,
// not made, or made without taking on its attributes.  EXIST: a guarded one exists.
// Differs: the verifier of an exclusive one is read and not kept; an existing file counts as made.
// An unchecked one keeps the content of an existing file.
int CNfs3Prog::ProcedureCREATE(CNfs3Call& call) {
    const COpaquePath path = call.ReadDirAndName();
    const auto how = call.Read<createhow3>();
    const char* pcPath = path.c_str();

    nfsstat3 stat = call.Check(pcPath);
    if (m_bReadOnly) {
        stat = NFS3ERR_ACCES;
    }
    if (stat == NFS3_OK) {
        const bool bExists = CUtilities::OS_IsFileExists(pcPath);
        call.Trace("[%s] Mode: %d, Is file exist before create: %d", call.GetLabel(),
                   static_cast<int>(how.mode), bExists);
        if (how.mode > CREATE_EXCLUSIVE) {
            stat = NFS3ERR_IO;
        } else if (how.mode == CREATE_GUARDED && bExists) {
            stat = NFS3ERR_EXIST;
        } else if (!m_pUtilities->NewFile(call.GetRuntimeParam(), call.GetLogArgu(), pcPath) ||
                   !Update(call, pcPath, how.obj_attributes)) {
            stat = NFS3ERR_IO;
        }
        if (call.IsTraced()) {
            call.Trace("[%s] Is file exist after create: %d", call.GetLabel(),
                       CUtilities::OS_IsFileExists(pcPath));
        }
    }
    return EndNewObject(call, stat, pcPath);
}

int CNfs3Prog::EndNewObject(CNfs3Call& call, nfsstat3 stat, const char* pcPath) {
    call.Write(stat);
    if (stat == NFS3_OK) {
        call.Write(call.GetPostOpHandle(pcPath));
        call.Write(call.GetPostOpAttr(pcPath));
    }
    call.Write(NO_IMAGES);
    return call.End(stat);
}

// MKDIR3res NFSPROC3_MKDIR(MKDIR3args)
//     diropargs3 where, sattr3 attributes
//     -> post_op_fh3 obj, post_op_attr obj_attributes, wcc_data dir_wcc
//     else wcc_data dir_wcc
//
// OK.  ACCES: a read-only server, whatever the name.  IO: outside every export, or not made, also
// because it exists.
// Differs: of the attributes only the mode counts.
int CNfs3Prog::ProcedureMKDIR(CNfs3Call& call) {
    const COpaquePath path = call.ReadDirAndName();
    const auto attr = call.Read<sattr3>();

    nfsstat3 stat = call.Check(path.c_str());
    if (m_bReadOnly) {
        stat = NFS3ERR_ACCES;
    }
    if (stat == NFS3_OK) {
        const unsigned int iMode = attr.mode.set_it ? attr.mode.mode : DEFAULT_FOLDER_MODE;
        if (m_pUtilities->OS_FolderCreate(call.GetRuntimeParam(), call.GetLogArgu(), path.c_str(),
                                          static_cast<int>(iMode), nullptr) == -1) {
            stat = NFS3ERR_IO;
        }
    }
    return EndNewObject(call, stat, path.c_str());
}

// SYMLINK3res NFSPROC3_SYMLINK(SYMLINK3args)
//     diropargs3 where, sattr3 symlink_attributes, nfspath3 symlink_data
//     -> post_op_fh3 obj, post_op_attr obj_attributes, wcc_data dir_wcc
//     else wcc_data dir_wcc
//
// IO, because it is not served.  OK beside an export whose folder is the empty path.
// Differs: on OK nothing is made, and neither handle nor attributes are sent.
int CNfs3Prog::ProcedureSYMLINK(CNfs3Call& call) {
    call.SkipDirAndName();
    call.Skip<sattr3>();
    call.Read<opaque>();  // symlink_data

    const nfsstat3 stat = call.CheckUnresolved();
    call.Write(stat);
    if (stat == NFS3_OK) {
        call.Write(post_op_fh3{}, NO_ATTRIBUTES);
    }
    call.Write(NO_IMAGES);
    return call.End(stat);
}

// MKNOD3res NFSPROC3_MKNOD(MKNOD3args)
//     diropargs3 where, mknoddata3 what
//     -> post_op_fh3 obj, post_op_attr obj_attributes, wcc_data dir_wcc
//     else wcc_data dir_wcc
//
// NOTSUPP: a device, a socket or a pipe.  BADTYPE: anything else.
// Differs: not served, and OK is never sent.  The export check is made for its log line alone.
int CNfs3Prog::ProcedureMKNOD(CNfs3Call& call) {
    call.SkipDirAndName();
    const std::uint32_t iType = call.Skip<mknoddata3>().type;

    call.CheckUnresolved();
    const bool bNode = iType == NF3BLK || iType == NF3CHR || iType == NF3SOCK || iType == NF3FIFO;
    const nfsstat3 stat = bNode ? NFS3ERR_NOTSUPP : NFS3ERR_BADTYPE;
    call.Write(stat, NO_IMAGES);
    return call.End(stat);
}

nfsstat3 CNfs3Prog::CheckChange(CNfs3Call& call, const char* pcPath) {
    const nfsstat3 stat = call.CheckExisting(pcPath);
    if (stat == NFS3ERR_IO) {
        return NFS3ERR_NOENT;
    }
    return m_bReadOnly ? NFS3ERR_ACCES : stat;
}

// REMOVE3res NFSPROC3_REMOVE(REMOVE3args)
//     diropargs3 object
//     -> wcc_data dir_wcc
//     else wcc_data dir_wcc
//
// OK.  NOENT: missing or outside every export.  ACCES: a read-only server.  IO: not removed.
int CNfs3Prog::ProcedureREMOVE(CNfs3Call& call) {
    const COpaquePath path = call.ReadDirAndName();

    nfsstat3 stat = CheckChange(call, path.c_str());
    if (stat == NFS3_OK &&
        !m_pUtilities->RemoveFile(call.GetRuntimeParam(), call.GetLogArgu(), path.c_str())) {
        stat = NFS3ERR_IO;
    }
    call.Write(stat, NO_IMAGES);
    return call.End(stat);
}

// RMDIR3res NFSPROC3_RMDIR(RMDIR3args)
//     diropargs3 object
//     -> wcc_data dir_wcc
//     else wcc_data dir_wcc
//
// OK.  NOENT: missing or outside every export.  ACCES: a read-only server.  IO: not removed.
// Differs: NOTDIR and NOTEMPTY are IO, as the file system refuses both.
int CNfs3Prog::ProcedureRMDIR(CNfs3Call& call) {
    const COpaquePath path = call.ReadDirAndName();

    nfsstat3 stat = CheckChange(call, path.c_str());
    if (stat == NFS3_OK && m_pUtilities->OS_FolderRemove(call.GetRuntimeParam(), call.GetLogArgu(),
                                                         path.c_str(), nullptr) == -1) {
        stat = NFS3ERR_IO;
    }
    call.Write(stat, NO_IMAGES);
    return call.End(stat);
}

// RENAME3res NFSPROC3_RENAME(RENAME3args)
//     diropargs3 from, diropargs3 to
//     -> wcc_data fromdir_wcc, wcc_data todir_wcc
//     else wcc_data fromdir_wcc, wcc_data todir_wcc
//
// OK.  NOENT: from is missing or outside every export.  ACCES: a read-only server.  IO: not
// renamed.
// Differs: to is not held against the exports.
int CNfs3Prog::ProcedureRENAME(CNfs3Call& call) {
    const COpaquePath from = call.ReadDirAndName();
    const COpaquePath to = call.ReadDirAndName();

    nfsstat3 stat = CheckChange(call, from.c_str());
    if (stat == NFS3_OK) {
        stat = CNfs3Call::CheckPath(to.c_str(), false);
    }
    if (stat == NFS3_OK && !m_pUtilities->RenameFile(call.GetRuntimeParam(), call.GetLogArgu(),
                                                     from.c_str(), to.c_str())) {
        stat = NFS3ERR_IO;
    }
    call.Write(stat, NO_IMAGES, NO_IMAGES);
    return call.End(stat);
}

// LINK3res NFSPROC3_LINK(LINK3args)
//     nfs_fh3 file, diropargs3 link
//     -> post_op_attr file_attributes, wcc_data linkdir_wcc
//     else post_op_attr file_attributes, wcc_data linkdir_wcc
//
// IO, because it is not served.  OK beside an export whose folder is the empty path.
// Differs: on OK nothing is made.  Attributes are never sent.
int CNfs3Prog::ProcedureLINK(CNfs3Call& call) {
    call.SkipHandle();
    call.SkipDirAndName();

    const nfsstat3 stat = call.CheckUnresolved();
    call.Write(stat, NO_ATTRIBUTES, NO_IMAGES);
    return call.End(stat);
}

// READDIR3res NFSPROC3_READDIR(READDIR3args)
//     nfs_fh3 dir, cookie3 cookie, cookieverf3 cookieverf, count3 count
//     -> post_op_attr dir_attributes, cookieverf3 cookieverf, entry3 entries<>, bool eof
//        entry3: fileid3 fileid, filename3 name, cookie3 cookie
//     else post_op_attr dir_attributes
//
// OK, also for what cannot be listed: no entries.  IO: missing, outside every export, or without
// attributes.
// Differs: at most MAX_ENTRIES entries, which the count does not bound; a full page is never the
// end.  A cookie is the number of entries before it, and its verifier is sent back
// unlooked at.  "." and ".." are left out.  A fileid is the file ID of the entry's handle, not the
// inode number of its attributes.
int CNfs3Prog::ProcedureREADDIR(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();
    const unsigned long long iCookie = call.Read<std::uint64_t>();
    const unsigned long long iCookieVerf = call.Read<std::uint64_t>();
    const auto iCount = call.Read<std::uint32_t>();
    call.Trace("[%s] Cookie=%llu, cookieverf=%llu, count=%u", call.GetLabel(), iCookie, iCookieVerf,
               iCount);
    return ListDirectory(call, path.c_str(), iCookie, iCookieVerf, false);
}

// READDIRPLUS3res NFSPROC3_READDIRPLUS(READDIRPLUS3args)
//     nfs_fh3 dir, cookie3 cookie, cookieverf3 cookieverf, count3 dircount, count3 maxcount
//     -> post_op_attr dir_attributes, cookieverf3 cookieverf, entryplus3 entries<>, bool eof
//        entryplus3: fileid3 fileid, filename3 name, cookie3 cookie, post_op_attr name_attributes,
//        post_op_fh3 name_handle
//     else post_op_attr dir_attributes
//
// All else as READDIR.
int CNfs3Prog::ProcedureREADDIRPLUS(CNfs3Call& call) {
    const COpaquePath path = call.ReadHandle();
    const unsigned long long iCookie = call.Read<std::uint64_t>();
    const unsigned long long iCookieVerf = call.Read<std::uint64_t>();
    const auto iDirCount = call.Read<std::uint32_t>();
    const auto iMaxCount = call.Read<std::uint32_t>();
    call.Trace("[%s] Cookie=%llu, cookieverf=%llu, dircount=%u, maxcount=%u", call.GetLabel(),
               iCookie, iCookieVerf, iDirCount, iMaxCount);
    return ListDirectory(call, path.c_str(), iCookie, iCookieVerf, true);
}

int CNfs3Prog::ListDirectory(CNfs3Call& call, const char* pcPath, std::uint64_t iCookie,
                             std::uint64_t iCookieVerf, bool bPlus) {
    post_op_attr attr;
    const nfsstat3 stat = call.CheckAttributes(pcPath, &attr);
    call.Write(stat, attr);
    if (stat == NFS3_OK) {
        call.Write(iCookieVerf);
        const bool bEof = WriteEntries(call, pcPath, iCookie, bPlus);
        call.Write(false);  // no entry follows
        call.Write(bEof);
    }
    return call.End(stat);
}

bool CNfs3Prog::WriteEntries(CNfs3Call& call, const char* pcDir, std::uint64_t iCookie,
                             bool bPlus) {
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
        const bool bFits = CNfs3Call::AppendFilePath(pcDir, pEntry->d_name, cPath);
        call.Write(true);
        call.Write(std::uint64_t{
            bFits ? m_pUtilities->GetFileID(call.GetRuntimeParam(), call.GetLogArgu(), cPath)
                  : static_cast<std::uint32_t>(pEntry->d_ino)});
        call.Write(std::string_view(pEntry->d_name));
        ++iCookie;
        call.Write(iCookie);
        call.Trace("[%s] Cookie=%llu, name=%s", call.GetLabel(),
                   static_cast<unsigned long long>(iCookie), pEntry->d_name);
        if (bPlus) {
            call.Write(bFits ? call.GetPostOpAttr(cPath) : post_op_attr{});
            call.Write(bFits ? call.GetPostOpHandle(cPath) : post_op_fh3{});
        }
    }
    return false;
}
