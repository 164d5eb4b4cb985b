// A virtual file whose content is put together, on every read, from ranges of other files.
#ifndef VELOCAST_REDIRECTEDFILE_H
#define VELOCAST_REDIRECTEDFILE_H

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "SegmentIndex.h"
#include "SegmentSummary.h"
#include "Utilities.h"

// Bytes [iOffset, iOffset + iLength) of the virtual file are bytes from iFileOffset on of a source.
// Aligned, so that a segment in memory never lies in two lines of the processor's cache.
struct alignas(32) Segment {
    std::int32_t iSource = 0;      // index into the source list; -1 or unknown: reads as zeros
    std::int64_t iFileOffset = 0;  // in the source
    std::int64_t iOffset = 0;      // in the virtual file
    std::int64_t iLength = 0;      // bytes
};

// The record of a segment in an info file: little-endian, packed, no header before the first.
struct SegmentRecord {
    static constexpr std::size_t SOURCE = 0;       //  4 bytes, iSource
    static constexpr std::size_t FILE_OFFSET = 4;  //  8 bytes, iFileOffset
    static constexpr std::size_t OFFSET = 12;      //  8 bytes, iOffset
    static constexpr std::size_t LENGTH = 20;      //  8 bytes, iLength
    static constexpr std::size_t SIZE = 28;

    static void Encode(const Segment& segment, unsigned char* pcRecord);
    static Segment Decode(const unsigned char* pcRecord);
};

// The cursor of a read.
struct ProcSegment {
    std::int64_t index = -1;  // below 0: no segment, or the end
    Segment segment;
};

// Where in the info file the first record of an interval lies.
struct CheckPointSegment {
    std::int64_t iFileOffset;  // of the record, in the info file
    std::int64_t iOffset;      // of the segment, in the virtual file; a multiple of the interval
};

// Segments live in memory, or, when there is an info file that can be opened, as records in it.
// Records are split at block boundaries, so that a read finds its record by arithmetic; checkpoints
// correct the arithmetic where blocks hold more than one record.
//
// Where segments overlap, the first one added wins in memory; in an info file the first record from
// the estimated place on.  What no segment covers reads as zeros.
//
// Thread safety: one thread at a time: hold GetMutex() around every call but GetFileSize.
class CRedirectedFile {
public:
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

    // False for a segment that starts at or beyond the size (its source is registered all the
    // same), and when its records cannot be written; pcStatus is not written.
    bool AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSourcePath,
                    std::int64_t iSrcFileOffset, std::int64_t iOffset, std::int64_t iLength,
                    char* pcStatus);
    // Bytes put into pcBuf (iLen bytes), -1 on failure; 0 at the end of the file.
    int Read(CRuntimeParam* pRuntimeParam, std::uint64_t iSeek, void* pcBuf, unsigned int iLen,
             bool* pbEof);
    // Writes the content to an existing file.  Both exports end early when the service stops
    // (CUtilities::ExportStop), and wait for the reader of a pipe only while it goes on reading.
    void Export(CRuntimeParam* pRuntimeParam, const char* pcPath);
    // Writes the checkpoints and segments as text to an existing file.
    void ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcPath, bool bMergeRange);

