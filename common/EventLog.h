#pragma once
// Tarrow's entries in the Application event log, under its own source "Tarrow", for
// administrators who collect the event log rather than log files: one stable id for each thing an
// administrator acts on, every level-1 log line (100), and the service's start and stop.
// Switched on by "WindowsEventLogEnabled". Writing an entry never fails or holds up its caller:
// an entry that cannot be written is dropped. Any thread may report, but never under a lock that
// another reporter's caller could need: the switch is read from the registry.

#include "common/CriticalSection.h"
#include "common/WinHandles.h"

#include <windows.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace NS_EventLog {

// Tarrow's own: the agent's source has message texts of its own that Tarrow's ids would not match.
inline constexpr const wchar_t* kSourceName = L"Tarrow";
// The resource-only library with the entries' texts, beside Tarrow.exe.
inline constexpr const wchar_t* kMessageLibrary = L"TarrowEvents.dll";
// Below HKEY_LOCAL_MACHINE; written by the registration for all users.
inline constexpr const wchar_t* kSourceKey = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\Tarrow";

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
    CheckInStillRetrying = 106,   // warning: lease DN, shared account, attempts, the last outcome
    HolderCannotBeEnded = 107,    // warning: lease DNs, the holder as "program (pid)", when it was to be ended
    FailuresLeftOut = 120,        // warning: count of failure entries (100) left out, minutes they span
    // The audit trail (monitor/AuditTrail.h), information, also switched by "AuditTrailEnabled".
    // Each begins with the credential's account, role, identity server, its address and lease DN.
    AuditRegistered = 200,           // + expiry, holder's process id, program, user
    AuditTakenOver = 201,            // + the new holder's process id, program, user; count of holders
    AuditReleased = 202,             // + holder's process id, program, user; count of holders left
    AuditHolderExited = 203,         // as 202
    AuditHolderEndedAtExpiry = 204,  // as 202
    AuditHolderEndedAtLogoff = 205,  // as 202
    AuditCheckedIn = 206,            // + the agent's result, seconds held, attempts
    AuditHeldAgain = 207,            // + expiry; the holders as "program (pid)", comma-separated
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

// A level-1 log line, within the budget of CFailureEntryLimit; the caller has checked that the
// writer is switched on.
void ReportFailure(const std::wstring& text);
// An entry of the audit trail; the caller has checked that both switches are on.
void ReportAudit(Event event, const std::vector<std::wstring>& strings);

// Failure entries (100) are few enough to read: at most `budget` in a window of `windowMs`, which
// opens at the first entry after the last window closed. Lines beyond the budget are left out
// and counted (the log file has them all); the first entry admitted after such a window is
// preceded by one entry that gives the count (120).
// Threads: any; the decision is taken under a lock of its own, the entries written outside it.
class CFailureEntryLimit {
public:
    static constexpr unsigned kBudget = 10;
    static constexpr ULONGLONG kWindowMs = 10ULL * 60 * 1000;

    struct Admission {
        bool write = false;           // write this failure's entry
        unsigned long leftOut = 0;    // first, report this many left out (0: nothing to report)
        ULONGLONG leftOutSpanMs = 0;  // from the first left out to this failure
    };

    explicit CFailureEntryLimit(unsigned budget = kBudget, ULONGLONG windowMs = kWindowMs)
        : m_budget(budget), m_windowMs(windowMs) {}
    CFailureEntryLimit(const CFailureEntryLimit&) = delete;
    CFailureEntryLimit& operator=(const CFailureEntryLimit&) = delete;

    // A failure at `nowMs` (a monotonic clock).
    Admission Admit(ULONGLONG nowMs);

private:
    const unsigned m_budget;
    const ULONGLONG m_windowMs;
    NS_Utils::CriticalSection m_lock;
    bool m_windowOpen = false;
    ULONGLONG m_windowStart = 0;
    unsigned m_written = 0;
    unsigned long m_leftOut = 0;
    ULONGLONG m_firstLeftOut = 0;
};

// Reports the start of the service when made and its stop when destroyed, when the writer is on.
// While it lives a marker file of this instance (`instance` names it: one per session and
// desktop) stays in the user's local application data; a start that finds the marker of an
// earlier run reports that run as ended by force (a crash, Task Manager, a stop that had to end
// a thread). The end of the session ends the process without running destructors, so the
// session's end reports the stop and removes the marker first (SessionEnding); a session that
// goes on after all (a cancelled logoff) puts them back as they were (SessionGoesOn), so that
// both stand for the process's real end.
// Threads: made, used and destroyed on the main thread.
class CServiceLifetimeEvents {
public:
    CServiceLifetimeEvents(const wchar_t* version, const std::wstring& instance);
    ~CServiceLifetimeEvents();
    CServiceLifetimeEvents(const CServiceLifetimeEvents&) = delete;
    CServiceLifetimeEvents& operator=(const CServiceLifetimeEvents&) = delete;

    // The session ends: the stop is reported now, once.
    void SessionEnding();
    // The session went on after SessionEnding: the marker is written again and the service
    // reports itself started again.
    void SessionGoesOn();

private:
    void ReportStop();

    bool m_enabled;
    bool m_stopReported = false;
    std::wstring m_version;
    std::wstring m_marker;
    std::wstring m_markerText;  // "<process id>\t<start time>" of this run
};

}  // namespace NS_EventLog
