// Calls that arrive in segments: however the bytes of a connection are cut, every call of the three
// programs is answered as if it had come whole, in order and once.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <future>
#include <random>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "MountProg.h"
#include "NfsProg.h"
#include "PortmapProg.h"
#include "RpcFixture.h"
#include "RpcServer.h"
#include "support/Faults.h"
#include "Utilities.h"

namespace faults = support::faults;

using support::Bytes;
using support::Hex;
using support::XdrWriter;

namespace {

// Attributes are the same in every run: times and inode numbers are what makes replies to the same
// calls differ, and nothing here depends on them.
class StableAttributes {
public:
    StableAttributes() {
        faults::AdjustLstat([](const char* path, struct stat* data) {
            data->st_ino = static_cast<ino_t>(std::hash<std::string>{}(path)&0xFFFFFF);
            data->st_atim = data->st_mtim = data->st_ctim = {1'000'000, 0};
        });
    }

private:
    faults::Guard m_guard;
};

#if defined(__SANITIZE_ADDRESS__)
// A sanitized run is ten times slower and needs no full coverage: the plain build has it.
constexpr std::size_t kStride = 13;
#else
constexpr std::size_t kStride = 1;
#endif

constexpr std::size_t kHeaderSize = 44;  // with the record mark; what the header search needs

// ------------------------------------------------------------------------------------------------
// Calls
// ------------------------------------------------------------------------------------------------

// What stands between the procedure number and the arguments.
struct Auth {
    std::size_t credential;  // bytes of the body
    std::size_t verifier;
};

std::ostream& operator<<(std::ostream& stream, const Auth& auth) {
    return stream << "credential " << auth.credential << ", verifier " << auth.verifier;
}

// What this server calls a body has no fill, so that any size will do.
constexpr Auth kAuths[] = {
    {0, 0}, {1, 0}, {3, 0},  {20, 0}, {56, 0},  {0, 8},
    {1, 8}, {3, 8}, {20, 8}, {56, 8}, {400, 0}, {400, 8},
};

// The body of an AUTH_SYS credential (RFC 5531, appendix A), cut or continued to the size.
Bytes CredentialBody(std::size_t size) {
    Bytes body = support::AuthSys(0, 0, {0, 1, 2, 3, 4, 6, 10}, "hypervisor-01.example").body;
    while (body.size() < size) {
        body.push_back(static_cast<std::uint8_t>(body.size() * 7));
    }
    body.resize(size);
    return body;
}

enum class Kind {
    Whole,    // answered when it has come whole
    Early,    // without arguments: answered when what the header search needs has come
    Refused,  // the same; besides, what comes behind it waits for the next receive
};

struct Call {
    std::uint32_t procedure;
    Bytes arguments;
    Kind kind = Kind::Whole;
    std::uint32_t version = 3;
};

using Calls = std::vector<Call>;

// The calls of one connection, one behind the other.
struct Stream {
    struct Extent {
        std::size_t begin;
        std::size_t end;
        Kind kind;
    };
    Bytes bytes;
    std::vector<Extent> calls;
};

Stream MakeStream(std::uint32_t program, const Calls& calls, const Auth& auth) {
    Stream stream;
    for (const Call& call : calls) {
        XdrWriter message;
        message.U32(0x5A000000 + static_cast<std::uint32_t>(stream.calls.size()));  // xid
        message.U32(0).U32(2).U32(program).U32(call.version).U32(call.procedure);
        for (const auto& [flavor, size] : {std::pair(1u, auth.credential), {6u, auth.verifier}}) {
            const Bytes body = CredentialBody(size);
            message.U32(size == 0 ? 0 : flavor).U32(static_cast<std::uint32_t>(size));
            message.Raw(body);
        }
        message.Raw(call.arguments);
        const Bytes record = support::WithRecordMark(message.Data());
        const std::size_t begin = stream.bytes.size();
        stream.bytes.insert(stream.bytes.end(), record.begin(), record.end());
        stream.calls.push_back({begin, stream.bytes.size(), call.kind});
    }
    return stream;
}

// The handle that carries a file ID.
Bytes HandleOf(std::uint8_t id) {
    Bytes handle(56);
    handle[0] = id;
    return handle;
}

XdrWriter Object(std::uint8_t id) { return std::move(XdrWriter().Opaque(HandleOf(id))); }
XdrWriter Name(std::uint8_t folder, const char* name) {
    return std::move(Object(folder).String(name));
}
// sattr3 with a mode or a size.
void Attributes(XdrWriter& writer, std::uint32_t mode, std::uint64_t size = 0) {
    writer.Bool(mode != 0);
    if (mode != 0) {
        writer.U32(mode);
    }
    writer.Bool(false).Bool(false).Bool(size != 0);
    if (size != 0) {
        writer.U64(size);
    }
    writer.U32(0).U32(1);  // the time of access as it is, that of modification from the server
}

// All procedures, each successful where this server lets it be; the export is in the end as it was
// in the beginning. File IDs: the root of the export is 0, the folder 1, the file 2.
Calls NfsCalls() {
    constexpr std::uint8_t ROOT = 0;
    constexpr std::uint8_t FOLDER = 1;
    constexpr std::uint8_t FILE = 2;
    const std::string text = support::PatternData(300);
    const Bytes data(text.begin(), text.end());
    XdrWriter mkdir = Name(ROOT, "d");
    Attributes(mkdir, 0750);
    XdrWriter create = Name(FOLDER, "a");
    create.U32(0);
    Attributes(create, 0640);
    XdrWriter setattr = Object(FILE);
    Attributes(setattr, 0600, 250);
    setattr.Bool(false);
    XdrWriter symlink = Name(FOLDER, "l");
    Attributes(symlink, 0777);
    symlink.String("a");
    XdrWriter mknod = Name(FOLDER, "n").U32(7);
    Attributes(mknod, 0600);
    return {
        {0, {}, Kind::Early},                                                   // NULL
        {19, Object(ROOT).Data()},                                              // FSINFO
        {9, mkdir.Data()},                                                      // MKDIR
        {8, create.Data()},                                                     // CREATE
        {7, Object(FILE).U64(0).U32(300).U32(2).Opaque(data).Data()},           // WRITE
        {6, Object(FILE).U64(10).U32(200).Data()},                              // READ
        {2, setattr.Data()},                                                    // SETATTR
        {1, Object(FILE).Data()},                                               // GETATTR
        {3, Name(FOLDER, "a").Data()},                                          // LOOKUP
        {4, Object(FILE).U32(0x3F).Data()},                                     // ACCESS
        {5, Object(FILE).Data()},                                               // READLINK
        {10, symlink.Data()},                                                   // SYMLINK
        {11, mknod.Data()},                                                     // MKNOD
        {15, Object(FILE).Opaque(HandleOf(FOLDER)).String("h").Data()},         // LINK
        {14, Name(FOLDER, "a").Opaque(HandleOf(FOLDER)).String("bcd").Data()},  // RENAME
        {16, Object(FOLDER).U64(0).U64(0).U32(4096).Data()},                    // READDIR
        {17, Object(FOLDER).U64(0).U64(0).U32(4096).U32(8192).Data()},          // READDIRPLUS
        {0, {}, Kind::Early},                                                   // NULL
        {18, Object(ROOT).Data()},                                              // FSSTAT
        {20, Object(ROOT).Data()},                                              // PATHCONF
        {21, Object(FILE).U64(0).U32(0).Data()},                                // COMMIT
        {12, Name(FOLDER, "bcd").Data()},                                       // REMOVE
        {13, Name(ROOT, "d").Data()},                                           // RMDIR
    };
}

Calls MountCalls() {
    const Bytes vm01 = XdrWriter().String("vm01").Data();
    return {
        {0, {}, Kind::Early},                    // NULL
        {1, vm01},                               // MNT
        {3, vm01},                               // UMNT
        {1, vm01, Kind::Whole, 1},               // MNT, with a handle of version 1
        {3, vm01, Kind::Whole, 1},               // UMNT
        {1, XdrWriter().String("none").Data()},  // MNT of what is not exported
    };
}
// DUMP, UMNTALL or EXPORT between calls that are served.
Calls MountCallsAround(std::uint32_t procedure) {
    const Bytes vm01 = XdrWriter().String("vm01").Data();
    return {{1, vm01}, {procedure, {}, Kind::Refused}, {3, vm01}};
}

Bytes Mapping(std::uint32_t program, std::uint32_t protocol, std::uint32_t port) {
    return XdrWriter().U32(program).U32(3).U32(protocol).U32(port).Data();
}
Calls PortmapCalls() {
    return {
        {3, Mapping(100003, 6, 0), Kind::Whole, 2},   // GETPORT
        {3, Mapping(100005, 17, 0), Kind::Whole, 2},  //
        {3, Mapping(100009, 6, 0), Kind::Whole, 2},   // of a program without a port
    };
}
// NULL, SET, UNSET, DUMP or CALLIT between calls that are served.
Calls PortmapCallsAround(std::uint32_t procedure) {
    const bool takesArguments = procedure != 0 && procedure != 4;
    return {
        {3, Mapping(100003, 6, 0), Kind::Whole, 2},
        {procedure, takesArguments ? Mapping(100003, 6, 2049) : Bytes(), Kind::Refused, 2},
        {3, Mapping(100005, 6, 0), Kind::Whole, 2},
    };
}

// ------------------------------------------------------------------------------------------------
// The programs behind one connection
// ------------------------------------------------------------------------------------------------

// The three programs with one export, whose state is the same at the begin of every run.
class Service {
public:
    Service() {
        char reason[STATUS_SIZE] = "";
        if (!m_utilities.AddMountInfo(&m_param, &m_label, m_folder.Path().c_str(), "vm01", "",
                                      reason)) {
            throw std::runtime_error(reason);
        }
        m_portmap.Set(100003, 2049);
        m_portmap.Set(100005, 1058);
        m_server.Set(100000, &m_portmap);
        m_server.Set(100003, &m_nfs);
        m_server.Set(100005, &m_mount);
    }

