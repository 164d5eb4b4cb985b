// ctest-labels: threaded
//
// The NFS version 3 program: dispatch, handles, paths, attributes, and the codecs of its types.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "Nfs3Call.h"
#include "Nfs3Prog.h"
#include "Nfs3Types.h"
#include "Nfs3Xdr.h"
#include "NfsServiceFixture.h"
#include "support/Faults.h"

using support::faults::LstatFault;

using namespace nfstest;
using namespace support;

namespace {

// --- A valid call of every procedure -------------------------------------------------------------

struct Procedure {
    std::uint32_t number;
    const char* name;
    Bytes arguments;
    // For a handle that resolves to nothing: the status, and the words that follow it.
    std::uint32_t lostStatus;
    Bytes lostBody;
};

const Bytes kNoAttr = Words({0});                   // post_op_attr without attributes
const Bytes kTwoEmptyWccs = Words({0, 0, 0, 0});    // of RENAME
const Bytes kNoAttrAndEmptyWcc = Words({0, 0, 0});  // of LINK

// On a folder that holds the file "f" and the folder "d".
std::vector<Procedure> AllProcedures(const Handle& directory) {
    const Bytes dir = OpaqueOf(directory);
    const Bytes name = StringOf("f");
    return {
        {0, "NULL", {}, 0, {}},
        {1, "GETATTR", dir, 5, {}},
        {2, "SETATTR", dir + kNoAttributes + Words({0}), 5, kEmptyWcc},
        {3, "LOOKUP", dir + name, 2, kNoAttr},
        {4, "ACCESS", dir + Words({1}), 5, kNoAttr},
        {5, "READLINK", dir, 5, kNoAttr},
        {6, "READ", dir + Words({0, 0, 1}), 5, kNoAttr},
        {7, "WRITE", dir + Words({0, 0, 3, 2}) + StringOf("abc"), 5, kEmptyWcc},
        {8, "CREATE", dir + StringOf("new") + Words({0}) + kNoAttributes, 5, kEmptyWcc},
        {9, "MKDIR", dir + StringOf("new folder") + kNoAttributes, 5, kEmptyWcc},
        {10, "SYMLINK", dir + StringOf("link") + kNoAttributes + StringOf("f"), 5, kEmptyWcc},
        {11, "MKNOD", dir + StringOf("pipe") + Words({7}) + kNoAttributes, 10004, kEmptyWcc},
        {12, "REMOVE", dir + name, 2, kEmptyWcc},
        {13, "RMDIR", dir + StringOf("d"), 2, kEmptyWcc},
        {14, "RENAME", dir + name + dir + StringOf("g"), 2, kTwoEmptyWccs},
        {15, "LINK", dir + dir + StringOf("g"), 5, kNoAttrAndEmptyWcc},
        {16, "READDIR", dir + Words({0, 0, 0, 0, 512}), 5, kNoAttr},
        {17, "READDIRPLUS", dir + Words({0, 0, 0, 0, 512, 4096}), 5, kNoAttr},
        {18, "FSSTAT", dir, 5, kNoAttr},
        {19, "FSINFO", dir, 5, kNoAttr},
        {20, "PATHCONF", dir, 5, kNoAttr},
        {21, "COMMIT", dir + Words({0, 0, 0}), 5, kEmptyWcc},
    };
}

class Nfs3ProgTest : public NfsServiceTest {
protected:
    FileAttributes AttributesOfRoot() { return nfs->GetAttr(rootHandle).attributes; }
};

// The program alone, with one export that holds "f" and "d"; the export's handle has the ID 0.
class Nfs3ProgAloneTest : public ::testing::Test {
protected:
    Nfs3ProgAloneTest() {
        LogArgu logArgu{"test"};
        CRuntimeParam param("", 0);
        char reason[STATUS_SIZE] = "";
        EXPECT_TRUE(bench.utilities.AddMountInfo(&param, &logArgu, folder.Path().c_str(), "vm01",
                                                 "controller-1", reason));
        EXPECT_EQ(0u, bench.utilities.GetFileID(&param, &logArgu, folder.Path().c_str()));
        WriteFile(folder / "f", "content");
        EXPECT_EQ(0, mkdir((folder / "d").c_str(), 0755));
    }

    std::vector<Procedure> Procedures() const { return AllProcedures(HandleOfId(0)); }

    ScopedTempDir folder;
    ProgramBench bench;
    CNfs3Prog program{&bench.utilities};
};

// A call outside every procedure, with the label "test".
struct LooseCall {
    explicit LooseCall(CUtilities* utilities, int logControl = 0)
        : param("10.0.0.9", logControl), call(utilities, "test", &in, &out, &processParam) {}

    CInputStream in;
    COutputStream out;
    CRuntimeParam param;
    ProcessParam processParam{3, 1, "10.0.0.9", &param};
    CNfs3Call call;
};

// A stream that holds the bytes.
std::unique_ptr<CInputStream> InputOf(const Bytes& bytes) {
    auto in = std::make_unique<CInputStream>();
    std::memcpy(in->GetFreeBuffer(), bytes.data(), bytes.size());
    in->AddFilledBufferSize(static_cast<std::uint32_t>(bytes.size()));
    return in;
}

// What the calls write to a stream that is at its start.
Bytes Written(const std::function<void(COutputStream*)>& write) {
    COutputStream out;
    write(&out);
    return Bytes(out.GetBuffer(), out.GetBuffer() + out.GetBufferIndex());
}

}  // namespace

// =================================================================================================
// Dispatch
// =================================================================================================

TEST_F(Nfs3ProgTest, NullIsAnsweredWithNothing) {
    Log(kAllLogBits & ~LOG_CONTROL_RPC);
    for (const Transport transport : {Transport::Tcp, Transport::Udp}) {
        const RpcReply reply = Nfs3Client(transport).Null();
        EXPECT_EQ(kSuccess, reply.acceptStat);
        EXPECT_TRUE(reply.body.empty());
    }
    const Texts once{"info [Nfs3Prog.Process]", "info [Nfs3Prog.ProcedureNULL]"};
    EXPECT_EQ((Texts{once[0], once[1], once[0], once[1]}), log.From(""));
}

TEST_F(Nfs3ProgTest, EveryNumberReachesItsProcedure) {
    MakeFile("f");
    MakeFolder("d");
    for (const Procedure& procedure : AllProcedures(rootHandle)) {
        SCOPED_TRACE(procedure.name);
        Log(LOG_CONTROL_PROC_FUNC_NAME);
        EXPECT_EQ(kSuccess, Call(procedure.number, procedure.arguments).acceptStat);
        Texts names;
        for (const LogLine& line : log.Lines()) {
            if (line.text.ends_with(']')) {
                names.push_back(LoggedUtilities::KindOf(line) + " " + line.text);
            }
        }
        EXPECT_EQ((Texts{"info [Nfs3Prog.Process]",
                         std::string("info [Nfs3Prog.Procedure") + procedure.name + "]"}),
                  names);
    }
}

