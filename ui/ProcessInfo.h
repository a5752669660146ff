#pragma once
// One row of the lease-expiry window: a process that holds a credential whose lease runs out,
// and the moment the service ends it.

#include "common/WinHandles.h"
#include "sharedid/SharedId.h"
#include "ui/UiHandles.h"

#include <windows.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <string>

class ProcessInfo {
public:
    // The row ends at the lease expiry, but not before `earliestEnd` (its appearance plus the
    // grace time), unless ShareEndTime gives it its credential's moment.
    ProcessInfo(DWORD processId, NS_Utils::UniqueHandle process, std::weak_ptr<CSharedId> credential,
                __time64_t earliestEnd);
    ProcessInfo(const ProcessInfo&) = delete;
    ProcessInfo& operator=(const ProcessInfo&) = delete;

    DWORD GetProcessId() const noexcept { return m_processId; }
    const std::weak_ptr<CSharedId>& GetCredential() const noexcept { return m_credential; }
    // The same record, even once it is gone: rows are told apart by process and credential.
    bool IsFor(const std::weak_ptr<CSharedId>& credential) const noexcept {
        return !m_credential.owner_before(credential) && !credential.owner_before(m_credential);
    }
    // When the row's process is ended.
    __time64_t GetEndTime() const noexcept { return m_endTime.load(); }
    // Before the row is listed: the expiry ends every holder of the credential at once, so a row
    // listed later counts down to the moment its credential's first row showed.
    void ShareEndTime(const ProcessInfo& first) noexcept { m_endTime = first.m_endTime.load(); }
    // Moves the moment later after the wall clock jumped (LeaseRows::FollowClock); never earlier.
    void PostponeEndTo(__time64_t end) noexcept {
        if (end > m_endTime.load()) m_endTime = end;
    }
    double SecondsLeft(__time64_t now) const { return _difftime64(m_endTime.load(), now); }
    // Its time is over and the service may not end its process: the row says so.
    void MarkCannotBeEnded() noexcept { m_cannotBeEnded = true; }
    bool CannotBeEnded() const noexcept { return m_cannotBeEnded; }

    // False when the root window's title differs from the one last shown; it is then kept as
    // the one to show. UI thread only.
    bool IsProcessAppWindowTitleLatest();
    // The root window's title, or the executable's name for a process without one.
    std::wstring DisplayName() const;
    // The executable's first icon at `size` pixels square, extracted again when the size changes
    // (the window's DPI did); the generic program icon for an executable without one. UI thread only.
    HICON Icon(int size);

    // "%04d%02d%02dT%02d%02d%02dZ" in UTC; -1 when the text is not one.
    static __time64_t ParseExpiry(const std::wstring& text);
    // "1:05:09" or "4:59"; 0:00 once the time has passed.
    static std::wstring FormatRemaining(double seconds);

private:
    HWND FindRootWindow() const;

    DWORD m_processId;
    NS_Utils::UniqueHandle m_process;
    std::weak_ptr<CSharedId> m_credential;
    // Written under the rows' lock, read by the window's thread and the status view.
    std::atomic<__time64_t> m_endTime;
    std::atomic<bool> m_cannotBeEnded{false};
    std::wstring m_exePath;
    HWND m_rootWindow = nullptr;
    std::wstring m_title;
    NS_Utils::UniqueIcon m_icon;
    int m_iconSize = 0;
};
