// The NFS version 3 procedures that create, remove, rename and list names.

#include <dirent.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <map>
#include <set>

#include "Nfs3Prog.h"
#include "Nfs3Types.h"
#include "NfsServiceFixture.h"
#include "support/Faults.h"

using support::faults::LstatFault;

using namespace nfstest;
using namespace support;

namespace {

class Nfs3NamespaceTest : public NfsServiceTest {
protected:
    // Arguments that name an object of a folder.
    static Bytes Where(const Handle& directory, const std::string& name) {
        return OpaqueOf(directory) + StringOf(name);
    }
    // The results of CREATE and MKDIR for an object.
    Bytes NewObject(std::uint32_t id, const std::string& path) const {
        return Words({0, 1, 56}) + HandleOfId(id) + Words({1}) + AttributesOf(path) + kEmptyWcc;
    }

    // Makes a folder with so many files "e0", "e1"..., and returns its handle.
    Handle MakeListing(int entries) {
        MakeFolder("d");
        for (int i = 0; i < entries; ++i) {
            MakeFile("d/e" + std::to_string(i));
        }
        return Lookup("d");
    }

    // The names of a folder in the order in which the file system lists them.
    Texts Listed(const std::string& path) const {
        Texts names;
        DIR* dir = opendir(path.c_str());
        while (const dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") {
                names.push_back(name);
            }
        }
        closedir(dir);
        return names;
    }

    static Texts Names(const DirectoryResult& result) {
        Texts names;
        for (const DirectoryEntry& entry : result.entries) {
            names.push_back(entry.name);
        }
        return names;
    }
    static std::vector<std::uint64_t> Cookies(const DirectoryResult& result) {
        std::vector<std::uint64_t> cookies;
        for (const DirectoryEntry& entry : result.entries) {
            cookies.push_back(entry.cookie);
        }
        return cookies;
    }

    DirectoryResult List(bool plus, const Handle& directory, std::uint64_t cookie = 0) {
        return plus ? nfs->ReadDirPlus(directory, cookie) : nfs->ReadDir(directory, cookie);
    }
};

class ReadOnlyNfs3NamespaceTest : public ReadOnlyNfsServiceTest {};

// An export whose local directory is the empty path holds everything, so that also the procedures
// that never resolve their handle find their way through the export check.
class Nfs3NamespaceAnywhereTest : public NfsServiceTest {
protected:
    void SetUp() override {
        NfsServiceTest::SetUp();
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(service.AddMountPoint("", "all", reason)) << reason;
    }
};

// READDIR (false) and READDIRPLUS (true).
class Nfs3ListingTest : public Nfs3NamespaceTest, public ::testing::WithParamInterface<bool> {
protected:
    bool Plus() const { return GetParam(); }
    std::string Label() const {
        return Plus() ? "Nfs3Prog.ProcedureREADDIRPLUS" : "Nfs3Prog.ProcedureREADDIR";
    }
    RpcReply Raw(const Handle& directory, std::uint64_t cookie, const Bytes& verifier,
                 std::uint32_t count, std::uint32_t maxcount) {
        return Plus() ? Call(17, OpaqueOf(directory) + HyperOf(cookie) + verifier +
                                     Words({count, maxcount}))
                      : Call(16, OpaqueOf(directory) + HyperOf(cookie) + verifier + Words({count}));
    }
    DirectoryResult List(const Handle& directory, std::uint64_t cookie = 0) {
        return Nfs3NamespaceTest::List(Plus(), directory, cookie);
    }
};
INSTANTIATE_TEST_SUITE_P(Both, Nfs3ListingTest, ::testing::Bool(),
                         [](const auto& parameter) -> std::string {
                             return parameter.param ? "ReadDirPlus" : "ReadDir";
                         });

const Bytes kVerifier{0xFE, 1, 2, 3, 4, 5, 6, 0xEF};

SetAttributes ModeOf(std::uint32_t mode) {
    SetAttributes attributes;
    attributes.mode = mode;
    return attributes;
}

}  // namespace

// =================================================================================================
// CREATE
// =================================================================================================

TEST_F(Nfs3NamespaceTest, CreateAnswersHandleAttributesAndEmptyWcc) {
    const RpcReply reply = Call(8, Where(rootHandle, "new") + Words({0}) + kNoAttributes);
    EXPECT_EQ(Hex(NewObject(1, PathOf("new"))), Hex(reply.body));
    EXPECT_EQ("", ReadFile(PathOf("new")));
    EXPECT_EQ(HandleOfId(1), Lookup("new"));
}

TEST_F(Nfs3NamespaceTest, CreateAppliesItsAttributes) {
    for (const CreateMode mode : {CreateMode::Unchecked, CreateMode::Guarded}) {
        const std::string name = "new" + std::to_string(static_cast<int>(mode));
        SetAttributes attributes = ModeOf(0604);
        attributes.size = 5;
        EXPECT_EQ(NFS3_OK, nfs->Create(rootHandle, name, mode, attributes).status);
        EXPECT_EQ(0604u, StatOf(PathOf(name)).st_mode & 07777);
        EXPECT_EQ(std::string(5, '\0'), ReadFile(PathOf(name)));
    }
}

TEST_F(Nfs3NamespaceTest, UncheckedCreateOfAnExistingFileKeepsItsContent) {
    const Handle file = NewFile("f", "content");
    const CreateResult result = nfs->Create(rootHandle, "f", CreateMode::Unchecked, ModeOf(0600));
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(file, result.handle);
    EXPECT_EQ("content", ReadFile(PathOf("f")));
    EXPECT_EQ(0600u, StatOf(PathOf("f")).st_mode & 07777);
}

