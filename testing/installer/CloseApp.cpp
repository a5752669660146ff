// tarrow_closeapp.exe: closes the running Tarrow as the Restart Manager does for an installer
// that replaces its files, and waits up to 10 s for the process to end. Exit code 0 when it
// ended, 1 when no Tarrow runs, 2 when it did not end.

#include "common/WinHandles.h"
#include "testing/installer/CloseRequest.h"

#include <windows.h>

int wmain() {
    HWND known = ::FindWindowW(L"KEL_Tarrow_Close_Request", nullptr);
    DWORD pid = 0;
    if (!known || !::GetWindowThreadProcessId(known, &pid)) return 1;
    NS_Utils::UniqueHandle process(::OpenProcess(SYNCHRONIZE, FALSE, pid));
    testsupport::SendCloseRequest(pid);
    return process && ::WaitForSingleObject(process.get(), 10000) == WAIT_OBJECT_0 ? 0 : 2;
}