TEST_F(Nfs3ProgTest, EveryProcedureLogsItsStatusAtTheEnd) {
    MakeFile("f");
    MakeFolder("d");
    for (const Procedure& procedure : AllProcedures(rootHandle)) {
        if (procedure.number == 0) {
            continue;
        }
        SCOPED_TRACE(procedure.name);
        Log(LOG_CONTROL_PROC_FUNC_ARGU);
        const RpcReply reply = Call(procedure.number, procedure.arguments);
        const std::uint32_t status = XdrReader(reply.body).U32();
        ASSERT_FALSE(log.Lines().empty());
        EXPECT_EQ(std::string("[Nfs3Prog.Procedure") + procedure.name +
                      "] End stat=" + std::to_string(status),
                  log.Lines().back().text);

        Log(kAllLogBits & ~LOG_CONTROL_PROC_FUNC_ARGU);
        Call(procedure.number, procedure.arguments);
        for (const LogLine& line : log.Lines()) {
            EXPECT_EQ(std::string::npos, line.text.find("End stat=")) << line.text;
        }
    }
}

TEST(Nfs3ProgFirstCallTest, ProcedureBeyondTheLastIsUnavailable) {
    LoggedMain service;
    LoggedUtilities& log = service.Log();
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(service.StartServer(0, 0, 0, 0, false, reason)) << reason;
    service.SetLogControl(LOG_CONTROL_PROC_FUNC_NAME);
    // Accepted by the header search because no version-3 program limits it yet.
    RpcClient client(Transport::Tcp, 2049);
    EXPECT_EQ(kProcUnavail, client.Call(kNfsProgram, 3, 22).acceptStat);
    EXPECT_EQ((Texts{"info [Nfs3Prog.Process]", "info [Nfs3Prog.ProcedureNOIMP]"}), log.From(""));
}

TEST(Nfs3ProgFirstCallTest, OtherVersionsAreUnavailable) {
    LoggedMain service;
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(service.StartServer(0, 0, 0, 0, false, reason)) << reason;
    RpcClient client(Transport::Tcp, 2049);
    for (const std::uint32_t version : {0u, 2u, 4u, 0xFFFFFFFFu}) {
        const RpcReply reply = client.Call(kNfsProgram, version, 0);
        EXPECT_EQ(kProcUnavail, reply.acceptStat) << version;
        EXPECT_TRUE(reply.body.empty()) << version;
    }
    EXPECT_EQ(kSuccess, client.Call(kNfsProgram, 3, 0).acceptStat);
}