TEST_F(Nfs3NamespaceTest, GuardedCreateOfAnExistingFileIsRefused) {
    MakeFile("f", "content");
    SetAttributes attributes;
    attributes.size = 0;
    EXPECT_EQ(NFS3ERR_EXIST, nfs->Create(rootHandle, "f", CreateMode::Guarded, attributes).status);
    EXPECT_EQ("content", ReadFile(PathOf("f")));
    EXPECT_EQ(Hex(Words({17, 0, 0})),
              Hex(Call(8, Where(rootHandle, "f") + Words({1}) + kNoAttributes).body));
    MakeFolder("d");
    EXPECT_EQ(NFS3ERR_EXIST, nfs->Create(rootHandle, "d", CreateMode::Guarded).status);
}

TEST_F(Nfs3NamespaceTest, ExclusiveCreateIgnoresItsVerifier) {
    MakeFile("f", "content");
    EXPECT_EQ(NFS3_OK, nfs->Create(rootHandle, "new", CreateMode::Exclusive, {}, 1).status);
    EXPECT_EQ(NFS3_OK, nfs->Create(rootHandle, "new", CreateMode::Exclusive, {}, 2).status);
    EXPECT_EQ(NFS3_OK, nfs->Create(rootHandle, "f", CreateMode::Exclusive, {}, 3).status);
    EXPECT_EQ("content", ReadFile(PathOf("f")));
}

TEST_F(Nfs3NamespaceTest, CreateInAnUnknownModeIsAnIoErrorAndMakesNothing) {
    for (const std::uint32_t mode : {3u, 4u, 0x80000000u, 0xFFFFFFFFu}) {
        EXPECT_EQ(Hex(Words({5, 0, 0})),
                  Hex(Call(8, Where(rootHandle, "new") + Words({mode})).body))
            << mode;
        EXPECT_FALSE(FileExists(PathOf("new")));
    }
}

TEST_F(Nfs3NamespaceTest, CreateThatFailsIsAnIoError) {
    MakeFolder("d");
    const Handle file = NewFile("f");
    EXPECT_EQ(NFS3ERR_IO, nfs->Create(rootHandle, "d").status) << "a folder has the name";
    EXPECT_EQ(NFS3ERR_IO, nfs->Create(rootHandle, "no folder/new").status);
    EXPECT_EQ(NFS3ERR_IO, nfs->Create(rootHandle, std::string(256, 'n')).status);
    EXPECT_EQ(NFS3ERR_IO, nfs->Create(file, "below a file").status);
    SetAttributes attributes;
    attributes.size = ~0ULL;
    const CreateResult result = nfs->Create(rootHandle, "new", CreateMode::Unchecked, attributes);
    EXPECT_EQ(NFS3ERR_IO, result.status) << "the attributes could not be applied";
    EXPECT_FALSE(result.handle);
    EXPECT_TRUE(FileExists(PathOf("new")));
}

TEST_F(Nfs3NamespaceTest, CreateOutsideEveryExportIsAnIoError) {
    WriteFile(folder / "outside", "content");
    SetAttributes attributes;
    attributes.size = 0;
    EXPECT_EQ(NFS3ERR_IO,
              nfs->Create(rootHandle, "../outside", CreateMode::Unchecked, attributes).status);
    EXPECT_EQ("content", ReadFile(folder / "outside"));
}

