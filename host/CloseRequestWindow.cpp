#include "host/CloseRequestWindow.h"

#include "common/Log.h"
#include "host/TarrowModule.h"

namespace {
constexpr const wchar_t* kClassName = L"KEL_Tarrow_Close_Request";
constexpr UINT_PTR kOutlivedTimer = 1;
constexpr const wchar_t* kTag = L"[CCloseRequestWindow::WindowProc]\t";
}  // namespace

bool CCloseRequestWindow::Create(Callbacks callbacks) {
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
    m_callbacks = std::move(callbacks);
    ::SetWindowLongPtrW(m_window.get(), GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    return true;
}

void CCloseRequestWindow::OnSessionEnd(HWND window) {
    if (m_ended) return;
    m_ended = true;
    if (m_callbacks.onSessionEnd) m_callbacks.onSessionEnd();
    ::SetTimer(window, kOutlivedTimer, kOutlivedEndMs, nullptr);
}

void CCloseRequestWindow::OnSessionGoesOn(HWND window, const wchar_t* why) {
    ::KillTimer(window, kOutlivedTimer);
    if (!m_ended) return;
    m_ended = false;
    NS_Log::Log(2, kTag + std::wstring(L" The session goes on after its end was announced (") + why + L").");
    if (m_callbacks.onSessionGoesOn) m_callbacks.onSessionGoesOn();
}

LRESULT CALLBACK CCloseRequestWindow::WindowProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    auto* self = reinterpret_cast<CCloseRequestWindow*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
    if (message == WM_QUERYENDSESSION) {
        if (self) self->OnSessionGoesOn(window, L"a new query");
        return TRUE;
    }
    if (message == WM_ENDSESSION) {
        if (wParam && (lParam & ENDSESSION_CLOSEAPP)) {
            NS_Log::Log(2, kTag + std::wstring(L" Asked to close the application: ending in order; holders run on "
                                               L"and their credentials stay on disk."));
            ::PostQuitMessage(0);
        } else if (self && wParam) {
            self->OnSessionEnd(window);
        } else if (self) {
            self->OnSessionGoesOn(window, L"the logoff was cancelled");
        }
        return 0;
    }
    if (message == WM_TIMER && wParam == kOutlivedTimer) {
        if (self) self->OnSessionGoesOn(window, L"the process outlived it");
        return 0;
    }
    return ::DefWindowProcW(window, message, wParam, lParam);
}
