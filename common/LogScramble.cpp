#include "common/LogScramble.h"

namespace NS_Log {

namespace {
// A mix of the offset, so that repeated text does not show as repeated bytes.
std::uint8_t KeyByte(std::uint64_t offset) noexcept {
    std::uint64_t x = (offset + 0x9E3779B97F4A7C15ull) * 0xBF58476D1CE4E5B9ull;
    x ^= x >> 31;
    return static_cast<std::uint8_t>(x ^ (x >> 17) ^ 0xA5u);
}
}  // namespace

void ScrambleLogBytes(std::uint8_t* bytes, std::size_t count, std::uint64_t fileOffset) noexcept {
    for (std::size_t i = 0; i < count; ++i) bytes[i] ^= KeyByte(fileOffset + i);
}

}  // namespace NS_Log
