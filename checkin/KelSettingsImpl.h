#pragma once
// The check-in client's timing setting, read from the service's settings key.

#include <windows.h>

class KelSettingsImpl {
public:

    // Milliseconds between check-in retries: "FreeSharedIdWaitTime", taken as read (0 retries at
    // once), else the default. Read on every call so that a change applies at the next retry.
    static DWORD GetFreeSharedIdWaitTime();
};
