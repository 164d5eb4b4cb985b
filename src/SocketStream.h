// Fixed buffer of one direction of one socket; base of the XDR input and output streams.
#ifndef VELOCAST_SOCKETSTREAM_H
#define VELOCAST_SOCKETSTREAM_H

#include <cstdint>
#include <memory>

// Bytes of fill after an opaque of iLen bytes (RFC 4506, section 4.10): 0 to 3.
constexpr std::uint32_t XdrFill(std::uint32_t iLen) { return (4 - iLen % 4) % 4; }

// Thread safety: none; a stream belongs to the thread of its socket.
// Invariant: m_iSize <= GetMaxBufferSize().  m_iIndex may be moved anywhere by the owner; every
// access to the buffer is bounded by its end.
class CSocketStream {
public:
    CSocketStream();
    virtual ~CSocketStream() = default;
    CSocketStream(const CSocketStream&) = delete;
    CSocketStream& operator=(const CSocketStream&) = delete;

    // Bytes in every stream's buffer; there is no growth.
    static constexpr std::uint32_t GetMaxBufferSize() { return MAX_BUFFER_SIZE; }

    // The four bytes of *p, as they came from the wire, read as a big-endian number.
    static std::uint32_t ReverseByteOrder(const std::uint32_t* p) {
        const auto* pc = reinterpret_cast<const unsigned char*>(p);
        return static_cast<std::uint32_t>(pc[0]) << 24 | static_cast<std::uint32_t>(pc[1]) << 16 |
               static_cast<std::uint32_t>(pc[2]) << 8 | static_cast<std::uint32_t>(pc[3]);
    }

    // Forgets all bytes.
    void ResetBuffer();

protected:
    // A pointer into the buffer at a position, never past its end.
    unsigned char* At(std::uint32_t iPosition);
    const unsigned char* At(std::uint32_t iPosition) const;

    std::unique_ptr<unsigned char[]> m_pcBuffer;  // MAX_BUFFER_SIZE bytes, not zero-filled
    std::uint32_t m_iIndex = 0;                   // next byte to read or to write
    std::uint32_t m_iSize = 0;                    // input: bytes received; output: bytes to send

private:
    static constexpr std::uint32_t MAX_BUFFER_SIZE = 0x100000;
};

#endif
