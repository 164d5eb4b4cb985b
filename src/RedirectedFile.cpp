#include "RedirectedFile.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string_view>

#include "RuntimeParam.h"

namespace {

// Exact sums and differences of offsets at the edges of 64 bits.
__extension__ using Wide = __int128;

constexpr std::size_t RECORDS_PER_READ = CSegmentSummary::RUN;
constexpr unsigned int EXPORT_SIZE = 65536;  // bytes of one step of an export
constexpr std::size_t LISTING_LINE = 65536;  // bytes, with its NUL; longer lines are cut
constexpr std::int64_t MEBIBYTE = 1 << 20;
constexpr int PIPE_WAITS = 20;    // how often an export waits for the reader of a full pipe,
constexpr int PIPE_WAIT_MS = 50;  // and how long each time

template <typename Value>
void EncodeLittleEndian(Value value, unsigned char* pc) {
    for (std::size_t i = 0; i < sizeof(value); ++i) {
        pc[i] = static_cast<unsigned char>(static_cast<std::uint64_t>(value) >> (8 * i));
    }
}

template <typename Value>
Value DecodeLittleEndian(const unsigned char* pc) {
    std::uint64_t iValue = 0;
    for (std::size_t i = 0; i < sizeof(Value); ++i) {
        iValue |= static_cast<std::uint64_t>(pc[i]) << (8 * i);
    }
    return static_cast<Value>(iValue);
}

Wide End(const Segment& segment) { return Wide{segment.iOffset} + segment.iLength; }

bool Covers(const Segment& segment, std::int64_t iSeek) {
    return segment.iOffset <= iSeek && iSeek < End(segment);
}

// A format with "%I64u", the unsigned 64-bit decimal of other systems, for this system's printf.
std::string ExpandI64(std::string sFmt) {
    static constexpr std::string_view I64 = "%I64u";
    for (std::size_t i = sFmt.find(I64); i != std::string::npos; i = sFmt.find(I64, i)) {
        sFmt.replace(i, I64.size(), "%llu");
    }
    return sFmt;
}

unsigned long long Unsigned(std::int64_t i) { return static_cast<unsigned long long>(i); }

// False when a pipe stays full.  In short waits, so that signals can neither end it nor renew it.
bool WaitForRoom(int iFile) {
    for (int i = 0; i < PIPE_WAITS; ++i) {
        pollfd room{iFile, POLLOUT, 0};
        if (poll(&room, 1, PIPE_WAIT_MS) > 0) {
            return true;
        }
    }
    return false;
}

// No offset lies beyond 64 bits.
std::int64_t ClipToOffset(Wide i) {
    return static_cast<std::int64_t>(std::min(i, Wide{INT64_MAX}));
}

}  // namespace

static_assert(SegmentRecord::FILE_OFFSET == SegmentRecord::SOURCE + sizeof(Segment::iSource));
static_assert(SegmentRecord::OFFSET == SegmentRecord::FILE_OFFSET + sizeof(Segment::iFileOffset));
static_assert(SegmentRecord::LENGTH == SegmentRecord::OFFSET + sizeof(Segment::iOffset));
static_assert(SegmentRecord::SIZE == SegmentRecord::LENGTH + sizeof(Segment::iLength));

void SegmentRecord::Encode(const Segment& segment, unsigned char* pcRecord) {
    EncodeLittleEndian(segment.iSource, pcRecord + SOURCE);
    EncodeLittleEndian(segment.iFileOffset, pcRecord + FILE_OFFSET);
    EncodeLittleEndian(segment.iOffset, pcRecord + OFFSET);
    EncodeLittleEndian(segment.iLength, pcRecord + LENGTH);
}

Segment SegmentRecord::Decode(const unsigned char* pcRecord) {
    return {DecodeLittleEndian<std::int32_t>(pcRecord + SOURCE),
            DecodeLittleEndian<std::int64_t>(pcRecord + FILE_OFFSET),
            DecodeLittleEndian<std::int64_t>(pcRecord + OFFSET),
            DecodeLittleEndian<std::int64_t>(pcRecord + LENGTH)};
}

// =================================================================================================
// Life
// =================================================================================================

CRedirectedFile::CRedirectedFile(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}

CRedirectedFile::~CRedirectedFile() {
    CRuntimeParam param("", 0);
    Close(&param);
}