TEST_F(Nfs3ProgAloneTest, ProceduresFrom22OnAreNotImplemented) {
    bench.logControl = LOG_CONTROL_PROC_FUNC_NAME;
    for (const std::uint32_t number : {22u, 23u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(number);
        bench.log.Forget();
        const Outcome outcome = bench.Run(program, number, OpaqueOf(HandleOfId(0)));
        EXPECT_EQ(PROG_RESULT_NOIMP, outcome.result);
        EXPECT_TRUE(outcome.reply.empty());
        EXPECT_EQ((Texts{"info [Nfs3Prog.Process]", "info [Nfs3Prog.ProcedureNOIMP]"}),
                  bench.log.From(""));
    }
}

TEST_F(Nfs3ProgAloneTest, SupportsVersion3AndItsTwentyTwoProcedures) {
    EXPECT_EQ(3u, program.GetVersion());
    EXPECT_EQ(22u, program.GetMaxSupportProc());
}

TEST_F(Nfs3ProgAloneTest, NothingIsImplementedWithoutTheServiceObject) {
    CNfs3Prog orphan(nullptr);
    bench.logControl = kAllLogBits;
    for (const Procedure& procedure : Procedures()) {
        EXPECT_EQ(PROG_RESULT_NOIMP,
                  bench.Run(orphan, procedure.number, procedure.arguments).result)
            << procedure.name;
    }
}

TEST_F(Nfs3ProgAloneTest, EveryProcedureReadsAllItsArgumentsFirst) {
    bench.logControl = LOG_CONTROL_ERROR;
    for (const Procedure& procedure : Procedures()) {
        for (std::size_t size = 0; size < procedure.arguments.size(); ++size) {
            SCOPED_TRACE(std::string(procedure.name) + " cut to " + std::to_string(size));
            bench.log.Forget();
            const auto end = procedure.arguments.begin() + static_cast<std::ptrdiff_t>(size);
            const Outcome outcome =
                bench.Run(program, procedure.number, Bytes(procedure.arguments.begin(), end));
            EXPECT_EQ(PROG_RESULT_TRUNCATED, outcome.result);
            EXPECT_TRUE(outcome.reply.empty());
            ASSERT_EQ(1u, bench.log.Lines().size());
            EXPECT_TRUE(bench.log.Lines()[0].text.starts_with(
                "[Nfs3Prog.Process] Data is truncated.Missing "));
            EXPECT_EQ(LogKind::Error, bench.log.Lines()[0].kind);
        }
    }
    EXPECT_EQ("content", ReadFile(folder / "f"));
    EXPECT_TRUE(FileExists(folder / "d"));
    for (const char* name : {"new", "new folder", "g", "link", "pipe"}) {
        EXPECT_FALSE(FileExists(folder / name)) << name;
    }
    bench.log.Forget();
    bench.logControl = kAllLogBits & ~LOG_CONTROL_ERROR;
    EXPECT_EQ(PROG_RESULT_TRUNCATED, bench.Run(program, 1).result);
    EXPECT_FALSE(bench.log.Has("error", "[Nfs3Prog.Process] Data is truncated.Missing 4 data"));
}

TEST_F(Nfs3ProgAloneTest, EveryProcedureConsumesItsArgumentsExactly) {
    for (const Procedure& procedure : Procedures()) {
        const Outcome outcome =
            bench.Run(program, procedure.number, procedure.arguments + Words({0, 0}));
        EXPECT_EQ(PROG_RESULT_DONE, outcome.result) << procedure.name;
        EXPECT_EQ(8u, outcome.unread) << procedure.name;
    }
}

TEST_F(Nfs3ProgAloneTest, AnyOtherExceptionIsGarbage) {
    bench.log.ThrowAt("[Nfs3Prog.ProcedureGETATTR] Path = ");
    bench.logControl = LOG_CONTROL_PROC_FUNC_ARGU | LOG_CONTROL_ERROR;
    EXPECT_EQ(PROG_RESULT_GARBAGE, bench.Run(program, 1, OpaqueOf(HandleOfId(0))).result);
    EXPECT_EQ((Texts{"error [Nfs3Prog.Process] Unknown exception"}), bench.log.From(""));
    bench.log.Forget();
    bench.logControl = LOG_CONTROL_PROC_FUNC_ARGU;
    EXPECT_EQ(PROG_RESULT_GARBAGE, bench.Run(program, 1, OpaqueOf(HandleOfId(0))).result);
    EXPECT_EQ(Texts{}, bench.log.From(""));
}

TEST_F(Nfs3ProgTest, CallCutInTwoOnTcpIsAnsweredOnceItIsWhole) {
    const Bytes call = WithRecordMark(BuildCall(0x4711, kNfsProgram, 3, 1, OpaqueOf(rootHandle)));
    const auto middle = call.end() - 20;  // inside the handle
    Log(LOG_CONTROL_ERROR);
    nfs->Rpc().SendRaw(Bytes(call.begin(), middle));
    ASSERT_TRUE(WaitFor([this] {
        return log.Has("error", "[Nfs3Prog.Process] Data is truncated.Missing 20 data");
    }));
    nfs->Rpc().SendRaw(Bytes(middle, call.end()));
    const RpcReply reply = nfs->Rpc().ReceiveReply();
    EXPECT_EQ(0x4711u, reply.xid);
    EXPECT_EQ(Hex(Words({0}) + AttributesOf(root)), Hex(reply.body));
}

TEST_F(Nfs3ProgTest, AnswersAreTheSameOverUdp) {
    const Handle file = NewFile("f", "content");
    MakeFolder("d");
    Lookup("d");
    RpcClient udp(Transport::Udp, 2049);
    for (const Handle& handle : {rootHandle, file, HandleOfId(99)}) {
        for (const Procedure& procedure : AllProcedures(handle)) {
            SCOPED_TRACE(std::string(procedure.name) + " of " + Hex(handle).substr(0, 12));
            if (procedure.number == 8 || procedure.number == 9 ||
                (procedure.number >= 12 && procedure.number <= 14)) {
                continue;  // not to be done twice
            }
            const RpcReply first = Call(procedure.number, procedure.arguments);
            const RpcReply second = udp.Call(kNfsProgram, 3, procedure.number, procedure.arguments);
            EXPECT_EQ(first.acceptStat, second.acceptStat);
            EXPECT_EQ(first.body.size(), second.body.size());
            if (procedure.number != 6 && procedure.number != 16 && procedure.number != 17) {
                EXPECT_EQ(Hex(first.body), Hex(second.body));  // the others hold fill
            }
        }
    }
}

TEST_F(Nfs3ProgTest, ClientsAtTheSameTimeGetTheirOwnAnswers) {
    constexpr int kClients = 4;
    constexpr std::uint64_t kRounds = 25;
    std::vector<std::thread> threads;
    for (int client = 0; client < kClients; ++client) {
        threads.emplace_back([this, client] {
            Nfs3Client own(client % 2 == 0 ? Transport::Tcp : Transport::Udp);
            if (client % 2 != 0) {
                own.Rpc().SetRetransmission(Milliseconds(2000));
            }
            const std::string name = "file" + std::to_string(client);
            const Handle file = own.Create(rootHandle, name).handle.value();
            for (std::uint64_t round = 0; round < kRounds; ++round) {
                const auto seed = static_cast<std::uint64_t>(client) * kRounds + round;
                const Bytes data = ToBytes(PatternData(3000, seed));
                EXPECT_EQ(3000u, own.Write(file, round * 3000, data).count);
                EXPECT_EQ(data, own.Read(file, round * 3000, 3000).data);
            }
            EXPECT_EQ(kRounds * 3000, own.GetAttr(file).attributes.size);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// =================================================================================================
// Handles, and which export a call belongs to
// =================================================================================================

TEST_F(Nfs3ProgTest, HandleThatResolvesToNothingIsAnIoErrorOrNoEntry) {
    for (const Handle& lost : {
             Handle{},                // no bytes at all
             Handle(3),               // too short for a file ID
             HandleOfId(0xFFFFFFFF),  // the ID that is none
             HandleOfId(99),          // beyond the last row
             HandleOfId(0x7FFFFFFF),  // in a bucket that does not exist
             HandleOfId(0x80000000),  //
         }) {
        for (const Procedure& procedure : AllProcedures(lost)) {
            if (procedure.number == 0) {
                continue;
            }
            SCOPED_TRACE(std::string(procedure.name) + " of " + Hex(lost));
            Log(LOG_CONTROL_ERROR);
            const RpcReply reply = Call(procedure.number, procedure.arguments);
            EXPECT_EQ(kSuccess, reply.acceptStat);
            EXPECT_EQ(Hex(Words({procedure.lostStatus}) + procedure.lostBody), Hex(reply.body));
            EXPECT_TRUE(log.Has("error", std::string("[Nfs3Prog.Procedure") + procedure.name +
                                             "] Path record not found"));
        }
    }
}

TEST_F(Nfs3ProgTest, LostPathIsToldUnderTheErrorBitOnly) {
    Log(kAllLogBits & ~LOG_CONTROL_ERROR);
    EXPECT_EQ(NFS3ERR_IO, nfs->GetAttr(HandleOfId(99)).status);
    EXPECT_FALSE(log.Has("error", "[Nfs3Prog.ProcedureGETATTR] Path record not found"));
}

TEST_F(Nfs3ProgTest, OnlyTheFirstFourBytesOfAHandleCount) {
    const Handle file = NewFile("f");
    const std::uint32_t id = IdOfHandle(file);
    ASSERT_NE(0u, id);
    for (const std::size_t size : {4u, 5u, 32u, 56u, 64u, 4000u}) {
        const Bytes reply = Call(1, OpaqueOf(HandleOfId(id, size))).body;
        EXPECT_EQ(Hex(Words({0}) + AttributesOf(PathOf("f"))), Hex(reply)) << size;
    }
    Handle garnished = file;
    garnished[4] = 0xFF;
    garnished[55] = 0x80;
    EXPECT_EQ(NFS3_OK, nfs->GetAttr(garnished).status);
}

TEST_F(Nfs3ProgTest, HandleOfAllZerosIsTheFirstPath) {
    EXPECT_EQ(Handle(56), rootHandle);
    EXPECT_EQ(NFS3_OK, nfs->GetAttr(Handle(56)).status);
}

TEST_F(Nfs3ProgTest, HandleOfARemovedExportIsRefused) {
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(service.AddMountPoint((folder / "vm02").c_str(), "vm02", reason));
    service.RemoveMountPoint(root.c_str());  // not the last one: the handle still has a path
    Log(LOG_CONTROL_ERROR | LOG_CONTROL_PROC_FUNC_ARGU);
    EXPECT_EQ(NFS3ERR_IO, nfs->GetAttr(rootHandle).status);
    EXPECT_EQ((Texts{"info [Nfs3Prog.ProcedureGETATTR] Path = " + root,
                     "error [Nfs3Prog.ProcedureGETATTR] Path record not found",
                     "info [Nfs3Prog.ProcedureGETATTR] End stat=5"}),
              log.From(""));
}

TEST_F(Nfs3ProgTest, HandleOfAMissingFileIsAnIoError) {
    const Handle file = NewFile("f");
    ASSERT_EQ(0, unlink(PathOf("f").c_str()));
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(Hex(Words({5})), Hex(Call(1, OpaqueOf(file)).body));
    EXPECT_EQ(Hex(Words({5, 0, 0})),
              Hex(Call(2, OpaqueOf(file) + kNoAttributes + Words({0})).body));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(4, OpaqueOf(file) + Words({1})).body));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(6, OpaqueOf(file) + Words({0, 0, 1})).body));
    EXPECT_EQ(Hex(Words({5, 0, 0})),
              Hex(Call(7, OpaqueOf(file) + Words({0, 0, 1, 2}) + StringOf("x")).body));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(16, OpaqueOf(file) + Words({0, 0, 0, 0, 1})).body));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(17, OpaqueOf(file) + Words({0, 0, 0, 0, 1, 1})).body));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(18, OpaqueOf(file)).body));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(19, OpaqueOf(file)).body));
    for (const LogLine& line : log.Lines()) {
        EXPECT_EQ(std::string::npos, line.text.find("Path record not found")) << line.text;
    }
    EXPECT_FALSE(FileExists(PathOf("f"))) << "nothing has made it anew";
}

