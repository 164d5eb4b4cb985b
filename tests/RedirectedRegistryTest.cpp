// The registry of redirected files, the path-level operations that ask it, and the notifications of
// what clients change.
// ctest-labels: threaded

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <limits>
#include <memory>
#include <random>
#include <thread>

#include "NfsMain.h"
#include "RedirectedFixture.h"

using namespace redirtest;
using support::FileExists;
using support::PatternData;
using support::ReadFile;
using support::WaitFor;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Lines = std::vector<std::string>;

class RedirectedRegistryTest : public RedirectedFixture {
protected:
    std::shared_ptr<CRedirectedFile> Open(const std::string& path, std::int64_t size = 100,
                                          bool infoFile = false) {
        return utilities.OpenRedirectedFile(&param, path.c_str(), size, infoFile, 0, 0);
    }
    bool Add(const std::string& path, const std::string& source, std::int64_t sourceOffset,
             std::int64_t offset, std::int64_t length) {
        return utilities.AddRedirectedFileSegment(&param, path.c_str(), source.c_str(),
                                                  sourceOffset, offset, length, nullptr);
    }
    // A redirected file that is one letter from end to end.
    void OpenLetter(const std::string& path, char letter, std::int64_t size = 100) {
        const std::string source = Make(std::string("source-") + letter,
                                        std::string(static_cast<std::size_t>(size), letter));
        Open(path, size);
        ASSERT_TRUE(Add(path, source, 0, 0, size));
    }
    bool IsRedirected(const std::string& path) {
        return utilities.GetRedirectedFile(path.c_str()) != nullptr;
    }
    Got Read(const std::string& path, std::uint64_t seek, unsigned int length,
             int seekType = SEEK_SET) {
        LogArgu name{"Test.Read"};
        return GuardedRead(length, [&](void* buffer, bool* eof) {
            return utilities.ReadFile(&param, &name, path.c_str(), seek, seekType, buffer, length,
                                      eof);
        });
    }
    int Write(const std::string& path, std::uint64_t seek, const std::string& data,
              int seekType = SEEK_SET) {
        return utilities.WriteFile(&param, &argu, path.c_str(), seek, seekType, data.data(),
                                   static_cast<unsigned int>(data.size()));
    }
    long long SizeOfPath(const std::string& path) {
        return utilities.GetFileSize(&param, &argu, path.c_str(), -7);
    }
    bool Remove(const std::string& path) {
        return utilities.RemoveFile(&param, &argu, path.c_str());
    }
    bool Rename(const std::string& from, const std::string& to) {
        return utilities.RenameFile(&param, &argu, from.c_str(), to.c_str());
    }

    const std::string disk = dir / "disk.img";
    LogArgu argu{"Test.Case"};
};

}  // namespace

// ------------------------------------------------------------------------------------------------
// Open and close
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedRegistryTest, AnOpenedPathIsRedirectedUntilItIsClosed) {
    EXPECT_FALSE(IsRedirected(disk));
    const auto file = Open(disk);
    EXPECT_EQ(file, utilities.GetRedirectedFile(disk.c_str()));
    utilities.CloseRedirectedFile(&param, disk.c_str());
    EXPECT_FALSE(IsRedirected(disk));
    EXPECT_TRUE(file->IsClosed());
}

TEST_F(RedirectedRegistryTest, PathsAreComparedAsGiven) {
    Open(disk);
    EXPECT_FALSE(IsRedirected(disk + "/"));
    EXPECT_FALSE(IsRedirected(dir.Path() + "//disk.img"));
    EXPECT_FALSE(IsRedirected(dir.Path() + "/./disk.img"));
    utilities.CloseRedirectedFile(&param, (dir.Path() + "//disk.img").c_str());
    EXPECT_TRUE(IsRedirected(disk));
}

TEST_F(RedirectedRegistryTest, ANullPathCountsAsAnEmptyOne) {
    utilities.OpenRedirectedFile(&param, nullptr, 5, true, 0, 0);
    EXPECT_NE(nullptr, utilities.GetRedirectedFile(""));
    utilities.CloseRedirectedFile(&param, nullptr);
    EXPECT_EQ(nullptr, utilities.GetRedirectedFile(nullptr));
}

TEST_F(RedirectedRegistryTest, OpeningAPathAgainReplacesItsFileWithOneWithoutSegments) {
    OpenLetter(disk, 'a');
    const auto first = utilities.GetRedirectedFile(disk.c_str());
    const auto second = Open(disk, 50);
    EXPECT_NE(first, second);
    EXPECT_TRUE(first->IsClosed());
    EXPECT_EQ(50, SizeOfPath(disk));
    EXPECT_EQ((Got{50, true, Zeros(50)}), Read(disk, 0, 100));
    utilities.CloseRedirectedFile(&param, disk.c_str());
    EXPECT_FALSE(IsRedirected(disk)) << "there was one entry";
}

TEST_F(RedirectedRegistryTest, TheIdIsTheNumberOfEntriesAfterTheOldOneWent) {
    Log(LOG_CONTROL_REDIRECT_FILE);
    Open("/e/a");
    Open("/e/b");
    Open("/e/a");
    Open("/e/c");
    utilities.CloseRedirectedFile(&param, "/e/a");
    Open("/e/d");
    EXPECT_THAT(utilities.Infos(), ElementsAre("[RedirectedFile.Open] id=0, size=100 (path=)",
                                               "[RedirectedFile.Open] id=1, size=100 (path=)",
                                               "[RedirectedFile.Open] id=1, size=100 (path=)",
                                               "[RedirectedFile.Open] id=2, size=100 (path=)",
                                               "[RedirectedFile.Open] id=2, size=100 (path=)"));
}

