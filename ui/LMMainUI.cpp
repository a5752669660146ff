#include "ui/LMMainUI.h"

#include "common/FailFast.h"
#include "common/Settings.h"
#include "common/Thread.h"

#include "common/Log.h"
#include "common/Registry.h"
#include "ui/KelResourceUtility.h"
#include "ui/LMMainUIRes.h"

#include <process.h>

#include <algorithm>
#include <map>
#include <new>

namespace {

constexpr wchar_t kParentClass[] = L"KEL_Dummy_Class_For_Panel";
constexpr wchar_t kBlockReason[] = L"Checking in shared credentials";

// An installer asks the application to close (the Restart Manager): the session goes on, so no
// holder is ended; the main thread's own window ends the service in order.
bool IsCloseRequest(LPARAM lParam) { return (lParam & ENDSESSION_CLOSEAPP) != 0; }
constexpr DWORD kStartWaitMs = 2000;
constexpr UINT kTickMs = 5000;
// Lease monitor threads post these instead of calling the window: a thread that waits on the
// UI thread while the UI thread waits on it (or on the row lock) would never return.
constexpr UINT kMsgRowAdded = WM_APP + 1;
constexpr UINT kMsgRowRemoved = WM_APP + 2;
constexpr UINT kMsgBlockReason = WM_APP + 3;
// Posted to itself on a DPI change: the dialog manager rescales the font and the controls after
// WM_DPICHANGED has been handled, and the rows are measured from the new font.
constexpr UINT kMsgDpiChanged = WM_APP + 4;
// Sizes at 96 DPI, scaled to the window's DPI.
constexpr int kIconSizeAt96 = 32;
constexpr int kMarginAt96 = 6;
constexpr const wchar_t* kListBoxOffThread = L"[LMMainUI]\t the list box touched off the window's thread";

// The message is dropped and the window's thread goes on: its rows and its tick are still there.
void LogOutOfMemory(UINT message) noexcept {
    try {
        NS_Log::Log(1, L"[LMMainUI::WindowProc]",
                    L"\t Out of memory while handling message 0x" + NS_Log::Hex(message) + L"; the window goes on.");
    } catch (const std::bad_alloc&) {
        // Nothing is left to say it with.
        (void)0;
    }
}

std::wstring Message(const wchar_t* key) {
    std::wstring text;
    KelResourceUtility::GetKelMessage(key, text);
    return text;
}

// The window's DPI: GetDpiForWindow where the system has it (Windows 10 1607 and later), looked up
// at run time so that the program still starts where it is missing; the DPI of the window's
// screen otherwise.
int WindowDpi(HWND window) {
    using GetDpiForWindowFunction = UINT(WINAPI*)(HWND);
    static const auto getDpiForWindow = reinterpret_cast<GetDpiForWindowFunction>(
        reinterpret_cast<void (*)()>(::GetProcAddress(::GetModuleHandleW(L"user32.dll"), "GetDpiForWindow")));
    if (getDpiForWindow)
        if (UINT dpi = getDpiForWindow(window)) return static_cast<int>(dpi);
    NS_Utils::WindowDC dc(window);
    int dpi = dc.get() ? ::GetDeviceCaps(dc.get(), LOGPIXELSY) : 0;
    return dpi > 0 ? dpi : USER_DEFAULT_SCREEN_DPI;
}

// Moves the dialog's top-left corner to `corner`, pulled back as far as needed to keep the whole
// dialog inside the work area of `monitor`.
void MoveIntoWorkArea(HWND dialog, POINT corner, HMONITOR monitor, HWND insertAfter, UINT flags) {
    MONITORINFO info{};
    info.cbSize = sizeof(info);
    RECT window{};
    ::GetWindowRect(dialog, &window);
    int x = corner.x, y = corner.y;
    if (::GetMonitorInfoW(monitor, &info)) {
        const RECT& work = info.rcWork;
        x = std::max<int>(work.left, std::min<int>(x, work.right - (window.right - window.left)));
        y = std::max<int>(work.top, std::min<int>(y, work.bottom - (window.bottom - window.top)));
    }
    ::SetWindowPos(dialog, insertAfter, x, y, 0, 0, flags | SWP_NOSIZE | SWP_NOACTIVATE);
}

}  // namespace

