// What the tests of one redirected file share: the file, and what it holds as texts.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "RedirectedFile.h"
#include "RedirectedFixture.h"
#include "support/Faults.h"

namespace redirtest {

inline constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
inline constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();

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
        CUtilities::SplitIntoVector(support::ReadFile(path).c_str(), '\n', &lines);
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

    const support::faults::Guard guard;
    CRedirectedFile file{&utilities};
};

// With the test's folder exported, so that the listings and contents can be written there.
class ExportedRedirectedFileTest : public RedirectedFileTest {
protected:
    void SetUp() override { ExportFolder(); }
};

inline std::string Count(std::size_t n) { return std::to_string(n); }

}  // namespace redirtest
