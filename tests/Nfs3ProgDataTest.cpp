// The NFS version 3 procedures on one object's attributes and data, and on the file system.

#include <sys/statvfs.h>
#include <unistd.h>

#include "Nfs3Prog.h"
#include "Nfs3Types.h"
#include "NfsServiceFixture.h"
#include "support/Faults.h"

using support::faults::LstatFault;

using namespace nfstest;
using namespace support;

namespace {

constexpr std::uint64_t kMaxFileSize = 1ULL << 41;  // of every file system that a test runs on

class Nfs3DataTest : public NfsServiceTest {
protected:
    Bytes ReadArguments(const Handle& file, std::uint64_t offset, std::uint32_t count) {
        return OpaqueOf(file) + HyperOf(offset) + Words({count});
    }
    Bytes WriteArguments(const Handle& file, std::uint64_t offset, std::uint32_t count,
                         const Bytes& data, std::uint32_t stable = 2) {
        return OpaqueOf(file) + HyperOf(offset) + Words({count, stable}) + OpaqueOf(data);
    }
};

class ReadOnlyNfs3DataTest : public ReadOnlyNfsServiceTest {};

// An export whose local directory is the empty path holds everything, so that also the procedures
// that never resolve their handle find their way through the export check.
class Nfs3DataAnywhereTest : public NfsServiceTest {
protected:
    void SetUp() override {
        NfsServiceTest::SetUp();
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(service.AddMountPoint("", "all", reason)) << reason;
    }
};

}  // namespace

// =================================================================================================
// GETATTR
// =================================================================================================

TEST_F(Nfs3DataTest, GetAttrAnswersStatusAndAttributes) {
    const Handle file = NewFile("f", "content");
    EXPECT_EQ(Hex(Words({0}) + AttributesOf(PathOf("f"))), Hex(Call(1, OpaqueOf(file)).body));
    EXPECT_EQ(Hex(Words({0}) + AttributesOf(root)), Hex(Call(1, OpaqueOf(rootHandle)).body));
}

TEST_F(Nfs3DataTest, GetAttrOfWhatGoesAwayMeanwhileIsAnIoError) {
    const Handle file = NewFile("f");
    const LstatFault fault(PathOf("f"));
    EXPECT_EQ(Hex(Words({5})), Hex(Call(1, OpaqueOf(file)).body));
}

TEST_F(Nfs3DataTest, GetAttrFollowsALinkThatTookTheFilesPlace) {
    const Handle file = NewFile("f", "content");
    MakeFile("g");
    ASSERT_EQ(0, unlink(PathOf("f").c_str()));
    ASSERT_EQ(0, symlink("g", PathOf("f").c_str()));
    EXPECT_EQ(NF3LNK, nfs->GetAttr(file).attributes.type) << "the link itself is described";
}

// =================================================================================================
// SETATTR
// =================================================================================================

TEST_F(Nfs3DataTest, SetAttrAnswersStatusAndEmptyWcc) {
    const Handle file = NewFile("f");
    EXPECT_EQ(Hex(Words({0, 0, 0})),
              Hex(Call(2, OpaqueOf(file) + kNoAttributes + Words({0})).body));
    EXPECT_EQ(Hex(Words({10002, 0, 0})),
              Hex(Call(2, OpaqueOf(file) + kNoAttributes + Words({1, 7, 0})).body));
}

TEST_F(Nfs3DataTest, SetAttrChangesModeAndSize) {
    const Handle file = NewFile("f", "0123456789");
    SetAttributes attributes;
    attributes.mode = 0604;
    attributes.size = 4;
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(file, attributes).status);
    EXPECT_EQ("0123", ReadFile(PathOf("f")));
    EXPECT_EQ(0604u, StatOf(PathOf("f")).st_mode & 07777);

    attributes = {};
    attributes.size = 6;
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(file, attributes).status);
    EXPECT_EQ(std::string("0123\0\0", 6), ReadFile(PathOf("f"))) << "grows with zeros";
    EXPECT_EQ(0604u, StatOf(PathOf("f")).st_mode & 07777);
    attributes.size = 0;
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(file, attributes).status);
    EXPECT_EQ("", ReadFile(PathOf("f")));
}

TEST_F(Nfs3DataTest, SetAttrPassesTheModeAsReceived) {
    const Handle file = NewFile("f");
    SetAttributes attributes;
    attributes.mode = 01755;
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(file, attributes).status);
    EXPECT_EQ(01755u, StatOf(PathOf("f")).st_mode & 07777) << "with the sticky bit";
    EXPECT_EQ(0755u, nfs->GetAttr(file).attributes.mode);
}