    // File IDs start again, with the root of the export as the first.
    void Restart() {
        m_utilities.ResetFileTable();
        m_utilities.GetFileID(&m_param, &m_label, m_folder.Path().c_str());
    }
    CRpcServer& Server() { return m_server; }

private:
    support::ScopedTempDir m_folder;
    CUtilities m_utilities;
    CRuntimeParam m_param{"test", 0};
    LogArgu m_label{"Test"};
    CPortmapProg m_portmap{&m_utilities};
    CNfsProg m_nfs{&m_utilities};
    CMountProg m_mount{&m_utilities};
    CRpcServer m_server{&m_utilities, &m_param};
};

// A connection whose receives are the test's: it runs on the receive thread, in the place of the
// loop that would receive from the network.
class Connection {
public:
    Connection(CSocket* socket, int peer, CRpcServer& server)
        : m_socket(socket), m_peer(peer), m_server(server), m_message(256 * 1024) {}

    // A new connection: nothing is left of an earlier one.
    void Restart() {
        m_socket->GetInputStream()->ResetBuffer();
        m_socket->GetOutputStream()->ResetBuffer();
        replies.clear();
    }
    // One receive.
    void Deliver(std::span<const std::uint8_t> bytes) {
        CInputStream* in = m_socket->GetInputStream();
        in->ConsolidateBuffer(0);
        std::copy(bytes.begin(), bytes.end(), in->GetFreeBuffer());
        in->AddFilledBufferSize(static_cast<std::uint32_t>(bytes.size()));
        m_server.SocketReceived(m_socket);
        ssize_t count = 0;
        while ((count = recv(m_peer, m_message.data(), m_message.size(), MSG_DONTWAIT)) > 0) {
            replies.emplace_back(m_message.begin(), m_message.begin() + count);
        }
    }

