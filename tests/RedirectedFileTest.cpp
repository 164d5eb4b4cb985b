// One redirected file: how segments are recorded, found and joined, and what is written about it.

#include "RedirectedFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <limits>
#include <random>

#include "PlatformReport.h"
#include "RedirectedFixture.h"
#include "support/Faults.h"

namespace faults = support::faults;

using namespace redirtest;
using support::FileExists;
using support::OpenCount;
using support::PatternData;
using support::ReadFile;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

using Lines = std::vector<std::string>;

class RedirectedFileTest : public RedirectedFixture {
protected:
    // Without an info file unless one is named.
    void Open(std::int64_t size, const std::string& infoFile = "", int blockMB = 0,
              int checkPointMB = 0, int id = 7) {
        file.Open(&param, size, id, infoFile.empty() ? nullptr : infoFile.c_str(), blockMB,
                  checkPointMB);
    }
    bool Add(const std::string& source, std::int64_t sourceOffset, std::int64_t offset,
             std::int64_t length) {
        char reason[STATUS_SIZE] = "untouched";
        const bool result = file.AddSegment(&param, source.empty() ? nullptr : source.c_str(),
                                            sourceOffset, offset, length, reason);
        EXPECT_STREQ("untouched", reason);
        return result;
    }
    Got Read(std::uint64_t seek, unsigned int length) {
        return GuardedRead(length, [&](void* buffer, bool* eof) {
            return file.Read(&param, seek, buffer, length, eof);
        });
    }
    std::string Content(std::uint64_t seek, unsigned int length) { return Read(seek, length).data; }
    // The listing, as the text of the lines without their newlines.
    Lines Info(bool merge = false) {
        const std::string path = Make("listing");
        file.ExportInfo(&param, path.c_str(), merge);
        Lines lines;
        CUtilities::SplitIntoVector(ReadFile(path).c_str(), '\n', &lines);
        return lines;
    }
    // The records of an info file as "source file-offset offset length".
    static Lines Records(const std::string& path, std::size_t from = 0) {
        Lines lines;
        for (const Segment& s : RecordsOf(path, from)) {
            lines.push_back(std::to_string(s.iSource) + " " + std::to_string(s.iFileOffset) + " " +
                            std::to_string(s.iOffset) + " " + std::to_string(s.iLength));
        }
        return lines;
    }
    // Where the cached descriptor of a file stands.
    off_t PositionOf(const std::string& path) {
        LogArgu argu{"Test.Position"};
        CRuntimeParam silent("", 0);
        return lseek(utilities.GetCachedFileHandle(&silent, &argu, path.c_str(), false), 0,
                     SEEK_CUR);
    }

    const faults::Guard guard;
    CRedirectedFile file{&utilities};
};

// With the test's folder exported, so that the listings and contents can be written there.
class ExportedRedirectedFileTest : public RedirectedFileTest {
protected:
    void SetUp() override { ExportFolder(); }
};

std::string Count(std::size_t n) { return std::to_string(n); }

}  // namespace

// ------------------------------------------------------------------------------------------------
// Records
// ------------------------------------------------------------------------------------------------

TEST(SegmentRecordTest, IsTwentyEightLittleEndianBytesWithoutPadding) {
    const Segment segment{0x01020304, 0x1112131415161718, 0x2122232425262728, 0x3132333435363738};
    const std::array<unsigned char, SegmentRecord::SIZE> expected{
        0x04, 0x03, 0x02, 0x01,                          // 0: iSource
        0x18, 0x17, 0x16, 0x15, 0x14, 0x13, 0x12, 0x11,  // 4: iFileOffset
        0x28, 0x27, 0x26, 0x25, 0x24, 0x23, 0x22, 0x21,  // 12: iOffset
        0x38, 0x37, 0x36, 0x35, 0x34, 0x33, 0x32, 0x31,  // 20: iLength
    };
    std::array<unsigned char, SegmentRecord::SIZE> encoded{};
    SegmentRecord::Encode(segment, encoded.data());
    EXPECT_EQ(expected, encoded);
    const Segment decoded = SegmentRecord::Decode(encoded.data());
    EXPECT_EQ(segment.iSource, decoded.iSource);
    EXPECT_EQ(segment.iFileOffset, decoded.iFileOffset);
    EXPECT_EQ(segment.iOffset, decoded.iOffset);
    EXPECT_EQ(segment.iLength, decoded.iLength);
}

TEST(SegmentRecordTest, FieldsAreSigned) {
    std::array<unsigned char, SegmentRecord::SIZE> encoded{};
    SegmentRecord::Encode({-1, -2, -3, kMin}, encoded.data());
    const std::array<unsigned char, SegmentRecord::SIZE> expected{
        0xFF, 0xFF, 0xFF, 0xFF,                          // 0: iSource
        0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,  // 4: iFileOffset
        0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,  // 12: iOffset
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80,  // 20: iLength
    };
    EXPECT_EQ(expected, encoded);
    const Segment decoded = SegmentRecord::Decode(encoded.data());
    EXPECT_EQ(-1, decoded.iSource);
    EXPECT_EQ(-2, decoded.iFileOffset);
    EXPECT_EQ(-3, decoded.iOffset);
    EXPECT_EQ(kMin, decoded.iLength);
}

TEST_F(RedirectedFileTest, AnInfoFileHoldsTheRecordsAndNothingElse) {
    const std::string info = Make("disk.img");
    Open(100, info);
    ASSERT_TRUE(Add(dir / "a", 1000, 0, 10));
    ASSERT_TRUE(Add("", 0, 10, 90));
    const std::string expected(
        "\x00\x00\x00\x00"                   // 0: iSource, the first in the list
        "\xE8\x03\x00\x00\x00\x00\x00\x00"   // 4: iFileOffset 1000
        "\x00\x00\x00\x00\x00\x00\x00\x00"   // 12: iOffset 0
        "\x0A\x00\x00\x00\x00\x00\x00\x00"   // 20: iLength 10
        "\xFF\xFF\xFF\xFF"                   // 28: iSource, none
        "\x00\x00\x00\x00\x00\x00\x00\x00"   // 32: iFileOffset 0
        "\x0A\x00\x00\x00\x00\x00\x00\x00"   // 40: iOffset 10
        "\x5A\x00\x00\x00\x00\x00\x00\x00",  // 48: iLength 90
        56);
    EXPECT_EQ(expected, ReadFile(info));
}

// ------------------------------------------------------------------------------------------------
// Opening and closing
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, OpenSetsTheSize) {
    EXPECT_EQ(0, file.GetFileSize());
    Open(12345);
    EXPECT_EQ(12345, file.GetFileSize());
}

TEST_F(RedirectedFileTest, OpenIsLoggedWithRedirectFileLogging) {
    Log(LOG_CONTROL_REDIRECT_FILE);
    Open(100, dir / "info");
    EXPECT_THAT(utilities.Infos(),
                ElementsAre("[RedirectedFile.Open] id=7, size=100 (path=" + (dir / "info") + ")"));
}

TEST_F(RedirectedFileTest, OpenWithoutAnInfoFileLogsAnEmptyPathAndAnUnsignedSize) {
    Log(LOG_CONTROL_REDIRECT_FILE);
    Open(-1);
    EXPECT_THAT(utilities.Infos(),
                ElementsAre("[RedirectedFile.Open] id=7, size=18446744073709551615 (path=)"));
}

TEST_F(RedirectedFileTest, NothingIsLoggedWithoutItsCategory) {
    const std::string source = Make("a", PatternData(100));
    Log(0x3FF & ~(LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS));
    Open(100);
    Add(source, 0, 0, 50);
    Read(0, 100);
    for (const std::string& line : utilities.Texts()) {
        EXPECT_FALSE(line.starts_with("[RedirectedFile.")) << line;
    }
}

TEST_F(RedirectedFileTest, TheBlockSizeIsGivenInMebibytes) {
    const std::string info = Make("info");
    Open(kGiB, info, 3);
    ASSERT_TRUE(Add("", 0, 0, 7 * kMiB));
    EXPECT_THAT(Records(info),
                ElementsAre("-1 0 0 " + Count(3 * kMiB),
                            "-1 " + Count(3 * kMiB) + " " + Count(3 * kMiB) + " " + Count(3 * kMiB),
                            "-1 " + Count(6 * kMiB) + " " + Count(6 * kMiB) + " " + Count(kMiB)));
}

TEST_F(RedirectedFileTest, AZeroOrNegativeBlockSizeKeepsTheDefault) {
    for (const int blockMB : {0, -1, std::numeric_limits<int>::min()}) {
        const std::string info = Make("info" + std::to_string(blockMB));
        CRedirectedFile other(&utilities);
        other.Open(&param, kGiB, 1, info.c_str(), blockMB, blockMB);
        ASSERT_TRUE(other.AddSegment(&param, nullptr, 0, 0, 33 * kMiB, nullptr));
        EXPECT_THAT(Records(info), ElementsAre("-1 0 0 33554432", "-1 33554432 33554432 1048576"));
    }
}

TEST_F(RedirectedFileTest, TheLargestBlockSizeDoesNotOverflow) {
    const std::string info = Make("info");
    Open(kMax, info, std::numeric_limits<int>::max(), std::numeric_limits<int>::max());
    ASSERT_TRUE(Add("", 0, 0, 5 * kGiB));
    EXPECT_THAT(Records(info), ElementsAre("-1 0 0 5368709120"));
}

TEST_F(RedirectedFileTest, CloseGivesBackTheDescriptorsOfInfoFileAndSources) {
    const std::string info = Make("info");
    const std::string a = Make("a", "aaaa");
    const std::string b = Make("b", "bbbb");
    Open(8, info);
    Add(a, 0, 0, 4);
    Add(b, 0, 4, 4);
    EXPECT_EQ("aaaabbbb", Content(0, 8));
    for (const std::string& path : {info, a, b}) {
        ASSERT_EQ(1, OpenCount(path)) << path;
    }
    Log(LOG_CONTROL_FILE_ACCESS);
    file.Close(&param);
    for (const std::string& path : {info, a, b}) {
        EXPECT_EQ(0, OpenCount(path)) << path;
    }
    EXPECT_THAT(utilities.Infos(),
                ElementsAre("[RedirectedFile.Close] OS close file \"" + info + "\"",
                            "[RedirectedFile.Close] OS close file \"" + a + "\"",
                            "[RedirectedFile.Close] OS close file \"" + b + "\""));
    EXPECT_TRUE(file.IsClosed());
}

TEST_F(RedirectedFileTest, CloseWorksOnce) {
    Open(8);
    file.Close(&param);
    const std::string a = Make("a", "aaaa");
    ASSERT_TRUE(Add(a, 0, 0, 4));
    file.Close(&param);
    EXPECT_EQ("aaaa", Content(0, 4)) << "a second close must not forget anything";
}

TEST_F(RedirectedFileTest, AfterCloseEverythingReadsAsZeros) {
    const std::string a = Make("a", "aaaa");
    for (const std::string& info : {std::string(), Make("info")}) {
        CRedirectedFile other(&utilities);
        other.Open(&param, 8, 1, info.c_str(), 0, 0);
        ASSERT_TRUE(other.AddSegment(&param, a.c_str(), 0, 0, 4, nullptr));
        other.Close(&param);
        EXPECT_EQ(8, other.GetFileSize());
        const Got got = GuardedRead(
            8, [&](void* buffer, bool* eof) { return other.Read(&param, 0, buffer, 8, eof); });
        EXPECT_EQ((Got{8, true, Zeros(8)}), got);
    }
}

TEST_F(RedirectedFileTest, TheDestructorCloses) {
    const std::string a = Make("a", "aaaa");
    {
        CRedirectedFile other(&utilities);
        other.Open(&param, 4, 1, nullptr, 0, 0);
        other.AddSegment(&param, a.c_str(), 0, 0, 4, nullptr);
        char buffer[4];
        bool eof = false;
        ASSERT_EQ(4, other.Read(&param, 0, buffer, 4, &eof));
        ASSERT_EQ(1, OpenCount(a));
    }
    EXPECT_EQ(0, OpenCount(a));
}

// ------------------------------------------------------------------------------------------------
// Adding segments: sources, clipping, log lines
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, LogLinesOfAddingPrintTheIdAndNotTheSourceIndex) {
    Open(1000);
    Log(LOG_CONTROL_REDIRECT_FILE);
    Add(dir / "a", 5, 0, 10);
    Add(dir / "b", 6, 10, 2000);
    Add("", 7, 20, 30);
    EXPECT_THAT(
        utilities.Infos(),
        ElementsAre("[RedirectedFile.AddSegment] Reference src (7): " + (dir / "a"),
                    "[RedirectedFile.AddSegment] Segment id=7, fox=5, ox=0, len=10",
                    "[RedirectedFile.AddSegment] Reference src (7): " + (dir / "b"),
                    "[RedirectedFile.AddSegment] Segment id=7, fox=6, ox=10, len=990",  // clipped
                    "[RedirectedFile.AddSegment] Reference src (7): Null",
                    "[RedirectedFile.AddSegment] Segment id=7, fox=7, ox=20, len=30"));
}

