#pragma once
// The one table of the registry values the service reads: key, value, type, default and the
// range an administrator may set. The Group Policy templates and the README's table list the same
// values; a test holds the three together. "ProgramDir" is not among them: the agent's installer
// writes it, it is no setting of ours.

#include "common/Registry.h"

#include <windows.h>

#include <span>

namespace NS_Settings {

enum class Type { Dword, String };

struct Setting {
    const wchar_t* key;  // below HKEY_LOCAL_MACHINE
    const wchar_t* valueName;
    Type type;
    DWORD defaultNumber;  // Dword only
    DWORD minimum;        // Dword only
    DWORD maximum;        // Dword only
    const wchar_t* defaultText;  // String only
};

using NS_Utils::RegKeys::kConfig;
using NS_Utils::RegKeys::kLogging;
using NS_Utils::RegKeys::kWex;

// The log's values count only when present and greater than 0, so 0 is never a value of its own.
inline constexpr Setting kLogLevel{kLogging, L"LogLevel", Type::Dword, 1, 1, 4, nullptr};
inline constexpr Setting kLogFileSize{kLogging, L"LogFileSize", Type::Dword, 1024, 1, 1048576, nullptr};
inline constexpr Setting kLogFileCount{kLogging, L"LogFileCount", Type::Dword, 10, 1, 1000, nullptr};
inline constexpr Setting kLogObfuscationEnabled{kLogging, L"LogObfuscationEnabled", Type::Dword, 0, 0, 1, nullptr};
inline constexpr Setting kLogSyncEnabled{kLogging, L"LogSyncEnabled", Type::Dword, 1, 1, 2, nullptr};
inline constexpr Setting kWindowsEventLogEnabled{kLogging, L"WindowsEventLogEnabled", Type::Dword, 0, 0, 1, nullptr};

inline constexpr Setting kFreeSharedIdWaitTime{kWex, L"FreeSharedIdWaitTime", Type::Dword, 10000, 1000, 3600000, nullptr};
inline constexpr Setting kUseLocalKelSettings{kWex, L"UseLocalKelSettings", Type::Dword, 0, 0, 1, nullptr};
inline constexpr Setting kAuthSvc{kWex, L"AUTH_SVC", Type::String, 0, 0, 0, L""};
inline constexpr Setting kLeaseMonitorDeltaTime{kWex, L"LeaseMonitorDeltaTime", Type::Dword, 3600, 60, 604800, nullptr};
inline constexpr Setting kDefaultLeaseExpiryDuration{kWex, L"DefaultLeaseExpiryDuration", Type::Dword, 28800, 60, 604800, nullptr};
inline constexpr Setting kWaitingTimeToKillProcess{kWex, L"WaitingTimeToKillProcess", Type::Dword, 120, 10, 3600, nullptr};

inline constexpr Setting kInstalledLang{kConfig, L"InstalledLang", Type::String, 0, 0, 0, L"en-us"};

// Every entry above, in the order the templates and the README list them.
std::span<const Setting> AllSettings();

}  // namespace NS_Settings
