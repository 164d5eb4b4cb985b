// Finds, among ranges that may overlap, the one that was added first and covers an offset.
#ifndef VELOCAST_SEGMENTINDEX_H
#define VELOCAST_SEGMENTINDEX_H

#include <cstddef>
#include <cstdint>
#include <vector>

// A range claims only what no earlier range covers, so the claimed pieces never overlap and a
// search is two binary searches.  The pieces of n ranges are fewer than 2 n.
//
// The pieces lie sorted in leaves of bounded size.  A leaf without a gap inside is passed over as a
// whole when a later range is added across it.  Within a leaf the search begins where the offset
// would lie if the pieces were alike: that costs one cache miss where bisection costs several.
//
// Thread safety: none.
// Invariants: no leaf is empty; m_vFirst[i] is the start of the first piece of leaf i; the pieces
// are disjoint and ascending across all leaves; iGaps is the number of neighbours in a leaf that
// do not touch.
class CSegmentIndex {
public:
    // A range as it is added, or the part [iStart, iEnd) of it that it claims.  Holds what a read
    // inside the part needs, to spare it the segment: that would be one more cache miss.  Aligned,
    // so that a piece never lies in two lines of the cache.
    struct alignas(32) Piece {
        std::int64_t iStart = 0;
        std::int64_t iEnd = 0;
        std::uint64_t iShift = 0;  // from an offset to its place in the source, modulo 2^64
        std::uint32_t iSegment = 0;
        std::int32_t iSource = 0;
    };

    void Clear();
    // Adds a range; an empty one adds nothing.
    void Add(const Piece& range);
    // The piece that holds the offset, of the first range added that covers it; null without one.
    // Valid until the next change.
    const Piece* Find(std::int64_t iOffset) const;

private:
    // Few leaves keep their list in the cache; small ones keep adding in the middle cheap.
    static constexpr std::size_t MAX_LEAF = 512;

    struct Leaf {
        std::vector<Piece> vPieces;
        std::size_t iGaps = 0;
    };

    // The leaf whose pieces may hold the offset: the last that starts at or before it, or the
    // first.
    std::size_t FindLeaf(std::int64_t iOffset) const;
    // The first piece of a leaf that ends behind the offset; the number of pieces without one.
    std::size_t FindPiece(std::size_t iLeaf, std::int64_t iOffset) const;
    void Insert(const Piece& piece);
    void InsertLeaf(std::size_t iLeaf, std::vector<Piece> vPieces);
    static std::size_t CountGaps(const std::vector<Piece>& vPieces);

    std::vector<std::int64_t> m_vFirst;
    std::vector<Leaf> m_vLeaves;
    std::vector<Piece> m_vGaps;  // of the range that is being added
};

#endif