TEST_F(RedirectedFileTest, AnEmptySourcePathIsNoSource) {
    Open(10);
    Log(LOG_CONTROL_REDIRECT_FILE);
    ASSERT_TRUE(file.AddSegment(&param, "", 0, 0, 10, nullptr));
    EXPECT_TRUE(utilities.Has("[RedirectedFile.AddSegment] Reference src (7): Null"));
    EXPECT_EQ((Got{10, true, Zeros(10)}), Read(0, 10));
}

TEST_F(RedirectedFileTest, TheLineOfASplitSegmentTellsTheWholeOfIt) {
    const std::string info = Make("info");
    Open(kGiB, info);
    Log(LOG_CONTROL_REDIRECT_FILE);
    ASSERT_TRUE(Add("", 0, 0, 100 * kMiB));
    EXPECT_TRUE(
        utilities.Has("[RedirectedFile.AddSegment] Segment id=7, fox=0, ox=0, len=104857600"));
    EXPECT_EQ(2u, utilities.Infos().size());
}

TEST_F(RedirectedFileTest, TheSegmentLinePrintsUnsignedSixtyFourBitDecimals) {
    Open(kMax);
    Log(LOG_CONTROL_REDIRECT_FILE);
    ASSERT_TRUE(Add("", -1, 1, kMax - 2));
    EXPECT_TRUE(
        utilities.Has("[RedirectedFile.AddSegment] Segment id=7, "
                      "fox=18446744073709551615, ox=1, len=9223372036854775805"));
}

TEST_F(RedirectedFileTest, TheTextOfTheSegmentLineStandsInTheSource) {
    const std::string source =
        ReadFile(support::EnvironmentOr("VELOCAST_SOURCE_DIR", "..") + "/src/RedirectedFile.cpp");
    EXPECT_NE(std::string::npos,
              source.find("\"[%s] Segment id=%d, fox=%I64u, ox=%I64u, len=%I64u\""));
}

TEST_F(RedirectedFileTest, EqualSourcePathsShareOneIndexInOrderOfFirstUse) {
    const std::string info = Make("info");
    Open(100, info);
    Add(dir / "a", 0, 0, 1);
    Add(dir / "b", 0, 1, 1);
    Add(dir / "a", 0, 2, 1);
    Add("", 0, 3, 1);
    Add(dir / "c", 0, 4, 1);
    EXPECT_THAT(Records(info), ElementsAre("0 0 0 1", "1 0 1 1", "0 0 2 1", "-1 0 3 1", "2 0 4 1"));
}

TEST_F(RedirectedFileTest, ARefusedSegmentStillRegistersItsSource) {
    const std::string info = Make("info");
    Open(100, info);
    Log(LOG_CONTROL_REDIRECT_FILE);
    EXPECT_FALSE(Add(dir / "refused", 0, 100, 1));
    EXPECT_THAT(utilities.Infos(),
                ElementsAre("[RedirectedFile.AddSegment] Reference src (7): " + (dir / "refused")));
    ASSERT_TRUE(Add(dir / "a", 0, 0, 1));
    EXPECT_THAT(Records(info), ElementsAre("1 0 0 1")) << "the first index is taken";
}

TEST_F(RedirectedFileTest, ASegmentAtOrBeyondTheSizeIsRefused) {
    Open(100);
    EXPECT_FALSE(Add("", 0, 100, 1));
    EXPECT_FALSE(Add("", 0, 101, 1));
    EXPECT_FALSE(Add("", 0, kMax, 1));
    EXPECT_TRUE(Add("", 0, 99, 1));
}

TEST_F(RedirectedFileTest, ASegmentPastTheSizeIsClipped) {
    const std::string info = Make("info");
    Open(100, info);
    ASSERT_TRUE(Add("", 0, 90, 9));    // ends before
    ASSERT_TRUE(Add("", 0, 90, 10));   // ends there
    ASSERT_TRUE(Add("", 0, 90, 11));   // ends behind
    ASSERT_TRUE(Add("", 0, 1, kMax));  // ends beyond 64 bits
    EXPECT_THAT(Records(info), ElementsAre("-1 0 90 9", "-1 0 90 10", "-1 0 90 10", "-1 0 1 99"));
}

// ------------------------------------------------------------------------------------------------
// Adding segments: records of an info file
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, HundredMebibytesBecomeThreeBlocksAndARest) {
    const std::string info = Make("info");
    Open(kGiB, info);
    ASSERT_TRUE(Add("", 0, 0, 100 * kMiB));
    EXPECT_THAT(Records(info),
                ElementsAre("-1 0 0 33554432", "-1 33554432 33554432 33554432",
                            "-1 67108864 67108864 33554432", "-1 100663296 100663296 4194304"));
}

TEST_F(RedirectedFileTest, ASegmentAcrossABlockBoundaryBeginsWithAHeadPiece) {
    const std::string info = Make("info");
    Open(kGiB, info);
    ASSERT_TRUE(Add(dir / "a", 5, 30 * kMiB, 10 * kMiB));
    EXPECT_THAT(Records(info), ElementsAre("0 5 31457280 2097152", "0 2097157 33554432 8388608"));
}

TEST_F(RedirectedFileTest, ASegmentInsideOneBlockIsOneRecord) {
    const std::string info = Make("info");
    Open(kGiB, info);
    ASSERT_TRUE(Add("", 0, 30 * kMiB, 2 * kMiB));  // up to the boundary
    ASSERT_TRUE(Add("", 0, 32 * kMiB, 32 * kMiB));
    EXPECT_THAT(Records(info), ElementsAre("-1 0 31457280 2097152", "-1 0 33554432 33554432"));
}

TEST_F(RedirectedFileTest, RecordsFollowInTheOrderOfAdding) {
    const std::string info = Make("info");
    Open(kGiB, info);
    ASSERT_TRUE(Add("", 3, 300, 1));
    ASSERT_TRUE(Add("", 1, 100, 1));
    ASSERT_TRUE(Add("", 2, 200, 1));
    EXPECT_THAT(Records(info), ElementsAre("-1 3 300 1", "-1 1 100 1", "-1 2 200 1"));
}

TEST_F(RedirectedFileTest, AZeroOrNegativeLengthLeavesNoRecord) {
    const std::string info = Make("info");
    Open(kGiB, info);
    EXPECT_TRUE(Add("", 0, 40 * kMiB, 0));
    EXPECT_TRUE(Add("", 0, 40 * kMiB + 1, 0));
    EXPECT_TRUE(Add("", 0, 40 * kMiB + 1, -5));
    EXPECT_TRUE(Add("", 0, 0, kMin));
    EXPECT_THAT(Records(info), IsEmpty());
}

TEST_F(RedirectedFileTest, ManyPiecesOfOneSegmentAreAllWritten) {
    const std::string info = Make("info");
    Open(2000 * kMiB, info, 1);
    ASSERT_TRUE(Add("", 0, 1, 2000 * kMiB));
    const std::vector<Segment> records = RecordsOf(info);
    ASSERT_EQ(2000u, records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        const auto start = i == 0 ? 1 : static_cast<std::int64_t>(i) * kMiB;
        ASSERT_EQ(start, records[i].iOffset);
        ASSERT_EQ(start - 1, records[i].iFileOffset);
        ASSERT_EQ(static_cast<std::int64_t>(i + 1) * kMiB - start, records[i].iLength);
    }
}

TEST_F(RedirectedFileTest, AnInfoFileOutsideEveryExportIsWrittenAllTheSame) {
    const std::string info = Make("info");
    Open(100, info);
    Log(LOG_CONTROL_FILE_ACCESS);
    ASSERT_TRUE(Add("", 0, 0, 10));
    EXPECT_TRUE(utilities.Has("[RedirectedFile.AddSegment] open read/write mode " + info));
    EXPECT_EQ(28, SizeOf(info));
}

TEST_F(RedirectedFileTest, AMissingInfoFileIsNotCreatedAndSegmentsStayInMemory) {
    const std::string a = Make("a", "aaaa");
    Open(100, dir / "missing");
    ASSERT_TRUE(Add(a, 0, 0, 4));
    EXPECT_FALSE(FileExists(dir / "missing"));
    EXPECT_EQ("aaaa", Content(0, 4));
}

TEST_F(RedirectedFileTest, ASegmentWhoseRecordsCannotBeWrittenLeavesNoTrace) {
    ExportFolder();
    const std::string info = Make("info");
    const std::string a = Make("a", PatternData(100));
    Open(4 * kGiB, info);
    ASSERT_TRUE(Add(a, 0, 0, 10));
    faults::Fail(faults::Call::Write, ENOSPC);
    EXPECT_FALSE(Add("", 0, kGiB, 10)) << "would have made a checkpoint";
    EXPECT_EQ(28, SizeOf(info));
    ASSERT_TRUE(Add(a, 10, 10, 10));
    EXPECT_EQ(56, SizeOf(info));
    EXPECT_EQ(PatternData(100).substr(0, 20), Content(0, 20));
    EXPECT_THAT(Info(), ElementsAre("Segment path=" + a + ", fox=0, ox=0, len=10",
                                    "Segment path=" + a + ", fox=10, ox=10, len=10"));
}

TEST_F(RedirectedFileTest, ASegmentIsRefusedWhenTheEndOfTheInfoFileCannotBeFound) {
    const std::string info = Make("info");
    Open(100, info);
    ASSERT_TRUE(Add("", 0, 0, 10));
    faults::Fail(faults::Call::Lseek, EIO);
    EXPECT_FALSE(Add("", 0, 10, 10));
    EXPECT_EQ(28, SizeOf(info));
}

// ------------------------------------------------------------------------------------------------
// Checkpoints
// ------------------------------------------------------------------------------------------------

TEST_F(ExportedRedirectedFileTest, ASegmentAtOneGibibyteMakesACheckpointAtItsRecord) {
    const std::string info = Make("info");
    Open(4 * kGiB, info);
    ASSERT_TRUE(Add("", 0, 0, 10));
    ASSERT_TRUE(Add("", 0, 10, 10));
    ASSERT_TRUE(Add("", 0, kGiB, 10));
    EXPECT_THAT(Info(), ElementsAre("--> CheckPoint Segment fox=56, ox=1073741824",
                                    "-------------------",  // 19 dashes
                                    "Segment path=Null, fox=0, ox=0, len=10",
                                    "Segment path=Null, fox=0, ox=10, len=10",
                                    "Segment path=Null, fox=0, ox=1073741824, len=10"));
}

TEST_F(ExportedRedirectedFileTest, EveryWholeGibibyteInsideASegmentMakesACheckpoint) {
    const std::string info = Make("info");
    Open(4 * kGiB, info);
    ASSERT_TRUE(Add("", 0, 5, 4 * kGiB));
    const Lines lines = Info();
    ASSERT_GE(lines.size(), 4u);
    // 32 records of 28 bytes stand for each GiB.
    EXPECT_EQ("--> CheckPoint Segment fox=896, ox=1073741824", lines[0]);
    EXPECT_EQ("--> CheckPoint Segment fox=1792, ox=2147483648", lines[1]);
    EXPECT_EQ("--> CheckPoint Segment fox=2688, ox=3221225472", lines[2]);
    EXPECT_EQ(std::string(19, '-'), lines[3]);
}

TEST_F(ExportedRedirectedFileTest, OnlyExactPositiveMultiplesMakeACheckpoint) {
    const std::string info = Make("info");
    Open(4 * kGiB, info, 1, 2);
    ASSERT_TRUE(Add("", 0, 0, 10));             // not positive
    ASSERT_TRUE(Add("", 0, 2 * kMiB + 1, 10));  // beside one
    ASSERT_TRUE(Add("", 0, 2 * kMiB - 1, 1));
    ASSERT_TRUE(Add("", 0, 3 * kMiB, 10));   // of the block, not of the interval
    ASSERT_TRUE(Add("", 0, -2 * kMiB, 10));  // negative
    EXPECT_EQ("Segment path=Null, fox=0, ox=0, len=10", Info().front());
    ASSERT_TRUE(Add("", 0, 4 * kMiB, 10));
    EXPECT_EQ("--> CheckPoint Segment fox=140, ox=4194304", Info().front());
}