TEST_F(Nfs3DataTest, SetAttrAcceptsOwnerAndTimesAndAppliesNeither) {
    const Handle file = NewFile("f");
    const struct stat before = StatOf(PathOf("f"));
    SetAttributes attributes;
    attributes.uid = before.st_uid + 1;
    attributes.gid = before.st_gid + 1;
    attributes.atime = NfsTime{7, 8};
    attributes.mtime = NfsTime{9, 10};
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(file, attributes).status);
    const struct stat after = StatOf(PathOf("f"));
    EXPECT_EQ(before.st_uid, after.st_uid);
    EXPECT_EQ(before.st_gid, after.st_gid);
    EXPECT_EQ(before.st_atime, after.st_atime);
    EXPECT_EQ(before.st_mtime, after.st_mtime);
}

TEST_F(Nfs3DataTest, SetAttrToTheServersTimeArrivesAsSetWithZero) {
    const Handle file = NewFile("f");
    Log(LOG_CONTROL_FILE_ACCESS);
    SetAttributes attributes;
    attributes.mode = 0600;
    attributes.uid = 11;
    attributes.size = 0x100000002;
    attributes.atimeFromServer = true;
    attributes.mtime = NfsTime{7, 8};
    nfs->SetAttr(file, attributes);
    EXPECT_TRUE(
        log.Has("info", "[Nfs3Prog.ProcedureSETATTR] Update file attributes, path=" + PathOf("f") +
                            ", set_mode=1, mode=384, set_uid=1, uid=11, set_gid=0, gid=0, "
                            "set_size=1, size=4294967298, set_atime=1, atime.sec=0, "
                            "atime.nsec=0, set_mtime=1, mtime.sec=7, mtime.nsec=8"));
}

TEST_F(Nfs3DataTest, GuardPassesOnlyForACtimeOfZeroSeconds) {
    const Handle file = NewFile("f", "content");
    SetAttributes truncate;
    truncate.size = 0;
    const auto ctime = static_cast<std::uint32_t>(StatOf(PathOf("f")).st_ctime);
    for (const NfsTime guard : {NfsTime{ctime, 0}, NfsTime{1, 0}, NfsTime{0xFFFFFFFF, 0}}) {
        const WccResult result = nfs->SetAttr(file, truncate, guard);
        EXPECT_EQ(NFS3ERR_NOT_SYNC, result.status) << guard.seconds;
        EXPECT_TRUE(result.wcc.Empty());
    }
    EXPECT_EQ("content", ReadFile(PathOf("f")));
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(file, truncate, NfsTime{0, 0}).status);
    EXPECT_EQ("", ReadFile(PathOf("f")));
}

TEST_F(Nfs3DataTest, GuardComparesSecondsOnly) {
    const Handle file = NewFile("f");
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(file, {}, NfsTime{0, 999999999}).status);
}

TEST_F(Nfs3DataTest, GuardIsLoggedAndSoIsItsMismatch) {
    const Handle file = NewFile("f");
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->SetAttr(file, {}, NfsTime{0xFFFFFFFF, 5});
    EXPECT_EQ((Texts{"info [Nfs3Prog.ProcedureSETATTR] Path = " + PathOf("f"),
                     "info [Nfs3Prog.ProcedureSETATTR] Guard check: 1, time: 4294967295",
                     "info [Nfs3Prog.ProcedureSETATTR] Guard check fail, client: 4294967295, "
                     "server: 0",
                     "info [Nfs3Prog.ProcedureSETATTR] End stat=10002"}),
              log.From("[Nfs3Prog"));
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->SetAttr(file, {});
    EXPECT_EQ((Texts{"info [Nfs3Prog.ProcedureSETATTR] Path = " + PathOf("f"),
                     "info [Nfs3Prog.ProcedureSETATTR] Guard check: 0, time: 0",
                     "info [Nfs3Prog.ProcedureSETATTR] End stat=0"}),
              log.From("[Nfs3Prog"));
    Log(kAllLogBits & ~LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->SetAttr(file, {}, NfsTime{7, 0});
    for (const std::string& line : log.From("[Nfs3Prog.ProcedureSETATTR]")) {
        EXPECT_EQ(std::string::npos, line.find("Guard")) << line;
    }
}

TEST_F(Nfs3DataTest, GuardOfAMissingFileIsNotLookedAt) {
    const Handle file = NewFile("f");
    ASSERT_EQ(0, unlink(PathOf("f").c_str()));
    EXPECT_EQ(NFS3ERR_IO, nfs->SetAttr(file, {}, NfsTime{7, 0}).status);
}

TEST_F(Nfs3DataTest, RefusedUpdateIsInvalid) {
    SetAttributes attributes;
    attributes.size = 5;
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(NFS3ERR_INVAL, nfs->SetAttr(rootHandle, attributes).status)
        << "a folder has no size to set";
    EXPECT_TRUE(
        log.Has("error", "[Nfs3Prog.ProcedureSETATTR] Update file attribute to " + root + " fail"));
    Log(kAllLogBits & ~LOG_CONTROL_ERROR);
    EXPECT_EQ(NFS3ERR_INVAL, nfs->SetAttr(rootHandle, attributes).status);
    EXPECT_FALSE(
        log.Has("error", "[Nfs3Prog.ProcedureSETATTR] Update file attribute to " + root + " fail"));

    const Handle file = NewFile("f", "content");
    for (const std::uint64_t size : {1ULL << 63, ~0ULL}) {
        attributes.size = size;
        EXPECT_EQ(NFS3ERR_INVAL, nfs->SetAttr(file, attributes).status) << size;
    }
    EXPECT_EQ("content", ReadFile(PathOf("f")));
}

TEST_F(ReadOnlyNfs3DataTest, SetAttrIsNotRefused) {
    const Handle file = NewFile("f", "content");
    SetAttributes attributes;
    attributes.size = 3;
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(file, attributes).status);
    EXPECT_EQ("con", ReadFile(PathOf("f")));
}

