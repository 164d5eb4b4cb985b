// The segments of a redirected file without an info file.
#ifndef VELOCAST_MEMORYSEGMENTS_H
#define VELOCAST_MEMORYSEGMENTS_H

#include <cstdint>
#include <vector>

#include "SegmentIndex.h"
#include "SegmentStore.h"
#include "SegmentSummary.h"

// Segments are kept whole, in the order of adding.  Of those that overlap, the first one added is
// found.  The index of a cursor is the place in the list:
//
//     m_vAllCachedSegment   | 0: [0,100) | 1: [50,200) | 2: [300,400) |    as added
//     m_SegmentIndex        [0,100) is 0   [100,200) is 1   [300,400) is 2   finds by offset
//     m_SegmentSummary      what segments 0 to 255, 256 to 511, ... reach    lets the walk skip
//
// Thread safety: none.
class CMemorySegments final : public ISegmentStore {
public:
    void Clear();

    bool Add(const Segment& segment) override;
    void GetSegment(std::int64_t iSeek, ProcSegment* pProcSegment) override;
    bool GetPart(std::int64_t iSeek, unsigned int iLen, Segment* pPart) const override;
    void GetNextSegment(ProcSegment* pProcSegment) override;
    void SkipPassed(std::int64_t iPos, ProcSegment* pProcSegment) override;

private:
    std::vector<Segment> m_vAllCachedSegment;
    CSegmentIndex m_SegmentIndex;
    CSegmentSummary m_SegmentSummary;
};

#endif