TEST_F(ExportedRedirectedFileTest, CheckpointsAreListedInTheOrderOfTheirCreation) {
    const std::string info = Make("info");
    Open(4 * kGiB, info, 1, 1);
    ASSERT_TRUE(Add("", 0, 3 * kMiB, 1));
    ASSERT_TRUE(Add("", 0, kMiB, 1));
    ASSERT_TRUE(Add("", 0, 3 * kMiB, 1));
    EXPECT_THAT(Info(),
                ElementsAre("--> CheckPoint Segment fox=0, ox=3145728",
                            "--> CheckPoint Segment fox=28, ox=1048576",
                            "--> CheckPoint Segment fox=56, ox=3145728", "-------------------"));
}

TEST_F(ExportedRedirectedFileTest, SegmentsInMemoryMakeNoCheckpoint) {
    Open(4 * kGiB);
    ASSERT_TRUE(Add("", 0, kGiB, 10));
    EXPECT_THAT(Info(), IsEmpty());
}

// ------------------------------------------------------------------------------------------------
// Finding segments
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, InMemoryTheFirstSegmentAddedWins) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string b = Make("b", std::string(100, 'b'));
    Open(100);
    ASSERT_TRUE(Add(a, 0, 40, 20));
    ASSERT_TRUE(Add(b, 0, 0, 100));
    EXPECT_EQ("b", Content(39, 1));
    EXPECT_EQ("a", Content(40, 1));
    EXPECT_EQ("a", Content(59, 1));
    EXPECT_EQ("b", Content(60, 1));
}

TEST_F(RedirectedFileTest, InMemoryASegmentIsNotSplit) {
    const std::string a = MakeSparse("a", 100 * kMiB);
    Open(kGiB);
    ASSERT_TRUE(Add(a, 0, 0, 100 * kMiB));
    Log(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(static_cast<int>(40 * kMiB), Read(kMiB, 40 * kMiB).count);
    EXPECT_TRUE(utilities.Has("[RedirectedFile.Read] Segment (7) path:" + a +
                              ", fox:1048576, len:41943040 (seek:1048576)"));
}

TEST_F(RedirectedFileTest, InAnInfoFileTheFirstRecordFromTheEstimateWins) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string b = Make("b", std::string(100, 'b'));
    const std::string info = Make("info");
    Open(10 * kMiB, info, 1);
    ASSERT_TRUE(Add(a, 0, kMiB, 100));      // record 0: before the estimate of block 1
    ASSERT_TRUE(Add(b, 0, kMiB + 50, 10));  // record 1: the estimate
    EXPECT_EQ("b", Content(kMiB + 50, 1));
    // Block 0 begins with record 0, which does not cover; the second record does not either.
    EXPECT_EQ(Zeros(1), Content(kMiB, 1)) << "lies before the estimate";
}

TEST_F(RedirectedFileTest, ARecordWithALargerOffsetIsSkippedAndIsNoEnd) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string info = Make("info");
    Open(10 * kMiB, info, 1);
    ASSERT_TRUE(Add("", 0, 5 * kMiB, 100));
    ASSERT_TRUE(Add("", 0, 500, 100));
    ASSERT_TRUE(Add(a, 0, 0, 100));
    EXPECT_EQ("aaa", Content(0, 3));
}

TEST_F(RedirectedFileTest, ARangeWhoseRecordLiesBeforeTheEstimateReadsAsZeros) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string info = Make("info");
    Open(10 * kMiB, info, 1);
    ASSERT_TRUE(Add(a, 0, 5 * kMiB, 100));  // blocks 0 to 4 are uncovered
    EXPECT_EQ(Zeros(100), Content(5 * kMiB, 100));
}

TEST_F(RedirectedFileTest, ACheckpointFindsTheRecordBehindBlocksOfManyRecords) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string info = Make("info");
    Open(10 * kMiB, info, 1, 4);
    ASSERT_TRUE(Add(a, 0, 4 * kMiB, 100));      // checkpoint at record 0
    ASSERT_TRUE(Add(a, 0, 5 * kMiB + 5, 100));  // one record for each block since
    EXPECT_EQ("aaa", Content(4 * kMiB, 3)) << "without the checkpoint: from record 4 on";
    EXPECT_EQ("aaa", Content(5 * kMiB + 5, 3));
}

TEST_F(RedirectedFileTest, TheLastCheckpointMadeAtOrBeforeTheOffsetCounts) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string b = Make("b", std::string(100, 'b'));
    const std::string info = Make("info");
    Open(20 * kMiB, info, 1, 2);
    ASSERT_TRUE(Add(a, 0, 4 * kMiB, 100));  // checkpoint at record 0
    ASSERT_TRUE(Add(b, 0, 4 * kMiB, 100));  // checkpoint at record 1: the later one
    EXPECT_EQ("b", Content(4 * kMiB, 1));
    ASSERT_TRUE(Add(a, 0, 2 * kMiB, 100));  // checkpoint at record 2, of a smaller offset
    EXPECT_EQ(Zeros(1), Content(4 * kMiB, 1)) << "from record 4 on, where there is none";
    EXPECT_EQ("a", Content(2 * kMiB, 1));
}

TEST_F(RedirectedFileTest, BelowTheCheckpointIntervalTheEstimateCountsFromTheStart) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string info = Make("info");
    Open(20 * kMiB, info, 1, 4);
    ASSERT_TRUE(Add(a, 0, 0, 100));
    ASSERT_TRUE(Add("", 0, 4 * kMiB, 100));
    EXPECT_EQ("aaa", Content(0, 3));
}

