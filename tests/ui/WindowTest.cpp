// The lease-expiry window as a user sees it: real windows on the test display, a real holder
// process, the tick driven by WM_TIMER instead of waiting for it.

#include "common/ModulePath.h"
#include "common/Registry.h"
#include "tests/support/TestSupport.h"
#include "ui/LMMainUI.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

constexpr wchar_t kPastExpiry[] = L"20200101T000000Z";

std::wstring Text(HWND window) {
    wchar_t text[512] = {};
    ::GetWindowTextW(window, text, 512);
    return text;
}

BOOL CALLBACK MatchOwnDialog(HWND window, LPARAM found) {
    DWORD pid = 0;
    wchar_t className[16] = {};
    ::GetWindowThreadProcessId(window, &pid);
    ::GetClassNameW(window, className, 16);
    if (pid != ::GetCurrentProcessId() || std::wstring(className) != L"#32770") return TRUE;
    *reinterpret_cast<HWND*>(found) = window;
    return FALSE;
}

// The dialog with its pixels, as the screen shows it, kept beside the test program.
void SaveScreenshot(HWND window, const std::wstring& path) {
    RECT rc{};
    ::GetWindowRect(window, &rc);
    BITMAPINFO info{};
    info.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
    info.bmiHeader.biWidth = rc.right - rc.left;
    info.bmiHeader.biHeight = rc.bottom - rc.top;
    info.bmiHeader.biPlanes = 1;
    info.bmiHeader.biBitCount = 32;
    void* bits = nullptr;
    HDC screen = ::GetDC(nullptr);
    HDC memory = ::CreateCompatibleDC(screen);
    HBITMAP bitmap = ::CreateDIBSection(screen, &info, DIB_RGB_COLORS, &bits, nullptr, 0);
    auto release = NS_Utils::MakeScopeExit([&] {
        ::DeleteObject(bitmap);
        ::DeleteDC(memory);
        ::ReleaseDC(nullptr, screen);
    });
    HGDIOBJ old = ::SelectObject(memory, bitmap);
    ::BitBlt(memory, 0, 0, info.bmiHeader.biWidth, info.bmiHeader.biHeight, screen, rc.left, rc.top, SRCCOPY);
    ::SelectObject(memory, old);
    size_t size = static_cast<size_t>(info.bmiHeader.biWidth) * info.bmiHeader.biHeight * 4;
    BITMAPFILEHEADER file{};
    file.bfType = 0x4D42;
    file.bfOffBits = sizeof(BITMAPFILEHEADER) + sizeof(BITMAPINFOHEADER);
    file.bfSize = static_cast<DWORD>(file.bfOffBits + size);
    std::vector<std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(&file),
                                    reinterpret_cast<const std::uint8_t*>(&file + 1));
    auto* header = reinterpret_cast<const std::uint8_t*>(&info.bmiHeader);
    bytes.insert(bytes.end(), header, header + sizeof(BITMAPINFOHEADER));
    if (bits) bytes.insert(bytes.end(), static_cast<const std::uint8_t*>(bits), static_cast<const std::uint8_t*>(bits) + size);
    EXPECT_TRUE(testsupport::WriteFileBytes(path, bytes.data(), bytes.size()));
}

