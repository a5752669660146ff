#include "common/FailFast.h"

#include "common/Log.h"

#include <windows.h>

#include <cstring>

namespace NS_Utils {

void FailFast(const wchar_t* rule, const std::source_location& where) {
    const char* file = where.file_name();
    NS_Log::Log(1, std::wstring(rule) + L" (" + std::wstring(file, file + std::strlen(file)) + L":" +
                       std::to_wstring(where.line()) + L")");
    ::RaiseFailFastException(nullptr, nullptr, 0);
    constexpr UINT kFailFastStatus = 0xC0000602;  // STATUS_FAIL_FAST_EXCEPTION, as Windows ends it
    ::TerminateProcess(::GetCurrentProcess(), kFailFastStatus);
    for (;;) ::Sleep(INFINITE);  // TerminateProcess returns only once the process is ending
}

}  // namespace NS_Utils