TEST_F(RedirectedFileTest, AscendingSegmentsThatCoverEveryBlockAreAllFound) {
    const std::string data = PatternData(4 * kMiB);
    const std::string a = Make("a", data);
    const std::string info = Make("info");
    Open(4 * kMiB, info, 1, 2);
    for (std::int64_t offset = 0; offset < 4 * kMiB; offset += 10'000) {
        ASSERT_TRUE(Add(a, offset, offset, 10'000));
    }
    EXPECT_TRUE(data == Content(0, 4 * kMiB));
    for (std::int64_t offset = 1; offset < 4 * kMiB; offset += 77'777) {
        ASSERT_EQ(data.substr(static_cast<std::size_t>(offset), 100),
                  Content(static_cast<std::uint64_t>(offset), 100));
    }
}

TEST_F(RedirectedFileTest, ARecordBeyondTheEndOfTheListHasNoSource) {
    const std::string info = Make("info");
    Open(100, info);
    ASSERT_TRUE(Add(dir / "a", 0, 0, 10));
    // Somebody overwrites the index in the record.
    support::WriteFile(info, std::string("\x05\x00\x00\x00", 4) + ReadFile(info).substr(4));
    Log(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(Zeros(10), Content(0, 10));
    EXPECT_TRUE(
        utilities.Has("[RedirectedFile.Read] Segment (7) path:Null, fox:0, len:10 (seek:0)"));
}

TEST_F(RedirectedFileTest, SegmentsAddedAfterAReadAreSeenByTheNext) {
    const std::string a = Make("a", std::string(100, 'a'));
    for (const std::string& info : {std::string(), Make("info")}) {
        CRedirectedFile other(&utilities);
        other.Open(&param, 100, 1, info.c_str(), 0, 0);
        const auto read = [&](std::uint64_t seek) {
            return GuardedRead(10,
                               [&](void* buffer, bool* eof) {
                                   return other.Read(&param, seek, buffer, 10, eof);
                               })
                .data;
        };
        EXPECT_EQ(Zeros(10), read(0));
        ASSERT_TRUE(other.AddSegment(&param, a.c_str(), 0, 0, 10, nullptr));
        EXPECT_EQ(std::string(10, 'a'), read(0));
        EXPECT_EQ(Zeros(10), read(10));
        ASSERT_TRUE(other.AddSegment(&param, a.c_str(), 0, 10, 10, nullptr));
        EXPECT_EQ(std::string(10, 'a'), read(10));
    }
}

// ------------------------------------------------------------------------------------------------
// Reading
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, AReadGivesTheBytesOfTheSource) {
    const std::string data = PatternData(1000);
    const std::string a = Make("a", data);
    Open(100);
    ASSERT_TRUE(Add(a, 500, 0, 100));
    EXPECT_EQ((Got{30, false, data.substr(510, 30)}), Read(10, 30));
    EXPECT_EQ((Got{100, true, data.substr(500, 100)}), Read(0, 100));
}

TEST_F(RedirectedFileTest, AReadAcrossManySegmentsReturnsThemJoined) {
    const std::string data = PatternData(10'000);
    const std::string a = Make("a", data);
    for (const std::string& info : {std::string(), Make("info")}) {
        CRedirectedFile other(&utilities);
        other.Open(&param, 10'000, 1, info.c_str(), 0, 0);
        std::string expected;
        for (std::int64_t i = 0; i < 1000; ++i) {
            ASSERT_TRUE(other.AddSegment(&param, a.c_str(), (999 - i) * 10, i * 10, 10, nullptr));
            expected += data.substr(static_cast<std::size_t>(999 - i) * 10, 10);
        }
        const Got got = GuardedRead(10'000, [&](void* buffer, bool* eof) {
            return other.Read(&param, 0, buffer, 10'000, eof);
        });
        EXPECT_EQ((Got{10'000, true, expected}), got);
    }
}

TEST_F(RedirectedFileTest, TheGapBetweenTwoSegmentsIsOverwrittenByTheSecond) {
    const std::string data = PatternData(30);
    const std::string a = Make("a", data);
    for (const std::string& info : {std::string(), Make("info")}) {
        CRedirectedFile other(&utilities);
        other.Open(&param, 30, 1, info.c_str(), 0, 0);
        ASSERT_TRUE(other.AddSegment(&param, a.c_str(), 0, 0, 10, nullptr));
        ASSERT_TRUE(other.AddSegment(&param, a.c_str(), 20, 20, 10, nullptr));
        const auto read = [&](std::uint64_t seek) {
            return GuardedRead(20, [&](void* buffer, bool* eof) {
                return other.Read(&param, seek, buffer, 20, eof);
            });
        };
        EXPECT_EQ((Got{15, false, data.substr(5, 5) + data.substr(20, 10)}), read(5));
        EXPECT_EQ((Got{15, true, Zeros(15)}), read(15)) << "a start in the gap: only the tail";
    }
}

TEST_F(RedirectedFileTest, AGapIsLoggedAndClippedToTheRoomLeft) {
    const std::string a = Make("a", std::string(2000, 'a'));
    Open(2000);
    ASSERT_TRUE(Add(a, 0, 0, 10));
    ASSERT_TRUE(Add(a, 0, 1010, 10));
    Log(LOG_CONTROL_FILE_ACCESS);
    // The guards of the read notice a fill of all 1,000 bytes.
    EXPECT_EQ((Got{20, false, std::string(20, 'a')}), Read(0, 20));
    EXPECT_TRUE(utilities.Has("[RedirectedFile.Read] Fill missing segment len:1000"));
}

TEST_F(RedirectedFileTest, AReadLeavesEachSourceBehindWhatItReadOfIt) {
    const std::string a = Make("a", PatternData(1000));
    const std::string b = Make("b", PatternData(1000));
    Open(1000);
    ASSERT_TRUE(Add(a, 100, 0, 100));
    ASSERT_TRUE(Add(b, 50, 100, 100));
    ASSERT_TRUE(Add(a, 600, 200, 100));
    ASSERT_TRUE(Add("", 0, 300, 100));
    ASSERT_TRUE(Add(b, 950, 400, 100));  // ends early, what follows moves up
    ASSERT_TRUE(Add(a, 0, 500, 50));
    ASSERT_TRUE(Add(a, 2000, 550, 50));  // behind its end
    for (const int logControl : {0, static_cast<int>(LOG_CONTROL_FILE_ACCESS)}) {
        Log(logControl);
        ASSERT_EQ(350, Read(0, 350).count);
        EXPECT_EQ(700, PositionOf(a));
        EXPECT_EQ(150, PositionOf(b));
        ASSERT_EQ(10, Read(20, 10).count);
        EXPECT_EQ(130, PositionOf(a));
        EXPECT_EQ(150, PositionOf(b));
        ASSERT_EQ(100, Read(400, 100).count);
        EXPECT_EQ(1000, PositionOf(b));
        EXPECT_EQ(50, PositionOf(a));
        ASSERT_EQ(100, Read(500, 100).count);
        EXPECT_EQ(2000, PositionOf(a)) << "where the part that gave nothing was to be read";
    }
}

TEST_F(RedirectedFileTest, ARefusedPlaceLeavesTheSourceWhereTheReadBeforeLeftIt) {
    const std::string a = Make("a", PatternData(1000));
    Open(1000);
    ASSERT_TRUE(Add(a, 50, 0, 10));
    ASSERT_TRUE(Add(a, -100, 10, 10));  // no place of a file
    ASSERT_TRUE(Add(a, 70, 20, 10));
    ASSERT_TRUE(Add(a, -1, 30, 10));
    for (const int bits : {0, static_cast<int>(LOG_CONTROL_FILE_ACCESS)}) {
        Log(bits | LOG_CONTROL_ERROR);
        EXPECT_EQ(10, Read(0, 20).count);
        EXPECT_EQ(60, PositionOf(a));
        EXPECT_EQ(10, Read(20, 20).count);
        EXPECT_EQ(80, PositionOf(a));
        const Lines errors = utilities.Errors();
        ASSERT_EQ(2u, errors.size());
        for (const std::string& line : errors) {
            EXPECT_THAT(line, testing::MatchesRegex("\\[RedirectedFile.Read\\] OS seek file "
                                                    "\\([0-9]+\\). Error=Invalid argument.*"));
        }
    }
}

TEST_F(RedirectedFileTest, ADeviceIsPositionedForEveryRead) {
    // A terminal has no places: the first step fails, and nothing is read at a place.
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_NE(-1, master);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    ASSERT_EQ(6, write(master, "typed\n", 6));
    Open(100);
    ASSERT_TRUE(Add(ptsname(master), 0, 0, 100));
    Log(LOG_CONTROL_ERROR);
    const int calls = faults::Count(faults::Call::Pread);
    EXPECT_EQ(0, Read(0, 6).count);
    EXPECT_THAT(utilities.Errors(), ElementsAre(testing::HasSubstr("OS seek file (")));
    EXPECT_EQ(calls, faults::Count(faults::Call::Pread));
    close(master);
}

TEST_F(RedirectedFileTest, ASourceGivesItsDescriptorUpForTheNextOne) {
    const std::string a = Make("a", std::string(10, 'a'));
    const std::string b = Make("b", std::string(10, 'b'));
    Open(20);
    ASSERT_TRUE(Add(a, 0, 0, 10));
    ASSERT_TRUE(Add(b, 0, 10, 10));
    // Read once before: what a sanitizer checks for the first time needs descriptors of its own.
    const std::string both = std::string(10, 'a') + std::string(10, 'b');
    ASSERT_EQ(both, Content(0, 20));
    LogArgu argu{"Test.Close"};
    utilities.CloseCachedFileHandle(&param, &argu, a.c_str());
    utilities.CloseCachedFileHandle(&param, &argu, b.c_str());
    std::vector<int> fillers;
    for (int fd = dup(STDIN_FILENO); fd != -1; fd = dup(STDIN_FILENO)) {
        fillers.push_back(fd);
    }
    ASSERT_EQ(EMFILE, errno);
    close(fillers.back());  // one is left
    fillers.pop_back();
    const Got got = Read(0, 20);
    for (const int fd : fillers) {
        close(fd);
    }
    EXPECT_EQ(both, got.data);
}

TEST_F(RedirectedFileTest, ASourceThatCannotBeReadIsReportedWithoutTheLinesOfFileAccess) {
    std::filesystem::create_directory(dir / "folder");
    Open(100);
    ASSERT_TRUE(Add(dir / "folder", 0, 0, 100));
    Log(LOG_CONTROL_ERROR);
    EXPECT_EQ(0, Read(0, 100).count);
    EXPECT_THAT(
        utilities.Errors(),
        ElementsAre(testing::MatchesRegex(
            "\\[RedirectedFile.Read\\] OS read file \\([0-9]+\\). Error=Is a directory.*")));
}

TEST_F(RedirectedFileTest, ThePositionAdvancesByTheWholeGap) {
    const std::string data = PatternData(2000);
    const std::string a = Make("a", data);
    Open(2000);
    ASSERT_TRUE(Add(a, 0, 0, 10));
    ASSERT_TRUE(Add(a, 100, 1010, 90));
    EXPECT_EQ(data.substr(0, 10) + data.substr(100, 10), Content(0, 20));
}

TEST_F(RedirectedFileTest, ASegmentThatEndsAtOrBeforeThePositionAddsNothing) {
    const std::string data = PatternData(100);
    const std::string a = Make("a", data);
    Open(100);
    ASSERT_TRUE(Add(a, 20, 20, 30));
    ASSERT_TRUE(Add("", 0, 0, 50));  // ends where the first does
    ASSERT_TRUE(Add("", 0, 30, 5));  // ends before
    ASSERT_TRUE(Add("", 0, 10, 0));
    ASSERT_TRUE(Add("", 0, 10, -20));
    ASSERT_TRUE(Add(a, 50, 50, 50));
    Log(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ((Got{80, true, data.substr(20, 80)}), Read(20, 80));
    EXPECT_EQ(
        0u, utilities.Count("[RedirectedFile.Read] Segment (7) path:Null, fox:20, len:0 (seek:0)"));
}

TEST_F(RedirectedFileTest, ASegmentThatBeginsBeforeThePositionGoesOnInItsMiddle) {
    const std::string data = PatternData(100);
    const std::string a = Make("a", data);
    Open(100);
    ASSERT_TRUE(Add(a, 0, 20, 30));
    ASSERT_TRUE(Add(a, 0, 0, 60));
    EXPECT_EQ(data.substr(0, 30) + data.substr(50, 10), Content(20, 40));
}

TEST_F(RedirectedFileTest, TheLineOfASegmentTellsTheSeekOfTheReadAndThePlaceInTheSource) {
    const std::string a = Make("a", PatternData(1000));
    Open(1000);
    ASSERT_TRUE(Add(a, 500, 0, 100));
    ASSERT_TRUE(Add("", 3, 100, 900));
    Log(LOG_CONTROL_FILE_ACCESS);
    Read(40, 100);
    const Lines lines = utilities.Infos();
    EXPECT_EQ(1u, utilities.Count("[RedirectedFile.Read] Segment (7) path:" + a +
                                  ", fox:40, len:60 (seek:540)"));
    EXPECT_EQ(1u, utilities.Count(
                      "[RedirectedFile.Read] Segment (7) path:Null, fox:40, len:40 (seek:3)"));
    EXPECT_EQ("[RedirectedFile.Read] Eof=F, ox=140, size=1000", lines.back());
}

TEST_F(RedirectedFileTest, AReadUpToTheEndIsLoggedAsEndOfFile) {
    Open(100);
    Log(LOG_CONTROL_FILE_ACCESS);
    Read(40, 100);
    EXPECT_THAT(utilities.Infos(), ElementsAre("[RedirectedFile.Read] Eof=T, ox=100, size=100"));
}

TEST_F(RedirectedFileTest, WithoutSegmentsEverythingReadsAsZeros) {
    Open(100);
    EXPECT_EQ((Got{60, false, Zeros(60)}), Read(0, 60));
    EXPECT_EQ((Got{40, true, Zeros(40)}), Read(60, 60));
}

TEST_F(RedirectedFileTest, AnUncoveredRangeAtTheEndReadsAsZeros) {
    const std::string a = Make("a", std::string(100, 'a'));
    Open(100);
    ASSERT_TRUE(Add(a, 0, 0, 40));
    EXPECT_EQ((Got{20, false, Zeros(20)}), Read(60, 20));
    EXPECT_EQ((Got{100, true, std::string(40, 'a') + Zeros(60)}), Read(0, 100));
}

TEST_F(RedirectedFileTest, TheTailIsClippedToTheRoomLeft) {
    const std::string a = Make("a", std::string(100, 'a'));
    Open(1000);
    ASSERT_TRUE(Add(a, 0, 0, 40));
    EXPECT_EQ((Got{100, false, std::string(40, 'a') + Zeros(60)}), Read(0, 100));
}

TEST_F(RedirectedFileTest, TheTailLooksAtTheEndOfThePreviousRead) {
    Open(100);
    EXPECT_EQ((Got{10, true, Zeros(10)}), Read(90, 10));
    // The previous read has reached the end: no tail.  This read has not: there is one again.
    EXPECT_EQ((Got{0, false, ""}), Read(20, 10));
    EXPECT_EQ((Got{10, false, Zeros(10)}), Read(20, 10));
}

TEST_F(RedirectedFileTest, ATailOfFourGibibytesAndMoreReadsAsZeros) {
    const std::string a = Make("a", std::string(1000, 'a'));
    for (const std::int64_t beyond : {-1, 0, 1, 5, 1000}) {
        const std::int64_t size = 4 * kGiB + beyond;
        CRedirectedFile bare(&utilities);
        bare.Open(&param, size, 1, nullptr, 0, 0);
        CRedirectedFile covered(&utilities);
        covered.Open(&param, size + 1000, 2, nullptr, 0, 0);
        ASSERT_TRUE(covered.AddSegment(&param, a.c_str(), 0, 0, 1000, nullptr));
        const auto read = [&](CRedirectedFile& one, std::int64_t seek, unsigned int length) {
            return GuardedRead(length, [&](void* buffer, bool* eof) {
                return one.Read(&param, static_cast<std::uint64_t>(seek), buffer, length, eof);
            });
        };
        SCOPED_TRACE(size);
        EXPECT_EQ((Got{100, false, Zeros(100)}), read(bare, 0, 100));
        EXPECT_EQ((Got{100, false, Zeros(100)}), read(bare, 5, 100));
        EXPECT_EQ((Got{100, false, Zeros(100)}), read(bare, kGiB, 100));
        EXPECT_EQ((Got{100, false, Zeros(100)}), read(covered, 1000, 100));
        EXPECT_EQ((Got{1100, false, std::string(1000, 'a') + Zeros(100)}), read(covered, 0, 1100));
        EXPECT_EQ((Got{30, true, Zeros(30)}), read(bare, size - 30, 100));
        EXPECT_EQ((Got{30, true, Zeros(30)}), read(covered, size + 970, 100));
    }
}

TEST_F(RedirectedFileTest, AReadAtTheEndGivesNothingOnceTheEndWasReached) {
    Open(100);
    EXPECT_EQ((Got{-1, false, ""}), Read(100, 10)) << "the end was not reached yet";
    EXPECT_EQ((Got{-1, false, ""}), Read(5000, 10));
    Read(0, 100);
    EXPECT_EQ((Got{0, true, ""}), Read(100, 10));
    EXPECT_EQ((Got{0, true, ""}), Read(5000, 10));
    Read(0, 10);
    EXPECT_EQ((Got{-1, false, ""}), Read(100, 10));
}

TEST_F(RedirectedFileTest, AFailedReadDoesNotMoveTheEndOfTheLastRead) {
    Open(100);
    Read(0, 30);
    Log(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(-1, Read(100, 10).count);
    EXPECT_THAT(utilities.Infos(), ElementsAre("[RedirectedFile.Read] Eof=F, ox=30, size=100"));
}

TEST_F(RedirectedFileTest, AReadOfNoBytesGivesNone) {
    const std::string a = Make("a", std::string(100, 'a'));
    Open(100);
    ASSERT_TRUE(Add(a, 0, 0, 50));
    EXPECT_EQ((Got{0, false, ""}), Read(10, 0));
    EXPECT_EQ((Got{0, false, ""}), Read(70, 0));
}

TEST_F(RedirectedFileTest, ASegmentWithoutSourceReadsAsZeros) {
    const std::string a = Make("a", std::string(100, 'a'));
    Open(100);
    ASSERT_TRUE(Add("", 0, 0, 50));
    ASSERT_TRUE(Add(a, 0, 0, 100));
    EXPECT_EQ(Zeros(50) + std::string(50, 'a'), Content(0, 100));
}

// ------------------------------------------------------------------------------------------------
// Sources that fail
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, AMissingSourceReadsAsZeros) {
    const std::string a = Make("a", std::string(100, 'a'));
    Open(100);
    ASSERT_TRUE(Add(dir / "missing", 0, 0, 50));
    ASSERT_TRUE(Add(a, 0, 50, 50));
    EXPECT_EQ((Got{100, true, Zeros(50) + std::string(50, 'a')}), Read(0, 100));
    EXPECT_FALSE(FileExists(dir / "missing"));
}

TEST_F(RedirectedFileTest, ASourceThatAppearsLaterIsRead) {
    Open(10);
    ASSERT_TRUE(Add(dir / "late", 0, 0, 10));
    EXPECT_EQ(Zeros(10), Content(0, 10));
    Make("late", "0123456789");
    EXPECT_EQ("0123456789", Content(0, 10));
}

// The ways to find and to read a segment, which must not differ in what they give: in memory or in
// an info file, at a place or position by position.
class ShortSourceTest : public RedirectedFileTest {
protected:
    struct Part {
        std::string source;
        std::int64_t offset;
        std::int64_t length;
    };
    // Every segment begins at the first byte of its source.
    template <typename Check>
    void EachWay(std::int64_t size, const std::vector<Part>& parts, Check check) {
        for (const bool infoFile : {false, true}) {
            for (const int bits : {0, static_cast<int>(LOG_CONTROL_FILE_ACCESS)}) {
                SCOPED_TRACE(std::string(infoFile ? "info file" : "memory") + " " +
                             std::to_string(bits));
                const std::string info = infoFile ? Make("info") : "";
                CRedirectedFile one(&utilities);
                one.Open(&param, size, 7, info.c_str(), 0, 0);
                for (const Part& part : parts) {
                    ASSERT_TRUE(one.AddSegment(&param, part.source.c_str(), 0, part.offset,
                                               part.length, nullptr));
                }
                Log(bits);
                check([&](std::uint64_t seek, unsigned int length) {
                    return GuardedRead(length, [&](void* buffer, bool* eof) {
                        return one.Read(&param, seek, buffer, length, eof);
                    });
                });
                Log(0);
            }
        }
    }
    const std::string a = Make("a", std::string(40, 'a'));
    const std::string b = Make("b", std::string(50, 'b'));
};

TEST_F(ShortSourceTest, WhatTheLastSourceLacksIsTheTail) {
    EachWay(100, {{a, 0, 100}}, [](auto read) {
        EXPECT_EQ((Got{100, true, std::string(40, 'a') + Zeros(60)}), read(0, 100));
    });
    EachWay(100, {{a, 0, 100}}, [](auto read) {
        EXPECT_EQ((Got{100, true, std::string(40, 'a') + Zeros(60)}), read(0, 1000));
    });
    EachWay(100, {{a, 0, 100}}, [](auto read) {
        EXPECT_EQ((Got{50, true, Zeros(50)}), read(50, 50)) << "nothing at all is there";
    });
    EachWay(200, {{a, 0, 100}}, [](auto read) {
        EXPECT_EQ((Got{100, false, std::string(40, 'a') + Zeros(60)}), read(0, 100));
    });
}

TEST_F(ShortSourceTest, WhatASourceLacksIsAGapBeforeTheNextSegment) {
    EachWay(100, {{a, 0, 50}, {b, 50, 50}}, [](auto read) {
        EXPECT_EQ((Got{90, false, std::string(40, 'a') + std::string(50, 'b')}), read(0, 100));
        EXPECT_EQ((Got{50, false, std::string(50, 'b')}), read(40, 100));
        EXPECT_EQ((Got{10, false, std::string(10, 'b')}), read(40, 10));
        EXPECT_EQ((Got{50, true, std::string(50, 'b')}), read(50, 50));
    });
    // The next segment begins before the end of the source: it goes on in its middle.
    EachWay(100, {{a, 0, 50}, {b, 30, 50}}, [](auto read) {
        EXPECT_EQ((Got{60, false, std::string(40, 'a') + std::string(20, 'b')}), read(0, 60));
    });
}

TEST_F(ShortSourceTest, TheZerosOfTheGapAreLogged) {
    Open(100);
    ASSERT_TRUE(Add(a, 0, 0, 50));
    ASSERT_TRUE(Add(b, 0, 50, 50));
    Log(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(90, Read(0, 100).count);
    EXPECT_TRUE(utilities.Has("[RedirectedFile.Read] Fill missing segment len:10"));
    EXPECT_TRUE(
        utilities.Has("[RedirectedFile.Read] Segment (7) path:" + b + ", fox:0, len:50 (seek:0)"));
}

TEST_F(ShortSourceTest, AReadThatCanMakeNoProgressEnds) {
    EachWay(1000, {{a, 0, 500}, {b, 500, 50}}, [](auto read) {
        EXPECT_EQ((Got{40, false, std::string(40, 'a')}), read(0, 100));
        EXPECT_EQ((Got{5, false, std::string(5, 'a')}), read(35, 100));
        EXPECT_EQ((Got{0, false, ""}), read(40, 100));
        EXPECT_EQ((Got{0, false, ""}), read(399, 100));
        EXPECT_EQ((Got{100, false, std::string(50, 'b') + Zeros(50)}), read(400, 100));
    });
    Open(1000);
    ASSERT_TRUE(Add(a, 0, 0, 500));
    Log(LOG_CONTROL_FILE_ACCESS);
    EXPECT_EQ(40, Read(0, 100).count);
    const std::string line = "[RedirectedFile.Read] Segment (7) path:" + a + ", fox:0, len:";
    EXPECT_EQ(1u, utilities.Count(line + "100 (seek:0)"));
    EXPECT_EQ(1u, utilities.Count(line + "60 (seek:40)"));
}

TEST_F(ShortSourceTest, ASegmentThatAnotherOneCoversInPartIsUsedUpOnlyAtItsOwnEnd) {
    Open(100);
    ASSERT_TRUE(Add(b, 0, 60, 40));  // added first, so seen there
    ASSERT_TRUE(Add(a, 0, 0, 100));
    EXPECT_EQ((Got{40, false, std::string(40, 'a')}), Read(0, 60));
    EXPECT_EQ((Got{100, true, std::string(40, 'a') + Zeros(60)}), Read(0, 100));
}

TEST_F(RedirectedFileTest, ASourceThatShrinksIsFilledUpAsTheTail) {
    const std::string a = Make("a", std::string(100, 'a'));
    Open(1000);
    ASSERT_TRUE(Add(a, 0, 0, 100));
    EXPECT_EQ(100, Read(0, 100).count);
    ASSERT_EQ(0, truncate(a.c_str(), 20));
    EXPECT_EQ((Got{100, false, std::string(20, 'a') + Zeros(80)}), Read(0, 100));
    EXPECT_EQ((Got{20, false, std::string(20, 'a')}), Read(0, 50));
    EXPECT_EQ((Got{80, false, Zeros(80)}), Read(20, 80));
    ASSERT_EQ(0, truncate(a.c_str(), 0));
    EXPECT_EQ((Got{0, false, ""}), Read(0, 99));
    EXPECT_EQ((Got{100, false, Zeros(100)}), Read(0, 100));
}

TEST_F(RedirectedFileTest, ASourceThatCannotBeReadEndsTheReadWithWhatWasPlaced) {
    const std::string a = Make("a", std::string(10, 'a'));
    Open(100);
    ASSERT_TRUE(Add(a, 0, 0, 10));
    ASSERT_TRUE(Add(dir.Path(), 0, 10, 10));  // a folder opens for reading but does not read
    ASSERT_TRUE(Add(a, 0, 20, 10));
    EXPECT_EQ((Got{10, false, std::string(10, 'a')}), Read(0, 100));
    EXPECT_EQ((Got{0, false, ""}), Read(10, 50));
}

TEST_F(RedirectedFileTest, ASourceThatCannotBePositionedEndsTheReadWithWhatWasPlaced) {
    const std::string a = Make("a", std::string(100, 'a'));
    Open(100);
    ASSERT_TRUE(Add(a, 0, 0, 10));
    ASSERT_TRUE(Add(a, -5, 10, 10));
    ASSERT_TRUE(Add(a, 0, 20, 10));
    EXPECT_EQ((Got{10, false, std::string(10, 'a')}), Read(0, 100));
    // The same without a descriptor: the position itself is the result of the seek.
    CRedirectedFile other(&utilities);
    other.Open(&param, 100, 1, nullptr, 0, 0);
    ASSERT_TRUE(other.AddSegment(&param, nullptr, -5, 0, 10, nullptr));
    const Got got = GuardedRead(
        10, [&](void* buffer, bool* eof) { return other.Read(&param, 0, buffer, 10, eof); });
    EXPECT_EQ((Got{0, false, ""}), got);
    // The position may become positive inside the segment.
    EXPECT_EQ(5, GuardedRead(10, [&](void* buffer, bool* eof) {
                     return other.Read(&param, 5, buffer, 5, eof);
                 }).count);
}

// ------------------------------------------------------------------------------------------------
// Info files that others have written to
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, WhatAnInfoFileHoldsWhenOpenedStaysAndIsNeverRead) {
    const std::string a = Make("a", std::string(100, 'a'));
    // A record that would cover everything, from an object of before.
    std::array<unsigned char, SegmentRecord::SIZE> record{};
    SegmentRecord::Encode({0, 0, 0, 100}, record.data());
    const std::string old(reinterpret_cast<const char*>(record.data()), record.size());
    for (const std::string& found : {old, old + "odd", PatternData(1000)}) {
        const std::string info = Make("info", found);
        CRedirectedFile other(&utilities);
        other.Open(&param, 100, 1, info.c_str(), 0, 0);
        const auto read = [&](std::uint64_t seek) {
            return GuardedRead(10,
                               [&](void* buffer, bool* eof) {
                                   return other.Read(&param, seek, buffer, 10, eof);
                               })
                .data;
        };
        EXPECT_EQ(Zeros(10), read(0)) << "starts without segments";
        ASSERT_TRUE(other.AddSegment(&param, a.c_str(), 0, 50, 50, nullptr));
        EXPECT_EQ(Zeros(10), read(0));
        EXPECT_EQ(std::string(10, 'a'), read(50));
        EXPECT_EQ(found, ReadFile(info).substr(0, found.size()));
        EXPECT_THAT(Records(info, found.size()), ElementsAre("0 0 50 50"));
    }
}

TEST_F(ExportedRedirectedFileTest, CheckpointsBehindOldBytesTellTheRealPlaceOfTheRecord) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string info = Make("info", PatternData(1000));
    Open(10 * kMiB, info, 1, 1);
    ASSERT_TRUE(Add(a, 0, 0, 100));
    ASSERT_TRUE(Add(a, 0, kMiB, 100));
    EXPECT_EQ("--> CheckPoint Segment fox=1028, ox=1048576", Info().front());
    EXPECT_EQ("aaa", Content(kMiB, 3));
    EXPECT_EQ("aaa", Content(0, 3));
}

TEST_F(RedirectedFileTest, ACutRecordIsNotFoundAndStopsTheSearch) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string info = Make("info");
    Open(100, info);
    ASSERT_TRUE(Add(a, 0, 0, 50));
    ASSERT_TRUE(Add(a, 0, 50, 50));
    ASSERT_EQ(0, truncate(info.c_str(), 28 + 27));
    EXPECT_EQ((Got{10, false, Zeros(10)}), Read(50, 10));
    EXPECT_EQ(std::string(50, 'a') + Zeros(50), Content(0, 100));
    ASSERT_EQ(0, truncate(info.c_str(), 0));
    EXPECT_EQ(0, Read(0, 10).count) << "the previous read has reached the end";
    EXPECT_EQ(Zeros(10), Content(0, 10));
}

TEST_F(RedirectedFileTest, RecordsAddedBehindACutOneAreOutOfStepButDefined) {
    const std::string a = Make("a", std::string(100, 'a'));
    const std::string info = Make("info");
    Open(100, info);
    ASSERT_TRUE(Add(a, 0, 0, 50));
    ASSERT_EQ(0, truncate(info.c_str(), 20));
    ASSERT_TRUE(Add(a, 0, 50, 50));
    EXPECT_EQ(48, SizeOf(info));
    for (std::uint64_t seek = 0; seek < 100; ++seek) {
        const Got got = Read(seek, 100);
        EXPECT_GE(got.count, 0);
    }
}

TEST_F(RedirectedFileTest, BehindARecordThatReachesBeyondTheSizeThereIsNoTail) {
    const std::string info = Make("info");
    Open(100, info);
    ASSERT_TRUE(Add("", 0, 0, 100));
    std::string records = ReadFile(info);
    unsigned char foreign[SegmentRecord::SIZE];
    SegmentRecord::Encode({-1, 0, 100, 200}, foreign);
    records.append(reinterpret_cast<const char*>(foreign), sizeof foreign);
    support::WriteFile(info, records);
    EXPECT_EQ((Got{300, true, Zeros(300)}), Read(0, 1000));
}

TEST_F(RedirectedFileTest, RandomBytesAsRecordsGiveDefinedReads) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    const std::string a = Make("a", PatternData(5000));
    for (int round = 0; round < 60; ++round) {
        const std::string info = Make("info");
        const std::int64_t size = round % 3 == 0 ? kMax : round % 3 == 1 ? 10'000 : 5 * kMiB;
        CRedirectedFile other(&utilities);
        other.Open(&param, size, 1, info.c_str(), 1, 1);
        ASSERT_TRUE(other.AddSegment(&param, a.c_str(), 0, 0, 5000, nullptr));
        std::string bytes;
        for (int i = 0; i < 200; ++i) {
            const auto value = [&] {
                const auto v = static_cast<std::int64_t>(random());
                switch (random() % 6) {
                    case 0:
                        return v;
                    case 1:
                        return v % 10'000;
                    case 2:
                        return kMax - (v & 0xFFF);
                    case 3:
                        return kMin + (v & 0xFFF);
                    case 4:
                        return std::int64_t{0};
                    default:
                        return v & 0xFFFFF;
                }
            };
            std::array<unsigned char, SegmentRecord::SIZE> record{};
            SegmentRecord::Encode(
                {static_cast<std::int32_t>(random() % 4) - 2, value(), value(), value()},
                record.data());
            bytes.append(reinterpret_cast<const char*>(record.data()), record.size());
        }
        support::WriteFile(info, round % 2 == 0 ? bytes : PatternData(6000, random()));
        // Adding notices that the file is not as it was left; from now on all of it is looked at.
        ASSERT_TRUE(other.AddSegment(&param, a.c_str(), 0, size - 1, 1, nullptr));
        for (int i = 0; i < 200; ++i) {
            const std::uint64_t seek = i % 4 == 0
                                           ? static_cast<std::uint64_t>(size) - random() % 5000 - 1
                                           : random() % 20'000;
            const unsigned int length = static_cast<unsigned int>(random() % 3000);
            const Got got = GuardedRead(length, [&](void* buffer, bool* eof) {
                return other.Read(&param, seek, buffer, length, eof);
            });
            ASSERT_GE(got.count, -1);
        }
    }
}

// ------------------------------------------------------------------------------------------------
// Edges of numbers
// ------------------------------------------------------------------------------------------------

TEST_F(RedirectedFileTest, AFileOfSizeZeroIsAtItsEndAtOnce) {
    const std::string info = Make("info");
    for (const std::string& path : {std::string(), info}) {
        CRedirectedFile other(&utilities);
        other.Open(&param, 0, 1, path.c_str(), 0, 0);
        EXPECT_FALSE(other.AddSegment(&param, nullptr, 0, 0, 0, nullptr));
        EXPECT_FALSE(other.AddSegment(&param, nullptr, 0, 0, 10, nullptr));
        const Got got = GuardedRead(
            10, [&](void* buffer, bool* eof) { return other.Read(&param, 0, buffer, 10, eof); });
        EXPECT_EQ((Got{0, true, ""}), got);
    }
    EXPECT_EQ(0, SizeOf(info));
}

TEST_F(RedirectedFileTest, ANegativeSizeIsAtItsEndAtOnce) {
    Open(-5);
    EXPECT_FALSE(Add("", 0, 0, 10));
    EXPECT_FALSE(Add("", 0, -5, 10));
    EXPECT_TRUE(Add("", 0, -6, 10));
    EXPECT_EQ((Got{0, true, ""}), Read(0, 10));
    EXPECT_EQ((Got{0, true, ""}), Read(static_cast<std::uint64_t>(-6), 10));
}

TEST_F(RedirectedFileTest, TheLargestSizeIsReadUpToItsLastByte) {
    const std::string a = Make("a", "0123456789");
    Open(kMax);
    ASSERT_TRUE(Add(a, 0, kMax - 10, kMax));
    const auto end = static_cast<std::uint64_t>(kMax);
    EXPECT_EQ((Got{5, false, "01234"}), Read(end - 10, 5));
    EXPECT_EQ((Got{10, true, "0123456789"}), Read(end - 10, 100));
    EXPECT_EQ((Got{0, true, ""}), Read(end, 100));
    EXPECT_EQ((Got{0, true, ""}), Read(end + 1, 100));
    EXPECT_EQ((Got{0, true, ""}), Read(std::numeric_limits<std::uint64_t>::max(), 100));
}

TEST_F(RedirectedFileTest, RecordsAtTheLargestOffsetsAreFoundOneAfterAnother) {
    const std::string a = Make("a", "0123456789");
    const std::string info = Make("info");
    Open(kMax, info, 1, 1);
    const std::int64_t checkPoint = kMax / kMiB * kMiB;
    ASSERT_TRUE(Add(a, 0, checkPoint, 1));  // the estimates count from here
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(Add(a, 5, kMax - 2, 2));
    }
    EXPECT_EQ((Got{2, true, "56"}), Read(static_cast<std::uint64_t>(kMax - 2), 100));
    EXPECT_EQ((Got{1, true, "6"}), Read(static_cast<std::uint64_t>(kMax - 1), 100));
    EXPECT_EQ("0", Content(static_cast<std::uint64_t>(checkPoint), 1));
}

TEST_F(RedirectedFileTest, ASegmentOfNegativeOffsetShowsItsRestInMemory) {
    const std::string a = Make("a", "0123456789");
    Open(100);
    ASSERT_TRUE(Add(a, 0, -4, 10));
    EXPECT_EQ("456789", Content(0, 6));
    EXPECT_EQ(Zeros(2), Content(6, 2));
}

TEST_F(RedirectedFileTest, ASegmentOfNegativeOffsetDoesNotCountAsFoundInAnInfoFile) {
    const std::string a = Make("a", "0123456789");
    const std::string info = Make("info");
    Open(100, info);
    ASSERT_TRUE(Add(a, 0, -4, 10));
    EXPECT_THAT(Records(info), ElementsAre("0 0 -4 10"));
    EXPECT_EQ(Zeros(6), Content(0, 6));
}

TEST_F(RedirectedFileTest, ExtremeNumbersFromAControllerAreHarmless) {
    const std::string a = Make("a", "0123456789");
    const std::string info = Make("info");
    const std::array<std::int64_t, 7> numbers{kMin, -kMiB - 1, -1, 0, 1, kMiB + 1, kMax};
    for (const std::int64_t size : {std::int64_t{-1}, std::int64_t{0}, 3 * kMiB}) {
        for (const bool inMemory : {true, false}) {
            CRedirectedFile other(&utilities);
            other.Open(&param, size, 1, inMemory ? nullptr : info.c_str(), 1, 1);
            for (const std::int64_t sourceOffset : numbers) {
                for (const std::int64_t offset : numbers) {
                    for (const std::int64_t length : numbers) {
                        // Billions of records would only fill the disk.
                        if (inMemory || offset > -kGiB) {
                            EXPECT_EQ(offset < size,
                                      other.AddSegment(&param, a.c_str(), sourceOffset, offset,
                                                       length, nullptr));
                        }
                    }
                }
            }
            for (const std::int64_t seek : numbers) {
                const Got got = GuardedRead(100, [&](void* buffer, bool* eof) {
                    return other.Read(&param, static_cast<std::uint64_t>(seek), buffer, 100, eof);
                });
                EXPECT_EQ(got.count < 0, !got.eof && (seek < 0 || seek >= size));
            }
        }
    }
}

// ------------------------------------------------------------------------------------------------
// Exporting the content
// ------------------------------------------------------------------------------------------------

TEST_F(ExportedRedirectedFileTest, ExportWritesTheContent) {
    const std::string data = PatternData(200'000);
    const std::string a = Make("a", data);
    const std::string target = Make("target");
    Open(200'000);
    ASSERT_TRUE(Add(a, 100'000, 0, 100'000));
    ASSERT_TRUE(Add(a, 0, 100'000, 100'000));
    file.Export(&param, target.c_str());
    EXPECT_TRUE(data.substr(100'000) + data.substr(0, 100'000) == ReadFile(target));
    EXPECT_EQ(0, OpenCount(target)) << "the descriptor is given back";
}

TEST_F(ExportedRedirectedFileTest, ExportLogsEveryStepOf65536Bytes) {
    const std::string a = Make("a", PatternData(100'000));
    const std::string target = Make("target");
    Open(100'000);
    ASSERT_TRUE(Add(a, 0, 0, 100'000));
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    const Lines lines = utilities.Infos();
    ASSERT_EQ(3u, lines.size());
    EXPECT_THAT(lines[0], testing::MatchesRegex("\\[RedirectedFile.Export\\] Content to file: " +
                                                target + " \\(fid=[0-9]+\\)"));
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:65536, w:65536", lines[1]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:34464, w:34464", lines[2]);
}

TEST_F(ExportedRedirectedFileTest, AFailedCloseOfATargetIsReported) {
    const std::string target = Make("target");
    Open(10);
    Log(LOG_CONTROL_ERROR);
    for (const bool listing : {false, true}) {
        faults::Fail(faults::Call::Close, EIO);
        if (listing) {
            file.ExportInfo(&param, target.c_str(), false);
        } else {
            file.Export(&param, target.c_str());
        }
        EXPECT_THAT(utilities.Errors(),
                    ElementsAre(testing::HasSubstr("OS close file \"" + target + "\". Error=")));
        utilities.Forget();
    }
}

TEST_F(ExportedRedirectedFileTest, ExportNeedsAnExistingTarget) {
    Open(100);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, (dir / "missing").c_str());
    EXPECT_THAT(utilities.Infos(),
                ElementsAre("[RedirectedFile.Export] Content to file error: " + (dir / "missing")));
    EXPECT_FALSE(FileExists(dir / "missing"));
    file.Export(&param, nullptr);
    EXPECT_EQ("[RedirectedFile.Export] Content to file error: ", utilities.Infos().back());
}

TEST_F(RedirectedFileTest, OutsideEveryExportTheTargetIsNotWritable) {
    const std::string target = Make("target", "kept");
    Open(100);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:100, w:-1", utilities.Infos().back());
    EXPECT_EQ("kept", ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ExportOverwritesAndDoesNotCut) {
    const std::string a = Make("a", "abc");
    const std::string target = Make("target", "0123456789");
    Open(3);
    ASSERT_TRUE(Add(a, 0, 0, 3));
    file.Export(&param, target.c_str());
    EXPECT_EQ("abc3456789", ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ExportIsWholeAlthoughAReaderHasReachedTheEnd) {
    const std::string a = Make("a", std::string(10, 'a'));
    const std::string target = Make("target");
    Open(100'000);
    ASSERT_TRUE(Add(a, 0, 50'000, 10));
    ASSERT_TRUE(Read(99'990, 10).eof);
    file.Export(&param, target.c_str());
    // The first step begins where nothing covers, so it is filled up as a tail.
    EXPECT_TRUE(Zeros(100'000) == ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ExportOfAFileOfSizeZeroWritesNothing) {
    const std::string target = Make("target");
    Open(0);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    EXPECT_EQ(0, SizeOf(target));
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:0, w:0", utilities.Infos().back());
}

TEST_F(ExportedRedirectedFileTest, ExportGoesOnBehindASourceThatEndsEarly) {
    const std::string data = PatternData(70'000);
    const std::string a = Make("a", data);
    const std::string target = Make("target");
    Open(200'000);
    ASSERT_TRUE(Add(a, 0, 0, 100'000));
    ASSERT_TRUE(Add(a, 0, 100'000, 100'000));
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    const Lines lines = utilities.Infos();
    ASSERT_EQ(5u, lines.size());
    // The second step moves what follows the gap up, the third ends inside the second segment.
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:65536, w:65536", lines[1]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:65536", lines[2]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:131072, r:38928, w:38928", lines[3]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:170000, r:30000, w:30000", lines[4]);
    EXPECT_TRUE(data + data.substr(0, 61'072) + data.substr(31'072) + Zeros(30'000) ==
                ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ExportEndsWhereNothingComesAnyMore) {
    const std::string a = Make("a", std::string(70'000, 'a'));
    const std::string target = Make("target");
    Open(300'000);
    ASSERT_TRUE(Add(a, 0, 0, 300'000));
    file.Export(&param, target.c_str());
    EXPECT_TRUE(std::string(70'000, 'a') == ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ATailOfFourGibibytesIsExportedAsAWhole) {
    const std::string a = Make("a", std::string(100'000, 'a'));
    // Takes what it is given and fills no disk.
    const std::string target = dir / "target";
    std::filesystem::create_symlink("/dev/null", target);
    Open(4 * kGiB + 100'000);
    ASSERT_TRUE(Add(a, 0, 0, 100'000));
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    const Lines lines = utilities.Infos();
    ASSERT_EQ(1u + 65'536 + 2, lines.size());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:65536", lines[2]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:4295032832, r:34464, w:34464", lines.back());
}

TEST_F(ExportedRedirectedFileTest, ATailBehindAShortSourceFillsTheTarget) {
    const std::string a = Make("a", std::string(100'000, 'a'));
    const std::string target = Make("target");
    Open(1'000'000);
    ASSERT_TRUE(Add(a, 0, 0, 120'000));
    file.Export(&param, target.c_str());
    EXPECT_TRUE(std::string(100'000, 'a') + Zeros(900'000) == ReadFile(target));
}

// ------------------------------------------------------------------------------------------------
// Exports that are to end
// ------------------------------------------------------------------------------------------------

// Has the exports stopped by one of their own lines.
class StoppingUtilities : public ControlledUtilities {
public:
    using ControlledUtilities::LogInfo;
    void LogInfo(CRuntimeParam* param, char* message) override {
        ControlledUtilities::LogInfo(param, message);
        if (!stopAt.empty() && std::string(message).find(stopAt) != std::string::npos) {
            Stop();
        }
    }
    void Stop() { m_stop.emplace(this); }
    void GoOn() { m_stop.reset(); }
    std::string stopAt;

private:
    std::optional<ExportStop> m_stop;
};

class StoppedExportTest : public ExportedRedirectedFileTest {
protected:
    void SetUp() override {
        LogArgu argu{"Test.Export"};
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(m_stopping.AddMountInfo(&param, &argu, dir.Path().c_str(), "vm01", "", reason))
            << reason;
    }
    ~StoppedExportTest() override {
        LogArgu argu{"Test.End"};
        m_stopping.Reset(&param, &argu);
    }
    // An export of 20 steps, all of it source; its lines.
    Lines Exported(const std::string& target) {
        CRedirectedFile one(&m_stopping);
        one.Open(&param, 20 * 65'536, 7, nullptr, 0, 0);
        const std::string source = MakeSparse("source", 20 * 65'536);
        EXPECT_TRUE(one.AddSegment(&param, source.c_str(), 0, 0, 20 * 65'536, nullptr));
        m_stopping.Forget();
        one.Export(&param, target.c_str());
        return m_stopping.Infos();
    }

    StoppingUtilities m_stopping;
};

TEST_F(StoppedExportTest, ARunningExportEndsAtItsNextStep) {
    for (const int bits : {0, static_cast<int>(LOG_CONTROL_FILE_ACCESS)}) {
        param.SetLogControl(bits | LOG_CONTROL_REDIRECT_FILE);
        const std::string target = Make("target");
        m_stopping.stopAt = "Write ox:131072,";
        const Lines lines = Exported(target);
        EXPECT_EQ(3 * 65'536, SizeOf(target)) << "with and without copies inside the kernel";
        EXPECT_EQ("[RedirectedFile.Export] Stopped ox:196608",
                  bits == 0 ? lines.back() : lines[lines.size() - 2]);
        EXPECT_EQ(0, OpenCount(target)) << "the descriptor is given back";
        m_stopping.stopAt.clear();
        m_stopping.GoOn();
    }
}

TEST_F(StoppedExportTest, WhileExportsAreStoppedNoneWrites) {
    const std::string target = Make("target");
    m_stopping.Stop();
    Exported(target);
    EXPECT_EQ(0, SizeOf(target));
    m_stopping.GoOn();
    Exported(target);
    EXPECT_EQ(20 * 65'536, SizeOf(target));
}

TEST_F(StoppedExportTest, AListingEndsAtItsNextLine) {
    CRedirectedFile one(&m_stopping);
    one.Open(&param, 100, 7, nullptr, 0, 0);
    for (const char* source : {"a", "a", "b", "b", "c"}) {
        ASSERT_TRUE(one.AddSegment(&param, source, 0, 0, 10, nullptr));
    }
    const auto listed = [&](bool merge, const std::string& stopAt) {
        const std::string target = Make("target");
        param.SetLogControl(LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_REDIRECT_FILE);
        m_stopping.Forget();
        m_stopping.stopAt = stopAt;
        one.ExportInfo(&param, target.c_str(), merge);
        m_stopping.stopAt.clear();
        EXPECT_EQ(0, OpenCount(target)) << "the descriptor is given back";
        EXPECT_TRUE(m_stopping.Has("[RedirectedFile.ExportInfo] Stopped"));
        m_stopping.GoOn();
        return ReadFile(target);
    };
    EXPECT_EQ("Segment path=a, fox=0, ox=0, len=10\n", listed(false, "OS write file"));
    EXPECT_EQ("--> Merged Segment path=a, fox=0, ox=0, len=20\n", listed(true, "OS write file"))
        << "the run that was cut off is not listed";
    EXPECT_EQ("", listed(false, "Info to file:"));
    EXPECT_EQ("", listed(true, "Info to file:"));
}

TEST_F(StoppedExportTest, CheckpointsEndTheSameWay) {
    const std::string info = Make("info");
    CRedirectedFile one(&m_stopping);
    one.Open(&param, 5 * kMiB, 7, info.c_str(), 1, 1);
    ASSERT_TRUE(one.AddSegment(&param, nullptr, 0, 0, 5 * kMiB, nullptr));
    const std::string target = Make("target");
    param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    m_stopping.stopAt = "OS write file";
    one.ExportInfo(&param, target.c_str(), false);
    m_stopping.stopAt.clear();
    EXPECT_EQ("--> CheckPoint Segment fox=28, ox=1048576\n-------------------\n", ReadFile(target));
}

// ------------------------------------------------------------------------------------------------
// Pipes
// ------------------------------------------------------------------------------------------------

// With a pipe of the file system that nobody has opened.  Each operation runs on a thread of its
// own; one that hangs fails the test and is set free.
class PipeTest : public ExportedRedirectedFileTest {
protected:
    void SetUp() override { ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600)); }
    template <typename Body>
    [[nodiscard]] bool Ends(Body body) {
        auto done = std::async(std::launch::async, body);
        if (done.wait_for(support::kPatience) == std::future_status::ready) {
            return true;
        }
        // Opening both ends lets an open go on, closing them ends a read, reading ends a write.
        const int both = open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        char buffer[4096];
        while (done.wait_for(support::Milliseconds(10)) != std::future_status::ready) {
            while (read(both, buffer, sizeof buffer) > 0) {
            }
        }
        close(both);
        return false;
    }

    const std::string pipe = dir / "pipe";
};

TEST_F(PipeTest, AsASourceItReadsAsNothing) {
    const std::string a = Make("a", std::string(10, 'a'));
    for (const bool exported : {false, true}) {
        SCOPED_TRACE(exported ? "inside an export" : "outside every export");
        if (exported) {
            ExportFolder();
        }
        CRedirectedFile one(&utilities);
        one.Open(&param, 100, 7, nullptr, 0, 0);
        ASSERT_TRUE(one.AddSegment(&param, a.c_str(), 0, 0, 10, nullptr));
        ASSERT_TRUE(one.AddSegment(&param, pipe.c_str(), 0, 10, 10, nullptr));
        ASSERT_TRUE(one.AddSegment(&param, a.c_str(), 0, 20, 10, nullptr));
        Got across;
        Got inside;
        ASSERT_TRUE(Ends([&] {
            across = GuardedRead(100, [&](void* buffer, bool* eof) {
                return one.Read(&param, 0, buffer, 100, eof);
            });
            inside = GuardedRead(
                5, [&](void* buffer, bool* eof) { return one.Read(&param, 12, buffer, 5, eof); });
        }));
        EXPECT_EQ((Got{10, false, std::string(10, 'a')}), across);
        EXPECT_EQ((Got{0, false, ""}), inside);
    }
}

TEST_F(PipeTest, AnExportEndsAtASourceThatIsAPipe) {
    const std::string a = Make("a", std::string(10, 'a'));
    std::filesystem::create_directory(dir / "out");
    const std::string target = Make("out/target");
    LogArgu argu{"Test.Export"};
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(utilities.AddMountInfo(&param, &argu, (dir / "out").c_str(), "vm01", "", reason));
    Open(100);
    ASSERT_TRUE(Add(a, 0, 0, 10));
    ASSERT_TRUE(Add(pipe, 0, 10, 90));
    ASSERT_TRUE(Ends([&] { file.Export(&param, target.c_str()); }));
    EXPECT_EQ(std::string(10, 'a'), ReadFile(target));
}

TEST_F(PipeTest, AnExportToAPipeThatNobodyReadsEnds) {
    for (const bool exported : {false, true}) {
        SCOPED_TRACE(exported ? "inside an export" : "outside every export");
        if (exported) {
            ExportFolder();
        }
        CRedirectedFile one(&utilities);
        one.Open(&param, 3 * 65'536, 7, nullptr, 0, 0);
        Log(LOG_CONTROL_REDIRECT_FILE);
        ASSERT_TRUE(Ends([&] { one.Export(&param, pipe.c_str()); }));
        // As much as a pipe holds, and nothing more.
        const Lines lines = utilities.Infos();
        ASSERT_EQ(4u, lines.size());
        EXPECT_EQ(std::string("[RedirectedFile.Export] Write ox:0, r:65536, w:") +
                      (exported ? "65536" : "-1"),
                  lines[1]);
        EXPECT_EQ("[RedirectedFile.Export] Write ox:131072, r:65536, w:-1", lines[3]);
        ASSERT_TRUE(Ends([&] { one.ExportInfo(&param, pipe.c_str(), true); }));
        Log(0);
    }
}

TEST_F(PipeTest, AReaderOfAPipeGetsTheWholeExport) {
    ExportFolder();
    const std::string data = PatternData(1'000'000);
    const std::string a = Make("a", data);
    Open(1'000'000);
    ASSERT_TRUE(Add(a, 0, 0, 1'000'000));
    auto reader = std::async(std::launch::async, [&] {
        const int fd = open(pipe.c_str(), O_RDONLY | O_CLOEXEC);
        std::string got;
        char buffer[3000];
        for (ssize_t count = 1; count > 0 && got.size() < data.size();) {
            count = read(fd, buffer, sizeof buffer);
            got.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(0, count)));
        }
        close(fd);
        return got;
    });
    // Its open waits for a writer.
    const int writer = open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
    Log(LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_ERROR);
    file.Export(&param, pipe.c_str());
    close(writer);
    EXPECT_TRUE(data == reader.get());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:983040, r:16960, w:16960",
              utilities.Infos().back());
    EXPECT_THAT(utilities.Errors(), IsEmpty());
}

// The lines of the steps of an export, and what it left in its target.
struct Exported {
    Lines steps;
    std::string content;
    std::vector<off_t> positions;  // of the sources
    Got next;                      // what is read at a place that nothing covers

    bool operator==(const Exported&) const = default;
};

// Whether an export copies inside the system or reads and writes depends on whether the lines of
// file access, which tell of every read and write, are wanted: nothing else may differ.
class EitherWayTest : public ExportedRedirectedFileTest {
protected:
    struct Part {
        std::string source;  // empty: none
        std::int64_t from;
        std::int64_t offset;
        std::int64_t length;
    };

    Exported ExportWith(int logControl, const std::string& target, const std::string& infoFile,
                        std::int64_t size, const std::vector<Part>& parts) {
        CRedirectedFile one(&utilities);
        one.Open(&param, size, 7, infoFile.c_str(), 1, 1);
        std::vector<std::string> sources;
        for (const Part& part : parts) {
            one.AddSegment(&param, part.source.c_str(), part.from, part.offset, part.length,
                           nullptr);
            sources.push_back(part.source);
        }
        Log(logControl);
        one.Export(&param, target.c_str());
        Exported result;
        for (const std::string& line : utilities.Infos()) {
            if (line.find(" Write ox:") != std::string::npos) {
                result.steps.push_back(line);
            }
        }
        result.content = ReadFile(target);
        for (const std::string& source : sources) {
            result.positions.push_back(source.empty() || !FileExists(source) ? -2
                                                                             : PositionOf(source));
        }
        result.next = GuardedRead(64, [&](void* buffer, bool* eof) {
            return one.Read(&param, static_cast<std::uint64_t>(size) - 1, buffer, 64, eof);
        });
        one.Close(&param);
        Log(0);
        return result;
    }
    // The same export both ways, to a new target each.
    void ExpectTheSame(std::int64_t size, const std::vector<Part>& parts, bool infoFile) {
        const auto exported = [&](const std::string& name, int logControl) {
            return ExportWith(logControl, Make(name), infoFile ? Make(name + ".info") : "", size,
                              parts);
        };
        const Exported slow = exported("slow", LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
        const Exported fast = exported("fast", LOG_CONTROL_REDIRECT_FILE);
        EXPECT_EQ(slow.steps, fast.steps);
        EXPECT_TRUE(slow.content == fast.content);
        EXPECT_EQ(slow.positions, fast.positions);
        EXPECT_EQ(slow.next, fast.next);
    }
};

TEST_F(EitherWayTest, RandomFilesAreExportedAlike) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto below = [&random](std::int64_t limit) {
        return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(limit));
    };
    const std::array<std::string, 4> sources{Make("a", PatternData(1'000'000)),
                                             Make("b", PatternData(300'000)), "", dir / "missing"};
    for (int round = 0; round < 20; ++round) {
        const std::int64_t size = 1 + below(1'500'000);
        std::vector<Part> parts;
        for (std::int64_t i = below(8); i >= 0; --i) {
            parts.push_back({sources[static_cast<std::size_t>(below(4))], below(400'000),
                             below(4) == 0 ? 0 : below(size), below(1'000'000)});
        }
        SCOPED_TRACE("round " + Count(static_cast<std::size_t>(round)));
        ExpectTheSame(size, parts, round % 2 == 0);
    }
}

TEST_F(EitherWayTest, ATargetThatIsItsOwnSourceIsWrittenBehindWhatWasRead) {
    const std::string data = PatternData(300'000);
    const auto exported = [&](const std::string& name, int logControl) {
        const std::string both = Make(name, data);
        return ExportWith(logControl, both, "", 200'000, {{both, 0, 0, 200'000}});
    };
    const Exported slow = exported("slow", LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    const Exported fast = exported("fast", LOG_CONTROL_REDIRECT_FILE);
    // Each step writes where it has just read to.
    std::string expected = data;
    for (std::size_t at = 0; at < 200'000; at += 65'536) {
        const std::size_t length = std::min<std::size_t>(65'536, 200'000 - at);
        expected.resize(std::max(expected.size(), at + 2 * length));
        expected.replace(at + length, length, std::string(expected, at, length));
    }
    EXPECT_TRUE(expected == slow.content);
    EXPECT_TRUE(expected == fast.content);
    EXPECT_EQ(slow.steps, fast.steps);
}

TEST_F(EitherWayTest, ATargetThatIsItsOwnSourceUnderAnotherNameIsReadBeforeItIsWritten) {
    const std::string data = PatternData(65'536);
    const std::string tail = Make("tail", std::string(65'536, 't'));
    const auto exported = [&](const std::string& name, int logControl) {
        const std::string both = Make(name, data);
        std::filesystem::create_hard_link(both, both + "2");
        return ExportWith(logControl, both, "", 196'618,
                          {{tail, 0, 0, 65'536},
                           {both + "2", 32'768, 65'536, 65'536},
                           {tail, 0, 131'082, 65'536}});
    };
    const Exported slow = exported("slow", LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    const Exported fast = exported("fast", LOG_CONTROL_REDIRECT_FILE);
    ASSERT_LE(2u, fast.steps.size());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:65536", fast.steps[1]);
    EXPECT_EQ(slow.steps, fast.steps);
    EXPECT_TRUE(slow.content == fast.content);
}

TEST_F(EitherWayTest, ATargetIsReadAsItWasBehindASourceThatEndsInsideTheStep) {
    const std::string shorter = Make("short", std::string(1000, 's'));
    const std::string data = PatternData(65'536);
    const auto exported = [&](const std::string& name, int logControl) {
        const std::string both = Make(name, data);
        // The target stands at 0 when its own first bytes are read.
        std::filesystem::create_hard_link(both, both + "2");
        return ExportWith(logControl, both, "", 131'072,
                          {{shorter, 0, 0, 65'536}, {both + "2", 0, 65'536, 65'536}});
    };
    const Exported slow = exported("slow", LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    const Exported fast = exported("fast", LOG_CONTROL_REDIRECT_FILE);
    EXPECT_EQ(std::string(1000, 's') + data.substr(0, 64'536), fast.content.substr(0, 65'536));
    EXPECT_EQ(slow.steps, fast.steps);
    EXPECT_TRUE(slow.content == fast.content);
}

TEST_F(EitherWayTest, AFullFileSystemGetsWhatFits) {
    const std::string data = PatternData(300'000);
    const std::string a = Make("a", data);
    const auto exported = [&](int logControl) {
        // Room for one step and a part of the second.
        const platform::TmpFs fs("size=100k,nr_inodes=10");
        LogArgu argu{"Test.Export"};
        char reason[STATUS_SIZE] = "";
        EXPECT_TRUE(utilities.AddMountInfo(&param, &argu, fs.Path().c_str(), "full", "", reason))
            << reason;
        const std::string target = fs / "target";
        support::WriteFile(target, "");
        Exported result = ExportWith(logControl, target, "", 300'000, {{a, 0, 0, 300'000}});
        utilities.RemoveMountInfoByExportName("full");
        return result;
    };
    const Exported slow = exported(LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    const Exported fast = exported(LOG_CONTROL_REDIRECT_FILE);
    ASSERT_EQ(5u, fast.steps.size());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:65536, w:65536", fast.steps[0]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:36864", fast.steps[1]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:131072, r:65536, w:-1", fast.steps[2]);
    EXPECT_EQ(slow.steps, fast.steps);
    EXPECT_TRUE(data.substr(0, 102'400) == fast.content);
    EXPECT_TRUE(slow.content == fast.content);
}

// ------------------------------------------------------------------------------------------------
// Exporting the listing
// ------------------------------------------------------------------------------------------------

TEST_F(ExportedRedirectedFileTest, TheListingNamesEverySegmentInOrder) {
    Open(100);
    ASSERT_TRUE(Add(dir / "a", 5, 0, 10));
    ASSERT_TRUE(Add("", 6, 40, 10));
    ASSERT_TRUE(Add(dir / "b", 7, 20, 1000));
    const std::string target = Make("target");
    file.ExportInfo(&param, target.c_str(), false);
    EXPECT_EQ("Segment path=" + (dir / "a") + ", fox=5, ox=0, len=10\n" +
                  "Segment path=Null, fox=6, ox=40, len=10\n" + "Segment path=" + (dir / "b") +
                  ", fox=7, ox=20, len=80\n",
              ReadFile(target));
    EXPECT_EQ(0, OpenCount(target));
}

TEST_F(ExportedRedirectedFileTest, TheListingBeginsWithTheSegmentOfOffsetZero) {
    Open(100);
    ASSERT_TRUE(Add("", 1, 50, 10));
    ASSERT_TRUE(Add("", 2, 0, 10));
    ASSERT_TRUE(Add("", 3, 20, 10));
    EXPECT_THAT(Info(), ElementsAre("Segment path=Null, fox=2, ox=0, len=10",
                                    "Segment path=Null, fox=3, ox=20, len=10"));
}

TEST_F(ExportedRedirectedFileTest, WithoutASegmentOfOffsetZeroNoneIsListed) {
    Open(100);
    ASSERT_TRUE(Add("", 1, 50, 10));
    EXPECT_THAT(Info(), IsEmpty());
}

TEST_F(ExportedRedirectedFileTest, TheListingOfAnInfoFileShowsItsRecords) {
    const std::string info = Make("info", PatternData(100));
    Open(kGiB, info);
    ASSERT_TRUE(Add(dir / "a", 0, 0, 33 * kMiB));
    EXPECT_THAT(Info(), ElementsAre("Segment path=" + (dir / "a") + ", fox=0, ox=0, len=33554432",
                                    "Segment path=" + (dir / "a") +
                                        ", fox=33554432, ox=33554432, len=1048576"));
}

TEST_F(ExportedRedirectedFileTest, MergedSegmentsOfOneSourceAreOneLine) {
    Open(100);
    ASSERT_TRUE(Add(dir / "a", 0, 0, 10));
    ASSERT_TRUE(Add(dir / "a", 50, 30, 20));  // no neighbour, neither here nor there
    ASSERT_TRUE(Add(dir / "a", 10, 10, 5));
    EXPECT_THAT(Info(true),
                ElementsAre("--> Merged Segment path=" + (dir / "a") + ", fox=0, ox=0, len=35"));
}

TEST_F(ExportedRedirectedFileTest, AnotherSourceBeginsAnotherMergedLine) {
    Open(100);
    ASSERT_TRUE(Add(dir / "a", 0, 0, 10));
    ASSERT_TRUE(Add("", 3, 10, 10));
    ASSERT_TRUE(Add("", 4, 20, 10));
    ASSERT_TRUE(Add(dir / "a", 30, 30, 10));
    EXPECT_THAT(Info(true),
                ElementsAre("--> Merged Segment path=" + (dir / "a") + ", fox=0, ox=0, len=10",
                            "--> Merged Segment path=Null, fox=3, ox=10, len=20",
                            "--> Merged Segment path=" + (dir / "a") + ", fox=30, ox=30, len=10"));
}

TEST_F(ExportedRedirectedFileTest, MergingAFirstRunWithoutSourceKeepsItsOffsets) {
    Open(100);
    ASSERT_TRUE(Add("", 3, 0, 10));
    ASSERT_TRUE(Add("", 4, 10, 10));
    EXPECT_THAT(Info(true), ElementsAre("--> Merged Segment path=Null, fox=3, ox=0, len=20"));
}

TEST_F(ExportedRedirectedFileTest, MergingNothingWritesOneLineOfZeros) {
    Open(100);
    EXPECT_THAT(Info(true), ElementsAre("--> Merged Segment path=Null, fox=0, ox=0, len=0"));
    ASSERT_TRUE(Add(dir / "a", 5, 50, 10));  // does not contain offset 0
    EXPECT_THAT(Info(true),
                ElementsAre("--> Merged Segment path=" + (dir / "a") + ", fox=0, ox=0, len=0"));
}

TEST_F(ExportedRedirectedFileTest, CheckpointsStandBeforeMergedLinesToo) {
    const std::string info = Make("info");
    Open(4 * kMiB, info, 1, 2);
    ASSERT_TRUE(Add("", 0, 0, 4 * kMiB));
    EXPECT_THAT(Info(true),
                ElementsAre("--> CheckPoint Segment fox=56, ox=2097152", "-------------------",
                            "--> Merged Segment path=Null, fox=0, ox=0, len=4194304"));
}

TEST_F(ExportedRedirectedFileTest, NumbersOfTheListingAreUnsigned) {
    Open(kMax);
    ASSERT_TRUE(Add("", -1, -1, 10));
    EXPECT_THAT(Info(), ElementsAre("Segment path=Null, fox=18446744073709551615, "
                                    "ox=18446744073709551615, len=10"));
}

TEST_F(ExportedRedirectedFileTest, AListingLargerThanTheBufferIsWhole) {
    Open(10'000);
    std::string expected;
    for (int i = 0; i < 5000; ++i) {
        ASSERT_TRUE(Add(dir / "a", i, i, 1));
        expected += "Segment path=" + (dir / "a") + ", fox=" + std::to_string(i) +
                    ", ox=" + std::to_string(i) + ", len=1\n";
    }
    ASSERT_GT(expected.size(), 3u * 65536);
    const std::string target = Make("target");
    file.ExportInfo(&param, target.c_str(), false);
    EXPECT_TRUE(expected == ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ALineOfTheListingHolds65535Bytes) {
    const std::string fits(65'535 - std::strlen("Segment path=, fox=0, ox=0, len=5\n"), 'p');
    Open(100);
    ASSERT_TRUE(Add(fits, 0, 0, 5));
    ASSERT_TRUE(Add(fits + "q", 0, 5, 5));
    const std::string path = Make("listing");
    file.ExportInfo(&param, path.c_str(), false);
    EXPECT_TRUE("Segment path=" + fits + ", fox=0, ox=0, len=5\n" + "Segment path=" + fits +
                    "q, fox=0, ox=5, len=5" ==
                ReadFile(path));
}

TEST_F(ExportedRedirectedFileTest, WithTheLinesOfFileAccessEveryLineAndRecordIsWrittenAlone) {
    const std::string a = Make("a");
    const std::string info = Make("info");
    const auto writes = [&] {
        const Lines lines = utilities.Infos();
        return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find("OS write file (") != std::string::npos;
        });
    };
    Open(100 * kMiB, info);
    Log(LOG_CONTROL_FILE_ACCESS);
    ASSERT_TRUE(Add(a, 0, 0, 100 * kMiB));
    EXPECT_EQ(4, writes());  // 32 MiB thrice, and 4 MiB
    const std::string listing = Make("listing");
    utilities.Forget();
    file.ExportInfo(&param, listing.c_str(), false);
    EXPECT_EQ(4, writes());
}

TEST_F(ExportedRedirectedFileTest, TheListingLogsItsTarget) {
    const std::string target = Make("target");
    Open(100);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.ExportInfo(&param, target.c_str(), false);
    EXPECT_THAT(utilities.Infos(),
                ElementsAre(testing::MatchesRegex("\\[RedirectedFile.ExportInfo\\] Info to file: " +
                                                  target + " \\(fid=[0-9]+\\)")));
}

TEST_F(ExportedRedirectedFileTest, TheListingNeedsAnExistingTarget) {
    Open(100);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.ExportInfo(&param, (dir / "missing").c_str(), false);
    EXPECT_THAT(utilities.Infos(), ElementsAre("[RedirectedFile.ExportInfo] Info to file error: " +
                                               (dir / "missing")));
    EXPECT_FALSE(FileExists(dir / "missing"));
}
