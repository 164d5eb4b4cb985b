// XDR decoding in place over the bytes that a socket received (RFC 4506).
#ifndef VELOCAST_INPUTSTREAM_H
#define VELOCAST_INPUTSTREAM_H

#include "SocketStream.h"

// Sizes and positions are in bytes.  Reads beyond the received bytes throw CDataTruncatedExpt
// and leave the position where it was.
class CInputStream : public CSocketStream {
public:
    // Moves the unread bytes to the start of the buffer if the index has reached n.
    void ConsolidateBuffer(std::uint32_t n);

    // Where the next received bytes go, how many fit, and how many came.  A count beyond the
    // room is cut to it.
    unsigned char* GetFreeBuffer() { return At(m_iSize); }
    std::uint32_t GetFreeBufferSize() const { return GetMaxBufferSize() - m_iSize; }
    void AddFilledBufferSize(std::uint32_t n);

    std::uint32_t GetBufferIndex() const { return m_iIndex; }
    void SetBufferIndex(std::uint32_t i) { m_iIndex = i; }

    // iLen unread bytes that start iOffset past the index, without consuming them; null when
    // there are fewer.
    const unsigned char* GetFilledBuffer(std::uint32_t iOffset, std::uint32_t iLen) const;
    // The number of unread bytes.
    std::uint32_t GetFilledBufferSize() const {
        return m_iIndex < m_iSize ? m_iSize - m_iIndex : 0;
    }
    const unsigned char* GetCurrentBuffer() const { return At(m_iIndex); }

    // Each returns the number of bytes consumed.  Numbers are big-endian on the wire.
    std::uint32_t Read(void* p, std::uint32_t n);
    std::uint32_t Read(std::uint32_t* p);
    std::uint32_t Read8(std::uint64_t* p);
    std::uint32_t Skip(std::uint32_t n);
    // Skips the fill after an opaque of iLen bytes.
    std::uint32_t SkipRemainOpaque(std::uint32_t iLen);

private:
    // Throws unless n bytes are unread.
    void Require(std::uint32_t n) const;
};

#endif
