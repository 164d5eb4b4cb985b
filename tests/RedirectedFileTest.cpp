// One redirected file: how it is opened, and how segments are recorded.

#include <fcntl.h>

#include <array>

#include "RedirectedFileFixture.h"
#include "support/Faults.h"

namespace faults = support::faults;

using namespace redirtest;
using support::FileExists;
using support::OpenCount;
using support::PatternData;
using support::ReadFile;
using testing::ElementsAre;
using testing::IsEmpty;

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
