#pragma once
// Reads the byte string of a found credential back into its ten named texts.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tarrowctl {

using DecodedRecord = std::vector<std::pair<std::wstring, std::wstring>>;

// False when the bytes do not hold exactly the ten items their length announces.
bool DecodeRecord(const std::uint8_t* bytes, size_t size, DecodedRecord& fields);

}  // namespace tarrowctl
