// The tools that the other tests trust.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/Nfs3Client.h"
#include "support/Process.h"

using namespace support;

TEST(XdrWriterTest, WritesNumbersBigEndian) {
    XdrWriter writer;
    writer.U32(0x01020304).U64(0x05060708090A0B0C).Bool(true).Bool(false);
    EXPECT_EQ((Bytes{
                  0x01, 0x02, 0x03, 0x04,                          // unsigned int
                  0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C,  // unsigned hyper
                  0x00, 0x00, 0x00, 0x01,                          // bool true
                  0x00, 0x00, 0x00, 0x00,                          // bool false
              }),
              writer.Data());
}

TEST(XdrWriterTest, FillsOpaquesToAMultipleOfFour) {
    XdrWriter writer;
    writer.String("abcde").FixedOpaque({9, 8}).Opaque({}).Raw({7});
    EXPECT_EQ((Bytes{
                  0, 0, 0, 5, 'a', 'b', 'c', 'd', 'e', 0, 0, 0,  // string<>: length, text, fill
                  9, 8, 0, 0,                                    // opaque[2]: bytes, fill
                  0, 0, 0, 0,                                    // empty opaque<>: length only
                  7,                                             // as it is
              }),
              writer.Data());
}

TEST(XdrReaderTest, ReadsWhatTheWriterWrites) {
    XdrWriter writer;
    writer.U32(7).U64(0xFEDCBA9876543210).Bool(true).String("vm01.vmdk").Opaque({1, 2, 3, 4});
    XdrReader reader(writer.Data());
    EXPECT_EQ(7u, reader.U32());
    EXPECT_EQ(0xFEDCBA9876543210u, reader.U64());
    EXPECT_TRUE(reader.Bool());
    EXPECT_EQ("vm01.vmdk", reader.String());
    EXPECT_EQ((Bytes{1, 2, 3, 4}), reader.Opaque());
    EXPECT_TRUE(reader.AtEnd());
}

TEST(XdrReaderTest, RefusesToReadBeyondTheEnd) {
    EXPECT_THROW(XdrReader({0, 0, 0}).U32(), XdrError);
    EXPECT_THROW(XdrReader({0, 0, 0, 0, 0, 0, 0}).U64(), XdrError);
    EXPECT_THROW(XdrReader({0, 0, 0, 5, 1, 2, 3, 4}).Opaque(), XdrError);
    EXPECT_THROW(XdrReader({0, 0, 0, 3, 1, 2, 3}).Opaque(), XdrError) << "the fill is missing";
    EXPECT_THROW(XdrReader({0xFF, 0xFF, 0xFF, 0xFF}).Opaque(), XdrError);
}

TEST(XdrReaderTest, RefusesABoolThatIsNeitherZeroNorOne) {
    EXPECT_THROW(XdrReader({0, 0, 0, 2}).Bool(), XdrError);
}

TEST(RpcMessageTest, CallHasTheLayoutOfRfc5531) {
    OpaqueAuth credential{0x11, {0xAA}};
    OpaqueAuth verifier{0x22, {}};
    EXPECT_EQ(
        (Bytes{
            0x12, 0x34, 0x56, 0x78,                             // xid
            0,    0,    0,    0,                                // CALL
            0,    0,    0,    2,                                // RPC version
            0x00, 0x01, 0x86, 0xA3,                             // program 100003
            0,    0,    0,    3,                                // version
            0,    0,    0,    1,                                // procedure
            0,    0,    0,    0x11, 0, 0, 0, 1, 0xAA, 0, 0, 0,  // credential: flavour, length, body
            0,    0,    0,    0x22, 0, 0, 0, 0,                 // verifier: flavour, length
            0xDE, 0xAD, 0xBE, 0xEF,                             // arguments
        }),
        BuildCall(0x12345678, kNfsProgram, 3, 1, {0xDE, 0xAD, 0xBE, 0xEF}, credential, verifier));
}

TEST(RpcMessageTest, AuthSysHasTheLayoutOfRfc5531) {
    const OpaqueAuth credential = AuthSys(1000, 100, {7}, "h");
    EXPECT_EQ(1u, credential.flavor);
    EXPECT_EQ((Bytes{
                  0, 0, 0,    0,                   // stamp
                  0, 0, 0,    1,    'h', 0, 0, 0,  // machine name
                  0, 0, 0x03, 0xE8,                // uid
                  0, 0, 0,    100,                 // gid
                  0, 0, 0,    1,    0,   0, 0, 7,  // further gids
              }),
              credential.body);
}

TEST(RpcMessageTest, ReplyIsDecodedFieldByField) {
    const RpcReply reply = ParseReply({
        0, 0, 0, 9,              // xid
        0, 0, 0, 1,              // REPLY
        0, 0, 0, 0,              // MSG_ACCEPTED
        0, 0, 0, 5, 0, 0, 0, 0,  // verifier
        0, 0, 0, 3,              // PROC_UNAVAIL
        1, 2,                    // results
    });
    EXPECT_EQ(9u, reply.xid);
    EXPECT_EQ(1u, reply.messageType);
    EXPECT_EQ(0u, reply.replyStat);
    EXPECT_EQ(5u, reply.verifierFlavor);
    EXPECT_EQ(0u, reply.verifierLength);
    EXPECT_EQ(kProcUnavail, reply.acceptStat);
    EXPECT_EQ((Bytes{1, 2}), reply.body);
}