TEST_F(Nfs3ProgTest, CallIsLoggedUnderItsExportOnceThatIsKnown) {
    Log(LOG_CONTROL_PROC_FUNC_NAME | LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Access(rootHandle, 1);
    const std::vector<LogLine> lines = log.Lines();
    ASSERT_EQ(6u, lines.size());
    for (int i : {0, 1, 2}) {  // Process, ProcedureACCESS, Path
        EXPECT_EQ("127.0.0.1", lines[static_cast<std::size_t>(i)].id);
    }
    for (int i : {3, 4, 5}) {  // Readonly, attributes, End
        EXPECT_EQ("vm01", lines[static_cast<std::size_t>(i)].id);
        EXPECT_EQ("controller-1", lines[static_cast<std::size_t>(i)].ipcId);
    }
    EXPECT_EQ("[Nfs3Prog.ProcedureACCESS] Path = " + root, lines[2].text);
    EXPECT_EQ("[Nfs3Prog.ProcedureACCESS] Readonly: 0, access: 1", lines[3].text);
}

TEST_F(Nfs3ProgTest, NameAndDirectoryAreLoggedBeforeTheJoinedPath) {
    MakeFile("f");
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Lookup(rootHandle, "f");
    const Texts lines = log.From("[Nfs3Prog.ProcedureLOOKUP]");
    ASSERT_LE(3u, lines.size());
    EXPECT_EQ("info [Nfs3Prog.ProcedureLOOKUP] Path = " + root, lines[0]);
    EXPECT_EQ("info [Nfs3Prog.ProcedureLOOKUP] Read path=" + root + ", name=f", lines[1]);
    EXPECT_EQ("info [Nfs3Prog.ProcedureLOOKUP] Path = " + root + "/f", lines[2]);
}

// =================================================================================================
// Names and paths
// =================================================================================================

namespace {

// A name that resolves to the file "f" of the folder, of a given length: "./././f" or ".//././f".
std::string RoundaboutName(std::size_t size) {
    std::string name;
    if (size % 2 == 0) {
        name = ".//";
    }
    while (name.size() + 1 < size) {
        name += "./";
    }
    return name + "f";
}

}  // namespace

TEST_F(Nfs3ProgTest, NameOf4096BytesIsReadAsAnEmptyName) {
    MakeFile("f");
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    for (const std::size_t size : {4096u, 4097u, 60000u}) {
        const LookupResult result = nfs->Lookup(rootHandle, std::string(size, 'n'));
        EXPECT_EQ(NFS3_OK, result.status) << "an empty name is the folder itself";
        EXPECT_EQ(rootHandle, result.handle);
    }
    EXPECT_TRUE(log.Has("info", "[Nfs3Prog.ProcedureLOOKUP] Read path=" + root + ", name="));
}

TEST_F(Nfs3ProgTest, JoinedPathOf4096BytesIsAnEmptyPath) {
    const Handle file = NewFile("f");
    const std::size_t room = 4095 - root.size() - 1;  // for the name, behind the slash
    const LookupResult fits = nfs->Lookup(rootHandle, RoundaboutName(room));
    EXPECT_EQ(NFS3_OK, fits.status);
    EXPECT_EQ(file, fits.handle);

    Log(LOG_CONTROL_ERROR | LOG_CONTROL_PROC_FUNC_ARGU);
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Lookup(rootHandle, RoundaboutName(room + 1)).status);
    EXPECT_TRUE(log.Has("info", "[Nfs3Prog.ProcedureLOOKUP] Path = "));
    EXPECT_TRUE(log.Has("error", "[Nfs3Prog.ProcedureLOOKUP] Path record not found"));
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Lookup(rootHandle, RoundaboutName(4095)).status);
    EXPECT_EQ(NFS3ERR_IO, nfs->Create(rootHandle, RoundaboutName(room + 1)).status);
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Remove(rootHandle, RoundaboutName(room + 1)).status);
    EXPECT_TRUE(FileExists(PathOf("f")));
}

TEST(Nfs3ProgPathTest, AppendFilePathJoinsWithASlash) {
    char out[PATH_SIZE];
    EXPECT_TRUE(CNfs3Call::AppendFilePath("/a", "b", out));
    EXPECT_STREQ("/a/b", out);
    EXPECT_TRUE(CNfs3Call::AppendFilePath("/a/", "b", out));
    EXPECT_STREQ("/a//b", out) << "a trailing slash is not looked for";
    EXPECT_TRUE(CNfs3Call::AppendFilePath("", "", out));
    EXPECT_STREQ("/", out);
}

TEST(Nfs3ProgPathTest, AppendFilePathRefusesNullPointers) {
    char out[PATH_SIZE];
    EXPECT_FALSE(CNfs3Call::AppendFilePath(nullptr, "b", out));
    EXPECT_FALSE(CNfs3Call::AppendFilePath("/a", nullptr, out));
    EXPECT_FALSE(CNfs3Call::AppendFilePath("/a", "b", nullptr));
}

