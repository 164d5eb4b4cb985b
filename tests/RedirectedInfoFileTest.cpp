// Info files that are not what the redirected file has left: renamed away, cut, appended to or
// overwritten by others, between the reads and during them.  Every read ends, and what it finds is
// what a plain reader of the records finds.
// ctest-labels: threaded

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <random>
#include <thread>

#include "RedirectedFixture.h"
#include "support/Faults.h"

namespace faults = support::faults;

using namespace redirtest;
using support::FileExists;
using support::PatternData;
using support::ReadFile;
using support::WriteFile;

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr auto kRecord = static_cast<std::int64_t>(SegmentRecord::SIZE);

std::string Bytes(const Segment& segment) {
    std::string bytes(SegmentRecord::SIZE, '\0');
    SegmentRecord::Encode(segment, reinterpret_cast<unsigned char*>(bytes.data()));
    return bytes;
}

// Changes a part of a file in place, or appends it.
void Overwrite(const std::string& path, std::int64_t at, const std::string& bytes) {
    const int file = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (pwrite(file, bytes.data(), bytes.size(), at) != static_cast<ssize_t>(bytes.size())) {
        ADD_FAILURE() << "cannot write to " << path;
    }
    close(file);
}

class InfoFileTest : public RedirectedFixture {
protected:
    void SetUp() override { ExportFolder(); }

    std::shared_ptr<CRedirectedFile> Open(const std::string& path, std::int64_t size) {
        return utilities.OpenRedirectedFile(&param, path.c_str(), size, true, 1, 1);
    }
    Got Read(const std::string& path, std::uint64_t seek, unsigned int length) {
        return GuardedRead(length, [&](void* buffer, bool* eof) {
            return utilities.ReadFile(&param, &argu, path.c_str(), seek, SEEK_SET, buffer, length,
                                      eof);
        });
    }

    LogArgu argu{"Test.Case"};
};

}  // namespace

TEST_F(InfoFileTest, AForeignRecordBehindTheOwnOnesDoesNotLeadBack) {
    const std::string disk = Make("disk");
    const std::string source = Make("source", std::string(100, 'a'));
    const auto file = Open(disk, 200);
    ASSERT_TRUE(file->AddSegment(&param, source.c_str(), 0, 0, 100, nullptr));
    Overwrite(disk, kRecord, Bytes({-1, 0, 0, 10}));
    EXPECT_EQ((Got{150, false, std::string(100, 'a') + Zeros(50)}), Read(disk, 0, 150));
    Overwrite(disk, 2 * kRecord, Bytes({0, 0, 150, 50}));
    EXPECT_EQ((Got{50, true, std::string(50, 'a')}), Read(disk, 150, 50)) << "and it counts";
}

TEST_F(InfoFileTest, ANewFileOfTheOldNameIsNotTheInfoFile) {
    const std::string disk = Make("disk");
    const std::string moved = dir / "moved";
    const std::string source = Make("source", std::string(100, 'a'));
    const auto file = Open(disk, 200);
    ASSERT_TRUE(file->AddSegment(&param, source.c_str(), 0, 0, 100, nullptr));
    ASSERT_EQ(std::string(100, 'a'), Read(disk, 0, 100).data);
    utilities.GetFileID(&param, &argu, disk.c_str());
    ASSERT_TRUE(utilities.RenameFile(&param, &argu, disk.c_str(), moved.c_str()));
    ASSERT_TRUE(utilities.NewFile(&param, &argu, disk.c_str()));
    const std::string written = Bytes({0, 0, 0, 100}) + Bytes({0, 0, 0, 10});
    ASSERT_EQ(56,
              utilities.WriteFile(&param, &argu, disk.c_str(), 0, SEEK_SET, written.data(), 56));
    EXPECT_EQ((Got{150, false, Zeros(150)}), Read(moved, 0, 150)) << "its segments are gone";
    ASSERT_TRUE(utilities.AddRedirectedFileSegment(&param, moved.c_str(), source.c_str(), 0, 50, 50,
                                                   nullptr));
    EXPECT_EQ(std::string(50, 'a'), Read(moved, 50, 50).data) << "goes on in memory";
    EXPECT_EQ(written, ReadFile(disk)) << "the client's file";
    EXPECT_EQ(kRecord, SizeOf(moved));
    // Back at its old path it is found again.
    ASSERT_TRUE(utilities.RemoveFile(&param, &argu, disk.c_str()));
    utilities.GetFileID(&param, &argu, moved.c_str());
    ASSERT_TRUE(utilities.RenameFile(&param, &argu, moved.c_str(), disk.c_str()));
    EXPECT_EQ(std::string(100, 'a'), Read(disk, 0, 100).data);
}

