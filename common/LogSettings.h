#pragma once
// Settings of one log file, re-read while the service runs.

#include "common/Settings.h"

#include <windows.h>

#include <string>

namespace NS_Log {

struct LogSettings {
    DWORD level = NS_Settings::kLogLevel.defaultNumber;                       // messages above it are dropped
    DWORD fileSizeKiB = NS_Settings::kLogFileSize.defaultNumber;              // rotate once the file is larger
    bool scrambled = NS_Settings::kLogObfuscationEnabled.defaultNumber != 0;  // ".enl" files, scrambled
    DWORD fileCount = NS_Settings::kLogFileCount.defaultNumber;               // rotated files kept
    DWORD sync = NS_Settings::kLogSyncEnabled.defaultNumber;                  // 2 or more also flushes every line
    bool eventLog = NS_Settings::kWindowsEventLogEnabled.defaultNumber != 0;  // failures also to the event log
    bool auditTrail = NS_Settings::kAuditTrailEnabled.defaultNumber != 0;     // and the holders' audit trail
};

// The defaults overridden by every value of the logging key that is present and greater than 0
// (the audit trail's switch: present at all).
LogSettings ReadLogSettings();

// The installation folder + "\logs\"; the executable's own folder stands in for an agent that
// has no installation folder recorded. Always ends in a backslash.
std::wstring DefaultLogFolder();

// "%LOCALAPPDATA%\Kel\Tarrow\logs\": where the log goes when the installation's folder cannot be
// written (Tarrow for all users under Program Files, with no agent's folder recorded). Empty when
// the user has no local application data.
std::wstring UserLogFolder();

}  // namespace NS_Log