LMMainUI::LMMainUI(LMMainUICallbacks callbacks)
    : m_callbacks(std::move(callbacks)), m_rows(m_callbacks.now, GetWaitingTimeToKillProcess(), m_callbacks.ticks) {
    m_startedEvent.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    EnsureUIThread();
}

LMMainUI::~LMMainUI() {
    m_uiThread.CheckNot(L"[LMMainUI::~LMMainUI]\t destroyed on the window's thread, which would wait for itself");
    IssueStop();
    if (!m_thread) return;
    // The stop is posted again in case the thread had not made its queue when it was asked.
    while (::WaitForSingleObject(m_thread.get(), 1000) == WAIT_TIMEOUT)
        ::PostThreadMessageW(m_uiThread.ThreadId(), WM_QUIT, 0, 0);
}

unsigned LMMainUI::GetWaitingTimeToKillProcess() {
    const NS_Settings::Setting& setting = NS_Settings::kWaitingTimeToKillProcess;
    if (std::optional<long long> seconds = NS_Settings::ReadNumber(setting)) return static_cast<unsigned>(*seconds);
    NS_Log::Log(2, L"[LMMainUI::GetWaitingTimeToKillProcess]",
                L"\t Get registry value failed, RegKey = " + std::wstring(setting.key));
    return setting.defaultNumber;
}

void LMMainUI::EnsureUIThread() {
    NS_Utils::CritSecGuard guard(m_threadLock);
    if (m_thread && ::WaitForSingleObject(m_thread.get(), 0) == WAIT_TIMEOUT) return;
    NS_Log::Log(3, L"[LMMainUI::EnsureUIThread]", L"\tStarting the UI thread");
    ::ResetEvent(m_startedEvent.get());
    m_thread = NS_THREAD_UTILS::StartThread(NS_THREAD_UTILS::kWindowStackBytes, &LMMainUI::ThreadProc, this);
    // A thread that could not make its windows ends at once; its caller need not wait the full time.
    HANDLE started[] = {m_startedEvent.get(), m_thread.get()};
    DWORD result = m_thread ? ::WaitForMultipleObjects(2, started, FALSE, kStartWaitMs) : WAIT_FAILED;
    if (result != WAIT_OBJECT_0)
        NS_Log::Log(1, L"[LMMainUI::EnsureUIThread]",
                    L"\t Timedout waiting for the thread to begin. nRet = " + std::to_wstring(result));
}

unsigned __stdcall LMMainUI::ThreadProc(void* param) {
    auto* self = static_cast<LMMainUI*>(param);
    // Stored here, before the thread's first check reads it; its creator's copy could come later.
    self->m_uiThread.BindToCurrentThread();
    // Declared in this order so that the dialog goes before the window that owns it.
    NS_Utils::UniqueWindow parent;
    NS_Utils::UniqueWindow dialog;
    if (!self->InitInstance(parent, dialog)) {
        NS_Log::Log(1, L"[LMMainUI::ThreadProc]", L"\t failed to create the parent window");
        return 1;
    }
    // After the dialog, so that it ends before the dialog goes. Without it a lock of the session
    // is not seen, and rows carried over a jump of the clock count down at once.
    NS_Utils::SessionNotification sessionNotices;
    if (::WTSRegisterSessionNotification(dialog.get(), NOTIFY_FOR_THIS_SESSION))
        sessionNotices.reset(dialog.get());
    else
        NS_Log::Log(2, L"[LMMainUI::ThreadProc]",
                    L"\t WTSRegisterSessionNotification failed, GLE = 0x" + NS_Log::Hex(::GetLastError()));
    self->RunUI(dialog.get());
    self->m_list.Attach(nullptr);
    self->m_rows.Clear();
    self->m_dialog = nullptr;
    self->m_parent = nullptr;
    return 0;
}

void LMMainUI::RunUI(HWND dialog) {
    ::SetTimer(dialog, reinterpret_cast<UINT_PTR>(this), kTickMs, nullptr);
    ApplyShutdownBlockReason(m_credentialsHeld);
    ::SetEvent(m_startedEvent.get());
    NS_Log::Log(3, L"[LMMainUI::ThreadProc]", L"\t Signalled the started event. ");
    MSG msg;
    while (::GetMessageW(&msg, nullptr, 0, 0) > 0) {
        // A modeless dialog gets its keyboard interface (tab order, focus, the list's keys) here.
        if (::IsDialogMessageW(dialog, &msg)) continue;
        ::TranslateMessage(&msg);
        ::DispatchMessageW(&msg);
    }
}

