#pragma once
// The check-in client's timing setting, read from the service's settings key.

#include <windows.h>

class KelSettingsImpl {
public:

    // Milliseconds between check-in retries: "FreeSharedIdWaitTime" within the range the templates
    // offer (1000 to 3600000; a value outside is taken as the nearer end), else the default. Read
    // on every call so that a change applies at the next retry.
    static DWORD GetFreeSharedIdWaitTime();
};
