// The lease-expiry window as a user sees it: real windows on the test display, a real holder
// process, the tick driven by WM_TIMER instead of waiting for it. (The main job saves a picture.)

#include "common/ModulePath.h"
#include "common/Registry.h"
#include "sharedid/ExpiryTime.h"
#include "tests/support/FailFastTest.h"
#include "tests/support/TestSupport.h"
#include "tests/ui/VisibleWindow.h"
#include "ui/LMMainUI.h"
#include "ui/LMMainUIRes.h"

#include <gtest/gtest.h>

#include <atomic>

#include <wtsapi32.h>

namespace {

using testsupport::ItemText;

class WindowTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_holder.Valid());
        m_credential->SetLeaseExpiry(L"20200101T000000Z");
        m_credential->AddHolderPid(m_holder.Id());
        m_callbacks.onExpiryPassed = [this](const std::weak_ptr<CSharedId>& c) {
            m_expiries += c.lock() == m_credential;
        };
        m_callbacks.onSessionEnd = [this] { ++m_sessionEnds; };
        m_callbacks.getProcFromPid = [this](DWORD pid) {
            return NS_Utils::UniqueHandle(m_registered && pid == m_holder.Id() ? Duplicate() : nullptr);
        };
        m_callbacks.getSidProcList = [](const std::shared_ptr<CSharedId>& c) { return c->GetHolderPids(); };
    }
    HANDLE Duplicate() {
        HANDLE copy = nullptr;
        ::DuplicateHandle(::GetCurrentProcess(), m_holder.Handle(), ::GetCurrentProcess(), &copy, 0, FALSE,
                          DUPLICATE_SAME_ACCESS);
        return copy;
    }
    // The dialog of this process, found once the row has shown it; with its caption when given.
    HWND ShowRow(LMMainUI& ui, const wchar_t* caption = nullptr) {
        ui.ShowProcessInfo(m_holder.Id(), NS_Utils::UniqueHandle(Duplicate()), m_credential);
        HWND dialog = nullptr;
        EXPECT_TRUE(testsupport::WaitUntil([&] { return (dialog = VisibleDialog(caption)) != nullptr; }))
            << "no visible window of this process with that caption";
        return dialog;
    }
    static HWND VisibleDialog(const wchar_t* caption) {
        return testsupport::VisibleWindowOf(::GetCurrentProcessId(), L"#32770", caption);
    }
    static void Tick(HWND dialog) { ::SendMessageW(dialog, WM_TIMER, 0, 0); }
    // The English message library where the window looks for it; one already loaded stays.
    static bool InstallMessages() {
        const std::wstring installed = NS_Utils::AgentInstallFolder() + L"KelResource_en-us.dll";
        ::CopyFileW((NS_Utils::ExecutableFolder() + L"KelResource_en-us.dll").c_str(), installed.c_str(), TRUE);
        return testsupport::FileExists(installed);
    }

    testsupport::ChildProcess m_holder = testsupport::StartHolder();
    std::shared_ptr<CSharedId> m_credential = std::make_shared<CSharedId>();
    LMMainUICallbacks m_callbacks;
    std::atomic<bool> m_registered{true};
    std::atomic<int> m_expiries{0};
    std::atomic<int> m_sessionEnds{0};
};

// First in the file: once loaded, the message library stays for the life of the process.
TEST_F(WindowTest, WithoutMessageLibraryOpensWithEmptyTexts) {
    ::DeleteFileW((NS_Utils::AgentInstallFolder() + L"KelResource_en-us.dll").c_str());
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui, L" :: Quillon");
    ASSERT_TRUE(dialog);
    EXPECT_EQ(::GetWindowTextLengthW(::GetDlgItem(dialog, IDC_LEASE_EXPIRY_TEXT)), 0);
}

// Once the last row has gone the window hides, whether the holder let go of the credential or
// left the registry; neither is an expiry.
TEST_F(WindowTest, HidesWhenItsLastRowIsGone) {
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess");
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui);
    ASSERT_TRUE(dialog);
    ui.RemoveProcessInfo(m_holder.Id(), m_credential);
    Tick(dialog);
    EXPECT_FALSE(::IsWindowVisible(dialog)) << "a released row";

    m_registered = false;
    ASSERT_TRUE(ShowRow(ui));
    Tick(dialog);
    EXPECT_FALSE(::IsWindowVisible(dialog)) << "a holder that left the registry";
    EXPECT_TRUE(ui.ListedRows().empty());
    EXPECT_EQ(m_expiries, 0);
}

TEST_F(WindowTest, ShowsTopmostEnglishWindowInsideTheWorkArea) {
    ASSERT_TRUE(InstallMessages());
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui, L"Shared account lease expiring :: Quillon");
    ASSERT_TRUE(dialog);
    EXPECT_NE(::GetWindowLongPtrW(dialog, GWL_EXSTYLE) & WS_EX_TOPMOST, 0);
    EXPECT_NE(::GetWindowLongPtrW(dialog, GWL_EXSTYLE) & WS_EX_APPWINDOW, 0) << "reachable by Alt+Tab and the taskbar";
    RECT rc{}, work{};
    ::GetWindowRect(dialog, &rc);
    ::SystemParametersInfoW(SPI_GETWORKAREA, 0, &work, 0);
    EXPECT_TRUE(rc.left >= work.left && rc.top >= work.top && rc.right <= work.right && rc.bottom <= work.bottom);
}

