// Where the segments of a redirected file are kept, and the walk that a read takes through them.
#ifndef VELOCAST_SEGMENTSTORE_H
#define VELOCAST_SEGMENTSTORE_H

#include <cstdint>

#include "Segment.h"

// A store lasts for one operation of the file at least.  The cursor of a walk comes from
// GetSegment; nothing is added during a walk.
//
// Thread safety: none.
class ISegmentStore {
public:
    virtual ~ISegmentStore() = default;

    // False when it cannot be kept; then nothing of it is.
    virtual bool Add(const Segment& segment) = 0;

    // The walk: find, part, next, skip.

    // The segment that covers the offset; which one, where several do, is the store's own rule.
    virtual void GetSegment(std::int64_t iSeek, ProcSegment* pProcSegment) = 0;
    // The part of that segment which alone fills [iSeek, iSeek + iLen).  False where more than one
    // is needed, and where it would cost as much as the whole segment.
    virtual bool GetPart(std::int64_t iSeek, unsigned int iLen, Segment* pPart) const = 0;
    // The next segment in the order of adding, wherever it lies.
    virtual void GetNextSegment(ProcSegment* pProcSegment) = 0;
    // Moves the cursor so that the next segments which neither begin nor end beyond iPos, and so
    // add nothing to a read, need not be looked at.
    virtual void SkipPassed(std::int64_t iPos, ProcSegment* pProcSegment) = 0;
};

#endif