TEST(Nfs3ProgPathTest, AppendFilePathNeverCutsAPath) {
    char out[PATH_SIZE];
    EXPECT_TRUE(CNfs3Call::AppendFilePath("/a", std::string(4092, 'b').c_str(), out));
    EXPECT_EQ("/a/" + std::string(4092, 'b'), out);
    EXPECT_FALSE(CNfs3Call::AppendFilePath("/a", std::string(4093, 'b').c_str(), out));
    EXPECT_STREQ("", out);
}

TEST(Nfs3ProgPathTest, DotNamesAndNoNameAreInvalidDirectoryNames) {
    EXPECT_TRUE(CNfs3Call::IsInVaildDirName(nullptr));
    EXPECT_TRUE(CNfs3Call::IsInVaildDirName("."));
    EXPECT_TRUE(CNfs3Call::IsInVaildDirName(".."));
    for (const char* name : {"", "...", ".a", "..a", "a."}) {
        EXPECT_FALSE(CNfs3Call::IsInVaildDirName(name)) << name;
    }
}

TEST(Nfs3ProgPathTest, CheckPathTellsNoPathFromAMissingObject) {
    const ScopedTempDir folder;
    EXPECT_EQ(NFS3ERR_STALE, CNfs3Call::CheckPath(nullptr, true));
    EXPECT_EQ(NFS3ERR_STALE, CNfs3Call::CheckPath(nullptr, false));
    EXPECT_EQ(NFS3ERR_IO, CNfs3Call::CheckPath((folder / "missing").c_str(), true));
    EXPECT_EQ(NFS3_OK, CNfs3Call::CheckPath((folder / "missing").c_str(), false));
    EXPECT_EQ(NFS3_OK, CNfs3Call::CheckPath(folder.Path().c_str(), true));
}

TEST_F(Nfs3ProgAloneTest, CheckProcessParamWithoutAPathIsAnIoError) {
    LooseCall loose(&bench.utilities, LOG_CONTROL_ERROR);
    const CRuntimeParam& param = loose.param;
    EXPECT_EQ(NFS3ERR_IO, loose.call.CheckProcessParam(nullptr));
    EXPECT_EQ(NFS3ERR_IO, loose.call.CheckProcessParam(""));
    EXPECT_EQ(Texts(2, "error [test] Path record not found"), bench.log.From(""));
    EXPECT_STREQ("10.0.0.9", param.GetID());
    EXPECT_STREQ("", param.GetIpcID());
    EXPECT_EQ(NFS3_OK, loose.call.CheckProcessParam((folder / "anything").c_str()));
    EXPECT_STREQ("vm01", param.GetID());
    EXPECT_STREQ("controller-1", param.GetIpcID());
}

// =================================================================================================
// Attributes
// =================================================================================================

TEST_F(Nfs3ProgTest, AttributesAreThoseOfTheFileSystem) {
    MakeFile("f", "twelve bytes");
    ASSERT_EQ(0, chmod(PathOf("f").c_str(), 0640));
    ASSERT_EQ(0, link(PathOf("f").c_str(), PathOf("second name").c_str()));
    MakeFolder("d");
    ASSERT_EQ(0, mkfifo(PathOf("pipe").c_str(), 0600));
    for (const char* name : {"f", "d", "pipe", "second name"}) {
        const Handle handle = Lookup(name);
        EXPECT_EQ(Hex(Words({0}) + AttributesOf(PathOf(name))), Hex(Call(1, OpaqueOf(handle)).body))
            << name;
    }
    const FileAttributes file = nfs->GetAttr(Lookup("f")).attributes;
    EXPECT_EQ(NF3REG, file.type);
    EXPECT_EQ(0640u, file.mode);
    EXPECT_EQ(2u, file.nlink);
    EXPECT_EQ(12u, file.size);
    EXPECT_EQ(NF3DIR, nfs->GetAttr(Lookup("d")).attributes.type);
    EXPECT_EQ(NF3FIFO, nfs->GetAttr(Lookup("pipe")).attributes.type);
}

TEST_F(Nfs3ProgTest, SocketIsOfItsOwnType) {
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", PathOf("socket").c_str());
    ASSERT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr));
    close(fd);
    EXPECT_EQ(NF3SOCK, nfs->GetAttr(Lookup("socket")).attributes.type);
}

TEST_F(Nfs3ProgTest, UsedIsTheSizeAlsoOfASparseFile) {
    const Handle file = NewFile("sparse");
    ASSERT_EQ(0, truncate(PathOf("sparse").c_str(), 0x123456789));
    const FileAttributes attributes = nfs->GetAttr(file).attributes;
    EXPECT_EQ(0x123456789u, attributes.size);
    EXPECT_EQ(0x123456789u, attributes.used);
}

TEST_F(Nfs3ProgTest, FileidIsTheInodeAndNotTheFileId) {
    const Handle file = NewFile("f");
    const std::uint64_t inode = StatOf(PathOf("f")).st_ino;
    ASSERT_NE(inode, IdOfHandle(file));
    EXPECT_EQ(inode & 0xFFFFFFFF, nfs->GetAttr(file).attributes.fileid);
    EXPECT_EQ(IdOfHandle(file), nfs->ReadDir(rootHandle).entries.at(0).fileid);
}

TEST_F(Nfs3ProgTest, StickyBitIsNotReported) {
    const Handle file = NewFile("f");
    const auto reported = [&](mode_t mode) {
        EXPECT_EQ(0, chmod(PathOf("f").c_str(), mode));
        return nfs->GetAttr(file).attributes.mode;
    };
    EXPECT_EQ(0755u, reported(01755));
    EXPECT_EQ(06777u, reported(07777));
    EXPECT_EQ(04711u, reported(04711));
    EXPECT_EQ(02070u, reported(02070));
    EXPECT_EQ(0u, reported(0));
}

TEST_F(Nfs3ProgTest, ConfiguredOwnerIsNotReported) {
    const Handle file = NewFile("f");  // the service was started with user 1234 and group 5678
    const struct stat data = StatOf(PathOf("f"));
    EXPECT_EQ(data.st_uid, nfs->GetAttr(file).attributes.uid);
    EXPECT_EQ(data.st_gid, nfs->GetAttr(file).attributes.gid);
    EXPECT_NE(1234u, data.st_uid);
}

namespace {

// What lstat answers in the tests of single fields.
struct stat OddRecord(mode_t mode) {
    struct stat data {};
    data.st_mode = mode;
    data.st_ino = 0x300000007;
    data.st_nlink = 5;
    data.st_uid = 0xFFFFFFFE;
    data.st_gid = 0x80000001;
    data.st_size = 0x700000009;
    data.st_dev = 0x1234ABCD;
    data.st_rdev = 0x5678EF01;
    data.st_atim = {0x11111111, 999999999};
    data.st_mtim = {0x22222222, 888888888};
    data.st_ctim = {-1, 777777777};
    return data;
}

}  // namespace

