#pragma once
// Tarrow's entries in the Application event log, under the agent's source "Quillon", for
// administrators who collect the event log rather than log files: one stable id for each thing an
// administrator acts on, every level-1 log line (100), and the service's start and stop.
// Switched on by "WindowsEventLogEnabled". Writing an entry never fails or holds up its caller:
// an entry that cannot be written is dropped. Any thread may report, but never under a lock that
// another reporter's caller could need: the switch is read from the registry.

#include "common/WinHandles.h"

#include <windows.h>

#include <initializer_list>
#include <string>

namespace NS_EventLog {

inline constexpr const wchar_t* kSourceName = L"Quillon";
// The resource-only library with the entries' texts, beside Tarrow.exe.
inline constexpr const wchar_t* kMessageLibrary = L"TarrowEvents.dll";
// Below HKEY_LOCAL_MACHINE; written by the registration for all users.
inline constexpr const wchar_t* kSourceKey = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Quillon";

// The ids of eventlog/TarrowEvents.mc (the build checks that they agree), with their insertion
// strings in order. Never renumbered nor reused: administrators' filters and alerts name them.
enum class Event : DWORD {
    Started = 1,                  // information: process id, version
    Stopped = 2,                  // information: process id
    EndedByForce = 3,             // warning, at a start: the earlier run's process id and start time
    Failure = 100,                // error: a level-1 log line
    CheckInFailedFinally = 101,   // error: lease DN, shared account, the agent's result
    HoldersEndedAtExpiry = 102,   // warning: lease DN, the holders as "program (pid)", comma-separated
    LogoffLeftCredentials = 103,  // warning: count of credentials still on disk
    AgentUnreachable = 104,       // error: count of credential files kept
    AgentReachedAgain = 105,      // information: count of credential files taken up again
    HolderCannotBeEnded = 106,    // warning: lease DNs, the holder as "program (pid)", when it was to be ended
};

struct EventSourceTraits {
    using type = HANDLE;
    static HANDLE Invalid() noexcept { return nullptr; }
    static bool IsValid(HANDLE h) noexcept { return h != nullptr; }
    static void Close(HANDLE h) noexcept { ::DeregisterEventSource(h); }
};
using UniqueEventSource = NS_Utils::UniqueResource<EventSourceTraits>;

// Writes `event` with its insertion strings when "WindowsEventLogEnabled" is on; its type
// (error, warning, information) is the id's.
void Report(Event event, std::initializer_list<std::wstring> strings);

// A level-1 log line; the caller has checked that the writer is switched on.
void ReportFailure(const std::wstring& text);

// Reports the start of the service when made and its stop when destroyed, when the writer is on.
// While it lives a marker file of this instance (`instance` names it: one per session and
// desktop) stays in the user's local application data; a start that finds the marker of an
// earlier run reports that run as ended by force (a crash, Task Manager, a stop that had to end
// a thread). The end of the session ends the process without running destructors, so the
// session's end reports the stop and removes the marker first (SessionEnding).
// Threads: made, used and destroyed on the main thread.
class CServiceLifetimeEvents {
public:
    CServiceLifetimeEvents(const wchar_t* version, const std::wstring& instance);
    ~CServiceLifetimeEvents();
    CServiceLifetimeEvents(const CServiceLifetimeEvents&) = delete;
    CServiceLifetimeEvents& operator=(const CServiceLifetimeEvents&) = delete;

    // The session ends: the stop is reported now, once.
    void SessionEnding();

private:
    void ReportStop();

    bool m_enabled;
    bool m_stopReported = false;
    std::wstring m_marker;
};

}  // namespace NS_EventLog
