#include "common/EventLog.h"

#include "common/Log.h"
#include "common/LogSettings.h"

#include "TarrowEvents.h"

#include <string>
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
static_assert(static_cast<DWORD>(Event::HolderCannotBeEnded) == TARROW_EVENT_HOLDER_CANNOT_BE_ENDED);

namespace {
WORD TypeOf(Event event) {
    switch (event) {
    case Event::Failure:
    case Event::CheckInFailedFinally:
    case Event::AgentUnreachable: return EVENTLOG_ERROR_TYPE;
    case Event::EndedByForce:
    case Event::HoldersEndedAtExpiry:
    case Event::LogoffLeftCredentials:
    case Event::HolderCannotBeEnded: return EVENTLOG_WARNING_TYPE;
    case Event::Started:
    case Event::Stopped:
    case Event::AgentReachedAgain: break;
    }
    return EVENTLOG_INFORMATION_TYPE;
}

void Write(Event event, std::initializer_list<std::wstring> strings) {
    // Opened per entry: entries are rare, and a source kept open would outlive the event log
    // service's restarts.
    const UniqueEventSource source(::RegisterEventSourceW(nullptr, kSourceName));
    if (!source) return;
    std::vector<const wchar_t*> texts;
    for (const std::wstring& text : strings) texts.push_back(text.c_str());
    ::ReportEventW(source.get(), TypeOf(event), 0, static_cast<DWORD>(event), nullptr, static_cast<WORD>(texts.size()),
                   0, texts.empty() ? nullptr : texts.data(), nullptr);
}

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

void ReportFailure(const std::wstring& text) { Write(Event::Failure, {text}); }

CServiceLifetimeEvents::CServiceLifetimeEvents(const wchar_t* version, const std::wstring& instance)
    : m_enabled(NS_Log::ReadLogSettings().eventLog) {
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
    if (!m_marker.empty()) WriteMarker(m_marker, ProcessIdText() + L"\t" + LocalTimeText());
    Write(Event::Started, {ProcessIdText(), version});
}

CServiceLifetimeEvents::~CServiceLifetimeEvents() { ReportStop(); }

void CServiceLifetimeEvents::SessionEnding() { ReportStop(); }

void CServiceLifetimeEvents::ReportStop() {
    if (!m_enabled || m_stopReported) return;
    m_stopReported = true;
    if (!m_marker.empty()) ::DeleteFileW(m_marker.c_str());
    Write(Event::Stopped, {ProcessIdText()});
}

}  // namespace NS_EventLog
