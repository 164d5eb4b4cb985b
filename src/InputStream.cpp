#include "InputStream.h"

#include <algorithm>
#include <cstring>

#include "DataException.h"

void CInputStream::ConsolidateBuffer(std::uint32_t n) {
    if (m_iIndex < n) {
        return;
    }
    const std::uint32_t iUnread = GetFilledBufferSize();
    if (m_iIndex != 0) {
        std::memmove(m_pcBuffer.get(), At(m_iIndex), iUnread);
    }
    m_iIndex = 0;
    m_iSize = iUnread;
}

void CInputStream::AddFilledBufferSize(std::uint32_t n) {
    m_iSize += std::min(n, GetFreeBufferSize());
}

const unsigned char* CInputStream::GetFilledBuffer(std::uint32_t iOffset,
                                                   std::uint32_t iLen) const {
    const std::uint32_t iUnread = GetFilledBufferSize();
    if (iOffset > iUnread || iLen > iUnread - iOffset) {
        return nullptr;
    }
    return At(m_iIndex + iOffset);
}

void CInputStream::Require(std::uint32_t n) const {
    const std::uint32_t iUnread = GetFilledBufferSize();
    if (n > iUnread) {
        throw CDataTruncatedExpt(n, iUnread);
    }
}

std::uint32_t CInputStream::Read(void* p, std::uint32_t n) {
    Require(n);
    if (n != 0) {
        std::memcpy(p, At(m_iIndex), n);
    }
    m_iIndex += n;
    return n;
}

std::uint32_t CInputStream::Read(std::uint32_t* p) {
    std::uint32_t iWire = 0;
    const std::uint32_t n = Read(&iWire, static_cast<std::uint32_t>(sizeof(iWire)));
    *p = ReverseByteOrder(&iWire);
    return n;
}

std::uint32_t CInputStream::Read8(std::uint64_t* p) {
    std::uint32_t iWire[2] = {};
    const std::uint32_t n = Read(iWire, static_cast<std::uint32_t>(sizeof(iWire)));
    *p =
        static_cast<std::uint64_t>(ReverseByteOrder(&iWire[0])) << 32 | ReverseByteOrder(&iWire[1]);
    return n;
}

std::uint32_t CInputStream::Skip(std::uint32_t n) {
    Require(n);
    m_iIndex += n;
    return n;
}

std::uint32_t CInputStream::SkipRemainOpaque(std::uint32_t iLen) { return Skip(XdrFill(iLen)); }