TEST_F(InfoFileTest, AnInfoFileThatComesLaterIsTheInfoFile) {
    const std::string disk = dir / "disk";
    const std::string source = Make("source", std::string(100, 'a'));
    const auto file = Open(disk, 200);
    Make("disk");
    ASSERT_TRUE(file->AddSegment(&param, source.c_str(), 0, 0, 100, nullptr));
    EXPECT_EQ(kRecord, SizeOf(disk));
    EXPECT_EQ(std::string(100, 'a'), Read(disk, 0, 100).data);
}

// ------------------------------------------------------------------------------------------------
// Random changes
// ------------------------------------------------------------------------------------------------

namespace {

// Reads one record after another, from the estimated one on.  Without checkpoints, and of a source
// that never ends; a segment without one reads as zeros.
class PlainReader {
public:
    PlainReader(const std::string& path, std::int64_t size, std::int64_t block,
                const std::string& source)
        : m_path(path), m_size(size), m_block(block), m_source(source) {}

    Got Read(std::int64_t seek, unsigned int length) {
        const std::vector<Segment> records = RecordsOf(m_path);
        Got got;
        std::int64_t at = seek;
        auto i = static_cast<std::size_t>(seek / m_block);
        while (i < records.size() && !(records[i].iOffset <= seek && seek < End(records[i]))) {
            ++i;
        }
        for (; i < records.size() && got.data.size() < length; ++i) {
            const Segment& record = records[i];
            at = std::max(at, record.iOffset);
            if (End(record) <= at) {
                continue;
            }
            const std::size_t chunk =
                std::min(length - got.data.size(), static_cast<std::size_t>(End(record) - at));
            got.data +=
                record.iSource == 0
                    ? m_source.substr(
                          static_cast<std::size_t>(record.iFileOffset + at - record.iOffset), chunk)
                    : Zeros(chunk);
            at += static_cast<std::int64_t>(chunk);
        }
        if (got.data.size() < length && m_lastEnd < m_size && at < m_size) {
            got.data +=
                Zeros(std::min(length - got.data.size(), static_cast<std::size_t>(m_size - at)));
        }
        got.count = static_cast<int>(got.data.size());
        m_lastEnd = seek + got.count;
        got.eof = m_lastEnd >= m_size;
        return got;
    }

private:
    static std::int64_t End(const Segment& record) { return record.iOffset + record.iLength; }

    const std::string m_path;
    const std::int64_t m_size;
    const std::int64_t m_block;
    const std::string m_source;
    std::int64_t m_lastEnd = 0;
};

class ChangedInfoFileTest : public InfoFileTest, public testing::WithParamInterface<int> {
protected:
    static constexpr std::int64_t kSize = 3 * kMiB;
    static constexpr std::int64_t kSource = 64 * 1024;  // bytes that a segment may take of it

    std::int64_t Below(std::int64_t limit) {
        return static_cast<std::int64_t>(m_random() % static_cast<std::uint64_t>(limit));
    }

