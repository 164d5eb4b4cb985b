#include "SocketStream.h"

#include <algorithm>

CSocketStream::CSocketStream()
    : m_pcBuffer(std::make_unique_for_overwrite<unsigned char[]>(MAX_BUFFER_SIZE)) {}

void CSocketStream::ResetBuffer() {
    m_iIndex = 0;
    m_iSize = 0;
}

unsigned char* CSocketStream::At(std::uint32_t iPosition) {
    return m_pcBuffer.get() + std::min(iPosition, MAX_BUFFER_SIZE);
}

const unsigned char* CSocketStream::At(std::uint32_t iPosition) const {
    return m_pcBuffer.get() + std::min(iPosition, MAX_BUFFER_SIZE);
}
