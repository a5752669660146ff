#pragma once
// Publishing in the running object table fails for a while when the session's services are
// still starting (seen as RPC_S_SERVER_UNAVAILABLE). A service that gives up there is running but
// unreachable for its whole life, so the attempt is repeated with a growing pause.

#include <windows.h>

#include <functional>

namespace NS_Host {

inline constexpr HRESULT kServerUnavailable = HRESULT_FROM_WIN32(RPC_S_SERVER_UNAVAILABLE);

// Runs `attempt` until it answers anything but kServerUnavailable, pausing through `pause`
// (100 ms, doubling, at most 5 s each) until `budgetMs` of pauses are spent. The last answer.
inline HRESULT RetryWhileUnavailable(const std::function<HRESULT()>& attempt, const std::function<void(DWORD)>& pause,
                                     DWORD budgetMs = 60000) {
    DWORD spent = 0;
    DWORD next = 100;
    for (;;) {
        HRESULT hr = attempt();
        if (hr != kServerUnavailable || spent >= budgetMs) return hr;
        DWORD wait = next < budgetMs - spent ? next : budgetMs - spent;
        pause(wait);
        spent += wait;
        next = next * 2 < 5000 ? next * 2 : 5000;
    }
}

}  // namespace NS_Host