// =================================================================================================
// LOOKUP
// =================================================================================================

TEST_F(Nfs3DataTest, LookupAnswersHandleAndAttributesAndNothingOfTheFolder) {
    MakeFile("f", "content");
    const Bytes arguments = OpaqueOf(rootHandle) + StringOf("f");
    EXPECT_EQ(
        Hex(Words({0, 56}) + HandleOfId(1) + Words({1}) + AttributesOf(PathOf("f")) + Words({0})),
        Hex(Call(3, arguments).body));
    EXPECT_EQ(HandleOfId(1), nfs->Lookup(rootHandle, "f").handle) << "the same every time";
    MakeFile("F");
    EXPECT_EQ(HandleOfId(2), nfs->Lookup(rootHandle, "F").handle) << "letter case matters";
}

TEST_F(Nfs3DataTest, LookupOfAMissingNameIsNoEntry) {
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(Hex(Words({2, 0})), Hex(Call(3, OpaqueOf(rootHandle) + StringOf("nobody")).body));
    EXPECT_EQ(Texts{}, log.From("")) << "it lies in the export";
    const Handle file = NewFile("f");
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Lookup(file, "below a file").status);
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Lookup(rootHandle, std::string(256, 'n')).status);
}

TEST_F(Nfs3DataTest, LookupOutsideEveryExportIsNoEntry) {
    WriteFile(folder / "outside", "");
    Log(LOG_CONTROL_ERROR);
    for (const char* name : {"..", "../outside", "../../.."}) {
        EXPECT_EQ(NFS3ERR_NOENT, nfs->Lookup(rootHandle, name).status) << name;
    }
    EXPECT_EQ(Texts(3, "error [Nfs3Prog.ProcedureLOOKUP] Path record not found"), log.From(""));
}

TEST_F(Nfs3DataTest, LookupResolvesDotNamesAsPaths) {
    MakeFolder("d");
    const Handle inner = Lookup("d");
    EXPECT_EQ(rootHandle, nfs->Lookup(inner, "..").handle);
    EXPECT_EQ(inner, nfs->Lookup(inner, ".").handle);
    EXPECT_EQ(inner, nfs->Lookup(inner, "").handle);
    EXPECT_EQ(inner, nfs->Lookup(inner, "../d").handle);
    EXPECT_EQ(rootHandle, nfs->Lookup(inner, "../../vm01").handle);
}

TEST_F(Nfs3DataTest, LookupOfASiblingWhoseNameBeginsLikeTheExportIsNoEntry) {
    ASSERT_EQ(0, mkdir((folder / "vm01x").c_str(), 0755));
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Lookup(rootHandle, "../vm01x").status);
}

TEST_F(Nfs3DataTest, LookupOfALinkIsLookupOfItsTarget) {
    const Handle file = NewFile("f");
    WriteFile(folder / "outside", "");
    ASSERT_EQ(0, symlink("f", PathOf("link").c_str()));
    ASSERT_EQ(0, symlink("../outside", PathOf("way out").c_str()));
    ASSERT_EQ(0, symlink("nobody", PathOf("dangling").c_str()));
    const LookupResult result = nfs->Lookup(rootHandle, "link");
    EXPECT_EQ(file, result.handle);
    EXPECT_EQ(NF3REG, result.attributes.value().type);
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Lookup(rootHandle, "way out").status);
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Lookup(rootHandle, "dangling").status);
}

TEST_F(Nfs3DataTest, LookupWithoutReadableAttributesStillAnswersTheHandle) {
    MakeFile("f");
    const LstatFault fault(PathOf("f"));
    EXPECT_EQ(Hex(Words({0, 56}) + HandleOfId(1) + Words({0, 0})),
              Hex(Call(3, OpaqueOf(rootHandle) + StringOf("f")).body));
}

// =================================================================================================
// ACCESS
// =================================================================================================

TEST_F(Nfs3DataTest, AccessGrantsWhateverIsAsked) {
    const Handle file = NewFile("f");
    ASSERT_EQ(0, chmod(PathOf("f").c_str(), 0));
    for (const std::uint32_t asked : {0u, 1u, 2u, 4u, 8u, 16u, 32u, 0x3Fu, 0x40u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Hex(Words({0, 1}) + AttributesOf(PathOf("f")) + Words({asked})),
                  Hex(Call(4, OpaqueOf(file) + Words({asked})).body));
    }
}