bool LMMainUI::InitInstance(NS_Utils::UniqueWindow& parent, NS_Utils::UniqueWindow& dialog) {
    if (!CreateParentWindow(parent) || !CreateDialogWindow(parent.get(), dialog)) return false;
    m_list.Attach(::GetDlgItem(dialog.get(), IDC_LEASE_EXPIRY_LIST));
    m_layout = MeasureRowLayout(m_list.ListBox());
    NS_Log::Log(3, L"[LMMainUI::InitInstance]",
                L"\t DPI " + std::to_wstring(WindowDpi(dialog.get())) + L", row height " +
                    std::to_wstring(m_layout.height) + L" px");
    SetTexts(dialog.get());
    // A button on the taskbar and a place in Alt+Tab: Windows does not let a background service
    // take the foreground, so the user must be able to bring the warning to the keyboard.
    ::SetWindowLongPtrW(dialog.get(), GWL_EXSTYLE, ::GetWindowLongPtrW(dialog.get(), GWL_EXSTYLE) | WS_EX_APPWINDOW);
    PlaceDialog(dialog.get());
    m_parent = parent.get();
    m_dialog = dialog.get();
    return true;
}

bool LMMainUI::CreateParentWindow(NS_Utils::UniqueWindow& parent) {
    WNDCLASSEXW wc{};
    wc.cbSize = sizeof(wc);
    wc.lpfnWndProc = ParentWndProc;
    wc.hInstance = ::GetModuleHandleW(nullptr);
    wc.lpszClassName = kParentClass;
    // A second controller in the same process finds the class already there.
    ::RegisterClassExW(&wc);
    parent.reset(::CreateWindowExW(0, kParentClass, L"", WS_POPUP, 0, 0, 0, 0, nullptr, nullptr, wc.hInstance, this));
    if (!parent)
        NS_Log::Log(1, L"[LMMainUI::InitInstance]", L"\t Cannot create the dummy parent window for LeaseExpiry UI.");
    return parent.valid();
}

bool LMMainUI::CreateDialogWindow(HWND parent, NS_Utils::UniqueWindow& dialog) {
    HMODULE module = ::GetModuleHandleW(nullptr);
    HRSRC found = ::FindResourceW(module, MAKEINTRESOURCEW(IDD_LEASE_EXPIRY), MAKEINTRESOURCEW(5));
    HGLOBAL loaded = found ? ::LoadResource(module, found) : nullptr;
    auto* dialogTemplate = loaded ? static_cast<const DLGTEMPLATE*>(::LockResource(loaded)) : nullptr;
    if (dialogTemplate)
        dialog.reset(
            ::CreateDialogIndirectParamW(module, dialogTemplate, parent, DialogProc, reinterpret_cast<LPARAM>(this)));
    if (!dialog)
        NS_Log::Log(1, L"[LMMainUI::InitInstance]",
                    L"\t Cannot create LeaseExpiry UI Dialog. GLE = 0x" + NS_Log::Hex(::GetLastError()));
    return dialog.valid();
}

void LMMainUI::SetTexts(HWND dialog) {
    ::SetWindowTextW(dialog, (Message(L"DIALOG_TITLE_LEASE_EXPIRY") + L" :: Quillon").c_str());
    HWND text = ::GetDlgItem(dialog, IDC_LEASE_EXPIRY_TEXT);
    if (text)
        ::SetWindowTextW(text, Message(L"DIALOG_CONTENT_LEASE_EXPIRY").c_str());
    else
        NS_Log::Log(2, L"[LMMainUI::InitInstance]",
                    L"\t Cannot create static window, GLE: 0x" + NS_Log::Hex(::GetLastError()));
    m_rows.SetLabels(
        {Message(L"LEASE_EXPIRY_PROCESS"), Message(L"LEASE_EXPIRY_TIME"), Message(L"DIALOG_LEASE_EXPIRY_TIME_REMAIN")});
}

// The dialog's top-left corner goes to (500, 700), pulled back as far as needed to keep the whole
// dialog inside the work area of the monitor nearest to that point.
void LMMainUI::PlaceDialog(HWND dialog) {
    POINT anchor{500, 700};
    MoveIntoWorkArea(dialog, anchor, ::MonitorFromPoint(anchor, MONITOR_DEFAULTTONEAREST), HWND_TOPMOST, 0);
}

