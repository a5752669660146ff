#pragma once
// Finding the lease-expiry window from a test or the window child, and reading its rows as
// another process or a screen reader does.

#include <windows.h>

#include <string>

namespace testsupport {

// A visible top-level window of one process, by its class and, when given, its caption.
inline HWND VisibleWindowOf(DWORD pid, const wchar_t* windowClass, const wchar_t* caption = nullptr) {
    struct Search {
        DWORD pid;
        const wchar_t* windowClass;
        const wchar_t* caption;
        HWND found;
    } search{pid, windowClass, caption, nullptr};
    ::EnumWindows(
        [](HWND window, LPARAM param) -> BOOL {
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
        },
        reinterpret_cast<LPARAM>(&search));
    return search.found;
}

// The string of the list box's item at `index` (LB_GETTEXT), empty when there is none.
inline std::wstring ItemText(HWND list, int index) {
    LRESULT length = ::SendMessageW(list, LB_GETTEXTLEN, static_cast<WPARAM>(index), 0);
    if (length <= 0) return {};
    std::wstring text(static_cast<size_t>(length) + 1, L'\0');
    length = ::SendMessageW(list, LB_GETTEXT, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(text.data()));
    text.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return text;
}

}  // namespace testsupport
