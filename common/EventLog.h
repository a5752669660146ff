#pragma once
// Tarrow's entries in the Application event log, under the agent's source "Quillon": failures
// (level-1 log lines) and the service's start and stop, for administrators who collect the event
// log rather than log files. Switched on by "WindowsEventLogEnabled". Writing an entry never
// fails or holds up its caller: an entry that cannot be written is dropped.

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

struct EventSourceTraits {
    using type = HANDLE;
    static HANDLE Invalid() noexcept { return nullptr; }
    static bool IsValid(HANDLE h) noexcept { return h != nullptr; }
    static void Close(HANDLE h) noexcept { ::DeregisterEventSource(h); }
};
using UniqueEventSource = NS_Utils::UniqueResource<EventSourceTraits>;

class CEventSource {
public:
    CEventSource();
    // `type` is EVENTLOG_ERROR_TYPE, EVENTLOG_INFORMATION_TYPE, ...; `eventId` one of the message file's.
    void Report(WORD type, DWORD eventId, std::initializer_list<const wchar_t*> strings) const;

private:
    UniqueEventSource m_source;
};

// A level-1 log line; the caller has checked that the writer is switched on.
void ReportFailure(const std::wstring& text);

// Reports the start of the service when made and its stop when destroyed, when the writer is on.
class CServiceLifetimeEvents {
public:
    explicit CServiceLifetimeEvents(const wchar_t* version);
    ~CServiceLifetimeEvents();
    CServiceLifetimeEvents(const CServiceLifetimeEvents&) = delete;
    CServiceLifetimeEvents& operator=(const CServiceLifetimeEvents&) = delete;

private:
    bool m_enabled;
};

}  // namespace NS_EventLog