TEST_F(RedirectedRegistryTest, TheInfoFileIsTheRealFileOfThePath) {
    const std::string a = Make("a", std::string(100, 'a'));
    Make("disk.img");
    Log(LOG_CONTROL_REDIRECT_FILE);
    Open(disk, 100, true);
    EXPECT_TRUE(utilities.Has("[RedirectedFile.Open] id=0, size=100 (path=" + disk + ")"));
    ASSERT_TRUE(Add(disk, a, 0, 0, 60));
    EXPECT_EQ(28, SizeOf(disk));
    EXPECT_EQ(100, SizeOfPath(disk)) << "the size is not that of the records";
    EXPECT_EQ((Got{60, false, std::string(60, 'a')}), Read(disk, 0, 60));
}

TEST_F(RedirectedRegistryTest, BlockAndCheckpointSizesReachTheFile) {
    ExportFolder();
    Make("disk.img");
    utilities.OpenRedirectedFile(&param, disk.c_str(), 100 * kMiB, true, 1, 2);
    ASSERT_TRUE(Add(disk, "", 0, 0, 3 * kMiB));
    const std::string listing = Make("listing");
    utilities.ExportRedirectedFileInfo(&param, disk.c_str(), listing.c_str(), false);
    EXPECT_EQ(
        "--> CheckPoint Segment fox=56, ox=2097152\n-------------------\n"
        "Segment path=Null, fox=0, ox=0, len=1048576\n"
        "Segment path=Null, fox=1048576, ox=1048576, len=1048576\n"
        "Segment path=Null, fox=2097152, ox=2097152, len=1048576\n",
        ReadFile(listing));
}

TEST_F(RedirectedRegistryTest, ReopeningWithAnInfoFileStartsWithoutSegments) {
    const std::string a = Make("a", std::string(100, 'a'));
    Make("disk.img");
    Open(disk, 100, true);
    ASSERT_TRUE(Add(disk, a, 0, 0, 100));
    const std::string old = ReadFile(disk);
    Open(disk, 100, true);
    EXPECT_EQ((Got{50, false, Zeros(50)}), Read(disk, 0, 50));
    ASSERT_TRUE(Add(disk, a, 0, 0, 10));
    EXPECT_EQ(old, ReadFile(disk).substr(0, old.size())) << "the old records stay";
    EXPECT_EQ(std::string(10, 'a'), Read(disk, 0, 10).data);
}

TEST_F(RedirectedRegistryTest, ClosingADirectoryClosesWhatLiesBelowAndTheFileOfThatPath) {
    for (const char* path :
         {"/e/vm", "/e/vm/disk.img", "/e/vm/sub/disk.img", "/e/vm2/disk.img", "/e/vm.img", "/e"}) {
        Open(path);
    }
    utilities.CloseAllRedirectedFiles(&param, "/e/vm");
    EXPECT_FALSE(IsRedirected("/e/vm"));
    EXPECT_FALSE(IsRedirected("/e/vm/disk.img"));
    EXPECT_FALSE(IsRedirected("/e/vm/sub/disk.img"));
    EXPECT_TRUE(IsRedirected("/e/vm2/disk.img"));
    EXPECT_TRUE(IsRedirected("/e/vm.img"));
    EXPECT_TRUE(IsRedirected("/e"));
}

TEST_F(RedirectedRegistryTest, ClosingADirectoryAcceptsATrailingSlash) {
    Open("/e/vm/disk.img");
    Open("/e/vm2/disk.img");
    utilities.CloseAllRedirectedFiles(&param, "/e/vm/");
    EXPECT_FALSE(IsRedirected("/e/vm/disk.img"));
    EXPECT_TRUE(IsRedirected("/e/vm2/disk.img"));
}

TEST_F(RedirectedRegistryTest, ClosingADirectoryComparesFromTheFirstEntryAgainAfterEachClose) {
    for (const char* path : {"/e/a", "/e/vm/1", "/e/vm/2", "/e/x"}) {
        Open(path);
    }
    Log(LOG_CONTROL_GENERAL_INFO);
    utilities.CloseAllRedirectedFiles(&param, "/e/vm");
    const std::string prefix = "[CloseAllRedirectedFiles] Path compare: \"/e/vm/\" vs ";
    EXPECT_THAT(utilities.Infos(),
                ElementsAre(prefix + "\"/e/a/\"", prefix + "\"/e/vm/1/\"", prefix + "\"/e/a/\"",
                            prefix + "\"/e/vm/2/\"", prefix + "\"/e/a/\"", prefix + "\"/e/x/\""));
}

TEST_F(RedirectedRegistryTest, ClosingADirectoryIsSilentWithoutGeneralLoggingAndWithoutFiles) {
    Log(LOG_CONTROL_GENERAL_INFO);
    utilities.CloseAllRedirectedFiles(&param, "/e/vm");
    EXPECT_THAT(utilities.Texts(), IsEmpty());
    Open("/e/vm/disk.img");
    Log(0x3FF & ~LOG_CONTROL_GENERAL_INFO);
    utilities.CloseAllRedirectedFiles(&param, "/e/vm");
    EXPECT_THAT(utilities.Texts(), IsEmpty());
}

TEST_F(RedirectedRegistryTest, AnEmptyDirectoryPathClosesEverything) {
    Open("/e/a");
    utilities.CloseAllRedirectedFiles(&param, "");
    EXPECT_FALSE(IsRedirected("/e/a")) << "every path begins with the empty text";
}

