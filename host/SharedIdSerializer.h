#pragma once
// The byte string GetRegisteredSharedId returns: a 32-bit body length, then ten items of
// (4, byte length, UTF-16LE text), all integers little-endian.

#include "sharedid/SharedId.h"

#include <cstdint>
#include <string>
#include <vector>

namespace NS_DATA_STREAM_UTILS {

// Adds up what it is given; a measuring pass writes through it first.
class CCountingStream {
public:
    void Write(const void*, size_t bytes) { m_count += bytes; }
    size_t Count() const { return m_count; }

private:
    size_t m_count = 0;
};

class CBufferStream {
public:
    explicit CBufferStream(std::vector<std::uint8_t>& buffer) : m_buffer(buffer) {}
    void Write(const void* data, size_t bytes) {
        auto* p = static_cast<const std::uint8_t*>(data);
        m_buffer.insert(m_buffer.end(), p, p + bytes);
    }

private:
    std::vector<std::uint8_t>& m_buffer;
};

// The length of the record's body.
std::uint32_t MeasureSharedId(const CSharedId& record);
std::vector<std::uint8_t> SerializeSharedId(const CSharedId& record);

}  // namespace NS_DATA_STREAM_UTILS
