// The service object itself, and its tables of exports, sessions and datastores.
// ctest-labels: threaded

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>
#include <utility>

#include "UtilitiesFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class CanonicalPathsTest : public UtilitiesFixture {
protected:
    std::string Canonical(CRuntimeParam* pParam, const std::string& sPath) {
        char cPath[PATH_SIZE];
        m_Utilities.GetCanonicalPath(pParam, &m_Argu, cPath, sPath.c_str());
        return cPath;
    }
};

std::string Compared(const std::string& sPath) {
    char cPath[PATH_SIZE];
    std::snprintf(cPath, sizeof(cPath), "%s", sPath.c_str());
    CUtilities::SetPathToCompare(cPath);
    return cPath;
}

}  // namespace

// --- Paths ---

TEST_F(CanonicalPathsTest, AnExistingPathIsResolved) {
    ASSERT_TRUE(std::filesystem::create_directory(m_Dir / "sub"));
    ASSERT_EQ(0, symlink("sub", (m_Dir / "link").c_str()));
    EXPECT_EQ(m_Dir / "sub", Canonical(&m_Silent, m_Dir / "sub/"));
    EXPECT_EQ(m_Dir / "sub", Canonical(&m_Silent, m_Dir / "./sub/../sub"));
    EXPECT_EQ(m_Dir / "sub", Canonical(&m_Silent, m_Dir / "link"));
    EXPECT_EQ("/", Canonical(&m_Silent, "/"));
}

TEST_F(CanonicalPathsTest, AResolvedPathIsReportedWithGeneralInformation) {
    Canonical(&m_General, m_Dir / ".");
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Get canonical path successfully: " + m_Dir.Path()));
}

TEST_F(CanonicalPathsTest, AMissingPathIsUsedAsItStands) {
    EXPECT_EQ(m_Dir / "./none/", Canonical(&m_Silent, m_Dir / "./none/"));
    EXPECT_EQ("none/../x", Canonical(&m_Silent, "none/../x"));
    EXPECT_EQ("", Canonical(&m_Silent, ""));
}

TEST_F(CanonicalPathsTest, AMissingPathIsReportedAsInformation) {
    Canonical(&m_General, "/none/./x");
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("info: [Test.Case] Fail to get canonical path from non-exist path: /none/./x"));
}

TEST_F(CanonicalPathsTest, OtherCategoriesReportNothing) {
    CRuntimeParam others("vm01", LOG_CONTROL_ALL & ~LOG_CONTROL_GENERAL_INFO);
    Canonical(&others, m_Dir.Path());
    Canonical(&others, "/none");
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(CanonicalPathsTest, ATooLongPathStaysWithinTheBuffer) {
    const std::string sPath = Canonical(&m_General, std::string(6000, 'x'));
    EXPECT_LT(sPath.size(), PATH_SIZE);
    EXPECT_EQ(std::string(sPath.size(), 'x'), sPath);
}

TEST(ComparedPathsTest, GainASlashUnlessTheyEndInOne) {
    EXPECT_EQ("/a/b/", Compared("/a/b"));
    EXPECT_EQ("/a/b/", Compared("/a/b/"));
    EXPECT_EQ("/", Compared("/"));
    EXPECT_EQ("a/", Compared("a"));
}

TEST(ComparedPathsTest, AnEmptyPathStaysEmpty) { EXPECT_EQ("", Compared("")); }

TEST(ComparedPathsTest, AFullBufferIsLeftAlone) {
    const std::string sFull(PATH_SIZE - 1, 'x');
    EXPECT_EQ(sFull, Compared(sFull));
    EXPECT_EQ(std::string(PATH_SIZE - 2, 'x') + "/", Compared(std::string(PATH_SIZE - 2, 'x')));
}

// --- Exports ---

namespace {

class ExportsTest : public UtilitiesFixture {
protected:
    bool Add(const std::string& sFolder, const char* pcName) {
        m_cStatus[0] = '\0';
        return m_Utilities.AddMountInfo(&m_Silent, &m_Argu, sFolder.c_str(), pcName, "", m_cStatus);
    }
    bool Mount(const char* pcName, const char* pcAddr) {
        m_cStatus[0] = '\0';
        return m_Utilities.UpdateMountClientIpAddrByExportName(pcName, pcAddr, nullptr, m_cStatus);
    }
    bool Unmount(const char* pcName) { return Mount(pcName, nullptr); }
    // The name of the export that a path belongs to; "-" for none.
    std::string ExportOf(const std::string& sPath) {
        MountInfo info;
        return m_Utilities.GetMountInfoByPath(&m_Silent, &m_Argu, sPath.c_str(), &info)
                   ? info.sExportName
                   : "-";
    }
    int Count() { return m_Utilities.GetMountInfo(&m_Silent, false, false); }
    std::vector<std::string> Listing() {
        m_Utilities.GetMountInfo(&m_Silent, false, true);
        return m_Utilities.TakeLines();
    }
    std::uint32_t FileID(const char* pcPath) {
        return m_Utilities.GetFileID(&m_Silent, &m_Argu, pcPath);
    }
};

}  // namespace

TEST_F(ExportsTest, AnAddedExportIsListedUnmounted) {
    Export(m_Dir.Path(), "vm01", "ctl7");
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - " + m_Dir.Path() + " : vm01 () [ctl7]"));
}

TEST_F(ExportsTest, TheFolderIsStoredCanonical) {
    Export(m_Dir / "./", "vm01");
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - " + m_Dir.Path() + " : vm01 () []"));
}

TEST_F(ExportsTest, AFolderThatDoesNotExistIsStoredAsGiven) {
    Export("/none/./x/", "vm01");
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - /none/./x/ : vm01 () []"));
}

TEST_F(ExportsTest, ANameIsDefinedOnce) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_FALSE(Add("/none/b", "vm01"));
    EXPECT_STREQ("Export name \"vm01\" already defined", m_cStatus);
    EXPECT_TRUE(Add("/none/b", "VM01")) << "names differ in letter case";
}

