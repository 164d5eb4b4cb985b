#include "SegmentSummary.h"

#include <algorithm>

void CSegmentSummary::Extent::Add(std::int64_t iOffset, std::int64_t iLength) {
    std::int64_t iSegmentEnd = 0;
    if (__builtin_add_overflow(iOffset, iLength, &iSegmentEnd)) {
        iSegmentEnd = iLength > 0 ? INT64_MAX : INT64_MIN;
    }
    if (iLength > 0) {
        iStart = std::min(iStart, iOffset);
        iEnd = std::max(iEnd, iSegmentEnd);
    }
    iReach = std::max({iReach, iOffset, iSegmentEnd});
}

void CSegmentSummary::Clear() {
    m_vRuns.clear();
    m_vGroups.clear();
    m_iCount = 0;
}

void CSegmentSummary::Add(std::int64_t iOffset, std::int64_t iLength) {
    if (m_iCount % RUN == 0) {
        m_vRuns.emplace_back();
    }
    if (m_iCount % (RUN * GROUP) == 0) {
        m_vGroups.emplace_back();
    }
    m_vRuns.back().Add(iOffset, iLength);
    m_vGroups.back().Add(iOffset, iLength);
    ++m_iCount;
}

void CSegmentSummary::CutTo(std::size_t iCount) {
    m_vRuns.resize((iCount + RUN - 1) / RUN);
    m_vGroups.resize((iCount + RUN * GROUP - 1) / (RUN * GROUP));
    m_iCount = iCount;
}

template <typename Accepts>
std::size_t CSegmentSummary::Skip(std::size_t iSegment, Accepts accepts) const {
    if (iSegment >= m_iCount) {
        return iSegment;
    }
    if (accepts(m_vRuns[iSegment / RUN])) {
        return iSegment;
    }
    for (std::size_t iRun = iSegment / RUN + 1; iRun < m_vRuns.size();) {
        if (iRun % GROUP == 0 && !accepts(m_vGroups[iRun / GROUP])) {
            iRun += GROUP;
        } else if (!accepts(m_vRuns[iRun])) {
            ++iRun;
        } else {
            return iRun * RUN;
        }
    }
    return m_iCount;
}

std::size_t CSegmentSummary::SkipToCovering(std::size_t iSegment, std::int64_t iOffset) const {
    return Skip(iSegment, [iOffset](const Extent& extent) {
        return extent.iStart <= iOffset && iOffset <= extent.iEnd;
    });
}

std::size_t CSegmentSummary::SkipToReaching(std::size_t iSegment, std::int64_t iPos) const {
    return Skip(iSegment, [iPos](const Extent& extent) { return extent.iReach > iPos; });
}
