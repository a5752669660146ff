// Tarrow.exe: one instance per logon session (or per desktop), its one object published in the
// running object table, and a message loop until the session or desktop goes away.

#include "common/EventLog.h"
#include "common/Log.h"
#include "common/Thread.h"
#include "common/WinHandles.h"
#include "host/CallerSecurity.h"
#include "host/CloseRequestWindow.h"
#include "host/Tarrow.h"
#include "host/TarrowModule.h"

#include "TarrowVersion.h"

#include <string>

namespace {
constexpr const wchar_t* kMutexBase = L"KEL_Tarrow_Mutex";

// With "Local\LUSPEnabled" present, one instance runs per desktop instead of per session.
std::wstring SingleInstanceMutexName() {
    NS_Utils::UniqueHandle probe(::OpenEventW(SYNCHRONIZE, FALSE, L"Local\\LUSPEnabled"));
    if (!probe) return kMutexBase;
    wchar_t desktop[260] = {};
    DWORD needed = 0;
    ::GetUserObjectInformationW(::GetThreadDesktop(::GetCurrentThreadId()), UOI_NAME, desktop, sizeof(desktop),
                                &needed);
    return std::wstring(kMutexBase) + L"_" + desktop;
}

// A thread was ended by force at the stop and may have held any lock, the heap's and the log's
// among them: the last words are written from a thread of their own that is waited for briefly,
// and the process ends without running anything else. The credential files and holder lists
// stay for the next start.
[[noreturn]] void EndAfterForcedStop() {
    constexpr DWORD kLastWordsMs = 1000;
    NS_Utils::UniqueHandle writer(::CreateThread(
        nullptr, NS_THREAD_UTILS::kLastWordsStackBytes,
        [](void*) -> DWORD {
            NS_Log::Log(1,
                        L"[wWinMain]\t A thread (check-in worker or lease poller) did not stop and was ended by "
                        L"force; the service ends now. Credential files stay for the next start.");
            return 0;
        },
        nullptr, STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr));
    if (writer) ::WaitForSingleObject(writer.get(), kLastWordsMs);
    ::TerminateProcess(::GetCurrentProcess(), 0);
    for (;;) ::Sleep(INFINITE);
}

// Brings the service back after the Restart Manager closed it for an installer (and after a
// crash or a hang, through Windows Error Reporting); not after a restart of the machine, where
// the logon command starts it.
void RegisterForRestart() {
    const HRESULT result = ::RegisterApplicationRestart(nullptr, RESTART_NO_REBOOT);
    NS_Log::Log(SUCCEEDED(result) ? 3 : 2,
                L"[wWinMain]\t RegisterApplicationRestart; hr = 0x" + NS_Log::Hex(static_cast<unsigned long>(result)));
}

// A service that could not publish runs on for the files it took up at start, but no client can
// reach it: the administrator hears of it (a level-1 line, event 100 when the event log is on).
void ReportIfUnpublished(HRESULT published) {
    if (SUCCEEDED(published)) return;
    NS_Log::Log(1,
                L"[wWinMain]\t Tarrow could not publish its object in the running object table (moniker "
                L"KELTARROW): no client can reach it until it is started again; hr = 0x" +
                    NS_Log::Hex(static_cast<unsigned long>(published)));
}

void RunMessageLoop() {
    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0) {
        ::TranslateMessage(&message);
        ::DispatchMessageW(&message);
    }
}
}  // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, LPWSTR, int) {
    CTarrowModule::Switch which = CTarrowModule::ParseCommandLine(::GetCommandLineW());
    if (which == CTarrowModule::Switch::Unparsable) return static_cast<int>(E_FAIL);
    if (which != CTarrowModule::Switch::None) {
        NS_Utils::ComApartment com;
        return static_cast<int>(CTarrowModule::RunSwitch(which));
    }

    std::wstring mutexName = SingleInstanceMutexName();
    ::SetLastError(0);
    // Kept open for the life of the process: it is what the next instance finds.
    const NS_Utils::UniqueHandle instance(::CreateMutexW(nullptr, FALSE, mutexName.c_str()));
    if (!instance) return 2;
    if (::GetLastError() == ERROR_ALREADY_EXISTS) return 3;

    const NS_Utils::ComApartment com;
    if (FAILED(com.Result())) return static_cast<int>(com.Result());
    CTarrowModule::Instance().MainThread().BindToCurrentThread();
    // Refused by COM, calls are still checked against the defaults; the service runs all the same.
    CCallerSecurity security;
    (void)security.Apply();
    {
        NS_EventLog::CServiceLifetimeEvents lifetime(L"" TARROW_VERSION_TEXT, mutexName);
        NS_Utils::ComPtr<CTarrow> tarrow = CTarrow::Create();
        // Each failure below is logged where it happens, and the service runs on: the check-ins of
        // the files it took up at start do not depend on them.
        ReportIfUnpublished(tarrow->RegisterInROTPatiently());
        (void)tarrow->RegisterActive();
        CCloseRequestWindow closeRequests;
        (void)closeRequests.Create({[&lifetime] { lifetime.SessionEnding(); },
                                    [&lifetime, &tarrow] {
                                        lifetime.SessionGoesOn();
                                        tarrow->OnSessionGoesOn();
                                    }});
        RegisterForRestart();
        RunMessageLoop();
        if (!tarrow->Shutdown()) EndAfterForcedStop();
    }
    return 0;
}
