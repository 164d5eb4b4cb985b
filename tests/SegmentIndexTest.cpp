// The index over ranges: the first range added that covers an offset is found.

#include "SegmentIndex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/Files.h"

namespace {

constexpr std::int64_t kNone = -1;

// What the index stands for: a scan in the order of adding.
class LinearScan {
public:
    void Add(std::int64_t start, std::int64_t end) { m_ranges.emplace_back(start, end); }
    std::int64_t Find(std::int64_t offset) const {
        for (std::size_t i = 0; i < m_ranges.size(); ++i) {
            if (m_ranges[i].first <= offset && offset < m_ranges[i].second) {
                return static_cast<std::int64_t>(i);
            }
        }
        return kNone;
    }
    const std::vector<std::pair<std::int64_t, std::int64_t>>& Ranges() const { return m_ranges; }

private:
    std::vector<std::pair<std::int64_t, std::int64_t>> m_ranges;
};

class SegmentIndexTest : public testing::Test {
protected:
    static std::uint64_t ShiftOf(std::uint32_t number) { return number * 0x9e3779b97f4a7c15; }
    static std::int32_t SourceOf(std::uint32_t number) {
        return static_cast<std::int32_t>(number % 7) - 1;
    }
    void Add(std::int64_t start, std::int64_t end) {
        const auto number = static_cast<std::uint32_t>(m_scan.Ranges().size());
        m_index.Add({start, end, ShiftOf(number), number, SourceOf(number)});
        m_scan.Add(start, end);
    }
    // The number of the range that is found, or kNone. What comes with it must be that range's.
    std::int64_t Find(std::int64_t offset) const {
        const CSegmentIndex::Piece* piece = m_index.Find(offset);
        if (piece == nullptr) {
            return kNone;
        }
        EXPECT_LE(piece->iStart, offset);
        EXPECT_GT(piece->iEnd, offset);
        EXPECT_EQ(ShiftOf(piece->iSegment), piece->iShift);
        EXPECT_EQ(SourceOf(piece->iSegment), piece->iSource);
        return piece->iSegment;
    }
    // Both agree at every end of a range and beside it; of every nth range, where scanning for all
    // takes too long.
    void ExpectSameAtEveryEdge(std::size_t nth = 1) {
        for (std::size_t i = 0; i < m_scan.Ranges().size(); i += nth) {
            const auto& [start, end] = m_scan.Ranges()[i];
            for (const std::int64_t edge : {start, end}) {
                for (const std::int64_t step : {-1, 0, 1}) {
                    std::int64_t offset = 0;
                    if (!__builtin_add_overflow(edge, step, &offset)) {
                        ASSERT_EQ(m_scan.Find(offset), Find(offset)) << "at " << offset;
                    }
                }
            }
        }
    }

    CSegmentIndex m_index;
    LinearScan m_scan;
};

}  // namespace

TEST_F(SegmentIndexTest, AnEmptyIndexFindsNothing) {
    EXPECT_EQ(kNone, Find(0));
    EXPECT_EQ(kNone, Find(INT64_MAX));
}

TEST_F(SegmentIndexTest, ARangeCoversItsStartAndNotItsEnd) {
    Add(10, 20);
    EXPECT_EQ(kNone, Find(9));
    EXPECT_EQ(0, Find(10));
    EXPECT_EQ(0, Find(19));
    EXPECT_EQ(kNone, Find(20));
}

TEST_F(SegmentIndexTest, TheFirstAddedOfTwoOverlappingRangesWins) {
    Add(10, 20);
    Add(0, 30);
    EXPECT_EQ(1, Find(9));
    EXPECT_EQ(0, Find(10));
    EXPECT_EQ(0, Find(19));
    EXPECT_EQ(1, Find(20));
}

TEST_F(SegmentIndexTest, APieceEndsWhereAnEarlierRangeBeginsOrGoesOn) {
    Add(10, 20);
    Add(30, 40);
    Add(0, 50);
    for (const auto& [offset, start, end] :
         {std::array{0, 0, 10}, {15, 10, 20}, {20, 20, 30}, {30, 30, 40}, {49, 40, 50}}) {
        const CSegmentIndex::Piece* piece = m_index.Find(offset);
        ASSERT_NE(nullptr, piece) << "at " << offset;
        EXPECT_EQ(start, piece->iStart);
        EXPECT_EQ(end, piece->iEnd);
    }
}

