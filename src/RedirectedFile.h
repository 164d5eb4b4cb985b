// A virtual file whose content is put together, on every read, from ranges of other files.
#ifndef VELOCAST_REDIRECTEDFILE_H
#define VELOCAST_REDIRECTEDFILE_H

#include <cstdint>
#include <mutex>

#include "MemorySegments.h"
#include "RecordFile.h"
#include "Segment.h"
#include "SourceList.h"
#include "UsedFile.h"
#include "Utilities.h"

class CExportTarget;
class CSourceReader;

// Segments are kept in memory, or, when there is an info file that can be opened, as records in it.
// Each operation looks which of the two it has, and then sees one interface:
//
//     AddSegment  --->  ISegmentStore  <---  Read, Export, ExportInfo
//                         |       |          walk: find, part, next, skip
//           CMemorySegments       CRecordFile::Use
//
// A read walks on from the segment that covers its offset.  It fills its buffer with pieces of
// segments and, behind the last one, with the zeros of the tail.  The zeros of a gap are written
// but take no room: what follows the gap is put over them.
//
//     virtual file   |--- segment A ---|   gap   |--- segment B ---|       tail       | m_iSize
//                                  |
//                                  iSeek
//     buffer                       | A |        B        |       zeros       |
//
// Where segments overlap, the first one added wins in memory; in an info file the first record from
// the estimated place on.  What no segment covers reads as zeros.
//
// Thread safety: one thread at a time: hold GetMutex() around every call but GetFileSize.
class CRedirectedFile {
public:
    // === Life ===

    // pUtilities is borrowed.
    explicit CRedirectedFile(CUtilities* pUtilities);
    virtual ~CRedirectedFile();
    CRedirectedFile(const CRedirectedFile&) = delete;
    CRedirectedFile& operator=(const CRedirectedFile&) = delete;

    // iSize in bytes; pcInfoFile null or empty: segments in memory; the two sizes in MiB, 0 or less
    // keeps the default (32 MiB blocks, checkpoints every 1 GiB).  What an info file already holds
    // stays there and is never read.
    void Open(CRuntimeParam* pRuntimeParam, std::int64_t iSize, int iId, const char* pcInfoFile,
              int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);
    // Forgets the segments and closes the cached descriptors of the info file and the sources.
    void Close(CRuntimeParam* pRuntimeParam);
    bool IsClosed() const { return m_bClosed; }
    // Counts as closed without closing anything: what it would close belongs to an owner that ends.
    void Abandon() { m_bClosed = true; }

    std::int64_t GetFileSize() const { return m_iSize; }
    std::mutex& GetMutex() { return m_hMutex; }

    // === Adding segments ===

    // False for a segment that starts at or beyond the size (its source is registered all the
    // same), and when its records cannot be written; pcStatus is not written.
    bool AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSourcePath,
                    std::int64_t iSrcFileOffset, std::int64_t iOffset, std::int64_t iLength,
                    char* pcStatus);

    // === Reading ===

    // Bytes put into pcBuf (iLen bytes), -1 on failure; 0 at the end of the file.
    int Read(CRuntimeParam* pRuntimeParam, std::uint64_t iSeek, void* pcBuf, unsigned int iLen,
             bool* pbEof);

    // === Exports ===

    // Writes the content to an existing file.  Both exports end early when the service stops
    // (CUtilities::ExportStop), and wait for the reader of a pipe only while it goes on reading.
    void Export(CRuntimeParam* pRuntimeParam, const char* pcPath);
    // Writes the checkpoints and segments as text to an existing file.
    void ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bMergeRange);

private:
    // Where the segments are for one operation.
    class Store;
    // How far one read has come.
    struct ReadProgress;

    FileContext MakeContext(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu) const {
        return {m_pUtilities, pRuntimeParam, pLogArgu};
    }

    // The index of the source, -1 for none.
    std::int32_t RegisterSource(const FileContext& context, const char* pcSourcePath);

    // As Read, of an export through its own reader, which may send the bytes past the buffer.
    int ReadThrough(CRuntimeParam* pRuntimeParam, std::uint64_t iSeek, void* pcBuf,
                    unsigned int iLen, bool* pbEof, CSourceReader* pReader);
    // Puts together what lies at iSeek, which is inside the file: bytes placed.
    int Assemble(const FileContext& context, std::int64_t iSeek, unsigned char* pcBuf,
                 unsigned int iLen, CSourceReader* pReader);
    void FillGap(const FileContext& context, const Segment& segment, ReadProgress* pRead) const;
    // Bytes read from the source of a segment, of n that were asked for, or -1.
    int ReadPiece(const FileContext& context, const Segment& segment, unsigned int n,
                  CSourceReader* pReader, ReadProgress* pRead) const;
    void FillTail(ReadProgress* pRead) const;

    void CopyTo(const FileContext& context, CExportTarget* pTarget);
    void ListTo(const FileContext& context, CExportTarget* pTarget, bool bMergeRange);

    std::int64_t m_iSize = 0;
    CSourceList m_Sources;
    CMemorySegments m_MemorySegments;
    CRecordFile m_RecordFile;
    std::int64_t m_iPos = 0;  // end of the last successful read
    CUtilities* m_pUtilities;
    int m_iId = 0;
    bool m_bClosed = false;
    std::mutex m_hMutex;
};

#endif
