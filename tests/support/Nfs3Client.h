// Typed calls of the three programs that the server offers: portmapper (RFC 1833), MOUNT version 3
// and NFS version 3 (RFC 1813). Every result keeps the whole RPC reply, so that a test can look at
// the bytes as well.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/RpcClient.h"

namespace support {

// Statuses of MNT (RFC 1813, appendix I).
inline constexpr std::uint32_t MNT3_OK = 0;
inline constexpr std::uint32_t MNT3ERR_ACCES = 13;

using Handle = Bytes;

// ------------------------------------------------------------------------------------------------
// Types of RFC 1813
// ------------------------------------------------------------------------------------------------

struct NfsTime {
    std::uint32_t seconds = 0;
    std::uint32_t nseconds = 0;
    bool operator==(const NfsTime&) const = default;
};

struct FileAttributes {  // fattr3
    std::uint32_t type = 0;
    std::uint32_t mode = 0;
    std::uint32_t nlink = 0;
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
    std::uint64_t size = 0;
    std::uint64_t used = 0;
    std::uint32_t rdevMajor = 0;
    std::uint32_t rdevMinor = 0;
    std::uint64_t fsid = 0;
    std::uint64_t fileid = 0;
    NfsTime atime;
    NfsTime mtime;
    NfsTime ctime;
};

struct WccAttributes {  // wcc_attr
    std::uint64_t size = 0;
    NfsTime mtime;
    NfsTime ctime;
};

struct WccData {
    std::optional<WccAttributes> before;
    std::optional<FileAttributes> after;
    bool Empty() const { return !before && !after; }
};

// sattr3: what is absent is not set. A time is set to the server's clock (SET_TO_SERVER_TIME) or to
// a given value (SET_TO_CLIENT_TIME).
struct SetAttributes {
    std::optional<std::uint32_t> mode;
    std::optional<std::uint32_t> uid;
    std::optional<std::uint32_t> gid;
    std::optional<std::uint64_t> size;
    std::optional<NfsTime> atime;
    std::optional<NfsTime> mtime;
    bool atimeFromServer = false;
    bool mtimeFromServer = false;

    void Write(XdrWriter& writer) const;
};

enum class CreateMode : std::uint32_t { Unchecked = 0, Guarded = 1, Exclusive = 2 };

// ------------------------------------------------------------------------------------------------
// Results. `status` is nfsstat3 (or mountstat3); kNoStatus when the reply carries no results.
// Fields that a reply does not carry for its status keep their initial values.
// ------------------------------------------------------------------------------------------------

inline constexpr std::uint32_t kNoStatus = 0xFFFFFFFF;

struct NfsResult {
    RpcReply rpc;
    std::uint32_t status = kNoStatus;
    std::size_t unread = 0;  // bytes of the body behind the last field
};

struct AttributesResult : NfsResult {  // GETATTR
    FileAttributes attributes;
};
struct WccResult : NfsResult {  // SETATTR, REMOVE, RMDIR, MKNOD on failure
    WccData wcc;
};
struct LookupResult : NfsResult {
    Handle handle;
    std::optional<FileAttributes> attributes;
    std::optional<FileAttributes> directory;
};
struct AccessResult : NfsResult {
    std::optional<FileAttributes> attributes;
    std::uint32_t access = 0;
};
struct PostAttributesResult : NfsResult {  // failures of READLINK and PATHCONF
    std::optional<FileAttributes> attributes;
};
struct ReadResult : NfsResult {
    std::optional<FileAttributes> attributes;
    std::uint32_t count = 0;
    bool eof = false;
    Bytes data;
};
struct WriteResult : NfsResult {
    WccData wcc;
    std::uint32_t count = 0;
    std::uint32_t committed = 0;
    std::uint64_t verifier = 0;
};
struct CreateResult : NfsResult {  // CREATE, MKDIR, SYMLINK, MKNOD
    std::optional<Handle> handle;
    std::optional<FileAttributes> attributes;
    WccData directory;
};
struct RenameResult : NfsResult {
    WccData from;
    WccData to;
};
struct LinkResult : NfsResult {
    std::optional<FileAttributes> attributes;
    WccData directory;
};
struct DirectoryEntry {
    std::uint64_t fileid = 0;
    std::string name;
    std::uint64_t cookie = 0;
    std::optional<FileAttributes> attributes;  // READDIRPLUS only
    std::optional<Handle> handle;              // READDIRPLUS only
};
struct DirectoryResult : NfsResult {
    std::optional<FileAttributes> directory;
    Bytes verifier;  // 8 bytes
    std::vector<DirectoryEntry> entries;
    bool eof = false;
};
struct FsStatResult : NfsResult {
    std::optional<FileAttributes> attributes;
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
    std::uint64_t availableBytes = 0;
    std::uint64_t totalFiles = 0;
    std::uint64_t freeFiles = 0;
    std::uint64_t availableFiles = 0;
    std::uint32_t invarsec = 0;
};
struct FsInfoResult : NfsResult {
    std::optional<FileAttributes> attributes;
    std::uint32_t rtmax = 0;
    std::uint32_t rtpref = 0;
    std::uint32_t rtmult = 0;
    std::uint32_t wtmax = 0;
    std::uint32_t wtpref = 0;
    std::uint32_t wtmult = 0;
    std::uint32_t dtpref = 0;
    std::uint64_t maxfilesize = 0;
    NfsTime timeDelta;
    std::uint32_t properties = 0;
};
struct CommitResult : NfsResult {
    WccData wcc;
    std::uint64_t verifier = 0;
};
struct MountResult : NfsResult {
    Handle handle;
    std::vector<std::uint32_t> flavors;  // version 3 only
};
struct GetPortResult {
    RpcReply rpc;
    std::uint32_t port = 0;
};

// ------------------------------------------------------------------------------------------------
// Clients
// ------------------------------------------------------------------------------------------------

class PortmapClient {
public:
    explicit PortmapClient(Transport transport, int port = 111) : m_rpc(transport, port) {}
    RpcReply Null();
    // protocol: 6 = TCP, 17 = UDP.
    GetPortResult GetPort(std::uint32_t program, std::uint32_t version = 3,
                          std::uint32_t protocol = 6);
    RpcClient& Rpc() { return m_rpc; }

private:
    RpcClient m_rpc;
};

class MountClient {
public:
    explicit MountClient(Transport transport = Transport::Tcp, int port = 1058)
        : m_rpc(transport, port) {}
    RpcReply Null();
    // MNT in the reply layout of the version: 1 has a handle of 32 bytes and no flavours.
    MountResult Mnt(const std::string& exportName, std::uint32_t version = 3);
    RpcReply Dump();
    RpcReply Umnt(const std::string& exportName);
    RpcReply UmntAll();
    RpcReply Export();
    RpcClient& Rpc() { return m_rpc; }

private:
    RpcClient m_rpc;
};

class Nfs3Client {
public:
    explicit Nfs3Client(Transport transport = Transport::Tcp, int port = 2049)
        : m_rpc(transport, port) {}