TEST_F(SegmentIndexTest, ADuplicateNeverShows) {
    Add(10, 20);
    Add(10, 20);
    EXPECT_EQ(0, Find(15));
}

TEST_F(SegmentIndexTest, ARangeFillsEveryGapThatItSpans) {
    for (std::int64_t i = 0; i < 10; ++i) {
        Add(i * 10, i * 10 + 5);
    }
    Add(-5, 200);
    ExpectSameAtEveryEdge();
    EXPECT_EQ(10, Find(97));
}

TEST_F(SegmentIndexTest, AnEmptyRangeAddsNothing) {
    Add(10, 10);
    EXPECT_EQ(kNone, Find(10));
    Add(0, 20);
    EXPECT_EQ(1, Find(10));
}

TEST_F(SegmentIndexTest, RangesReachTheEndsOfSixtyFourBits) {
    Add(INT64_MAX - 1, INT64_MAX);
    Add(INT64_MIN, INT64_MIN + 1);
    Add(INT64_MIN, INT64_MAX);
    EXPECT_EQ(1, Find(INT64_MIN));
    EXPECT_EQ(2, Find(INT64_MIN + 1));
    EXPECT_EQ(2, Find(0));
    EXPECT_EQ(0, Find(INT64_MAX - 1));
    EXPECT_EQ(kNone, Find(INT64_MAX));
}

TEST_F(SegmentIndexTest, ClearForgetsEverything) {
    Add(0, 100);
    m_index.Clear();
    EXPECT_EQ(kNone, Find(50));
    m_index.Add({50, 60, ShiftOf(7), 7, SourceOf(7)});
    EXPECT_EQ(7, Find(50));
}

// Enough ranges for many leaves, in the orders in which leaves fill, split and grow at their ends.
class SegmentIndexOrderTest : public SegmentIndexTest,
                              public testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Orders, SegmentIndexOrderTest,
                         testing::Values("ascending", "descending", "shuffled", "inside_out"),
                         [](const auto& order) { return std::string(order.param); });

TEST_P(SegmentIndexOrderTest, AnyOrderOfAddingGivesTheSameAnswersAsAScan) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    constexpr std::int64_t kCount = 5000;
    std::vector<std::int64_t> starts;
    for (std::int64_t i = 0; i < kCount; ++i) {
        starts.push_back(i * 100);
    }
    const std::string order = GetParam();
    if (order == "descending") {
        std::reverse(starts.begin(), starts.end());
    } else if (order == "shuffled") {
        std::shuffle(starts.begin(), starts.end(), random);
    } else if (order == "inside_out") {
        std::stable_sort(starts.begin(), starts.end(), [](std::int64_t a, std::int64_t b) {
            return std::abs(a - kCount * 50) < std::abs(b - kCount * 50);
        });
    }
    for (const std::int64_t start : starts) {
        Add(start, start + 1 + static_cast<std::int64_t>(random() % 100));
    }
    ExpectSameAtEveryEdge(11);
    Add(-1000, kCount * 200);  // spans every gap of every leaf
    Add(-2000, kCount * 300);  // and now finds none inside
    ExpectSameAtEveryEdge(11);
}

TEST_F(SegmentIndexTest, RandomRangesGiveTheSameAnswersAsAScan) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    for (int round = 0; round < 30; ++round) {
        m_index = {};
        m_scan = {};
        // From crowded, where nearly everything overlaps, to mostly gaps.
        const std::int64_t span = std::int64_t{1} << (4 + round % 16);
        const std::int64_t base = round % 3 == 0   ? 0
                                  : round % 3 == 1 ? INT64_MAX - 2 * span
                                                   : INT64_MIN + span;
        const int count = 1 + static_cast<int>(random() % 2500);
        for (int i = 0; i < count; ++i) {
            const std::int64_t start =
                base + static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(span));
            const std::int64_t length =
                static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(span)) >>
                (random() % 12);
            Add(start, start + length);
        }
        for (int i = 0; i < 2000; ++i) {
            const std::int64_t offset =
                base - 2 +
                static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(2 * span));
            ASSERT_EQ(m_scan.Find(offset), Find(offset)) << "round " << round << " at " << offset;
        }
    }
}
