// One redirected file whose sources fail, whose info file others have written to, and whose numbers
// are at their limits.

#include <fcntl.h>

#include <array>
#include <random>

#include "RedirectedFileFixture.h"
#include "support/Faults.h"

using namespace redirtest;
using support::FileExists;
using support::PatternData;
using support::ReadFile;
using testing::ElementsAre;

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