    std::vector<Bytes> replies;  // each is what one send carried

private:
    CSocket* m_socket;
    const int m_peer;
    CRpcServer& m_server;
    Bytes m_message;
};

// Runs a body with a connection of the program.
void OnConnection(unsigned long program, Service& service,
                  const std::function<void(Connection&)>& body) {
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds), 0);
    std::promise<void> done;
    ListenerSpy listener([&](CSocket* socket) {
        ListenerSpy::TakeAll(socket);
        Connection connection(socket, fds[0], service.Server());
        try {
            body(connection);
        } catch (const std::exception& e) {
            ADD_FAILURE() << e.what();
        }
        done.set_value();
    });
    {
        CSocket socket(SOCKET_TYPE_TCP, program);
        const sockaddr_in address = MakeAddress("192.0.2.7", 700);
        socket.Open(fds[1], &listener, &address);
        ASSERT_EQ(write(fds[0], "", 1), 1);
        done.get_future().wait();
    }
    close(fds[0]);
}

// ------------------------------------------------------------------------------------------------
// Runs
// ------------------------------------------------------------------------------------------------

struct Program {
    const char* name;
    std::uint32_t number;
    Call further;  // a call that is served and changes nothing
    std::vector<Calls> sequences;
};

std::ostream& operator<<(std::ostream& stream, const Program& program) {
    return stream << program.name;
}