TEST_F(RedirectedRegistryTest, ClosingAllClosesEveryFile) {
    const auto a = Open("/e/a");
    const auto b = Open("/f/b");
    utilities.CloseAllRedirectedFiles(&param);
    EXPECT_FALSE(IsRedirected("/e/a"));
    EXPECT_FALSE(IsRedirected("/f/b"));
    EXPECT_TRUE(a->IsClosed());
    EXPECT_TRUE(b->IsClosed());
}

TEST_F(RedirectedRegistryTest, ResetClosesEveryFile) {
    const auto a = Open("/e/a");
    utilities.Reset(&param, &argu);
    EXPECT_FALSE(IsRedirected("/e/a"));
    EXPECT_TRUE(a->IsClosed());
    EXPECT_EQ(1, a.use_count()) << "nobody else holds the object";
}

// ------------------------------------------------------------------------------------------------
// Segments, exports and renaming by path
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedRegistryTest, ASegmentForAnUnknownPathIsRefused) {
    char reason[STATUS_SIZE] = "untouched";
    EXPECT_FALSE(utilities.AddRedirectedFileSegment(&param, disk.c_str(), "/a", 0, 0, 10, reason));
    Open(disk);
    EXPECT_FALSE(
        utilities.AddRedirectedFileSegment(&param, disk.c_str(), "/a", 0, 100, 10, reason));
    EXPECT_TRUE(utilities.AddRedirectedFileSegment(&param, disk.c_str(), "/a", 0, 99, 10, reason));
    EXPECT_STREQ("untouched", reason);
}

TEST_F(RedirectedRegistryTest, ExportsOfAnUnknownPathDoNothingAndReportNothing) {
    ExportFolder();
    const std::string target = Make("target", "kept");
    Log(0x3FF);
    utilities.ExportRedirectedFile(&param, disk.c_str(), target.c_str());
    utilities.ExportRedirectedFileInfo(&param, disk.c_str(), target.c_str(), true);
    EXPECT_EQ("kept", ReadFile(target));
    EXPECT_THAT(utilities.Texts(), IsEmpty());
}

TEST_F(RedirectedRegistryTest, ExportsWriteContentAndListing) {
    ExportFolder();
    OpenLetter(disk, 'a');
    const std::string content = Make("content");
    const std::string listing = Make("listing");
    const std::string merged = Make("merged");
    utilities.ExportRedirectedFile(&param, disk.c_str(), content.c_str());
    utilities.ExportRedirectedFileInfo(&param, disk.c_str(), listing.c_str(), false);
    utilities.ExportRedirectedFileInfo(&param, disk.c_str(), merged.c_str(), true);
    EXPECT_EQ(std::string(100, 'a'), ReadFile(content));
    EXPECT_EQ("Segment path=" + (dir / "source-a") + ", fox=0, ox=0, len=100\n", ReadFile(listing));
    EXPECT_EQ("--> Merged Segment path=" + (dir / "source-a") + ", fox=0, ox=0, len=100\n",
              ReadFile(merged));
}

TEST_F(RedirectedRegistryTest, RenamingMovesTheObject) {
    OpenLetter("/e/from", 'a');
    const auto file = utilities.GetRedirectedFile("/e/from");
    utilities.RenameRedirectedFile(&param, "/e/from", "/e/to");
    EXPECT_FALSE(IsRedirected("/e/from"));
    EXPECT_EQ(file, utilities.GetRedirectedFile("/e/to"));
    EXPECT_FALSE(file->IsClosed());
    EXPECT_EQ((Got{100, true, std::string(100, 'a')}), Read("/e/to", 0, 100));
}

TEST_F(RedirectedRegistryTest, RenamingClosesTheFileAtTheDestination) {
    const auto from = Open("/e/from");
    const auto to = Open("/e/to");
    utilities.RenameRedirectedFile(&param, "/e/from", "/e/to");
    EXPECT_TRUE(to->IsClosed());
    EXPECT_EQ(from, utilities.GetRedirectedFile("/e/to"));
}

TEST_F(RedirectedRegistryTest, RenamingAnUnknownFileStillClosesTheDestination) {
    const auto to = Open("/e/to");
    utilities.RenameRedirectedFile(&param, "/e/from", "/e/to");
    EXPECT_TRUE(to->IsClosed());
    EXPECT_FALSE(IsRedirected("/e/to"));
}

