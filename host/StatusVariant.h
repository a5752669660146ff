#pragma once
// The status snapshot as script clients receive it: an array of rows, each an array of VARIANTs.
//
//   row 0, the service:  "service", lease count (I4), queued work items (I4), start time (DATE),
//                        version (BSTR), agent reachable at the last check-in attempt (BOOL; EMPTY
//                        before the first attempt)
//   rows 1..n:           "credential", display name, shared account, lease DN, lease expiry (DATE;
//                        the stored text when it is not a time), holders (array of [pid (I4),
//                        executable (BSTR)]), file name, state, last result (I4 or EMPTY), attempts
//                        (I4), next attempt (DATE or EMPTY), holders ended at (DATE or EMPTY)
//
// Times are local. Built outside every lock of the registry.

#include "monitor/StatusSnapshot.h"

#include <oaidl.h>

#include <string>

namespace NS_Status {

struct ServiceFacts {
    FILETIME started;  // UTC
    std::wstring version;
};

// Fills `out` (which the caller owns and has initialised). Throws std::bad_alloc only.
void ToVariant(const StatusSnapshot& snapshot, const ServiceFacts& facts, VARIANT* out);

}  // namespace NS_Status
