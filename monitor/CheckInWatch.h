#pragma once
// Watches one call to the agent: when it has not returned after a while, a thread-pool timer
// logs it once, so that a check-in the agent never answers does not hold up every later one in
// silence. Ending the watch cancels the timer and waits for a callback already running.
//
// Threads: made and destroyed on the collector's worker; the callback on a thread-pool thread,
// reading only the text the watch owns.

#include "common/WinHandles.h"

#include <windows.h>

#include <string>

class CCheckInWatch {
public:
    static constexpr DWORD kStuckAfterMs = 60000;

    // `credential`: the display name the log line names.
    explicit CCheckInWatch(std::wstring credential, DWORD stuckAfterMs = kStuckAfterMs);
    CCheckInWatch(const CCheckInWatch&) = delete;
    CCheckInWatch& operator=(const CCheckInWatch&) = delete;
    ~CCheckInWatch();

private:
    static void CALLBACK OnStuck(void* self, BOOLEAN timerFired);

    std::wstring m_credential;
    // After the text it reads: destroyed first, waiting for a callback that runs.
    NS_Utils::UniqueTimerQueueTimer m_timer;
};
