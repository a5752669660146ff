#pragma once
// The lease-expiry window's controller: a topmost dialog on a UI thread of its own that lists,
// one row per process, the holders of credentials whose lease is about to run out, with a
// countdown each, and reports back through the lease monitor's callbacks when a row's time is
// over or when the Windows session ends.
//
// The rows themselves, their moments and their texts are LeaseRows'; this class keeps the window
// showing them and forwards.
//
// Threads: construction and destruction on the owner's thread, never on the UI thread, which the
// destructor waits for; ShowProcessInfo from the lease monitor's poller and the COM thread;
// RemoveProcessInfo from the COM thread; SetCredentialsHeld from the COM thread and the
// collector's worker (the registry's wait callbacks never reach the window); ListedRows from the
// COM thread for the status view; the window, its list box, its timer and the callbacks
// onExpiryPassed and onSessionEnd on the UI thread. The rows are guarded by LeaseRows' own lock;
// no lock of the registry is held while the window is called.

#include "common/CriticalSection.h"
#include "common/ThreadRule.h"
#include "common/WinHandles.h"
#include "sharedid/ListedRow.h"
#include "sharedid/SharedId.h"
#include "ui/LBExtended.h"
#include "ui/LeaseRows.h"
#include "ui/ProcessInfo.h"
#include "ui/UiHandles.h"

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

struct LMMainUICallbacks {
    // A row's time is over: its credential's holders are to be ended.
    std::function<void(const std::weak_ptr<CSharedId>&)> onExpiryPassed;
    // The Windows session ends; called on the UI thread from WM_ENDSESSION, once for each end
    // that Windows asked about with WM_QUERYENDSESSION (a logoff that was cancelled is followed
    // by another query).
    std::function<void()> onSessionEnd;
    // A duplicate of the registry's handle of a registered process, or none.
    std::function<NS_Utils::UniqueHandle(DWORD pid)> getProcFromPid;
    // A copy of the credential's holder process ids.
    std::function<std::vector<DWORD>(const std::shared_ptr<CSharedId>&)> getSidProcList;
    // False for a holder the service may watch but not end: its row says so once its time is over.
    std::function<bool(DWORD pid)> canEnd;
    // The clock the countdowns run on (the lease monitor's); _time64 when empty.
    std::function<__time64_t()> now;
    // Elapsed time, against which a jump of `now` is told (LeaseRows::Ticks); the system's when empty.
    LeaseRows::Ticks ticks;
};


class LMMainUI {
public:
    explicit LMMainUI(LMMainUICallbacks callbacks);
    LMMainUI(const LMMainUI&) = delete;
    LMMainUI& operator=(const LMMainUI&) = delete;
    // IssueStop, then waits for the UI thread.
    ~LMMainUI();

    // Adds a row for the process (the handle is a duplicate the row keeps) and shows the window.
    // Every row of one credential ends at the moment fixed when its first row appeared.
    void ShowProcessInfo(DWORD processId, NS_Utils::UniqueHandle process, const std::weak_ptr<CSharedId>& credential);
    // Removes the row of that process for that credential; its other credentials keep theirs.
    void RemoveProcessInfo(DWORD processId, const std::weak_ptr<CSharedId>& credential);
    void IssueStop();
    // While any credential is registered the window keeps a shutdown block reason, so that
    // Windows lists the service at logoff with a reason instead of ending it unasked.
    void SetCredentialsHeld(bool held);
    // The rows listed now, copied under the row lock; any thread.
    std::vector<LMListedRow> ListedRows() const { return m_rows.Listed(); }

    // "WaitingTimeToKillProcess" in seconds, 120 when it cannot be read.
    static unsigned GetWaitingTimeToKillProcess();

private:
    static unsigned __stdcall ThreadProc(void* self);
    static LRESULT CALLBACK ParentWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    static INT_PTR CALLBACK DialogProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);
    // The procedures' bodies; an allocation failure in either is logged by the procedure, and the
    // message counts as not handled.
    LRESULT OnParentMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    void OnSessionChange(WPARAM change);
    void OnActivated(HWND dialog);

    void EnsureUIThread();
    [[nodiscard]] bool InitInstance(NS_Utils::UniqueWindow& parent, NS_Utils::UniqueWindow& dialog);
    [[nodiscard]] bool CreateParentWindow(NS_Utils::UniqueWindow& parent);
    [[nodiscard]] bool CreateDialogWindow(HWND parent, NS_Utils::UniqueWindow& dialog);
    void SetTexts(HWND dialog);
    static void PlaceDialog(HWND dialog);
    void OnDpiChanged(HWND dialog);
    void RunUI(HWND dialog);
    bool OnDialogMessage(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam);

    void ListRow(int key);
    void UnlistRow(int key, DWORD processId);
    void CheckItemsOnList();
    void TakeOffList(int key, DWORD processId);
    void RefreshList();
    bool IsProcessMonitored(const ProcessInfo& row) const;
    void MeasureItem(MEASUREITEMSTRUCT& item) const;
    void DrawItem(const DRAWITEMSTRUCT& item);
    void UpdateRowTexts();
    void ApplyShutdownBlockReason(bool held);
    void ReportSessionEnd();
    void OnSessionEnd();
    void DrawAttention(HWND dialog);

    LMMainUICallbacks m_callbacks;
    LeaseRows m_rows;
    NS_Utils::UniqueHandle m_startedEvent;
    NS_Utils::CriticalSection m_threadLock;
    NS_Utils::UniqueHandle m_thread;
    // Bound by the window's thread itself: the list box and the windows' shutdown block reason
    // are that thread's alone.
    NS_Utils::ThreadRule m_uiThread;
    std::atomic<HWND> m_parent{nullptr};
    std::atomic<HWND> m_dialog{nullptr};
    // The rows' keys and texts as the window lists them.
    LBExtended m_list;
    std::atomic<bool> m_credentialsHeld{false};
    // Set when a session end has been reported; cleared by the next WM_QUERYENDSESSION and by
    // WM_ENDSESSION(FALSE). UI thread only.
    bool m_sessionEndReported = false;
    // The session is locked, or its console disconnected: the user cannot see the window. UI
    // thread only.
    bool m_sessionLocked = false;
    bool m_sessionDisconnected = false;
    bool UserCanSee() const noexcept { return !m_sessionLocked && !m_sessionDisconnected; }
    // Rows are held over a jump of the clock (for the log's sake); UI thread only.
    bool m_holdingRows = false;
    // Sizes of a row in pixels, measured from the list's DPI and font; UI thread only.
    struct RowLayout {
        int margin = 0;
        int icon = 0;
        int lineHeight = 0;
        int height = 0;
    };
    static RowLayout MeasureRowLayout(HWND listBox);
    RowLayout m_layout;
};
