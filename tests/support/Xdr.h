// XDR (RFC 4506) as a client writes and reads it: big-endian, every item a multiple of four bytes.
// Written apart from the server's own streams, so that a mistake there is not made here as well.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "support/Files.h"

namespace support {

class XdrWriter {
public:
    XdrWriter& U32(std::uint32_t value);
    XdrWriter& U64(std::uint64_t value);
    XdrWriter& Bool(bool value) { return U32(value ? 1 : 0); }
    // Length, bytes, zero fill to a multiple of four.
    XdrWriter& Opaque(const Bytes& bytes);
    XdrWriter& String(std::string_view text);
    // Bytes and fill without a length.
    XdrWriter& FixedOpaque(const Bytes& bytes);
    // Bytes as they are, also when they are no multiple of four.
    XdrWriter& Raw(const Bytes& bytes);

    const Bytes& Data() const { return m_data; }

private:
    Bytes m_data;
};

// Thrown when a message ends before the item that is read.
class XdrError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class XdrReader {
public:
    explicit XdrReader(Bytes data) : m_data(std::move(data)) {}

    std::uint32_t U32();
    std::uint64_t U64();
    // Any word but 0 and 1 throws: a server must write one of them.
    bool Bool();
    Bytes Opaque();
    std::string String();
    Bytes FixedOpaque(std::size_t size);
    // Exactly this many bytes, no fill.
    Bytes Raw(std::size_t size);

    std::size_t Remaining() const { return m_data.size() - m_position; }
    bool AtEnd() const { return Remaining() == 0; }

private:
    Bytes m_data;
    std::size_t m_position = 0;
};

Bytes ToBytes(std::string_view text);
std::string ToText(const Bytes& bytes);

}  // namespace support
