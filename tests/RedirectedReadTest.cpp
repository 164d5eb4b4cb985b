// One redirected file: how segments are found and read.

#include <fcntl.h>

#include <filesystem>

#include "RedirectedFileFixture.h"
#include "support/Faults.h"

namespace faults = support::faults;

using namespace redirtest;
using support::PatternData;
using support::ReadFile;
using testing::ElementsAre;

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