class WindowTest : public ::testing::Test {
protected:
    // Without a window manager on the test display, Wine draws the caption itself only for
    // windows it does not hand to one; the screenshot then shows the caption.
    static void SetUpTestSuite() {
        NS_Utils::WriteRegistryString(HKEY_CURRENT_USER, L"Software\\Wine\\X11 Driver", L"Managed", L"N");
    }
    void SetUp() override {
        ASSERT_TRUE(m_holder.Valid());
        m_credential->SetLeaseExpiry(kPastExpiry);
        m_credential->AddHolderPid(m_holder.Id());
        m_callbacks.onExpiryPassed = [this](const std::weak_ptr<CSharedId>& c) {
            if (c.lock() == m_credential) ++m_expiries;
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
    HWND ShowRow(LMMainUI& ui) {
        ui.ShowProcessInfo(m_holder.Id(), NS_Utils::UniqueHandle(Duplicate()), m_credential);
        HWND dialog = nullptr;
        EXPECT_TRUE(testsupport::WaitUntil([&] {
            ::EnumWindows(MatchOwnDialog, reinterpret_cast<LPARAM>(&dialog));
            return dialog && ::IsWindowVisible(dialog);
        }));
        return dialog;
    }

    testsupport::ChildProcess m_holder = testsupport::StartHolder();
    std::shared_ptr<CSharedId> m_credential = std::make_shared<CSharedId>();
    LMMainUICallbacks m_callbacks;
    std::atomic<bool> m_registered{true};
    std::atomic<int> m_expiries{0};
    std::atomic<int> m_sessionEnds{0};
};

// First in the file: once loaded, the message library stays for the life of the process.
TEST_F(WindowTest, WithoutMessageLibraryOpensWithEmptyTextsGivesGraceAndHidesWhenEmpty) {
    ::DeleteFileW((NS_Utils::AgentInstallFolder() + L"KelResource_en-us.dll").c_str());
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess");
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui);
    ASSERT_TRUE(dialog);
    EXPECT_EQ(Text(dialog), L" :: Quillon");
    EXPECT_EQ(Text(::GetDlgItem(dialog, 202)), L"");
    ::SendMessageW(dialog, WM_TIMER, 0, 0);
    EXPECT_EQ(m_expiries, 0) << "a lease that ran out before the row appeared still gets the grace time";

    ui.RemoveProcessInfo(m_holder.Id());
    ::SendMessageW(dialog, WM_TIMER, 0, 0);
    EXPECT_FALSE(::IsWindowVisible(dialog));

    m_registered = false;  // a holder that left the registry leaves the list without an expiry call
    ShowRow(ui);
    ::SendMessageW(dialog, WM_TIMER, 0, 0);
    EXPECT_FALSE(::IsWindowVisible(dialog));
    EXPECT_EQ(m_expiries, 0);
}

TEST_F(WindowTest, ShowsTopmostEnglishWindowCallsExpiryAtEveryTickAndSessionEndOnce) {
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess", 0);
    ASSERT_TRUE(::CopyFileW((NS_Utils::ExecutableFolder() + L"KelResource_en-us.dll").c_str(),
                            (NS_Utils::AgentInstallFolder() + L"KelResource_en-us.dll").c_str(), FALSE));
    LMMainUI ui(m_callbacks);
    HWND dialog = ShowRow(ui);
    ASSERT_TRUE(dialog);
    EXPECT_EQ(Text(dialog), L"Shared account lease expiring :: Quillon");
    EXPECT_NE(::GetWindowLongPtrW(dialog, GWL_EXSTYLE) & WS_EX_TOPMOST, 0);
    RECT rc{}, work{};
    ::GetWindowRect(dialog, &rc);
    ::SystemParametersInfoW(SPI_GETWORKAREA, 0, &work, 0);
    EXPECT_TRUE(rc.left >= work.left && rc.top >= work.top && rc.right <= work.right && rc.bottom <= work.bottom);

    ::SendMessageW(dialog, WM_TIMER, 0, 0);
    ::SendMessageW(dialog, WM_TIMER, 0, 0);
    EXPECT_EQ(m_expiries, 2);
    EXPECT_TRUE(testsupport::WaitUntil([] {
        return testsupport::CountInServiceLog(L"Text content: Program: tarrow_testchild.exe\nCloses in: 0:00 left") > 0;
    }));
    ::RedrawWindow(dialog, nullptr, nullptr, RDW_FRAME | RDW_INVALIDATE | RDW_UPDATENOW | RDW_ALLCHILDREN);
    SaveScreenshot(dialog, NS_Utils::ExecutableFolder() + L"ui_lease_expiry_window.bmp");

    ::SendMessageW(::GetWindow(dialog, GW_OWNER), WM_ENDSESSION, TRUE, 0);
    ::SendMessageW(dialog, WM_ENDSESSION, TRUE, 0);
    EXPECT_EQ(m_sessionEnds, 1);
    NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"WaitingTimeToKillProcess");
}

}  // namespace
