#include "support/Nfs3Client.h"

#include <functional>
#include <utility>

namespace support {

// ------------------------------------------------------------------------------------------------
// Types of RFC 1813
// ------------------------------------------------------------------------------------------------

namespace {

enum Procedure : std::uint32_t {
    kNull = 0,
    kGetAttr = 1,
    kSetAttr = 2,
    kLookup = 3,
    kAccess = 4,
    kReadLink = 5,
    kRead = 6,
    kWrite = 7,
    kCreate = 8,
    kMkDir = 9,
    kSymLink = 10,
    kMkNod = 11,
    kRemove = 12,
    kRmDir = 13,
    kRename = 14,
    kLink = 15,
    kReadDir = 16,
    kReadDirPlus = 17,
    kFsStat = 18,
    kFsInfo = 19,
    kPathConf = 20,
    kCommit = 21,
};

NfsTime ReadTime(XdrReader& reader) {
    NfsTime time;
    time.seconds = reader.U32();
    time.nseconds = reader.U32();
    return time;
}

FileAttributes ReadAttributes(XdrReader& reader) {
    FileAttributes attributes;
    attributes.type = reader.U32();
    attributes.mode = reader.U32();
    attributes.nlink = reader.U32();
    attributes.uid = reader.U32();
    attributes.gid = reader.U32();
    attributes.size = reader.U64();
    attributes.used = reader.U64();
    attributes.rdevMajor = reader.U32();
    attributes.rdevMinor = reader.U32();
    attributes.fsid = reader.U64();
    attributes.fileid = reader.U64();
    attributes.atime = ReadTime(reader);
    attributes.mtime = ReadTime(reader);
    attributes.ctime = ReadTime(reader);
    return attributes;
}

std::optional<FileAttributes> ReadPostAttributes(XdrReader& reader) {
    return reader.Bool() ? std::optional(ReadAttributes(reader)) : std::nullopt;
}

std::optional<Handle> ReadPostHandle(XdrReader& reader) {
    return reader.Bool() ? std::optional(reader.Opaque()) : std::nullopt;
}

WccData ReadWcc(XdrReader& reader) {
    WccData wcc;
    if (reader.Bool()) {
        WccAttributes before;
        before.size = reader.U64();
        before.mtime = ReadTime(reader);
        before.ctime = ReadTime(reader);
        wcc.before = before;
    }
    wcc.after = ReadPostAttributes(reader);
    return wcc;
}

void WriteTimeToSet(XdrWriter& writer, const std::optional<NfsTime>& time, bool fromServer) {
    if (fromServer) {
        writer.U32(1);  // SET_TO_SERVER_TIME
    } else if (time) {
        writer.U32(2).U32(time->seconds).U32(time->nseconds);  // SET_TO_CLIENT_TIME
    } else {
        writer.U32(0);  // DONT_CHANGE
    }
}

// A result of the given type from a reply: the status, then what `fields` reads. A reply without
// results (not accepted, or an accept_stat other than SUCCESS) keeps kNoStatus.
template <class Result>
Result Decode(RpcReply rpc, const std::function<void(XdrReader&, Result&)>& fields) {
    Result result;
    if (rpc.replyStat == 0 && rpc.acceptStat == kSuccess) {
        XdrReader reader(rpc.body);
        result.status = reader.U32();
        fields(reader, result);
        result.unread = reader.Remaining();
    }
    result.rpc = std::move(rpc);
    return result;
}

CreateResult DecodeCreate(RpcReply rpc) {
    return Decode<CreateResult>(std::move(rpc), [](XdrReader& reader, CreateResult& result) {
        if (result.status == 0) {
            result.handle = ReadPostHandle(reader);
            result.attributes = ReadPostAttributes(reader);
        }
        result.directory = ReadWcc(reader);
    });
}

WccResult DecodeWcc(RpcReply rpc) {
    return Decode<WccResult>(
        std::move(rpc), [](XdrReader& reader, WccResult& result) { result.wcc = ReadWcc(reader); });
}

DirectoryResult DecodeDirectory(RpcReply rpc, bool plus) {
    return Decode<DirectoryResult>(std::move(rpc),
                                   [plus](XdrReader& reader, DirectoryResult& result) {
                                       result.directory = ReadPostAttributes(reader);
                                       if (result.status != 0) {
                                           return;
                                       }
                                       result.verifier = reader.FixedOpaque(8);
                                       while (reader.Bool()) {
                                           DirectoryEntry entry;
                                           entry.fileid = reader.U64();
                                           entry.name = reader.String();
                                           entry.cookie = reader.U64();
                                           if (plus) {
                                               entry.attributes = ReadPostAttributes(reader);
                                               entry.handle = ReadPostHandle(reader);
                                           }
                                           result.entries.push_back(std::move(entry));
                                       }
                                       result.eof = reader.Bool();
                                   });
}

}  // namespace

void SetAttributes::Write(XdrWriter& writer) const {
    for (const auto& field : {mode, uid, gid}) {
        writer.Bool(field.has_value());
        if (field) {
            writer.U32(*field);
        }
    }
    writer.Bool(size.has_value());
    if (size) {
        writer.U64(*size);
    }
    WriteTimeToSet(writer, atime, atimeFromServer);
    WriteTimeToSet(writer, mtime, mtimeFromServer);
}

// ------------------------------------------------------------------------------------------------
// Portmapper (RFC 1833, version 2) and MOUNT version 3 (RFC 1813, appendix I)
// ------------------------------------------------------------------------------------------------

RpcReply PortmapClient::Null() { return m_rpc.Call(kPortmapProgram, 2, 0); }

GetPortResult PortmapClient::GetPort(std::uint32_t program, std::uint32_t version,
                                     std::uint32_t protocol) {
    XdrWriter arguments;
    arguments.U32(program).U32(version).U32(protocol).U32(0);
    GetPortResult result;
    result.rpc = m_rpc.Call(kPortmapProgram, 2, 3, arguments.Data());
    if (result.rpc.acceptStat == kSuccess) {
        result.port = XdrReader(result.rpc.body).U32();
    }
    return result;
}

RpcReply MountClient::Null() { return m_rpc.Call(kMountProgram, 3, 0); }

MountResult MountClient::Mnt(const std::string& exportName, std::uint32_t version) {
    XdrWriter arguments;
    arguments.String(exportName);
    return Decode<MountResult>(m_rpc.Call(kMountProgram, version, 1, arguments.Data()),
                               [version](XdrReader& reader, MountResult& result) {
                                   if (result.status != 0) {
                                       return;
                                   }
                                   if (version == 1) {
                                       result.handle = reader.FixedOpaque(32);
                                       return;
                                   }
                                   result.handle = reader.Opaque();
                                   for (std::uint32_t left = reader.U32(); left > 0; --left) {
                                       result.flavors.push_back(reader.U32());
                                   }
                               });
}

RpcReply MountClient::Dump() { return m_rpc.Call(kMountProgram, 3, 2); }

RpcReply MountClient::Umnt(const std::string& exportName) {
    XdrWriter arguments;
    arguments.String(exportName);
    return m_rpc.Call(kMountProgram, 3, 3, arguments.Data());
}

RpcReply MountClient::UmntAll() { return m_rpc.Call(kMountProgram, 3, 4); }

RpcReply MountClient::Export() { return m_rpc.Call(kMountProgram, 3, 5); }

// ------------------------------------------------------------------------------------------------
// NFS version 3 (RFC 1813, section 3.3)
// ------------------------------------------------------------------------------------------------

RpcReply Nfs3Client::Call(std::uint32_t procedure, const XdrWriter& arguments) {
    return m_rpc.Call(kNfsProgram, 3, procedure, arguments.Data());
}

RpcReply Nfs3Client::Null() { return Call(kNull, {}); }

AttributesResult Nfs3Client::GetAttr(const Handle& object) {
    XdrWriter arguments;
    arguments.Opaque(object);
    return Decode<AttributesResult>(Call(kGetAttr, arguments),
                                    [](XdrReader& reader, AttributesResult& result) {
                                        if (result.status == 0) {
                                            result.attributes = ReadAttributes(reader);
                                        }
                                    });
}

WccResult Nfs3Client::SetAttr(const Handle& object, const SetAttributes& attributes,
                              std::optional<NfsTime> guard) {
    XdrWriter arguments;
    arguments.Opaque(object);
    attributes.Write(arguments);
    arguments.Bool(guard.has_value());
    if (guard) {
        arguments.U32(guard->seconds).U32(guard->nseconds);
    }
    return DecodeWcc(Call(kSetAttr, arguments));
}

LookupResult Nfs3Client::Lookup(const Handle& directory, const std::string& name) {
    XdrWriter arguments;
    arguments.Opaque(directory).String(name);
    return Decode<LookupResult>(Call(kLookup, arguments),
                                [](XdrReader& reader, LookupResult& result) {
                                    if (result.status == 0) {
                                        result.handle = reader.Opaque();
                                        result.attributes = ReadPostAttributes(reader);
                                    }
                                    result.directory = ReadPostAttributes(reader);
                                });
}

AccessResult Nfs3Client::Access(const Handle& object, std::uint32_t access) {
    XdrWriter arguments;
    arguments.Opaque(object).U32(access);
    return Decode<AccessResult>(Call(kAccess, arguments),
                                [](XdrReader& reader, AccessResult& result) {
                                    result.attributes = ReadPostAttributes(reader);
                                    if (result.status == 0) {
                                        result.access = reader.U32();
                                    }
                                });
}

PostAttributesResult Nfs3Client::ReadLink(const Handle& link) {
    XdrWriter arguments;
    arguments.Opaque(link);
    return Decode<PostAttributesResult>(Call(kReadLink, arguments),
                                        [](XdrReader& reader, PostAttributesResult& result) {
                                            result.attributes = ReadPostAttributes(reader);
                                        });
}

ReadResult Nfs3Client::Read(const Handle& file, std::uint64_t offset, std::uint32_t count) {
    XdrWriter arguments;
    arguments.Opaque(file).U64(offset).U32(count);
    return Decode<ReadResult>(Call(kRead, arguments), [](XdrReader& reader, ReadResult& result) {
        result.attributes = ReadPostAttributes(reader);
        if (result.status == 0) {
            result.count = reader.U32();
            result.eof = reader.Bool();
            result.data = reader.Opaque();
        }
    });
}

WriteResult Nfs3Client::Write(const Handle& file, std::uint64_t offset, const Bytes& data,
                              std::uint32_t stable, std::optional<std::uint32_t> count) {
    XdrWriter arguments;
    arguments.Opaque(file).U64(offset);
    arguments.U32(count.value_or(static_cast<std::uint32_t>(data.size())));
    arguments.U32(stable).Opaque(data);
    return Decode<WriteResult>(Call(kWrite, arguments), [](XdrReader& reader, WriteResult& result) {
        result.wcc = ReadWcc(reader);
        if (result.status == 0) {
            result.count = reader.U32();
            result.committed = reader.U32();
            result.verifier = reader.U64();
        }
    });
}

CreateResult Nfs3Client::Create(const Handle& directory, const std::string& name, CreateMode mode,
                                const SetAttributes& attributes, std::uint64_t verifier) {
    XdrWriter arguments;
    arguments.Opaque(directory).String(name).U32(static_cast<std::uint32_t>(mode));
    if (mode == CreateMode::Exclusive) {
        arguments.U64(verifier);
    } else {
        attributes.Write(arguments);
    }
    return DecodeCreate(Call(kCreate, arguments));
}

CreateResult Nfs3Client::MkDir(const Handle& directory, const std::string& name,
                               const SetAttributes& attributes) {
    XdrWriter arguments;
    arguments.Opaque(directory).String(name);
    attributes.Write(arguments);
    return DecodeCreate(Call(kMkDir, arguments));
}

CreateResult Nfs3Client::SymLink(const Handle& directory, const std::string& name,
                                 const std::string& target, const SetAttributes& attributes) {
    XdrWriter arguments;
    arguments.Opaque(directory).String(name);
    attributes.Write(arguments);
    arguments.String(target);
    return DecodeCreate(Call(kSymLink, arguments));
}

CreateResult Nfs3Client::MkNod(const Handle& directory, const std::string& name,
                               std::uint32_t type) {
    XdrWriter arguments;
    arguments.Opaque(directory).String(name).U32(type);
    const bool device = type == 3 || type == 4;
    if (device || type == 6 || type == 7) {
        SetAttributes().Write(arguments);
    }
    if (device) {
        arguments.U32(1).U32(3);  // specdata3
    }
    return DecodeCreate(Call(kMkNod, arguments));
}

WccResult Nfs3Client::Remove(const Handle& directory, const std::string& name) {
    XdrWriter arguments;
    arguments.Opaque(directory).String(name);
    return DecodeWcc(Call(kRemove, arguments));
}

WccResult Nfs3Client::RmDir(const Handle& directory, const std::string& name) {
    XdrWriter arguments;
    arguments.Opaque(directory).String(name);
    return DecodeWcc(Call(kRmDir, arguments));
}

RenameResult Nfs3Client::Rename(const Handle& fromDirectory, const std::string& fromName,
                                const Handle& toDirectory, const std::string& toName) {
    XdrWriter arguments;
    arguments.Opaque(fromDirectory).String(fromName).Opaque(toDirectory).String(toName);
    return Decode<RenameResult>(Call(kRename, arguments),
                                [](XdrReader& reader, RenameResult& result) {
                                    result.from = ReadWcc(reader);
                                    result.to = ReadWcc(reader);
                                });
}

LinkResult Nfs3Client::Link(const Handle& file, const Handle& directory, const std::string& name) {
    XdrWriter arguments;
    arguments.Opaque(file).Opaque(directory).String(name);
    return Decode<LinkResult>(Call(kLink, arguments), [](XdrReader& reader, LinkResult& result) {
        result.attributes = ReadPostAttributes(reader);
        result.directory = ReadWcc(reader);
    });
}

DirectoryResult Nfs3Client::ReadDir(const Handle& directory, std::uint64_t cookie,
                                    const Bytes& verifier, std::uint32_t count) {
    XdrWriter arguments;
    arguments.Opaque(directory).U64(cookie).FixedOpaque(verifier).U32(count);
    return DecodeDirectory(Call(kReadDir, arguments), false);
}

DirectoryResult Nfs3Client::ReadDirPlus(const Handle& directory, std::uint64_t cookie,
                                        const Bytes& verifier, std::uint32_t dircount,
                                        std::uint32_t maxcount) {
    XdrWriter arguments;
    arguments.Opaque(directory).U64(cookie).FixedOpaque(verifier).U32(dircount).U32(maxcount);
    return DecodeDirectory(Call(kReadDirPlus, arguments), true);
}

FsStatResult Nfs3Client::FsStat(const Handle& root) {
    XdrWriter arguments;
    arguments.Opaque(root);
    return Decode<FsStatResult>(Call(kFsStat, arguments),
                                [](XdrReader& reader, FsStatResult& result) {
                                    result.attributes = ReadPostAttributes(reader);
                                    if (result.status != 0) {
                                        return;
                                    }
                                    result.totalBytes = reader.U64();
                                    result.freeBytes = reader.U64();
                                    result.availableBytes = reader.U64();
                                    result.totalFiles = reader.U64();
                                    result.freeFiles = reader.U64();
                                    result.availableFiles = reader.U64();
                                    result.invarsec = reader.U32();
                                });
}

FsInfoResult Nfs3Client::FsInfo(const Handle& root) {
    XdrWriter arguments;
    arguments.Opaque(root);
    return Decode<FsInfoResult>(Call(kFsInfo, arguments),
                                [](XdrReader& reader, FsInfoResult& result) {
                                    result.attributes = ReadPostAttributes(reader);
                                    if (result.status != 0) {
                                        return;
                                    }
                                    result.rtmax = reader.U32();
                                    result.rtpref = reader.U32();
                                    result.rtmult = reader.U32();
                                    result.wtmax = reader.U32();
                                    result.wtpref = reader.U32();
                                    result.wtmult = reader.U32();
                                    result.dtpref = reader.U32();
                                    result.maxfilesize = reader.U64();
                                    result.timeDelta = ReadTime(reader);
                                    result.properties = reader.U32();
                                });
}

PostAttributesResult Nfs3Client::PathConf(const Handle& object) {
    XdrWriter arguments;
    arguments.Opaque(object);
    return Decode<PostAttributesResult>(Call(kPathConf, arguments),
                                        [](XdrReader& reader, PostAttributesResult& result) {
                                            result.attributes = ReadPostAttributes(reader);
                                        });
}

CommitResult Nfs3Client::Commit(const Handle& file, std::uint64_t offset, std::uint32_t count) {
    XdrWriter arguments;
    arguments.Opaque(file).U64(offset).U32(count);
    return Decode<CommitResult>(Call(kCommit, arguments),
                                [](XdrReader& reader, CommitResult& result) {
                                    result.wcc = ReadWcc(reader);
                                    if (result.status == 0) {
                                        result.verifier = reader.U64();
                                    }
                                });
}

}  // namespace support