    RpcReply Null();
    AttributesResult GetAttr(const Handle& object);
    // guard: the ctime that the object must have.
    WccResult SetAttr(const Handle& object, const SetAttributes& attributes,
                      std::optional<NfsTime> guard = std::nullopt);
    LookupResult Lookup(const Handle& directory, const std::string& name);
    AccessResult Access(const Handle& object, std::uint32_t access);
    PostAttributesResult ReadLink(const Handle& link);
    ReadResult Read(const Handle& file, std::uint64_t offset, std::uint32_t count);
    // count: the count word, when it shall differ from the size of the data.
    WriteResult Write(const Handle& file, std::uint64_t offset, const Bytes& data,
                      std::uint32_t stable = 2, std::optional<std::uint32_t> count = std::nullopt);
    CreateResult Create(const Handle& directory, const std::string& name,
                        CreateMode mode = CreateMode::Unchecked,
                        const SetAttributes& attributes = {}, std::uint64_t verifier = 0);
    CreateResult MkDir(const Handle& directory, const std::string& name,
                       const SetAttributes& attributes = {});
    CreateResult SymLink(const Handle& directory, const std::string& name,
                         const std::string& target, const SetAttributes& attributes = {});
    // type is ftype3; 3 and 4 send attributes and the device, 6 and 7 attributes.
    CreateResult MkNod(const Handle& directory, const std::string& name, std::uint32_t type);
    WccResult Remove(const Handle& directory, const std::string& name);
    WccResult RmDir(const Handle& directory, const std::string& name);
    RenameResult Rename(const Handle& fromDirectory, const std::string& fromName,
                        const Handle& toDirectory, const std::string& toName);
    LinkResult Link(const Handle& file, const Handle& directory, const std::string& name);
    DirectoryResult ReadDir(const Handle& directory, std::uint64_t cookie = 0,
                            const Bytes& verifier = Bytes(8), std::uint32_t count = 8192);
    DirectoryResult ReadDirPlus(const Handle& directory, std::uint64_t cookie = 0,
                                const Bytes& verifier = Bytes(8), std::uint32_t dircount = 8192,
                                std::uint32_t maxcount = 32768);
    FsStatResult FsStat(const Handle& root);
    FsInfoResult FsInfo(const Handle& root);
    PostAttributesResult PathConf(const Handle& object);
    CommitResult Commit(const Handle& file, std::uint64_t offset = 0, std::uint32_t count = 0);

    RpcClient& Rpc() { return m_rpc; }

private:
    RpcReply Call(std::uint32_t procedure, const XdrWriter& arguments);

    RpcClient m_rpc;
};

}  // namespace support
