#pragma once
// Settings of one log file, re-read while the service runs.

#include <windows.h>

#include <string>

namespace NS_Log {

struct LogSettings {
    DWORD level = 1;           // "LogLevel": messages above it are dropped
    DWORD fileSizeKiB = 1024;  // "LogFileSize": rotate once the file is larger
    bool scrambled = false;    // "LogObfuscationEnabled": ".enl" files with scrambled content
    DWORD fileCount = 10;      // "LogFileCount": rotated files kept
    DWORD sync = 1;            // "LogSyncEnabled": 2 or more also flushes every line to disk
};

// The defaults overridden by every value of the logging key that is present and greater than 0.
LogSettings ReadLogSettings();

// The installation folder + "\logs\"; the executable's own folder stands in for an agent that
// has no installation folder recorded. Always ends in a backslash.
std::wstring DefaultLogFolder();

}  // namespace NS_Log
