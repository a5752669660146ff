#pragma once
// A holder on the lease-expiry window, as the status view reports it: the window makes these and
// the registry reads them, neither knowing the other.

#include "sharedid/SharedId.h"

#include <ctime>
#include <memory>

struct LMListedRow {
    DWORD processId;
    std::weak_ptr<CSharedId> credential;
    __time64_t endTime;  // when the row's process is ended (UTC)
};
