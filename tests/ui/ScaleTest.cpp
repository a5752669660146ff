// The lease-expiry window as a screen reader and a user at 100, 150 and 200 % scale meet it: shown
// by another process (tarrow_windowchild) at the DPI of Wine's "LogPixels", its rows read with
// LB_GETTEXT, its row height taken, and photographed (build/screenshots/lease-window-<dpi>dpi.bmp):
// both lines of every row's text lie inside the row, and the window inside the work area after its
// DPI changed. Also: Tarrow.exe and tarrowctl.exe carry the application manifest.

#include "common/ModulePath.h"
#include "common/Registry.h"
#include "tests/support/TestSupport.h"
#include "tests/ui/VisibleWindow.h"
#include "ui/LMMainUIRes.h"
#include "ui/UiHandles.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using testsupport::ItemText;

bool Inside(const RECT& inner, const RECT& outer) {
    return inner.left >= outer.left && inner.top >= outer.top && inner.right <= outer.right &&
           inner.bottom <= outer.bottom;
}

RECT WorkAreaOf(HWND window) {
    MONITORINFO info{};
    info.cbSize = sizeof(info);
    ::GetMonitorInfoW(::MonitorFromWindow(window, MONITOR_DEFAULTTONEAREST), &info);
    return info.rcWork;
}

// What the screen shows in a rectangle, as 0x00RRGGBB pixels, top row first.
struct Screenshot {
    RECT area{};
    std::vector<DWORD> pixels;

    int Width() const { return area.right - area.left; }
    int Height() const { return area.bottom - area.top; }
    // Dark enough to be text: the window draws black on white.
    bool Ink(int screenX, int screenY) const {
        DWORD p = pixels[static_cast<size_t>(screenY - area.top) * static_cast<size_t>(Width()) +
                         static_cast<size_t>(screenX - area.left)];
        DWORD luminance = (30 * ((p >> 16) & 0xFF) + 59 * ((p >> 8) & 0xFF) + 11 * (p & 0xFF)) / 100;
        return luminance < 110;
    }

    static Screenshot Take(const RECT& area) {
        Screenshot shot;
        shot.area = area;
        shot.pixels.resize(static_cast<size_t>(shot.Width()) * static_cast<size_t>(shot.Height()));
        NS_Utils::WindowDC screen(nullptr);
        NS_Utils::UniqueMemoryDC memory(::CreateCompatibleDC(screen.get()));
        NS_Utils::UniqueGdiObject bitmap(::CreateCompatibleBitmap(screen.get(), shot.Width(), shot.Height()));
        {
            NS_Utils::SelectedObject selected(memory.get(), bitmap.get());
            ::BitBlt(memory.get(), 0, 0, shot.Width(), shot.Height(), screen.get(), area.left, area.top, SRCCOPY);
        }
        BITMAPINFO format = Format(shot.Width(), shot.Height());
        ::GetDIBits(memory.get(), static_cast<HBITMAP>(bitmap.get()), 0, static_cast<UINT>(shot.Height()),
                    shot.pixels.data(), &format, DIB_RGB_COLORS);
        return shot;
    }

    bool Save(const std::wstring& path) const {
        BITMAPINFO format = Format(Width(), Height());
        BITMAPFILEHEADER file{};
        file.bfType = 0x4D42;
        file.bfOffBits = sizeof(BITMAPFILEHEADER) + sizeof(BITMAPINFOHEADER);
        file.bfSize = file.bfOffBits + static_cast<DWORD>(pixels.size() * sizeof(DWORD));
        std::vector<std::uint8_t> bytes(file.bfSize);
        std::memcpy(bytes.data(), &file, sizeof(file));
        std::memcpy(bytes.data() + sizeof(file), &format.bmiHeader, sizeof(BITMAPINFOHEADER));
        std::memcpy(bytes.data() + file.bfOffBits, pixels.data(), pixels.size() * sizeof(DWORD));
        return testsupport::WriteFileBytes(path, bytes.data(), bytes.size());
    }

private:
    static BITMAPINFO Format(int width, int height) {
        BITMAPINFO format{};
        format.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
        format.bmiHeader.biWidth = width;
        format.bmiHeader.biHeight = -height;
        format.bmiHeader.biPlanes = 1;
        format.bmiHeader.biBitCount = 32;
        format.bmiHeader.biCompression = BI_RGB;
        return format;
    }
};

// The text of a row as the screen shows it: the pixel rows with ink right of the icon column (the
// icon ends 38 px, the text begins 44 px from the row's left at 96 DPI), inside the row's
// one-pixel frame, where the focus rectangle may be drawn.
struct RowInk {
    int first = -1;
    int last = -1;
    bool touchesEdge = false;
    int Height() const { return first < 0 ? 0 : last - first + 1; }
};

RowInk InkOf(const Screenshot& shot, const RECT& row, int dpi) {
    RowInk ink;
    for (int y = row.top + 1; y < row.bottom - 1; ++y) {
        bool any = false;
        for (int x = row.left + ::MulDiv(41, dpi, 96); x < row.right - 1 && !any; ++x) any = shot.Ink(x, y);
        if (!any) continue;
        if (ink.first < 0) ink.first = y;
        ink.last = y;
        if (y == row.top + 1 || y == row.bottom - 2) ink.touchesEdge = true;
    }
    return ink;
}

