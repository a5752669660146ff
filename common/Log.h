#pragma once
// The diagnostic log front end. Call sites pass a level (1 failures, 2 recoverable problems,
// 3 progress, 4 detail) and, as a rule, "[Class::Method]\t text". The log's vocabulary, which
// administrators' tools match, keeps a few messages as they have always read: six carry "/t"
// where the rule has the tab (the lease listener's, the lease monitor's look-up of a new holder
// and three of the window's), and two of the unregistration's name the registering operation.

#include <windows.h>

#include <string>
#include <string_view>

namespace NS_Log {

inline constexpr const wchar_t* kComponent = L"brisk_observer";

// Returns -1 when the level filter dropped the message, 0 otherwise. Never fails, never throws
// anything but allocation failure, and leaves the thread's last error as it found it.
int Log(unsigned short level, const std::wstring& text);

// `tag` + `text`: the one helper for call sites that keep their function's tag ("[Class::Method]\t",
// or "[Class::Method" when the pieces begin with "]") apart from the text.
int Log(unsigned short level, std::wstring_view tag, const std::wstring& text);
// Logs as above and gives back `result`: a refusal that is logged and returned in one statement.
template <typename Result>
Result LogAndReturn(unsigned short level, std::wstring_view tag, const std::wstring& text, Result result) {
    (void)Log(level, tag, text);
    return result;
}

// Whether a message of `level` would be written now; for call sites whose text is costly to build.
bool IsEnabled(unsigned short level);

// "2017-03-03 09:05:07.042"
std::wstring FormatTimeStamp(const SYSTEMTIME& time);

// "L:3 <time> P:<pid> T:<tid>[ S:<session>]\t<text>\r\n"; the session item only when it is not 0.
std::wstring FormatLogLine(unsigned short level, const SYSTEMTIME& time, DWORD processId, DWORD threadId,
                           DWORD sessionId, const std::wstring& text);

SYSTEMTIME CurrentLogTime();

// The Windows session of this process, looked up once.
DWORD ProcessSessionId();

// "1a2b" for 0x1A2B: the hexadecimal text that follows "0x" in log lines.
std::wstring Hex(unsigned long value);

}  // namespace NS_Log