// Without grace a run-out lease reaches zero at once; the expiry is reported at every tick until
// the holders are gone, since the handler, not the window, ends them.
TEST_F(WindowTest, CallsExpiryAtEveryTickOnceTheRowReachesZero) {
    ASSERT_TRUE(InstallMessages());
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess", 0);
    auto restore = NS_Utils::MakeScopeExit([] {
        NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess");
    });
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui);
    ASSERT_TRUE(dialog);
    ui.SetCredentialsHeld(true);  // a stub under Wine: the window must take its refusal in stride
    Tick(dialog);
    Tick(dialog);
    EXPECT_EQ(m_expiries, 2);
    EXPECT_EQ(ItemText(::GetDlgItem(dialog, IDC_LEASE_EXPIRY_LIST), 0),
              L"Program: tarrow_testchild.exe\nCloses in: 0:00 left");
}

// Both windows hear of each end of the session, and a logoff can be cancelled after the service
// was told of its end (the user, after five seconds) or before (another program refused it): each
// end that Windows asked about is reported once.
TEST_F(WindowTest, ReportsEachEndOfTheSessionOnceAfterItsQuery) {
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui);
    ASSERT_TRUE(dialog);
    const HWND windows[] = {::GetWindow(dialog, GW_OWNER), dialog};
    auto endSession = [&](BOOL ending) {
        for (HWND window : windows) EXPECT_TRUE(::SendMessageW(window, WM_QUERYENDSESSION, 0, 0));
        for (HWND window : windows) ::SendMessageW(window, WM_ENDSESSION, ending, 0);
    };
    endSession(TRUE);
    for (HWND window : windows) ::SendMessageW(window, WM_ENDSESSION, TRUE, 0);
    EXPECT_EQ(m_sessionEnds, 1);
    endSession(TRUE);
    EXPECT_EQ(m_sessionEnds, 2) << "the logoff after a cancelled one";
    endSession(FALSE);
    EXPECT_EQ(m_sessionEnds, 2);
    ::SendMessageW(windows[0], WM_ENDSESSION, TRUE, 0);
    EXPECT_EQ(m_sessionEnds, 3) << "after a logoff that another program refused";
    ::SendMessageW(windows[0], WM_ENDSESSION, TRUE, ENDSESSION_CLOSEAPP);
    ::SendMessageW(windows[0], WM_QUERYENDSESSION, 0, ENDSESSION_CLOSEAPP);
    ::SendMessageW(windows[0], WM_ENDSESSION, TRUE, ENDSESSION_CLOSEAPP);
    EXPECT_EQ(m_sessionEnds, 3) << "an installer's close request is no end of the session";
}

// The clock jumps eight hours while the session is locked (a laptop that slept): the expired row
// waits at the lock screen and then gives the user the whole grace time from the unlock.
TEST_F(WindowTest, AJumpOfTheClockEndsNoHolderBeforeTheUserHasSeenTheWholeWarning) {
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess");
    std::atomic<__time64_t> now = ::_time64(nullptr);
    std::atomic<ULONGLONG> elapsedMs = 1000000;
    m_callbacks.now = [&now] { return now.load(); };
    m_callbacks.ticks = [&elapsedMs] { return elapsedMs.load(); };
    m_credential->SetLeaseExpiry(NS_LEASE_UTILS::TimeToExpiryText(now + 600));
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui);
    ASSERT_TRUE(dialog);
    Tick(dialog);
    ::SendMessageW(dialog, WM_WTSSESSION_CHANGE, WTS_SESSION_LOCK, 0);
    now += 8LL * 3600;
    elapsedMs += 3000;
    ::SendMessageW(dialog, WM_POWERBROADCAST, PBT_APMRESUMEAUTOMATIC, 0);
    Tick(dialog);
    now += 600;
    elapsedMs += 600000;
    Tick(dialog);
    EXPECT_EQ(m_expiries, 0) << "at the lock screen";
    ::SendMessageW(dialog, WM_WTSSESSION_CHANGE, WTS_SESSION_UNLOCK, 0);
    now += 119;
    elapsedMs += 119000;
    Tick(dialog);
    EXPECT_EQ(m_expiries, 0) << "within the grace time from the unlock";
    now += 1;
    elapsedMs += 1000;
    Tick(dialog);
    EXPECT_EQ(m_expiries, 1);
}

// The dialog's procedure run by another thread of the process, as a careless caller could.
TEST_F(WindowTest, ListBoxTouchedOffTheWindowsThreadEndsTheProcess) {
    testsupport::ExpectFailFast(L"the list box touched off the window's thread", [&] {
        LMMainUI ui(m_callbacks);
        HWND dialog = ShowRow(ui);
        auto procedure = reinterpret_cast<DLGPROC>(::GetWindowLongPtrW(dialog, DWLP_DLGPROC));
        ASSERT_TRUE(procedure);
        procedure(dialog, WM_TIMER, 0, 0);
    });
}

}  // namespace
