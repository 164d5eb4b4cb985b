// The NFS program, continuing RpcVectors.h.
#pragma once

#include "vectors/RpcVectors.h"

namespace rpcvectors {

// ------------------------------------------------------------------------------------------------
// Attributes and data
// ------------------------------------------------------------------------------------------------

inline const std::vector<vectors::Vector> kNfsData = vectors::VectorsOf(R"(
NfsNullIsAnsweredWithNothing
    call NFS3 NULL host
    reply SUCCESS

GetAttrOfAFileIsItsAttributes
    call NFS3 GETATTR host
        disk                     # object
    reply SUCCESS NFS3_OK
        00000001                 # type: NF3REG
        000001a0                 # mode: 0640
        00000001                 # nlink
        00000000                 # uid
        00000000                 # gid
        0000000000000008         # size
        0000000000000008         # used
        <disk.rdev>              # rdev: the device that holds the file
        <disk.fsid>              # fsid
        <disk.ino>               # fileid
        01020304 00000000        # atime
        05060708 00000000        # mtime
        <disk.ctime>             # ctime

GetAttrOfAFolderIsItsAttributes
    call NFS3 GETATTR host
        folder                   # object
    reply SUCCESS NFS3_OK
        00000002                 # type: NF3DIR
        000001ed                 # mode: 0755
        00000002                 # nlink
        00000000                 # uid
        00000000                 # gid
        <folder.size>            # size
        <folder.size>            # used: the same
        <folder.rdev>            # rdev: the device that holds the folder
        <folder.fsid>            # fsid
        <folder.ino>             # fileid
        01020304 00000000        # atime
        05060708 00000000        # mtime
        <folder.ctime>           # ctime

GetAttrOfARemovedFileIsAnIoError
    call NFS3 GETATTR host
        gone                     # object
    reply SUCCESS NFS3ERR_IO

GetAttrOutsideEveryExportIsAnIoError
    call NFS3 GETATTR host
        outside                  # object
    reply SUCCESS NFS3ERR_IO

GetAttrOfAnUnknownHandleIsAnIoError
    call NFS3 GETATTR host
        unknown                  # object
    reply SUCCESS NFS3ERR_IO

SetAttrIsAnsweredWithoutAttributes
    call NFS3 SETATTR host
        disk                     # object
        00000001 000001a4        # mode: 0644
        00000001 00000007        # uid
        00000001 00000008        # gid
        00000001 0000000000000003 # size
        00000002 00000001 00000002 # atime: SET_TO_CLIENT_TIME
        00000001                 # mtime: SET_TO_SERVER_TIME
        00000000                 # no guard
    reply SUCCESS NFS3_OK
        no_wcc                   # obj_wcc

SetAttrWithAGuardOfZeroSecondsIsDone
    call NFS3 SETATTR host
        disk                     # object
        unset                    # new_attributes
        00000001 00000000 00000009 # guard: ctime of 0 s and 9 ns
    reply SUCCESS NFS3_OK
        no_wcc                   # obj_wcc

SetAttrWithTheGuardOfTheRealCtimeIsNotSync
    call NFS3 SETATTR host
        disk                     # object
        unset                    # new_attributes
        00000001 <disk.ctime>    # guard
    reply SUCCESS NFS3ERR_NOT_SYNC
        no_wcc                   # obj_wcc

SetAttrOfTheSizeOfAFolderIsInvalid
    call NFS3 SETATTR host
        folder                   # object
        00000000                 # mode
        00000000                 # uid
        00000000                 # gid
        00000001 0000000000000000 # size
        00000000                 # atime: DONT_CHANGE
        00000000                 # mtime: DONT_CHANGE
        00000000                 # no guard
    reply SUCCESS NFS3ERR_INVAL
        no_wcc                   # obj_wcc

SetAttrOfARemovedFileIsAnIoError
    call NFS3 SETATTR host
        gone                     # object
        unset                    # new_attributes
        00000000                 # no guard
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # obj_wcc

LookupIsTheHandleAndTheAttributesOfTheObjectAlone
    call NFS3 LOOKUP host
        root                     # dir
        00000004 "disk"          # name
    reply SUCCESS NFS3_OK
        disk                     # object
        file_attributes:disk set_times:disk # obj_attributes
        no_attributes            # dir_attributes

LookupOfAMissingNameIsNoEntry
    call NFS3 LOOKUP host
        root                     # dir
        00000004 "none"          # name
    reply SUCCESS NFS3ERR_NOENT
        no_attributes            # dir_attributes

LookupOfWhatLiesAboveTheExportIsNoEntry
    call NFS3 LOOKUP host
        root                     # dir
        00000002 ".." 00*2       # name
    reply SUCCESS NFS3ERR_NOENT
        no_attributes            # dir_attributes

LookupInAnUnknownHandleIsNoEntry
    call NFS3 LOOKUP host
        unknown                  # dir
        00000004 "disk"          # name
    reply SUCCESS NFS3ERR_NOENT
        no_attributes            # dir_attributes

AccessIsGrantedAsAsked
    call NFS3 ACCESS host
        disk                     # object
        0000003f                 # READ, LOOKUP, MODIFY, EXTEND, DELETE, EXECUTE
    reply SUCCESS NFS3_OK
        file_attributes:disk set_times:disk # obj_attributes
        0000003f                 # access

AccessToARemovedFileIsAnIoError
    call NFS3 ACCESS host
        gone                     # object
        0000003f                 # access
    reply SUCCESS NFS3ERR_IO
        no_attributes            # obj_attributes

ReadRenameOfWhatWasNeverLookedUpIsAnIoErrorAlthoughItIsDone
    call NFS3 RENAME host
        root                     # from: dir
        00000004 "rare"          # from: name
        root                     # to: dir
        00000004 "made"          # to: name
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # fromdir_wcc
        no_wcc                   # todir_wcc

LinkIsAnIoError
    call NFS3 READLINK host
        disk                     # symlink
    reply SUCCESS NFS3ERR_IO
        no_attributes            # symlink_attributes

ReadToTheEndIsTheDataAndEofWithoutAttributes
    call NFS3 READ host
        disk                     # file
        0000000000000000         # offset
        00010000                 # count: 65536
    reply SUCCESS NFS3_OK
        no_attributes            # file_attributes
        00000008                 # count
        00000001                 # eof
        00000008 "content!"      # data

ReadInTheMiddleIsNotTheEnd
    call NFS3 READ host
        disk                     # file
        0000000000000002         # offset
        00000004                 # count
    reply SUCCESS NFS3_OK
        no_attributes            # file_attributes
        00000004                 # count
        00000000                 # not eof
        00000004 "nten"          # data

ReadBehindTheEndIsNothingAndEof
    call NFS3 READ host
        disk                     # file
        0000000000000009         # offset
        00000004                 # count
    reply SUCCESS NFS3_OK
        no_attributes            # file_attributes
        00000000                 # count
        00000001                 # eof
        00000000                 # data

ReadOfNothingIsEofAlsoBeforeTheEnd
    call NFS3 READ host
        disk                     # file
        0000000000000000         # offset
        00000000                 # count
    reply SUCCESS NFS3_OK
        no_attributes            # file_attributes
        00000000                 # count
        00000001                 # eof
        00000000                 # data

ReadOfMoreThanAReplyHoldsIsInvalid
    call NFS3 READ host
        disk                     # file
        0000000000000000         # offset
        00100000                 # count: 1 MiB
    reply SUCCESS NFS3ERR_INVAL
        no_attributes            # file_attributes

ReadOfAFolderIsInvalid
    call NFS3 READ host
        folder                   # file
        0000000000000000         # offset
        00000004                 # count
    reply SUCCESS NFS3ERR_INVAL
        no_attributes            # file_attributes

ReadOfARemovedFileIsAnIoError
    call NFS3 READ host
        gone                     # file
        0000000000000000         # offset
        00000004                 # count
    reply SUCCESS NFS3ERR_IO
        no_attributes            # file_attributes

WriteIsFileSyncWithTheVerifierOfThisRun
    call NFS3 WRITE host
        disk                     # file
        0000000000000008         # offset
        00000004                 # count
        00000000                 # stable: UNSTABLE
        00000004 "more"          # data
    reply SUCCESS NFS3_OK
        no_wcc                   # file_wcc
        00000004                 # count
        00000002                 # committed: FILE_SYNC
        0000018bcfe5687b         # verf: the first call came at 1700000000.123

WriteOf20000BytesIsDoneFor16384
    call NFS3 WRITE host
        disk                     # file
        0000000000000000         # offset
        00004e20                 # count: 20000
        00000002                 # stable: FILE_SYNC
        00004e20 61*20000        # data
    reply SUCCESS NFS3_OK
        no_wcc                   # file_wcc
        00004000                 # count: 16384
        00000002                 # committed: FILE_SYNC
        0000018bcfe5687b         # verf

WriteBehindTheLargestFileIsTooLarge
    call NFS3 WRITE host
        disk                     # file
        0000020000000000         # offset: 2 TiB
        00000004                 # count
        00000002                 # stable: FILE_SYNC
        00000004 "more"          # data
    reply SUCCESS NFS3ERR_FBIG
        no_wcc                   # file_wcc

WriteToAFolderIsInvalid
    call NFS3 WRITE host
        folder                   # file
        0000000000000000         # offset
        00000004                 # count
        00000002                 # stable: FILE_SYNC
        00000004 "more"          # data
    reply SUCCESS NFS3ERR_INVAL
        no_wcc                   # file_wcc

WriteToARemovedFileIsAnIoError
    call NFS3 WRITE host
        gone                     # file
        0000000000000000         # offset
        00000004                 # count
        00000002                 # stable: FILE_SYNC
        00000004 "more"          # data
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # file_wcc

FsStatIsTheSpaceOfTheFileSystem
    call NFS3 FSSTAT host
        folder                   # fsroot
    reply SUCCESS NFS3_OK
        folder_attributes:folder set_times:folder # obj_attributes
        <folder.tbytes>          # tbytes
        <folder.fbytes>          # fbytes
        <folder.abytes>          # abytes
        <folder.tfiles>          # tfiles
        <folder.ffiles>          # ffiles
        <folder.ffiles>          # afiles: as ffiles
        00000000                 # invarsec

FsStatOfARemovedFileIsAnIoError
    call NFS3 FSSTAT host
        gone                     # fsroot
    reply SUCCESS NFS3ERR_IO
        no_attributes            # obj_attributes

FsInfoIsTheLimitsOfTheServer
    call NFS3 FSINFO host
        folder                   # fsroot
    reply SUCCESS NFS3_OK
        folder_attributes:folder set_times:folder # obj_attributes
        00010000                 # rtmax: 65536
        00010000                 # rtpref
        00000200                 # rtmult: 512
        00004000                 # wtmax: 16384
        00004000                 # wtpref
        00000200                 # wtmult: 512
        00002000                 # dtpref: 8192
        0000020000000000         # maxfilesize: 2 TiB
        00000001 00000000        # time_delta: 1 s
        00000018                 # properties: HOMOGENEOUS, CANSETTIME

FsInfoOfARemovedFileIsAnIoError
    call NFS3 FSINFO host
        gone                     # fsroot
    reply SUCCESS NFS3ERR_IO
        no_attributes            # obj_attributes

PathConfIsAnIoError
    call NFS3 PATHCONF host
        root                     # object
    reply SUCCESS NFS3ERR_IO
        no_attributes            # obj_attributes

CommitIsAnIoError
    call NFS3 COMMIT host
        disk                     # file
        0000000000000000         # offset
        00000000                 # count
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # file_wcc
)");

// ------------------------------------------------------------------------------------------------
// Directories and names
// ------------------------------------------------------------------------------------------------

inline const std::vector<vectors::Vector> kNfsNames = vectors::VectorsOf(R"(
CreateIsTheHandleAndTheAttributesOfTheNewFile
    call NFS3 CREATE host
        root                     # where: dir
        00000004 "made"          # where: name
        00000000                 # how: UNCHECKED
        00000001 000001a0        # mode: 0640
        00000000                 # uid
        00000000                 # gid
        00000000                 # size
        00000000                 # atime: DONT_CHANGE
        00000000                 # mtime: DONT_CHANGE
    reply SUCCESS NFS3_OK
        00000001                 # handle follows
        next                     # obj
        file_attributes:made new_times:made # obj_attributes
        no_wcc                   # dir_wcc

UncheckedCreateOfAnExistingFileLeavesItAsItIs
    call NFS3 CREATE host
        root                     # where: dir
        00000004 "disk"          # where: name
        00000000                 # how: UNCHECKED
        unset                    # obj_attributes
    reply SUCCESS NFS3_OK
        00000001                 # handle follows
        disk                     # obj
        file_attributes:disk set_times:disk # obj_attributes
        no_wcc                   # dir_wcc

ExclusiveCreateOfAnExistingFileSucceeds
    call NFS3 CREATE host
        root                     # where: dir
        00000004 "disk"          # where: name
        00000002                 # how: EXCLUSIVE
        0123456789abcdef         # verf
    reply SUCCESS NFS3_OK
        00000001                 # handle follows
        disk                     # obj
        file_attributes:disk set_times:disk # obj_attributes
        no_wcc                   # dir_wcc

GuardedCreateOfAnExistingFileIsRefused
    call NFS3 CREATE host
        root                     # where: dir
        00000004 "disk"          # where: name
        00000001                 # how: GUARDED
        unset                    # obj_attributes
    reply SUCCESS NFS3ERR_EXIST
        no_wcc                   # dir_wcc

CreateInAnUnknownModeIsAnIoError
    call NFS3 CREATE host
        root                     # where: dir
        00000004 "made"          # where: name
        00000003                 # how: unknown
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # dir_wcc

CreateOverAFolderIsAnIoError
    call NFS3 CREATE host
        root                     # where: dir
        00000006 "folder" 00*2   # where: name
        00000000                 # how: UNCHECKED
        unset                    # obj_attributes
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # dir_wcc

CreateOutsideEveryExportIsAnIoError
    call NFS3 CREATE host
        outside                  # where: dir
        00000004 "made"          # where: name
        00000000                 # how: UNCHECKED
        unset                    # obj_attributes
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # dir_wcc

MkDirIsTheHandleAndTheAttributesOfTheNewFolder
    call NFS3 MKDIR host
        root                     # where: dir
        00000004 "made"          # where: name
        unset                    # attributes
    reply SUCCESS NFS3_OK
        00000001                 # handle follows
        next                     # obj
        folder_attributes:made new_times:made # obj_attributes
        no_wcc                   # dir_wcc

MkDirOfAnExistingNameIsAnIoError
    call NFS3 MKDIR host
        root                     # where: dir
        00000004 "disk"          # where: name
        unset                    # attributes
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # dir_wcc

SymLinkIsAnIoError
    call NFS3 SYMLINK host
        root                     # where: dir
        00000004 "link"          # where: name
        unset                    # symlink_attributes
        00000004 "disk"          # symlink_data
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # dir_wcc

MkNodOfABlockDeviceIsNotSupported
    call NFS3 MKNOD host
        root                     # where: dir
        00000004 "node"          # where: name
        00000003                 # what: NF3BLK
        unset                    # dev_attributes
        00000008 00000001        # spec
    reply SUCCESS NFS3ERR_NOTSUPP
        no_wcc                   # dir_wcc

MkNodOfAPipeIsNotSupported
    call NFS3 MKNOD host
        root                     # where: dir
        00000004 "node"          # where: name
        00000007                 # what: NF3FIFO
        unset                    # pipe_attributes
    reply SUCCESS NFS3ERR_NOTSUPP
        no_wcc                   # dir_wcc

MkNodOfARegularFileIsABadType
    call NFS3 MKNOD host
        root                     # where: dir
        00000004 "node"          # where: name
        00000001                 # what: NF3REG
    reply SUCCESS NFS3ERR_BADTYPE
        no_wcc                   # dir_wcc

RemoveIsAnsweredWithoutAttributes
    call NFS3 REMOVE host
        root                     # object: dir
        00000004 "disk"          # object: name
    reply SUCCESS NFS3_OK
        no_wcc                   # dir_wcc

RemoveOfAnEmptyFolderRemovesIt
    call NFS3 REMOVE host
        root                     # object: dir
        00000005 "empty" 00*3    # object: name
    reply SUCCESS NFS3_OK
        no_wcc                   # dir_wcc

RemoveOfAMissingNameIsNoEntry
    call NFS3 REMOVE host
        root                     # object: dir
        00000004 "none"          # object: name
    reply SUCCESS NFS3ERR_NOENT
        no_wcc                   # dir_wcc

RemoveOfAFolderThatHoldsAFileIsAnIoError
    call NFS3 REMOVE host
        root                     # object: dir
        00000006 "folder" 00*2   # object: name
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # dir_wcc

RmDirIsAnsweredWithoutAttributes
    call NFS3 RMDIR host
        root                     # object: dir
        00000005 "empty" 00*3    # object: name
    reply SUCCESS NFS3_OK
        no_wcc                   # dir_wcc

RmDirOfAMissingNameIsNoEntry
    call NFS3 RMDIR host
        root                     # object: dir
        00000004 "none"          # object: name
    reply SUCCESS NFS3ERR_NOENT
        no_wcc                   # dir_wcc

RmDirOfAFolderThatHoldsAFileIsAnIoError
    call NFS3 RMDIR host
        root                     # object: dir
        00000006 "folder" 00*2   # object: name
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # dir_wcc

RenameIsAnsweredWithoutAttributes
    call NFS3 RENAME host
        root                     # from: dir
        00000004 "disk"          # from: name
        folder                   # to: dir
        00000004 "made"          # to: name
    reply SUCCESS NFS3_OK
        no_wcc                   # fromdir_wcc
        no_wcc                   # todir_wcc

RenameOfAMissingNameIsNoEntry
    call NFS3 RENAME host
        root                     # from: dir
        00000004 "none"          # from: name
        folder                   # to: dir
        00000004 "made"          # to: name
    reply SUCCESS NFS3ERR_NOENT
        no_wcc                   # fromdir_wcc
        no_wcc                   # todir_wcc

RenameIntoARemovedFolderIsAnIoError
    call NFS3 RENAME host
        root                     # from: dir
        00000004 "disk"          # from: name
        gone                     # to: dir
        00000004 "made"          # to: name
    reply SUCCESS NFS3ERR_IO
        no_wcc                   # fromdir_wcc
        no_wcc                   # todir_wcc

LinkIsAnIoError
    call NFS3 LINK host
        disk                     # file
        root                     # link: dir
        00000004 "link"          # link: name
    reply SUCCESS NFS3ERR_IO
        no_attributes            # file_attributes
        no_wcc                   # linkdir_wcc

ReadDirIsTheEntriesUnderTheirFileIds
    call NFS3 READDIR host
        folder                   # dir
        0000000000000000         # cookie
        0123456789abcdef         # cookieverf
        00002000                 # count
    reply SUCCESS NFS3_OK
        folder_attributes:folder set_times:folder # dir_attributes
        0123456789abcdef         # cookieverf: the call's
        00000001                 # an entry follows
        0000000000000003         # fileid
        00000004 "file"          # name
        0000000000000001         # cookie
        00000000                 # no further entry
        00000001                 # eof

ReadDirBehindTheLastEntryIsNothingAndEof
    call NFS3 READDIR host
        folder                   # dir
        0000000000000001         # cookie
        0000000000000000         # cookieverf
        00002000                 # count
    reply SUCCESS NFS3_OK
        folder_attributes:folder set_times:folder # dir_attributes
        0000000000000000         # cookieverf
        00000000                 # no entry
        00000001                 # eof

ReadDirOfARemovedFolderIsAnIoError
    call NFS3 READDIR host
        gone                     # dir
        0000000000000000         # cookie
        0000000000000000         # cookieverf
        00002000                 # count
    reply SUCCESS NFS3ERR_IO
        no_attributes            # dir_attributes

ReadDirPlusIsTheEntriesWithAttributesAndHandles
    call NFS3 READDIRPLUS host
        folder                   # dir
        0000000000000000         # cookie
        0000000000000000         # cookieverf
        00000200                 # dircount
        00002000                 # maxcount
    reply SUCCESS NFS3_OK
        folder_attributes:folder set_times:folder # dir_attributes
        0000000000000000         # cookieverf
        00000001                 # an entry follows
        0000000000000003         # fileid
        00000004 "file"          # name
        0000000000000001         # cookie
        file_attributes:folder/file set_times:folder/file # name_attributes
        00000001                 # name_handle follows
        file
        00000000                 # no further entry
        00000001                 # eof

ReadDirPlusOfAnEmptyFolderIsNothingAndEof
    call NFS3 READDIRPLUS host
        empty                    # dir
        0000000000000000         # cookie
        0000000000000000         # cookieverf
        00000200                 # dircount
        00002000                 # maxcount
    reply SUCCESS NFS3_OK
        folder_attributes:empty set_times:empty # dir_attributes
        0000000000000000         # cookieverf
        00000000                 # no entry
        00000001                 # eof

ReadDirPlusOfARemovedFolderIsAnIoError
    call NFS3 READDIRPLUS host
        gone                     # dir
        0000000000000000         # cookie
        0000000000000000         # cookieverf
        00000200                 # dircount
        00002000                 # maxcount
    reply SUCCESS NFS3ERR_IO
        no_attributes            # dir_attributes
)");

// ------------------------------------------------------------------------------------------------
// A read-only server
// ------------------------------------------------------------------------------------------------

inline const std::vector<vectors::Vector> kReadOnly = vectors::VectorsOf(R"(
AccessIsGrantedToReadAndLookUpAlone
    call NFS3 ACCESS host
        disk                     # object
        0000003f                 # READ, LOOKUP, MODIFY, EXTEND, DELETE, EXECUTE
    reply SUCCESS NFS3_OK
        file_attributes:disk set_times:disk # obj_attributes
        00000003                 # access: READ, LOOKUP

SetAttrIsDone
    call NFS3 SETATTR host
        disk                     # object
        unset                    # new_attributes
        00000000                 # no guard
    reply SUCCESS NFS3_OK
        no_wcc                   # obj_wcc

WriteIsDenied
    call NFS3 WRITE host
        disk                     # file
        0000000000000000         # offset
        00000004                 # count
        00000002                 # stable: FILE_SYNC
        00000004 "more"          # data
    reply SUCCESS NFS3ERR_ACCES
        no_wcc                   # file_wcc

WriteToARemovedFileIsDeniedToo
    call NFS3 WRITE host
        gone                     # file
        0000000000000000         # offset
        00000004                 # count
        00000002                 # stable: FILE_SYNC
        00000004 "more"          # data
    reply SUCCESS NFS3ERR_ACCES
        no_wcc                   # file_wcc

CreateIsDenied
    call NFS3 CREATE host
        root                     # where: dir
        00000004 "made"          # where: name
        00000000                 # how: UNCHECKED
        unset                    # obj_attributes
    reply SUCCESS NFS3ERR_ACCES
        no_wcc                   # dir_wcc

MkDirIsDenied
    call NFS3 MKDIR host
        root                     # where: dir
        00000004 "made"          # where: name
        unset                    # attributes
    reply SUCCESS NFS3ERR_ACCES
        no_wcc                   # dir_wcc

RemoveIsDenied
    call NFS3 REMOVE host
        root                     # object: dir
        00000004 "disk"          # object: name
    reply SUCCESS NFS3ERR_ACCES
        no_wcc                   # dir_wcc

RemoveOfAMissingNameIsNoEntry
    call NFS3 REMOVE host
        root                     # object: dir
        00000004 "none"          # object: name
    reply SUCCESS NFS3ERR_NOENT
        no_wcc                   # dir_wcc

RmDirIsDenied
    call NFS3 RMDIR host
        root                     # object: dir
        00000005 "empty" 00*3    # object: name
    reply SUCCESS NFS3ERR_ACCES
        no_wcc                   # dir_wcc

RenameIsDenied
    call NFS3 RENAME host
        root                     # from: dir
        00000004 "disk"          # from: name
        root                     # to: dir
        00000004 "made"          # to: name
    reply SUCCESS NFS3ERR_ACCES
        no_wcc                   # fromdir_wcc
        no_wcc                   # todir_wcc
)");

// ------------------------------------------------------------------------------------------------
// The very first call of the program; after a call of version 3 the server passes over these
// ------------------------------------------------------------------------------------------------

inline const std::vector<vectors::Vector> kFirstCalls = vectors::VectorsOf(R"(
NfsVersion2IsUnavailable
    call NFS2 NULL host
    reply PROC_UNAVAIL

NfsProcedure22IsUnavailable
    call NFS3
        00000016                 # procedure: 22
        host
    reply PROC_UNAVAIL
)");

}  // namespace rpcvectors
