#pragma once
// Finding the lease-expiry window from a test or the window child: a visible top-level window of
// one process, by its class and, when given, its caption.

#include <windows.h>

#include <string>

namespace testsupport {

inline HWND VisibleWindowOf(DWORD pid, const wchar_t* windowClass, const wchar_t* caption = nullptr) {
    struct Search {
        DWORD pid;
        const wchar_t* windowClass;
        const wchar_t* caption;
        HWND found;
    } search{pid, windowClass, caption, nullptr};
    ::EnumWindows([](HWND window, LPARAM param) -> BOOL {
        auto& wanted = *reinterpret_cast<Search*>(param);
        DWORD process = 0;
        wchar_t text[128] = {}, kind[64] = {};
        ::GetWindowThreadProcessId(window, &process);
        ::GetWindowTextW(window, text, 128);
        ::GetClassNameW(window, kind, 64);
        if (process != wanted.pid || !::IsWindowVisible(window) ||
            (wanted.windowClass && std::wstring(kind) != wanted.windowClass) ||
            (wanted.caption && std::wstring(text) != wanted.caption))
            return TRUE;
        wanted.found = window;
        return FALSE;
    }, reinterpret_cast<LPARAM>(&search));
    return search.found;
}

}  // namespace testsupport