// The height of a line of the dialog's font (8 point "MS Shell Dlg") at `dpi`, measured here:
// two lines of it reach further than one line's height, one line never does.
int LineHeightAt(int dpi) {
    NS_Utils::UniqueMemoryDC dc(::CreateCompatibleDC(nullptr));
    NS_Utils::UniqueGdiObject font(::CreateFontW(-::MulDiv(8, dpi, 72), 0, 0, 0, FW_NORMAL, FALSE, FALSE, FALSE,
                                                 DEFAULT_CHARSET, 0, 0, 0, 0, L"MS Shell Dlg"));
    NS_Utils::SelectedObject selected(dc.get(), font.get());
    TEXTMETRICW metrics{};
    ::GetTextMetricsW(dc.get(), &metrics);
    return metrics.tmHeight;
}

class ScaleTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ::CopyFileW((NS_Utils::ExecutableFolder() + L"KelResource_en-us.dll").c_str(),
                    (NS_Utils::AgentInstallFolder() + L"KelResource_en-us.dll").c_str(), FALSE);
    }
    static void TearDownTestSuite() {
        NS_Utils::WriteRegistryDword(HKEY_CURRENT_USER, L"Control Panel\\Desktop", L"LogPixels", 96);
    }

    // The window at `dpi`, with `rows` rows; its dialog once they are listed.
    HWND ShowAt(int dpi, const std::wstring& arguments, LRESULT rows) {
        // Read by each Wine process when it starts: the child alone sees the new DPI.
        NS_Utils::WriteRegistryDword(HKEY_CURRENT_USER, L"Control Panel\\Desktop", L"LogPixels",
                                     static_cast<DWORD>(dpi));
        // Wine draws the caption and frame itself, as there is no window manager to draw them.
        NS_Utils::WriteRegistryString(HKEY_CURRENT_USER, L"Software\\Wine\\X11 Driver", L"Managed", L"N");
        m_window = testsupport::ChildProcess::Start(L"tarrow_windowchild.exe", arguments);
        HWND dialog = nullptr;
        EXPECT_TRUE(testsupport::WaitUntil([&] {
            dialog = testsupport::VisibleWindowOf(m_window.Id(), L"#32770");
            return dialog && ::SendMessageW(::GetDlgItem(dialog, IDC_LEASE_EXPIRY_LIST), LB_GETCOUNT, 0, 0) == rows;
        })) << "the window child showed no rows";
        return dialog;
    }

    testsupport::ChildProcess m_plain = testsupport::StartHolder();  // no icon, no window
    testsupport::ChildProcess m_window;
};

TEST_F(ScaleTest, RowsFitTheirTextAndTheWindowItsWorkAreaAtEveryDpi) {
    testsupport::ChildProcess notepad = testsupport::ChildProcess::Start(L"C:\\windows\\system32\\notepad.exe", L"");
    ASSERT_TRUE(notepad.Valid());
    ASSERT_TRUE(testsupport::WaitUntil([&] { return testsupport::VisibleWindowOf(notepad.Id(), nullptr) != nullptr; }));
    const std::wstring folder = NS_Utils::ExecutableFolder() + L"..\\screenshots\\";
    ::CreateDirectoryW(folder.c_str(), nullptr);
    std::vector<LRESULT> heights;
    size_t dpiChanges = testsupport::CountInServiceLog(L"[LMMainUI::OnDpiChanged]");
    for (int dpi : {96, 144, 192}) {
        SCOPED_TRACE("at " + std::to_string(dpi) + " DPI");
        HWND dialog = ShowAt(
            dpi, L"--dpi-change " + std::to_wstring(m_plain.Id()) + L" " + std::to_wstring(notepad.Id()), 2);
        ASSERT_TRUE(dialog);
        HWND list = ::GetDlgItem(dialog, IDC_LEASE_EXPIRY_LIST);
        EXPECT_EQ(ItemText(list, 0).rfind(L"Program: tarrow_testchild.exe\nCloses in: ", 0), 0u)
            << ItemText(list, 0).c_str();
        EXPECT_NE(ItemText(list, 1).find(L"Notepad"), std::wstring::npos) << "the program's title";

        // Told of a DPI change with a place off the bottom right, it pulls back into the work area.
        ASSERT_TRUE(testsupport::WaitUntil(
            [&] { return testsupport::CountInServiceLog(L"[LMMainUI::OnDpiChanged]") > dpiChanges; }));
        dpiChanges = testsupport::CountInServiceLog(L"[LMMainUI::OnDpiChanged]");
        RECT window{};
        ::GetWindowRect(dialog, &window);
        const RECT work = WorkAreaOf(dialog);
        EXPECT_TRUE(Inside(window, work))
            << window.left << "," << window.top << " " << window.right << "," << window.bottom;
        EXPECT_TRUE(window.right == work.right || window.bottom == work.bottom) << "pulled back only as far as needed";

        ::Sleep(500);  // let the move's repaint reach the screen
        Screenshot shot = Screenshot::Take(window);
        const std::wstring name = L"lease-window-" + std::to_wstring(dpi) + L"dpi.bmp";
        EXPECT_TRUE(shot.Save(folder + name));
        heights.push_back(::SendMessageW(list, LB_GETITEMHEIGHT, 0, 0));
        const int lineHeight = LineHeightAt(dpi);
        for (int index = 0; index < 2; ++index) {
            RECT row{};
            ASSERT_NE(::SendMessageW(list, LB_GETITEMRECT, static_cast<WPARAM>(index), reinterpret_cast<LPARAM>(&row)),
                      LB_ERR);
            ::MapWindowPoints(list, nullptr, reinterpret_cast<POINT*>(&row), 2);
            RowInk ink = InkOf(shot, row, dpi);
            EXPECT_GT(ink.Height(), lineHeight) << "row " << index << ": the program and the time left on two lines";
            EXPECT_FALSE(ink.touchesEdge) << "row " << index << ": text cut by the row's edge";
        }
        std::printf(
            "lease-expiry window at %d DPI: row height %d px, window %ld x %ld px, screenshot screenshots\\%ls\n", dpi,
            static_cast<int>(heights.back()), window.right - window.left, window.bottom - window.top, name.c_str());
        m_window.Kill();
    }
    EXPECT_TRUE(heights[0] < heights[1] && heights[1] < heights[2]) << "rows grow with the DPI";
}

