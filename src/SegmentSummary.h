// What each run of consecutive segments can cover, so that a walk in their order may pass over
// whole runs.
#ifndef VELOCAST_SEGMENTSUMMARY_H
#define VELOCAST_SEGMENTSUMMARY_H

#include <cstddef>
#include <cstdint>
#include <vector>

// Thread safety: none.
class CSegmentSummary {
public:
    static constexpr std::size_t RUN = 256;   // segments of a run
    static constexpr std::size_t GROUP = 64;  // runs of a group

    void Clear();
    // Adds the next segment, of any sign.
    void Add(std::int64_t iOffset, std::int64_t iLength);
    // Forgets all but the first iCount segments (no more than there are).  What stays may claim to
    // cover what only the forgotten ones did.
    void CutTo(std::size_t iCount);
    std::size_t GetCount() const { return m_iCount; }

    // iSegment, or the first segment of the next run, that may cover the offset; GetCount() when
    // there is none.  Never before iSegment, which may lie behind all segments.
    std::size_t SkipToCovering(std::size_t iSegment, std::int64_t iOffset) const;
    // The same for segments that begin or end beyond the position.
    std::size_t SkipToReaching(std::size_t iSegment, std::int64_t iPos) const;

private:
    struct Extent {
        std::int64_t iStart = INT64_MAX;  // least start of a segment that covers anything
        std::int64_t iEnd = INT64_MIN;    // greatest end of one (exclusive; INT64_MAX: or beyond)
        std::int64_t iReach = INT64_MIN;  // greatest start or end of any segment

        void Add(std::int64_t iOffset, std::int64_t iLength);
    };

    template <typename Accepts>
    std::size_t Skip(std::size_t iSegment, Accepts accepts) const;

    std::vector<Extent> m_vRuns;
    std::vector<Extent> m_vGroups;
    std::size_t m_iCount = 0;
};

#endif