TEST(RpcMessageTest, RecordMarkCarriesTheLengthAndTheLastFragmentBit) {
    EXPECT_EQ((Bytes{0x80, 0, 0, 2, 5, 6}), WithRecordMark({5, 6}));
}

TEST(SetAttributesTest, HasTheLayoutOfRfc1813) {
    SetAttributes attributes;
    attributes.mode = 0755;
    attributes.size = 0x100000002;
    attributes.atimeFromServer = true;
    attributes.mtime = NfsTime{3, 4};
    XdrWriter writer;
    attributes.Write(writer);
    EXPECT_EQ((Bytes{
                  0, 0, 0, 1, 0, 0, 0x01, 0xED,              // mode: set, 0755
                  0, 0, 0, 0,                                // uid: not set
                  0, 0, 0, 0,                                // gid: not set
                  0, 0, 0, 1, 0, 0, 0,    1,    0, 0, 0, 2,  // size: set
                  0, 0, 0, 1,                                // atime: SET_TO_SERVER_TIME
                  0, 0, 0, 2, 0, 0, 0,    3,    0, 0, 0, 4,  // mtime: SET_TO_CLIENT_TIME
              }),
              writer.Data());
}

TEST(ProcessTest, ReportsExitCodesAndSignals) {
    EXPECT_EQ(ExitStatus::Code(0), RunProgram({"true"}).status);
    EXPECT_EQ(ExitStatus::Code(7), RunProgram({"sh", "-c", "exit 7"}).status);
    EXPECT_EQ(ExitStatus::Signal(SIGABRT), RunProgram({"sh", "-c", "kill -ABRT $$"}).status);
}

TEST(ProcessTest, CannotStartWhatDoesNotExist) {
    EXPECT_THROW(Process({"/does/not/exist"}), std::runtime_error);
}

TEST(ProcessTest, PassesInputAndKeepsOutputAndErrorsApart) {
    const RunResult result = RunProgram({"sh", "-c", "cat; echo oops >&2"}, "some input\n");
    EXPECT_EQ("some input\n", result.output);
    EXPECT_EQ("oops\n", result.errors);
}

TEST(ProcessTest, AddsToTheEnvironmentAndStartsInTheGivenFolder) {
    ProcessOptions options;
    options.environment = {"VELOCAST_SUPPORT_TEST=yes"};
    options.workingDirectory = "/usr";
    EXPECT_EQ("yes /usr\n",
              RunProgram({"sh", "-c", "echo $VELOCAST_SUPPORT_TEST $(pwd)"}, "", options).output);
}

TEST(ProcessTest, WaitsForOutputFromAnOffsetOn) {
    Process cat({"cat"});
    EXPECT_TRUE(cat.Send("first 1\n"));
    EXPECT_TRUE(cat.WaitForOutput("first"));
    ASSERT_TRUE(cat.WaitForPattern("[0-9]\n"));
    const std::size_t mark = cat.OutputSize();
    EXPECT_FALSE(cat.WaitForOutput("first", Milliseconds(50), mark));
    cat.CloseStdin();
    EXPECT_EQ(ExitStatus::Code(0), cat.WaitExit());
    EXPECT_FALSE(cat.WaitForOutput("never", kPatience)) << "a closed output ends the wait";
}

TEST(ProcessTest, DoesNotBlockAProgramThatPrintsMuch) {
    const RunResult result = RunProgram({"head", "-c", "1000000", "/dev/zero"});
    EXPECT_EQ(1'000'000u, result.output.size());
}

TEST(ProcessTest, SendToAProgramThatHasEndedFails) {
    Process program({"true"});
    ASSERT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_FALSE(program.Send("anything"));
}

TEST(ProcessTest, StopEndsAProgramThatGoesOn) {
    Process program({"sleep", "1000"});
    EXPECT_FALSE(program.WaitExit(Milliseconds(20)));
    program.Stop();
    EXPECT_EQ(ExitStatus::Signal(SIGKILL), program.WaitExit());
}

TEST(FilesTest, PatternDependsOnTheSeedOnly) {
    EXPECT_EQ(PatternData(1001, 5), PatternData(1001, 5));
    EXPECT_NE(PatternData(1001, 5), PatternData(1001, 6));
    EXPECT_EQ(PatternData(1001, 5).substr(0, 9), PatternData(9, 5));
}

TEST(FilesTest, TemporaryFolderIsRemovedWithItsContent) {
    std::string path;
    {
        const ScopedTempDir folder;
        path = folder / "file";
        WriteFile(path, std::string_view("a\0b", 3));
        EXPECT_EQ(std::string("a\0b", 3), ReadFile(path));
    }
    EXPECT_FALSE(FileExists(path));
    EXPECT_THROW(ReadFile(path), std::runtime_error);
}

TEST(FilesTest, OpenDescriptorsOfThisProcessAreCounted) {
    const std::size_t before = OpenFds().size();
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(before + 1, OpenFds().size());
    close(fd);
    EXPECT_EQ(before, OpenFds().size());
}

TEST(FilesTest, ResidentMemoryIsReadFromTheKernel) { EXPECT_GT(RssKiB(), 100u); }

TEST(FilesTest, WaitForEndsWithItsCondition) {
    int calls = 0;
    EXPECT_TRUE(WaitFor([&calls] { return ++calls == 3; }));
    EXPECT_FALSE(WaitFor([] { return false; }, Milliseconds(10)));
}
