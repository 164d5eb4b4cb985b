// The types of the NFS version 3 protocol (RFC 1813, sections 2.5 and 2.6), as held in memory.
#ifndef VELOCAST_NFS3TYPES_H
#define VELOCAST_NFS3TYPES_H

#include <cstdint>
#include <string>

// Bytes of a file handle, here and in the reply of MOUNT.
inline constexpr std::uint32_t NFS_HANDLE_SIZE = 56;

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

// How CREATE treats an existing file; any other number is refused.
enum createmode3 : std::uint32_t {
    CREATE_UNCHECKED = 0,
    CREATE_GUARDED = 1,
    CREATE_EXCLUSIVE = 2,
};

// Where a time to be set comes from.  The server's time arrives as time 0.
enum time_how : std::uint32_t {
    DONT_CHANGE = 0,
    SET_TO_SERVER_TIME = 1,
    SET_TO_CLIENT_TIME = 2,
};

// The text of a path or name argument.
struct COpaquePath {
    const char* c_str() const { return sPath.c_str(); }

    std::string sPath;
};

// A run of bytes that lie elsewhere: of an argument, in the input stream's buffer.
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
    unsigned char cHandle[NFS_HANDLE_SIZE];
};
static_assert(sizeof(nfs_fh3) == NFS_HANDLE_SIZE);

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

struct set_atime {
    std::uint32_t set_it = DONT_CHANGE;  // time_how, or any other number
    nfstime3 atime;
};

struct set_mtime {
    std::uint32_t set_it = DONT_CHANGE;  // as set_atime
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
    std::uint32_t mode = CREATE_UNCHECKED;  // createmode3, or any other number
    sattr3 obj_attributes;
    std::uint64_t verf = 0;
};

struct mknoddata3 {
    std::uint32_t type = 0;
    sattr3 dev_attributes;
    specdata3 dev_spec;
    sattr3 pipe_attributes;
};

#endif
