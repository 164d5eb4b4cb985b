#include "RecordFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "RuntimeParam.h"

namespace {

constexpr std::size_t RECORDS_PER_READ = CSegmentSummary::RUN;
constexpr auto RECORD_SIZE = static_cast<std::int64_t>(SegmentRecord::SIZE);
constexpr std::int64_t MEBIBYTE = 1 << 20;

}  // namespace

void CRecordFile::Open(const char* pcInfoFile, int iSegmentSizeMB, int iCheckPointSizeMB) {
    m_sInfoFile = pcInfoFile;
    struct stat data {};
    if (stat(pcInfoFile, &data) == 0 && IsInfoFile(data)) {
        m_iInfoFileStart = data.st_size;
    }
    if (iSegmentSizeMB > 0) {
        m_iInfoFileSegmentSize = iSegmentSizeMB * MEBIBYTE;
    }
    if (iCheckPointSizeMB > 0) {
        m_iInfoFileCheckPointSize = iCheckPointSizeMB * MEBIBYTE;
    }
}

void CRecordFile::Close(const FileContext& context) {
    context.pUtilities->CloseCachedFileHandle(context.pRuntimeParam, context.pLogArgu,
                                              m_sInfoFile.c_str());
    m_sInfoFile.clear();
    m_vInfoFileCheckPoint.clear();
    m_RecordSummary.Clear();
}

bool CRecordFile::IsInfoFile(const struct stat& data) {
    if (!m_bInfoFileKnown) {
        m_bInfoFileKnown = true;
        m_iInfoFileDevice = data.st_dev;
        m_iInfoFileNode = data.st_ino;
    }
    return data.st_dev == m_iInfoFileDevice && data.st_ino == m_iInfoFileNode;
}

void CRecordFile::CheckLength(std::int64_t iLen) {
    if (iLen != GetRecordPos(m_RecordSummary.GetCount())) {
        m_bRecordSummaryValid = false;
    }
}

CRecordFile::Use::Use(CRecordFile* pRecords, const FileContext& context)
    : m_pRecords(pRecords),
      m_Context(context),
      m_File(context, pRecords->m_sInfoFile.c_str(), true) {
    if (!m_File.IsOpen()) {
        return;
    }
    struct stat data {};
    if (fstat(m_File.GetDescriptor(), &data) != 0 || !pRecords->IsInfoFile(data)) {
        // The records went away with a rename, and what lies here now is somebody's file: it must
        // be neither read as records nor written to.
        m_File.Release();
        return;
    }
    m_iFileLen = data.st_size;
    pRecords->CheckLength(m_iFileLen);
}

// =================================================================================================
// Adding
// =================================================================================================

CRecordFile::Mark CRecordFile::GetMark() const {
    return {m_RecordSummary.GetCount(), m_vInfoFileCheckPoint.size(), m_bCheckPointsAscending};
}

void CRecordFile::GoBackTo(const Mark& mark) {
    m_RecordSummary.CutTo(mark.iRecords);
    m_vInfoFileCheckPoint.resize(mark.iCheckPoints);
    m_bCheckPointsAscending = mark.bCheckPointsAscending;
}

void CRecordFile::CreateCheckPointSegment(std::int64_t iRecordPos, const Segment& segment) {
    if (segment.iOffset <= 0 || segment.iOffset % m_iInfoFileCheckPointSize != 0) {
        return;
    }
    if (!m_vInfoFileCheckPoint.empty() && m_vInfoFileCheckPoint.back().iOffset > segment.iOffset) {
        m_bCheckPointsAscending = false;
    }
    m_vInfoFileCheckPoint.push_back({iRecordPos, segment.iOffset});
}

std::int64_t CRecordFile::GetHeadLength(const Segment& segment) const {
    const std::int64_t iBlock = m_iInfoFileSegmentSize;
    const std::int64_t iBlockStart = segment.iOffset / iBlock * iBlock;
    // Division rounds towards 0: the boundary of an offset below 0 lies behind it, and no head is
    // cut off there.
    if (iBlockStart >= segment.iOffset) {
        return 0;
    }
    const WideOffset iRest = WideOffset{iBlockStart} + iBlock - segment.iOffset;
    return iRest < segment.iLength ? static_cast<std::int64_t>(iRest) : 0;
}

