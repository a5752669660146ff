#include "common/Settings.h"

#include <array>

namespace NS_Settings {

namespace {
constexpr std::array kAll{kLogLevel,
                          kLogFileSize,
                          kLogFileCount,
                          kLogObfuscationEnabled,
                          kLogSyncEnabled,
                          kWindowsEventLogEnabled,
                          kFreeSharedIdWaitTime,
                          kUseLocalKelSettings,
                          kAuthSvc,
                          kLeaseMonitorDeltaTime,
                          kDefaultLeaseExpiryDuration,
                          kWaitingTimeToKillProcess,
                          kInstalledLang,
                          kProgramDir};
}  // namespace

std::span<const Setting> AllSettings() { return kAll; }

std::optional<long long> ReadNumber(const Setting& setting, HKEY opened) {
    DWORD stored = 0;
    const bool read = opened ? NS_Utils::ReadRegistryDword(opened, nullptr, setting.valueName, stored)
                             : NS_Utils::ReadRegistryDword(HKEY_LOCAL_MACHINE, setting.key, setting.valueName, stored);
    if (!read) return std::nullopt;
    switch (setting.counts) {
    case Counts::AboveZero: return stored > 0 ? std::optional<long long>(stored) : std::nullopt;
    case Counts::Signed: return static_cast<LONG>(stored);
    case Counts::Unsigned: break;
    }
    return stored;
}

std::optional<std::wstring> ReadText(const Setting& setting) {
    std::wstring value;
    if (!NS_Utils::ReadRegistryString(HKEY_LOCAL_MACHINE, setting.key, setting.valueName, value)) return std::nullopt;
    return value;
}

long long NumberOrDefault(const Setting& setting) { return ReadNumber(setting).value_or(setting.defaultNumber); }

}  // namespace NS_Settings
