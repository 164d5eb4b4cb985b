#include "Segment.h"

namespace {

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