// ------------------------------------------------------------------------------------------------
// File access by path
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedRegistryTest, TheSizeOfAPathIsThatOfTheObject) {
    Make("disk.img", "real");
    EXPECT_EQ(4, SizeOfPath(disk));
    Open(disk, std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(std::numeric_limits<std::int64_t>::max(), SizeOfPath(disk));
    Open("/nowhere/disk.img", 5);
    EXPECT_EQ(5, SizeOfPath("/nowhere/disk.img"));
}

TEST_F(RedirectedRegistryTest, AReadOfThePathIsAReadOfTheObject) {
    Make("disk.img", "the real file");
    OpenLetter(disk, 'a');
    EXPECT_EQ((Got{10, false, std::string(10, 'a')}), Read(disk, 20, 10));
    EXPECT_EQ((Got{10, true, std::string(10, 'a')}), Read(disk, 90, 10));
}

TEST_F(RedirectedRegistryTest, TheSeekTypeOfAReadIsIgnored) {
    const std::string data = PatternData(100);
    const std::string a = Make("a", data);
    Open(disk);
    ASSERT_TRUE(Add(disk, a, 0, 0, 100));
    EXPECT_EQ(data.substr(10, 5), Read(disk, 10, 5, SEEK_END).data);
    EXPECT_EQ(data.substr(10, 5), Read(disk, 10, 5, SEEK_CUR).data);
}

TEST_F(RedirectedRegistryTest, AReadIsLoggedByTheCallerAndByTheObject) {
    Open(disk);
    Log(LOG_CONTROL_FILE_ACCESS);
    Read(disk, 20, 10);
    EXPECT_THAT(utilities.Infos(), ElementsAre("[Test.Read] Read file, path=" + disk +
                                                   ", iSeek=20, iSeekType=0, length=10",
                                               "[RedirectedFile.Read] Eof=F, ox=30, size=100"));
}

TEST_F(RedirectedRegistryTest, AWriteReachesTheControllerAndNoFile) {
    ExportFolder();
    Make("disk.img", "the real file");
    OpenLetter(disk, 'a');
    utilities.SetAnswer(3);
    EXPECT_EQ(3, Write(disk, 1ull << 40, "12345", SEEK_CUR));
    EXPECT_THAT(utilities.TakeNotifications(),
                ElementsAre("write (vm01) " + disk + " seek=1099511627776 type=1 length=5"));
    EXPECT_EQ("the real file", ReadFile(disk));
    EXPECT_EQ(std::string(100, 'a'), ReadFile(dir / "source-a"));
    EXPECT_EQ(std::string(100, 'a'), Read(disk, 0, 100).data);
}

TEST_F(RedirectedRegistryTest, TheCountOfAWriteIsTheAnswerOfTheController) {
    Open(disk);
    for (const int answer : {-1, 0, 1, 5, 1'000'000}) {
        utilities.SetAnswer(answer);
        EXPECT_EQ(answer, Write(disk, 0, "12345"));
    }
}

TEST_F(RedirectedRegistryTest, AttributesReachTheControllerWithoutModeAndOwner) {
    ExportFolder();
    Make("disk.img", "real");
    Open(disk);
    utilities.SetAnswer(-1);
    EXPECT_TRUE(utilities.UpdateFileAttributes(&param, &argu, disk.c_str(), true, 0, true, 1, true,
                                               2, true, 1ull << 40, true, 0xFFFFFFFF, 4, true, 5,
                                               6))
        << "whatever the answer";
    EXPECT_TRUE(utilities.UpdateFileAttributes(&param, &argu, disk.c_str(), false, 0, false, 0,
                                               false, 0, false, 9, true, 3, 0, false, 5, 0));
    EXPECT_TRUE(utilities.UpdateFileAttributes(&param, &argu, disk.c_str(), true, 0, false, 0,
                                               false, 0, false, 0, false, 0, 0, false, 0, 0));
    EXPECT_THAT(
        utilities.TakeNotifications(),
        ElementsAre("attributes (vm01) " + disk + " size=1099511627776 atime=4294967295 mtime=5",
                    "attributes (vm01) " + disk + " size=none atime=3 mtime=none",
                    "attributes (vm01) " + disk + " size=none atime=none mtime=none"));
    EXPECT_EQ("real", ReadFile(disk)) << "neither mode nor size of the real file change";
    EXPECT_EQ(100, SizeOfPath(disk));
}

TEST_F(RedirectedRegistryTest, AttributesWithNothingToSetReachNobody) {
    Open(disk);
    EXPECT_TRUE(utilities.UpdateFileAttributes(&param, &argu, disk.c_str(), false, 0, false, 0,
                                               false, 0, false, 0, false, 0, 0, false, 0, 0));
    EXPECT_THAT(utilities.TakeNotifications(), IsEmpty());
}

TEST_F(RedirectedRegistryTest, ARemovalRemovesTheRealFileClosesAndThenTells) {
    Make("disk.img");
    const auto file = Open(disk);
    utilities.SetHook([&] {
        EXPECT_FALSE(FileExists(disk));
        EXPECT_FALSE(IsRedirected(disk));
        EXPECT_TRUE(file->IsClosed());
    });
    EXPECT_TRUE(Remove(disk));
    EXPECT_THAT(utilities.TakeNotifications(), ElementsAre("remove (vm01) " + disk));
}

TEST_F(RedirectedRegistryTest, ARemovalFailsWhenTheControllerObjectsAlthoughTheFileIsGone) {
    for (const int answer : {-1, 1}) {
        Make("disk.img");
        Open(disk);
        utilities.SetAnswer(answer);
        EXPECT_FALSE(Remove(disk));
        EXPECT_FALSE(FileExists(disk));
        EXPECT_FALSE(IsRedirected(disk));
    }
}

TEST_F(RedirectedRegistryTest, ARemovalNeedsARealFile) {
    Open(disk);
    EXPECT_FALSE(Remove(disk));
    EXPECT_THAT(utilities.TakeNotifications(), IsEmpty());
    EXPECT_TRUE(IsRedirected(disk));
}

TEST_F(RedirectedRegistryTest, ARenameRenamesTheRealFileMovesTheObjectAndThenTells) {
    Make("disk.img", "real");
    const std::string to = dir / "new.img";
    OpenLetter(disk, 'a');
    utilities.GetFileID(&param, &argu, disk.c_str());
    utilities.SetHook([&] {
        EXPECT_FALSE(FileExists(disk));
        EXPECT_EQ("real", ReadFile(to));
        EXPECT_FALSE(IsRedirected(disk));
        EXPECT_TRUE(IsRedirected(to));
    });
    EXPECT_TRUE(Rename(disk, to));
    EXPECT_THAT(utilities.TakeNotifications(), ElementsAre("rename (vm01) " + disk + " -> " + to));
    EXPECT_EQ(std::string(100, 'a'), Read(to, 0, 100).data);
}

TEST_F(RedirectedRegistryTest, ARenameFailsWhenTheControllerObjectsAlthoughItIsDone) {
    const std::string to = dir / "new.img";
    for (const int answer : {-1, 1}) {
        Make("disk.img");
        Open(disk);
        utilities.GetFileID(&param, &argu, disk.c_str());
        utilities.SetAnswer(answer);
        EXPECT_FALSE(Rename(disk, to));
        EXPECT_TRUE(FileExists(to));
        EXPECT_TRUE(IsRedirected(to));
        utilities.CloseRedirectedFile(&param, to.c_str());
        ASSERT_EQ(0, unlink(to.c_str()));
    }
}

TEST_F(RedirectedRegistryTest, ARenameNeedsNoRealFile) {
    const std::string to = dir / "new.img";
    Open(disk);
    utilities.GetFileID(&param, &argu, disk.c_str());
    EXPECT_TRUE(Rename(disk, to));
    EXPECT_TRUE(IsRedirected(to));
    EXPECT_FALSE(FileExists(to));
}

TEST_F(RedirectedRegistryTest, ARenameOverARedirectedFileRemovesThatFirst) {
    Make("disk.img");
    const std::string to = Make("new.img");
    Open(disk);
    Open(to);
    utilities.GetFileID(&param, &argu, disk.c_str());
    EXPECT_TRUE(Rename(disk, to));
    EXPECT_THAT(utilities.TakeNotifications(),
                ElementsAre("remove (vm01) " + to, "rename (vm01) " + disk + " -> " + to));
}

TEST_F(RedirectedRegistryTest, ARenameFailsWhenTheRedirectedTargetMayNotBeRemoved) {
    Make("disk.img");
    const std::string to = Make("new.img");
    Open(disk);
    Open(to);
    utilities.SetAnswer(1);
    EXPECT_FALSE(Rename(disk, to));
    EXPECT_THAT(utilities.TakeNotifications(), ElementsAre("remove (vm01) " + to));
    EXPECT_TRUE(IsRedirected(disk));
    EXPECT_TRUE(FileExists(disk));
}

TEST_F(RedirectedRegistryTest, ARenamedFileLosesTheSegmentsOfItsInfoFile) {
    ExportFolder();
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string to = dir / "new.img";
    Make("disk.img");
    Open(disk, 100, true);
    ASSERT_TRUE(Add(disk, a, 0, 0, 100));
    EXPECT_EQ(std::string(50, 'a'), Read(disk, 0, 50).data);
    utilities.GetFileID(&param, &argu, disk.c_str());
    ASSERT_TRUE(Rename(disk, to));
    EXPECT_EQ(28, SizeOf(to)) << "the records lie at the new path";
    EXPECT_EQ((Got{50, false, Zeros(50)}), Read(to, 0, 50)) << "the object looks at the old one";
    ASSERT_TRUE(Add(to, a, 0, 0, 10)) << "and goes on in memory";
    EXPECT_EQ(std::string(10, 'a'), Read(to, 0, 10).data);
    EXPECT_FALSE(FileExists(disk));
}

TEST_F(RedirectedRegistryTest, ARenamedFolderTakesTheRedirectedFilesBelowIt) {
    ExportFolder();
    const std::string from = dir / "d";
    const std::string to = dir / "e";
    std::filesystem::create_directory(from);
    Make("d/disk.img");
    Make("d/inner.img");
    Make("d2");
    OpenLetter(from + "/disk.img", 'a');
    OpenLetter(from + "/inner.img", 'b');
    OpenLetter(dir / "d2", 'c');
    utilities.GetFileID(&param, &argu, from.c_str());
    utilities.SetAnswer(-1);
    EXPECT_TRUE(Rename(from, to)) << "the controller is told and not asked";
    EXPECT_THAT(utilities.TakeNotifications(),
                ElementsAre("rename (vm01) " + from + "/disk.img -> " + to + "/disk.img",
                            "rename (vm01) " + from + "/inner.img -> " + to + "/inner.img"));
    EXPECT_EQ(std::string(100, 'a'), Read(to + "/disk.img", 0, 100).data);
    EXPECT_TRUE(IsRedirected(dir / "d2"));
    // What comes to the old place is an ordinary file.
    std::filesystem::create_directory(from);
    ASSERT_TRUE(utilities.NewFile(&param, &argu, (from + "/disk.img").c_str()));
    EXPECT_EQ(3, Write(from + "/disk.img", 0, "new"));
    EXPECT_EQ("new", ReadFile(from + "/disk.img"));
    EXPECT_THAT(utilities.TakeNotifications(), IsEmpty());
}

TEST_F(RedirectedRegistryTest, ARefusedRenameLeavesTheRowAndNothingNewIsMistakenForTheFile) {
    Make("disk.img");
    Open(disk);
    EXPECT_EQ(0u, utilities.GetFileID(&param, &argu, disk.c_str()));
    utilities.SetAnswer(1);
    EXPECT_FALSE(Rename(disk, dir / "new.img"));
    EXPECT_EQ(0u, utilities.GetFileID(&param, &argu, disk.c_str()));
    Make("disk.img");
    EXPECT_EQ(1u, utilities.GetFileID(&param, &argu, disk.c_str()));
}

// ------------------------------------------------------------------------------------------------
// Notifications without a controller
// ------------------------------------------------------------------------------------------------

TEST(NotificationTest, WithoutAControllerEveryAnswerIsMinusOne) {
    CUtilities utilities;
    CRuntimeParam param("vm01", 0);
    EXPECT_EQ(-1,
              utilities.LogUpdateRedirectedFileAttributes(&param, "/d", true, 1, true, 2, true, 3));
    EXPECT_EQ(-1, utilities.LogRemoveRedirectedFile(&param, "/d"));
    EXPECT_EQ(-1, utilities.LogRenameRedirectedFile(&param, "/d", "/e"));
    EXPECT_EQ(-1, utilities.LogWriteRedirectedFile(&param, "/d", 1, 0, 2));
}

TEST(NotificationTest, WithoutAControllerClientsCannotWriteRemoveOrRename) {
    const support::ScopedTempDir dir;
    const std::string disk = dir / "disk.img";
    CUtilities utilities;
    CRuntimeParam param("vm01", 0);
    LogArgu argu{"Test.Case"};
    const auto open = [&](const std::string& path) {
        support::WriteFile(path, "");
        utilities.OpenRedirectedFile(&param, path.c_str(), 100, false, 0, 0);
        utilities.GetFileID(&param, &argu, path.c_str());
    };
    open(disk);
    EXPECT_EQ(-1, utilities.WriteFile(&param, &argu, disk.c_str(), 0, SEEK_SET, "x", 1));
    EXPECT_TRUE(utilities.UpdateFileAttributes(&param, &argu, disk.c_str(), false, 0, false, 0,
                                               false, 0, true, 5, false, 0, 0, false, 0, 0));
    EXPECT_FALSE(utilities.RenameFile(&param, &argu, disk.c_str(), (dir / "new").c_str()));
    EXPECT_FALSE(utilities.RemoveFile(&param, &argu, (dir / "new").c_str()));
    utilities.Reset(&param, &argu);
}

// ------------------------------------------------------------------------------------------------
// Through the server's top-level object
// ------------------------------------------------------------------------------------------------

namespace {

class ControlledMain : public CNfsMain {
public:
    ControlledMain() { InitMemberVaribles("own-id", LOG_CONTROL_REDIRECT_FILE); }
    ~ControlledMain() override { StopServer(); }
    std::unique_ptr<CUtilities> CreateUtilities() override {
        return std::make_unique<ControlledUtilities>();
    }
    ControlledUtilities& Utilities() { return static_cast<ControlledUtilities&>(*GetUtils()); }
};

}  // namespace

TEST(RedirectedMainTest, TheControlOperationsReachTheRegistryWithTheOwnIdentity) {
    const support::ScopedTempDir dir;
    const std::string disk = dir / "disk.img";
    support::WriteFile(disk, "");
    support::WriteFile(dir / "a", "0123456789");
    support::WriteFile(dir / "content", "");
    support::WriteFile(dir / "listing", "");
    ControlledMain main;
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(main.AddMountPoint(dir.Path().c_str(), "vm01", reason)) << reason;

    EXPECT_FALSE(main.AddRedirectedFileSegment(disk.c_str(), (dir / "a").c_str(), 5, 0, 5, reason));
    main.OpenRedirectedFile(disk.c_str(), 2 * kMiB, true, 1, 1);
    EXPECT_TRUE(main.AddRedirectedFileSegment(disk.c_str(), (dir / "a").c_str(), 5, 0, 5, reason));
    EXPECT_TRUE(main.AddRedirectedFileSegment(disk.c_str(), nullptr, 0, kMiB - 1, 2, reason));
    EXPECT_EQ(3 * 28, SizeOf(disk)) << "one of the two was split at a block of 1 MiB";
    main.ExportRedirectedFileInfo(disk.c_str(), (dir / "listing").c_str(), true);
    EXPECT_EQ(
        "--> CheckPoint Segment fox=56, ox=1048576\n-------------------\n"
        "--> Merged Segment path=" +
            (dir / "a") + ", fox=5, ox=0, len=5\n" +
            "--> Merged Segment path=Null, fox=0, ox=1048575, len=2\n",
        ReadFile(dir / "listing"));
    main.ExportRedirectedFile(disk.c_str(), (dir / "content").c_str());
    EXPECT_EQ("56789", ReadFile(dir / "content").substr(0, 5));
    main.CloseRedirectedFile(disk.c_str());
    EXPECT_EQ(nullptr, main.GetUtils()->GetRedirectedFile(disk.c_str()));

    main.OpenRedirectedFile(disk.c_str(), 10, false, 0, 0);
    main.OpenRedirectedFile((dir.Path() + "2/disk.img").c_str(), 10, false, 0, 0);
    main.CloseAllRedirectedFiles(dir.Path().c_str());
    EXPECT_EQ(nullptr, main.GetUtils()->GetRedirectedFile(disk.c_str()));
    EXPECT_NE(nullptr, main.GetUtils()->GetRedirectedFile((dir.Path() + "2/disk.img").c_str()));

    const std::vector<LogLine> lines = main.Utilities().Lines();
    ASSERT_FALSE(lines.empty());
    for (const LogLine& line : lines) {
        EXPECT_EQ("own-id", line.id) << line;
    }
}

// ------------------------------------------------------------------------------------------------
// Several threads
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedRegistryTest, TheRegistryIsUsableWhileANotificationWaits) {
    Make("disk.img", "x");
    OpenLetter(disk, 'a');
    std::promise<void> asked;
    std::promise<void> answer;
    utilities.SetHook([&] {
        asked.set_value();
        answer.get_future().wait();
    });
    utilities.SetAnswer(5);
    std::future<int> write = std::async(std::launch::async, [&] {
        CRuntimeParam own("vm01", 0);
        LogArgu name{"Test.Write"};
        return utilities.WriteFile(&own, &name, disk.c_str(), 0, SEEK_SET, "12345", 5);
    });
    asked.get_future().wait();
    // Each of these would wait for the answer if a lock were held.
    EXPECT_EQ(std::string(100, 'a'), Read(disk, 0, 100).data);
    EXPECT_TRUE(Add(disk, "", 0, 0, 10));
    Open("/e/other");
    utilities.CloseRedirectedFile(&param, disk.c_str());
    utilities.CloseAllRedirectedFiles(&param);
    answer.set_value();
    EXPECT_EQ(5, write.get());
}

