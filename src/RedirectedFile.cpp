#include "RedirectedFile.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "ExportTarget.h"
#include "RuntimeParam.h"
#include "SegmentListing.h"
#include "SourceReader.h"

namespace {

// The line of an added segment.  Its unsigned 64-bit decimals are "%I64u" where the C library knows
// that conversion, and the same numbers by another name elsewhere.
#if defined(_WIN32)
constexpr char SEGMENT_LINE[] = "[%s] Segment id=%d, fox=%I64u, ox=%I64u, len=%I64u";
#else
constexpr char SEGMENT_LINE[] = "[%s] Segment id=%d, fox=%llu, ox=%llu, len=%llu";
#endif

}  // namespace

// The info file, when it can be used, or else the memory; for the whole operation.
class CRedirectedFile::Store {
public:
    Store(CRedirectedFile* pFile, const FileContext& context)
        : m_Records(&pFile->m_RecordFile, context) {
        if (!m_Records.IsOpen()) {
            m_pStore = &pFile->m_MemorySegments;
        }
    }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    ISegmentStore* operator->() const { return m_pStore; }

private:
    CRecordFile::Use m_Records;
    ISegmentStore* m_pStore = &m_Records;
};

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
        m_RecordFile.Open(pcInfoFile, iInfoFileSegmentSizeMB, iInfoFileCheckPointSizeMB);
    }
    if (pRuntimeParam->IsLogRedirectFile()) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] id=%d, size=%llu (path=%s)",
                              "RedirectedFile.Open", m_iId, Unsigned(m_iSize),
                              m_RecordFile.GetPath().c_str());
    }
}

void CRedirectedFile::Close(CRuntimeParam* pRuntimeParam) {
    if (m_bClosed) {
        return;
    }
    m_bClosed = true;
    LogArgu logArgu{"RedirectedFile.Close"};
    m_MemorySegments.Clear();
    m_RecordFile.Close(MakeContext(pRuntimeParam, &logArgu));
    for (const std::string& sSource : m_Sources.GetAll()) {
        m_pUtilities->CloseCachedFileHandle(pRuntimeParam, &logArgu, sSource.c_str());
    }
    m_Sources.Clear();
}

// =================================================================================================
// Adding segments
// =================================================================================================

std::int32_t CRedirectedFile::RegisterSource(const FileContext& context, const char* pcSourcePath) {
    // Both lines print the ID of this file, by which they belong together with its other lines.
    const bool bLog = context.pRuntimeParam->IsLogRedirectFile();
    if (pcSourcePath == nullptr || *pcSourcePath == '\0') {
        if (bLog) {
            m_pUtilities->LogInfo(context.pRuntimeParam, "[%s] Reference src (%d): Null",
                                  context.pLogArgu->pcName, m_iId);
        }
        return -1;
    }
    const std::int32_t iSource = m_Sources.Register(pcSourcePath);
    if (bLog) {
        m_pUtilities->LogInfo(context.pRuntimeParam, "[%s] Reference src (%d): %s",
                              context.pLogArgu->pcName, m_iId, pcSourcePath);
    }
    return iSource;
}

bool CRedirectedFile::AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSourcePath,
                                 std::int64_t iSrcFileOffset, std::int64_t iOffset,
                                 std::int64_t iLength, char* /*pcStatus*/) {
    LogArgu logArgu{"RedirectedFile.AddSegment"};
    const FileContext context = MakeContext(pRuntimeParam, &logArgu);
    const std::int32_t iSource = RegisterSource(context, pcSourcePath);
    if (iOffset >= m_iSize) {
        return false;
    }
    if (WideOffset{iOffset} + iLength >= m_iSize) {
        iLength = static_cast<std::int64_t>(WideOffset{m_iSize} - iOffset);
    }
    const Store store(this, context);
    if (!store->Add({iSource, iSrcFileOffset, iOffset, iLength})) {
        return false;
    }
    if (pRuntimeParam->IsLogRedirectFile()) {
        m_pUtilities->LogInfo(pRuntimeParam, SEGMENT_LINE, logArgu.pcName, m_iId,
                              Unsigned(iSrcFileOffset), Unsigned(iOffset), Unsigned(iLength));
    }
    return true;
}

// =================================================================================================
// Reading
// =================================================================================================

struct CRedirectedFile::ReadProgress {
    std::int64_t iSeek;  // where the read began
    unsigned char* pcBuf;
    unsigned int iLen;         // bytes of the buffer
    WideOffset iPos;           // reached; may pass 64 bits along a record that others have written
    unsigned int iPlaced = 0;  // bytes in the buffer

    unsigned char* GetPlace() const { return pcBuf + iPlaced; }
    unsigned int GetRoom() const { return iLen - iPlaced; }
    // As much of n bytes as there is room for.
    unsigned int Clip(WideOffset n) const {
        return static_cast<unsigned int>(std::min(n, WideOffset{GetRoom()}));
    }
};

