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
    static constexpr std::int64_t NONE = -1;

    void Clear();
    // Adds the range [iStart, iEnd) under the number iSegment; an empty range adds nothing.
    void Add(std::int64_t iStart, std::int64_t iEnd, std::uint32_t iSegment);
    // The number of the first range added that covers the offset, or NONE.
    std::int64_t Find(std::int64_t iOffset) const;

private:
    static constexpr std::size_t MAX_LEAF = 128;

    struct Piece {
        std::int64_t iStart;
        std::int64_t iEnd;
        std::uint32_t iSegment;
    };
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
