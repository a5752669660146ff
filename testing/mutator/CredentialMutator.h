#pragma once
// Random damage to a credential file's text, and what the reader must make of any text. Shared by
// the reader's randomized test and the soak program's long parser run.

#include <random>
#include <string>
#include <vector>

namespace mutator {

// One to four random edits: overwritten units, inserted line feeds, zeros and surrogates, cuts,
// and lines stretched around the reader's 511-character limit or far past it.
std::wstring Mutate(std::wstring text, std::mt19937& rng);

// The first nine lines of `raw` (up to its first zero), each ended by a line feed and at most 511
// characters long, or nothing when the reader must refuse the text.
std::vector<std::wstring> ExpectedLines(const std::wstring& raw);

}  // namespace mutator
