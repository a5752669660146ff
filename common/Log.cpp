#include "common/Log.h"

#include "common/WinHandles.h"

#include "common/EventLog.h"
#include "common/LogWriter.h"

#include <atomic>
#include <cstdio>

namespace NS_Log {

namespace {
CLogWriter& DefaultWriter() {
    // Never destroyed: thread-pool callbacks may still log while the process exits.
    static CLogWriter* writer = new CLogWriter(DefaultLogFolder(), kComponent, UserLogFolder());
    return *writer;
}

std::atomic<DWORD> g_sessionId{0xFFFFFFFF};
}  // namespace

int Log(unsigned short level, const std::wstring& text) {
    // Callers log a failure and then report its error: the log never changes the last error.
    const DWORD lastError = ::GetLastError();
    auto restore = NS_Utils::MakeScopeExit([lastError] { ::SetLastError(lastError); });
    int result = DefaultWriter().Log(level, text);
    // After the writer has let its mutex go: the event log is never reached under the log's lock.
    if (level == 1 && DefaultWriter().CurrentSettings().eventLog) NS_EventLog::ReportFailure(text);
    return result;
}

int Log(unsigned short level, std::wstring_view tag, const std::wstring& text) {
    std::wstring line;
    line.reserve(tag.size() + text.size());
    line.append(tag).append(text);
    return Log(level, line);
}

bool IsEnabled(unsigned short level) { return level <= DefaultWriter().CurrentSettings().level; }

std::wstring FormatTimeStamp(const SYSTEMTIME& t) {
    wchar_t text[32];
    std::swprintf(text, 32, L"%04u-%02u-%02u %02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                  t.wSecond, t.wMilliseconds);
    return text;
}

std::wstring FormatLogLine(unsigned short level, const SYSTEMTIME& time, DWORD processId, DWORD threadId,
                           DWORD sessionId, const std::wstring& text) {
    std::wstring line = L"L:" + std::to_wstring(level) + L" " + FormatTimeStamp(time) + L" P:" +
                        std::to_wstring(processId) + L" T:" + std::to_wstring(threadId);
    if (sessionId != 0) line += L" S:" + std::to_wstring(sessionId);
    line += L'\t';
    line += text;
    line += L"\r\n";
    return line;
}

SYSTEMTIME CurrentLogTime() {
    SYSTEMTIME time;
    ::GetLocalTime(&time);
    return time;
}

DWORD ProcessSessionId() {
    DWORD cached = g_sessionId.load();
    if (cached != 0xFFFFFFFF) return cached;
    DWORD session = 0;
    if (!::ProcessIdToSessionId(::GetCurrentProcessId(), &session)) session = 0;
    g_sessionId.store(session);
    return session;
}

std::wstring Hex(unsigned long value) {
    wchar_t text[16];
    std::swprintf(text, 16, L"%lx", value);
    return text;
}

}  // namespace NS_Log