TEST_F(Nfs3ProgTest, EveryFieldComesFromItsPlaceInTheRecord) {
    const Handle file = NewFile("f");
    const struct stat record = OddRecord(S_IFIFO | 0640);
    const LstatFault fault(PathOf("f"), &record);
    const FileAttributes attributes = nfs->GetAttr(file).attributes;
    EXPECT_EQ(NF3FIFO, attributes.type);
    EXPECT_EQ(0640u, attributes.mode);
    EXPECT_EQ(5u, attributes.nlink);
    EXPECT_EQ(0xFFFFFFFEu, attributes.uid);
    EXPECT_EQ(0x80000001u, attributes.gid);
    EXPECT_EQ(0x700000009u, attributes.size);
    EXPECT_EQ(0x700000009u, attributes.used);
    EXPECT_EQ(7u, attributes.fileid) << "the low 32 bits";
    EXPECT_EQ(0u, attributes.fsid >> 32);
    EXPECT_EQ((NfsTime{0x11111111, 0}), attributes.atime);
    EXPECT_EQ((NfsTime{0x22222222, 0}), attributes.mtime);
    EXPECT_EQ((NfsTime{0xFFFFFFFF, 0}), attributes.ctime);
}

TEST_F(Nfs3ProgTest, RdevOfADeviceIsItsOwnNumberAndElseThatOfTheFileSystem) {
    const Handle file = NewFile("f");
    struct Case {
        mode_t mode;
        std::uint32_t type, major, minor;
    };
    for (const Case& expected : {
             Case{S_IFBLK, 3, 0xEF, 0x56780001},
             Case{S_IFCHR, 4, 0xEF, 0x56780001},
             Case{S_IFREG, 1, 0xAB, 0x123400CD},
             Case{S_IFDIR, 2, 0xAB, 0x123400CD},
             Case{S_IFLNK, 5, 0xAB, 0x123400CD},
             Case{S_IFSOCK, 6, 0xAB, 0x123400CD},
             Case{S_IFIFO, 7, 0xAB, 0x123400CD},
             Case{0, 0, 0xAB, 0x123400CD},
         }) {
        const struct stat record = OddRecord(expected.mode | 0600);
        const LstatFault fault(PathOf("f"), &record);
        const FileAttributes attributes = nfs->GetAttr(file).attributes;
        EXPECT_EQ(expected.type, attributes.type);
        EXPECT_EQ(expected.major, attributes.rdevMajor) << expected.type;
        EXPECT_EQ(expected.minor, attributes.rdevMinor) << expected.type;
    }
}

TEST_F(Nfs3ProgTest, DirectoryCarriesTheDeviceThatHoldsIt) {
    const auto device = static_cast<std::uint32_t>(StatOf(root).st_dev);
    EXPECT_EQ(device >> 8 & 0xFF, AttributesOfRoot().rdevMajor);
    EXPECT_EQ(device & ~0xFF00u, AttributesOfRoot().rdevMinor);
}

TEST_F(Nfs3ProgTest, SizeOfARegularFileIsTheOneThatReadingSees) {
    const Handle file = NewFile("f", "seven b");
    const struct stat record = OddRecord(S_IFREG | 0644);
    const LstatFault fault(PathOf("f"), &record);
    EXPECT_EQ(7u, nfs->GetAttr(file).attributes.size);
    EXPECT_EQ(7u, nfs->GetAttr(file).attributes.used);
}

