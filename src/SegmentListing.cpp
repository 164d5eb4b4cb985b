#include "SegmentListing.h"

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace {

constexpr std::size_t LINE_SIZE = 65536;      // bytes, with its NUL; longer lines are cut
constexpr std::size_t GATHERED_SIZE = 65536;  // bytes, from which on lines are written

}  // namespace

CSegmentListing::CSegmentListing(CExportTarget* pTarget, const CSourceList* pSources,
                                 bool bLineByLine)
    : m_bLineByLine(bLineByLine), m_pTarget(pTarget), m_pSources(pSources), m_vLine(LINE_SIZE) {}

void CSegmentListing::WriteLine(const char* pcFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    std::vsnprintf(m_vLine.data(), m_vLine.size(), pcFmt, vaArgs);
    va_end(vaArgs);
    m_sLines += m_vLine.data();
    if (m_bLineByLine || m_sLines.size() >= GATHERED_SIZE) {
        Flush();
    }
}

void CSegmentListing::Flush() {
    if (!m_sLines.empty()) {
        m_pTarget->Write(m_sLines.data(), static_cast<unsigned int>(m_sLines.size()));
        m_sLines.clear();
    }
}

void CSegmentListing::WriteCheckPoint(const CheckPointSegment& point) {
    WriteLine("--> CheckPoint Segment fox=%llu, ox=%llu\n", Unsigned(point.iFileOffset),
              Unsigned(point.iOffset));
}

void CSegmentListing::WriteSeparator() { WriteLine("%s", "-------------------\n"); }

void CSegmentListing::WriteSegment(const Segment& segment) {
    WriteLine("Segment path=%s, fox=%llu, ox=%llu, len=%llu\n",
              m_pSources->GetText(segment.iSource), Unsigned(segment.iFileOffset),
              Unsigned(segment.iOffset), Unsigned(segment.iLength));
}

void CSegmentListing::MergeSegment(const Segment& segment) {
    if (m_bMerging && m_Merged.iSource == segment.iSource) {
        m_Merged.iLength =
            static_cast<std::int64_t>(Unsigned(m_Merged.iLength) + Unsigned(segment.iLength));
        return;
    }
    if (m_bMerging) {
        WriteMerged();
    }
    m_Merged = segment;
    m_bMerging = true;
}

void CSegmentListing::WriteMerged() {
    WriteLine("--> Merged Segment path=%s, fox=%llu, ox=%llu, len=%llu\n",
              m_pSources->GetText(m_Merged.iSource), Unsigned(m_Merged.iFileOffset),
              Unsigned(m_Merged.iOffset), Unsigned(m_Merged.iLength));
}
