#pragma once
// A hidden top-level window on the main thread that hears a request to close the application
// (WM_ENDSESSION with ENDSESSION_CLOSEAPP, as an installer replacing the service's files sends
// through the Restart Manager) and ends the message loop, so that the service ends in order.
// That is not the end of the session: no holder is ended and nothing is checked in; the files
// and holder lists stay, and the next start holds the running holders' credentials again.
// At the end of the session itself it tells its owner, before Windows ends the process; and when
// the process outlives that end (the user cancelled the logoff once Windows had told the
// programs, or another program refused it), it tells its owner that the session goes on.
//
// Threads: made, used and destroyed on the main thread, whose message loop serves it.

#include "ui/UiHandles.h"

#include <functional>

class CCloseRequestWindow {
public:
    struct Callbacks {
        // The session ends; once for each WM_QUERYENDSESSION.
        std::function<void()> onSessionEnd;
        // The session goes on after onSessionEnd: the next query, WM_ENDSESSION(FALSE), or the
        // process still running long after the end (kOutlivedEndMs).
        std::function<void()> onSessionGoesOn;
    };
    // Past the end of the session's bounded wait for check-ins, with room to spare: Windows has
    // ended every program of a session that really ended by then.
    static constexpr unsigned kOutlivedEndMs = 180000;

    // False when the window could not be made; the service runs on without it. The callbacks
    // run on the main thread.
    [[nodiscard]] bool Create(Callbacks callbacks);

private:
    static LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    void OnSessionEnd(HWND window);
    void OnSessionGoesOn(HWND window, const wchar_t* why);

    NS_Utils::UniqueWindow m_window;
    Callbacks m_callbacks;
    bool m_ended = false;
};