const Program kPrograms[] = {
    {"Portmap",
     100000,
     {3, Mapping(0, 0, 0), Kind::Whole, 2},
     {PortmapCalls(), PortmapCallsAround(0), PortmapCallsAround(1), PortmapCallsAround(2),
      PortmapCallsAround(4), PortmapCallsAround(5)}},
    {"Nfs", 100003, {0, {}, Kind::Early}, {NfsCalls()}},
    {"Mount",
     100005,
     {0, {}, Kind::Early},
     {MountCalls(), MountCallsAround(2), MountCallsAround(4), MountCallsAround(5)}},
};

// Calls of a program under one kind of credential, and the replies when each came whole. Behind
// them comes a further call for each refused one, so that nothing is left waiting.
class Sequence {
public:
    Sequence(const Program& program, const Calls& calls, const Auth& auth, Service& service,
             Connection& connection)
        : m_further(static_cast<std::size_t>(
              std::count_if(calls.begin(), calls.end(),
                            [](const Call& call) { return call.kind == Kind::Refused; }))),
          m_stream(
              MakeStream(program.number, WithFurther(calls, program.further, m_further), auth)),
          m_service(service),
          m_connection(connection) {
        m_service.Restart();
        m_connection.Restart();
        for (const Stream::Extent& call : m_stream.calls) {
            m_connection.Deliver(Slice(call.begin, call.end));
        }
        m_replies = m_connection.replies;
    }

    // The bytes that are cut; the further calls come whole.
    std::size_t Size() const { return m_stream.calls[Count() - m_further - 1].end; }
    const std::vector<Bytes>& Replies() const { return m_replies; }
    std::size_t Count() const { return m_stream.calls.size(); }

    // Delivers everything with cuts at the given positions (ascending, none at an end). False, with
    // a failure that tells how, unless the replies are the right ones.
    bool Run(const std::vector<std::size_t>& cuts) {
        m_service.Restart();
        m_connection.Restart();
        m_checked = 0;
        std::size_t begin = 0;
        for (const std::size_t cut : cuts) {
            if (!Deliver(begin, cut)) {
                return false;
            }
            begin = cut;
        }
        if (!Deliver(begin, Size())) {
            return false;
        }
        for (std::size_t i = Count() - m_further; i < Count(); ++i) {
            if (!Deliver(m_stream.calls[i].begin, m_stream.calls[i].end)) {
                return false;
            }
        }
        if (m_checked != Count()) {
            ADD_FAILURE() << m_checked << " replies to " << Count() << " calls";
            return false;
        }
        return true;
    }
    bool RunInPieces(std::size_t size) {
        std::vector<std::size_t> cuts;
        for (std::size_t at = size; at < Size(); at += size) {
            cuts.push_back(at);
        }
        return Run(cuts);
    }

private:
    static Calls WithFurther(Calls calls, const Call& further, std::size_t count) {
        calls.insert(calls.end(), count, further);
        return calls;
    }
    std::span<const std::uint8_t> Slice(std::size_t begin, std::size_t end) const {
        return std::span(m_stream.bytes).subspan(begin, end - begin);
    }

    // One receive, whose replies are checked.
    bool Deliver(std::size_t begin, std::size_t end) {
        m_connection.Deliver(Slice(begin, end));
        const std::vector<Bytes>& replies = m_connection.replies;
        for (; m_checked < replies.size(); ++m_checked) {
            if (m_checked >= Count()) {
                ADD_FAILURE() << "a reply too many after " << end
                              << " bytes: " << Hex(replies.back());
                return false;
            }
            const Stream::Extent& call = m_stream.calls[m_checked];
            if (end < (call.kind == Kind::Whole ? call.end : call.begin + kHeaderSize)) {
                ADD_FAILURE() << "reply " << m_checked << " came too early, after " << end
                              << " bytes: " << Hex(replies[m_checked]);
                return false;
            }
            if (!IsReply(m_checked, replies[m_checked], end)) {
                ADD_FAILURE() << "reply " << m_checked << " after " << end << " bytes\nis     "
                              << Hex(replies[m_checked]) << "\nand not "
                              << Hex(m_replies[m_checked]);
                return false;
            }
        }
        // Nothing waits that could be answered, unless a refused call has ended the round.
        if (m_further == 0 && m_checked < Count() && m_stream.calls[m_checked].end <= end) {
            ADD_FAILURE() << "no reply " << m_checked << " after " << end << " bytes";
            return false;
        }
        return true;
    }