void CRedirectedFile::Open(CRuntimeParam* pRuntimeParam, std::int64_t iSize, int iId,
                           const char* pcInfoFile, int iInfoFileSegmentSizeMB,
                           int iInfoFileCheckPointSizeMB) {
    m_iSize = iSize;
    m_iId = iId;
    if (pcInfoFile != nullptr) {
        m_sInfoFile = pcInfoFile;
        struct stat data {};
        if (stat(pcInfoFile, &data) == 0 && IsInfoFile(data)) {
            m_iInfoFileStart = data.st_size;
        }
        if (iInfoFileSegmentSizeMB > 0) {
            m_iInfoFileSegmentSize = iInfoFileSegmentSizeMB * MEBIBYTE;
        }
        if (iInfoFileCheckPointSizeMB > 0) {
            m_iInfoFileCheckPointSize = iInfoFileCheckPointSizeMB * MEBIBYTE;
        }
    }
    if (pRuntimeParam->IsLogRedirectFile()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] id=%d, size=%llu (path=%s)",
                              "RedirectedFile.Open", m_iId, Unsigned(m_iSize), m_sInfoFile.c_str());
    }
}

void CRedirectedFile::Close(CRuntimeParam* pRuntimeParam) {
    if (m_bClosed) {
        return;
    }
    m_bClosed = true;
    LogArgu logArgu{"RedirectedFile.Close"};
    m_vAllCachedSegment.clear();
    m_SegmentIndex.Clear();
    m_SegmentSummary.Clear();
    m_pUtilities->CloseCachedFileHandle(pRuntimeParam, &logArgu, m_sInfoFile.c_str());
    m_sInfoFile.clear();
    m_vInfoFileCheckPoint.clear();
    m_RecordSummary.Clear();
    for (const std::string& sSource : m_vSource) {
        m_pUtilities->CloseCachedFileHandle(pRuntimeParam, &logArgu, sSource.c_str());
    }
    m_vSource.clear();
    m_mSourceIndex.clear();
}

CRedirectedFile::Context CRedirectedFile::MakeContext(CRuntimeParam* pRuntimeParam,
                                                      LogArgu* pLogArgu) {
    Context context{
        pRuntimeParam, pLogArgu,
        m_pUtilities->UseCachedFile(pRuntimeParam, pLogArgu, m_sInfoFile.c_str(), true)};
    if (context.infoFile.iFile == -1) {
        return context;
    }
    struct stat data {};
    if (fstat(context.infoFile.iFile, &data) != 0 || !IsInfoFile(data)) {
        // The records went away with a rename, and what lies here now is somebody's file: it must
        // be neither read as records nor written to.
        context.infoFile = {};
        return context;
    }
    context.iInfoFileLen = data.st_size;
    if (context.iInfoFileLen !=
        m_iInfoFileStart +
            static_cast<std::int64_t>(m_RecordSummary.GetCount() * SegmentRecord::SIZE)) {
        m_bRecordSummaryValid = false;  // somebody else has written to the file, or cut it
    }
    return context;
}

bool CRedirectedFile::IsInfoFile(const struct stat& data) {
    if (!m_bInfoFileKnown) {
        m_bInfoFileKnown = true;
        m_iInfoFileDevice = data.st_dev;
        m_iInfoFileNode = data.st_ino;
    }
    return data.st_dev == m_iInfoFileDevice && data.st_ino == m_iInfoFileNode;
}

// =================================================================================================
// Adding segments
// =================================================================================================

std::int32_t CRedirectedFile::RegisterSource(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                             const char* pcSourcePath) {
    // Both lines print the ID of this file, by which they belong together with its other lines.
    if (pcSourcePath == nullptr || *pcSourcePath == '\0') {
        if (pRuntimeParam->IsLogRedirectFile()) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Reference src (%d): Null", pLogArgu->pcName,
                                  m_iId);
        }
        return -1;
    }
    const auto [it, bNew] =
        m_mSourceIndex.try_emplace(pcSourcePath, static_cast<std::int32_t>(m_vSource.size()));
    if (bNew) {
        m_vSource.emplace_back(pcSourcePath);
    }
    if (pRuntimeParam->IsLogRedirectFile()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Reference src (%d): %s", pLogArgu->pcName, m_iId,
                              pcSourcePath);
    }
    return it->second;
}

