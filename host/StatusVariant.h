#pragma once
// The status snapshot as script clients receive it, in the layout of host/StatusLayout.h. Built
// outside every lock of the registry.

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