TEST_F(Nfs3NamespaceTest, CreateLogsItsModeAndWhetherTheFileExists) {
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Create(rootHandle, "new", CreateMode::Guarded);
    EXPECT_TRUE(
        log.Has("info", "[Nfs3Prog.ProcedureCREATE] Mode: 1, Is file exist before create: 0"));
    EXPECT_TRUE(log.Has("info", "[Nfs3Prog.ProcedureCREATE] Is file exist after create: 1"));
    log.Forget();
    nfs->Create(rootHandle, "new", CreateMode::Unchecked);
    EXPECT_TRUE(
        log.Has("info", "[Nfs3Prog.ProcedureCREATE] Mode: 0, Is file exist before create: 1"));
    log.Forget();
    Call(8, Where(rootHandle, "other") + Words({0xFFFFFFFF}));
    EXPECT_TRUE(
        log.Has("info", "[Nfs3Prog.ProcedureCREATE] Mode: -1, Is file exist before create: 0"));
    EXPECT_TRUE(log.Has("info", "[Nfs3Prog.ProcedureCREATE] Is file exist after create: 0"));

    Log(kAllLogBits & ~LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Create(rootHandle, "third");
    for (const std::string& line : log.From("[Nfs3Prog.ProcedureCREATE]")) {
        EXPECT_EQ(std::string::npos, line.find("Is file exist")) << line;
    }
}

TEST_F(Nfs3NamespaceTest, CreateWithoutReadableAttributesStillAnswersTheHandle) {
    const LstatFault fault(PathOf("new"));
    EXPECT_EQ(Hex(Words({0, 1, 56}) + HandleOfId(1) + Words({0, 0, 0})),
              Hex(Call(8, Where(rootHandle, "new") + Words({0}) + kNoAttributes).body));
}

TEST_F(ReadOnlyNfs3NamespaceTest, CreateIsDenied) {
    MakeFile("f", "content");
    for (const std::uint32_t mode : {0u, 1u}) {
        for (const char* name : {"new", "f"}) {
            EXPECT_EQ(Hex(Words({13, 0, 0})), Hex(Call(8, OpaqueOf(rootHandle) + StringOf(name) +
                                                              Words({mode}) + kNoAttributes)
                                                      .body));
        }
    }
    EXPECT_FALSE(FileExists(PathOf("new")));
    EXPECT_EQ(NFS3ERR_ACCES, nfs->Create(HandleOfId(99), "new").status)
        << "instead of an I/O error";
    EXPECT_EQ(NFS3ERR_ACCES, nfs->MkDir(HandleOfId(99), "new").status);
}

// =================================================================================================
// MKDIR
// =================================================================================================

TEST_F(Nfs3NamespaceTest, MkDirAnswersHandleAttributesAndEmptyWcc) {
    const RpcReply reply = Call(9, Where(rootHandle, "new") + kNoAttributes);
    EXPECT_EQ(Hex(NewObject(1, PathOf("new"))), Hex(reply.body));
    EXPECT_TRUE(S_ISDIR(StatOf(PathOf("new")).st_mode));
}

TEST_F(Nfs3NamespaceTest, MkDirUsesTheGivenModeOr0755UnderTheMaskOfTheProcess) {
    const mode_t mask = umask(0);
    EXPECT_EQ(NFS3_OK, nfs->MkDir(rootHandle, "default").status);
    EXPECT_EQ(NFS3_OK, nfs->MkDir(rootHandle, "given", ModeOf(0712)).status);
    EXPECT_EQ(NFS3_OK, nfs->MkDir(rootHandle, "none", ModeOf(0)).status);
    EXPECT_EQ(NFS3_OK, nfs->MkDir(rootHandle, "sticky", ModeOf(01777)).status);
    umask(027);
    EXPECT_EQ(NFS3_OK, nfs->MkDir(rootHandle, "masked").status);
    umask(mask);
    EXPECT_EQ(0755u, StatOf(PathOf("default")).st_mode & 07777);
    EXPECT_EQ(0712u, StatOf(PathOf("given")).st_mode & 07777);
    EXPECT_EQ(0u, StatOf(PathOf("none")).st_mode & 07777);
    EXPECT_EQ(01777u, StatOf(PathOf("sticky")).st_mode & 07777);
    EXPECT_EQ(0750u, StatOf(PathOf("masked")).st_mode & 07777);
}

TEST_F(Nfs3NamespaceTest, MkDirIgnoresEveryOtherAttribute) {
    SetAttributes attributes;
    attributes.size = 77;
    attributes.uid = 4711;
    attributes.mtime = NfsTime{7, 0};
    const CreateResult result = nfs->MkDir(rootHandle, "new", attributes);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_NE(4711u, result.attributes.value().uid);
    EXPECT_NE(7u, result.attributes.value().mtime.seconds);
}

TEST_F(Nfs3NamespaceTest, MkDirThatFailsIsAnIoError) {
    MakeFolder("d");
    MakeFile("f");
    for (const std::string& name : {std::string("d"), std::string("f"), std::string("no/new"),
                                    std::string(256, 'n'), std::string()}) {
        EXPECT_EQ(Hex(Words({5, 0, 0})), Hex(Call(9, Where(rootHandle, name) + kNoAttributes).body))
            << name;
    }
    EXPECT_EQ(NFS3ERR_IO, nfs->MkDir(rootHandle, "..").status) << "outside every export";
}

TEST_F(ReadOnlyNfs3NamespaceTest, MkDirIsDenied) {
    EXPECT_EQ(Hex(Words({13, 0, 0})),
              Hex(Call(9, OpaqueOf(rootHandle) + StringOf("new") + kNoAttributes).body));
    EXPECT_FALSE(FileExists(PathOf("new")));
}

// =================================================================================================
// SYMLINK, MKNOD, LINK: not served
// =================================================================================================

TEST_F(Nfs3NamespaceTest, SymLinkAndLinkFailAlsoOnGoodHandles) {
    const Handle file = NewFile("f");
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(Hex(Words({5, 0, 0})),
              Hex(Call(10, Where(rootHandle, "new") + kNoAttributes + StringOf("f")).body));
    EXPECT_EQ(Hex(Words({5, 0, 0, 0})),
              Hex(Call(15, OpaqueOf(file) + Where(rootHandle, "new")).body));
    EXPECT_EQ((Texts{"error [Nfs3Prog.ProcedureSYMLINK] Path record not found",
                     "error [Nfs3Prog.ProcedureLINK] Path record not found"}),
              log.From(""));
    EXPECT_FALSE(FileExists(PathOf("new")));
}

TEST_F(Nfs3NamespaceAnywhereTest, SymLinkAndLinkWouldAnswerNoHandleAndMakeNothing) {
    const Handle file = NewFile("f");
    const Bytes where = OpaqueOf(rootHandle) + StringOf("new");
    EXPECT_EQ(Hex(Words({
                  0,     // status
                  0,     // no handle
                  0,     // no attributes
                  0, 0,  // empty wcc
              })),
              Hex(Call(10, where + kNoAttributes + StringOf("f")).body));
    EXPECT_EQ(Hex(Words({
                  0,     // status
                  0,     // no attributes
                  0, 0,  // empty wcc
              })),
              Hex(Call(15, OpaqueOf(file) + where).body));
    EXPECT_FALSE(FileExists(PathOf("new")));
}

TEST_F(Nfs3NamespaceTest, MkNodTellsWhatCannotBeMadeFromWhatIsNoNode) {
    const Bytes attributesAndDevice = kNoAttributes + Words({1, 3});
    Log(LOG_CONTROL_ERROR);
    struct Case {
        std::uint32_t type;
        Bytes rest;
        std::uint32_t status;
    };
    const std::vector<Case> cases{
        {3, attributesAndDevice, 10004},
        {4, attributesAndDevice, 10004},
        {6, kNoAttributes, 10004},
        {7, kNoAttributes, 10004},
        {0, {}, 10007},
        {1, {}, 10007},
        {2, {}, 10007},
        {5, {}, 10007},
        {8, {}, 10007},
        {0x80000007, {}, 10007},
        {0xFFFFFFFF, {}, 10007},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Hex(Words({c.status, 0, 0})),
                  Hex(Call(11, Where(rootHandle, "new") + Words({c.type}) + c.rest).body))
            << c.type;
        EXPECT_FALSE(FileExists(PathOf("new"))) << c.type;
    }
    EXPECT_EQ(Texts(cases.size(), "error [Nfs3Prog.ProcedureMKNOD] Path record not found"),
              log.From(""));
}

// =================================================================================================
// REMOVE and RMDIR
// =================================================================================================