void CRedirectedFile::FillGap(const FileContext& context, const Segment& segment,
                              ReadProgress* pRead) const {
    const WideOffset iGap = segment.iOffset - pRead->iPos;
    // The gap reads as zeros, but the buffer does not advance: what follows the gap is put where
    // its zeros were.
    std::memset(pRead->GetPlace(), 0, pRead->Clip(iGap));
    if (context.pRuntimeParam->IsLogFileAccess()) {
        m_pUtilities->LogInfo(context.pRuntimeParam, "[%s] Fill missing segment len:%d",
                              context.pLogArgu->pcName, static_cast<int>(iGap));
    }
    pRead->iPos = segment.iOffset;
}

int CRedirectedFile::ReadPiece(const FileContext& context, const Segment& segment, unsigned int n,
                               CSourceReader* pReader, ReadProgress* pRead) const {
    // Unsigned, because the sum wraps with a record of somebody else that lies near 2^63.
    const auto iSourcePos =
        static_cast<std::int64_t>(Unsigned(segment.iFileOffset) +
                                  static_cast<unsigned long long>(pRead->iPos - segment.iOffset));
    if (context.pRuntimeParam->IsLogFileAccess()) {
        // "fox" is where the read began: its pieces belong together by that.
        m_pUtilities->LogInfo(context.pRuntimeParam,
                              "[%s] Segment (%d) path:%s, fox:%llu, len:%d (seek:%llu)",
                              context.pLogArgu->pcName, m_iId, m_Sources.GetText(segment.iSource),
                              Unsigned(pRead->iSeek), static_cast<int>(n), Unsigned(iSourcePos));
    }
    const int iRead =
        pReader->Read(context, m_Sources.Get(segment.iSource), iSourcePos, pRead->GetPlace(), n);
    if (iRead > 0) {
        pRead->iPos += iRead;
        pRead->iPlaced += static_cast<unsigned int>(iRead);
    }
    return iRead;
}

void CRedirectedFile::FillTail(ReadProgress* pRead) const {
    // m_iPos is where the read before this one ended: once a read has reached the end of the file,
    // the next one gets no tail.
    if (m_iPos < m_iSize && pRead->iPos < m_iSize) {
        const unsigned int n = pRead->Clip(m_iSize - pRead->iPos);
        std::memset(pRead->GetPlace(), 0, n);
        pRead->iPlaced += n;
    }
}

int CRedirectedFile::Assemble(const FileContext& context, std::int64_t iSeek, unsigned char* pcBuf,
                              unsigned int iLen, CSourceReader* pReader) {
    const Store store(this, context);
    ReadProgress read{iSeek, pcBuf, iLen, iSeek};
    ProcSegment cursor;
    bool bPart = store->GetPart(iSeek, iLen, &cursor.segment);  // of a segment not looked up yet
    if (bPart) {
        cursor.index = 0;
    } else {
        store->GetSegment(iSeek, &cursor);
    }
    while (cursor.index >= 0) {
        const Segment segment = cursor.segment;
        if (read.iPos < segment.iOffset) {
            FillGap(context, segment, &read);
        }
        const WideOffset iLeft = segment.GetEnd() - read.iPos;
        if (iLeft <= 0) {
            store->SkipPassed(ClipToOffset(read.iPos), &cursor);
            store->GetNextSegment(&cursor);
            continue;
        }
        const unsigned int n = read.Clip(iLeft);
        const WideOffset iAskedTo = read.iPos + n;
        // A segment of which everything is asked for is done with, also where its source ends
        // early: what is missing then is a gap before the next one, or belongs to the tail.
        bool bDone = !bPart && iAskedTo == segment.GetEnd();
        if (bDone) {
            store->GetNextSegment(&cursor);
        }
        const int iRead = ReadPiece(context, segment, n, pReader, &read);
        if (iRead < 0 || read.GetRoom() == 0) {
            return static_cast<int>(read.iPlaced);
        }
        if (bPart) {  // the source has ended early: it takes the whole segment to go on
            bPart = false;
            store->GetSegment(iSeek, &cursor);
            bDone = iAskedTo == cursor.segment.GetEnd();
            if (bDone) {
                store->GetNextSegment(&cursor);
            }
        }
        if (!bDone && iRead == 0) {
            return static_cast<int>(read.iPlaced);  // asking again would give nothing again
        }
    }
    FillTail(&read);
    return static_cast<int>(read.iPlaced);
}

int CRedirectedFile::Read(CRuntimeParam* pRuntimeParam, std::uint64_t iSeek, void* pcBuf,
                          unsigned int iLen, bool* pbEof) {
    CSourceReader reader;
    return ReadThrough(pRuntimeParam, iSeek, pcBuf, iLen, pbEof, &reader);
}