namespace {

// Runs something when a log line contains a text.
class HookedUtilities : public ControlledUtilities {
public:
    using ControlledUtilities::LogInfo;
    void LogInfo(CRuntimeParam* /*param*/, char* message) override {
        if (hook && std::string(message).find(text) != std::string::npos) {
            hook();
        }
    }
    std::string text;
    std::function<void()> hook;
};

}  // namespace

TEST(RedirectedExportTest, BothExportsHoldTheRegistry) {
    const support::ScopedTempDir dir;
    support::WriteFile(dir / "target", "");
    HookedUtilities utilities;
    CRuntimeParam param("vm01", LOG_CONTROL_REDIRECT_FILE);
    LogArgu argu{"Test.Case"};
    utilities.OpenRedirectedFile(&param, "/e/disk", 100, false, 0, 0);
    for (const char* text : {"Write ox:", "Info to file:"}) {
        std::future<bool> lookup;
        bool waited = false;
        utilities.text = text;
        utilities.hook = [&] {
            lookup = std::async(std::launch::async,
                                [&] { return utilities.GetRedirectedFile("/e/disk") != nullptr; });
            // Only a lookup that goes through proves anything here; it has no reason to be slow.
            waited = lookup.wait_for(std::chrono::milliseconds(300)) == std::future_status::timeout;
        };
        if (std::string(text) == "Write ox:") {
            utilities.ExportRedirectedFile(&param, "/e/disk", (dir / "target").c_str());
        } else {
            utilities.ExportRedirectedFileInfo(&param, "/e/disk", (dir / "target").c_str(), false);
        }
        ASSERT_TRUE(lookup.valid()) << text;
        EXPECT_TRUE(waited) << text;
        EXPECT_TRUE(lookup.get()) << text;
    }
    utilities.hook = nullptr;
    utilities.Reset(&param, &argu);
}