TEST_F(Nfs3NamespaceTest, RemoveRemovesTheFile) {
    const Handle file = NewFile("f", "content");
    ASSERT_EQ(7u, nfs->Read(file, 0, 7).count);  // the file is open in the server
    EXPECT_EQ(Hex(Words({0, 0, 0})), Hex(Call(12, Where(rootHandle, "f")).body));
    EXPECT_FALSE(FileExists(PathOf("f")));
    EXPECT_EQ(NFS3ERR_IO, nfs->Read(file, 0, 7).status) << "not from an open descriptor";
}

TEST_F(Nfs3NamespaceTest, RemoveOfAMissingOrOutsideNameIsNoEntry) {
    WriteFile(folder / "outside", "");
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(Hex(Words({2, 0, 0})), Hex(Call(12, Where(rootHandle, "nobody")).body));
    EXPECT_EQ(Texts{}, log.From(""));
    EXPECT_EQ(Hex(Words({2, 0, 0})), Hex(Call(12, Where(rootHandle, "../outside")).body));
    EXPECT_EQ((Texts{"error [Nfs3Prog.ProcedureREMOVE] Path record not found"}), log.From(""));
    EXPECT_TRUE(FileExists(folder / "outside"));
}

TEST_F(Nfs3NamespaceTest, RemoveThatFailsIsAnIoError) {
    MakeFolder("d");
    MakeFile("d/f");
    EXPECT_EQ(Hex(Words({5, 0, 0})), Hex(Call(12, Where(rootHandle, "d")).body));
    EXPECT_TRUE(FileExists(PathOf("d/f")));
}

TEST_F(Nfs3NamespaceTest, RmDirRemovesAnEmptyFolder) {
    MakeFolder("d");
    EXPECT_EQ(Hex(Words({0, 0, 0})), Hex(Call(13, Where(rootHandle, "d")).body));
    EXPECT_FALSE(FileExists(PathOf("d")));
}

TEST_F(Nfs3NamespaceTest, RmDirOfAMissingOrOutsideNameIsNoEntry) {
    ASSERT_EQ(0, mkdir((folder / "outside").c_str(), 0755));
    EXPECT_EQ(Hex(Words({2, 0, 0})), Hex(Call(13, Where(rootHandle, "nobody")).body));
    EXPECT_EQ(Hex(Words({2, 0, 0})), Hex(Call(13, Where(rootHandle, "../outside")).body));
    EXPECT_TRUE(FileExists(folder / "outside"));
}

TEST_F(Nfs3NamespaceTest, RmDirLeavesItToTheFileSystemToRefuse) {
    MakeFolder("d");
    MakeFile("d/f");
    EXPECT_EQ(Hex(Words({5, 0, 0})), Hex(Call(13, Where(rootHandle, "d")).body)) << "not empty";
    EXPECT_EQ(Hex(Words({5, 0, 0})), Hex(Call(13, Where(Lookup("d"), "f")).body)) << "no folder";
    EXPECT_TRUE(FileExists(PathOf("d/f")));
}

TEST_F(ReadOnlyNfs3NamespaceTest, RemoveRmDirAndRenameAreDeniedUnlessThereIsNoEntry) {
    MakeFile("f");
    MakeFolder("d");
    const auto named = [&](const char* name) { return OpaqueOf(rootHandle) + StringOf(name); };
    EXPECT_EQ(Hex(Words({13, 0, 0})), Hex(Call(12, named("f")).body));
    EXPECT_EQ(Hex(Words({13, 0, 0})), Hex(Call(13, named("d")).body));
    EXPECT_EQ(Hex(Words({13, 0, 0, 0, 0})), Hex(Call(14, named("f") + named("g")).body));
    EXPECT_TRUE(FileExists(PathOf("f")));
    EXPECT_TRUE(FileExists(PathOf("d")));
    for (const char* name : {"nobody", ".."}) {
        EXPECT_EQ(Hex(Words({2, 0, 0})), Hex(Call(12, named(name)).body)) << name;
        EXPECT_EQ(Hex(Words({2, 0, 0})), Hex(Call(13, named(name)).body)) << name;
        EXPECT_EQ(Hex(Words({2, 0, 0, 0, 0})), Hex(Call(14, named(name) + named("g")).body))
            << name;
    }
    EXPECT_EQ(NFS3ERR_NOENT, nfs->Remove(HandleOfId(99), "f").status);
}

TEST_F(ReadOnlyNfs3NamespaceTest, SymLinkMkNodAndLinkFailAsEver) {
    EXPECT_EQ(NFS3ERR_IO, nfs->SymLink(rootHandle, "new", "f").status);
    EXPECT_EQ(NFS3ERR_NOTSUPP, nfs->MkNod(rootHandle, "new", 7).status);
    EXPECT_EQ(NFS3ERR_IO, nfs->Link(rootHandle, rootHandle, "new").status);
}

// =================================================================================================
// RENAME
// =================================================================================================

TEST_F(Nfs3NamespaceTest, RenameMovesTheFileAndItsHandle) {
    const Handle file = NewFile("f", "content");
    MakeFolder("d");
    const Handle inner = Lookup("d");
    ASSERT_EQ(7u, nfs->Read(file, 0, 7).count);  // the file is open in the server
    EXPECT_EQ(Hex(Words({0, 0, 0, 0, 0})),
              Hex(Call(14, Where(rootHandle, "f") + Where(inner, "g")).body));
    EXPECT_FALSE(FileExists(PathOf("f")));
    EXPECT_EQ("content", ReadFile(PathOf("d/g")));
    EXPECT_EQ(ToBytes("content"), nfs->Read(file, 0, 7).data);
    EXPECT_EQ(file, nfs->Lookup(inner, "g").handle);
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->GetAttr(file);
    EXPECT_TRUE(log.Has("info", "[Nfs3Prog.ProcedureGETATTR] Path = " + PathOf("d/g")));
}

