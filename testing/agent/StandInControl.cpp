#include "testing/agent/StandInControl.h"

#include "common/ModulePath.h"
#include "common/Registry.h"
#include "common/WinHandles.h"
#include "testing/agent/StandInCom.h"

#include <filesystem>
#include <fstream>

namespace standin {
namespace {

bool CallServer(const char* entry) {
    NS_Utils::UniqueModule server(::LoadLibraryW((NS_Utils::ExecutableFolder() + L"KelAgentStandIn.dll").c_str()));
    FARPROC found = server ? ::GetProcAddress(server.get(), entry) : nullptr;
    // Through a generic function type: a direct cast from FARPROC draws -Wcast-function-type.
    return found && SUCCEEDED(reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(reinterpret_cast<void (*)()>(found))());
}

}  // namespace

DWORD ScriptDword(const wchar_t* name, DWORD fallback) {
    DWORD value = fallback;
    return NS_Utils::ReadRegistryDword(HKEY_LOCAL_MACHINE, kScriptKey, name, value) ? value : fallback;
}

std::wstring ScriptString(const wchar_t* name, const std::wstring& fallback) {
    std::wstring value;
    return NS_Utils::ReadRegistryString(HKEY_LOCAL_MACHINE, kScriptKey, name, value) ? value : fallback;
}

std::vector<std::wstring> ScriptStrings(const wchar_t* name) {
    // Scripts are short; a list that does not fit counts as none.
    wchar_t data[4096] = {};
    DWORD bytes = sizeof(data) - 2 * sizeof(wchar_t);
    std::vector<std::wstring> result;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, kScriptKey, name, RRF_RT_REG_SZ | RRF_RT_REG_MULTI_SZ, nullptr, data,
                       &bytes) == ERROR_SUCCESS)
        for (const wchar_t* p = data; *p; p += result.back().size() + 1) result.emplace_back(p);
    return result;
}

std::wstring JournalPath() { return ScriptString(L"Journal", L"C:\\KelStandIn\\journal.log"); }

void Journal(const std::wstring& line) {
    const std::wstring path = JournalPath();
    NS_Utils::UniqueHandle mutex(::CreateMutexW(nullptr, FALSE, L"KelStandInJournal"));
    if (!mutex) return;
    const auto owned = NS_Utils::MutexOwnership::Acquire(mutex.get(), 10000);
    if (!owned.Owned()) return;
    // Every folder on the way, for paths a test picks as well as the default one.
    for (size_t slash = path.find(L'\\', 3); slash != std::wstring::npos; slash = path.find(L'\\', slash + 1))
        ::CreateDirectoryW(path.substr(0, slash).c_str(), nullptr);
    constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    NS_Utils::UniqueHandle file(
        ::CreateFileW(path.c_str(), FILE_APPEND_DATA, kShare, nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    const std::u8string utf8 = std::filesystem::path(line + L"\n").u8string();
    const std::string text(utf8.begin(), utf8.end());
    DWORD written = 0;
    if (file) ::WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

bool Install(const std::wstring& programDir) {
    std::wstring folder = programDir;
    if (!folder.empty() && folder.back() != L'\\') folder += L'\\';
    ::CreateDirectoryW(folder.c_str(), nullptr);
    const std::wstring source = NS_Utils::ExecutableFolder() + L"KelRuntime.dll";
    return ::CopyFileW(source.c_str(), (folder + L"KelRuntime.dll").c_str(), FALSE) && CallServer("DllRegisterServer");
}

bool Unregister() { return CallServer("DllUnregisterServer"); }

bool Register() { return CallServer("DllRegisterServer"); }

void SetScript(const wchar_t* name, DWORD value) {
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, kScriptKey, name, value);
}

void SetScript(const wchar_t* name, const std::wstring& value) {
    // A list ends in an empty item, so it takes one terminator more.
    const bool list = value.find(L'\0') != std::wstring::npos;
    const std::wstring data = value + std::wstring(list ? 2 : 1, L'\0');
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kScriptKey, name, list ? REG_MULTI_SZ : REG_SZ, data.data(),
                      static_cast<DWORD>(data.size() * sizeof(wchar_t)));
}

void ClearScript() { ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kScriptKey); }

std::vector<std::string> JournalLines(const std::string& prefix) {
    std::ifstream file(std::filesystem::path(JournalPath()), std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(prefix)) lines.push_back(line);
    return lines;
}

// Writers share delete access, so this succeeds even while one of them appends.
void ClearJournal() { ::DeleteFileW(JournalPath().c_str()); }

}  // namespace standin
