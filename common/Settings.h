#pragma once
// The one table of the registry values the service reads: key, value, type, default and the
// range an administrator may set. The Group Policy templates and the README's table list the
// administered values; a test holds the three together.

#include "common/Registry.h"

#include <windows.h>

#include <optional>
#include <span>
#include <string>

namespace NS_Settings {

enum class Type { Dword, String };
// What a stored number counts as, by the part of the design that reads it.
enum class Counts {
    AboveZero,  // only a value greater than 0; 0 stands for the default (the log's values)
    Unsigned,   // whatever is stored, 0 included
    Signed,     // the DWORD taken as a signed number, 0 and negative values as they stand
};

struct Setting {
    const wchar_t* key;  // below HKEY_LOCAL_MACHINE
    const wchar_t* valueName;
    Type type;
    DWORD defaultNumber;  // Dword only
    DWORD minimum;        // Dword only: what the templates let an administrator set
    DWORD maximum;        // Dword only
    const wchar_t* defaultText;  // String only
    Counts counts = Counts::Unsigned;  // Dword only
    // False for a value that the agent's installer writes: read like the others, but no setting
    // an administrator is offered in the templates or the README's table.
    bool administered = true;
};

// The one reader of the table. A number that is present as a REG_DWORD and counts by its row's
// rule; nothing when it is missing, of another type, or 0 for an AboveZero value.
// With `opened`, the value is read under that open key (the row's key, opened once by a caller
// that reads several values often).
std::optional<long long> ReadNumber(const Setting& setting, HKEY opened = nullptr);
// A text present as a REG_SZ; nothing otherwise.
std::optional<std::wstring> ReadText(const Setting& setting);
// ReadNumber, or the row's default.
long long NumberOrDefault(const Setting& setting);

using NS_Utils::RegKeys::kConfig;
using NS_Utils::RegKeys::kLogging;
using NS_Utils::RegKeys::kWex;

// The log's values count only when present and greater than 0, so 0 is never a value of its own.
inline constexpr Setting kLogLevel{kLogging, L"LogLevel", Type::Dword, 1, 1, 4, nullptr, Counts::AboveZero};
inline constexpr Setting kLogFileSize{kLogging, L"LogFileSize", Type::Dword, 1024, 1, 1048576, nullptr, Counts::AboveZero};
inline constexpr Setting kLogFileCount{kLogging, L"LogFileCount", Type::Dword, 10, 1, 1000, nullptr, Counts::AboveZero};
inline constexpr Setting kLogObfuscationEnabled{kLogging, L"LogObfuscationEnabled", Type::Dword, 0, 0, 1, nullptr, Counts::AboveZero};
inline constexpr Setting kLogSyncEnabled{kLogging, L"LogSyncEnabled", Type::Dword, 1, 1, 2, nullptr, Counts::AboveZero};
inline constexpr Setting kWindowsEventLogEnabled{kLogging, L"WindowsEventLogEnabled", Type::Dword, 0, 0, 1, nullptr, Counts::AboveZero};

inline constexpr Setting kFreeSharedIdWaitTime{kWex, L"FreeSharedIdWaitTime", Type::Dword, 10000, 1000, 3600000, nullptr};
inline constexpr Setting kUseLocalKelSettings{kWex, L"UseLocalKelSettings", Type::Dword, 0, 0, 1, nullptr};
inline constexpr Setting kAuthSvc{kWex, L"AUTH_SVC", Type::String, 0, 0, 0, L""};
inline constexpr Setting kLeaseMonitorDeltaTime{kWex, L"LeaseMonitorDeltaTime", Type::Dword, 3600, 60, 604800, nullptr, Counts::Signed};
inline constexpr Setting kDefaultLeaseExpiryDuration{kWex, L"DefaultLeaseExpiryDuration", Type::Dword, 28800, 60, 604800, nullptr, Counts::Signed};
inline constexpr Setting kWaitingTimeToKillProcess{kWex, L"WaitingTimeToKillProcess", Type::Dword, 120, 10, 3600, nullptr};

inline constexpr Setting kInstalledLang{kConfig, L"InstalledLang", Type::String, 0, 0, 0, L"en-us"};
// The agent's installation folder, which holds the log folder and the message libraries.
inline constexpr Setting kProgramDir{NS_Utils::RegKeys::kProduct, L"ProgramDir", Type::String, 0, 0, 0, L"",
                                     Counts::Unsigned, false};

// Every entry above; the administered ones in the order the templates and the README list them.
std::span<const Setting> AllSettings();

}  // namespace NS_Settings