TEST_F(ExportsTest, AFolderIsDefinedOnceWhateverItsSpelling) {
    EXPECT_TRUE(Add(m_Dir.Path(), "vm01"));
    EXPECT_FALSE(Add(m_Dir / "", "vm02"));
    EXPECT_EQ("Local mount path \"" + m_Dir.Path() + "\" already defined", m_cStatus);
    EXPECT_EQ(1, Count());
}

TEST_F(ExportsTest, ADuplicateNameIsReportedBeforeADuplicateFolder) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_FALSE(Add("/none/a", "vm01"));
    EXPECT_STREQ("Export name \"vm01\" already defined", m_cStatus);
}

TEST_F(ExportsTest, ADuplicateFolderIsReportedBeforeAnInvalidName) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_FALSE(Add("/none/a", "vm 02"));
    EXPECT_STREQ("Local mount path \"/none/a\" already defined", m_cStatus);
}

TEST_F(ExportsTest, ANameHasNoSpace) {
    EXPECT_FALSE(Add("/none/a", "vm 01"));
    EXPECT_STREQ("Invalid char \" \" inside export name", m_cStatus);
    EXPECT_EQ(0, Count());
}

TEST_F(ExportsTest, ANameHasNoSlashAndTheFirstInvalidCharacterIsNamed) {
    EXPECT_FALSE(Add("/none/a", "vm/01 x"));
    EXPECT_STREQ("Invalid char \"/\" inside export name", m_cStatus);
    EXPECT_FALSE(Add("/none/a", "vm 01/x"));
    EXPECT_STREQ("Invalid char \" \" inside export name", m_cStatus);
}

TEST_F(ExportsTest, NoOtherNameIsRefused) {
    for (const char* pcName : {"", "\t", "\\", "a\"b", "%s", "\xC3\xA4", ".."}) {
        EXPECT_TRUE(Add(std::string("/none/") + pcName + "x", pcName)) << pcName;
    }
    EXPECT_EQ(7, Count());
}

TEST_F(ExportsTest, AddingLogsOnlyTheResolving) {
    m_Utilities.AddMountInfo(&m_General, &m_Argu, (m_Dir / ".").c_str(), "vm01", "", m_cStatus);
    const std::string sLine = "info: [Test.Case] Get canonical path successfully: " + m_Dir.Path();
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(sLine, sLine))
        << "once for the export and once for the duplicate check";
}

TEST_F(ExportsTest, RefusalsAreNotLogged) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    CRuntimeParam param("vm01", LOG_CONTROL_ALL & ~LOG_CONTROL_GENERAL_INFO);
    EXPECT_FALSE(m_Utilities.AddMountInfo(&param, &m_Argu, "/none/b", "vm01", "", m_cStatus));
    EXPECT_FALSE(m_Utilities.AddMountInfo(&param, &m_Argu, "/none/b", "a b", "", m_cStatus));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(ExportsTest, AreListedInByteOrderOfTheirNames) {
    EXPECT_TRUE(Add("/none/1", "b"));
    EXPECT_TRUE(Add("/none/2", "a"));
    EXPECT_TRUE(Add("/none/3", "B"));
    EXPECT_THAT(Listing(),
                ElementsAre("raw:  mount1 - /none/3 : B () []", "raw:  mount2 - /none/2 : a () []",
                            "raw:  mount3 - /none/1 : b () []"));
}

// --- Asking whether an export exists ---

TEST_F(ExportsTest, ExistenceIsAskedByNameOrByFolder) {
    EXPECT_TRUE(Add(m_Dir.Path(), "vm01"));
    const std::string sSpelling = m_Dir / ".";
    EXPECT_TRUE(m_Utilities.IsMountInfoExists(&m_Silent, &m_Argu, nullptr, "vm01", m_cStatus));
    EXPECT_STREQ("Export name \"vm01\" already defined", m_cStatus);
    EXPECT_TRUE(
        m_Utilities.IsMountInfoExists(&m_Silent, &m_Argu, sSpelling.c_str(), nullptr, m_cStatus));
    EXPECT_EQ("Local mount path \"" + m_Dir.Path() + "\" already defined", m_cStatus);
    EXPECT_TRUE(
        m_Utilities.IsMountInfoExists(&m_Silent, &m_Argu, sSpelling.c_str(), "none", nullptr));
    EXPECT_FALSE(m_Utilities.IsMountInfoExists(&m_Silent, &m_Argu, "/none", "none", nullptr));
    EXPECT_FALSE(m_Utilities.IsMountInfoExists(&m_Silent, &m_Argu, nullptr, nullptr, nullptr));
}

TEST_F(ExportsTest, AbsenceLeavesTheStatusAlone) {
    std::snprintf(m_cStatus, sizeof(m_cStatus), "before");
    EXPECT_FALSE(m_Utilities.IsMountInfoExists(&m_Silent, &m_Argu, "/none", "none", m_cStatus));
    EXPECT_STREQ("before", m_cStatus);
}

