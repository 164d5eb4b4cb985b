// The MOUNT program: over the wire, and alone where only that shows it.

#include "MountProg.h"

#include "NfsServiceFixture.h"

using namespace nfstest;
using namespace support;

namespace {

class MountProgTest : public NfsServiceTest {
protected:
    void SetUp() override {
        NfsServiceTest::SetUp();
        Umount("vm01");
    }
    void Umount(const std::string& name) { mount.Umnt(name); }

    int Mounted() { return service.GetMountInfo(true, false); }

    RpcReply Call(std::uint32_t procedure, const Bytes& arguments, std::uint32_t version = 3) {
        return mount.Rpc().Call(kMountProgram, version, procedure, arguments);
    }

    MountClient mount{Transport::Udp};
};

const Bytes kDenied = Words({13});

// The program alone, with one export.
class MountProgAloneTest : public ::testing::Test {
protected:
    MountProgAloneTest() {
        LogArgu logArgu{"test"};
        CRuntimeParam param("", 0);
        char reason[STATUS_SIZE] = "";
        EXPECT_TRUE(bench.utilities.AddMountInfo(&param, &logArgu, folder.Path().c_str(), "vm01",
                                                 "", reason));
    }

    ScopedTempDir folder;
    ProgramBench bench;
    CMountProg program{&bench.utilities};
};

}  // namespace

// --- Dispatch ------------------------------------------------------------------------------------

TEST_F(MountProgTest, NullIsAnsweredWithNothing) {
    const RpcReply reply = mount.Null();
    EXPECT_EQ(kSuccess, reply.acceptStat);
    EXPECT_TRUE(reply.body.empty());
}

TEST_F(MountProgTest, DumpUmntAllAndExportAreUnavailable) {
    Log(LOG_CONTROL_PROC_FUNC_NAME);
    for (const std::uint32_t procedure : {2u, 4u, 5u}) {
        SCOPED_TRACE(procedure);
        const RpcReply reply = Call(procedure, {});
        EXPECT_EQ(kProcUnavail, reply.acceptStat);
        EXPECT_TRUE(reply.body.empty());
    }
    EXPECT_EQ(3u, log.From("[MountProg.ProcedureNOIMP]").size());
}

