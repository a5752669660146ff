#include "host/TarrowModule.h"

#include "common/FailFast.h"
#include "common/WinHandles.h"
#include "host/EventSourceRegistration.h"
#include "host/Registration.h"

#include <shellapi.h>

CTarrowModule& CTarrowModule::Instance() {
    static CTarrowModule module;
    return module;
}

ULONG CTarrowModule::Lock() { return ::CoAddRefServerProcess(); }

ULONG CTarrowModule::Unlock() {
    ULONG count = ::CoReleaseServerProcess();
    if (count == 0 && m_mainThread.IsBound()) ::PostThreadMessageW(m_mainThread.ThreadId(), WM_QUIT, 0, 0);
    return count;
}

namespace {
// The event source comes with the registration for all users only: it is the machine's.
HRESULT RegisterForAllUsers() {
    HRESULT hr = NS_Registration::RegisterServer(NS_Registration::Scope::AllUsers);
    return SUCCEEDED(hr) ? NS_Registration::RegisterEventSource() : hr;
}

// The source goes even when the classes could not all be removed, and the first failure is answered.
HRESULT UnregisterForAllUsers() {
    HRESULT hr = NS_Registration::UnregisterServer(NS_Registration::Scope::AllUsers);
    HRESULT source = NS_Registration::UnregisterEventSource();
    return FAILED(hr) ? hr : source;
}
}  // namespace

CTarrowModule::Switch CTarrowModule::ParseCommandLine(const std::wstring& commandLine) {
    int count = 0;
    const NS_Utils::UniqueArgv argv(::CommandLineToArgvW(commandLine.c_str(), &count));
    if (!argv) return Switch::Unparsable;
    LPWSTR* const arguments = argv.get();
    struct Known {
        const wchar_t* name;
        Switch value;
    };
    const Known known[] = {{L"RegServer", Switch::RegServer},
                           {L"UnregServer", Switch::UnregServer},
                           {L"RegServerPerUser", Switch::RegServerPerUser},
                           {L"UnregServerPerUser", Switch::UnregServerPerUser}};
    Switch found = Switch::None;
    // The first token is the program itself.
    for (int i = 1; i < count && found == Switch::None; ++i) {
        const wchar_t* token = arguments[i];
        if (token[0] != L'-' && token[0] != L'/') continue;
        for (const Known& k : known)
            if (::_wcsicmp(token + 1, k.name) == 0) found = k.value;
    }
    return found;
}

HRESULT CTarrowModule::RunSwitch(Switch which) {
    using NS_Registration::Scope;
    switch (which) {
    case Switch::RegServer: return RegisterForAllUsers();
    case Switch::UnregServer: return UnregisterForAllUsers();
    case Switch::RegServerPerUser: return NS_Registration::RegisterServer(Scope::CurrentUser);
    case Switch::UnregServerPerUser: return NS_Registration::UnregisterServer(Scope::CurrentUser);
    case Switch::None:
    case Switch::Unparsable: break;
    }
    return S_OK;
}