namespace {

constexpr int kReaders = 3;

// Readers on threads of their own, each until told to end.
class Readers {
public:
    template <typename Body>
    explicit Readers(Body body) {
        for (int i = 0; i < kReaders; ++i) {
            m_threads.emplace_back([this, body, i] {
                while (!m_end) {
                    body(i);
                    ++m_rounds;
                }
            });
        }
    }
    ~Readers() {
        m_end = true;
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }
    int Rounds() const { return m_rounds; }

private:
    std::atomic<bool> m_end{false};
    std::atomic<int> m_rounds{0};
    std::vector<std::thread> m_threads;
};

class RedirectedReadersTest : public RedirectedRegistryTest,
                              public testing::WithParamInterface<bool> {
protected:
    // A read that neither logs nor asserts, for the threads.
    std::string ReadQuietly(const std::string& path, std::uint64_t seek, unsigned int length) {
        CRuntimeParam own("reader", 0);
        LogArgu name{"Test.Reader"};
        std::string buffer(length, '\xEE');
        bool eof = false;
        const int count = utilities.ReadFile(&own, &name, path.c_str(), seek, SEEK_SET,
                                             buffer.data(), length, &eof);
        buffer.resize(static_cast<std::size_t>(std::max(0, count)));
        return buffer;
    }
};

INSTANTIATE_TEST_SUITE_P(Segments, RedirectedReadersTest, testing::Bool(), [](const auto& kind) {
    return std::string(kind.param ? "InAnInfoFile" : "InMemory");
});

}  // namespace

