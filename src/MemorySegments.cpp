#include "MemorySegments.h"

#include <cstddef>

void CMemorySegments::Clear() {
    m_vAllCachedSegment.clear();
    m_SegmentIndex.Clear();
    m_SegmentSummary.Clear();
}

bool CMemorySegments::Add(const Segment& segment) {
    if (segment.iLength > 0) {
        m_SegmentIndex.Add({segment.iOffset, segment.iOffset + segment.iLength,
                            Unsigned(segment.iFileOffset) - Unsigned(segment.iOffset),
                            static_cast<std::uint32_t>(m_vAllCachedSegment.size()),
                            segment.iSource});
    }
    m_SegmentSummary.Add(segment.iOffset, segment.iLength);
    m_vAllCachedSegment.push_back(segment);
    return true;
}

void CMemorySegments::GetSegment(std::int64_t iSeek, ProcSegment* pProcSegment) {
    pProcSegment->index = -1;
    const CSegmentIndex::Piece* pPiece = m_SegmentIndex.Find(iSeek);
    if (pPiece != nullptr) {
        pProcSegment->index = pPiece->iSegment;
        pProcSegment->segment = m_vAllCachedSegment[pPiece->iSegment];
    }
}

bool CMemorySegments::GetPart(std::int64_t iSeek, unsigned int iLen, Segment* pPart) const {
    const CSegmentIndex::Piece* pPiece = m_SegmentIndex.Find(iSeek);
    if (pPiece == nullptr || WideOffset{pPiece->iEnd} - iSeek < iLen) {
        return false;
    }
    *pPart = {pPiece->iSource, static_cast<std::int64_t>(Unsigned(iSeek) + pPiece->iShift), iSeek,
              pPiece->iEnd - iSeek};
    return true;
}

void CMemorySegments::GetNextSegment(ProcSegment* pProcSegment) {
    if (pProcSegment->index < 0) {
        return;
    }
    const auto iNext = static_cast<std::size_t>(pProcSegment->index) + 1;
    if (iNext >= m_vAllCachedSegment.size()) {
        pProcSegment->index = -1;
        return;
    }
    pProcSegment->index = static_cast<std::int64_t>(iNext);
    pProcSegment->segment = m_vAllCachedSegment[iNext];
}

void CMemorySegments::SkipPassed(std::int64_t iPos, ProcSegment* pProcSegment) {
    const auto iNext = static_cast<std::size_t>(pProcSegment->index) + 1;
    const std::size_t iReaching = m_SegmentSummary.SkipToReaching(iNext, iPos);
    pProcSegment->index = static_cast<std::int64_t>(iReaching) - 1;
}
