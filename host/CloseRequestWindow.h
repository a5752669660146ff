#pragma once
// A hidden top-level window on the main thread that hears a request to close the application
// (WM_ENDSESSION with ENDSESSION_CLOSEAPP, as an installer replacing the service's files sends
// through the Restart Manager) and ends the message loop, so that the service ends in order.
// That is not the end of the session: no holder is ended and nothing is checked in; the files
// and holder lists stay, and the next start holds the running holders' credentials again.
// At the end of the session itself it tells its owner, before Windows ends the process.
//
// Threads: made, used and destroyed on the main thread, whose message loop serves it.

#include "ui/UiHandles.h"

#include <functional>

class CCloseRequestWindow {
public:
    // False when the window could not be made; the service runs on without it. `onSessionEnd`
    // runs on the main thread when the session ends.
    [[nodiscard]] bool Create(std::function<void()> onSessionEnd);

private:
    static LRESULT CALLBACK WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

    NS_Utils::UniqueWindow m_window;
    std::function<void()> m_onSessionEnd;
};