TEST_F(Nfs3NamespaceTest, RenameOntoAnExistingNameReplacesIt) {
    const Handle file = NewFile("f", "new content");
    NewFile("g", "old content");
    EXPECT_EQ(NFS3_OK, nfs->Rename(rootHandle, "f", rootHandle, "g").status);
    EXPECT_FALSE(FileExists(PathOf("f")));
    EXPECT_EQ("new content", ReadFile(PathOf("g")));
    EXPECT_EQ(ToBytes("new content"), nfs->Read(file, 0, 100).data);
}

TEST_F(Nfs3NamespaceTest, RenameOntoItselfChangesNothing) {
    const Handle file = NewFile("f", "content");
    EXPECT_EQ(NFS3_OK, nfs->Rename(rootHandle, "f", rootHandle, "f").status);
    EXPECT_EQ("content", ReadFile(PathOf("f")));
    EXPECT_EQ(file, Lookup("f"));
    MakeFile("unknown to the file table", "content");
    EXPECT_EQ(NFS3_OK, nfs->Rename(rootHandle, "unknown to the file table", rootHandle,
                                   "./unknown to the file table")
                           .status);
    EXPECT_EQ("content", ReadFile(PathOf("unknown to the file table")));
}

TEST_F(Nfs3NamespaceTest, RenameOfAMissingOrOutsideNameIsNoEntry) {
    WriteFile(folder / "outside", "");
    MakeFile("g", "kept");
    for (const char* name : {"nobody", "../outside"}) {
        EXPECT_EQ(Hex(Words({2, 0, 0, 0, 0})),
                  Hex(Call(14, Where(rootHandle, name) + Where(rootHandle, "g")).body))
            << name;
    }
    EXPECT_EQ("kept", ReadFile(PathOf("g")));
    EXPECT_TRUE(FileExists(folder / "outside"));
}

TEST_F(Nfs3NamespaceTest, RenameTargetIsNotHeldAgainstTheExports) {
    NewFile("f", "content");
    WriteFile(folder / "outside", "replaced");
    EXPECT_EQ(NFS3_OK, nfs->Rename(rootHandle, "f", rootHandle, "../outside").status);
    EXPECT_FALSE(FileExists(PathOf("f")));
    EXPECT_EQ("content", ReadFile(folder / "outside"));
}

TEST_F(Nfs3NamespaceTest, RenameToAHandleThatResolvesToNothingIsAnIoError) {
    NewFile("f", "content");
    EXPECT_EQ(Hex(Words({5, 0, 0, 0, 0})),
              Hex(Call(14, Where(rootHandle, "f") + Where(HandleOfId(99), "g")).body))
        << "the empty path is no place to go";
    EXPECT_EQ("content", ReadFile(PathOf("f")));
}

TEST_F(Nfs3NamespaceTest, RenameOfAFileWithoutARowFailsAlthoughItIsRenamed) {
    MakeFile("f", "content");  // never looked up or listed
    EXPECT_EQ(Hex(Words({5, 0, 0, 0, 0})),
              Hex(Call(14, Where(rootHandle, "f") + Where(rootHandle, "g")).body));
    EXPECT_FALSE(FileExists(PathOf("f")));
    EXPECT_EQ("content", ReadFile(PathOf("g")));
}

TEST_F(Nfs3NamespaceTest, RenameThatFailsIsAnIoError) {
    NewFile("f", "content");
    MakeFolder("d");
    MakeFile("d/kept");
    Lookup("d");
    EXPECT_EQ(NFS3ERR_IO, nfs->Rename(rootHandle, "f", rootHandle, "d").status) << "a full folder";
    EXPECT_EQ(NFS3ERR_IO, nfs->Rename(rootHandle, "f", rootHandle, "no folder/g").status);
    EXPECT_EQ(NFS3ERR_IO, nfs->Rename(rootHandle, "d", rootHandle, "d/inside itself").status);
    EXPECT_EQ("content", ReadFile(PathOf("f")));
    EXPECT_TRUE(FileExists(PathOf("d/kept")));
}

TEST_F(Nfs3NamespaceTest, RenameOfAFolderLeavesTheRowsBelowItBehind) {
    MakeFolder("d");
    MakeFile("d/f", "content");
    const Handle directory = Lookup("d");
    const Handle file = nfs->Lookup(directory, "f").handle;
    EXPECT_EQ(NFS3_OK, nfs->Rename(rootHandle, "d", rootHandle, "e").status);
    EXPECT_EQ(NFS3_OK, nfs->GetAttr(directory).status);
    EXPECT_EQ(NFS3ERR_IO, nfs->GetAttr(file).status) << "its path is still the old one";
    EXPECT_EQ(NFS3_OK, nfs->Lookup(directory, "f").status);
}

TEST_F(Nfs3NamespaceTest, BytesOfANewFolderDoNotLandInTheRenamedOne) {
    MakeFolder("d");
    const Handle old = nfs->Create(Lookup("d"), "disk").handle.value();
    ASSERT_EQ(3u, nfs->Write(old, 0, ToBytes("old")).count);
    ASSERT_EQ(NFS3_OK, nfs->Rename(rootHandle, "d", rootHandle, "e").status);
    const Handle folder = nfs->MkDir(rootHandle, "d").handle.value();
    const Handle disk = nfs->Create(folder, "disk").handle.value();
    ASSERT_EQ(3u, nfs->Write(disk, 0, ToBytes("new")).count);
    EXPECT_EQ("new", ReadFile(PathOf("d/disk")));
    EXPECT_EQ("old", ReadFile(PathOf("e/disk")));
    // Nor does what the client still writes to the file that it has open.
    EXPECT_NE(old, disk);
    EXPECT_EQ(NFS3ERR_IO, nfs->Write(old, 0, ToBytes("lost")).status);
    EXPECT_EQ("new", ReadFile(PathOf("d/disk")));
    EXPECT_EQ(NFS3_OK, nfs->Remove(folder, "disk").status);
    EXPECT_EQ(NFS3_OK, nfs->RmDir(rootHandle, "d").status);
    EXPECT_EQ(NFS3_OK, nfs->Rename(rootHandle, "e", rootHandle, "d").status);
    EXPECT_EQ(4u, nfs->Write(old, 0, ToBytes("back")).count) << "the file is where it was";
    EXPECT_EQ("back", ReadFile(PathOf("d/disk")));
}