// Cuts records off the front of a segment and writes them, a run at a time, behind a place.
class CRecordFile::Use::Appender {
public:
    // REQUIRES: the position of the file is iPos, and the file stays locked.
    Appender(Use* pUse, const Segment& segment, std::int64_t iPos)
        : m_Rest(segment), m_pUse(pUse), m_iPos(iPos) {}

    std::int64_t GetRest() const { return m_Rest.iLength; }
    bool IsOk() const { return m_bOk; }

    void Emit(std::int64_t iLength) {
        CRecordFile& records = *m_pUse->m_pRecords;
        Segment piece = m_Rest;
        piece.iLength = iLength;
        records.CreateCheckPointSegment(m_iPos, piece);
        m_vBytes.resize(m_vBytes.size() + SegmentRecord::SIZE);
        SegmentRecord::Encode(piece, m_vBytes.data() + m_vBytes.size() - SegmentRecord::SIZE);
        records.m_RecordSummary.Add(piece.iOffset, piece.iLength);
        m_iPos += RECORD_SIZE;
        // The lines of file access tell of each record.
        if (m_pUse->m_Context.pRuntimeParam->IsLogFileAccess() ||
            m_vBytes.size() >= RECORDS_PER_READ * SegmentRecord::SIZE) {
            Flush();
        }
        m_Rest.iFileOffset =
            static_cast<std::int64_t>(Unsigned(m_Rest.iFileOffset) + Unsigned(iLength));
        m_Rest.iOffset += iLength;
        m_Rest.iLength -= iLength;
    }

    void Flush() {
        const auto iLen = static_cast<unsigned int>(m_vBytes.size());
        m_bOk =
            m_bOk && (iLen == 0 || m_pUse->m_File.OS_FileWrite(m_pUse->m_Context, m_vBytes.data(),
                                                               iLen) == static_cast<int>(iLen));
        m_vBytes.clear();
    }

private:
    Segment m_Rest;
    Use* m_pUse;
    std::int64_t m_iPos;  // of the next record, in the info file
    std::vector<unsigned char> m_vBytes;
    bool m_bOk = true;  // everything was written so far
};

bool CRecordFile::Use::Add(const Segment& segment) {
    const auto lock = m_File.Lock();
    const std::int64_t iBegin = m_File.OS_FileSeek(m_Context, 0, SEEK_END);
    if (iBegin < 0) {
        return false;
    }
    m_pRecords->CheckLength(iBegin);
    const Mark mark = m_pRecords->GetMark();
    const std::int64_t iBlock = m_pRecords->m_iInfoFileSegmentSize;

    Appender appender(this, segment, iBegin);
    const std::int64_t iHead = m_pRecords->GetHeadLength(segment);
    if (iHead > 0) {
        appender.Emit(iHead);
    }
    while (appender.GetRest() > iBlock && appender.IsOk()) {
        appender.Emit(iBlock);
    }
    if (appender.GetRest() > 0) {
        appender.Emit(appender.GetRest());
    }
    appender.Flush();
    if (!appender.IsOk()) {
        // A part of a record would put every later one out of step.
        if (ftruncate(m_File.GetDescriptor(), iBegin) != 0) {
            m_pRecords->m_bRecordSummaryValid = false;
        }
        m_pRecords->GoBackTo(mark);
    }
    return appender.IsOk();
}

// =================================================================================================
// The walk
// =================================================================================================

std::int64_t CRecordFile::EstimateRecord(std::int64_t iSeek) const {
    const auto recordsAhead = [this](std::int64_t iBytes) {
        return iBytes / m_iInfoFileSegmentSize * RECORD_SIZE;
    };
    if (iSeek >= m_iInfoFileCheckPointSize) {
        // The last checkpoint made that lies at or before the offset.
        const auto isBefore = [iSeek](const CheckPointSegment& point) {
            return point.iOffset <= iSeek;
        };
        const auto it =
            m_bCheckPointsAscending
                ? std::make_reverse_iterator(std::partition_point(
                      m_vInfoFileCheckPoint.begin(), m_vInfoFileCheckPoint.end(), isBefore))
                : std::find_if(m_vInfoFileCheckPoint.rbegin(), m_vInfoFileCheckPoint.rend(),
                               isBefore);
        if (it != m_vInfoFileCheckPoint.rend()) {
            return it->iFileOffset + recordsAhead(iSeek - it->iOffset);
        }
    }
    return m_iInfoFileStart + recordsAhead(iSeek);
}

