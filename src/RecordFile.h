// The segments of a redirected file with an info file.
#ifndef VELOCAST_RECORDFILE_H
#define VELOCAST_RECORDFILE_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "SegmentStore.h"
#include "SegmentSummary.h"
#include "UsedFile.h"

struct stat;

// Each segment is written as records of 28 bytes, behind those of the segments added before.  It is
// split where it crosses a boundary between blocks of the virtual file: where every block is one
// record, the record of an offset is then found by arithmetic.  Checkpoints correct that where
// blocks hold more than one.  With the defaults, blocks of 32 MiB and checkpoints every 1 GiB:
//
//     virtual file    0      32     64     96     128  ...  1024         1056         1088 MiB
//       blocks        |      |      |      |      |         |            |            |
//       segments      [------ 100 MiB -------)              [ 8 )[ 24 ---)[ 32 -------)
//
//     info file       found | 32 | 32 | 32 | 4 | . . . . . | 8 | 24 | 32 |
//       records             ^                              ^
//                           m_iInfoFileStart               checkpoint: iOffset 1024 MiB,
//                                                          iFileOffset of this record
//
//     find 1064 MiB   the checkpoint's record + (1064 - 1024) / 32 = the record of 24 MiB;
//                     from there forwards to the first that covers the offset: the one of 32 MiB
//
// What lies before the estimated place, because blocks were left out or segments came in another
// order, is not found and reads as zeros.  Neither the search nor a later step of the walk leads
// back, whatever others write to the file, so that a walk ends.
//
// Records are read 256 at a time.  m_RecordSummary tells what each such run can cover, so that most
// runs are not read at all.  It knows our own records only: once somebody else has written to the
// file or cut it, every run is read.
//
// Thread safety: none.
class CRecordFile {
public:
    // pcInfoFile may be empty; the sizes in MiB, 0 or less keeps the default.  Records are added
    // behind what the file already holds.
    void Open(const char* pcInfoFile, int iSegmentSizeMB, int iCheckPointSizeMB);
    // Forgets the records, which stay in the file, and closes its cached descriptor.
    void Close(const FileContext& context);

    const std::string& GetPath() const { return m_sInfoFile; }
    // In the order in which they were made.
    const std::vector<CheckPointSegment>& GetCheckPoints() const { return m_vInfoFileCheckPoint; }

    // The store that the file is for one operation.
    class Use;

private:
    // A run of records read from the info file.  Its memory serves every operation.
    struct RecordChunk {
        std::int64_t iPos = 0;  // of the first byte, in the info file
        std::size_t iLen = 0;   // bytes
        std::vector<unsigned char> vBytes;
    };
    // What an addition that fails puts back.
    struct Mark {
        std::size_t iRecords;
        std::size_t iCheckPoints;
        bool bCheckPointsAscending;
    };

    Mark GetMark() const;
    void GoBackTo(const Mark& mark);
    // Whether this is the file that the records are in; the first one asked for is.
    bool IsInfoFile(const struct stat& data);
    // Notices when somebody else has written to the file, or cut it.
    void CheckLength(std::int64_t iLen);
    // Remembers the place of the record that is about to be written.
    void CreateCheckPointSegment(std::int64_t iRecordPos, const Segment& segment);
    // How much of a segment goes up to the next boundary, when it crosses one; else 0.
    std::int64_t GetHeadLength(const Segment& segment) const;
    // Where the search for an offset begins.
    std::int64_t EstimateRecord(std::int64_t iSeek) const;
    // Numbers of records and their places, for the summary.  REQUIRES: m_bRecordSummaryValid.
    std::size_t GetRecordNumber(std::int64_t iPos) const;
    std::int64_t GetRecordPos(std::size_t iNumber) const;

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
    RecordChunk m_Chunk;
};

// The records while one operation uses the file.  The index of a cursor says only that something
// was found.
class CRecordFile::Use final : public ISegmentStore {
public:
    // pRecords is borrowed.
    Use(CRecordFile* pRecords, const FileContext& context);

    // False without an info file, when it cannot be opened, and when another file lies at its path:
    // then segments are kept in memory, and this store must not be used.
    bool IsOpen() const { return m_File.IsOpen(); }

    bool Add(const Segment& segment) override;
    void GetSegment(std::int64_t iSeek, ProcSegment* pProcSegment) override;
    // Records are not looked up by their parts.
    bool GetPart(std::int64_t, unsigned int, Segment*) const override { return false; }
    void GetNextSegment(ProcSegment* pProcSegment) override;
    void SkipPassed(std::int64_t iPos, ProcSegment* pProcSegment) override;

private:
    class Appender;

    // The record at m_iRecordPos, which moves on; false where the file ended when the operation
    // began.
    bool ReadRecord(Segment* pSegment);
    // Reads the records from m_iRecordPos on, up to where the next run begins.
    bool ReadChunk();

    CRecordFile* m_pRecords;
    FileContext m_Context;
    CUsedFile m_File;
    std::int64_t m_iFileLen = 0;    // bytes; what comes behind is for later operations
    std::int64_t m_iRecordPos = 0;  // of the next record of the walk, in the info file
};

#endif
