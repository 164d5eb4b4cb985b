// The text listing of the checkpoints and segments of a redirected file.
#ifndef VELOCAST_SEGMENTLISTING_H
#define VELOCAST_SEGMENTLISTING_H

#include <string>
#include <vector>

#include "ExportTarget.h"
#include "Segment.h"
#include "SourceList.h"

// Lines are gathered and written together.
//
// Thread safety: none.
class CSegmentListing {
public:
    // Target and sources are borrowed, the target is open.  With bLineByLine each line is written
    // at once: the log lines of file access then tell of each.
    CSegmentListing(CExportTarget* pTarget, const CSourceList* pSources, bool bLineByLine);

    void WriteCheckPoint(const CheckPointSegment& point);
    // Ends the checkpoints.
    void WriteSeparator();
    void WriteSegment(const Segment& segment);
    // Joins neighbours of one source into a line, which is written when the next source comes.
    void MergeSegment(const Segment& segment);
    // Writes the line of the last neighbours, also when there was none: all zeros, of source 0.
    void WriteMerged();
    // Writes what has been gathered.
    void Flush();

private:
    void WriteLine(const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);

    Segment m_Merged;
    bool m_bMerging = false;  // m_Merged stands for at least one segment
    bool m_bLineByLine;
    CExportTarget* m_pTarget;
    const CSourceList* m_pSources;
    std::vector<char> m_vLine;
    std::string m_sLines;
};

#endif