TEST_F(ReadOnlyNfs3DataTest, AccessTakesTheRightsToChangeAndToExecuteAway) {
    for (const auto& [asked, granted] :
         std::initializer_list<std::pair<std::uint32_t, std::uint32_t>>{{0x3F, 0x03},
                                                                        {0x01, 0x01},
                                                                        {0x02, 0x02},
                                                                        {0x04, 0},
                                                                        {0x08, 0},
                                                                        {0x10, 0},
                                                                        {0x20, 0},
                                                                        {0x40, 0x40},
                                                                        {0xFFFFFFFF, 0xFFFFFFC3}}) {
        EXPECT_EQ(granted, nfs->Access(rootHandle, asked).access) << asked;
    }
}

TEST_F(Nfs3DataTest, AccessWithoutReadableAttributesStillAnswersTheRights) {
    const Handle file = NewFile("f");
    const LstatFault fault(PathOf("f"));
    EXPECT_EQ(Hex(Words({0, 0, 0x1F})), Hex(Call(4, OpaqueOf(file) + Words({0x1F})).body));
}

TEST_F(ReadOnlyNfs3DataTest, AccessLogsWhatWasAskedInHexadecimal) {
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Access(rootHandle, 0x3F);
    EXPECT_TRUE(log.Has("info", "[Nfs3Prog.ProcedureACCESS] Readonly: 1, access: 3f"));
    Log(kAllLogBits & ~LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Access(rootHandle, 0x3F);
    EXPECT_FALSE(log.Has("info", "[Nfs3Prog.ProcedureACCESS] Readonly: 1, access: 3f"));
}

TEST_F(Nfs3DataTest, AccessIsLoggedAlsoWhenItIsRefused) {
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Access(HandleOfId(99), 0xFFFFFFFF);
    EXPECT_EQ((Texts{"info [Nfs3Prog.ProcedureACCESS] Readonly: 0, access: ffffffff",
                     "info [Nfs3Prog.ProcedureACCESS] End stat=5"}),
              log.From(""));
}

// =================================================================================================
// READLINK, COMMIT, PATHCONF: not served
// =================================================================================================

TEST_F(Nfs3DataTest, ReadLinkCommitAndPathConfFailAlsoOnGoodHandles) {
    const Handle file = NewFile("f");
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(5, OpaqueOf(file)).body));
    EXPECT_EQ(Hex(Words({5, 0, 0})), Hex(Call(21, OpaqueOf(file) + Words({0, 0, 0})).body));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(20, OpaqueOf(file)).body));
    EXPECT_EQ((Texts{"error [Nfs3Prog.ProcedureREADLINK] Path record not found",
                     "error [Nfs3Prog.ProcedureCOMMIT] Path record not found",
                     "error [Nfs3Prog.ProcedurePATHCONF] Path record not found"}),
              log.From(""));
}

TEST_F(Nfs3DataAnywhereTest, ReadLinkWouldAnswerEmptyDataBeforeItsAttributes) {
    EXPECT_EQ(Hex(Words({0, 0, 0})), Hex(Call(5, OpaqueOf(rootHandle)).body));
}

TEST_F(Nfs3DataAnywhereTest, CommitWouldAnswerAVerifierOfZero) {
    EXPECT_EQ(Hex(Words({0, 0, 0, 0, 0})),
              Hex(Call(21, OpaqueOf(rootHandle) + Words({0, 0, 0})).body));
}

TEST_F(Nfs3DataAnywhereTest, PathConfWouldAnswerItsLimits) {
    EXPECT_EQ(Hex(Words({
                  0,    // status
                  0,    // no attributes
                  0,    // linkmax
                  255,  // name_max
                  0,    // no_trunc
                  1,    // chown_restricted
                  1,    // case_insensitive
                  1,    // case_preserving
              })),
              Hex(Call(20, OpaqueOf(rootHandle)).body));
}

// =================================================================================================
// READ
// =================================================================================================

TEST_F(Nfs3DataTest, ReadAnswersCountEofAndDataWithoutAttributes) {
    const Handle file = NewFile("f", "01234567");
    EXPECT_EQ(Hex(Words({
                      0,  // status
                      0,  // no attributes
                      8,  // count
                      1,  // eof
                      8,  // length of the data
                  }) +
                  ToBytes("01234567")),
              Hex(Call(6, ReadArguments(file, 0, 8)).body));
    EXPECT_EQ(Hex(Words({0, 0, 4, 0, 4}) + ToBytes("2345")),
              Hex(Call(6, ReadArguments(file, 2, 4)).body));
}

TEST_F(Nfs3DataTest, ReadSendsTheFillOfItsData) {
    const Handle file = NewFile("f", "0123456789");
    for (const Transport transport : {Transport::Tcp, Transport::Udp}) {
        Nfs3Client client(transport);
        for (const std::uint32_t count : {1u, 2u, 3u, 4u, 5u, 7u, 10u}) {
            const ReadResult result = client.Read(file, 0, count);
            EXPECT_EQ(count, result.count);
            EXPECT_EQ(ToBytes(std::string("0123456789").substr(0, count)), result.data);
            EXPECT_EQ(20 + (count + 3) / 4 * 4, result.rpc.body.size()) << count;
        }
    }
}