bool CRedirectedFile::AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSourcePath,
                                 std::int64_t iSrcFileOffset, std::int64_t iOffset,
                                 std::int64_t iLength, char* /*pcStatus*/) {
    LogArgu logArgu{"RedirectedFile.AddSegment"};
    const std::int32_t iSource = RegisterSource(pRuntimeParam, &logArgu, pcSourcePath);
    if (iOffset >= m_iSize) {
        return false;
    }
    if (Wide{iOffset} + iLength >= m_iSize) {
        iLength = static_cast<std::int64_t>(Wide{m_iSize} - iOffset);
    }
    const Segment segment{iSource, iSrcFileOffset, iOffset, iLength};
    const Context context = MakeContext(pRuntimeParam, &logArgu);
    if (context.infoFile.iFile == -1) {
        if (iLength > 0) {
            m_SegmentIndex.Add({iOffset, iOffset + iLength,
                                Unsigned(iSrcFileOffset) - Unsigned(iOffset),
                                static_cast<std::uint32_t>(m_vAllCachedSegment.size()), iSource});
        }
        m_SegmentSummary.Add(iOffset, iLength);
        m_vAllCachedSegment.push_back(segment);
    } else if (!AppendRecords(context, segment)) {
        return false;
    }
    if (pRuntimeParam->IsLogRedirectFile()) {
        const std::string sFmt = ExpandI64("[%s] Segment id=%d, fox=%I64u, ox=%I64u, len=%I64u");
        m_pUtilities->LogInfo(pRuntimeParam, sFmt.c_str(), logArgu.pcName, m_iId,
                              Unsigned(iSrcFileOffset), Unsigned(iOffset), Unsigned(iLength));
    }
    return true;
}

bool CRedirectedFile::AppendRecords(const Context& context, Segment segment) {
    const std::lock_guard<std::mutex> lock(context.infoFile.pUse->m_hMutex);
    const int iFile = context.infoFile.iFile;
    const std::int64_t iBegin = OS_FileSeek(context, iFile, 0, SEEK_END);
    if (iBegin < 0) {
        return false;
    }
    if (iBegin != m_iInfoFileStart +
                      static_cast<std::int64_t>(m_RecordSummary.GetCount() * SegmentRecord::SIZE)) {
        m_bRecordSummaryValid = false;  // somebody else has written to the file, or cut it
    }
    const std::size_t iCheckPoints = m_vInfoFileCheckPoint.size();
    const bool bAscending = m_bCheckPointsAscending;
    const std::size_t iRecords = m_RecordSummary.GetCount();
    std::vector<unsigned char> vBytes;
    std::int64_t iEnd = iBegin;
    bool bOk = true;

    const auto flush = [&] {
        const auto iLen = static_cast<unsigned int>(vBytes.size());
        bOk = bOk && (iLen == 0 || m_pUtilities->OS_FileWrite(
                                       context.pRuntimeParam, context.pLogArgu, iFile,
                                       vBytes.data(), iLen, nullptr) == static_cast<int>(iLen));
        vBytes.clear();
    };
    const auto emit = [&](std::int64_t iLength) {
        Segment piece = segment;
        piece.iLength = iLength;
        CreateCheckPointSegment(iEnd, piece);
        vBytes.resize(vBytes.size() + SegmentRecord::SIZE);
        SegmentRecord::Encode(piece, vBytes.data() + vBytes.size() - SegmentRecord::SIZE);
        m_RecordSummary.Add(piece.iOffset, piece.iLength);
        iEnd += SegmentRecord::SIZE;
        // The lines of file access tell of each record.
        if (context.pRuntimeParam->IsLogFileAccess() ||
            vBytes.size() >= RECORDS_PER_READ * SegmentRecord::SIZE) {
            flush();
        }
        segment.iFileOffset =
            static_cast<std::int64_t>(Unsigned(segment.iFileOffset) + Unsigned(iLength));
        segment.iOffset += iLength;
        segment.iLength -= iLength;
    };

    const std::int64_t iBlock = m_iInfoFileSegmentSize;
    const std::int64_t iBlockStart = segment.iOffset / iBlock * iBlock;
    if (iBlockStart < segment.iOffset) {
        const Wide iRest = Wide{iBlockStart} + iBlock - segment.iOffset;
        if (iRest < segment.iLength) {
            emit(static_cast<std::int64_t>(iRest));
        }
    }
    while (segment.iLength > iBlock && bOk) {
        emit(iBlock);
    }
    if (segment.iLength > 0) {
        emit(segment.iLength);
    }
    flush();
    if (!bOk) {
        // A part of a record would put every later one out of step.
        if (ftruncate(iFile, iBegin) != 0) {
            m_bRecordSummaryValid = false;
        }
        m_RecordSummary.CutTo(iRecords);
        m_vInfoFileCheckPoint.resize(iCheckPoints);
        m_bCheckPointsAscending = bAscending;
    }
    return bOk;
}

