#pragma once
// Long parser run: mutated credential files through the reader, with the randomized test's rule as
// the oracle, and the same files through the start-up enumeration in batches. Runs in-process,
// with every allocation placed before a guard page.

#include "soak/SoakOptions.h"

namespace soak {

int RunParser(const Options& options);

}  // namespace soak