    // A record that others may have written: well-formed, of any place.
    Segment RandomSegment() {
        Segment segment;
        segment.iSource = static_cast<std::int32_t>(Below(3)) - 1;
        segment.iFileOffset = Below(kSource);
        segment.iOffset = Below(kSize - kSource);
        segment.iLength = Below(4) == 0 ? -Below(100) : Below(1 + (kSource >> Below(12)));
        return segment;
    }
    std::string RandomRecords(std::int64_t count) {
        std::string bytes;
        for (std::int64_t i = 0; i < count; ++i) {
            bytes += Bytes(RandomSegment());
        }
        return bytes;
    }
    // Any bytes, many of them at the edges of numbers.
    std::string RandomBytes() {
        std::string bytes;
        for (std::int64_t i = Below(400); i > 0; --i) {
            const std::int64_t edges[] = {kMax - Below(100), kMin + Below(100), Below(kSize),
                                          static_cast<std::int64_t>(m_random())};
            const auto edge = [&] { return edges[Below(4)]; };
            bytes += Bytes({static_cast<std::int32_t>(m_random() % 5) - 2, edge(), edge(), edge()});
        }
        bytes.resize(bytes.size() - std::min(bytes.size(), static_cast<std::size_t>(Below(28))));
        return bytes;
    }

    void AddOwn(const std::string& path, const std::string& source, int count) {
        for (int i = 0; i < count; ++i) {
            Segment segment = RandomSegment();
            segment.iSource = i == 0 ? 0 : segment.iSource;
            // Clear of the block boundaries, at which a record would be split.
            ASSERT_TRUE(utilities.AddRedirectedFileSegment(
                &param, path.c_str(), segment.iSource == 0 ? source.c_str() : nullptr,
                segment.iFileOffset, segment.iOffset / kMiB * kMiB + 1 + Below(kMiB - kSource),
                std::max<std::int64_t>(1, segment.iLength), nullptr));
        }
    }

    const std::uint64_t m_seed = support::RandomSeed();
    std::mt19937_64 m_random{m_seed + static_cast<std::uint64_t>(GetParam())};
    faults::Guard m_faults;
};
INSTANTIATE_TEST_SUITE_P(Rounds, ChangedInfoFileTest, testing::Range(0, 6));

}  // namespace

TEST_P(ChangedInfoFileTest, IsReadAsAPlainReaderReadsIt) {
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(m_seed));
    const std::string data = PatternData(3 * kSource);
    const std::string source = Make("source", data);
    const std::string disk = Make("disk");
    Open(disk, kSize);
    ASSERT_NO_FATAL_FAILURE(AddOwn(disk, source, 1 + static_cast<int>(Below(700))));
    PlainReader plain(disk, kSize, kMiB, data);
    int covered = 0;
    for (int change = 0; change < 80; ++change) {
        const std::int64_t length = SizeOf(disk);
        switch (change == 0 ? 0 : Below(5)) {
            case 0:
                // In the place of a record that was cut, if there is one.
                Overwrite(disk, length / kRecord * kRecord, RandomRecords(1 + Below(300)));
                break;
            case 1:
                ASSERT_EQ(0, truncate(disk.c_str(), Below(length + 1)));
                break;
            case 2:
                WriteFile(disk, RandomRecords(Below(600)));  // cut to nothing and written anew
                break;
            case 3:
                // In place, now that the length has told that the records are not the own ones.
                if (length >= kRecord) {
                    Overwrite(disk, Below(length / kRecord) * kRecord, Bytes(RandomSegment()));
                }
                break;
            default:
                if (length % kRecord == 0) {
                    ASSERT_NO_FATAL_FAILURE(AddOwn(disk, source, 3));
                }
        }
        for (int i = 0; i < 25; ++i) {
            const std::int64_t seek = Below(kSize);
            const auto count = static_cast<unsigned int>(Below(3000));
            const int before = faults::Count(faults::Call::Read);
            const Got got = Read(disk, static_cast<std::uint64_t>(seek), count);
            // One call for 256 records; one of no bytes reads none from its source.
            ASSERT_LE(faults::Count(faults::Call::Read) - before, SizeOf(disk) / kRecord / 256 + 3);
            ASSERT_EQ(plain.Read(seek, count), got) << "change " << change << ", seek " << seek;
            covered += got.data.find_first_not_of('\0') != std::string::npos ? 1 : 0;
        }
    }
    EXPECT_GT(covered, 10) << "hardly anything was found";
}