// The dialog went to another monitor's DPI (moved, or the user changed the scale): it stays
// inside that monitor's work area, and its rows take the size of the rescaled font.
void LMMainUI::OnDpiChanged(HWND dialog) {
    RECT window{};
    ::GetWindowRect(dialog, &window);
    MoveIntoWorkArea(dialog, {window.left, window.top}, ::MonitorFromWindow(dialog, MONITOR_DEFAULTTONEAREST), nullptr,
                     SWP_NOZORDER);
    HWND list = m_list.ListBox();
    m_layout = MeasureRowLayout(list);
    m_list.SetItemHeights(m_layout.height);
    ::InvalidateRect(list, nullptr, TRUE);
    NS_Log::Log(
        3, L"[LMMainUI::OnDpiChanged]",
        L"\t DPI " + std::to_wstring(WindowDpi(dialog)) + L", row height " + std::to_wstring(m_layout.height) + L" px");
}

// Two lines of text beside the program's icon, with a margin all round: every size follows the
// list's own DPI and font, so no line is cut at any scale.
LMMainUI::RowLayout LMMainUI::MeasureRowLayout(HWND listBox) {
    RowLayout layout;
    int dpi = WindowDpi(listBox);
    layout.margin = ::MulDiv(kMarginAt96, dpi, USER_DEFAULT_SCREEN_DPI);
    layout.icon = ::MulDiv(kIconSizeAt96, dpi, USER_DEFAULT_SCREEN_DPI);
    TEXTMETRICW metrics{};
    {
        NS_Utils::WindowDC dc(listBox);
        NS_Utils::SelectedObject font(dc.get(), reinterpret_cast<HGDIOBJ>(::SendMessageW(listBox, WM_GETFONT, 0, 0)));
        if (!dc.get() || !::GetTextMetricsW(dc.get(), &metrics))
            metrics.tmHeight = ::MulDiv(16, dpi, USER_DEFAULT_SCREEN_DPI);
    }
    layout.lineHeight = metrics.tmHeight + metrics.tmExternalLeading;
    layout.height = std::max(layout.icon, 2 * layout.lineHeight) + 2 * layout.margin;
    return layout;
}

LRESULT CALLBACK LMMainUI::ParentWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_NCCREATE) {
        auto* create = reinterpret_cast<CREATESTRUCTW*>(lParam);
        ::SetWindowLongPtrW(window, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(create->lpCreateParams));
    }
    auto* self = reinterpret_cast<LMMainUI*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
    if (self) {
        try {
            return self->OnParentMessage(window, message, wParam, lParam);
        } catch (const std::bad_alloc&) {
            LogOutOfMemory(message);
        }
    }
    return ::DefWindowProcW(window, message, wParam, lParam);
}

// The session's end is this window's alone: the dialog hears of it too, and the order in which
// the two are told is Windows' own.
LRESULT LMMainUI::OnParentMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
    case WM_QUERYENDSESSION:
        // An end of the session asked for anew: the last one was cancelled, so this one is acted on.
        m_sessionEndReported = false;
        return TRUE;
    case WM_ENDSESSION:
        if (!wParam)
            m_sessionEndReported = false;  // the logoff was cancelled; the session goes on
        else if (!IsCloseRequest(lParam))
            ReportSessionEnd();
        return 0;
    default: return ::DefWindowProcW(window, message, wParam, lParam);
    }
}

INT_PTR CALLBACK LMMainUI::DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message == WM_INITDIALOG) {
        ::SetWindowLongPtrW(dialog, GWLP_USERDATA, lParam);
        return TRUE;
    }
    auto* self = reinterpret_cast<LMMainUI*>(::GetWindowLongPtrW(dialog, GWLP_USERDATA));
    if (!self) return FALSE;
    try {
        return self->OnDialogMessage(dialog, message, wParam, lParam) ? TRUE : FALSE;
    } catch (const std::bad_alloc&) {
        LogOutOfMemory(message);
        return FALSE;
    }
}

