#include "SocketStream.h"

#include <algorithm>

CSocketStream::CSocketStream()
    : m_pcBuffer(std::make_unique_for_overwrite<unsigned char[]>(MAX_BUFFER_SIZE)) {}

std::uint32_t CSocketStream::ReverseByteOrder(const std::uint32_t* p) {
    const auto* pc = reinterpret_cast<const unsigned char*>(p);
    return static_cast<std::uint32_t>(pc[0]) << 24 | static_cast<std::uint32_t>(pc[1]) << 16 |
           static_cast<std::uint32_t>(pc[2]) << 8 | static_cast<std::uint32_t>(pc[3]);
}

unsigned char* CSocketStream::At(std::uint32_t iPosition) const {
    return m_pcBuffer.get() + std::min(iPosition, MAX_BUFFER_SIZE);
}