TEST_F(MountProgAloneTest, ProceduresFromSixOnAreNotImplemented) {
    bench.logControl = LOG_CONTROL_PROC_FUNC_NAME;
    for (const std::uint32_t procedure : {6u, 7u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(procedure);
        bench.log.Forget();
        const Outcome outcome = bench.Run(program, procedure, StringOf("vm01"));
        EXPECT_EQ(PROG_RESULT_NOIMP, outcome.result);
        EXPECT_TRUE(outcome.reply.empty());
        EXPECT_EQ((Texts{"info [MountProg.Process]", "info [MountProg.ProcedureNOIMP]"}),
                  bench.log.From(""));
    }
}

TEST_F(MountProgAloneTest, NothingIsImplementedWithoutTheServiceObject) {
    CMountProg orphan(nullptr);
    bench.logControl = kAllLogBits;
    for (const std::uint32_t procedure : {0u, 1u, 3u}) {
        EXPECT_EQ(PROG_RESULT_NOIMP, bench.Run(orphan, procedure, StringOf("vm01")).result);
    }
}

TEST_F(MountProgAloneTest, RecognisesSixProceduresOfAnyVersion) {
    EXPECT_EQ(6u, program.GetMaxSupportProc());
    EXPECT_EQ(0xFFFFFFFFu, program.GetVersion());
}

TEST_F(MountProgAloneTest, ArgumentsThatEndEarlyAreTruncated) {
    bench.logControl = LOG_CONTROL_ERROR;
    const Bytes arguments = StringOf("vm01x");  // 4 bytes of length, 5 of text, 3 of fill
    const std::vector<unsigned> missing{4, 3, 2, 1, 5, 4, 3, 2, 1, 3, 2, 1};
    ASSERT_EQ(arguments.size(), missing.size());
    for (const std::uint32_t procedure : {1u, 3u}) {
        for (std::size_t size = 0; size < arguments.size(); ++size) {
            SCOPED_TRACE(std::to_string(procedure) + " cut to " + std::to_string(size));
            bench.log.Forget();
            const auto end = arguments.begin() + static_cast<std::ptrdiff_t>(size);
            const Outcome outcome = bench.Run(program, procedure, Bytes(arguments.begin(), end));
            EXPECT_EQ(PROG_RESULT_TRUNCATED, outcome.result);
            EXPECT_EQ((Texts{"error [MountProg.Process] Data is truncated.Missing " +
                             std::to_string(missing[size]) + " data"}),
                      bench.log.From(""));
        }
    }
    bench.log.Forget();
    bench.logControl = kAllLogBits & ~LOG_CONTROL_ERROR;
    EXPECT_EQ(PROG_RESULT_TRUNCATED, bench.Run(program, 1).result);
    EXPECT_FALSE(bench.log.Has("error", "[MountProg.Process] Data is truncated.Missing 4 data"));
}

TEST_F(MountProgAloneTest, AnyOtherExceptionIsGarbage) {
    bench.log.ThrowAt("[MountProg.ProcedureMNT]");
    bench.logControl = LOG_CONTROL_PROC_FUNC_NAME | LOG_CONTROL_ERROR;
    EXPECT_EQ(PROG_RESULT_GARBAGE, bench.Run(program, 1, StringOf("vm01")).result);
    EXPECT_TRUE(bench.log.Has("error", "[MountProg.Process] Unknown exception"));

    bench.log.Forget();
    bench.logControl = LOG_CONTROL_PROC_FUNC_NAME;
    EXPECT_EQ(PROG_RESULT_GARBAGE, bench.Run(program, 1, StringOf("vm01")).result);
    EXPECT_EQ((Texts{"info [MountProg.Process]"}), bench.log.From(""));
}

// --- MNT -----------------------------------------------------------------------------------------

TEST_F(MountProgTest, MntAnswersTheHandleOfTheRootAndNoFlavour) {
    const RpcReply reply = Call(1, StringOf("vm01"));
    EXPECT_EQ(kSuccess, reply.acceptStat);
    EXPECT_EQ(Hex(Words({
                  0,           // MNT3_OK
                  56,          // length of the handle
                  0,           // file ID 0: the export is the first path that got one
                  0, 0, 0, 0,  //
                  0, 0, 0, 0,  //
                  0, 0, 0, 0,  //
                  0,           //
                  0,           // number of flavours
              })),
              Hex(reply.body));
    EXPECT_EQ(1, Mounted());
}

TEST_F(MountProgTest, MntOfVersion1AnswersExactly32BytesOfTheHandle) {
    Call(1, StringOf("vm01"));  // gives ID 0 away
    char reason[STATUS_SIZE] = "";
    ASSERT_EQ(0, mkdir((folder / "other").c_str(), 0755));
    ASSERT_TRUE(service.AddMountPoint((folder / "other").c_str(), "vm02", reason));
    const RpcReply reply = Call(1, StringOf("vm02"), 1);
    EXPECT_EQ(Hex(Words({
                  0,           // status
                  0x01000000,  // file ID 1, least significant byte first
                  0,
                  0,
                  0,
                  0,
                  0,
                  0,
                  0,
              })),
              Hex(reply.body));
}

TEST_F(MountProgTest, MntOfAnyOtherVersionHasTheLayoutOfVersion3) {
    for (const std::uint32_t version : {0u, 2u, 4u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(version);
        const RpcReply reply = Call(1, StringOf("vm01"), version);
        EXPECT_EQ(Hex(Words({0}) + OpaqueOf(HandleOfId(0)) + Words({0})), Hex(reply.body));
        Umount("vm01");
    }
}

TEST_F(MountProgTest, RootHandleIsTheSameOnEveryMountUntilTheFileTableIsReset) {
    char reason[STATUS_SIZE] = "";
    const std::string other = folder / "other";
    ASSERT_EQ(0, mkdir(other.c_str(), 0755));
    ASSERT_TRUE(service.AddMountPoint(other.c_str(), "vm02", reason));
    EXPECT_EQ(HandleOfId(0), mount.Mnt("vm01").handle);
    EXPECT_EQ(HandleOfId(1), mount.Mnt("vm02").handle);
    Umount("vm02");
    EXPECT_EQ(HandleOfId(1), mount.Mnt("vm02").handle);

    service.RemoveMountPoint(root.c_str());
    service.RemoveMountPoint(other.c_str());  // the last one: the file table starts again
    ASSERT_TRUE(service.AddMountPoint(other.c_str(), "vm02", reason));
    EXPECT_EQ(HandleOfId(0), mount.Mnt("vm02").handle);
}

TEST_F(MountProgTest, MntOverTcpAnswersTheSame) {
    MountClient tcp(Transport::Tcp);
    const MountResult result = tcp.Mnt("vm01");
    EXPECT_EQ(MNT3_OK, result.status);
    EXPECT_EQ(HandleOfId(0), result.handle);
    EXPECT_TRUE(result.flavors.empty());
    EXPECT_EQ(0u, result.unread);
}

TEST_F(MountProgTest, MntRecordsTheAddressOfTheClient) {
    mount.Mnt("vm01");
    log.Forget();
    EXPECT_EQ(1, service.GetMountInfo(true, true));
    EXPECT_TRUE(log.Has("raw", " mount1 - " + root + " : vm01 (127.0.0.1) [controller-1]"));
}

TEST_F(MountProgTest, MntOfAnUnknownExportIsDeniedWithoutAHandle) {
    Log(LOG_CONTROL_ERROR | LOG_CONTROL_GENERAL_INFO);
    const RpcReply reply = Call(1, StringOf("nobody"));
    EXPECT_EQ(kSuccess, reply.acceptStat);
    EXPECT_EQ(Hex(kDenied), Hex(reply.body));
    EXPECT_EQ((Texts{"error [MountProg.ProcedureMNT] Undefined export name \"nobody\"",
                     "info [MountProg.ProcedureMNT] Mount FAIL"}),
              log.From("[MountProg"));
}

TEST_F(MountProgTest, SecondMountIsRefusedEvenToTheSameClient) {
    ASSERT_EQ(MNT3_OK, mount.Mnt("vm01").status);
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(Hex(kDenied), Hex(Call(1, StringOf("vm01")).body));
    EXPECT_EQ((Texts{"error [MountProg.ProcedureMNT] This mount point \"vm01\" already mounted by "
                     "127.0.0.1"}),
              log.From("[MountProg"));
    Umount("vm01");
    EXPECT_EQ(MNT3_OK, mount.Mnt("vm01").status);
}

TEST_F(MountProgTest, MntOfAnEmptyNameIsDenied) {
    Log(LOG_CONTROL_ERROR | LOG_CONTROL_GENERAL_INFO);
    EXPECT_EQ(Hex(kDenied), Hex(Call(1, StringOf("")).body));
    EXPECT_EQ((Texts{"info [MountProg.ProcedureMNT] Fail to read export name",
                     "info [MountProg.ProcedureMNT] Mount FAIL"}),
              log.From("[MountProg"));
}

TEST_F(MountProgTest, MntOfAnEmptyNameIsDeniedAlsoWhenAnExportHasIt) {
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(service.AddMountPoint((folder / "nameless").c_str(), "", reason));
    EXPECT_EQ(MNT3ERR_ACCES, mount.Mnt("").status);
}

TEST_F(MountProgTest, ExportNameOf4095BytesIsReadAndOneOf4096Refused) {
    const std::string longest(4095, 'n');
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(service.AddMountPoint((folder / "x").c_str(), longest.c_str(), reason));
    ASSERT_TRUE(service.AddMountPoint((folder / "y").c_str(), (longest + "n").c_str(), reason));
    MountClient tcp(Transport::Tcp);
    EXPECT_EQ(MNT3_OK, tcp.Mnt(longest).status);
    Log(LOG_CONTROL_ERROR);
    const MountResult refused = tcp.Mnt(longest + "n");
    EXPECT_EQ(MNT3ERR_ACCES, refused.status);
    EXPECT_EQ(0u, refused.unread);
    EXPECT_TRUE(log.Has("info", "[MountProg.ProcedureMNT] Fail to read export name"));
    EXPECT_EQ(MNT3_OK, tcp.Mnt("vm01").status) << "the bytes left behind are passed over";
}

TEST_F(MountProgAloneTest, BytesOfATooLongNameAreLeftUnread) {
    const Outcome outcome = bench.Run(program, 1, StringOf(std::string(4096, 'n')));
    EXPECT_EQ(PROG_RESULT_DONE, outcome.result);
    EXPECT_EQ(Hex(kDenied), Hex(outcome.reply));
    EXPECT_EQ(4096u, outcome.unread);
    EXPECT_EQ(4u, bench.Run(program, 1, Words({0xFFFFFFFF, 7})).unread);
    EXPECT_EQ(Hex(kDenied), Hex(bench.Run(program, 1, Words({0x80000000, 7})).reply));
}

TEST_F(MountProgAloneTest, FillOfANameIsSkipped) {
    for (const std::string name : {"", "a", "ab", "abc", "abcd", "abcde"}) {
        EXPECT_EQ(4u, bench.Run(program, 1, StringOf(name) + Words({7})).unread) << name;
        EXPECT_EQ(4u, bench.Run(program, 3, StringOf(name) + Words({7})).unread) << name;
    }
}

TEST_F(MountProgAloneTest, MntWithoutAClientAddressIsDenied) {
    bench.logControl = LOG_CONTROL_ERROR | LOG_CONTROL_GENERAL_INFO;
    const Outcome outcome = bench.Run(program, 1, StringOf("vm01"), 3, "");
    EXPECT_EQ(PROG_RESULT_DONE, outcome.result);
    EXPECT_EQ(Hex(kDenied), Hex(outcome.reply));
    EXPECT_EQ((Texts{"info [MountProg.ProcedureMNT] Fail to get remote address",
                     "info [MountProg.ProcedureMNT] Mount FAIL"}),
              bench.log.From(""));
    EXPECT_FALSE(bench.utilities.IsRemoteAddrExists("10.0.0.9"));
}

TEST_F(MountProgAloneTest, MissingNameAndMissingAddressAreBothTold) {
    bench.logControl = LOG_CONTROL_ERROR;
    bench.Run(program, 1, StringOf(""), 3, "");
    EXPECT_EQ((Texts{"info [MountProg.ProcedureMNT] Fail to read export name",
                     "info [MountProg.ProcedureMNT] Fail to get remote address"}),
              bench.log.From(""));
    bench.log.Forget();
    bench.logControl = kAllLogBits & ~(LOG_CONTROL_ERROR | LOG_CONTROL_PROC_FUNC_NAME |
                                       LOG_CONTROL_PROC_FUNC_ARGU);
    bench.Run(program, 1, StringOf(""), 3, "");
    EXPECT_EQ((Texts{"info [MountProg.ProcedureMNT] Mount FAIL"}), bench.log.From(""))
        << "both lines are gated by the error bit although they are no error lines";
}

TEST_F(MountProgTest, SuccessfulMntLogsEachLineUnderItsOwnBit) {
    const auto linesAt = [this](int bits) {
        Log(bits);
        EXPECT_EQ(MNT3_OK, mount.Mnt("vm01").status);
        const Texts lines = log.From("[MountProg");
        Umount("vm01");
        return lines;
    };
    EXPECT_EQ((Texts{"info [MountProg.Process]", "info [MountProg.ProcedureMNT]"}),
              linesAt(LOG_CONTROL_PROC_FUNC_NAME));
    EXPECT_EQ((Texts{"info [MountProg.ProcedureMNT] From 127.0.0.1, NFS Protocol Version=3",
                     "info [MountProg.ProcedureMNT] Read path = vm01"}),
              linesAt(LOG_CONTROL_PROC_FUNC_ARGU));
    EXPECT_EQ((Texts{"info [MountProg.ProcedureMNT] Get canonical path successfully: " + root,
                     "info [MountProg.ProcedureMNT] Mount OK"}),
              linesAt(LOG_CONTROL_GENERAL_INFO));
    EXPECT_EQ(Texts{},
              linesAt(kAllLogBits & ~(LOG_CONTROL_PROC_FUNC_NAME | LOG_CONTROL_PROC_FUNC_ARGU |
                                      LOG_CONTROL_GENERAL_INFO)));
}

TEST_F(MountProgTest, LinesOfACallCarryTheAddressOfTheClient) {
    Log(LOG_CONTROL_PROC_FUNC_NAME);
    mount.Mnt("vm01");
    ASSERT_FALSE(log.Lines().empty());
    for (const LogLine& line : log.Lines()) {
        EXPECT_EQ("127.0.0.1", line.id) << line.text;
        EXPECT_EQ("", line.ipcId) << line.text;
    }
}

TEST_F(MountProgTest, FailedMntLogsEachLineUnderItsOwnBit) {
    const auto linesAt = [this](int bits) {
        Log(bits);
        EXPECT_EQ(MNT3ERR_ACCES, mount.Mnt("nobody").status);
        return log.From("[MountProg");
    };
    EXPECT_EQ((Texts{"error [MountProg.ProcedureMNT] Undefined export name \"nobody\""}),
              linesAt(LOG_CONTROL_ERROR));
    EXPECT_EQ((Texts{"info [MountProg.ProcedureMNT] Mount FAIL"}),
              linesAt(LOG_CONTROL_GENERAL_INFO));
    EXPECT_EQ(Texts{}, linesAt(0));
}

TEST_F(MountProgTest, NullLogsItsNamesOnly) {
    Log(kAllLogBits & ~LOG_CONTROL_RPC);
    mount.Null();
    EXPECT_EQ((Texts{"info [MountProg.Process]", "info [MountProg.ProcedureNULL]"}), log.From(""));
    Log(kAllLogBits & ~(LOG_CONTROL_RPC | LOG_CONTROL_PROC_FUNC_NAME));
    mount.Null();
    EXPECT_EQ(Texts{}, log.From(""));
}

// --- UMNT ----------------------------------------------------------------------------------------

TEST_F(MountProgTest, UmntIsAnsweredWithNothingAndFreesTheExport) {
    ASSERT_EQ(MNT3_OK, mount.Mnt("vm01").status);
    ASSERT_EQ(1, Mounted());
    const RpcReply reply = mount.Umnt("vm01");
    EXPECT_EQ(kSuccess, reply.acceptStat);
    EXPECT_TRUE(reply.body.empty());
    EXPECT_EQ(0, Mounted());
}

TEST_F(MountProgTest, UmntOfWhatIsNotMountedIsAnsweredTheSame) {
    MountClient tcp(Transport::Tcp);
    for (const std::string& name :
         {std::string("vm01"), std::string("nobody"), std::string(), std::string(4096, 'n')}) {
        SCOPED_TRACE(name.substr(0, 10));
        const RpcReply reply = tcp.Umnt(name);
        EXPECT_EQ(kSuccess, reply.acceptStat);
        EXPECT_TRUE(reply.body.empty());
    }
}

TEST_F(MountProgTest, UmntOfATooLongNameFreesNothing) {
    ASSERT_EQ(MNT3_OK, mount.Mnt("vm01").status);
    Log(0);
    MountClient(Transport::Tcp).Umnt(std::string(4096, 'n'));
    EXPECT_EQ((Texts{"info [MountProg.ProcedureUMNT] Umount FAIL"}), log.From(""))
        << "told whatever the log control";
    EXPECT_EQ(1, Mounted());
}

TEST_F(MountProgTest, UmntOfAnEmptyNameIsPassedOnAsItIs) {
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(service.AddMountPoint((folder / "nameless").c_str(), "", reason));
    ASSERT_TRUE(
        service.GetUtils()->UpdateMountClientIpAddrByExportName("", "10.0.0.9", nullptr, reason));
    ASSERT_EQ(1, Mounted());
    Umount("");
    EXPECT_EQ(0, Mounted());
}

TEST_F(MountProgAloneTest, UmntOfAnotherClientFreesTheExportToo) {
    bench.Run(program, 1, StringOf("vm01"), 3, "10.0.0.9");
    ASSERT_TRUE(bench.utilities.IsRemoteAddrExists("10.0.0.9"));
    bench.Run(program, 3, StringOf("vm01"), 3, "10.0.0.77");
    EXPECT_FALSE(bench.utilities.IsRemoteAddrExists("10.0.0.9"));
}

TEST_F(MountProgTest, UmntLogsEachLineUnderItsOwnBit) {
    const auto linesAt = [this](int bits) {
        Log(bits);
        Umount("nobody");
        return log.From("[MountProg");
    };
    EXPECT_EQ((Texts{"info [MountProg.Process]", "info [MountProg.ProcedureUMNT]"}),
              linesAt(LOG_CONTROL_PROC_FUNC_NAME));
    EXPECT_EQ((Texts{"info [MountProg.ProcedureUMNT] From 127.0.0.1",
                     "info [MountProg.ProcedureUMNT] Read path = nobody"}),
              linesAt(LOG_CONTROL_PROC_FUNC_ARGU));
    EXPECT_EQ((Texts{"info [MountProg.ProcedureUMNT] Umount OK"}),
              linesAt(LOG_CONTROL_GENERAL_INFO));
    EXPECT_EQ(Texts{}, linesAt(LOG_CONTROL_ERROR));
}

TEST_F(MountProgAloneTest, ReadPathWithoutATargetReadsNothing) {
    CInputStream in;
    CRuntimeParam param("", 0);
    COutputStream out;
    ProcessParam processParam{3, 1, "10.0.0.9", &param};
    CRpcCall call(&bench.utilities, "test", &in, &out, &processParam);
    EXPECT_FALSE(program.ReadPath(call, nullptr));
}
