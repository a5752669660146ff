#include "common/ModulePath.h"

#include "common/Settings.h"

#include <iterator>

namespace NS_Utils {

std::wstring ExecutablePath() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        DWORD n = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (n < path.size()) return path.substr(0, n);
        path.resize(path.size() * 2);
    }
}

std::wstring ExecutableFolder() {
    std::wstring path = ExecutablePath();
    size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? L".\\" : path.substr(0, slash + 1);
}

std::wstring FileNameOf(const std::wstring& path) {
    const size_t slash = path.find_last_of(L"\\/");
    return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

std::wstring ProcessImagePath(HANDLE process) {
    wchar_t path[MAX_PATH * 2] = {};
    DWORD size = static_cast<DWORD>(std::size(path));
    return process && ::QueryFullProcessImageNameW(process, 0, path, &size) ? std::wstring(path, size) : std::wstring();
}

std::wstring AgentInstallFolder() {
    std::wstring folder = NS_Settings::ReadText(NS_Settings::kProgramDir).value_or(L"");
    if (folder.empty()) return ExecutableFolder();
    if (folder.back() != L'\\' && folder.back() != L'/') folder += L'\\';
    return folder;
}

}  // namespace NS_Utils
