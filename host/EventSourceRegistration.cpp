#include "host/EventSourceRegistration.h"

#include "common/EventLog.h"
#include "common/ModulePath.h"
#include "common/Registry.h"

namespace NS_Registration {

namespace {
// Entries of every type the writer reports: error, warning, information.
constexpr DWORD kTypesSupported = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
}  // namespace

HRESULT RegisterEventSource() {
    const std::wstring library = NS_Utils::ExecutableFolder() + NS_EventLog::kMessageLibrary;
    const bool written =
        NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, NS_EventLog::kSourceKey, L"EventMessageFile", library) &&
        NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_EventLog::kSourceKey, L"TypesSupported", kTypesSupported);
    return written ? S_OK : NS_Utils::LastRegistryError();
}

HRESULT UnregisterEventSource() {
    return NS_Utils::DeleteRegistryKey(HKEY_LOCAL_MACHINE, NS_EventLog::kSourceKey) ? S_OK
                                                                                    : NS_Utils::LastRegistryError();
}

}  // namespace NS_Registration
