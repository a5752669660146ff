#pragma once
// The writer behind the log front end: one log file of one component, appended to by every
// process of the machine under a named mutex, rotated when it grows past its limit. A folder that
// the process cannot write (Program Files for a standard user, a file in the folder's place) gives
// way to the fallback folder for the rest of the process's life.

#include "common/CriticalSection.h"
#include "common/LogSettings.h"
#include "common/WinHandles.h"

#include <atomic>
#include <string>

namespace NS_Log {

class CLogWriter {
public:
    // `folder` and `fallback` end in a backslash; the file is `component` + ".log" (or ".enl" when
    // scrambled). An empty `fallback`: lines that cannot be written in `folder` are dropped.
    CLogWriter(std::wstring folder, std::wstring component, std::wstring fallback = {});
    CLogWriter(const CLogWriter&) = delete;
    CLogWriter& operator=(const CLogWriter&) = delete;

    // Drops the message (returning -1) when its level is above the configured one; otherwise
    // formats and appends it and returns 0. Never fails its caller.
    int Log(unsigned short level, const std::wstring& text);

    // The folder the file is written in now.
    const std::wstring& Folder() const noexcept { return m_onFallback ? m_fallback : m_folder; }

    LogSettings CurrentSettings() const;

private:
    void RefreshSettingsIfDue();
    void Append(const std::wstring& line, const LogSettings& settings);
    // Waits for the file's mutex, but only until a wait has timed out; from then on each line
    // only tries it, and is dropped and counted, until the mutex is obtained again.
    [[nodiscard]] NS_Utils::MutexOwnership AcquireMutex(HANDLE mutex);
    // On the debugger output: how many lines were dropped since the mutex was last obtained.
    void ReportDroppedLines();
    NS_Utils::UniqueHandle OpenForAppend(const std::wstring& folder, const std::wstring& path) const;
    // The file in the folder in use, or in the fallback when the folder in use cannot be written;
    // `notice` gets the line that says so.
    NS_Utils::UniqueHandle OpenLogFile(const LogSettings& settings, std::wstring& path, std::wstring& notice);
    void AppendLocked(const std::wstring& line, const LogSettings& settings);
    void Rotate(const std::wstring& path, const LogSettings& settings);
    void PruneRotated(const LogSettings& settings);
    std::wstring FilePath(const std::wstring& folder, bool scrambled) const;

    const std::wstring m_folder;
    const std::wstring m_component;
    const std::wstring m_fallback;
    // Set once, by the writer that found the folder unwritable; never cleared.
    std::atomic<bool> m_onFallback{false};
    NS_Utils::UniqueHandle m_plainMutex;
    NS_Utils::UniqueHandle m_scrambledMutex;
    std::atomic<unsigned long> m_writeCount{0};
    std::atomic<bool> m_mutexTimedOut{false};
    std::atomic<unsigned long> m_droppedLines{0};
    mutable NS_Utils::CriticalSection m_settingsLock;
    LogSettings m_settings;
};

}  // namespace NS_Log