TEST_F(ScaleTest, KeyboardAndScreenReadersReachTheRowsAndTheirCountdown) {
    HWND dialog = ShowAt(96, std::to_wstring(m_plain.Id()), 1);
    ASSERT_TRUE(dialog);
    HWND list = ::GetDlgItem(dialog, IDC_LEASE_EXPIRY_LIST);
    LONG_PTR style = ::GetWindowLongPtrW(list, GWL_STYLE);
    EXPECT_NE(style & LBS_HASSTRINGS, 0);
    EXPECT_EQ(::GetNextDlgTabItem(dialog, nullptr, FALSE), list) << "the list is the first tab stop";
    GUITHREADINFO gui{};
    gui.cbSize = sizeof(gui);
    EXPECT_TRUE(testsupport::WaitUntil(
        [&] { return ::GetGUIThreadInfo(::GetWindowThreadProcessId(dialog, nullptr), &gui) && gui.hwndFocus == list; },
        5000))
        << "the keyboard lands on the list";
    ::PostMessageW(list, WM_KEYDOWN, VK_DOWN, 0);
    EXPECT_TRUE(testsupport::WaitUntil([&] { return ::SendMessageW(list, LB_GETCURSEL, 0, 0) == 0; }, 5000))
        << "the arrow keys walk the rows";
    EXPECT_EQ(::GetWindow(list, GW_HWNDPREV), ::GetDlgItem(dialog, IDC_LEASE_EXPIRY_TEXT))
        << "the explanation labels the list";

    // A screen reader names a list after the static text before it; Wine 8 cannot be asked
    // (AccessibleObjectFromWindow answers E_NOINTERFACE for another process's list), so the
    // label is checked where the reader looks for it.
    wchar_t label[512] = {};
    EXPECT_GT(::GetWindowTextW(::GetDlgItem(dialog, IDC_LEASE_EXPIRY_TEXT), label, 512), 0);

    // The countdown moves in the item's text, not only on the screen.
    std::wstring before = ItemText(list, 0);
    ::Sleep(1100);
    DWORD_PTR ignored = 0;
    ::SendMessageTimeoutW(dialog, WM_TIMER, 0, 0, SMTO_BLOCK, 10000, &ignored);
    std::wstring after = ItemText(list, 0);
    EXPECT_NE(before, after);
    EXPECT_EQ(after.rfind(L"Program: tarrow_testchild.exe\nCloses in: 1:5", 0), 0u) << after.c_str();
}

TEST(ManifestTest, TarrowAndTarrowctlCarryTheApplicationManifest) {
    for (const wchar_t* program : {L"Tarrow.exe", L"tarrowctl.exe"}) {
        SCOPED_TRACE(std::string(program, program + std::wcslen(program)));
        NS_Utils::UniqueModule module(::LoadLibraryExW((NS_Utils::ExecutableFolder() + program).c_str(), nullptr,
                                                       LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE));
        ASSERT_TRUE(module);
        HRSRC found = ::FindResourceW(module.get(), MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(24));
        ASSERT_TRUE(found);
        HGLOBAL loaded = ::LoadResource(module.get(), found);
        std::string manifest(static_cast<const char*>(::LockResource(loaded)), ::SizeofResource(module.get(), found));
        for (const char* declared : {"level=\"asInvoker\"", "{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}",
                                     ">PerMonitorV2, System<", "Microsoft.Windows.Common-Controls"})
            EXPECT_NE(manifest.find(declared), std::string::npos) << declared;
    }
}

}  // namespace
