#include "common/EventLog.h"

#include "common/LogSettings.h"

#include "TarrowEvents.h"

#include <string>
#include <vector>

namespace NS_EventLog {

CEventSource::CEventSource() : m_source(::RegisterEventSourceW(nullptr, kSourceName)) {}

void CEventSource::Report(WORD type, DWORD eventId, std::initializer_list<const wchar_t*> strings) const {
    if (!m_source) return;
    std::vector<const wchar_t*> texts(strings);
    ::ReportEventW(m_source.get(), type, 0, eventId, nullptr, static_cast<WORD>(texts.size()), 0, texts.data(),
                   nullptr);
}

void ReportFailure(const std::wstring& text) {
    // Never destroyed, like the log's writer: thread-pool callbacks may still log while the
    // process exits.
    static const CEventSource* source = new CEventSource();
    source->Report(EVENTLOG_ERROR_TYPE, TARROW_EVENT_FAILURE, {text.c_str()});
}

namespace {
std::wstring ProcessIdText() { return std::to_wstring(::GetCurrentProcessId()); }
}  // namespace

CServiceLifetimeEvents::CServiceLifetimeEvents(const wchar_t* version) : m_enabled(NS_Log::ReadLogSettings().eventLog) {
    if (m_enabled)
        CEventSource().Report(EVENTLOG_INFORMATION_TYPE, TARROW_EVENT_STARTED, {ProcessIdText().c_str(), version});
}

CServiceLifetimeEvents::~CServiceLifetimeEvents() {
    if (m_enabled) CEventSource().Report(EVENTLOG_INFORMATION_TYPE, TARROW_EVENT_STOPPED, {ProcessIdText().c_str()});
}

}  // namespace NS_EventLog