bool LMMainUI::OnDialogMessage(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
    switch (message) {
    case WM_TIMER: CheckItemsOnList(); return true;
    case WM_MEASUREITEM: MeasureItem(*reinterpret_cast<MEASUREITEMSTRUCT*>(lParam)); return true;
    case WM_DRAWITEM: DrawItem(*reinterpret_cast<const DRAWITEMSTRUCT*>(lParam)); return true;
    case kMsgRowAdded: ListRow(static_cast<int>(wParam)); return true;
    case kMsgRowRemoved: UnlistRow(static_cast<int>(wParam), static_cast<DWORD>(lParam)); return true;
    case kMsgBlockReason: ApplyShutdownBlockReason(wParam != 0); return true;
    case WM_DPICHANGED: {
        const RECT& suggested = *reinterpret_cast<const RECT*>(lParam);
        ::SetWindowPos(dialog, nullptr, suggested.left, suggested.top, suggested.right - suggested.left,
                       suggested.bottom - suggested.top, SWP_NOZORDER | SWP_NOACTIVATE);
        ::PostMessageW(dialog, kMsgDpiChanged, 0, 0);
        // Not handled, so that the dialog manager rescales the font and the controls.
        return false;
    }
    case kMsgDpiChanged: OnDpiChanged(dialog); return true;
    case WM_QUERYENDSESSION: ::SetWindowLongPtrW(dialog, DWLP_MSGRESULT, TRUE); return true;
    // The owner window reports the session's end.
    case WM_ENDSESSION: return true;
    // Out of sleep: the rows follow the clock's jump now, not at the next tick.
    case WM_POWERBROADCAST:
        if (wParam == PBT_APMRESUMEAUTOMATIC || wParam == PBT_APMRESUMESUSPEND) CheckItemsOnList();
        ::SetWindowLongPtrW(dialog, DWLP_MSGRESULT, TRUE);
        return true;
    case WM_WTSSESSION_CHANGE: OnSessionChange(wParam); return true;
    case WM_ACTIVATE:
        if (LOWORD(wParam) != WA_INACTIVE) OnActivated(dialog);
        // Not handled, so that the dialog manager keeps its own focus bookkeeping.
        return false;
    // The warning stays until its rows are gone; closing it would hide a running countdown.
    case WM_CLOSE: return true;
    default: return false;
    }
}

void LMMainUI::ShowProcessInfo(DWORD processId, NS_Utils::UniqueHandle process,
                               const std::weak_ptr<CSharedId>& credential) {
    NS_Log::Log(3, L"[LMMainUI::ShowProcessInfo]", L"\t About to add item and show window");
    EnsureUIThread();
    int key = m_rows.Add(processId, std::move(process), credential);
    if (key < 0) return;
    HWND dialog = m_dialog;
    if (!dialog || !::PostMessageW(dialog, kMsgRowAdded, static_cast<WPARAM>(key), 0))
        NS_Log::Log(1, L"[LMMainUI::ShowProcessInfo]", L"\t Cannot list the row. PID = " + std::to_wstring(processId));
}

void LMMainUI::ListRow(int key) {
    m_uiThread.Check(kListBoxOffThread);
    std::shared_ptr<ProcessInfo> row = m_rows.Find(key);
    if (!row) return;
    std::wstring text = m_rows.Text(*row);
    // Removed meanwhile: its removal, posted after this, finds nothing to take off the list.
    if (!m_rows.Find(key)) return;
    m_list.Append(key, text);
    if (m_list.Count() != 1) return;
    NS_Log::Log(3, L"[LMMainUI::ListRow]", L"\t Showing the window ");
    ::ShowWindow(m_dialog, SW_SHOWNORMAL);
    DrawAttention(m_dialog);
}

// Shown by a background process, the window is on top but does not get the keyboard: Windows
// keeps the foreground with the user's program. Its caption and taskbar button flash until the
// user brings it forward (a click, Alt+Tab), and then the list takes the keyboard.
void LMMainUI::DrawAttention(HWND dialog) {
    if (::GetForegroundWindow() == dialog) return;
    FLASHWINFO flash{};
    flash.cbSize = sizeof(flash);
    flash.hwnd = dialog;
    flash.dwFlags = FLASHW_ALL | FLASHW_TIMERNOFG;
    ::FlashWindowEx(&flash);
}

void LMMainUI::OnActivated(HWND dialog) {
    // Posted: the dialog manager puts back the focus it last saved after this message.
    HWND list = m_list.ListBox();
    if (list) ::PostMessageW(dialog, WM_NEXTDLGCTL, reinterpret_cast<WPARAM>(list), TRUE);
}