TEST_F(Nfs3NamespaceTest, AFileThatReplacedAnotherTakesItsHandleToItsNextName) {
    const Handle a = NewFile("a", "a");
    NewFile("b", "b");
    Lookup("b");
    ASSERT_EQ(NFS3_OK, nfs->Rename(rootHandle, "a", rootHandle, "b").status);
    ASSERT_EQ(NFS3_OK, nfs->Rename(rootHandle, "b", rootHandle, "c").status);
    const Handle b = nfs->Create(rootHandle, "b").handle.value();
    EXPECT_NE(a, b);
    EXPECT_EQ(5u, nfs->Write(a, 0, ToBytes("again")).count);
    EXPECT_EQ("again", ReadFile(PathOf("c")));
    EXPECT_EQ("", ReadFile(PathOf("b")));
}

TEST_F(Nfs3NamespaceTest, RenameLogsBothPairsOfArguments) {
    NewFile("f");
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    nfs->Rename(rootHandle, "f", rootHandle, "g");
    const std::string label = "info [Nfs3Prog.ProcedureRENAME] ";
    EXPECT_EQ((Texts{label + "Path = " + root, label + "Read path=" + root + ", name=f",
                     label + "Path = " + PathOf("f"), label + "Path = " + root,
                     label + "Read path=" + root + ", name=g", label + "Path = " + PathOf("g"),
                     label + "End stat=0"}),
              log.From("[Nfs3Prog"));
}

// =================================================================================================
// READDIR and READDIRPLUS
// =================================================================================================

TEST_F(Nfs3NamespaceTest, ReadDirAnswersAttributesVerifierAndEntries) {
    MakeFolder("d");
    MakeFile("d/name");
    const Handle directory = Lookup("d");                // ID 1
    const Bytes attributes = AttributesOf(PathOf("d"));  // listing it sets its access time
    const Bytes reply = Call(16, OpaqueOf(directory) + HyperOf(0) + kVerifier + Words({1024})).body;
    EXPECT_EQ(Hex(Words({0, 1}) + attributes + kVerifier + Words({1, 0, 2}) + StringOf("name") +
                  HyperOf(1) +     // an entry with file ID 2
                  Words({0, 1})),  // no more; eof
              Hex(reply));
}

TEST_F(Nfs3NamespaceTest, ReadDirPlusAnswersAttributesAndHandleOfEachEntry) {
    MakeFolder("d");
    MakeFile("d/name", "content");
    const Handle directory = Lookup("d");
    const Bytes attributes = AttributesOf(PathOf("d"));
    const Bytes reply =
        Call(17, OpaqueOf(directory) + HyperOf(0) + kVerifier + Words({1024, 8192})).body;
    EXPECT_EQ(Hex(Words({0, 1}) + attributes + kVerifier + Words({1, 0, 2}) + StringOf("name") +
                  HyperOf(1) +                                   //
                  Words({1}) + AttributesOf(PathOf("d/name")) +  //
                  Words({1, 56}) + HandleOfId(2) +               //
                  Words({0, 1})),
              Hex(reply));
}

TEST_P(Nfs3ListingTest, EmptyFolderIsAnEmptyListAtItsEnd) {
    const Handle directory = MakeListing(0);
    const Bytes attributes = AttributesOf(PathOf("d"));
    EXPECT_EQ(Hex(Words({0, 1}) + attributes + kVerifier + Words({0, 1})),
              Hex(Raw(directory, 0, kVerifier, 1024, 1024).body));
}

TEST_P(Nfs3ListingTest, FewerThanTenEntriesComeInOneReply) {
    for (const int entries : {1, 3, 9}) {
        SCOPED_TRACE(entries);
        const Handle directory = MakeListing(entries);
        const DirectoryResult result = List(directory);
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(0u, result.unread);
        EXPECT_TRUE(result.eof);
        EXPECT_EQ(Listed(PathOf("d")), Names(result));
        std::vector<std::uint64_t> cookies;
        for (int i = 1; i <= entries; ++i) {
            cookies.push_back(static_cast<std::uint64_t>(i));
        }
        EXPECT_EQ(cookies, Cookies(result));
        for (const std::string& name : Listed(PathOf("d"))) {
            ASSERT_EQ(0, unlink(PathOf("d/" + name).c_str()));
        }
        ASSERT_EQ(0, rmdir(PathOf("d").c_str()));
    }
}

TEST_P(Nfs3ListingTest, TenEntriesAreNotYetTheEnd) {
    const Handle directory = MakeListing(10);
    const DirectoryResult first = List(directory);
    EXPECT_EQ(Listed(PathOf("d")), Names(first));
    EXPECT_FALSE(first.eof) << "even if no entry follows";
    const DirectoryResult second = List(directory, 10);
    EXPECT_TRUE(second.entries.empty());
    EXPECT_TRUE(second.eof);
    EXPECT_EQ(NFS3_OK, second.status);
}