TEST_P(RedirectedReadersTest, SeeWholeSegmentsOrZerosWhileSegmentsAreAdded) {
    constexpr std::size_t kSegments = 400;
    constexpr std::size_t kLength = 512;
    const std::string data = PatternData(kSegments * kLength);
    const std::string a = Make("a", data);
    Make("disk.img");
    // The last byte is never read, so that no reader reaches the end of the file.
    Open(disk, static_cast<std::int64_t>(kSegments * kLength + 1), GetParam());
    std::array<std::array<std::atomic<bool>, kSegments>, kReaders> seen{};
    std::array<std::size_t, kReaders> next{};
    std::atomic<int> wrong{0};
    std::atomic<std::size_t> added{0};
    {
        Readers readers([&](int reader) {
            std::size_t& i = next[static_cast<std::size_t>(reader)];
            i = (i + 7) % kSegments;
            const bool mustBeThere = i < added || seen[static_cast<std::size_t>(reader)][i];
            const std::string got = ReadQuietly(disk, i * kLength, kLength);
            if (got == data.substr(i * kLength, kLength)) {
                seen[static_cast<std::size_t>(reader)][i] = true;
            } else if (got != Zeros(kLength) || mustBeThere) {
                ++wrong;
            }
        });
        for (std::size_t i = 0; i < kSegments; ++i) {
            ASSERT_TRUE(Add(disk, a, static_cast<std::int64_t>(i * kLength),
                            static_cast<std::int64_t>(i * kLength), kLength));
            added = i + 1;
        }
        ASSERT_TRUE(
            WaitFor([&, from = readers.Rounds()] { return readers.Rounds() > from + 500; }));
    }
    EXPECT_EQ(0, wrong);
}

