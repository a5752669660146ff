// tarrow_closeapp.exe: closes the running Tarrow as the Restart Manager does for an installer
// that replaces its files (Wine has no Restart Manager): WM_QUERYENDSESSION and then WM_ENDSESSION
// with ENDSESSION_CLOSEAPP to every top-level window of its process, and waits up to 10 s for the
// process to end. Exit code 0 when it ended, 1 when no Tarrow runs, 2 when it did not end.

#include "common/WinHandles.h"

#include <windows.h>

#include <vector>

namespace {
struct Search {
    DWORD pid;
    std::vector<HWND> windows;
};
}  // namespace

int wmain() {
    HWND known = ::FindWindowW(L"KEL_Tarrow_Close_Request", nullptr);
    Search search{0, {}};
    if (!known || !::GetWindowThreadProcessId(known, &search.pid)) return 1;
    NS_Utils::UniqueHandle process(::OpenProcess(SYNCHRONIZE, FALSE, search.pid));
    ::EnumWindows(
        [](HWND window, LPARAM found) {
            auto* s = reinterpret_cast<Search*>(found);
            DWORD owner = 0;
            ::GetWindowThreadProcessId(window, &owner);
            if (owner == s->pid) s->windows.push_back(window);
            return TRUE;
        },
        reinterpret_cast<LPARAM>(&search));
    DWORD_PTR answer = 0;
    for (HWND window : search.windows)
        ::SendMessageTimeoutW(window, WM_QUERYENDSESSION, 0, ENDSESSION_CLOSEAPP, SMTO_ABORTIFHUNG, 5000, &answer);
    for (HWND window : search.windows)
        ::SendMessageTimeoutW(window, WM_ENDSESSION, TRUE, ENDSESSION_CLOSEAPP, SMTO_ABORTIFHUNG, 5000, &answer);
    return process && ::WaitForSingleObject(process.get(), 10000) == WAIT_OBJECT_0 ? 0 : 2;
}