TEST_P(Nfs3ListingTest, LongerListingsComeInPagesOfTen) {
    for (const int entries : {11, 25}) {
        SCOPED_TRACE(entries);
        const Handle directory = MakeListing(entries);
        Texts all;
        std::vector<std::size_t> pages;
        std::uint64_t cookie = 0;
        bool eof = false;
        while (!eof && pages.size() < 10) {
            const DirectoryResult page = List(directory, cookie);
            ASSERT_EQ(NFS3_OK, page.status);
            pages.push_back(page.entries.size());
            for (const DirectoryEntry& entry : page.entries) {
                all.push_back(entry.name);
                EXPECT_EQ(++cookie, entry.cookie);
            }
            eof = page.eof;
        }
        EXPECT_EQ(Listed(PathOf("d")), all);
        EXPECT_EQ(entries == 11 ? (std::vector<std::size_t>{10, 1})
                                : (std::vector<std::size_t>{10, 10, 5}),
                  pages);
        for (const std::string& name : Listed(PathOf("d"))) {
            ASSERT_EQ(0, unlink(PathOf("d/" + name).c_str()));
        }
        ASSERT_EQ(0, rmdir(PathOf("d").c_str()));
    }
}

TEST_P(Nfs3ListingTest, CookieSkipsThatManyRealEntries) {
    const Handle directory = MakeListing(9);
    const Texts all = Listed(PathOf("d"));
    const DirectoryResult result = List(directory, 5);
    EXPECT_EQ(Texts(all.begin() + 5, all.end()), Names(result)) << "dot names do not count";
    EXPECT_EQ((std::vector<std::uint64_t>{6, 7, 8, 9}), Cookies(result));
    EXPECT_TRUE(result.eof);
}

TEST_P(Nfs3ListingTest, CookieAtOrBeyondTheEndGivesAnEmptyList) {
    const Handle directory = MakeListing(3);
    for (const std::uint64_t cookie : {3ULL, 4ULL, 1000ULL, 0x7FFFFFFFULL}) {
        const DirectoryResult result = List(directory, cookie);
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_TRUE(result.entries.empty()) << cookie;
        EXPECT_TRUE(result.eof) << cookie;
    }
}

TEST_P(Nfs3ListingTest, CookieThatIsNegativeInItsLow32BitsSkipsNothing) {
    const Handle directory = MakeListing(2);
    for (const std::uint64_t cookie :
         {1ULL << 31, 0xFFFFFFFFULL, 0x180000005ULL, 0xFFFFFFFFFFFFFFFFULL}) {
        SCOPED_TRACE(cookie);
        const DirectoryResult result = List(directory, cookie);
        EXPECT_EQ(Listed(PathOf("d")), Names(result));
        EXPECT_EQ((std::vector<std::uint64_t>{cookie + 1, cookie + 2}), Cookies(result));
        EXPECT_TRUE(result.eof);
    }
}

TEST_P(Nfs3ListingTest, OnlyTheLow32BitsOfACookieSkip) {
    const Handle directory = MakeListing(5);
    const Texts all = Listed(PathOf("d"));
    const std::uint64_t base = 1ULL << 32;
    const DirectoryResult result = List(directory, base + 3);
    EXPECT_EQ(Texts(all.begin() + 3, all.end()), Names(result));
    EXPECT_EQ((std::vector<std::uint64_t>{base + 4, base + 5}), Cookies(result));
    EXPECT_EQ(all, Names(List(directory, base)));
}

TEST_P(Nfs3ListingTest, VerifierIsEchoedAndNeverTested) {
    const Handle directory = MakeListing(1);
    for (const Bytes& verifier : {Bytes(8), kVerifier, Bytes(8, 0xFF)}) {
        for (const std::uint64_t cookie : {0ULL, 1ULL}) {
            const DirectoryResult result = Plus() ? nfs->ReadDirPlus(directory, cookie, verifier)
                                                  : nfs->ReadDir(directory, cookie, verifier);
            EXPECT_EQ(NFS3_OK, result.status);
            EXPECT_EQ(verifier, result.verifier);
        }
    }
}

TEST_P(Nfs3ListingTest, SizeHintsBoundNothing) {
    const Handle directory = MakeListing(10);
    for (const std::uint32_t hint : {0u, 1u, 100u, 0x80000000u, 0xFFFFFFFFu}) {
        const DirectoryResult result = Plus() ? nfs->ReadDirPlus(directory, 0, Bytes(8), hint, hint)
                                              : nfs->ReadDir(directory, 0, Bytes(8), hint);
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(10u, result.entries.size()) << hint;
    }
}

TEST_P(Nfs3ListingTest, ListingGivesEachEntryAFileIdThatStays) {
    const Handle directory = MakeListing(5);
    const DirectoryResult first = List(directory);
    std::set<std::uint64_t> ids;
    for (const DirectoryEntry& entry : first.entries) {
        ids.insert(entry.fileid);
        EXPECT_EQ(HandleOfId(static_cast<std::uint32_t>(entry.fileid)),
                  nfs->Lookup(directory, entry.name).handle);
    }
    EXPECT_EQ((std::set<std::uint64_t>{2, 3, 4, 5, 6}), ids) << "behind the export and the folder";
    const DirectoryResult second = List(directory);
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(first.entries[i].fileid, second.entries.at(i).fileid);
    }
}

TEST_P(Nfs3ListingTest, NamesOfEveryLengthAreWhole) {
    MakeFolder("d");
    for (const std::size_t size : {1u, 2u, 3u, 4u, 5u, 254u, 255u}) {
        MakeFile("d/" + std::string(size, 'n'));
    }
    MakeFile("d/...");
    const DirectoryResult result = List(Lookup("d"));
    EXPECT_EQ(Listed(PathOf("d")), Names(result));
    EXPECT_EQ(8u, result.entries.size());
    EXPECT_EQ(0u, result.unread);
}

