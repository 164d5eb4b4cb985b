// The summary of runs of segments: a walk may pass over what it skips, and nothing else.

#include "SegmentSummary.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "support/Files.h"

namespace {

constexpr std::size_t kRun = CSegmentSummary::RUN;
constexpr std::size_t kGroup = CSegmentSummary::GROUP * kRun;

// `count` segments of one byte at the same place.
void Fill(CSegmentSummary& summary, std::size_t count, std::int64_t offset) {
    for (std::size_t i = 0; i < count; ++i) {
        summary.Add(offset, 1);
    }
}

}  // namespace

TEST(SegmentSummaryTest, AnEmptySummaryEndsAtOnce) {
    const CSegmentSummary summary;
    EXPECT_EQ(0u, summary.GetCount());
    EXPECT_EQ(0u, summary.SkipToCovering(0, 0));
    EXPECT_EQ(0u, summary.SkipToReaching(0, 0));
}

TEST(SegmentSummaryTest, ARunThatMayCoverTheOffsetIsNotSkipped) {
    CSegmentSummary summary;
    summary.Add(100, 10);
    EXPECT_EQ(0u, summary.SkipToCovering(0, 100));
    EXPECT_EQ(0u, summary.SkipToCovering(0, 109));
    EXPECT_EQ(1u, summary.SkipToCovering(0, 99)) << "nothing covers it: the end";
    EXPECT_EQ(1u, summary.SkipToCovering(0, 200));
}

TEST(SegmentSummaryTest, AStartBehindTheLastSegmentStaysWhereItIs) {
    CSegmentSummary summary;
    Fill(summary, 3, 0);
    EXPECT_EQ(3u, summary.SkipToCovering(3, 0));
    EXPECT_EQ(1000u, summary.SkipToCovering(1000, 0)) << "not moved back";
    EXPECT_EQ(1000u, summary.SkipToReaching(1000, -5));
}

TEST(SegmentSummaryTest, ASkipEndsAtTheFirstSegmentOfTheRunThatMayCover) {
    CSegmentSummary summary;
    Fill(summary, 3 * kRun, 0);
    Fill(summary, kRun, 500);
    EXPECT_EQ(3 * kRun, summary.SkipToCovering(7, 500));
    EXPECT_EQ(3 * kRun + 5, summary.SkipToCovering(3 * kRun + 5, 500)) << "not moved back";
}

TEST(SegmentSummaryTest, WholeGroupsAreSkipped) {
    CSegmentSummary summary;
    Fill(summary, 2 * kGroup + 3 * kRun, 0);
    Fill(summary, 1, 500);
    EXPECT_EQ(2 * kGroup + 3 * kRun, summary.SkipToCovering(0, 500));
    EXPECT_EQ(2 * kGroup + 3 * kRun, summary.SkipToReaching(0, 400));
    EXPECT_EQ(2 * kGroup + 3 * kRun + 1, summary.SkipToCovering(0, 600));
}

TEST(SegmentSummaryTest, ASegmentReachesByItsStartOrItsEnd) {
    CSegmentSummary summary;
    Fill(summary, kRun, 0);
    summary.Add(50, -40);  // of a negative length: ends before it begins
    EXPECT_EQ(kRun, summary.SkipToReaching(0, 49));
    EXPECT_EQ(kRun + 1, summary.SkipToReaching(0, 50)) << "must lie beyond the position";
    EXPECT_EQ(kRun + 1, summary.SkipToCovering(0, 20)) << "covers nothing";
}

TEST(SegmentSummaryTest, AnEndBeyondSixtyFourBitsCountsAsTheLargest) {
    CSegmentSummary summary;
    summary.Add(INT64_MAX - 5, INT64_MAX);
    EXPECT_EQ(0u, summary.SkipToCovering(0, INT64_MAX));
    EXPECT_EQ(0u, summary.SkipToReaching(0, INT64_MAX - 1));
    summary.Clear();
    summary.Add(INT64_MIN + 5, INT64_MIN);
    EXPECT_EQ(1u, summary.SkipToCovering(0, INT64_MIN + 5));
    EXPECT_EQ(0u, summary.SkipToReaching(0, INT64_MIN));
}

TEST(SegmentSummaryTest, ClearForgetsEverything) {
    CSegmentSummary summary;
    Fill(summary, 2 * kRun, 0);
    summary.Clear();
    EXPECT_EQ(0u, summary.GetCount());
    summary.Add(10, 1);
    EXPECT_EQ(1u, summary.GetCount());
    EXPECT_EQ(1u, summary.SkipToCovering(0, 0));
    EXPECT_EQ(0u, summary.SkipToCovering(0, 10));
}

TEST(SegmentSummaryTest, CuttingForgetsTheLastSegments) {
    for (const std::size_t kept : {std::size_t{0}, std::size_t{1}, kRun, kRun + 1, kGroup}) {
        CSegmentSummary summary;
        Fill(summary, kept, 0);
        Fill(summary, kGroup, 500);
        summary.CutTo(kept);
        EXPECT_EQ(kept, summary.GetCount());
        EXPECT_EQ(kept, summary.SkipToCovering(kept, 500));
        Fill(summary, 1, 900);
        EXPECT_EQ(kept + 1, summary.GetCount());
        // The segment added after the cut is found, at the place where it was added or before it.
        EXPECT_LE(summary.SkipToCovering(0, 900), kept);
        EXPECT_EQ(kept, summary.SkipToCovering(kept, 900));
    }
}

TEST(SegmentSummaryTest, ASkipNeverPassesWhatAScanWouldFind) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    std::vector<std::pair<std::int64_t, std::int64_t>> segments;
    CSegmentSummary summary;
    for (std::size_t i = 0; i < 2 * kGroup; ++i) {
        // Places wander, so that runs differ in what they cover.
        const auto offset = static_cast<std::int64_t>(i / 100 * 50 + random() % 5000) - 1000;
        const auto length = static_cast<std::int64_t>(random() % 300) - 50;
        segments.emplace_back(offset, length);
        summary.Add(offset, length);
    }
    std::size_t skipped = 0;
    for (int i = 0; i < 2000; ++i) {
        const auto from = static_cast<std::size_t>(random() % segments.size());
        const auto place = static_cast<std::int64_t>(random() % 25000) - 2000;
        const std::size_t covering = summary.SkipToCovering(from, place);
        const std::size_t reaching = summary.SkipToReaching(from, place);
        ASSERT_GE(covering, from);
        ASSERT_GE(reaching, from);
        for (std::size_t k = from; k < covering; ++k) {
            ASSERT_FALSE(segments[k].first <= place &&
                         place < segments[k].first + segments[k].second)
                << "segment " << k << " covers " << place;
        }
        for (std::size_t k = from; k < reaching; ++k) {
            ASSERT_LE(segments[k].first, place);
            ASSERT_LE(segments[k].first + segments[k].second, place);
        }
        skipped += covering - from;
    }
    EXPECT_GT(skipped, 0u) << "nothing was ever skipped";
}