TEST_F(ExportsTest, AFolderBelowAnExportIsAnotherFolder) {
    EXPECT_TRUE(Add("/none/d", "vm01"));
    EXPECT_FALSE(m_Utilities.IsMountInfoExists(&m_Silent, &m_Argu, "/none/d/e", nullptr, nullptr));
    EXPECT_TRUE(Add("/none/d/e", "vm02"));
}

// --- One client at a time ---

TEST_F(ExportsTest, AnUnknownNameCannotBeMountedOrUnmounted) {
    EXPECT_FALSE(Mount("vm01", "10.0.0.1"));
    EXPECT_STREQ("Undefined export name \"vm01\"", m_cStatus);
    EXPECT_FALSE(Unmount("vm01"));
    EXPECT_STREQ("Undefined export name \"vm01\"", m_cStatus);
    EXPECT_FALSE(
        m_Utilities.UpdateMountClientIpAddrByExportName("vm01", "10.0.0.1", nullptr, nullptr));
}

TEST_F(ExportsTest, AMountedExportIsRefusedAlsoToItsOwnClient) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Mount("vm01", "10.0.0.1"));
    EXPECT_FALSE(Mount("vm01", "10.0.0.2"));
    EXPECT_STREQ("This mount point \"vm01\" already mounted by 10.0.0.1", m_cStatus);
    EXPECT_FALSE(Mount("vm01", "10.0.0.1"));
    EXPECT_STREQ("This mount point \"vm01\" already mounted by 10.0.0.1", m_cStatus);
    EXPECT_FALSE(
        m_Utilities.UpdateMountClientIpAddrByExportName("vm01", "10.0.0.1", nullptr, nullptr));
}

TEST_F(ExportsTest, AfterAnUnmountTheNextClientMayMount) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Mount("vm01", "10.0.0.1"));
    EXPECT_TRUE(Unmount("vm01"));
    EXPECT_TRUE(Mount("vm01", "10.0.0.2"));
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - /none/a : vm01 (10.0.0.2) []"));
}

TEST_F(ExportsTest, AnUnmountSucceedsAlsoWhenNobodyHasMounted) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Unmount("vm01"));
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - /none/a : vm01 () []"));
}

TEST_F(ExportsTest, MountingHandsOutTheUpdatedRecord) {
    Export("/none/a", "vm01", "ctl7");
    MountInfo info;
    ASSERT_TRUE(
        m_Utilities.UpdateMountClientIpAddrByExportName("vm01", "10.0.0.1", &info, m_cStatus));
    EXPECT_EQ("/none/a", info.sLocalMountPath);
    EXPECT_EQ("vm01", info.sExportName);
    EXPECT_EQ("ctl7", info.sIcpID);
    EXPECT_EQ("10.0.0.1", info.sRemoteIpAddr);
    ASSERT_TRUE(m_Utilities.UpdateMountClientIpAddrByExportName("vm01", nullptr, &info, m_cStatus));
    EXPECT_EQ("", info.sRemoteIpAddr);
}

TEST_F(ExportsTest, ARefusedMountLeavesTheCallersRecordAlone) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Mount("vm01", "10.0.0.1"));
    MountInfo info{"before", "", "", ""};
    EXPECT_FALSE(
        m_Utilities.UpdateMountClientIpAddrByExportName("vm01", "10.0.0.2", &info, nullptr));
    EXPECT_EQ("before", info.sLocalMountPath);
}

TEST_F(ExportsTest, AClientIsKnownWhileItHasSomethingMounted) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Add("/none/b", "vm02"));
    EXPECT_FALSE(m_Utilities.IsRemoteAddrExists("10.0.0.1"));
    EXPECT_TRUE(Mount("vm02", "10.0.0.1"));
    EXPECT_TRUE(m_Utilities.IsRemoteAddrExists("10.0.0.1"));
    EXPECT_FALSE(m_Utilities.IsRemoteAddrExists("10.0.0.11"));
    EXPECT_FALSE(m_Utilities.IsRemoteAddrExists("10.0.0"));
    EXPECT_TRUE(Unmount("vm02"));
    EXPECT_FALSE(m_Utilities.IsRemoteAddrExists("10.0.0.1"));
}

TEST_F(ExportsTest, OnlyMountedExportsAreCountedAndNumberedOnRequest) {
    for (const char* pcName : {"a", "b", "c"}) {
        EXPECT_TRUE(Add(std::string("/none/") + pcName, pcName));
    }
    EXPECT_EQ(3, Count());
    EXPECT_EQ(0, m_Utilities.GetMountInfo(&m_Silent, true, true));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());

    EXPECT_TRUE(Mount("b", "10.0.0.1"));
    EXPECT_TRUE(Mount("c", "10.0.0.2"));
    EXPECT_EQ(2, m_Utilities.GetMountInfo(&m_Silent, true, true));
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre("raw:  mount1 - /none/b : b (10.0.0.1) []",
                                                     "raw:  mount2 - /none/c : c (10.0.0.2) []"));
}

TEST_F(ExportsTest, CountingWithoutDetailsPrintsNothing) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_EQ(1, m_Utilities.GetMountInfo(&m_All, false, false));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(ExportsTest, TheListingIsPrintedAtLogControl0) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - /none/a : vm01 () []"));
}

// --- Which export a path belongs to ---

