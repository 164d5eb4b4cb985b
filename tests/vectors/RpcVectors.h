// Calls and their replies as the bytes that travel, on TCP behind a record mark; VectorText.h tells
// how they are written.
//
// They belong to the tree that RpcVectorsTest makes: the file IDs in handles are those of its
// objects.  Texts and data in replies are multiples of four bytes long, because the server does not
// clear the fill behind others.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "vectors/VectorText.h"

namespace rpcvectors {

// By number, as in RFC 1813 and RFC 1833.  A name that two programs share is the same number.
inline const std::vector<std::string> kNfsProcedures{
    "NULL",    "GETATTR",     "SETATTR", "LOOKUP", "ACCESS",   "READLINK", "READ",   "WRITE",
    "CREATE",  "MKDIR",       "SYMLINK", "MKNOD",  "REMOVE",   "RMDIR",    "RENAME", "LINK",
    "READDIR", "READDIRPLUS", "FSSTAT",  "FSINFO", "PATHCONF", "COMMIT"};
inline const std::vector<std::string> kMountProcedures{"NULL", "MNT",     "DUMP",
                                                       "UMNT", "UMNTALL", "EXPORT"};
inline const std::vector<std::string> kPortmapProcedures{"NULL", "SET", "UNSET", "GETPORT"};

inline vectors::Dictionary MakeDictionary() {
    vectors::Dictionary dictionary{
        // Programs with their versions.
        {"PORTMAP2", "000186a0 00000002"},
        {"NFS2", "000186a3 00000002"},
        {"NFS3", "000186a3 00000003"},
        {"MOUNT1", "000186a5 00000001"},
        {"MOUNT3", "000186a5 00000003"},

        {"call", R"(
            0badcafe             # xid
            00000000             # CALL
            00000002             # RPC version
        )"},
        // Behind program, version and procedure: who calls.
        {"host", R"(
            00000001             # credential: AUTH_SYS
            00000018             # length: 24
            00000000             # stamp
            00000004 "host"      # machine
            00000000             # uid
            00000000             # gid
            00000000             # no further groups
            00000000             # verifier: AUTH_NONE
            00000000             # length
        )"},
        {"reply", R"(
            0badcafe             # xid
            00000001             # REPLY
            00000000             # MSG_ACCEPTED
            00000000             # verifier: flavour of the call's
            00000000             # and its length
        )"},

        // accept_stat
        {"SUCCESS", "00000000"},
        {"PROC_UNAVAIL", "00000003"},

        // nfsstat3 and mountstat3
        {"NFS3_OK", "00000000"},
        {"NFS3ERR_NOENT", "00000002"},
        {"NFS3ERR_IO", "00000005"},
        {"NFS3ERR_ACCES", "0000000d"},
        {"NFS3ERR_EXIST", "00000011"},
        {"NFS3ERR_INVAL", "00000016"},
        {"NFS3ERR_FBIG", "0000001b"},
        {"NFS3ERR_NOT_SYNC", "00002712"},
        {"NFS3ERR_NOTSUPP", "00002714"},
        {"NFS3ERR_BADTYPE", "00002717"},
        {"MNT3_OK", "00000000"},
        {"MNT3ERR_ACCES", "0000000d"},

        // Handles: length, file ID (least significant byte first), zeros.
        {"root", "00000038 00000000 00*52"},
        {"disk", "00000038 01000000 00*52"},     // disk, "content!"
        {"folder", "00000038 02000000 00*52"},   // folder
        {"file", "00000038 03000000 00*52"},     // folder/file, empty: all that folder holds
        {"empty", "00000038 04000000 00*52"},    // empty, a folder
        {"gone", "00000038 05000000 00*52"},     // gone, removed since
        {"outside", "00000038 06000000 00*52"},  // the root of an export that was removed
        {"next", "00000038 07000000 00*52"},     // the first object that the vector itself makes
        {"unknown", "00000038 ffffff00 00*52"},  // no object

        // sattr3 that sets nothing
        {"unset", R"(
            00000000             # mode
            00000000             # uid
            00000000             # gid
            00000000             # size
            00000000             # atime: DONT_CHANGE
            00000000             # mtime: DONT_CHANGE
        )"},
        // post_op_attr without attributes
        {"no_attributes", "00000000"},
        // wcc_data of one object
        {"no_wcc", R"(
            00000000             # no attributes before
            00000000             # no attributes after
        )"},
        // post_op_attr of a file and of a folder, up to the times
        {"file_attributes", R"(
            00000001             # attributes follow
            00000001             # type: NF3REG
            000001a0             # mode: 0640
            00000001             # nlink
            00000000             # uid
            00000000             # gid
            <*.size> <*.size>    # size, used
            <*.rdev>             # rdev
            <*.fsid> <*.ino>     # fsid, fileid
        )"},
        {"folder_attributes", R"(
            00000001             # attributes follow
            00000002             # type: NF3DIR
            000001ed             # mode: 0755
            00000002             # nlink
            00000000             # uid
            00000000             # gid
            <*.size> <*.size>    # size, used
            <*.rdev>             # rdev
            <*.fsid> <*.ino>     # fsid, fileid
        )"},
        // The times of an object of the tree, and of one that the vector makes
        {"set_times", R"(
            01020304 00000000    # atime
            05060708 00000000    # mtime
            <*.ctime>            # ctime
        )"},
        {"new_times", "<*.atime> <*.mtime> <*.ctime>"},
    };
    for (const auto* procedures : {&kNfsProcedures, &kMountProcedures, &kPortmapProcedures}) {
        unsigned number = 0;
        for (const std::string& procedure : *procedures) {
            char word[9];
            std::snprintf(word, sizeof word, "%08x", number++);
            dictionary[procedure] = word;
        }
    }
    return dictionary;
}

inline const vectors::Dictionary kDictionary = MakeDictionary();

// ------------------------------------------------------------------------------------------------
// Portmapper
// ------------------------------------------------------------------------------------------------

inline const std::vector<vectors::Vector> kPortmap = vectors::VectorsOf(R"(
PortmapNullIsUnavailable
    call PORTMAP2 NULL host
    reply PROC_UNAVAIL

GetPortOfNfsIs2049
    call PORTMAP2 GETPORT host
        000186a3                 # program: NFS
        00000003                 # version
        00000006                 # protocol: TCP
        00000000                 # port
    reply SUCCESS
        00000801                 # port: 2049

GetPortOfMountIs1058
    call PORTMAP2 GETPORT host
        000186a5                 # program: MOUNT
        00000003                 # version
        00000011                 # protocol: UDP
        00000000                 # port
    reply SUCCESS
        00000422                 # port: 1058

GetPortOfAProgramThatIsNotServedIsZero
    call PORTMAP2 GETPORT host
        000186b5                 # program: NLM
        00000004                 # version
        00000006                 # protocol: TCP
        00000000                 # port
    reply SUCCESS
        00000000                 # port: none
)");

// ------------------------------------------------------------------------------------------------
// MOUNT; vm01 is mounted and vm02 is not
// ------------------------------------------------------------------------------------------------

inline const std::vector<vectors::Vector> kMount = vectors::VectorsOf(R"(
MountNullIsAnsweredWithNothing
    call MOUNT3 NULL host
    reply SUCCESS

MntIsTheHandleOfTheRootAndNoFlavour
    call MOUNT3 MNT host
        00000004 "vm02"          # dirpath: an export name
    reply SUCCESS MNT3_OK
        next                     # handle
        00000000                 # no authentication flavours

MntOfVersion1Is32BytesOfTheHandle
    call MOUNT1 MNT host
        00000004 "vm02"          # dirpath
    reply SUCCESS MNT3_OK
        07000000 00*28           # handle, fixed length

MntOfAnUnknownExportIsDenied
    call MOUNT3 MNT host
        00000004 "vm99"          # dirpath
    reply SUCCESS MNT3ERR_ACCES

MntOfVersion1OfAnUnknownExportIsDenied
    call MOUNT1 MNT host
        00000004 "vm99"          # dirpath
    reply SUCCESS MNT3ERR_ACCES

MntOfAMountedExportIsDeniedAlsoToItsOwnClient
    call MOUNT3 MNT host
        00000004 "vm01"          # dirpath
    reply SUCCESS MNT3ERR_ACCES

MntWithASlashInFrontIsAnotherName
    call MOUNT3 MNT host
        00000005 "/vm02" 00*3    # dirpath
    reply SUCCESS MNT3ERR_ACCES

MntOfAnEmptyNameIsDenied
    call MOUNT3 MNT host
        00000000                 # dirpath
    reply SUCCESS MNT3ERR_ACCES

MntOfANameOf4096BytesIsDenied
    call MOUNT3 MNT host
        00001000 61*4096         # dirpath
    reply SUCCESS MNT3ERR_ACCES

DumpIsUnavailable
    call MOUNT3 DUMP host
    reply PROC_UNAVAIL

UmntIsAnsweredWithNothing
    call MOUNT3 UMNT host
        00000004 "vm01"          # dirpath
    reply SUCCESS

UmntOfAnUnknownExportIsAnsweredWithNothing
    call MOUNT3 UMNT host
        00000004 "vm99"          # dirpath
    reply SUCCESS

UmntAllIsUnavailable
    call MOUNT3 UMNTALL host
    reply PROC_UNAVAIL

ExportIsUnavailable
    call MOUNT3 EXPORT host
    reply PROC_UNAVAIL
)");

}  // namespace rpcvectors
