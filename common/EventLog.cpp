#include "common/EventLog.h"

#include "common/Log.h"
#include "common/LogSettings.h"

#include "TarrowEvents.h"

#include <string>
#include <utility>
#include <vector>

namespace NS_EventLog {

static_assert(static_cast<DWORD>(Event::Started) == TARROW_EVENT_STARTED);
static_assert(static_cast<DWORD>(Event::Stopped) == TARROW_EVENT_STOPPED);
static_assert(static_cast<DWORD>(Event::EndedByForce) == TARROW_EVENT_ENDED_BY_FORCE);
static_assert(static_cast<DWORD>(Event::Failure) == TARROW_EVENT_FAILURE);
static_assert(static_cast<DWORD>(Event::CheckInFailedFinally) == TARROW_EVENT_CHECKIN_FAILED_FINALLY);
static_assert(static_cast<DWORD>(Event::HoldersEndedAtExpiry) == TARROW_EVENT_HOLDERS_ENDED_AT_EXPIRY);
static_assert(static_cast<DWORD>(Event::LogoffLeftCredentials) == TARROW_EVENT_LOGOFF_LEFT_CREDENTIALS);
static_assert(static_cast<DWORD>(Event::AgentUnreachable) == TARROW_EVENT_AGENT_UNREACHABLE);
static_assert(static_cast<DWORD>(Event::AgentReachedAgain) == TARROW_EVENT_AGENT_REACHED_AGAIN);
static_assert(static_cast<DWORD>(Event::CheckInStillRetrying) == TARROW_EVENT_CHECKIN_STILL_RETRYING);
static_assert(static_cast<DWORD>(Event::FailuresLeftOut) == TARROW_EVENT_FAILURES_LEFT_OUT);
static_assert(static_cast<DWORD>(Event::AuditRegistered) == TARROW_AUDIT_REGISTERED);
static_assert(static_cast<DWORD>(Event::AuditTakenOver) == TARROW_AUDIT_TAKEN_OVER);
static_assert(static_cast<DWORD>(Event::AuditReleased) == TARROW_AUDIT_RELEASED);
static_assert(static_cast<DWORD>(Event::AuditHolderExited) == TARROW_AUDIT_HOLDER_EXITED);
static_assert(static_cast<DWORD>(Event::AuditHolderEndedAtExpiry) == TARROW_AUDIT_HOLDER_ENDED_AT_EXPIRY);
static_assert(static_cast<DWORD>(Event::AuditHolderEndedAtLogoff) == TARROW_AUDIT_HOLDER_ENDED_AT_LOGOFF);
static_assert(static_cast<DWORD>(Event::AuditCheckedIn) == TARROW_AUDIT_CHECKED_IN);
static_assert(static_cast<DWORD>(Event::AuditHeldAgain) == TARROW_AUDIT_HELD_AGAIN);
static_assert(static_cast<DWORD>(Event::HolderCannotBeEnded) == TARROW_EVENT_HOLDER_CANNOT_BE_ENDED);

namespace {
WORD TypeOf(Event event) {
    switch (event) {
    case Event::Failure:
    case Event::CheckInFailedFinally:
    case Event::AgentUnreachable: return EVENTLOG_ERROR_TYPE;
    case Event::EndedByForce:
    case Event::FailuresLeftOut:
    case Event::HoldersEndedAtExpiry:
    case Event::LogoffLeftCredentials:
    case Event::CheckInStillRetrying:
    case Event::HolderCannotBeEnded: return EVENTLOG_WARNING_TYPE;
    case Event::Started:
    case Event::Stopped:
    case Event::AgentReachedAgain:
    case Event::AuditRegistered:
    case Event::AuditTakenOver:
    case Event::AuditReleased:
    case Event::AuditHolderExited:
    case Event::AuditHolderEndedAtExpiry:
    case Event::AuditHolderEndedAtLogoff:
    case Event::AuditCheckedIn:
    case Event::AuditHeldAgain: break;
    }
    return EVENTLOG_INFORMATION_TYPE;
}

template <typename Texts>
void WriteTexts(Event event, const Texts& strings) {
    // Opened per entry: entries are rare, and a source kept open would outlive the event log
    // service's restarts.
    const UniqueEventSource source(::RegisterEventSourceW(nullptr, kSourceName));
    if (!source) return;
    std::vector<const wchar_t*> texts;
    texts.reserve(strings.size());
    for (const std::wstring& text : strings) texts.push_back(text.c_str());
    ::ReportEventW(source.get(), TypeOf(event), 0, static_cast<DWORD>(event), nullptr, static_cast<WORD>(texts.size()),
                   0, texts.empty() ? nullptr : texts.data(), nullptr);
}

void Write(Event event, std::initializer_list<std::wstring> strings) { WriteTexts(event, strings); }

std::wstring ProcessIdText() { return std::to_wstring(::GetCurrentProcessId()); }

std::wstring LocalTimeText() {
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    return NS_Log::FormatTimeStamp(now);
}

// %LOCALAPPDATA%\Kel\Tarrow\, made when missing; empty when there is no such folder.
std::wstring MarkerFolder() {
    wchar_t local[MAX_PATH] = {};
    const DWORD length = ::GetEnvironmentVariableW(L"LOCALAPPDATA", local, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) return {};
    std::wstring folder = std::wstring(local) + L"\\Kel\\";
    ::CreateDirectoryW(folder.c_str(), nullptr);
    folder += L"Tarrow\\";
    ::CreateDirectoryW(folder.c_str(), nullptr);
    return folder;
}

std::wstring ReadMarker(const std::wstring& path) {
    NS_Utils::UniqueHandle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return {};
    wchar_t text[128] = {};
    DWORD read = 0;
    if (!::ReadFile(file.get(), text, sizeof(text) - sizeof(wchar_t), &read, nullptr)) return {};
    return std::wstring(text, read / sizeof(wchar_t));
}

void WriteMarker(const std::wstring& path, const std::wstring& text) {
    NS_Utils::UniqueHandle file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    const DWORD bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (file) (void)::WriteFile(file.get(), text.data(), bytes, &written, nullptr);
}
}  // namespace

void Report(Event event, std::initializer_list<std::wstring> strings) {
    if (NS_Log::ReadLogSettings().eventLog) Write(event, strings);
}

CFailureEntryLimit::Admission CFailureEntryLimit::Admit(ULONGLONG nowMs) {
    NS_Utils::CritSecGuard guard(m_lock);
    Admission admission;
    if (m_windowOpen && nowMs - m_windowStart >= m_windowMs) m_windowOpen = false;
    if (!m_windowOpen) {
        m_windowOpen = true;
        m_windowStart = nowMs;
        m_written = 0;
        admission.leftOut = std::exchange(m_leftOut, 0);
        if (admission.leftOut != 0) admission.leftOutSpanMs = nowMs - m_firstLeftOut;
    }
    if (m_written < m_budget) {
        ++m_written;
        admission.write = true;
    } else if (m_leftOut++ == 0) {
        m_firstLeftOut = nowMs;
    }
    return admission;
}

void ReportFailure(const std::wstring& text) {
    // Process-wide and never destroyed: thread-pool callbacks may still log while the process exits.
    static CFailureEntryLimit* const limit = new CFailureEntryLimit();
    const CFailureEntryLimit::Admission admission = limit->Admit(::GetTickCount64());
    if (admission.leftOut != 0)
        Write(Event::FailuresLeftOut,
              {std::to_wstring(admission.leftOut), std::to_wstring((admission.leftOutSpanMs + 59999) / 60000)});
    if (admission.write) Write(Event::Failure, {text});
}

void ReportAudit(Event event, const std::vector<std::wstring>& strings) { WriteTexts(event, strings); }

CServiceLifetimeEvents::CServiceLifetimeEvents(const wchar_t* version, const std::wstring& instance)
    : m_enabled(NS_Log::ReadLogSettings().eventLog),
      m_version(version),
      m_markerText(ProcessIdText() + L"\t" + LocalTimeText()) {
    DWORD session = 0;
    ::ProcessIdToSessionId(::GetCurrentProcessId(), &session);
    const std::wstring folder = MarkerFolder();
    if (!folder.empty()) m_marker = folder + instance + L"-S" + std::to_wstring(session) + L".running";
    // The marker holds "<process id>\t<start time>", the earlier run's two insertion strings. One
    // left from a run while the writer was on is gone after this start, reported or not, so that
    // it never stands for a later run.
    const std::wstring earlier = m_marker.empty() ? std::wstring() : ReadMarker(m_marker);
    const size_t tab = earlier.find(L'\t');
    if (!m_enabled) {
        if (!earlier.empty()) ::DeleteFileW(m_marker.c_str());
        m_marker.clear();
        return;
    }
    if (tab != std::wstring::npos) Write(Event::EndedByForce, {earlier.substr(0, tab), earlier.substr(tab + 1)});
    if (!m_marker.empty()) WriteMarker(m_marker, m_markerText);
    Write(Event::Started, {ProcessIdText(), version});
}

CServiceLifetimeEvents::~CServiceLifetimeEvents() { ReportStop(); }

void CServiceLifetimeEvents::SessionEnding() { ReportStop(); }

void CServiceLifetimeEvents::SessionGoesOn() {
    if (!m_enabled || !m_stopReported) return;
    m_stopReported = false;
    if (!m_marker.empty()) WriteMarker(m_marker, m_markerText);
    Write(Event::Started, {ProcessIdText(), m_version});
}

void CServiceLifetimeEvents::ReportStop() {
    if (!m_enabled || m_stopReported) return;
    m_stopReported = true;
    if (!m_marker.empty()) ::DeleteFileW(m_marker.c_str());
    Write(Event::Stopped, {ProcessIdText()});
}

}  // namespace NS_EventLog