void CRedirectedFile::CreateCheckPointSegment(std::int64_t iRecordPos, const Segment& segment) {
    if (segment.iOffset <= 0 || segment.iOffset % m_iInfoFileCheckPointSize != 0) {
        return;
    }
    if (!m_vInfoFileCheckPoint.empty() && m_vInfoFileCheckPoint.back().iOffset > segment.iOffset) {
        m_bCheckPointsAscending = false;
    }
    m_vInfoFileCheckPoint.push_back({iRecordPos, segment.iOffset});
}

// =================================================================================================
// Finding segments
// =================================================================================================

std::int64_t CRedirectedFile::EstimateRecord(std::int64_t iSeek) const {
    const auto recordsAhead = [this](std::int64_t iBytes) {
        return iBytes / m_iInfoFileSegmentSize * static_cast<std::int64_t>(SegmentRecord::SIZE);
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

std::size_t CRedirectedFile::GetRecordNumber() const {
    return static_cast<std::size_t>(m_iRecordPos - m_iInfoFileStart) / SegmentRecord::SIZE;
}

bool CRedirectedFile::ReadRecord(const Context& context, Segment* pSegment) {
    if (m_iRecordPos + static_cast<std::int64_t>(SegmentRecord::SIZE) > context.iInfoFileLen ||
        m_pUtilities->AreExportsStopped()) {
        return false;  // also of a file that grows as fast as it is read
    }
    const std::int64_t iAhead = m_iRecordPos - m_Chunk.iPos;
    if (iAhead < 0 || iAhead + static_cast<std::int64_t>(SegmentRecord::SIZE) >
                          static_cast<std::int64_t>(m_Chunk.iLen)) {
        std::size_t iRecords = RECORDS_PER_READ;
        if (m_bRecordSummaryValid) {
            iRecords -= GetRecordNumber() % RECORDS_PER_READ;  // up to where the next run begins
        }
        m_Chunk.vBytes.resize(RECORDS_PER_READ * SegmentRecord::SIZE);
        m_Chunk.iPos = m_iRecordPos;
        m_Chunk.iLen = 0;
        const std::lock_guard<std::mutex> lock(context.infoFile.pUse->m_hMutex);
        if (OS_FileSeek(context, context.infoFile.iFile, m_iRecordPos, SEEK_SET) < 0) {
            return false;
        }
        const int iRead = OS_FileRead(context, context.infoFile.iFile, m_Chunk.vBytes.data(),
                                      static_cast<unsigned int>(iRecords * SegmentRecord::SIZE));
        m_Chunk.iLen = iRead > 0 ? static_cast<std::size_t>(iRead) : 0;
        if (m_Chunk.iLen < SegmentRecord::SIZE) {
            return false;
        }
    }
    *pSegment = SegmentRecord::Decode(m_Chunk.vBytes.data() + (m_iRecordPos - m_Chunk.iPos));
    m_iRecordPos += static_cast<std::int64_t>(SegmentRecord::SIZE);
    return true;
}

void CRedirectedFile::GetSegment(const Context& context, std::int64_t iSeek,
                                 ProcSegment* pProcSegment) {
    pProcSegment->index = -1;
    if (context.infoFile.iFile == -1) {
        const CSegmentIndex::Piece* pPiece = m_SegmentIndex.Find(iSeek);
        if (pPiece != nullptr) {
            pProcSegment->index = pPiece->iSegment;
            pProcSegment->segment = m_vAllCachedSegment[pPiece->iSegment];
        }
        return;
    }
    m_Chunk.iLen = 0;  // records may have been added since
    m_iRecordPos = EstimateRecord(iSeek);
    Segment segment;
    for (;;) {
        if (m_bRecordSummaryValid) {
            const std::size_t iNumber = m_RecordSummary.SkipToCovering(GetRecordNumber(), iSeek);
            if (iNumber >= m_RecordSummary.GetCount()) {
                return;
            }
            m_iRecordPos =
                m_iInfoFileStart + static_cast<std::int64_t>(iNumber * SegmentRecord::SIZE);
        }
        if (!ReadRecord(context, &segment)) {
            return;
        }
        if (Covers(segment, iSeek)) {
            // Only what starts at or behind the beginning of the file counts as found.
            pProcSegment->index = segment.iOffset;
            pProcSegment->segment = segment;
            return;
        }
    }
}

bool CRedirectedFile::GetPart(const Context& context, std::int64_t iSeek, unsigned int iLen,
                              Segment* pPart) const {
    if (context.infoFile.iFile != -1) {
        return false;
    }
    const CSegmentIndex::Piece* pPiece = m_SegmentIndex.Find(iSeek);
    if (pPiece == nullptr || Wide{pPiece->iEnd} - iSeek < iLen) {
        return false;
    }
    *pPart = {pPiece->iSource, static_cast<std::int64_t>(Unsigned(iSeek) + pPiece->iShift), iSeek,
              pPiece->iEnd - iSeek};
    return true;
}

void CRedirectedFile::GetNextSegment(const Context& context, ProcSegment* pProcSegment) {
    if (pProcSegment->index < 0) {
        return;
    }
    if (context.infoFile.iFile == -1) {
        const auto iNext = static_cast<std::size_t>(pProcSegment->index) + 1;
        if (iNext >= m_vAllCachedSegment.size()) {
            pProcSegment->index = -1;
            return;
        }
        pProcSegment->index = static_cast<std::int64_t>(iNext);
        pProcSegment->segment = m_vAllCachedSegment[iNext];
        return;
    }
    if (!ReadRecord(context, &pProcSegment->segment)) {
        pProcSegment->index = -1;
        return;
    }
    if (pProcSegment->index < INT64_MAX) {  // at the largest offset it stays: still found
        ++pProcSegment->index;
    }
}

void CRedirectedFile::SkipPassed(const Context& context, std::int64_t iPos,
                                 ProcSegment* pProcSegment) {
    if (context.infoFile.iFile == -1) {
        const auto iNext = static_cast<std::size_t>(pProcSegment->index) + 1;
        pProcSegment->index =
            static_cast<std::int64_t>(m_SegmentSummary.SkipToReaching(iNext, iPos)) - 1;
    } else if (m_bRecordSummaryValid) {
        m_iRecordPos = m_iInfoFileStart + static_cast<std::int64_t>(m_RecordSummary.SkipToReaching(
                                                                        GetRecordNumber(), iPos) *
                                                                    SegmentRecord::SIZE);
    }
}

const std::string* CRedirectedFile::GetSource(const Segment& segment) const {
    const auto iSource = static_cast<std::size_t>(segment.iSource);
    return segment.iSource >= 0 && iSource < m_vSource.size() ? &m_vSource[iSource] : nullptr;
}

const char* CRedirectedFile::GetSourceText(const Segment& segment) const {
    const std::string* psSource = GetSource(segment);
    return psSource != nullptr ? psSource->c_str() : "Null";
}

// =================================================================================================
// Reading
// =================================================================================================

int CRedirectedFile::OS_FileRead(const Context& context, int iFile, void* pvBuf,
                                 unsigned int iLen) {
    if (iFile == -1) {
        std::memset(pvBuf, 0, iLen);
        return static_cast<int>(iLen);
    }
    return m_pUtilities->OS_FileRead(context.pRuntimeParam, context.pLogArgu, iFile, pvBuf, iLen,
                                     nullptr);
}

std::int64_t CRedirectedFile::OS_FileSeek(const Context& context, int iFile, std::int64_t iSeek,
                                          int iSeekType) {
    if (iFile == -1) {
        return iSeek;
    }
    return m_pUtilities->OS_FileSeek(context.pRuntimeParam, context.pLogArgu, iFile,
                                     Unsigned(iSeek), iSeekType, nullptr);
}

void CRedirectedFile::SourceUse::Settle() {
    if (iPos >= 0) {
        const std::lock_guard<std::mutex> lock(file.pUse->m_hMutex);
        lseek(file.iFile, iPos, SEEK_SET);
        iPos = -1;
    }
}

int CRedirectedFile::SourceUse::ReadAt(std::int64_t iSourcePos, unsigned char* pcBuf,
                                       unsigned int iLen) {
    if (!file.pUse->IsRegularFile()) {  // devices may read without a place, or know other ends
        return -1;
    }
    const std::lock_guard<std::mutex> lock(file.pUse->m_hMutex);
    const ssize_t iRead = pread(file.iFile, pcBuf, iLen, iSourcePos);
    if (iRead > 0) {
        iPos = iSourcePos + iRead;
    }
    return static_cast<int>(iRead);
}

bool CRedirectedFile::SourceUse::CopyStep(std::int64_t iSourcePos) {
    if (pCopyTo == nullptr || !file.pUse->IsOtherRegularFile(*pCopyTo->pUse)) {
        return false;
    }
    // A source that ends inside the step is not copied at all: the rest of the step may come from
    // the target itself, which must then be as it was.
    struct stat data {};
    if (iSourcePos < 0 || fstat(file.iFile, &data) != 0 ||
        data.st_size - iSourcePos < std::int64_t{EXPORT_SIZE}) {
        return false;
    }
    const std::scoped_lock lock(file.pUse->m_hMutex, pCopyTo->pUse->m_hMutex);
    const long long iCopied =
        CUtilities::OS_FileCopyRange(file.iFile, iSourcePos, pCopyTo->iFile, EXPORT_SIZE);
    bCopied = iCopied == EXPORT_SIZE;
    if (bCopied) {
        iPos = iSourcePos + iCopied;
    } else if (iCopied > 0) {
        lseek(pCopyTo->iFile, -iCopied, SEEK_CUR);
    }
    return bCopied;
}

int CRedirectedFile::ReadSource(const Context& context, const Segment& segment,
                                std::int64_t iSourcePos, unsigned char* pcBuf, unsigned int iLen,
                                SourceUse* pSource) {
    const std::string* psSource = GetSource(segment);
    if (psSource == nullptr) {
        pSource->Settle();
        pSource->file = {};
    } else if (pSource->file.iFile == -1 || pSource->iSource != segment.iSource) {
        pSource->Settle();
        pSource->file = {};  // the cache may have to close it to open the next one
        pSource->iSource = segment.iSource;
        pSource->file = m_pUtilities->UseCachedFile(context.pRuntimeParam, context.pLogArgu,
                                                    psSource->c_str(), false);
    }
    if (pSource->file.pUse != nullptr && !context.pRuntimeParam->IsLogFileAccess()) {
        // One call for two, where nothing tells of each.  What gives nothing is done again below:
        // the system may refuse the place, and that is reported.
        const int iRead = iLen == EXPORT_SIZE && pSource->CopyStep(iSourcePos)
                              ? static_cast<int>(EXPORT_SIZE)
                              : pSource->ReadAt(iSourcePos, pcBuf, iLen);
        if (iRead > 0) {
            return iRead;
        }
    }
    pSource->Settle();
    std::unique_lock<std::mutex> lock;
    if (pSource->file.pUse != nullptr) {
        lock = std::unique_lock<std::mutex>(pSource->file.pUse->m_hMutex);
    }
    if (OS_FileSeek(context, pSource->file.iFile, iSourcePos, SEEK_SET) < 0) {
        return -1;
    }
    return OS_FileRead(context, pSource->file.iFile, pcBuf, iLen);
}

int CRedirectedFile::Read(const Context& context, std::int64_t iSeek, unsigned char* pcBuf,
                          unsigned int iLen, SourceUse* pSource) {
    CRuntimeParam* pRuntimeParam = context.pRuntimeParam;
    const bool bLog = pRuntimeParam->IsLogFileAccess();
    Wide p = iSeek;      // may pass 64 bits along a record that somebody else has written
    unsigned int o = 0;  // bytes placed
    ProcSegment cursor;
    bool bPart = GetPart(context, iSeek, iLen, &cursor.segment);
    if (bPart) {
        cursor.index = 0;
    } else {
        GetSegment(context, iSeek, &cursor);
    }
    while (cursor.index >= 0) {
        const Segment s = cursor.segment;
        if (p < s.iOffset) {
            // The gap reads as zeros, but the buffer does not advance: what follows the gap is put
            // where its zeros were.
            const Wide iGap = s.iOffset - p;
            OS_FileRead(context, -1, pcBuf + o,
                        static_cast<unsigned int>(std::min(iGap, Wide{iLen - o})));
            if (bLog) {
                m_pUtilities->LogInfo(pRuntimeParam, "[%s] Fill missing segment len:%d",
                                      context.pLogArgu->pcName, static_cast<int>(iGap));
            }
            p = s.iOffset;
        }
        const Wide iInto = p - s.iOffset;
        const Wide iLeft = s.iLength - iInto;
        if (iLeft <= 0) {
            SkipPassed(context, ClipToOffset(p), &cursor);
            GetNextSegment(context, &cursor);
            continue;
        }
        const auto n = static_cast<unsigned int>(std::min(iLeft, Wide{iLen - o}));
        const Wide iAskedTo = p + n;
        const auto iSourcePos = static_cast<std::int64_t>(Unsigned(s.iFileOffset) +
                                                          static_cast<unsigned long long>(iInto));
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam,
                                  "[%s] Segment (%d) path:%s, fox:%llu, len:%d (seek:%llu)",
                                  context.pLogArgu->pcName, m_iId, GetSourceText(s),
                                  Unsigned(iSeek), static_cast<int>(n), Unsigned(iSourcePos));
        }
        const int iRead = ReadSource(context, s, iSourcePos, pcBuf + o, n, pSource);
        if (iRead < 0) {
            return static_cast<int>(o);
        }
        p += iRead;
        o += static_cast<unsigned int>(iRead);
        if (o >= iLen) {
            return static_cast<int>(o);
        }
        if (bPart) {  // the source has ended early: it takes the whole segment to go on
            bPart = false;
            GetSegment(context, iSeek, &cursor);
        }
        // A segment of which everything was asked for is done with, also where its source has ended
        // early: what is missing is a gap before the next one, or belongs to the tail.
        if (iAskedTo == End(cursor.segment)) {
            GetNextSegment(context, &cursor);
        } else if (iRead == 0) {
            return static_cast<int>(o);  // asking again would give nothing again
        }
    }
    if (m_iPos < m_iSize && p < m_iSize) {
        const auto m = static_cast<unsigned int>(std::min(m_iSize - p, Wide{iLen - o}));
        OS_FileRead(context, -1, pcBuf + o, m);
        o += m;
    }
    return static_cast<int>(o);
}

