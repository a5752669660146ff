#include "common/LogSettings.h"

#include "common/ModulePath.h"

namespace NS_Log {

namespace {
void Override(const NS_Settings::OpenedKeys& keys, const NS_Settings::Setting& setting, DWORD& value) {
    if (std::optional<long long> read = NS_Settings::ReadNumber(setting, &keys)) value = static_cast<DWORD>(*read);
}

}  // namespace

LogSettings ReadLogSettings() {
    LogSettings settings;
    // The keys opened once for all the values: this runs on every tenth log call.
    const NS_Settings::OpenedKeys keys(NS_Settings::kLogLevel);
    DWORD scrambled = 0;
    DWORD eventLog = 0;
    DWORD auditTrail = NS_Settings::kAuditTrailEnabled.defaultNumber;
    Override(keys, NS_Settings::kLogLevel, settings.level);
    Override(keys, NS_Settings::kLogFileSize, settings.fileSizeKiB);
    Override(keys, NS_Settings::kLogObfuscationEnabled, scrambled);
    Override(keys, NS_Settings::kLogFileCount, settings.fileCount);
    Override(keys, NS_Settings::kLogSyncEnabled, settings.sync);
    Override(keys, NS_Settings::kWindowsEventLogEnabled, eventLog);
    Override(keys, NS_Settings::kAuditTrailEnabled, auditTrail);
    settings.scrambled = scrambled != 0;
    settings.eventLog = eventLog != 0;
    settings.auditTrail = auditTrail != 0;
    return settings;
}

std::wstring DefaultLogFolder() { return NS_Utils::AgentInstallFolder() + L"logs\\"; }

std::wstring UserLogFolder() {
    wchar_t local[MAX_PATH] = {};
    const DWORD length = ::GetEnvironmentVariableW(L"LOCALAPPDATA", local, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return {};
    std::wstring folder(local, length);
    if (folder.back() != L'\\') folder += L'\\';
    return folder + L"Kel\\Tarrow\\logs\\";
}

}  // namespace NS_Log