TEST_P(RedirectedReadersTest, SeeTheOldFileOrTheNewOneWhileFilesReplaceOneAnother) {
    constexpr unsigned int kSize = 4096;
    Make("disk.img", std::string(kSize, 'p'));  // what lies there while neither is registered
    const std::string next = Make("next.img");
    Make("source-a", std::string(kSize + 1, 'a'));
    Make("source-b", std::string(kSize + 1, 'b'));
    std::atomic<int> wrong{0};
    {
        Readers readers([&](int) {
            const std::string got = ReadQuietly(disk, 0, kSize);
            // A closed file would read as zeros; one of the files is read whole.
            if (got.size() != kSize || got.find_first_not_of(got[0]) != std::string::npos ||
                std::string("abp").find(got[0]) == std::string::npos) {
                ++wrong;
            }
        });
        for (int round = 0; round < 300; ++round) {
            // Complete before it takes the place of the other.
            utilities.OpenRedirectedFile(&param, next.c_str(), kSize + 1, GetParam(), 1, 1);
            const std::string source = dir / (round % 2 == 0 ? "source-a" : "source-b");
            for (unsigned int i = 0; i < kSize; i += kSize / 4) {
                ASSERT_TRUE(Add(next, source, i, i, kSize / 4));
            }
            utilities.RenameRedirectedFile(&param, next.c_str(), disk.c_str());
        }
        ASSERT_TRUE(WaitFor([&, from = readers.Rounds()] { return readers.Rounds() > from + 50; }));
    }
    EXPECT_EQ(0, wrong);
}

TEST_P(RedirectedReadersTest, SeeDataOrNothingWhileTheFileIsClosedAndReopened) {
    // A reader that meets the real file opens it; outside every export only for reading, and then
    // no record could be written through that descriptor.
    ExportFolder();
    constexpr unsigned int kSize = 4096;
    Make("source-a", std::string(kSize + 1, 'a'));
    if (GetParam()) {
        Make("disk.img");
    }
    std::atomic<int> wrong{0};
    std::atomic<int> whole{0};
    {
        Readers readers([&](int) {
            const std::string got = ReadQuietly(disk, 0, kSize);
            if (got.empty()) {
                return;  // closed just now, and there is no real file
            }
            if (got == std::string(kSize, 'a')) {
                ++whole;
            } else if (!GetParam() && got != Zeros(kSize)) {
                ++wrong;  // neither a complete file nor one that has no segment yet
            }
        });
        for (int round = 0; round < 300; ++round) {
            Open(disk, kSize + 1, GetParam());
            ASSERT_TRUE(Add(disk, dir / "source-a", 0, 0, kSize));
            if (round % 10 == 0) {
                ASSERT_TRUE(WaitFor([&, from = whole.load()] { return whole > from; }))
                    << "the file is open and complete";
            }
            utilities.CloseRedirectedFile(&param, disk.c_str());
        }
    }
    EXPECT_EQ(0, wrong);
}

TEST_F(RedirectedRegistryTest, EveryOperationMayMeetEveryOther) {
    ExportFolder();
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    const std::string source = Make("source", std::string(10'000, 'a'));
    const std::string target = Make("target");
    const std::array<std::string, 3> paths{Make("0.img"), Make("1.img"), dir / "2.img"};
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937_64 random(seed + t);
            CRuntimeParam own("thread", LOG_CONTROL_REDIRECT_FILE);
            LogArgu name{"Test.Thread"};
            std::string buffer(5000, '\0');
            for (int i = 0; i < 1500; ++i) {
                const std::string& path = paths[random() % paths.size()];
                const char* p = path.c_str();
                bool eof = false;
                switch (random() % 16) {
                    case 0:
                        utilities.OpenRedirectedFile(&own, p, 9000, i % 2 == 0, 1, 1);
                        break;
                    case 1:
                        utilities.CloseRedirectedFile(&own, p);
                        break;
                    case 2:
                        utilities.RenameRedirectedFile(&own, p,
                                                       paths[random() % paths.size()].c_str());
                        break;
                    case 3:
                        utilities.ExportRedirectedFile(&own, p, target.c_str());
                        break;
                    case 4:
                        utilities.ExportRedirectedFileInfo(&own, p, target.c_str(), i % 2 == 0);
                        break;
                    case 5:
                        utilities.GetFileSize(&own, &name, p, 0);
                        break;
                    case 6:
                        utilities.LogWriteRedirectedFile(&own, p, 0, 0, 5);
                        break;
                    case 7:
                        if (i % 50 == 0) {
                            utilities.CloseAllRedirectedFiles(&own);
                        } else {
                            utilities.CloseAllRedirectedFiles(&own, p);
                        }
                        break;
                    case 8:
                        utilities.CloseAllCachedFileHandles(&own, &name);
                        break;
                    case 9:
                        utilities.WriteFile(&own, &name, "/e/none", 0, 0, "x", 1);
                        break;
                    case 10:
                    case 11:
                        utilities.AddRedirectedFileSegment(
                            &own, p, source.c_str(), 0, static_cast<long long>(random() % 9000),
                            static_cast<long long>(random() % 3000), nullptr);
                        break;
                    default:
                        utilities.ReadFile(&own, &name, p, random() % 9000, SEEK_SET, buffer.data(),
                                           static_cast<unsigned int>(random() % buffer.size()),
                                           &eof);
                        break;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}