void LMMainUI::OnSessionChange(WPARAM change) {
    m_uiThread.Check(L"[LMMainUI::OnSessionChange]\t the session's state read off the window's thread");
    switch (change) {
    case WTS_SESSION_LOCK: m_sessionLocked = true; break;
    case WTS_SESSION_UNLOCK: m_sessionLocked = false; break;
    case WTS_CONSOLE_DISCONNECT:
    case WTS_REMOTE_DISCONNECT: m_sessionDisconnected = true; break;
    case WTS_CONSOLE_CONNECT:
    case WTS_REMOTE_CONNECT: m_sessionDisconnected = false; break;
    default: return;
    }
    NS_Log::Log(3, L"[LMMainUI::OnSessionChange]",
                L"\t session change " + std::to_wstring(change) + (UserCanSee() ? L": visible" : L": not visible"));
    // The moment the user can see the window again is when carried rows start their countdown.
    if (UserCanSee()) CheckItemsOnList();
}

void LMMainUI::RemoveProcessInfo(DWORD processId, const std::weak_ptr<CSharedId>& credential) {
    int key = m_rows.Remove(processId, credential);
    if (key < 0) {
        NS_Log::Log(2, L"[LMMainUI::RemoveProcessInfo]",
                    L"\t could not find a shared id object that is listed on lease expiry UI that matches PID = " +
                        std::to_wstring(processId));
        return;
    }
    if (!credential.lock())
        NS_Log::Log(2, L"[LMMainUI::RemoveProcessInfo]",
                    L"\t could not lock the shared id object that is being released by process with PID = " +
                        std::to_wstring(processId));
    HWND dialog = m_dialog;
    if (dialog) ::PostMessageW(dialog, kMsgRowRemoved, static_cast<WPARAM>(key), static_cast<LPARAM>(processId));
}

void LMMainUI::UnlistRow(int key, DWORD processId) {
    m_uiThread.Check(kListBoxOffThread);
    LRESULT index = m_list.IndexOf(key);
    if (index == LB_ERR) {
        NS_Log::Log(2, L"[LMMainUI::RemoveProcessInfo]",
                    L"\t Finding the item on the Lease Expiry UI failed. nRet = " + std::to_wstring(index) +
                        L". PID = " + std::to_wstring(processId));
        return;
    }
    if (m_list.Delete(index) == LB_ERR)
        NS_Log::Log(2, L"[LMMainUI::RemoveProcessInfo]",
                    L"\t Removing item from Lease expiry list failed.PID = " + std::to_wstring(processId));
    else if (!::InvalidateRect(m_list.ListBox(), nullptr, TRUE))
        NS_Log::Log(
            2, L"[LMMainUI::RemoveProcessInfo]",
            L"\t Updating lease expiry UI for the removal of an item failed. PID = " + std::to_wstring(processId));
}

void LMMainUI::CheckItemsOnList() {
    m_uiThread.Check(kListBoxOffThread);
    const auto rows = m_rows.Rows();
    NS_Log::Log(4, L"[LMMainUI::CheckItemsOnList]", L"\t Going to check all the items on the list.");
    NS_Log::Log(4, L"[LMMainUI::CheckItemsOnList]",
                L"\t Total number of items on the list = " + std::to_wstring(rows.size()));
    // The registry's callbacks are asked without the row lock, so that no lock order between
    // the two can arise.
    std::vector<std::weak_ptr<CSharedId>> expired;
    // First, so that no row ends by a jump of the clock before the user has seen its warning.
    const bool holding = m_rows.FollowClock(UserCanSee());
    if (holding != m_holdingRows)
        NS_Log::Log(3, L"[LMMainUI::CheckItemsOnList]",
                    holding ? L"\t the clock jumped while the user could not see the window: rows held until they can"
                            : L"\t the user can see the window: held rows count down from now");
    m_holdingRows = holding;
    const __time64_t now = m_rows.Now();
    for (const auto& [key, row] : rows) {
        if (!IsProcessMonitored(*row)) {
            TakeOffList(key, row->GetProcessId());
            continue;
        }
        row->IsProcessAppWindowTitleLatest();
        if (row->SecondsLeft(now) > 0) {
            // Detail: written only at the highest level the settings allow.
            NS_Log::Log(4, L"[LMMainUI::CheckItemsOnList]",
                        L"\t credential hasn't expired yet. Expiry time is " + std::to_wstring(row->GetEndTime()));
            continue;
        }
        if (m_callbacks.canEnd && !m_callbacks.canEnd(row->GetProcessId())) row->MarkCannotBeEnded();
        if (std::none_of(expired.begin(), expired.end(), [&held = row](const auto& c) { return held->IsFor(c); }))
            // The handler ends every holder of the credential: once a tick is enough.
            expired.push_back(row->GetCredential());
    }
    UpdateRowTexts();
    RefreshList();
    // The handler ends processes, whose exits come back to remove rows.
    for (const auto& credential : expired) {
        if (m_callbacks.onExpiryPassed)
            m_callbacks.onExpiryPassed(credential);
        else
            NS_Log::Log(2, L"[LMMainUI::CheckItemsOnList]", L"\texpiry-time-passed-out handler is empty.");
    }
}