TEST_F(ExportsTest, TheFolderItselfAndPathsBelowBelongToTheExport) {
    EXPECT_TRUE(Add("/d/e", "vm01"));
    EXPECT_EQ("vm01", ExportOf("/d/e"));
    EXPECT_EQ("vm01", ExportOf("/d/e/"));
    EXPECT_EQ("vm01", ExportOf("/d/e/f"));
    EXPECT_EQ("vm01", ExportOf("/d/e/f/g.vmdk"));
}

TEST_F(ExportsTest, ASiblingWithTheSamePrefixDoesNotBelong) {
    EXPECT_TRUE(Add("/d/e", "vm01"));
    EXPECT_EQ("-", ExportOf("/d/ef"));
    EXPECT_EQ("-", ExportOf("/d/ef/g"));
    EXPECT_EQ("-", ExportOf("/d"));
    EXPECT_EQ("-", ExportOf("/D/e/f"));
    EXPECT_EQ("-", ExportOf(""));
}

TEST_F(ExportsTest, AnExportThatEndsInASlashHoldsWhatLiesBelow) {
    EXPECT_TRUE(Add("/none/d/", "vm01"));
    EXPECT_EQ("vm01", ExportOf("/none/d"));
    EXPECT_EQ("vm01", ExportOf("/none/d/e"));
    EXPECT_EQ("-", ExportOf("/none/de"));
}

TEST_F(ExportsTest, TheRootHoldsEverything) {
    EXPECT_TRUE(Add("/", "all"));
    EXPECT_EQ("all", ExportOf("/"));
    EXPECT_EQ("all", ExportOf("/none"));
}

TEST_F(ExportsTest, OfNestedExportsTheFirstNameWinsWhenItIsTheInnerOne) {
    EXPECT_TRUE(Add("/d", "b"));
    EXPECT_TRUE(Add("/d/e", "a"));
    EXPECT_EQ("a", ExportOf("/d/e/f"));
    EXPECT_EQ("b", ExportOf("/d/f"));
}

TEST_F(ExportsTest, OfNestedExportsTheFirstNameWinsWhenItIsTheOuterOne) {
    EXPECT_TRUE(Add("/d", "a"));
    EXPECT_TRUE(Add("/d/e", "b"));
    EXPECT_EQ("a", ExportOf("/d/e/f"));
}

TEST_F(ExportsTest, TheComparedPathIsTakenAsGiven) {
    EXPECT_TRUE(Add(m_Dir.Path(), "vm01"));
    ASSERT_TRUE(std::filesystem::create_directory(m_Dir / "sub"));
    EXPECT_EQ("vm01", ExportOf(m_Dir / "sub/../../elsewhere")) << "not resolved";
    ASSERT_EQ(0, symlink(m_Dir.Path().c_str(), "/tmp/exports-link"));
    EXPECT_EQ("-", ExportOf("/tmp/exports-link/sub"));
}

TEST_F(ExportsTest, AMatchHandsOutTheWholeRecord) {
    Export("/d", "vm01", "ctl7");
    EXPECT_TRUE(Mount("vm01", "10.0.0.1"));
    MountInfo info;
    ASSERT_TRUE(m_Utilities.GetMountInfoByPath(&m_Silent, &m_Argu, "/d/f", &info));
    EXPECT_EQ("/d", info.sLocalMountPath);
    EXPECT_EQ("vm01", info.sExportName);
    EXPECT_EQ("ctl7", info.sIcpID);
    EXPECT_EQ("10.0.0.1", info.sRemoteIpAddr);
    EXPECT_TRUE(m_Utilities.GetMountInfoByPath(&m_Silent, &m_Argu, "/d/f", nullptr));
}

TEST_F(ExportsTest, TheScanIsLoggedStepByStep) {
    EXPECT_TRUE(Add("/a", "1"));
    EXPECT_TRUE(Add("/d/e", "2"));
    EXPECT_TRUE(Add("/d", "3"));
    EXPECT_TRUE(Add("/z", "4"));
    EXPECT_TRUE(m_Utilities.GetMountInfoByPath(&m_General, &m_Argu, "/d/ef", nullptr));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Path scan: \"/d/ef/\" vs \"/a\"",
                            "info: [Test.Case] Path scan: \"/d/ef/\" vs \"/d/e\"",
                            "info: [Test.Case] Path compare: \"/d/ef/\" vs \"/d/e/\"",
                            "info: [Test.Case] Path scan: \"/d/ef/\" vs \"/d\"",
                            "info: [Test.Case] Path compare: \"/d/ef/\" vs \"/d/\"",
                            "info: [Test.Case] Path match"))
        << "and the scan stops at the match";
}

TEST_F(ExportsTest, AScanWithoutAMatchIsLoggedToItsEnd) {
    EXPECT_TRUE(Add("/a", "1"));
    EXPECT_FALSE(m_Utilities.GetMountInfoByPath(&m_General, &m_Argu, "/d/", nullptr));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Path scan: \"/d/\" vs \"/a\""));
}