int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, std::uint64_t iSeek, void* pcBuf,
                          unsigned int iLen, bool* pbEof) {
    SourceUse source;
    return Read(pRuntimeParam, iSeek, pcBuf, iLen, pbEof, &source);
}

int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, std::uint64_t iSeek, void* pcBuf,
                          unsigned int iLen, bool* pbEof, SourceUse* pSource) {
    LogArgu logArgu{"RedirectedFile.Read"};
    const auto iSignedSeek = static_cast<std::int64_t>(iSeek);
    int iRead = -1;
    if (iSignedSeek >= 0 && iSignedSeek < m_iSize) {
        iRead = Read(MakeContext(pRuntimeParam, &logArgu), iSignedSeek,
                     static_cast<unsigned char*>(pcBuf),
                     std::min(iLen, static_cast<unsigned int>(INT32_MAX)), pSource);
    }
    if (iRead >= 0) {
        m_iPos = ClipToOffset(Wide{iSignedSeek} + iRead);
    }
    *pbEof = m_iPos >= m_iSize;
    if (pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Eof=%s, ox=%llu, size=%llu", logArgu.pcName,
                              *pbEof ? "T" : "F", Unsigned(m_iPos), Unsigned(m_iSize));
    }
    return *pbEof && iRead < 0 ? 0 : iRead;
}