std::size_t CRecordFile::GetRecordNumber(std::int64_t iPos) const {
    return static_cast<std::size_t>(iPos - m_iInfoFileStart) / SegmentRecord::SIZE;
}

std::int64_t CRecordFile::GetRecordPos(std::size_t iNumber) const {
    return m_iInfoFileStart + static_cast<std::int64_t>(iNumber * SegmentRecord::SIZE);
}

bool CRecordFile::Use::ReadChunk() {
    RecordChunk& chunk = m_pRecords->m_Chunk;
    std::size_t iRecords = RECORDS_PER_READ;
    if (m_pRecords->m_bRecordSummaryValid) {
        iRecords -= m_pRecords->GetRecordNumber(m_iRecordPos) % RECORDS_PER_READ;
    }
    chunk.vBytes.resize(RECORDS_PER_READ * SegmentRecord::SIZE);
    chunk.iPos = m_iRecordPos;
    chunk.iLen = 0;
    const auto lock = m_File.Lock();
    if (m_File.OS_FileSeek(m_Context, m_iRecordPos, SEEK_SET) < 0) {
        return false;
    }
    const int iRead = m_File.OS_FileRead(m_Context, chunk.vBytes.data(),
                                         static_cast<unsigned int>(iRecords * SegmentRecord::SIZE));
    chunk.iLen = iRead > 0 ? static_cast<std::size_t>(iRead) : 0;
    return chunk.iLen >= SegmentRecord::SIZE;
}

bool CRecordFile::Use::ReadRecord(Segment* pSegment) {
    if (m_iRecordPos + RECORD_SIZE > m_iFileLen) {
        return false;  // also of a file that grows as fast as it is read
    }
    const RecordChunk& chunk = m_pRecords->m_Chunk;
    const std::int64_t iAhead = m_iRecordPos - chunk.iPos;
    const bool bInChunk =
        iAhead >= 0 && iAhead + RECORD_SIZE <= static_cast<std::int64_t>(chunk.iLen);
    if (!bInChunk && !ReadChunk()) {
        return false;
    }
    *pSegment = SegmentRecord::Decode(chunk.vBytes.data() + (m_iRecordPos - chunk.iPos));
    m_iRecordPos += RECORD_SIZE;
    return true;
}

void CRecordFile::Use::GetSegment(std::int64_t iSeek, ProcSegment* pProcSegment) {
    pProcSegment->index = -1;
    m_pRecords->m_Chunk.iLen = 0;  // records may have been added since
    m_iRecordPos = m_pRecords->EstimateRecord(iSeek);
    const CSegmentSummary& summary = m_pRecords->m_RecordSummary;
    Segment segment;
    for (;;) {
        if (m_pRecords->m_bRecordSummaryValid) {
            const std::size_t iNumber =
                summary.SkipToCovering(m_pRecords->GetRecordNumber(m_iRecordPos), iSeek);
            if (iNumber >= summary.GetCount()) {
                return;
            }
            m_iRecordPos = m_pRecords->GetRecordPos(iNumber);
        }
        if (!ReadRecord(&segment)) {
            return;
        }
        if (segment.Covers(iSeek)) {
            // Only what starts at or behind the beginning of the file counts as found.
            pProcSegment->index = segment.iOffset;
            pProcSegment->segment = segment;
            return;
        }
    }
}

void CRecordFile::Use::GetNextSegment(ProcSegment* pProcSegment) {
    if (pProcSegment->index < 0) {
        return;
    }
    if (!ReadRecord(&pProcSegment->segment)) {
        pProcSegment->index = -1;
        return;
    }
    if (pProcSegment->index < INT64_MAX) {  // at the largest offset it stays: still found
        ++pProcSegment->index;
    }
}

void CRecordFile::Use::SkipPassed(std::int64_t iPos, ProcSegment* /*pProcSegment*/) {
    if (m_pRecords->m_bRecordSummaryValid) {
        m_iRecordPos = m_pRecords->GetRecordPos(m_pRecords->m_RecordSummary.SkipToReaching(
            m_pRecords->GetRecordNumber(m_iRecordPos), iPos));
    }
}
