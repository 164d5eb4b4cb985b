#include "SegmentIndex.h"

#include <algorithm>
#include <utility>

void CSegmentIndex::Clear() {
    m_vFirst.clear();
    m_vLeaves.clear();
}

std::size_t CSegmentIndex::FindLeaf(std::int64_t iOffset) const {
    // A binary search without a branch to mispredict: offsets come in no order.
    std::size_t iLeaf = 0;
    for (std::size_t iCount = m_vFirst.size(); iCount > 1;) {
        const std::size_t iHalf = iCount / 2;
        iLeaf = m_vFirst[iLeaf + iHalf] <= iOffset ? iLeaf + iHalf : iLeaf;
        iCount -= iHalf;
    }
    return iLeaf;
}

const CSegmentIndex::Piece* CSegmentIndex::Find(std::int64_t iOffset) const {
    if (m_vLeaves.empty()) {
        return nullptr;
    }
    const std::size_t iLeaf = FindLeaf(iOffset);
    const std::vector<Piece>& vPieces = m_vLeaves[iLeaf].vPieces;
    const std::size_t i = FindPiece(iLeaf, iOffset);
    return i < vPieces.size() && vPieces[i].iStart <= iOffset ? &vPieces[i] : nullptr;
}

std::size_t CSegmentIndex::FindPiece(std::size_t iLeaf, std::int64_t iOffset) const {
    const std::vector<Piece>& vPieces = m_vLeaves[iLeaf].vPieces;
    const std::size_t iCount = vPieces.size();
    const auto endsBehind = [&](std::size_t i) { return iOffset < vPieces[i].iEnd; };
    // The ends of the leaf are taken from the list of leaves, to leave its pieces untouched.
    const auto dFirst = static_cast<double>(m_vFirst[iLeaf]);
    const auto dEnd = static_cast<double>(iLeaf + 1 < m_vFirst.size() ? m_vFirst[iLeaf + 1]
                                                                      : vPieces.back().iEnd);
    const double dPlace = (static_cast<double>(iOffset) - dFirst) / (dEnd - dFirst);
    std::size_t iGuess = iCount - 1;
    if (dPlace < 1) {
        iGuess = dPlace > 0 ? static_cast<std::size_t>(dPlace * static_cast<double>(iGuess)) : 0;
    }

    // Ever longer steps away from the guess enclose the piece in [iFrom, iTo].
    std::size_t iFrom = 0;
    std::size_t iTo = iCount;
    if (endsBehind(iGuess)) {
        iTo = iGuess;
        for (std::size_t iStep = 1; iStep <= iTo; iStep *= 2) {
            if (!endsBehind(iTo - iStep)) {
                iFrom = iTo - iStep + 1;
                break;
            }
            iTo -= iStep;
        }
    } else {
        iFrom = iGuess + 1;
        for (std::size_t iStep = 1; iFrom + iStep <= iCount; iStep *= 2) {
            if (endsBehind(iFrom + iStep - 1)) {
                iTo = iFrom + iStep - 1;
                break;
            }
            iFrom += iStep;
        }
    }
    const auto itBegin = vPieces.begin();
    const auto it = std::upper_bound(
        itBegin + static_cast<std::ptrdiff_t>(iFrom), itBegin + static_cast<std::ptrdiff_t>(iTo),
        iOffset, [](std::int64_t i, const Piece& piece) { return i < piece.iEnd; });
    return static_cast<std::size_t>(it - itBegin);
}

void CSegmentIndex::Add(const Piece& range) {
    // The gaps of the range are collected first: inserting would move what is walked over.
    m_vGaps.clear();
    std::int64_t iPos = range.iStart;
    const auto claim = [&](std::int64_t iEnd) {
        m_vGaps.push_back({iPos, iEnd, range.iShift, range.iSegment, range.iSource});
    };
    const auto passOver = [&](std::int64_t iFrom, std::int64_t iTo) {
        if (iPos < iFrom) {
            claim(std::min(iFrom, range.iEnd));
        }
        iPos = std::max(iPos, iTo);
    };
    for (std::size_t i = FindLeaf(range.iStart);
         i < m_vLeaves.size() && iPos < range.iEnd && m_vFirst[i] < range.iEnd; ++i) {
        const std::vector<Piece>& vPieces = m_vLeaves[i].vPieces;
        if (m_vLeaves[i].iGaps == 0) {
            passOver(vPieces.front().iStart, vPieces.back().iEnd);
            continue;
        }
        for (std::size_t k = FindPiece(i, iPos);
             k < vPieces.size() && vPieces[k].iStart < range.iEnd; ++k) {
            passOver(vPieces[k].iStart, vPieces[k].iEnd);
        }
    }
    if (iPos < range.iEnd) {
        claim(range.iEnd);
    }
    for (const Piece& gap : m_vGaps) {
        Insert(gap);
    }
}

std::size_t CSegmentIndex::CountGaps(const std::vector<Piece>& vPieces) {
    std::size_t iGaps = 0;
    for (std::size_t i = 1; i < vPieces.size(); ++i) {
        iGaps += vPieces[i - 1].iEnd != vPieces[i].iStart ? 1U : 0U;
    }
    return iGaps;
}

void CSegmentIndex::InsertLeaf(std::size_t iLeaf, std::vector<Piece> vPieces) {
    const auto iAt = static_cast<std::ptrdiff_t>(iLeaf);
    m_vFirst.insert(m_vFirst.begin() + iAt, vPieces.front().iStart);
    const std::size_t iGaps = CountGaps(vPieces);
    m_vLeaves.insert(m_vLeaves.begin() + iAt, Leaf{std::move(vPieces), iGaps});
}

void CSegmentIndex::Insert(const Piece& piece) {
    if (m_vLeaves.empty()) {
        InsertLeaf(0, {piece});
        return;
    }
    const std::size_t iLeaf = FindLeaf(piece.iStart);
    Leaf& leaf = m_vLeaves[iLeaf];
    std::vector<Piece>& vPieces = leaf.vPieces;
    const std::size_t iPiece = FindPiece(iLeaf, piece.iStart);  // the one it goes before
    if (vPieces.size() == MAX_LEAF) {
        if (iPiece == MAX_LEAF) {
            // Ranges mostly come in ascending order: a full leaf stays full.
            InsertLeaf(iLeaf + 1, {piece});
            return;
        }
        const auto itHalf = vPieces.begin() + MAX_LEAF / 2;
        std::vector<Piece> vUpper(itHalf, vPieces.end());
        vPieces.erase(itHalf, vPieces.end());
        leaf.iGaps = CountGaps(vPieces);
        InsertLeaf(iLeaf + 1, std::move(vUpper));  // moves the leaves: start again
        Insert(piece);
        return;
    }
    const bool bBefore = iPiece > 0;
    const bool bBehind = iPiece < vPieces.size();
    if (bBefore && bBehind && vPieces[iPiece - 1].iEnd != vPieces[iPiece].iStart) {
        --leaf.iGaps;
    }
    if (bBefore && vPieces[iPiece - 1].iEnd != piece.iStart) {
        ++leaf.iGaps;
    }
    if (bBehind && piece.iEnd != vPieces[iPiece].iStart) {
        ++leaf.iGaps;
    }
    vPieces.insert(vPieces.begin() + static_cast<std::ptrdiff_t>(iPiece), piece);
    m_vFirst[iLeaf] = vPieces.front().iStart;
}
