#pragma once
// A heap for the parser run in which every block ends where an uncommitted page begins: a read of
// even one byte past any buffer (the reader's file buffer, the text it scans, a line it copies)
// faults at once instead of passing unseen. The few bytes of alignment slack before the guard are
// filled with a non-zero pattern, so that a scan for a terminator runs on into the guard, and
// are checked when the block is freed, so that a write past the end is caught too.
// Replaces the program's operator new and delete; blocks are plain heap blocks until Enable().

#include <cstddef>

namespace soak::guarded {

void Enable();
// Blocks placed before a guard page so far.
size_t GuardedAllocations();
// Whether `address` lies in a guard page of this heap.
bool IsGuardPage(const void* address);

}  // namespace soak::guarded
