#include "host/CloseRequestWindow.h"

#include "common/Log.h"
#include "host/TarrowModule.h"

namespace {
constexpr const wchar_t* kClassName = L"KEL_Tarrow_Close_Request";
}

bool CCloseRequestWindow::Create(std::function<void()> onSessionEnd) {
    // The window's quit goes to the thread that made it: only the main thread's ends the service.
    CTarrowModule::Instance().MainThread().Check(L"[CCloseRequestWindow::Create]\t called off the main thread");
    WNDCLASSEXW windowClass{};
    windowClass.cbSize = sizeof(windowClass);
    windowClass.lpfnWndProc = &CCloseRequestWindow::WindowProc;
    windowClass.hInstance = ::GetModuleHandleW(nullptr);
    windowClass.lpszClassName = kClassName;
    if (!::RegisterClassExW(&windowClass) && ::GetLastError() != ERROR_CLASS_ALREADY_EXISTS) return false;
    // Top-level, never shown: a message-only window would not hear the close request.
    m_window.reset(::CreateWindowExW(0, kClassName, L"Tarrow", WS_OVERLAPPED, 0, 0, 0, 0, nullptr, nullptr,
                                     windowClass.hInstance, nullptr));
    if (!m_window) {
        NS_Log::Log(
            2, L"[CCloseRequestWindow::Create]\t Cannot create the window; GLE = " + std::to_wstring(::GetLastError()));
        return false;
    }
    m_onSessionEnd = std::move(onSessionEnd);
    ::SetWindowLongPtrW(m_window.get(), GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    return true;
}

LRESULT CALLBACK CCloseRequestWindow::WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_QUERYENDSESSION) return TRUE;
    if (message == WM_ENDSESSION) {
        if (wParam && (lParam & ENDSESSION_CLOSEAPP)) {
            NS_Log::Log(2,
                        L"[CCloseRequestWindow::WindowProc]\t Asked to close the application: ending in order; "
                        L"holders run on and their credentials stay on disk.");
            ::PostQuitMessage(0);
        } else if (wParam) {
            auto* self = reinterpret_cast<CCloseRequestWindow*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
            if (self && self->m_onSessionEnd) self->m_onSessionEnd();
        }
        return 0;
    }
    return ::DefWindowProcW(window, message, wParam, lParam);
}