TEST_P(ChangedInfoFileTest, AnyBytesAreReadToTheirEnd) {
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(m_seed));
    const std::string source = Make("source", PatternData(3 * kSource));
    const std::string disk = Make("disk", GetParam() % 2 == 0 ? "" : RandomBytes());
    Open(disk, GetParam() % 3 == 0 ? kMax : kSize);
    for (int change = 0; change < 80; ++change) {
        const std::int64_t length = SizeOf(disk);
        switch (Below(6)) {
            case 0:
                Overwrite(disk, length, RandomBytes());
                break;
            case 1:
                ASSERT_EQ(0, truncate(disk.c_str(), Below(length + 1)));
                break;
            case 2:
                WriteFile(disk, RandomBytes());
                break;
            case 3:
                Overwrite(disk, Below(length + 1), RandomBytes());
                break;
            case 4:
                // The same length with other bytes: not noticed, and harmless.
                Overwrite(disk, 0, RandomBytes().substr(0, static_cast<std::size_t>(length)));
                break;
            default:
                ASSERT_NO_FATAL_FAILURE(AddOwn(disk, source, 3));
        }
        for (int i = 0; i < 10; ++i) {
            const auto seek =
                static_cast<std::uint64_t>(Below(2) == 0 ? Below(kSize) : kMax - Below(5000) - 1);
            ASSERT_GE(Read(disk, seek, static_cast<unsigned int>(Below(3000))).count, -1);
        }
    }
}

TEST_P(ChangedInfoFileTest, ReadsEndWhileOthersWrite) {
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(m_seed));
    const std::string source = Make("source", PatternData(3 * kSource));
    const std::string disk = Make("disk");
    Open(disk, kSize);
    ASSERT_NO_FATAL_FAILURE(AddOwn(disk, source, 5));
    const std::vector<Segment> own = RecordsOf(disk);
    std::atomic<bool> stop{false};
    // Two chunks of records that a walk goes through without finding anything.
    const std::string passed(static_cast<std::size_t>(512 * kRecord), '\0');
    const std::string foreign = RandomRecords(50);
    std::thread writer([&] {
        const int file = open(disk.c_str(), O_WRONLY | O_CLOEXEC);
        std::mt19937_64 random(m_seed);
        while (!stop) {
            const off_t end = lseek(file, 0, SEEK_END);
            switch (random() % 4) {
                case 0:
                    if (ftruncate(file, end / 2) != 0) {
                        ADD_FAILURE() << "cannot cut";
                    }
                    break;
                case 1:
                    EXPECT_GT(pwrite(file, foreign.data(), foreign.size(),
                                     static_cast<off_t>(random() %
                                                        (static_cast<std::uint64_t>(end) + 1))),
                              0);
                    break;
                default:
                    if (end < 4'000'000) {
                        EXPECT_GT(pwrite(file, passed.data(), passed.size(), end), 0);
                    }
            }
        }
        close(file);
    });
    const bool begun = support::WaitFor([&] { return SizeOf(disk) != 5 * kRecord; });
    EXPECT_TRUE(begun);
    for (int i = 0; begun && i < 300; ++i) {
        const int before = faults::Count(faults::Call::Read);
        // Now and then from an own record on, behind which the others' are passed.
        const std::int64_t seek =
            Below(2) == 0 ? own[static_cast<std::size_t>(Below(5))].iOffset : Below(kSize);
        const Got got =
            Read(disk, static_cast<std::uint64_t>(seek), static_cast<unsigned int>(Below(70'000)));
        EXPECT_GE(got.count, 0);
        EXPECT_LE(faults::Count(faults::Call::Read) - before, 6'000'000 / kRecord / 256 + 3);
    }
    stop = true;
    writer.join();
}