void LMMainUI::TakeOffList(int key, DWORD processId) {
    NS_Log::Log(3, L"[LMMainUI::CheckItemsOnList]",
                L"\t the process with pid = " + std::to_wstring(processId) +
                    L" is not being monitored anymore - taking it off the list");
    LRESULT index = m_list.IndexOf(key);
    m_rows.Erase(key);
    if (index == LB_ERR || m_list.Delete(index) == LB_ERR)
        NS_Log::Log(2, L"[LMMainUI::CheckItemsOnList]", L"\t Could not remove item from the list.");
}

void LMMainUI::RefreshList() {
    // Every row's countdown moves on, so the whole list is drawn again.
    ::InvalidateRect(m_list.ListBox(), nullptr, TRUE);
    ::UpdateWindow(m_list.ListBox());
    ::UpdateWindow(m_dialog);
    // The map, not the list box: a removal posted by another thread may not have reached it yet.
    if (m_rows.Empty()) ::ShowWindow(m_dialog, SW_HIDE);
}

bool LMMainUI::IsProcessMonitored(const ProcessInfo& row) const {
    if (!m_callbacks.getProcFromPid || !m_callbacks.getSidProcList) {
        NS_Log::Log(2, L"[LMMainUI::IsProcessMonitored]", L"/t m_getProcFromPid or m_getSidProcList is null");
        return false;
    }
    std::wstring pid = std::to_wstring(row.GetProcessId());
    if (!m_callbacks.getProcFromPid(row.GetProcessId())) {
        NS_Log::Log(3, L"[LMMainUI::IsProcessMonitored]",
                    L"/t process with PID = " + pid + L" is not being monitored by Shared id monitor");
        return false;
    }
    auto credential = row.GetCredential().lock();
    std::vector<DWORD> holders;
    if (credential) holders = m_callbacks.getSidProcList(credential);
    if (std::find(holders.begin(), holders.end(), row.GetProcessId()) == holders.end()) {
        NS_Log::Log(3, L"[LMMainUI::IsProcessMonitored]",
                    L"/t process with PID = " + pid + L" is not in the list of process that are using this shared id");
        return false;
    }
    return true;
}

void LMMainUI::MeasureItem(MEASUREITEMSTRUCT& item) const { item.itemHeight = static_cast<UINT>(m_layout.height); }

// Each item's string is its row's text, kept current as the countdown moves (or the program's
// title changes), so that what a screen reader reads is what the row shows.
void LMMainUI::UpdateRowTexts() {
    m_uiThread.Check(kListBoxOffThread);
    const std::map<int, std::wstring> texts = m_rows.Texts();
    for (LRESULT index = 0, count = m_list.Count(); index < count; ++index) {
        auto text = texts.find(m_list.KeyAt(index));
        if (text != texts.end() && m_list.TextAt(index) != text->second) m_list.SetText(index, text->second);
    }
}

