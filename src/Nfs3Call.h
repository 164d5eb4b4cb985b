// One call of the NFS program, in the words of its procedures.
#ifndef VELOCAST_NFS3CALL_H
#define VELOCAST_NFS3CALL_H

#include <cstdint>

#include "Nfs3Types.h"
#include "Nfs3Xdr.h"
#include "OutputStream.h"
#include "RpcCall.h"

// A procedure reads its arguments, checks, acts, and writes status and results, in this order.
//
// An argument that resolves to nothing is an empty path.  The checks refuse it, as no export holds
// it: but one whose own folder is the empty path does, as it holds every path.  Then what is asked
// of the object fails, since no file has an empty path.
class CNfs3Call : public CRpcCall {
public:
    using CRpcCall::CRpcCall;

    // === Arguments, in their order on the wire; all throw CDataTruncatedExpt ===

    // The path of a file handle.
    COpaquePath ReadHandle();
    // The canonical path of a name in a directory, which need not exist.
    COpaquePath ReadDirAndName();
    // A value of any type that CNfs3Xdr reads.
    template <typename T>
    T Read() {
        T value{};
        CNfs3Xdr::Read(GetIn(), &value);
        return value;
    }
    // Passes over what the procedure does not look at; the value tells what CNfs3Xdr still tells.
    template <typename T>
    T Skip() {
        T value{};
        CNfs3Xdr::Read(GetIn(), &value, true);
        return value;
    }
    void SkipHandle();
    void SkipDirAndName();

    // A file handle to its path; on failure the path stays empty.
    bool ReadPath(COpaquePath* pPath);
    // A directory handle and a name to the joined canonical path.  Without a directory the name is
    // not read and the path stays empty.
    bool ReadPath(diropargs3* pDirArgs, COpaquePath* pPath);

    // === Checks ===

    // Whether the path lies in an export, under whose names the call then logs and notifies: OK or
    // IO.
    nfsstat3 CheckProcessParam(const char* pcPath);
    // STALE without a path, IO when the object must exist and does not.
    static nfsstat3 CheckPath(const char* pcPath, bool bMustExist);
    // The path lies in an export.
    nfsstat3 Check(const char* pcPath);
    // It does, and there is something: else IO.
    nfsstat3 CheckExisting(const char* pcPath);
    // It does, and there is something with attributes, which are set on OK: else IO.
    nfsstat3 CheckAttributes(const char* pcPath, post_op_attr* pAttr);
    // For a procedure that never resolves its handle, and with it is not served: the check of the
    // empty path.  IO, but OK beside an export whose folder is the empty path.
    nfsstat3 CheckUnresolved();

    // === Attributes and handles of a path ===

    bool GetNfsFileHandle(const char* pcPath, nfs_fh3* pHandle);
    bool GetNfsFileAttributes(const char* pcPath, fattr3* pAttr);
    // Before-images are not kept: fills nothing and returns false.
    static bool GetNfsFileAttributes(const char* pcPath, wcc_attr* pAttr);
    // As far as they can be had.
    post_op_attr GetPostOpAttr(const char* pcPath);
    post_op_fh3 GetPostOpHandle(const char* pcPath);

    // === Results ===

    // Values of any types that CNfs3Xdr writes.
    template <typename... Values>
    void Write(const Values&... values) {
        (CNfs3Xdr::Write(GetOut(), values), ...);
    }
    // Where the next value goes.
    std::uint32_t GetPlace() const { return GetOut()->GetBufferIndex(); }
    // The next value goes there, over what was written.
    void GoTo(std::uint32_t iPlace) { GetOut()->Seek(iPlace, 0); }
    // Puts values over what was written at a place; the next value goes where it would have gone.
    template <typename... Values>
    void WriteAt(std::uint32_t iPlace, const Values&... values) {
        const std::uint32_t iEnd = GetPlace();
        GoTo(iPlace);
        Write(values...);
        GoTo(iEnd);
    }
    // Ends an opaque of iLen bytes that are in place already.
    void PassOverData(std::uint32_t iLen);

    // Traces the status; the result of the procedure, which is PROG_RESULT_DONE whatever the
    // status.
    int End(nfsstat3 stat);

    // === Names and modes ===

    // Joins with '/' into PATH_SIZE bytes.  False for a null pointer, and, with an empty result,
    // for a joined path that does not fit.
    static bool AppendFilePath(const char* pcDir, const char* pcName, char* pcOut);
    // No name, or one of the two that every directory has.
    static bool IsInVaildDirName(const char* pcName);
    // Set-user-ID, set-group-ID and the nine permission bits; the same both ways.
    static unsigned int ConvertNfsFileModeToFileMode(unsigned int iMode);
    static unsigned int ConvertFileModeToNfsFileMode(unsigned int iMode);
};

#endif
