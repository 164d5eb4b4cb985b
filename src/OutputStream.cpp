#include "OutputStream.h"

#include <algorithm>
#include <cstring>

std::uint32_t COutputStream::Write(const void* p, std::uint32_t n) {
    const std::uint32_t iCount = std::min(n, GetFreeBufferSize());
    if (p != nullptr && iCount != 0) {
        std::memcpy(At(m_iIndex), p, iCount);
    }
    m_iIndex += iCount;
    m_iSize = std::max(m_iSize, std::min(m_iIndex, GetMaxBufferSize()));
    return iCount;
}

std::uint32_t COutputStream::Write(std::uint32_t v) {
    const unsigned char cWire[4] = {
        static_cast<unsigned char>(v >> 24), static_cast<unsigned char>(v >> 16),
        static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v)};
    return Write(cWire, static_cast<std::uint32_t>(sizeof(cWire)));
}

std::uint32_t COutputStream::Write8(std::uint64_t v) {
    unsigned char cWire[8];
    for (unsigned i = 0; i < 8; ++i) {
        cWire[i] = static_cast<unsigned char>(v >> (56 - 8 * i));
    }
    return Write(cWire, static_cast<std::uint32_t>(sizeof(cWire)));
}

void COutputStream::Seek(std::uint32_t iOffset, int iWhence) {
    switch (iWhence) {
        case 0:
            m_iIndex = iOffset;
            break;
        case 1:
            m_iIndex += iOffset;
            break;
        case 2:
            m_iIndex = m_iSize + iOffset;
            break;
        default:
            break;
    }
}

std::uint32_t COutputStream::WriteRemainOpaque(std::uint32_t iLen) {
    const std::uint32_t iFill = XdrFill(iLen);
    Seek(iFill, 1);
    return iFill;
}

void COutputStream::EndRecord() {
    m_iIndex = std::min(m_iIndex, GetMaxBufferSize());
    m_iSize = m_iIndex;
}

void COutputStream::FreeBuffer(std::uint32_t n) {
    if (m_iSize <= n) {
        ResetBuffer();
        return;
    }
    std::memmove(m_pcBuffer.get(), At(n), m_iSize - n);
    m_iSize -= n;
    if (m_iIndex <= n) {
        m_iIndex = 0;
    }
}
