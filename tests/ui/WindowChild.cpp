// A process that shows the lease-expiry window with a row for each process id it is given, for
// the window tests to look at from outside, as a screen reader or a user at another scale would:
// it takes the DPI its Wine prefix sets when it starts. It runs until it is ended.
//   tarrow_windowchild [--dpi-change] PID...
// --dpi-change: once the window shows, it hears WM_DPICHANGED with a suggested place that runs
// off the bottom right of the work area, as when it is dragged onto a monitor of another scale.

#include "tests/ui/VisibleWindow.h"
#include "ui/LMMainUI.h"

#include <cwchar>
#include <vector>

namespace {

struct Holder {
    DWORD pid;
    NS_Utils::UniqueHandle process;
};

HANDLE Duplicate(HANDLE process) {
    HANDLE copy = nullptr;
    ::DuplicateHandle(::GetCurrentProcess(), process, ::GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS);
    return copy;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    bool dpiChange = false;
    std::vector<Holder> holders;
    auto credential = std::make_shared<CSharedId>();
    // Long past: every row counts down the grace time from when it appears.
    credential->SetLeaseExpiry(L"20200101T000000Z");
    for (int i = 1; i < argc; ++i) {
        if (std::wstring(argv[i]) == L"--dpi-change") {
            dpiChange = true;
            continue;
        }
        DWORD pid = std::wcstoul(argv[i], nullptr, 10);
        NS_Utils::UniqueHandle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, pid));
        if (!process) return 2;
        credential->AddHolderPid(pid);
        holders.push_back({pid, std::move(process)});
    }
    LMMainUICallbacks callbacks;
    callbacks.getProcFromPid = [&](DWORD pid) {
        for (const Holder& holder : holders)
            if (holder.pid == pid) return NS_Utils::UniqueHandle(Duplicate(holder.process.get()));
        return NS_Utils::UniqueHandle();
    };
    callbacks.getSidProcList = [](const std::shared_ptr<CSharedId>& c) { return c->GetHolderPids(); };
    LMMainUI ui(callbacks);
    for (const Holder& holder : holders)
        ui.ShowProcessInfo(holder.pid, NS_Utils::UniqueHandle(Duplicate(holder.process.get())), credential);
    if (dpiChange) {
        HWND dialog = nullptr;
        for (int tries = 0; tries < 300 && !dialog; ++tries) {
            dialog = testsupport::VisibleWindowOf(::GetCurrentProcessId(), L"#32770");
            if (!dialog) ::Sleep(100);
        }
        if (!dialog) return 3;
        RECT window{}, work{};
        ::GetWindowRect(dialog, &window);
        ::SystemParametersInfoW(SPI_GETWORKAREA, 0, &work, 0);
        RECT suggested{work.right - 50, work.bottom - 50, work.right - 50 + (window.right - window.left),
                       work.bottom - 50 + (window.bottom - window.top)};
        UINT dpi = ::GetDpiForWindow(dialog);
        ::SendMessageW(dialog, WM_DPICHANGED, MAKEWPARAM(dpi, dpi), reinterpret_cast<LPARAM>(&suggested));
    }
    ::Sleep(INFINITE);
    return 0;
}