TEST_F(ExportsTest, TheScanIsSilentWithoutGeneralInformation) {
    EXPECT_TRUE(Add("/d", "1"));
    CRuntimeParam others("vm01", LOG_CONTROL_ALL & ~LOG_CONTROL_GENERAL_INFO);
    EXPECT_TRUE(m_Utilities.GetMountInfoByPath(&others, &m_Argu, "/d/e", nullptr));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(ExportsTest, APathAtTheBuffersEndIsComparedWithinIt) {
    EXPECT_TRUE(Add("/d", "vm01"));
    EXPECT_EQ("vm01", ExportOf("/d/" + std::string(PATH_SIZE - 4, 'x')));
    EXPECT_EQ("vm01", ExportOf("/d/" + std::string(PATH_SIZE * 2, 'x')));
    EXPECT_TRUE(Add("/" + std::string(PATH_SIZE - 2, 'y'), "long"));
    EXPECT_EQ("long", ExportOf("/" + std::string(PATH_SIZE - 2, 'y')));
}

// --- Removing exports ---

TEST_F(ExportsTest, RemovingByNameRemovesThatOne) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Add("/none/b", "vm02"));
    m_Utilities.RemoveMountInfoByExportName("vm01");
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - /none/b : vm02 () []"));
    m_Utilities.RemoveMountInfoByExportName("unknown");
    EXPECT_EQ(1, Count());
}

TEST_F(ExportsTest, RemovingByFolderResolvesIt) {
    EXPECT_TRUE(Add(m_Dir.Path(), "vm01"));
    EXPECT_TRUE(Add("/none/b", "vm02"));
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Silent, &m_Argu, (m_Dir / "./").c_str());
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - /none/b : vm02 () []"));
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Silent, &m_Argu, "/none");
    EXPECT_EQ(1, Count()) << "the folder has to be equal";
}

TEST_F(ExportsTest, RemovingAMissingFolderComparesTheTextAsGiven) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Add("/none/a/", "vm02"));
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Silent, &m_Argu, "/none/a/");
    EXPECT_THAT(Listing(), ElementsAre("raw:  mount1 - /none/a : vm01 () []"));
}

TEST_F(ExportsTest, RemovingByFolderLogsTheResolving) {
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_General, &m_Argu, "/none/a");
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("info: [Test.Case] Fail to get canonical path from non-exist path: /none/a"));
}

TEST_F(ExportsTest, RemovingAMountedExportForgetsItsClient) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Mount("vm01", "10.0.0.1"));
    m_Utilities.RemoveMountInfoByExportName("vm01");
    EXPECT_FALSE(m_Utilities.IsRemoteAddrExists("10.0.0.1"));
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Mount("vm01", "10.0.0.2"));
}

TEST_F(ExportsTest, RemovingTheLastByNameResetsTheFileTable) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Add("/none/b", "vm02"));
    EXPECT_EQ(0u, FileID("/none/1"));
    m_Utilities.RemoveMountInfoByExportName("vm01");
    EXPECT_EQ(1u, FileID("/none/2")) << "one export is left";
    m_Utilities.RemoveMountInfoByExportName("vm02");
    EXPECT_EQ(0u, FileID("/none/3"));
}

TEST_F(ExportsTest, RemovingTheLastByFolderResetsTheFileTable) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Add("/none/b", "vm02"));
    EXPECT_EQ(0u, FileID("/none/1"));
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Silent, &m_Argu, "/none/b");
    EXPECT_EQ(1u, FileID("/none/2")) << "one export is left";
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Silent, &m_Argu, "/none/a");
    EXPECT_EQ(0u, FileID("/none/3"));
}

TEST_F(ExportsTest, RemovingFromAnEmptyTableResetsTheFileTableToo) {
    EXPECT_EQ(0u, FileID("/none/1"));
    m_Utilities.RemoveMountInfoByExportName("unknown");
    EXPECT_EQ(0u, FileID("/none/2"));
    m_Utilities.RemoveMountInfoByLocalMountPath(&m_Silent, &m_Argu, "/none/unknown");
    EXPECT_EQ(0u, FileID("/none/3"));
}

TEST_F(ExportsTest, RemovingAllResetsTheFileTable) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    EXPECT_TRUE(Add("/none/b", "vm02"));
    EXPECT_EQ(0u, FileID("/none/1"));
    m_Utilities.RemoveAllMountInfo();
    EXPECT_EQ(0, Count());
    EXPECT_EQ(0u, FileID("/none/2"));
}

