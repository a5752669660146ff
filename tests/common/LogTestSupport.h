#pragma once
// Registry set-up shared by the log tests: every test starts from the default settings.

#include "common/Registry.h"

#include <initializer_list>
#include <utility>

namespace testsupport {

inline void ResetLogSettings(std::initializer_list<std::pair<const wchar_t*, DWORD>> values = {}) {
    for (const wchar_t* name :
         {L"LogLevel", L"LogFileSize", L"LogObfuscationEnabled", L"LogFileCount", L"LogSyncEnabled"})
        NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, name);
    for (const auto& [name, value] : values)
        NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, name, value);
}

}  // namespace testsupport