TEST_P(Nfs3ListingTest, EntriesWhosePathIsTooLongAreListedByTheirInode) {
    // Down to a folder whose path has 3,900 bytes; the names in it make it 4,095, 4,096 and more.
    const std::string nameOf255(255, 'n');
    Handle folder = rootHandle;
    std::string path = root;
    while (path.size() < 3900) {
        const std::string name(std::min<std::size_t>(255, 3900 - path.size() - 1), 'd');
        path += '/' + name;
        ASSERT_EQ(0, mkdir(path.c_str(), 0755));
        folder = nfs->Lookup(folder, name).handle;
        ASSERT_EQ(56u, folder.size());
        if (3900 - path.size() == 1) {
            break;  // no room for a further name
        }
    }
    const int directory = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_NE(-1, directory);
    std::map<std::string, std::uint64_t> inodes;
    for (const std::size_t length :
         {4095 - path.size() - 1, 4096 - path.size() - 1, std::size_t{255}}) {
        const std::string name(length, 'n');
        const int file = openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_NE(-1, file);
        struct stat data {};
        ASSERT_EQ(0, fstat(file, &data));
        inodes[name] = static_cast<std::uint32_t>(data.st_ino);
        close(file);
    }
    Log(0);
    const DirectoryResult result = List(folder);
    ASSERT_EQ(NFS3_OK, result.status);
    ASSERT_EQ(3u, result.entries.size());
    EXPECT_TRUE(result.eof);
    for (const DirectoryEntry& entry : result.entries) {
        const bool fits = path.size() + 1 + entry.name.size() < 4096;
        SCOPED_TRACE(entry.name.size());
        EXPECT_EQ(fits, entry.fileid != inodes[entry.name]);
        EXPECT_EQ(fits && Plus(), entry.attributes.has_value());
        EXPECT_EQ(fits && Plus(), entry.handle.has_value());
    }
    // The empty path has got no row.
    char none[PATH_SIZE] = "";
    for (std::uint32_t id = 0; id < 100; ++id) {
        CRuntimeParam param("", 0);
        if (service.GetUtils()->GetFilePath(&param, HandleOfId(id).data(), none, PATH_SIZE)) {
            EXPECT_STRNE("", none);
        }
    }
    close(directory);
}

TEST_P(Nfs3ListingTest, FolderThatCannotBeOpenedIsAnEmptyListAtItsEnd) {
    const Handle file = NewFile("f");  // no folder at all cannot be opened as one
    EXPECT_EQ(Hex(Words({0, 1}) + AttributesOf(PathOf("f")) + kVerifier + Words({0, 1})),
              Hex(Raw(file, 0, kVerifier, 1024, 1024).body));
}

TEST_P(Nfs3ListingTest, FolderThatGoesAwayMeanwhileIsAnIoError) {
    const Handle directory = MakeListing(3);
    const LstatFault fault(PathOf("d"));
    EXPECT_EQ(Hex(Words({5, 0})), Hex(Raw(directory, 0, kVerifier, 1024, 1024).body));
}

TEST_P(Nfs3ListingTest, LogsItsArgumentsAndEachEntry) {
    MakeFolder("d");
    MakeFile("d/name");
    const Handle directory = Lookup("d");
    Log(LOG_CONTROL_PROC_FUNC_ARGU);
    Raw(directory, 1ULL << 63, Bytes(8, 0xFF), 7, 0xFFFFFFFF);
    const std::string label = "[" + Label() + "] ";
    EXPECT_TRUE(log.Has("info", label +
                                    "Cookie=9223372036854775808, "
                                    "cookieverf=18446744073709551615, " +
                                    (Plus() ? "dircount=7, maxcount=4294967295" : "count=7")));
    EXPECT_TRUE(log.Has("info", label + "Cookie=9223372036854775809, name=name"));
    Log(kAllLogBits & ~LOG_CONTROL_PROC_FUNC_ARGU);
    Raw(directory, 0, kVerifier, 7, 7);
    for (const std::string& line : log.From(label)) {
        EXPECT_EQ(std::string::npos, line.find("Cookie=")) << line;
    }
}

TEST_F(Nfs3NamespaceTest, ReadDirPlusDescribesAnEntryThatGoesAwayWithoutAttributes) {
    MakeFolder("d");
    MakeFile("d/name");
    const Handle directory = Lookup("d");
    const LstatFault fault(PathOf("d/name"));
    const DirectoryResult result = nfs->ReadDirPlus(directory);
    ASSERT_EQ(1u, result.entries.size());
    EXPECT_FALSE(result.entries[0].attributes);
    EXPECT_EQ(HandleOfId(2), result.entries[0].handle);
    EXPECT_EQ(0u, result.unread);
}

TEST_F(Nfs3NamespaceTest, ReadDirPlusDescribesALinkAndHandsOutItsTarget) {
    MakeFolder("d");
    const Handle file = NewFile("f", "content");
    ASSERT_EQ(0, symlink("../f", PathOf("d/link").c_str()));
    const DirectoryResult result = nfs->ReadDirPlus(Lookup("d"));
    ASSERT_EQ(1u, result.entries.size());
    EXPECT_EQ(NF3LNK, result.entries[0].attributes.value().type);
    EXPECT_EQ(4u, result.entries[0].attributes.value().size);
    EXPECT_EQ(file, result.entries[0].handle);
    EXPECT_EQ(IdOfHandle(file), result.entries[0].fileid);
}

TEST_F(Nfs3NamespaceTest, DanglingLinkLiesInNoKnownFileSystem) {
    MakeFolder("d");
    ASSERT_EQ(0, symlink("nobody", PathOf("d/link").c_str()));
    const DirectoryResult result = nfs->ReadDirPlus(Lookup("d"));
    ASSERT_EQ(1u, result.entries.size());
    EXPECT_EQ(NF3LNK, result.entries[0].attributes.value().type);
    EXPECT_EQ(4u, result.entries[0].attributes.value().fsid);
}

TEST_F(ReadOnlyNfs3NamespaceTest, ListingsAreServed) {
    MakeFile("f");
    EXPECT_EQ(1u, nfs->ReadDir(rootHandle).entries.size());
    EXPECT_EQ(1u, nfs->ReadDirPlus(rootHandle).entries.size());
}