TEST_F(ExportsTest, MayBeChangedAndAskedFromManyThreads) {
    std::vector<std::thread> vThreads;
    for (int t = 0; t < 4; ++t) {
        vThreads.emplace_back([&, t] {
            const std::string sName = "vm" + std::to_string(t);
            const std::string sFolder = "/none/" + sName;
            char cStatus[STATUS_SIZE];
            for (int i = 0; i < 200; ++i) {
                EXPECT_TRUE(m_Utilities.AddMountInfo(&m_Silent, &m_Argu, sFolder.c_str(),
                                                     sName.c_str(), "", cStatus));
                EXPECT_TRUE(m_Utilities.UpdateMountClientIpAddrByExportName(
                    sName.c_str(), "10.0.0.1", nullptr, cStatus));
                MountInfo info;
                EXPECT_TRUE(m_Utilities.GetMountInfoByPath(&m_Silent, &m_Argu,
                                                           (sFolder + "/f").c_str(), &info));
                EXPECT_EQ(sName, info.sExportName);
                m_Utilities.GetFileID(&m_Silent, &m_Argu, sFolder.c_str());
                m_Utilities.RemoveMountInfoByExportName(sName.c_str());
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(0, Count());
}

TEST_F(ExportsTest, OfManyClientsExactlyOneMounts) {
    EXPECT_TRUE(Add("/none/a", "vm01"));
    std::atomic<int> iMounted{0};
    std::vector<std::thread> vThreads;
    for (int t = 0; t < 8; ++t) {
        vThreads.emplace_back([&] {
            iMounted += m_Utilities.UpdateMountClientIpAddrByExportName("vm01", "10.0.0.1", nullptr,
                                                                        nullptr);
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    EXPECT_EQ(1, iMounted);
}

// --- Sessions ---

namespace {

class SessionsTest : public UtilitiesFixture {
protected:
    std::vector<std::string> Listing() {
        m_Utilities.GetSessionInfo(&m_Silent, true);
        return m_Utilities.TakeLines();
    }
};

}  // namespace

TEST_F(SessionsTest, AreListedInKeyOrderAndNumbered) {
    m_Utilities.AddSessionInfo("s2", "/b/./");
    m_Utilities.AddSessionInfo("s1", "/a");
    EXPECT_EQ(2, m_Utilities.GetSessionInfo(&m_Silent, true));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("raw:  session1 - s1 : /a", "raw:  session2 - s2 : /b/./"))
        << "paths are kept as given";
}

TEST_F(SessionsTest, AreCountedWithoutDetails) {
    EXPECT_EQ(0, m_Utilities.GetSessionInfo(&m_All, true));
    m_Utilities.AddSessionInfo("s1", "/a");
    EXPECT_EQ(1, m_Utilities.GetSessionInfo(&m_All, false));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(SessionsTest, OfOneIdTheLaterReplacesTheEarlier) {
    m_Utilities.AddSessionInfo("s1", "/a");
    m_Utilities.AddSessionInfo("s1", "/b");
    EXPECT_THAT(Listing(), ElementsAre("raw:  session1 - s1 : /b"));
}

TEST_F(SessionsTest, AreKnownByTheirExactId) {
    m_Utilities.AddSessionInfo("s1", "/a");
    EXPECT_TRUE(m_Utilities.IsSessionExists("s1"));
    EXPECT_FALSE(m_Utilities.IsSessionExists("S1"));
    EXPECT_FALSE(m_Utilities.IsSessionExists("s"));
    EXPECT_FALSE(m_Utilities.IsSessionExists(""));
}

TEST_F(SessionsTest, AreRemovedById) {
    m_Utilities.AddSessionInfo("s1", "/a");
    m_Utilities.AddSessionInfo("s2", "/a");
    m_Utilities.RemoveSessionInfo("s1");
    m_Utilities.RemoveSessionInfo("unknown");
    EXPECT_THAT(Listing(), ElementsAre("raw:  session1 - s2 : /a"));
}

TEST_F(SessionsTest, AllOfOnePathAreRemovedTogether) {
    m_Utilities.AddSessionInfo("s1", "/a");
    m_Utilities.AddSessionInfo("s2", "/b");
    m_Utilities.AddSessionInfo("s3", "/a");
    m_Utilities.AddSessionInfo("s4", "/a/");
    m_Utilities.RemoveSessionInfoByLocalMountPath("/a");
    EXPECT_THAT(Listing(), ElementsAre("raw:  session1 - s2 : /b", "raw:  session2 - s4 : /a/"))
        << "the text has to be equal";
}

TEST_F(SessionsTest, AreAllRemovedAtOnce) {
    m_Utilities.AddSessionInfo("s1", "/a");
    m_Utilities.AddSessionInfo("s2", "/b");
    m_Utilities.RemoveAllSessionInfo();
    EXPECT_EQ(0, m_Utilities.GetSessionInfo(&m_Silent, true));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

// --- Datastores ---

namespace {

class DatastoresTest : public UtilitiesFixture {};

}  // namespace

TEST_F(DatastoresTest, AreListedInKeyOrderWithoutTheirCredentials) {
    m_Utilities.AddVSphereInfo("datastore-20", "esx2", "443", "root", "secret2");
    m_Utilities.AddVSphereInfo("datastore-10", "esx1", "8443", "admin", "secret1");
    EXPECT_EQ(2, m_Utilities.GetVSphereInfo(&m_Silent, true));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("raw:  NFS datastore1 - datastore-10 (esx1:8443)",
                            "raw:  NFS datastore2 - datastore-20 (esx2:443)"));
}

TEST_F(DatastoresTest, OfOneIdTheLaterReplacesTheEarlier) {
    m_Utilities.AddVSphereInfo("datastore-10", "esx1", "443", "root", "x");
    m_Utilities.AddVSphereInfo("datastore-10", "esx2", "444", "root", "x");
    EXPECT_EQ(1, m_Utilities.GetVSphereInfo(&m_Silent, true));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("raw:  NFS datastore1 - datastore-10 (esx2:444)"));
}

TEST_F(DatastoresTest, AreRemovedByTheirId) {
    m_Utilities.AddVSphereInfo("datastore-10", "esx1", "443", "root", "x");
    m_Utilities.AddVSphereInfo("datastore-20", "esx2", "443", "root", "x");
    m_Utilities.RemoveVSphereInfo("datastore-1");
    EXPECT_EQ(2, m_Utilities.GetVSphereInfo(&m_Silent, false));
    m_Utilities.RemoveVSphereInfo("datastore-10");
    EXPECT_EQ(1, m_Utilities.GetVSphereInfo(&m_Silent, false));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty()) << "no details were asked for";
}

// --- Reset ---

TEST_F(ExportsTest, ResetForgetsExportsSessionsHandlesAndDescriptors) {
    support::WriteFile(m_Dir / "f", "x");
    EXPECT_TRUE(Add(m_Dir.Path(), "vm01"));
    m_Utilities.AddSessionInfo("s1", "/a");
    EXPECT_EQ(0u, FileID("/none/1"));
    ASSERT_NE(-1,
              m_Utilities.GetCachedFileHandle(&m_Silent, &m_Argu, (m_Dir / "f").c_str(), false));
    EXPECT_EQ(1, OpenCount(m_Dir / "f"));

    m_Utilities.Reset(&m_Access, &m_Argu);
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] OS close file \"" + (m_Dir / "f") + "\""));
    EXPECT_EQ(0, Count());
    EXPECT_EQ(0, m_Utilities.GetSessionInfo(&m_Silent, false));
    EXPECT_EQ(0, OpenCount(m_Dir / "f"));
    EXPECT_EQ(0u, FileID("/none/2"));
}

TEST_F(ExportsTest, ResetLeavesTheDatastores) {
    m_Utilities.AddVSphereInfo("datastore-10", "esx1", "443", "root", "x");
    m_Utilities.Reset(&m_Silent, &m_Argu);
    EXPECT_EQ(1, m_Utilities.GetVSphereInfo(&m_Silent, false));
}

TEST_F(ExportsTest, TheTablesStartEmpty) {
    EXPECT_EQ(0, Count());
    EXPECT_EQ(0, m_Utilities.GetSessionInfo(&m_Silent, false));
    EXPECT_EQ(0, m_Utilities.GetVSphereInfo(&m_Silent, false));
    EXPECT_EQ(0u, FileID("/none/1"));
}

// A service object that ends with a descriptor in its cache.
class ServiceObjectTest : public ::testing::Test {
protected:
    ServiceObjectTest() { support::WriteFile(m_sFile, "x"); }
    int Cache(CUtilities* pUtilities) {
        return pUtilities->GetCachedFileHandle(&m_Param, &m_Argu, m_sFile.c_str(), false);
    }

    support::ScopedTempDir m_Dir;
    std::string m_sFile = m_Dir / "f";
    CRuntimeParam m_Param{"vm01", 0};
    LogArgu m_Argu{"Test.Case"};
};

TEST_F(ServiceObjectTest, DestructionClosesNoCachedDescriptor) {
    int iFile = -1;
    {
        CUtilities utilities;
        iFile = Cache(&utilities);
        ASSERT_NE(-1, iFile);
    }
    EXPECT_EQ(m_sFile, DescriptorTarget(iFile)) << "the owner has to call Reset first";
    close(iFile);
}

TEST_F(ServiceObjectTest, DestructionClosesNoSourceOfARedirectedFile) {
    int iFile = -1;
    std::weak_ptr<CRedirectedFile> pFile;
    {
        CUtilities utilities;
        pFile = utilities.OpenRedirectedFile(&m_Param, "/e/f", 10, false, 0, 0);
        ASSERT_TRUE(utilities.AddRedirectedFileSegment(&m_Param, "/e/f", m_sFile.c_str(), 0, 0, 10,
                                                       nullptr));
        iFile = Cache(&utilities);
        ASSERT_NE(-1, iFile);
    }
    EXPECT_TRUE(pFile.expired());
    EXPECT_EQ(m_sFile, DescriptorTarget(iFile)) << "the owner has to call Reset first";
    close(iFile);
}

// --- Lines ---

namespace {

// A service object whose lines go to somebody who, before taking one, has another thread use every
// table, as a controller may whose own threads wait for each other.
class CAskingUtilities : public CUtilities {
public:
    CAskingUtilities(const char* pcRedirected, const char* pcFile)
        : m_sRedirected(pcRedirected), m_sFile(pcFile) {}
    // Behind the end of what an unanswered thread may still wait for.
    ~CAskingUtilities() override {
        for (std::thread& thread : m_vThreads) {
            thread.join();
        }
    }

    void LogInfo(CRuntimeParam* /*pRuntimeParam*/, char* pcMessage) override { Take(pcMessage); }
    void LogError(CRuntimeParam* /*pRuntimeParam*/, char* pcMessage) override { Take(pcMessage); }

    // The lines so far.
    std::vector<std::string> TakeLines() { return std::exchange(m_vLines, {}); }

private:
    void Take(const char* pcMessage) {
        m_vLines.emplace_back(pcMessage);
        if (m_bStuck) {
            return;
        }
        std::packaged_task<void()> task([this] { UseEverything(); });
        auto done = task.get_future();
        m_vThreads.emplace_back(std::move(task));
        m_bStuck = done.wait_for(std::chrono::seconds(5)) != std::future_status::ready;
        EXPECT_FALSE(m_bStuck) << "under a lock: " << pcMessage;
    }
    void UseEverything() {
        CRuntimeParam silent("other", 0);
        LogArgu argu{"Test.Other"};
        char cBuf[16];
        bool bEof = false;
        GetMountInfo(&silent, false, false);
        GetSessionInfo(&silent, false);
        GetVSphereInfo(&silent, false);
        GetFileID(&silent, &argu, m_sFile.c_str());
        ReadFile(&silent, &argu, m_sFile.c_str(), 0, SEEK_SET, cBuf, sizeof(cBuf), &bEof);
        ReadFile(&silent, &argu, m_sRedirected.c_str(), 0, SEEK_SET, cBuf, sizeof(cBuf), &bEof);
    }

    const std::string m_sRedirected;
    const std::string m_sFile;
    std::vector<std::string> m_vLines;
    std::vector<std::thread> m_vThreads;
    bool m_bStuck = false;
};

class LinesTest : public ::testing::Test {
protected:
    LinesTest() {
        support::WriteFile(m_sFile, "content");
        support::WriteFile(m_sSource, "0123456789");
        char cStatus[STATUS_SIZE] = "";
        m_Utilities.AddMountInfo(&m_Silent, &m_Argu, m_Dir.Path().c_str(), "vm01", "", cStatus);
        Redirect();
    }
    ~LinesTest() override { m_Utilities.Reset(&m_Silent, &m_Argu); }

    void Redirect() {
        m_Utilities.OpenRedirectedFile(&m_Silent, m_sRedirected.c_str(), 10, false, 0, 0);
        m_Utilities.AddRedirectedFileSegment(&m_Silent, m_sRedirected.c_str(), m_sSource.c_str(), 0,
                                             0, 10, nullptr);
    }
    int Read(const std::string& sPath) {
        char cBuf[16];
        bool bEof = false;
        return m_Utilities.ReadFile(&m_All, &m_Argu, sPath.c_str(), 0, SEEK_SET, cBuf, 10, &bEof);
    }

    support::ScopedTempDir m_Dir;
    const std::string m_sFile = m_Dir / "f";
    const std::string m_sSource = m_Dir / "s";
    const std::string m_sRedirected = m_Dir / "r";
    CAskingUtilities m_Utilities{m_sRedirected.c_str(), m_sFile.c_str()};
    CRuntimeParam m_Silent{"vm01", 0};
    CRuntimeParam m_All{"vm01", LOG_CONTROL_ALL};
    LogArgu m_Argu{"Test.Case"};
};

}  // namespace

TEST_F(LinesTest, OfAPathAreDeliveredInOrderAndUnderNoLock) {
    EXPECT_TRUE(m_Utilities.GetMountInfoByPath(&m_All, &m_Argu, m_sFile.c_str(), nullptr));
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("[Test.Case] Path scan: \"" + m_sFile + "/\" vs \"" + m_Dir.Path() + '"',
                    "[Test.Case] Path compare: \"" + m_sFile + "/\" vs \"" + m_Dir.Path() + "/\"",
                    "[Test.Case] Path match"));
    char cStatus[STATUS_SIZE] = "";
    EXPECT_FALSE(
        m_Utilities.AddMountInfo(&m_All, &m_Argu, m_Dir.Path().c_str(), "vm02", "", cStatus));
    EXPECT_EQ(2u, m_Utilities.TakeLines().size()) << "the folder is resolved twice";
}

TEST_F(LinesTest, OfFileAccessAreDeliveredUnderNoLock) {
    EXPECT_EQ(7, Read(m_sFile));
    const std::vector<std::string> vLines = m_Utilities.TakeLines();
    ASSERT_EQ(5u, vLines.size());
    EXPECT_TRUE(vLines.front().starts_with("[Test.Case] Read file, path=")) << vLines.front();
    EXPECT_TRUE(vLines.back().starts_with("[Test.Case] OS seek file (")) << vLines.back();
    EXPECT_EQ(-1, Read(m_Dir / "none"));
    EXPECT_EQ(3, m_Utilities.WriteFile(&m_All, &m_Argu, m_sFile.c_str(), 0, SEEK_SET, "new", 3));
    EXPECT_EQ(7, m_Utilities.GetFileSize(&m_All, &m_Argu, m_sFile.c_str(), -1));
    m_Utilities.CloseCachedFileHandle(&m_All, &m_Argu, m_sFile.c_str());
    EXPECT_EQ(7, Read(m_sFile));
    m_Utilities.CloseAllCachedFileHandles(&m_All, &m_Argu, m_Dir.Path().c_str());
    EXPECT_EQ(7, Read(m_sFile));
    m_Utilities.CloseExceededCachedFileHandle(&m_All, &m_Argu);
    EXPECT_EQ(7, Read(m_sFile));
    m_Utilities.CloseAllCachedFileHandles(&m_All, &m_Argu);
    EXPECT_EQ(7, Read(m_sFile));
    m_Utilities.RenameFile(&m_All, &m_Argu, m_sFile.c_str(), (m_Dir / "f2").c_str());
    EXPECT_EQ(7, Read(m_Dir / "f2"));
    EXPECT_TRUE(m_Utilities.RemoveFile(&m_All, &m_Argu, (m_Dir / "f2").c_str()));
    EXPECT_FALSE(m_Utilities.TakeLines().empty());
}

TEST_F(LinesTest, OfRedirectedFilesAreDeliveredUnderNoLock) {
    EXPECT_EQ(10, Read(m_sRedirected));
    EXPECT_GE(m_Utilities.TakeLines().size(), 2u);
    EXPECT_TRUE(m_Utilities.AddRedirectedFileSegment(&m_All, m_sRedirected.c_str(),
                                                     m_sSource.c_str(), 0, 0, 1, nullptr));
    m_Utilities.RenameRedirectedFile(&m_All, m_sRedirected.c_str(), (m_Dir / "r2").c_str());
    Redirect();
    m_Utilities.RenameRedirectedFile(&m_All, m_sRedirected.c_str(), (m_Dir / "r2").c_str());
    m_Utilities.OpenRedirectedFile(&m_All, m_sRedirected.c_str(), 10, false, 0, 0);
    m_Utilities.CloseRedirectedFile(&m_All, m_sRedirected.c_str());
    m_Utilities.CloseAllRedirectedFiles(&m_All, m_Dir.Path().c_str());
    Redirect();
    m_Utilities.CloseAllRedirectedFiles(&m_All);
    EXPECT_FALSE(m_Utilities.TakeLines().empty());
}
