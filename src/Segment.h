// What a redirected file is made of: segments, their records in an info file, and the cursor of a
// read.
#ifndef VELOCAST_SEGMENT_H
#define VELOCAST_SEGMENT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>

// Exact sums and differences of offsets at the edges of 64 bits.
__extension__ using WideOffset = __int128;

// No offset lies beyond 64 bits.
inline std::int64_t ClipToOffset(WideOffset i) {
    return static_cast<std::int64_t>(std::min(i, WideOffset{INT64_MAX}));
}

// An offset as log lines and listings print it, and for sums that wrap.
inline unsigned long long Unsigned(std::int64_t i) { return static_cast<unsigned long long>(i); }

// Bytes [iOffset, iOffset + iLength) of the virtual file are bytes from iFileOffset on of a source.
// Aligned, so that a segment in memory never lies in two lines of the processor's cache.
struct alignas(32) Segment {
    std::int32_t iSource = 0;      // index into the source list; -1 or unknown: reads as zeros
    std::int64_t iFileOffset = 0;  // in the source
    std::int64_t iOffset = 0;      // in the virtual file
    std::int64_t iLength = 0;      // bytes

    WideOffset GetEnd() const { return WideOffset{iOffset} + iLength; }
    bool Covers(std::int64_t iSeek) const { return iOffset <= iSeek && iSeek < GetEnd(); }
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

#endif
