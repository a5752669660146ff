#pragma once
// Owners of window-system resources of the lease-expiry window. A window is destroyed by the
// thread that made it, so its owner lives on that thread's stack.

#include "common/WinHandles.h"

#include <windows.h>
#include <wtsapi32.h>

namespace NS_Utils {

struct WindowTraits {
    using type = HWND;
    static HWND Invalid() noexcept { return nullptr; }
    static bool IsValid(HWND w) noexcept { return w != nullptr; }
    static void Close(HWND w) noexcept { ::DestroyWindow(w); }
};

struct IconTraits {
    using type = HICON;
    static HICON Invalid() noexcept { return nullptr; }
    // ExtractIconW answers 1 for a file that is not an executable.
    static bool IsValid(HICON i) noexcept { return reinterpret_cast<ULONG_PTR>(i) > 1; }
    static void Close(HICON i) noexcept { ::DestroyIcon(i); }
};

struct GdiObjectTraits {
    using type = HGDIOBJ;
    static HGDIOBJ Invalid() noexcept { return nullptr; }
    static bool IsValid(HGDIOBJ o) noexcept { return o != nullptr; }
    static void Close(HGDIOBJ o) noexcept { ::DeleteObject(o); }
};

// A device context of CreateCompatibleDC's.
struct MemoryDCTraits {
    using type = HDC;
    static HDC Invalid() noexcept { return nullptr; }
    static bool IsValid(HDC dc) noexcept { return dc != nullptr; }
    static void Close(HDC dc) noexcept { ::DeleteDC(dc); }
};

using UniqueWindow = UniqueResource<WindowTraits>;
using UniqueIcon = UniqueResource<IconTraits>;
using UniqueGdiObject = UniqueResource<GdiObjectTraits>;
using UniqueMemoryDC = UniqueResource<MemoryDCTraits>;

// A window's registration for the session's lock, unlock and connection notices
// (WM_WTSSESSION_CHANGE), ended before the window is destroyed.
struct SessionNotificationTraits {
    using type = HWND;
    static HWND Invalid() noexcept { return nullptr; }
    static bool IsValid(HWND w) noexcept { return w != nullptr; }
    static void Close(HWND w) noexcept { ::WTSUnRegisterSessionNotification(w); }
};
using SessionNotification = UniqueResource<SessionNotificationTraits>;

// A window's device context, given back to that window when the owner goes.
class WindowDC {
public:
    explicit WindowDC(HWND window) noexcept : m_window(window), m_dc(::GetDC(window)) {}
    WindowDC(const WindowDC&) = delete;
    WindowDC& operator=(const WindowDC&) = delete;
    ~WindowDC() {
        if (m_dc) ::ReleaseDC(m_window, m_dc);
    }
    HDC get() const noexcept { return m_dc; }

private:
    HWND m_window;
    HDC m_dc;
};

// A GDI object selected into a device context for the owner's scope; the one it replaced goes
// back, so that the object can be deleted afterwards and the context is left as it was found.
class SelectedObject {
public:
    SelectedObject(HDC dc, HGDIOBJ object) noexcept
        : m_dc(dc), m_old(dc && object ? ::SelectObject(dc, object) : nullptr) {}
    SelectedObject(const SelectedObject&) = delete;
    SelectedObject& operator=(const SelectedObject&) = delete;
    ~SelectedObject() {
        if (m_old) ::SelectObject(m_dc, m_old);
    }

private:
    HDC m_dc;
    HGDIOBJ m_old;
};

}  // namespace NS_Utils