TEST_F(Nfs3DataTest, ReadTellsTheEndAtTheLastByte) {
    const Handle file = NewFile("f", "0123456789");
    struct Case {
        std::uint64_t offset;
        std::uint32_t count, expected;
        bool eof;
    };
    for (const Case& c : {Case{0, 9, 9, false}, Case{0, 10, 10, true}, Case{0, 11, 10, true},
                          Case{9, 1, 1, true}, Case{8, 1, 1, false}, Case{10, 1, 0, true},
                          Case{11, 5, 0, true}, Case{1ULL << 40, 5, 0, true}}) {
        SCOPED_TRACE(std::to_string(c.offset) + "+" + std::to_string(c.count));
        const ReadResult result = nfs->Read(file, c.offset, c.count);
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(c.expected, result.count);
        EXPECT_EQ(c.expected, result.data.size());
        EXPECT_EQ(c.eof, result.eof);
        EXPECT_FALSE(result.attributes);
    }
}

TEST_F(Nfs3DataTest, ReadOfNothingIsTheEndWhateverTheOffset) {
    const Handle file = NewFile("f", "0123456789");
    for (const std::uint64_t offset : {0ULL, 5ULL, 10ULL, 1ULL << 41, 1ULL << 63, ~0ULL}) {
        EXPECT_EQ(Hex(Words({0, 0, 0, 1, 0})), Hex(Call(6, ReadArguments(file, offset, 0)).body))
            << offset;
    }
    EXPECT_EQ(NFS3_OK, nfs->Read(rootHandle, 0, 0).status) << "not even of a folder";
}

