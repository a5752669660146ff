#pragma once
// Hostile calls: client processes call Tarrow at once with random and malformed arguments; the
// service must stay up, answer each call from the documented set, come back to its handle count
// and memory, and keep a sentinel credential registered before intact.

#include "soak/SoakOptions.h"

namespace soak {

// The orchestrating process. 0 when every check held.
int RunHostileCalls(const Options& options);
// One client process: words = index, calls, Tarrow's pid, result file, dead pids (comma-separated).
int RunHostileClient(const Options& options);

}  // namespace soak