TEST_F(Nfs3ProgTest, AttributesAreLoggedAsArguments) {
    const Handle file = NewFile("f", "12345");
    ASSERT_EQ(0, chmod(PathOf("f").c_str(), 0640));
    const FileAttributes a = nfs->GetAttr(file).attributes;
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->GetAttr(file);
    char line[STATUS_SIZE];
    std::snprintf(
        line, sizeof line,
        "[Nfs3Prog.ProcedureGETATTR] Path=%s, type=1, mode=1a0, nlink=1, uid=%u, gid=%u, size=5, "
        "used=5, rdev.1=%u, rdev.2=%u, fsid=%llu, atime.s=%u, atime.ns=0, mtime.s=%u, mtime.ns=0, "
        "ctime.s=%u, ctime.ns=0",
        PathOf("f").c_str(), a.uid, a.gid, a.rdevMajor, a.rdevMinor,
        static_cast<unsigned long long>(a.fsid), a.atime.seconds, a.mtime.seconds, a.ctime.seconds);
    EXPECT_TRUE(log.Has("info", line)) << line;
    Log(kAllLogBits & ~LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->GetAttr(file);
    EXPECT_FALSE(log.Has("info", line));
}

TEST(Nfs3ProgModeTest, BothConversionsKeepTheSameBits) {
    for (unsigned mode = 0; mode <= 0x1FFFF; ++mode) {
        const unsigned kept = mode & 0xDFF;
        ASSERT_EQ(kept, CNfs3Call::ConvertFileModeToNfsFileMode(mode)) << mode;
        ASSERT_EQ(kept, CNfs3Call::ConvertNfsFileModeToFileMode(mode)) << mode;
    }
    EXPECT_EQ(0xDFFu, CNfs3Call::ConvertFileModeToNfsFileMode(0xFFFFFFFF));
    EXPECT_EQ(0xDFFu, CNfs3Call::ConvertNfsFileModeToFileMode(0xFFFFFFFF));
}

TEST(Nfs3ProgModeTest, BeforeImageIsNeverFilled) {
    wcc_attr before{7, {8, 9}, {10, 11}};
    EXPECT_FALSE(CNfs3Call::GetNfsFileAttributes("/", &before));
    EXPECT_EQ(7u, before.size);
    EXPECT_EQ(8u, before.mtime.seconds);
    EXPECT_EQ(10u, before.ctime.seconds);
}

TEST_F(Nfs3ProgAloneTest, HandleNeedsAPlaceToGo) {
    LooseCall loose(&bench.utilities);
    EXPECT_FALSE(loose.call.GetNfsFileHandle(folder.Path().c_str(), nullptr));
    nfs_fh3 handle;
    std::memset(&handle, 0xAA, sizeof handle);
    EXPECT_TRUE(loose.call.GetNfsFileHandle(folder.Path().c_str(), &handle));
    EXPECT_EQ(Handle(56), Handle(handle.cHandle, handle.cHandle + 56));
}

TEST_F(Nfs3ProgAloneTest, AttributesOfAMissingObjectCannotBeHad) {
    LooseCall loose(&bench.utilities);
    fattr3 attributes;
    EXPECT_FALSE(loose.call.GetNfsFileAttributes((folder / "missing").c_str(), &attributes));
}

// =================================================================================================
// Readers
// =================================================================================================

TEST(Nfs3ProgReaderTest, BoolIsTrueExactlyForOne) {
    for (const auto& [word, expected] : std::initializer_list<std::pair<std::uint32_t, bool>>{
             {0, false}, {1, true}, {2, false}, {0x01000000, false}, {0xFFFFFFFF, false}}) {
        bool value = !expected;
        CNfs3Xdr::Read(InputOf(Words({word})).get(), &value);
        EXPECT_EQ(expected, value) << word;
    }
}

TEST(Nfs3ProgReaderTest, NumbersAreBigEndian) {
    const auto in = InputOf({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    std::uint32_t word = 0;
    std::uint64_t hyper = 0;
    CNfs3Xdr::Read(in.get(), &word);
    CNfs3Xdr::Read(in.get(), &hyper);
    EXPECT_EQ(0x01020304u, word);
    EXPECT_EQ(0x05060708090A0B0Cu, hyper);
}

namespace {

// sattr3 that sets everything, both times by the client.
const Bytes kAllSet = Words({1, 0755, 1, 11, 1, 22, 1, 3, 4, 2, 5, 6, 2, 7, 8});

}  // namespace

TEST(Nfs3ProgReaderTest, AttributesToSetAreReadInOrder) {
    const auto in = InputOf(kAllSet);
    sattr3 attr;
    CNfs3Xdr::Read(in.get(), &attr, false);
    EXPECT_TRUE(attr.mode.set_it && attr.uid.set_it && attr.gid.set_it && attr.size.set_it);
    EXPECT_EQ(0755u, attr.mode.mode);
    EXPECT_EQ(11u, attr.uid.uid);
    EXPECT_EQ(22u, attr.gid.gid);
    EXPECT_EQ(0x300000004u, attr.size.size);
    EXPECT_EQ(2u, attr.atime.set_it);
    EXPECT_EQ(5u, attr.atime.atime.seconds);
    EXPECT_EQ(6u, attr.atime.atime.nseconds);
    EXPECT_EQ(2u, attr.mtime.set_it);
    EXPECT_EQ(7u, attr.mtime.mtime.seconds);
    EXPECT_EQ(8u, attr.mtime.mtime.nseconds);
    EXPECT_EQ(0u, in->GetFilledBufferSize());
}

TEST(Nfs3ProgReaderTest, SkippedAttributesAreConsumedAndNotSet) {
    const auto in = InputOf(kAllSet);
    sattr3 attr;
    CNfs3Xdr::Read(in.get(), &attr, true);
    EXPECT_FALSE(attr.mode.set_it || attr.uid.set_it || attr.gid.set_it || attr.size.set_it);
    EXPECT_EQ(0u, attr.atime.set_it);
    EXPECT_EQ(0u, attr.mtime.set_it);
    EXPECT_EQ(0u, attr.size.size);
    EXPECT_EQ(0u, in->GetFilledBufferSize());
}

TEST(Nfs3ProgReaderTest, WhatIsNotSetIsZero) {
    sattr3 attr;
    attr.mode.mode = attr.uid.uid = attr.gid.gid = 99;
    attr.size.size = 99;
    attr.atime.atime = attr.mtime.mtime = {99, 99};
    const auto in = InputOf(Words({
        2, 0, 0xFFFFFFFF, 0,  // no bool but 1 sets anything
        1,                    // the server's time: set, with time 0
        3,                    // an unknown way: kept, with time 0
    }));
    CNfs3Xdr::Read(in.get(), &attr, false);
    EXPECT_FALSE(attr.mode.set_it || attr.uid.set_it || attr.gid.set_it || attr.size.set_it);
    EXPECT_EQ(0u, attr.mode.mode + attr.uid.uid + attr.gid.gid + attr.size.size);
    EXPECT_EQ(1u, attr.atime.set_it);
    EXPECT_EQ(0u, attr.atime.atime.seconds + attr.atime.atime.nseconds);
    EXPECT_EQ(3u, attr.mtime.set_it);
    EXPECT_EQ(0u, attr.mtime.mtime.seconds + attr.mtime.mtime.nseconds);
    EXPECT_EQ(0u, in->GetFilledBufferSize());
}

TEST(Nfs3ProgReaderTest, GuardTimeIsReadOnlyWhenItIsToBeChecked) {
    sattrguard3 guard;
    guard.obj_ctime = {99, 99};
    auto in = InputOf(Words({0, 7}));
    CNfs3Xdr::Read(in.get(), &guard);
    EXPECT_FALSE(guard.check);
    EXPECT_EQ(0u, guard.obj_ctime.seconds + guard.obj_ctime.nseconds);
    EXPECT_EQ(4u, in->GetFilledBufferSize());
    in = InputOf(Words({1, 7, 8}));
    CNfs3Xdr::Read(in.get(), &guard);
    EXPECT_TRUE(guard.check);
    EXPECT_EQ(7u, guard.obj_ctime.seconds);
    EXPECT_EQ(8u, guard.obj_ctime.nseconds);
}

TEST(Nfs3ProgReaderTest, OpaqueStaysInTheInputBuffer) {
    const auto in = InputOf(StringOf("abcde") + Words({7}));
    opaque data;
    const unsigned char* start = in->GetCurrentBuffer();
    CNfs3Xdr::Read(in.get(), &data);
    EXPECT_EQ(start + 4, data.pBuf);
    EXPECT_EQ(5u, data.iBufLen);
    EXPECT_EQ(4u, in->GetFilledBufferSize()) << "the fill is skipped";
}

TEST(Nfs3ProgReaderTest, PathIsReadSkippedOrTooLong) {
    COpaquePath path;
    auto in = InputOf(StringOf("abcde"));
    CNfs3Xdr::Read(in.get(), &path, false);
    EXPECT_EQ("abcde", path.sPath);
    EXPECT_EQ(0u, in->GetFilledBufferSize());

    in = InputOf(StringOf("other"));
    CNfs3Xdr::Read(in.get(), &path, true);
    EXPECT_EQ("abcde", path.sPath) << "skipping leaves the text as it is";
    EXPECT_EQ(0u, in->GetFilledBufferSize());

    in = InputOf(StringOf(std::string(4095, 'n')));
    CNfs3Xdr::Read(in.get(), &path, false);
    EXPECT_EQ(std::string(4095, 'n'), path.sPath);
    EXPECT_EQ(0u, in->GetFilledBufferSize());

    in = InputOf(StringOf(std::string(4097, 'n')));
    CNfs3Xdr::Read(in.get(), &path, false);
    EXPECT_EQ("", path.sPath);
    EXPECT_EQ(0u, in->GetFilledBufferSize());
}

TEST(Nfs3ProgReaderTest, HowToCreateDependsOnTheMode) {
    struct Case {
        std::uint32_t mode;
        Bytes rest;
        std::uint32_t unread;
    };
    const Bytes more = Words({1, 0644, 0, 0, 0, 0, 0});
    for (const Case& expected : {Case{0, more, 0}, Case{1, more, 0}, Case{2, more, 20},
                                 Case{3, more, 28}, Case{0xFFFFFFFF, more, 28}}) {
        SCOPED_TRACE(expected.mode);
        const auto in = InputOf(Words({expected.mode}) + expected.rest);
        createhow3 how;
        how.verf = 99;
        CNfs3Xdr::Read(in.get(), &how);
        EXPECT_EQ(expected.mode, how.mode);
        EXPECT_EQ(expected.mode < 2, how.obj_attributes.mode.set_it);
        EXPECT_EQ(expected.mode == 2 ? 0x1000001A4u : 0u, how.verf);
        EXPECT_EQ(expected.unread, in->GetFilledBufferSize());
    }
}

TEST(Nfs3ProgReaderTest, WhatToMakeDependsOnTheType) {
    const Bytes rest = Words({1, 0600, 0, 0, 0, 0, 0, 8, 9});
    struct Case {
        std::uint32_t type, unread;
    };
    for (const Case& expected : {Case{3, 0}, Case{4, 0}, Case{6, 8}, Case{7, 8}, Case{0, 36},
                                 Case{1, 36}, Case{2, 36}, Case{5, 36}, Case{0xFFFFFFFF, 36}}) {
        SCOPED_TRACE(expected.type);
        for (const bool skip : {false, true}) {
            const auto in = InputOf(Words({expected.type}) + rest);
            mknoddata3 data;
            CNfs3Xdr::Read(in.get(), &data, skip);
            EXPECT_EQ(expected.type, data.type);
            EXPECT_EQ(expected.unread, in->GetFilledBufferSize());
            const bool device = expected.type == 3 || expected.type == 4;
            EXPECT_EQ(device && !skip, data.dev_attributes.mode.set_it);
            EXPECT_EQ(device && !skip ? 8u : 0u, data.dev_spec.specdata1);
            EXPECT_EQ(device && !skip ? 9u : 0u, data.dev_spec.specdata2);
            EXPECT_EQ((expected.type == 6 || expected.type == 7) && !skip,
                      data.pipe_attributes.mode.set_it);
        }
    }
}

// =================================================================================================
// Writers
// =================================================================================================

TEST(Nfs3ProgWriterTest, AttributesAreThirteenFieldsInOrder) {
    fattr3 attr;
    attr.type = 1;
    attr.mode = 2;
    attr.nlink = 3;
    attr.uid = 4;
    attr.gid = 5;
    attr.size = 0x600000007;
    attr.used = 0x800000009;
    attr.rdev = {10, 11};
    attr.fsid = 0xC0000000D;
    attr.fileid = 0xE0000000F;
    attr.atime = {16, 17};
    attr.mtime = {18, 19};
    attr.ctime = {20, 21};
    const Bytes expected =
        Words({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21});
    EXPECT_EQ(Hex(expected), Hex(Written([&](auto* out) { CNfs3Xdr::Write(out, attr); })));
    post_op_attr post{true, attr};
    EXPECT_EQ(Hex(Words({1}) + expected),
              Hex(Written([&](auto* out) { CNfs3Xdr::Write(out, post); })));
    post.attributes_follow = false;
    EXPECT_EQ(Hex(Words({0})), Hex(Written([&](auto* out) { CNfs3Xdr::Write(out, post); })));
}

TEST(Nfs3ProgWriterTest, WccDataIsBeforeThenAfter) {
    wcc_data wcc;
    EXPECT_EQ(Hex(Words({0, 0})), Hex(Written([&](auto* out) { CNfs3Xdr::Write(out, wcc); })));
    wcc.before = {true, {0x100000002, {3, 4}, {5, 6}}};  // size, mtime, ctime
    wcc.after.attributes_follow = true;
    wcc.after.attributes.type = 2;
    const Bytes written = Written([&](auto* out) { CNfs3Xdr::Write(out, wcc); });
    EXPECT_EQ(Hex(Words({1, 1, 2, 3, 4, 5, 6, 1, 2}) + Bytes(80)), Hex(written));
}

TEST(Nfs3ProgWriterTest, HandleIsItsLengthAnd56Bytes) {
    post_op_fh3 handle;
    EXPECT_EQ(Hex(Words({0})), Hex(Written([&](auto* out) { CNfs3Xdr::Write(out, handle); })));
    handle.handle_follows = true;
    handle.handle.cHandle[0] = 7;
    EXPECT_EQ(Hex(Words({1, 56}) + HandleOfId(7)),
              Hex(Written([&](auto* out) { CNfs3Xdr::Write(out, handle); })));
    EXPECT_EQ(Hex(Words({56})),
              Hex(Written([&](auto* out) { CNfs3Xdr::Write(out, handle.handle, true); })));
}

TEST(Nfs3ProgWriterTest, OpaquesAreLengthBytesAndFill) {
    const unsigned char bytes[] = {1, 2, 3, 4, 5};
    const opaque data{bytes, 5};
    const Bytes written = Written([&](auto* out) { CNfs3Xdr::Write(out, data, false); });
    ASSERT_EQ(12u, written.size());
    EXPECT_EQ(Hex(Words({5}) + Bytes{1, 2, 3, 4, 5}),
              Hex(Bytes(written.begin(), written.end() - 3)));
    EXPECT_EQ(Hex(Words({5})), Hex(Written([&](auto* out) { CNfs3Xdr::Write(out, data, true); })));
    EXPECT_EQ(Hex(StringOf("path")),
              Hex(Written([](auto* out) { CNfs3Xdr::Write(out, COpaquePath{"path"}, false); })));
    EXPECT_EQ(Hex(Words({4})),
              Hex(Written([](auto* out) { CNfs3Xdr::Write(out, COpaquePath{"path"}, true); })));
}

TEST(Nfs3ProgWriterTest, ScalarsAreWholeWords) {
    EXPECT_EQ(Hex(Words({1, 0, 7, 8, 9, 10, 11, 12, 13})), Hex(Written([](auto* out) {
                  CNfs3Xdr::Write(out, true);
                  CNfs3Xdr::Write(out, false);
                  CNfs3Xdr::Write(out, std::uint32_t{7});
                  CNfs3Xdr::Write(out, std::uint64_t{0x800000009});
                  CNfs3Xdr::Write(out, nfstime3{10, 11});
                  CNfs3Xdr::Write(out, specdata3{12, 13});
              })));
}
