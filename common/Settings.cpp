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
                          kInstalledLang};
}  // namespace

std::span<const Setting> AllSettings() { return kAll; }

}  // namespace NS_Settings
