#include "support/Xdr.h"

namespace support {

namespace {

std::size_t FillOf(std::size_t size) { return (4 - size % 4) % 4; }

}  // namespace

XdrWriter& XdrWriter::U32(std::uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        m_data.push_back(static_cast<std::uint8_t>(value >> shift));
    }
    return *this;
}

XdrWriter& XdrWriter::U64(std::uint64_t value) {
    return U32(static_cast<std::uint32_t>(value >> 32)).U32(static_cast<std::uint32_t>(value));
}

XdrWriter& XdrWriter::Opaque(const Bytes& bytes) {
    return U32(static_cast<std::uint32_t>(bytes.size())).FixedOpaque(bytes);
}

XdrWriter& XdrWriter::String(std::string_view text) { return Opaque(ToBytes(text)); }

XdrWriter& XdrWriter::FixedOpaque(const Bytes& bytes) {
    Raw(bytes);
    m_data.insert(m_data.end(), FillOf(bytes.size()), 0);
    return *this;
}

XdrWriter& XdrWriter::Raw(const Bytes& bytes) {
    m_data.insert(m_data.end(), bytes.begin(), bytes.end());
    return *this;
}

std::uint32_t XdrReader::U32() {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : Raw(4)) {
        value = value << 8 | byte;
    }
    return value;
}

std::uint64_t XdrReader::U64() {
    const std::uint64_t high = U32();
    return high << 32 | U32();
}

bool XdrReader::Bool() {
    const std::uint32_t value = U32();
    if (value > 1) {
        throw XdrError("a bool of " + std::to_string(value));
    }
    return value == 1;
}

Bytes XdrReader::Opaque() { return FixedOpaque(U32()); }

std::string XdrReader::String() { return ToText(Opaque()); }

Bytes XdrReader::FixedOpaque(std::size_t size) {
    Bytes bytes = Raw(size);
    Raw(FillOf(size));
    return bytes;
}

Bytes XdrReader::Raw(std::size_t size) {
    if (size > Remaining()) {
        throw XdrError("message ends at byte " + std::to_string(m_data.size()) + ", wanted " +
                       std::to_string(size) + " bytes from byte " + std::to_string(m_position));
    }
    const auto first = m_data.begin() + static_cast<std::ptrdiff_t>(m_position);
    m_position += size;
    return {first, first + static_cast<std::ptrdiff_t>(size)};
}

Bytes ToBytes(std::string_view text) { return {text.begin(), text.end()}; }

std::string ToText(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

}  // namespace support