int CRedirectedFile::ReadThrough(CRuntimeParam* pRuntimeParam, std::uint64_t iSeek, void* pcBuf,
                                 unsigned int iLen, bool* pbEof, CSourceReader* pReader) {
    LogArgu logArgu{"RedirectedFile.Read"};
    const auto iSignedSeek = static_cast<std::int64_t>(iSeek);
    int iRead = -1;
    if (iSignedSeek >= 0 && iSignedSeek < m_iSize) {
        iRead = Assemble(MakeContext(pRuntimeParam, &logArgu), iSignedSeek,
                         static_cast<unsigned char*>(pcBuf),
                         std::min(iLen, static_cast<unsigned int>(INT32_MAX)), pReader);
    }
    if (iRead >= 0) {
        m_iPos = ClipToOffset(WideOffset{iSignedSeek} + iRead);
    }
    // Of a read beyond the end, m_iPos is still that of the read before: only when that one reached
    // the end is this the end too, and otherwise a failure.
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

void CRedirectedFile::Export(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    LogArgu logArgu{"RedirectedFile.Export"};
    const FileContext context = MakeContext(pRuntimeParam, &logArgu);
    const bool bLog = pRuntimeParam->IsLogRedirectFile();
    CExportTarget target(context, pcPath);
    if (!target.IsOpen()) {
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Content to file error: %s", logArgu.pcName,
                                  pcPath != nullptr ? pcPath : "");
        }
        return;
    }
    if (bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Content to file: %s (fid=%d)", logArgu.pcName,
                              pcPath, target.GetFile().GetDescriptor());
    }
    CopyTo(context, &target);
    target.Close();
}

void CRedirectedFile::CopyTo(const FileContext& context, CExportTarget* pTarget) {
    constexpr unsigned int STEP = CSourceReader::EXPORT_STEP;
    const bool bLog = context.pRuntimeParam->IsLogRedirectFile();
    std::vector<unsigned char> vBuf(STEP);
    std::uint64_t iOffset = 0;
    int iLastRead = STEP;
    for (bool bEof = false; !bEof;) {
        if (m_pUtilities->AreExportsStopped()) {
            if (bLog) {
                m_pUtilities->LogInfo(context.pRuntimeParam, "[%s] Stopped ox:%llu",
                                      context.pLogArgu->pcName,
                                      static_cast<unsigned long long>(iOffset));
            }
            return;
        }
        CSourceReader reader(&pTarget->GetFile());
        const int iRead =
            ReadThrough(context.pRuntimeParam, iOffset, vBuf.data(), STEP, &bEof, &reader);
        if (iRead < 0) {
            return;
        }
        reader.Settle();  // the target may be the source
        const int iWritten = reader.IsCopied()
                                 ? iRead
                                 : pTarget->Write(vBuf.data(), static_cast<unsigned int>(iRead));
        if (bLog) {
            m_pUtilities->LogInfo(context.pRuntimeParam, "[%s] Write ox:%llu, r:%d, w:%d",
                                  context.pLogArgu->pcName,
                                  static_cast<unsigned long long>(iOffset), iRead, iWritten);
        }
        // What no segment covers comes only at the second attempt when the last reader had reached
        // the end; after that an empty read means a source that has ended early, or fails, inside a
        // segment.
        if (iRead == 0 && iLastRead == 0) {
            return;
        }
        iLastRead = iRead;
        iOffset += static_cast<std::uint64_t>(iRead);
    }
}

void CRedirectedFile::ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                 bool bMergeRange) {
    LogArgu logArgu{"RedirectedFile.ExportInfo"};
    const FileContext context = MakeContext(pRuntimeParam, &logArgu);
    const bool bLog = pRuntimeParam->IsLogRedirectFile();
    CExportTarget target(context, pcPath);
    if (!target.IsOpen()) {
        if (bLog) {
            m_pUtilities->LogInfo(pRuntimeParam, "[%s] Info to file error: %s", logArgu.pcName,
                                  pcPath != nullptr ? pcPath : "");
        }
        return;
    }
    if (bLog) {
        m_pUtilities->LogInfo(pRuntimeParam, "[%s] Info to file: %s (fid=%d)", logArgu.pcName,
                              pcPath, target.GetFile().GetDescriptor());
    }
    ListTo(context, &target, bMergeRange);
    target.Close();
}

void CRedirectedFile::ListTo(const FileContext& context, CExportTarget* pTarget, bool bMergeRange) {
    bool bStopped = false;
    const auto stopped = [&] { return bStopped = bStopped || m_pUtilities->AreExportsStopped(); };
    CSegmentListing listing(pTarget, &m_Sources, context.pRuntimeParam->IsLogFileAccess());
    for (const CheckPointSegment& point : m_RecordFile.GetCheckPoints()) {
        if (stopped()) {
            break;
        }
        listing.WriteCheckPoint(point);
    }
    if (!m_RecordFile.GetCheckPoints().empty()) {
        listing.WriteSeparator();
    }

    // The listing begins with the segment that covers offset 0: without one, none is listed.
    const Store store(this, context);
    ProcSegment cursor;
    for (store->GetSegment(0, &cursor); cursor.index >= 0 && !stopped();
         store->GetNextSegment(&cursor)) {
        if (bMergeRange) {
            listing.MergeSegment(cursor.segment);
        } else {
            listing.WriteSegment(cursor.segment);
        }
    }
    if (bMergeRange && !bStopped) {  // where it was cut off, the last line has no length yet
        listing.WriteMerged();
    }
    listing.Flush();
    if (bStopped && context.pRuntimeParam->IsLogRedirectFile()) {
        m_pUtilities->LogInfo(context.pRuntimeParam, "[%s] Stopped", context.pLogArgu->pcName);
    }
}