    // Whether it is the reply to call i. One that comes before the whole header has come shows no
    // verifier, or only its flavour.
    bool IsReply(std::size_t i, Bytes reply, std::size_t end) const {
        const Bytes& expected = m_replies[i];
        if (reply == expected) {
            return true;
        }
        constexpr std::ptrdiff_t VERIFIER = 16;
        if (m_stream.calls[i].kind == Kind::Whole || end >= m_stream.calls[i].end ||
            reply.size() != expected.size()) {
            return false;
        }
        const bool noLength =
            std::all_of(reply.begin() + VERIFIER + 4, reply.begin() + VERIFIER + 8,
                        [](std::uint8_t byte) { return byte == 0; });
        std::copy_n(expected.begin() + VERIFIER, 8, reply.begin() + VERIFIER);
        return noLength && reply == expected;
    }

    const std::size_t m_further;
    const Stream m_stream;
    Service& m_service;
    Connection& m_connection;
    std::vector<Bytes> m_replies;
    std::size_t m_checked = 0;  // replies of the present run
};

class RpcSegmentsTest : public testing::TestWithParam<Program> {
protected:
    // Runs a body with every sequence of the program under every kind of credential.
    void ForEach(const std::function<void(Sequence&)>& body) {
        OnConnection(GetParam().number, m_service, [&](Connection& connection) {
            for (const Calls& calls : GetParam().sequences) {
                for (const Auth& auth : kAuths) {
                    SCOPED_TRACE(auth);
                    Sequence sequence(GetParam(), calls, auth, m_service, connection);
                    ASSERT_EQ(sequence.Replies().size(), sequence.Count());
                    body(sequence);
                    if (HasFailure()) {
                        return;
                    }
                }
            }
        });
    }
    // How many sequences that makes.
    static std::size_t Sequences() { return GetParam().sequences.size() * std::size(kAuths); }

    const StableAttributes m_stable;
    Service m_service;
};

INSTANTIATE_TEST_SUITE_P(Programs, RpcSegmentsTest, testing::ValuesIn(kPrograms),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

TEST_P(RpcSegmentsTest, CallsThatComeWholeAreServed) {
    // NFS knows no links and devices, and not how to commit; each of the others does its work.
    const std::set<std::uint32_t> unserved = {5, 10, 11, 15, 20, 21};
    OnConnection(GetParam().number, m_service, [&](Connection& connection) {
        const Calls& calls = GetParam().sequences.front();
        const Sequence sequence(GetParam(), calls, {0, 0}, m_service, connection);
        ASSERT_EQ(sequence.Replies().size(), calls.size());
        for (std::size_t i = 0; i < calls.size(); ++i) {
            SCOPED_TRACE("call " + std::to_string(i));
            support::XdrReader reader(sequence.Replies()[i]);
            reader.Raw(24);
            EXPECT_EQ(reader.U32(), support::kSuccess);
            if (GetParam().number == support::kNfsProgram && !reader.AtEnd()) {
                EXPECT_EQ(reader.U32() == 0, !unserved.contains(calls[i].procedure));
            }
        }
    });
}

TEST_P(RpcSegmentsTest, InOnePieceTheRepliesAreTheSame) {
    ForEach([](Sequence& sequence) { ASSERT_TRUE(sequence.Run({})); });
}

TEST_P(RpcSegmentsTest, CutAtEveryByte) {
    std::size_t runs = 0;
    ForEach([&](Sequence& sequence) {
        for (std::size_t cut = 1; cut < sequence.Size(); cut += kStride) {
            SCOPED_TRACE("cut at " + std::to_string(cut));
            ASSERT_TRUE(sequence.Run({cut}));
            ++runs;
        }
    });
    std::printf("cut at %zu places\n", runs);
}

TEST_P(RpcSegmentsTest, InPiecesOfOneSize) {
    ForEach([](Sequence& sequence) {
        for (const std::size_t size : {1u, 7u, 44u, 536u, 1460u}) {
            SCOPED_TRACE("pieces of " + std::to_string(size));
            ASSERT_TRUE(sequence.RunInPieces(size));
        }
    });
}

TEST_P(RpcSegmentsTest, AtRandomCuts) {
    const std::uint64_t seed = support::RandomSeed();
    std::printf("VELOCAST_SEED=%llu\n", static_cast<unsigned long long>(seed));
    std::mt19937_64 random(seed);
    ForEach([&](Sequence& sequence) {
        for (std::size_t i = 0; i < 10'000 / Sequences() / kStride + 1; ++i) {
            std::vector<std::size_t> cuts(1 + random() % 20);
            for (std::size_t& cut : cuts) {
                cut = 1 + random() % (sequence.Size() - 1);
            }
            std::sort(cuts.begin(), cuts.end());
            cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
            SCOPED_TRACE("cuts at " + testing::PrintToString(cuts));
            ASSERT_TRUE(sequence.Run(cuts));
        }
    });
}
