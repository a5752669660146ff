#include "ui/ProcessInfo.h"

#include "common/Log.h"
#include "common/ModulePath.h"
#include "sharedid/ExpiryTime.h"

#include <shlobj.h>

#include <algorithm>
#include <cwchar>

namespace {

// GetWindowTextW reads another process's title without sending it a message, so a hung program
// cannot stop the window's thread; GetWindowTextLengthW would send one.
std::wstring WindowTitle(HWND window) {
    wchar_t title[512] = {};
    return std::wstring(title, static_cast<size_t>(std::max(0, ::GetWindowTextW(window, title, 512))));
}

struct RootWindowSearch {
    DWORD processId;
    HWND found;
};

BOOL CALLBACK MatchRootWindow(HWND window, LPARAM param) {
    auto* search = reinterpret_cast<RootWindowSearch*>(param);
    DWORD owner = 0;
    ::GetWindowThreadProcessId(window, &owner);
    if (owner != search->processId || !::IsWindowVisible(window) || ::GetWindow(window, GW_OWNER)) return TRUE;
    search->found = window;
    return FALSE;
}

__time64_t LeaseExpiryOf(const std::weak_ptr<CSharedId>& credential) {
    auto locked = credential.lock();
    return locked ? ProcessInfo::ParseExpiry(locked->GetLeaseExpiry()) : -1;
}

}  // namespace

ProcessInfo::ProcessInfo(DWORD processId, NS_Utils::UniqueHandle process, std::weak_ptr<CSharedId> credential,
                         __time64_t earliestEnd)
    : m_processId(processId),
      m_process(std::move(process)),
      m_credential(std::move(credential)),
      // An unreadable expiry counts as due now, so the user still gets the whole grace time.
      m_endTime(std::max(LeaseExpiryOf(m_credential), earliestEnd)) {
    m_exePath = NS_Utils::ProcessImagePath(m_process.get());
    m_rootWindow = FindRootWindow();
    if (m_rootWindow) m_title = WindowTitle(m_rootWindow);
}

HWND ProcessInfo::FindRootWindow() const {
    RootWindowSearch search{m_processId, nullptr};
    ::EnumWindows(MatchRootWindow, reinterpret_cast<LPARAM>(&search));
    return search.found;
}

bool ProcessInfo::IsProcessAppWindowTitleLatest() {
    if (!::IsWindow(m_rootWindow) || !::IsWindowVisible(m_rootWindow)) {
        if (m_rootWindow)
            NS_Log::Log(4, L"[ProcessInfo::IsProcessAppWindowTitleLatest]The current root window " +
                               NS_Log::Hex(static_cast<unsigned long>(reinterpret_cast<ULONG_PTR>(m_rootWindow))) +
                               L" is not valid or visible.");
        // A program may open its main window after it registered; look again.
        m_rootWindow = FindRootWindow();
    }
    std::wstring current = m_rootWindow ? WindowTitle(m_rootWindow) : std::wstring();
    if (::CompareStringOrdinal(current.c_str(), -1, m_title.c_str(), -1, TRUE) == CSTR_EQUAL) return true;
    m_title = std::move(current);
    return false;
}

std::wstring ProcessInfo::DisplayName() const {
    if (!m_title.empty()) return m_title;
    return NS_Utils::FileNameOf(m_exePath);
}

HICON ProcessInfo::Icon(int size) {
    if (size != m_iconSize) {
        m_iconSize = size;
        m_icon.reset();
        HICON extracted = nullptr;
        if (!m_exePath.empty() &&
            ::SHDefExtractIconW(m_exePath.c_str(), 0, 0, &extracted, nullptr, static_cast<UINT>(size)) == S_OK)
            m_icon.reset(extracted);
    }
    if (m_icon.valid()) return m_icon.get();
    // Shared by the system: never destroyed, so it is not owned here.
    HICON generic = static_cast<HICON>(::LoadImageW(nullptr, IDI_APPLICATION, IMAGE_ICON, size, size, LR_SHARED));
    return generic ? generic : ::LoadIconW(nullptr, IDI_APPLICATION);
}

__time64_t ProcessInfo::ParseExpiry(const std::wstring& text) {
    __time64_t time = -1;
    return NS_LEASE_UTILS::ExpiryTextToTime(text, time) ? time : -1;
}

std::wstring ProcessInfo::FormatRemaining(double seconds) {
    long long left = seconds > 0 ? static_cast<long long>(seconds) : 0;
    wchar_t text[32];
    if (left >= 3600)
        std::swprintf(text, std::size(text), L"%lld:%02lld:%02lld", left / 3600, left / 60 % 60, left % 60);
    else
        std::swprintf(text, std::size(text), L"%lld:%02lld", left / 60, left % 60);
    return text;
}
