#pragma once
// What the Restart Manager sends an application that it closes for an installer (Wine has no
// Restart Manager): WM_QUERYENDSESSION and then WM_ENDSESSION with ENDSESSION_CLOSEAPP, to every
// top-level window of the process.

#include <windows.h>

#include <utility>
#include <vector>

namespace testsupport {

// The top-level windows of a process: those Windows sends the messages of a logoff or a close
// request to.
inline std::vector<HWND> TopLevelWindowsOf(DWORD pid) {
    std::pair<DWORD, std::vector<HWND>> search{pid, {}};
    ::EnumWindows(
        [](HWND window, LPARAM found) {
            auto* s = reinterpret_cast<std::pair<DWORD, std::vector<HWND>>*>(found);
            DWORD owner = 0;
            ::GetWindowThreadProcessId(window, &owner);
            if (owner == s->first) s->second.push_back(window);
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&search));
    return search.second;
}

// The number of windows the request went to.
inline size_t SendCloseRequest(DWORD pid) {
    const std::vector<HWND> windows = TopLevelWindowsOf(pid);
    DWORD_PTR answer = 0;
    for (HWND window : windows)
        ::SendMessageTimeoutW(window, WM_QUERYENDSESSION, 0, ENDSESSION_CLOSEAPP, SMTO_ABORTIFHUNG, 5000, &answer);
    for (HWND window : windows)
        ::SendMessageTimeoutW(window, WM_ENDSESSION, TRUE, ENDSESSION_CLOSEAPP, SMTO_ABORTIFHUNG, 5000, &answer);
    return windows.size();
}

}  // namespace testsupport