// =================================================================================================
// Exports
// =================================================================================================

int CRedirectedFile::WriteTarget(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                 const CachedFile& target, const void* pvBuf, unsigned int iLen,
                                 bool* pbWait) {
    const auto write = [&](unsigned int iDone) {
        const std::lock_guard<std::mutex> lock(target.pUse->m_hMutex);
        return m_pUtilities->OS_FileWrite(pRuntimeParam, pLogArgu, target.iFile,
                                          static_cast<const unsigned char*>(pvBuf) + iDone,
                                          iLen - iDone, nullptr);
    };
    if (target.pUse->IsRegularFile()) {
        return write(0);
    }
    // A pipe takes as much as it has room for.
    unsigned int o = 0;
    while (o < iLen) {
        if (m_pUtilities->AreExportsStopped()) {
            return static_cast<int>(o);
        }
        *pbWait = *pbWait && WaitForRoom(target.iFile);
        const int iWritten = write(o);
        if (iWritten <= 0) {
            return o > 0 ? static_cast<int>(o) : iWritten;
        }
        o += static_cast<unsigned int>(iWritten);
    }
    return static_cast<int>(o);
}

void CRedirectedFile::Export(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    LogArgu logArgu{"RedirectedFile.Export"};
    const bool bLog = pRuntimeParam->IsLogRedirectFile();
    CachedFile target = m_pUtilities->UseCachedFile(pRuntimeParam, &logArgu, pcPath, false);
    if (target.iFile == -1) {
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Content to file error: %s", logArgu.pcName,
                                  pcPath != nullptr ? pcPath : "");
        }
        return;
    }
    if (bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Content to file: %s (fid=%d)", logArgu.pcName,
                              pcPath, target.iFile);
    }
    std::vector<unsigned char> vBuf(EXPORT_SIZE);
    std::uint64_t iOffset = 0;
    int iLastRead = EXPORT_SIZE;
    bool bWait = true;
    for (bool bEof = false; !bEof;) {
        if (m_pUtilities->AreExportsStopped()) {
            if (bLog) {
                m_pUtilities->LogInfo(pRuntimeParam, "[%s] Stopped ox:%llu", logArgu.pcName,
                                      static_cast<unsigned long long>(iOffset));
            }
            break;
        }
        SourceUse source;
        source.pCopyTo = &target;
        const int iRead = Read(pRuntimeParam, iOffset, vBuf.data(), EXPORT_SIZE, &bEof, &source);
        if (iRead < 0) {
            break;
        }
        int iWritten = iRead;
        source.Settle();  // the target may be the source
        if (!source.bCopied) {
            iWritten = WriteTarget(pRuntimeParam, &logArgu, target, vBuf.data(),
                                   static_cast<unsigned int>(iRead), &bWait);
        }
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Write ox:%llu, r:%d, w:%d", logArgu.pcName,
                                  static_cast<unsigned long long>(iOffset), iRead, iWritten);
        }
        // What no segment covers comes only at the second attempt when the last reader had reached
        // the end; after that an empty read means a source that has ended early, or fails, inside a
        // segment.
        if (iRead == 0 && iLastRead == 0) {
            break;
        }
        iLastRead = iRead;
        iOffset += static_cast<std::uint64_t>(iRead);
    }
    target = {};  // the close is then the cache's, and reported
    m_pUtilities->CloseCachedFileHandle(pRuntimeParam, &logArgu, pcPath);
}