TEST_F(Nfs3DataTest, ReadOfMoreThan65536BytesAnswersThatMany) {
    const std::string content = PatternData(200'000);
    const Handle file = NewFile("f", content);
    for (const std::uint32_t count : {65'536u, 65'537u, 100'000u}) {
        const ReadResult result = nfs->Read(file, 1, count);
        EXPECT_EQ(65'536u, result.count);
        EXPECT_EQ(ToBytes(content.substr(1, 65'536)), result.data);
        EXPECT_FALSE(result.eof);
    }
}

TEST_F(Nfs3DataTest, ReadBeyond4GiBFindsItsPlace) {
    const Handle file = NewFile("f");
    ASSERT_EQ(0, truncate(PathOf("f").c_str(), 0x100000000));
    ASSERT_EQ(4u, nfs->Write(file, 0x100000000, ToBytes("tail")).count);
    const ReadResult result = nfs->Read(file, 0xFFFFFFFF, 5);
    EXPECT_EQ(ToBytes(std::string("\0tail", 5)), result.data);
    EXPECT_TRUE(result.eof);
}

TEST_F(Nfs3DataTest, ReadOfMoreThanTheFreeBufferIsInvalid) {
    const Handle file = NewFile("f", "0123456789");
    // The reply's buffer of 1 MiB, less the record mark (4), the reply header (24), the status (4)
    // and the fields before the data (16).
    constexpr std::uint32_t kFree = 0x100000 - 4 - 24 - 4 - 16;
    EXPECT_EQ(10u, nfs->Read(file, 0, kFree).count);
    Log(0);
    for (const std::uint32_t count : {kFree + 1, 0x80000000u, 0xFFFFFFFFu}) {
        log.Forget();
        EXPECT_EQ(Hex(Words({22, 0})), Hex(Call(6, ReadArguments(file, 3, count)).body));
        EXPECT_EQ((Texts{"error [Nfs3Prog.ProcedureREAD] Count bigger than free buffer (path=" +
                             PathOf("f") + ", offset=3 length=" + std::to_string(count) + ")",
                         "error [Nfs3Prog.ProcedureREAD] Read fail"}),
                  log.From(""))
            << "told whatever the log control";
    }
    // On UDP there is no record mark.
    Nfs3Client udp(Transport::Udp);
    EXPECT_EQ(10u, udp.Read(file, 0, kFree + 4).count);
    EXPECT_EQ(NFS3ERR_INVAL, udp.Read(file, 0, kFree + 5).status);
}

TEST_F(Nfs3DataTest, ReadThatFailsIsInvalid) {
    const Handle file = NewFile("f", "0123456789");
    Log(0);
    EXPECT_EQ(Hex(Words({22, 0})), Hex(Call(6, ReadArguments(rootHandle, 0, 8)).body))
        << "a folder";
    EXPECT_EQ((Texts{"error [Nfs3Prog.ProcedureREAD] Read return -1 (path=" + root +
                         ", offset=0 length=8)",
                     "error [Nfs3Prog.ProcedureREAD] Read fail"}),
              log.From(""))
        << "told whatever the log control";
    EXPECT_EQ(8u, nfs->Read(file, 0, 8).count) << "the file is none the worse";
}

TEST_F(Nfs3DataTest, ReadAtAnOffsetThatNoFileCanHaveIsBehindTheEnd) {
    const Handle file = NewFile("f", "0123456789");
    Log(0);
    for (const std::uint64_t offset : {std::uint64_t{1} << 63, ~std::uint64_t{0}}) {
        EXPECT_EQ(Hex(Words({0, 0, 0, 1, 0})), Hex(Call(6, ReadArguments(file, offset, 8)).body));
    }
    EXPECT_EQ(Texts{}, log.From(""));
    EXPECT_EQ(8u, nfs->Read(file, 0, 8).count);
}

TEST_F(Nfs3DataTest, ReadLogsItsArgumentsAndResult) {
    const Handle file = NewFile("f", "0123456789");
    const auto linesAt = [&](int bits, std::uint64_t offset, std::uint32_t count) {
        Log(bits);
        nfs->Read(file, offset, count);
        return log.From("[Nfs3Prog");
    };
    const std::string label = "info [Nfs3Prog.ProcedureREAD] ";
    EXPECT_EQ((Texts{label + "Path = " + PathOf("f"), label + "Offset=3, length=4",
                     label + "Read=4 (eof=F)", label + "End stat=0"}),
              linesAt(LOG_CONTROL_PROC_FUNC_ARGU, 3, 4));
    EXPECT_EQ((Texts{label + "Path = " + PathOf("f"), label + "Offset=3, length=4000000",
                     "error [Nfs3Prog.ProcedureREAD] Count bigger than free buffer (path=" +
                         PathOf("f") + ", offset=3 length=4000000)",
                     "error [Nfs3Prog.ProcedureREAD] Read fail", label + "End stat=22"}),
              linesAt(LOG_CONTROL_PROC_FUNC_ARGU, 3, 4'000'000));
    EXPECT_TRUE(
        (linesAt(LOG_CONTROL_PROC_FUNC_ARGU, ~0ULL, 0),
         log.Has("info", "[Nfs3Prog.ProcedureREAD] Offset=18446744073709551615, length=0") &&
             log.Has("info", "[Nfs3Prog.ProcedureREAD] Read=0 (eof=T)")));
    EXPECT_EQ(Texts{}, linesAt(LOG_CONTROL_ERROR | LOG_CONTROL_RPC, 3, 4));
}

TEST_F(Nfs3DataTest, ReadPassesItsArgumentsOnClampedAndFromTheStart) {
    const Handle file = NewFile("f", "0123456789");
    Log(LOG_CONTROL_FILE_ACCESS);
    nfs->Read(file, 7, 100'000);
    EXPECT_TRUE(log.Has("info", "[Nfs3Prog.ProcedureREAD] Read file, path=" + PathOf("f") +
                                    ", iSeek=7, iSeekType=0, length=65536"));
}

TEST_F(ReadOnlyNfs3DataTest, ReadIsServed) {
    EXPECT_EQ(ToBytes("content"), nfs->Read(NewFile("f", "content"), 0, 100).data);
}

// =================================================================================================
// WRITE
// =================================================================================================

TEST_F(Nfs3DataTest, WriteAnswersEmptyWccCountFileSyncAndVerifier) {
    const Handle file = NewFile("f");
    const std::uint64_t verifier = nfs->Write(file, 0, ToBytes("x")).verifier;
    EXPECT_EQ(Hex(Words({
                      0,     // status
                      0, 0,  // no image before or after
                      5,     // count
                      2,     // FILE_SYNC
                  }) +
                  HyperOf(verifier)),
              Hex(Call(7, WriteArguments(file, 3, 5, ToBytes("hello"), 0)).body));
    EXPECT_EQ(std::string("x\0\0hello", 8), ReadFile(PathOf("f")));
}

TEST_F(Nfs3DataTest, WriteIsFileSyncWhateverWasAsked) {
    const Handle file = NewFile("f");
    for (const std::uint32_t stable : {0u, 1u, 2u, 3u, 0xFFFFFFFFu}) {
        EXPECT_EQ(2u, nfs->Write(file, 0, ToBytes("x"), stable).committed) << stable;
    }
}

TEST(Nfs3VerifierTest, VerifierIsTheTimeOfTheFirstCallInMilliseconds) {
    LoggedMain service;
    const ScopedTempDir folder;
    char reason[STATUS_SIZE] = "";
    std::uint64_t earlier = 0;
    for (int run = 0; run < 2; ++run) {
        ASSERT_TRUE(service.StartServer(0, 0, 0, 0, false, reason)) << reason;
        ASSERT_TRUE(service.AddMountPoint(folder.Path().c_str(), "vm01", reason)) << reason;
        const Handle root = MountClient(Transport::Udp).Mnt("vm01").handle;
        const std::uint64_t before = CUtilities::GetCurrentSystemTimeInMilliseconds();
        Nfs3Client nfs(Transport::Udp);
        nfs.Null();
        const std::uint64_t after = CUtilities::GetCurrentSystemTimeInMilliseconds();
        const Handle file = nfs.Create(root, "f").handle.value();
        const std::uint64_t verifier = nfs.Write(file, 0, ToBytes("x")).verifier;
        EXPECT_LE(before, verifier);
        EXPECT_GE(after, verifier);
        ASSERT_TRUE(WaitFor(
            [&] { return CUtilities::GetCurrentSystemTimeInMilliseconds() > verifier + 1; }));
        EXPECT_EQ(verifier, nfs.Write(file, 0, ToBytes("y")).verifier) << "constant";
        EXPECT_EQ(verifier, Nfs3Client(Transport::Udp).Write(file, 0, ToBytes("z")).verifier);
        EXPECT_NE(earlier, verifier) << "a server that was started anew tells so";
        earlier = verifier;
        service.StopServer();
    }
}

TEST_F(Nfs3DataTest, WriteOf20000BytesWritesAndReports16384) {
    const std::string content = PatternData(20'000);
    const Handle file = NewFile("f");
    const WriteResult result = nfs->Write(file, 0, ToBytes(content));
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(16'384u, result.count);
    EXPECT_EQ(2u, result.committed);
    EXPECT_EQ(content.substr(0, 16'384), ReadFile(PathOf("f")));
    EXPECT_EQ(3'616u, nfs->Write(file, 16'384, ToBytes(content.substr(16'384))).count);
    EXPECT_EQ(content, ReadFile(PathOf("f")));
}

TEST_F(Nfs3DataTest, WriteTakesTheAmountFromTheCount) {
    const Handle file = NewFile("f", "----------");
    EXPECT_EQ(3u, nfs->Write(file, 0, ToBytes("abcdef"), 2, 3).count);
    EXPECT_EQ("abc-------", ReadFile(PathOf("f")));
    EXPECT_EQ(0u, nfs->Write(file, 0, ToBytes("xyz"), 2, 0).count);
    EXPECT_EQ("abc-------", ReadFile(PathOf("f")));
    EXPECT_EQ(NFS3_OK, nfs->Write(file, 0, ToBytes("xyz"), 2, 0).status);
}

TEST_F(Nfs3DataTest, WriteNeverTakesMoreThanTheBytesThatCame) {
    const Handle file = NewFile("f", "----------");
    for (const std::uint32_t count : {4u, 16'384u, 0x80000000u, 0xFFFFFFFFu}) {
        const WriteResult result = nfs->Write(file, 5, ToBytes("abc"), 2, count);
        EXPECT_EQ(NFS3_OK, result.status) << count;
        EXPECT_EQ(3u, result.count) << count;
        EXPECT_EQ("-----abc--", ReadFile(PathOf("f"))) << count;
    }
    EXPECT_EQ(0u, nfs->Write(file, 5, {}, 2, 8).count);
    EXPECT_EQ("-----abc--", ReadFile(PathOf("f")));
}

TEST_F(Nfs3DataTest, WriteUpToTheLargestFileIsAllowed) {
    const Handle file = NewFile("f");
    ASSERT_EQ(kMaxFileSize, CUtilities::GetMaxFileSize(root.c_str()));
    EXPECT_EQ(1u, nfs->Write(file, kMaxFileSize - 1, ToBytes("x")).count);
    EXPECT_EQ(kMaxFileSize, nfs->GetAttr(file).attributes.size);
    EXPECT_EQ(NFS3_OK, nfs->Write(file, kMaxFileSize, {}).status);
}

TEST_F(Nfs3DataTest, WriteBeyondTheLargestFileIsTooLarge) {
    const Handle file = NewFile("f");
    Log(LOG_CONTROL_ERROR);
    struct Case {
        std::uint64_t offset;
        std::uint32_t count;
    };
    for (const Case& c : {Case{kMaxFileSize - 1, 2}, Case{kMaxFileSize, 1},
                          Case{kMaxFileSize + 1, 0}, Case{kMaxFileSize + 1, 1}, Case{1ULL << 63, 1},
                          Case{~0ULL, 1}, Case{kMaxFileSize - 0xFFFFFFFE, 0xFFFFFFFF}}) {
        SCOPED_TRACE(std::to_string(c.offset) + "+" + std::to_string(c.count));
        log.Forget();
        EXPECT_EQ(Hex(Words({27, 0, 0})),
                  Hex(Call(7, WriteArguments(file, c.offset, c.count, ToBytes("xx"))).body));
        EXPECT_EQ((Texts{"error [Nfs3Prog.ProcedureWRITE] Write fail"}), log.From(""));
    }
    EXPECT_EQ(0u, nfs->GetAttr(file).attributes.size);
}

TEST_F(Nfs3DataTest, WriteThatFailsIsInvalid) {
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(Hex(Words({22, 0, 0})), Hex(Call(7, WriteArguments(rootHandle, 0, 1, {7})).body));
    EXPECT_TRUE(log.Has("error", "[Nfs3Prog.ProcedureWRITE] Write fail"));
    Log(kAllLogBits & ~LOG_CONTROL_ERROR);
    EXPECT_EQ(NFS3ERR_INVAL, nfs->Write(rootHandle, 0, {7}).status);
    EXPECT_FALSE(log.Has("error", "[Nfs3Prog.ProcedureWRITE] Write fail"));
}

TEST_F(ReadOnlyNfs3DataTest, WriteIsDenied) {
    const Handle file = NewFile("f", "content");
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(Hex(Words({13, 0, 0})),
              Hex(Call(7, OpaqueOf(file) + Words({0, 0, 1, 2}) + StringOf("x")).body));
    EXPECT_EQ((Texts{"error [Nfs3Prog.ProcedureWRITE] Write fail"}), log.From(""));
    EXPECT_EQ("content", ReadFile(PathOf("f")));
    EXPECT_EQ(NFS3ERR_ACCES, nfs->Write(HandleOfId(99), 0, {7}).status)
        << "instead of an I/O error";
    EXPECT_EQ(NFS3ERR_ACCES, nfs->Write(file, ~0ULL, {7}).status) << "instead of too large";
}

TEST_F(Nfs3DataTest, WriteLogsItsArgumentsAndResult) {
    const Handle file = NewFile("f");
    const std::string label = "info [Nfs3Prog.ProcedureWRITE] ";
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Write(file, 7, ToBytes("abcde"), 2, 3);
    EXPECT_EQ((Texts{label + "Path = " + PathOf("f"), label + "Offset=7, length=5, count=3",
                     label + "Write=3", label + "End stat=0"}),
              log.From("[Nfs3Prog"));
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Write(file, ~0ULL, {7});
    EXPECT_EQ(
        (Texts{label + "Path = " + PathOf("f"),
               label + "Offset=18446744073709551615, length=1, count=1", label + "End stat=27"}),
        log.From("[Nfs3Prog"));
    Log(LOG_CONTROL_ERROR | LOG_CONTROL_RPC);
    nfs->Write(file, 0, {7});
    EXPECT_EQ(Texts{}, log.From("[Nfs3Prog"));
}

TEST_F(Nfs3DataTest, WritePassesItsArgumentsOnClampedAndFromTheStart) {
    const Handle file = NewFile("f");
    Log(LOG_CONTROL_FILE_ACCESS);
    nfs->Write(file, 7, Bytes(20'000));
    EXPECT_TRUE(log.Has("info", "[Nfs3Prog.ProcedureWRITE] Write file, path=" + PathOf("f") +
                                    ", iSeek=7, iSeekType=0, length=16384"));
}

// =================================================================================================
// FSSTAT and FSINFO
// =================================================================================================

TEST_F(Nfs3DataTest, FsStatAnswersTheSpaceOfTheFileSystem) {
    const Handle file = NewFile("f", std::string(100'000, 'x'));
    for (const auto& [handle, path] : {std::pair{rootHandle, root}, std::pair{file, PathOf("f")}}) {
        struct statvfs fs {};
        ASSERT_EQ(0, statvfs(path.c_str(), &fs));
        ASSERT_NE(fs.f_blocks, fs.f_bfree);
        EXPECT_EQ(Hex(Words({0, 1}) + AttributesOf(path) +         //
                      HyperOf(fs.f_blocks * fs.f_frsize) +         // tbytes
                      HyperOf(fs.f_bfree * fs.f_frsize) +          // fbytes
                      HyperOf(fs.f_bavail * fs.f_frsize) +         // abytes
                      HyperOf(fs.f_files) + HyperOf(fs.f_ffree) +  // tfiles, ffiles
                      HyperOf(fs.f_ffree) +                        // afiles
                      Words({0})),                                 // invarsec
                  Hex(Call(18, OpaqueOf(handle)).body));
    }
}

TEST_F(Nfs3DataTest, FsInfoAnswersTheLimitsOfTheServer) {
    EXPECT_EQ(Hex(Words({0, 1}) + AttributesOf(root) +
                  Words({
                      65536,   // rtmax
                      65536,   // rtpref
                      512,     // rtmult
                      16384,   // wtmax
                      16384,   // wtpref
                      512,     // wtmult
                      8192,    // dtpref
                      512, 0,  // maxfilesize: 2^41
                      1, 0,    // time_delta
                      24,      // homogeneous, times can be set
                  })),
              Hex(Call(19, OpaqueOf(rootHandle)).body));
}

TEST_F(Nfs3DataTest, FsStatAndFsInfoOfWhatGoesAwayMeanwhileAreIoErrors) {
    const Handle file = NewFile("f");
    const LstatFault fault(PathOf("f"));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(18, OpaqueOf(file)).body));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Call(19, OpaqueOf(file)).body));
}

TEST_F(ReadOnlyNfs3DataTest, FsInfoIsTheSame) {
    EXPECT_EQ(24u, nfs->FsInfo(rootHandle).properties);
}