private:
    // What one operation works with: its caller's context, and the info file, which decides whether
    // segments are records (a descriptor) or in memory (-1) for the whole operation.
    struct Context {
        CRuntimeParam* pRuntimeParam;
        LogArgu* pLogArgu;
        CachedFile infoFile;
        std::int64_t iInfoFileLen = 0;  // bytes; what comes behind is for later operations
    };
    // An open source.  What ReadAt and CopyStep do leaves its position as it was until Settle.
    struct SourceUse {
        std::int32_t iSource = -1;
        CachedFile file;
        std::int64_t iPos = -1;               // where the position has to be; -1: where it is
        const CachedFile* pCopyTo = nullptr;  // borrowed; open, if any
        bool bCopied = false;                 // what was read went to pCopyTo, not to the buffer

        SourceUse() = default;
        ~SourceUse() { Settle(); }
        SourceUse(const SourceUse&) = delete;
        SourceUse& operator=(const SourceUse&) = delete;
        // Puts the position behind what was read last.
        void Settle();
        // Bytes read (pread(2)); 0 or less also for what has to be positioned and read one by one.
        int ReadAt(std::int64_t iSourcePos, unsigned char* pcBuf, unsigned int iLen);
        // Copies a step of an export to the position of pCopyTo inside the kernel
        // (copy_file_range(2)).  False when it is not copied as a whole; then nothing has changed
        // but bytes behind that position.
        bool CopyStep(std::int64_t iSourcePos);
    };
    // A run of records read from the info file.
    struct RecordChunk {
        std::int64_t iPos = 0;  // of the first byte, in the info file
        std::size_t iLen = 0;   // bytes
        std::vector<unsigned char> vBytes;
    };

    Context MakeContext(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu);
    // Whether this is the file that the records are in; the first one asked for is.
    bool IsInfoFile(const struct stat& data);
    int Read(CRuntimeParam* pRuntimeParam, std::uint64_t iSeek, void* pcBuf, unsigned int iLen,
             bool* pbEof, SourceUse* pSource);
    int Read(const Context& context, std::int64_t iSeek, unsigned char* pcBuf, unsigned int iLen,
             SourceUse* pSource);
    // The segment that covers the offset.
    void GetSegment(const Context& context, std::int64_t iSeek, ProcSegment* pProcSegment);
    // The part of that segment which alone fills [iSeek, iSeek + iLen); false where more than one
    // is needed, and always for segments in an info file.  Costs less than the whole segment.
    bool GetPart(const Context& context, std::int64_t iSeek, unsigned int iLen,
                 Segment* pPart) const;
    // The next segment in the order of adding.
    void GetNextSegment(const Context& context, ProcSegment* pProcSegment);
    // Moves the cursor so that the next segments which neither begin nor end beyond iPos, and so
    // add nothing to a read, need not be looked at.
    void SkipPassed(const Context& context, std::int64_t iPos, ProcSegment* pProcSegment);
    // Remembers the place of the record that is about to be written.
    void CreateCheckPointSegment(std::int64_t iRecordPos, const Segment& segment);

    std::int32_t RegisterSource(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                                const char* pcSourcePath);
    bool AppendRecords(const Context& context, Segment segment);
    // Where in the info file the search for an offset begins.  The summary and every later step of
    // the walk lead forwards only, whatever others have written to the file, so that it ends.
    std::int64_t EstimateRecord(std::int64_t iSeek) const;
    // The number of the record at m_iRecordPos, for the summary.  REQUIRES: m_bRecordSummaryValid.
    std::size_t GetRecordNumber() const;
    // The record at m_iRecordPos, which moves on; false where the file ended when the operation
    // began.
    bool ReadRecord(const Context& context, Segment* pSegment);
    // Bytes written to the target of an export, or -1.  *pbWait tells whether to wait for room in a
    // pipe; false once that was in vain.
    int WriteTarget(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const CachedFile& target,
                    const void* pvBuf, unsigned int iLen, bool* pbWait);
    // Reads a range of the source of a segment; zeros without one.  Bytes read or -1.  pSource
    // keeps the descriptor for the next segment, which mostly has the same source.
    int ReadSource(const Context& context, const Segment& segment, std::int64_t iSourcePos,
                   unsigned char* pcBuf, unsigned int iLen, SourceUse* pSource);
    const std::string* GetSource(const Segment& segment) const;
    const char* GetSourceText(const Segment& segment) const;

    // As those of the file access layer, but the descriptor -1 reads as zeros and can be anywhere.
    int OS_FileRead(const Context& context, int iFile, void* pvBuf, unsigned int iLen);
    std::int64_t OS_FileSeek(const Context& context, int iFile, std::int64_t iSeek, int iSeekType);

    std::int64_t m_iSize = 0;
    std::vector<std::string> m_vSource;
    std::unordered_map<std::string, std::int32_t> m_mSourceIndex;  // of m_vSource
    std::vector<Segment> m_vAllCachedSegment;
    CSegmentIndex m_SegmentIndex;      // of m_vAllCachedSegment, by offset
    CSegmentSummary m_SegmentSummary;  // of m_vAllCachedSegment, in order
    std::string m_sInfoFile;
    std::int64_t m_iInfoFileSegmentSize = 33554432;
    std::int64_t m_iInfoFileCheckPointSize = 1073741824;
    std::vector<CheckPointSegment> m_vInfoFileCheckPoint;
    bool m_bCheckPointsAscending = true;
    std::int64_t m_iInfoFileStart = 0;  // where the records begin: the size of the file as found
    bool m_bInfoFileKnown = false;      // the next two are set
    dev_t m_iInfoFileDevice = 0;
    ino_t m_iInfoFileNode = 0;
    CSegmentSummary m_RecordSummary;  // of the records, while they are all our own
    bool m_bRecordSummaryValid = true;
    std::int64_t m_iRecordPos = 0;  // of the next record of the walk, in the info file
    RecordChunk m_Chunk;            // read ahead by the walk
    std::int64_t m_iPos = 0;        // end of the last successful read
    CUtilities* m_pUtilities;
    int m_iId = 0;
    bool m_bClosed = false;
    std::mutex m_hMutex;
};

#endif
