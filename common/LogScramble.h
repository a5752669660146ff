#pragma once
// The scrambling of ".enl" log files. It depends only on each byte's offset in the file, so lines
// appended by many processes and files cut by rotation are unscrambled by the same routine.

#include <cstddef>
#include <cstdint>

namespace NS_Log {

// Scrambles or unscrambles (the routine is its own inverse) `count` bytes that sit at
// `fileOffset` in the file.
void ScrambleLogBytes(std::uint8_t* bytes, std::size_t count, std::uint64_t fileOffset) noexcept;

}  // namespace NS_Log