void CRedirectedFile::ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                 bool bMergeRange) {
    LogArgu logArgu{"RedirectedFile.ExportInfo"};
    const bool bLog = pRuntimeParam->IsLogRedirectFile();
    CachedFile target = m_pUtilities->UseCachedFile(pRuntimeParam, &logArgu, pcPath, false);
    if (target.iFile == -1) {
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Info to file error: %s", logArgu.pcName,
                                  pcPath != nullptr ? pcPath : "");
        }
        return;
    }
    if (bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Info to file: %s (fid=%d)", logArgu.pcName,
                              pcPath, target.iFile);
    }

    // Lines are gathered and written together, but for the lines of file access, which tell of
    // each.
    const bool bLogAccess = pRuntimeParam->IsLogFileAccess();
    std::string sLines;
    bool bWait = true;
    const auto flush = [&] {
        WriteTarget(pRuntimeParam, &logArgu, target, sLines.data(),
                    static_cast<unsigned int>(sLines.size()), &bWait);
        sLines.clear();
    };
    std::vector<char> vLine(LISTING_LINE);
    const auto writeLine = [&](const char* pcFmt, auto... args) {
        std::snprintf(vLine.data(), vLine.size(), pcFmt, args...);
        sLines += vLine.data();
        if (bLogAccess || sLines.size() >= EXPORT_SIZE) {
            flush();
        }
    };
    const auto writeSegment = [&](const char* pcFmt, const Segment& segment) {
        writeLine(pcFmt, GetSourceText(segment), Unsigned(segment.iFileOffset),
                  Unsigned(segment.iOffset), Unsigned(segment.iLength));
    };

    bool bStopped = false;
    const auto stopped = [&] { return bStopped = bStopped || m_pUtilities->AreExportsStopped(); };
    for (const CheckPointSegment& point : m_vInfoFileCheckPoint) {
        if (stopped()) {
            break;
        }
        writeLine("--> CheckPoint Segment fox=%llu, ox=%llu\n", Unsigned(point.iFileOffset),
                  Unsigned(point.iOffset));
    }
    if (!m_vInfoFileCheckPoint.empty()) {
        writeLine("%s", "-------------------\n");
    }

    constexpr const char* MERGED_FORMAT =
        "--> Merged Segment path=%s, fox=%llu, ox=%llu, len=%llu\n";
    const Context context = MakeContext(pRuntimeParam, &logArgu);
    ProcSegment cursor;
    Segment merged;
    bool bRun = false;
    for (GetSegment(context, 0, &cursor); cursor.index >= 0 && !stopped();
         GetNextSegment(context, &cursor)) {
        const Segment& segment = cursor.segment;
        if (!bMergeRange) {
            writeSegment("Segment path=%s, fox=%llu, ox=%llu, len=%llu\n", segment);
        } else if (bRun && merged.iSource == segment.iSource) {
            merged.iLength =
                static_cast<std::int64_t>(Unsigned(merged.iLength) + Unsigned(segment.iLength));
        } else {
            if (bRun) {
                writeSegment(MERGED_FORMAT, merged);
            }
            merged = segment;
            bRun = true;
        }
    }
    if (bMergeRange && !bStopped) {  // the run that was cut off has no length yet
        writeSegment(MERGED_FORMAT, merged);
    }
    if (!sLines.empty()) {
        flush();
    }
    if (bStopped && bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Stopped", logArgu.pcName);
    }
    target = {};  // the close is then the cache's, and reported
    m_pUtilities->CloseCachedFileHandle(pRuntimeParam, &logArgu, pcPath);
}