void LMMainUI::DrawItem(const DRAWITEMSTRUCT& item) {
    m_uiThread.Check(kListBoxOffThread);
    if (item.itemID == static_cast<UINT>(-1)) return;
    // Only the keyboard focus moved: the dotted frame is drawn over the row as it stands.
    if (item.itemAction == ODA_FOCUS) {
        ::DrawFocusRect(item.hDC, &item.rcItem);
        return;
    }
    std::shared_ptr<ProcessInfo> row = m_rows.Find(static_cast<int>(item.itemData));
    const bool selected = (item.itemState & ODS_SELECTED) != 0;
    ::FillRect(item.hDC, &item.rcItem, ::GetSysColorBrush(selected ? COLOR_HIGHLIGHT : COLOR_WINDOW));
    if (!row) return;
    const RowLayout& layout = m_layout;
    RECT rc = item.rcItem;
    const int rowHeight = rc.bottom - rc.top;
    if (HICON icon = row->Icon(layout.icon))
        ::DrawIconEx(item.hDC, rc.left + layout.margin, rc.top + (rowHeight - layout.icon) / 2, icon, layout.icon,
                     layout.icon, 0, nullptr, DI_NORMAL);
    rc.left += layout.icon + 2 * layout.margin;
    rc.right -= layout.margin;
    rc.top += std::max(0, (rowHeight - 2 * layout.lineHeight) / 2);
    // The item's own string: what is drawn is what a screen reader reads.
    std::wstring text = m_list.TextAt(static_cast<LRESULT>(item.itemID));
    ::SetBkMode(item.hDC, TRANSPARENT);
    ::SetTextColor(item.hDC, ::GetSysColor(selected ? COLOR_HIGHLIGHTTEXT : COLOR_WINDOWTEXT));
    // A line at a time, each cut with an ellipsis: a long window title wrapped onto a second line
    // would push the time left out of the row.
    for (size_t start = 0; start <= text.size() && rc.top < rc.bottom; rc.top += layout.lineHeight) {
        size_t end = std::min(text.find(L'\n', start), text.size());
        ::DrawTextW(item.hDC, text.c_str() + start, static_cast<int>(end - start), &rc,
                    DT_SINGLELINE | DT_END_ELLIPSIS | DT_HIDEPREFIX);
        start = end + 1;
    }
    if (item.itemState & ODS_FOCUS) ::DrawFocusRect(item.hDC, &item.rcItem);
    NS_Log::Log(4, L"[LMMainUI::DrawItem]",
                L"\tUpdate display item for pid " + std::to_wstring(row->GetProcessId()) + L". Text content: " + text);
}

void LMMainUI::SetCredentialsHeld(bool held) {
    m_credentialsHeld = held;
    HWND dialog = m_dialog;
    // Without windows the reason is set when they are made.
    if (dialog) ::PostMessageW(dialog, kMsgBlockReason, held ? 1 : 0, 0);
}

void LMMainUI::ApplyShutdownBlockReason(bool held) {
    // The reason belongs to a window, and only its own thread may change it.
    m_uiThread.Check(L"[LMMainUI::ApplyShutdownBlockReason]\t the block reason set off the window's thread");
    HWND window = m_dialog ? m_dialog.load() : m_parent.load();
    // Wine answers FALSE to both: the reason is a courtesy to the user, never a condition.
    BOOL ok = held ? ::ShutdownBlockReasonCreate(window, kBlockReason) : ::ShutdownBlockReasonDestroy(window);
    if (!ok)
        NS_Log::Log(4, L"[LMMainUI::ApplyShutdownBlockReason]",
                    std::wstring(L"\t ShutdownBlockReason") + (held ? L"Create" : L"Destroy") + L" failed, GLE = 0x" +
                        NS_Log::Hex(::GetLastError()));
}

void LMMainUI::ReportSessionEnd() {
    m_uiThread.Check(L"[LMMainUI::ReportSessionEnd]\t the session end reported off the window's thread");
    // Once per WM_QUERYENDSESSION: a repeated WM_ENDSESSION is the same end.
    if (m_sessionEndReported) return;
    m_sessionEndReported = true;
    OnSessionEnd();
}

void LMMainUI::OnSessionEnd() {
    if (m_callbacks.onSessionEnd)
        m_callbacks.onSessionEnd();
    else
        NS_Log::Log(2, L"[LMMainUI::OnSessionEnd]", L"\ton-session-end handler is empty.");
}

void LMMainUI::IssueStop() {
    HWND dialog = m_dialog;
    if (!dialog) {
        NS_Log::Log(3, L"[LMMainUI::IssueStop]", L"\t handle to windows in null.");
        return;
    }
    ::PostThreadMessageW(::GetWindowThreadProcessId(dialog, nullptr), WM_QUIT, 0, 0);
}
