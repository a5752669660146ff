#pragma once
// Owners of window-system resources of the lease-expiry window. A window is destroyed by the
// thread that made it, so its owner lives on that thread's stack.

#include "common/WinHandles.h"

#include <windows.h>

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

using UniqueWindow = UniqueResource<WindowTraits>;
using UniqueIcon = UniqueResource<IconTraits>;

}  // namespace NS_Utils
