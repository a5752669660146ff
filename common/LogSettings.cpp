#include "common/LogSettings.h"

#include "common/ModulePath.h"
#include "common/Registry.h"
#include "common/WinHandles.h"

namespace NS_Log {

namespace {
void Override(HKEY key, const NS_Settings::Setting& setting, DWORD& value) {
    if (std::optional<long long> read = NS_Settings::ReadNumber(setting, key)) value = static_cast<DWORD>(*read);
}

}  // namespace

LogSettings ReadLogSettings() {
    LogSettings settings;
    // One open key for all the values: this runs on every tenth log call.
    NS_Utils::UniqueRegKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, NS_Settings::kLogging, 0, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS)
        return settings;
    DWORD scrambled = 0;
    DWORD eventLog = 0;
    Override(key.get(), NS_Settings::kLogLevel, settings.level);
    Override(key.get(), NS_Settings::kLogFileSize, settings.fileSizeKiB);
    Override(key.get(), NS_Settings::kLogObfuscationEnabled, scrambled);
    Override(key.get(), NS_Settings::kLogFileCount, settings.fileCount);
    Override(key.get(), NS_Settings::kLogSyncEnabled, settings.sync);
    Override(key.get(), NS_Settings::kWindowsEventLogEnabled, eventLog);
    settings.scrambled = scrambled != 0;
    settings.eventLog = eventLog != 0;
    return settings;
}

std::wstring DefaultLogFolder() { return NS_Utils::AgentInstallFolder() + L"logs\\"; }

}  // namespace NS_Log
