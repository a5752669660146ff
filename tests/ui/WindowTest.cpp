// The lease-expiry window as a user sees it: real windows on the test display, a real holder
// process, the tick driven by WM_TIMER instead of waiting for it. (The main job saves a picture.)

#include "common/ModulePath.h"
#include "common/Registry.h"
#include "tests/support/FailFastTest.h"
#include "tests/support/TestSupport.h"
#include "tests/ui/VisibleWindow.h"
#include "ui/LMMainUI.h"
#include "ui/LMMainUIRes.h"

#include <gtest/gtest.h>

#include <atomic>

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

TEST_F(WindowTest, ReportsTheSessionEndOnceThoughBothWindowsHearOfIt) {
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui);
    ASSERT_TRUE(dialog);
    ::SendMessageW(::GetWindow(dialog, GW_OWNER), WM_ENDSESSION, TRUE, 0);
    ::SendMessageW(dialog, WM_ENDSESSION, TRUE, 0);
    EXPECT_EQ(m_sessionEnds, 1);
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
