#include "common/LogSettings.h"

#include "common/ModulePath.h"
#include "common/Registry.h"
#include "common/WinHandles.h"

namespace NS_Log {

namespace {
void Override(HKEY key, const wchar_t* valueName, DWORD& setting) {
    DWORD value = 0;
    if (NS_Utils::ReadRegistryDword(key, nullptr, valueName, value) == ERROR_SUCCESS && value > 0) setting = value;
}

}  // namespace

LogSettings ReadLogSettings() {
    LogSettings settings;
    // One open key for the five values: this runs on every tenth log call.
    NS_Utils::UniqueRegKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, 0, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS)
        return settings;
    DWORD scrambled = 0;
    Override(key.get(), L"LogLevel", settings.level);
    Override(key.get(), L"LogFileSize", settings.fileSizeKiB);
    Override(key.get(), L"LogObfuscationEnabled", scrambled);
    Override(key.get(), L"LogFileCount", settings.fileCount);
    Override(key.get(), L"LogSyncEnabled", settings.sync);
    settings.scrambled = scrambled != 0;
    return settings;
}

std::wstring DefaultLogFolder() { return NS_Utils::AgentInstallFolder() + L"logs\\"; }

}  // namespace NS_Log
