// XDR encoding into the bytes that a socket will send (RFC 4506).
#ifndef VELOCAST_OUTPUTSTREAM_H
#define VELOCAST_OUTPUTSTREAM_H

#include "SocketStream.h"

// The index (where the next byte goes) and the size (what a send takes) are two things: a seek
// never changes the size, so that earlier fields can be overwritten once they are known.
// What goes beyond the end of the buffer is cut off silently.
class COutputStream : public CSocketStream {
public:
    // Bytes written; fewer than n at the end of the buffer.  A null p reserves the space and
    // leaves its bytes as they are.
    std::uint32_t Write(const void* p, std::uint32_t n);
    std::uint32_t Write(std::uint32_t v);
    std::uint32_t Write8(std::uint64_t v);

    // iWhence 0: from the start, 1: from the index, 2: from the size; any other: no effect.
    void Seek(std::uint32_t iOffset, int iWhence);

    // Moves over the fill of an opaque of iLen bytes without writing it: the fill keeps what the
    // buffer held, and the size follows with the next write.  Returns the bytes moved.
    std::uint32_t WriteRemainOpaque(std::uint32_t iLen);

    // The reply ends here: the size becomes the index.  Drops what was written beyond it and takes
    // in a fill that was only moved over.
    void EndRecord();

    // Drops n sent bytes from the front.  An index beyond n stays as it is.
    void FreeBuffer(std::uint32_t n);

    const unsigned char* GetBuffer() const { return m_pcBuffer.get(); }
    std::uint32_t GetBufferSize() const { return m_iSize; }
    std::uint32_t GetBufferIndex() const { return m_iIndex; }
    // For writing in place up to GetFreeBufferSize() bytes.
    unsigned char* GetCurrentBuffer() { return At(m_iIndex); }
    // Counted from the index, not from the size.
    std::uint32_t GetFreeBufferSize() const {
        return m_iIndex < GetMaxBufferSize() ? GetMaxBufferSize() - m_iIndex : 0;
    }
};

#endif
