#include "tests/support/TestSupport.h"

#include "common/ModulePath.h"

#include <winternl.h>

#include <algorithm>
#include <atomic>

namespace testsupport {

std::wstring MakeTempFolder(const std::wstring& hint) {
    static std::atomic<unsigned> counter{0};
    wchar_t temp[MAX_PATH + 1];
    ::GetTempPathW(MAX_PATH + 1, temp);
    std::wstring folder;
    do
        folder = std::wstring(temp) + L"tarrow-" + hint + L"-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                 std::to_wstring(counter++) + L"\\";
    while (!::CreateDirectoryW(folder.c_str(), nullptr) && ::GetLastError() == ERROR_ALREADY_EXISTS);
    return folder;
}

std::vector<std::uint8_t> ReadFileBytes(const std::wstring& path) {
    NS_Utils::UniqueHandle file(::CreateFileW(path.c_str(), GENERIC_READ,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, 0, nullptr));
    std::vector<std::uint8_t> bytes(file ? ::GetFileSize(file.get(), nullptr) : 0);
    DWORD read = 0;
    if (!bytes.empty()) ::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr);
    bytes.resize(read);
    return bytes;
}

std::wstring ReadUtf16File(const std::wstring& path) {
    std::vector<std::uint8_t> bytes = ReadFileBytes(path);
    return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / sizeof(wchar_t));
}

bool WriteFileBytes(const std::wstring& path, const void* data, size_t size) {
    NS_Utils::UniqueHandle file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    return file && ::WriteFile(file.get(), data, static_cast<DWORD>(size), &written, nullptr) && written == size;
}

bool FileExists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

std::vector<std::wstring> ListFiles(const std::wstring& folder, const std::wstring& pattern) {
    std::vector<std::wstring> names;
    WIN32_FIND_DATAW found;
    NS_Utils::UniqueFindHandle search(::FindFirstFileW((folder + pattern).c_str(), &found));
    if (!search) return names;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.emplace_back(found.cFileName);
    } while (::FindNextFileW(search.get(), &found));
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::wstring> SplitLines(const std::wstring& text, const std::wstring& separator) {
    std::vector<std::wstring> lines;
    size_t start = 0;
    for (size_t end; (end = text.find(separator, start)) != std::wstring::npos; start = end + separator.size())
        lines.push_back(text.substr(start, end - start));
    if (start < text.size()) lines.push_back(text.substr(start));
    return lines;
}

ChildProcess ChildProcess::Start(const std::wstring& program, const std::wstring& arguments) {
    const bool absolute = program.find(L'\\') != std::wstring::npos;
    std::wstring path = absolute ? program : NS_Utils::ExecutableFolder() + program,
                 commandLine = L"\"" + path + L"\" " + arguments;
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info{};
    ChildProcess child;
    // A loaded machine occasionally refuses a process start; a few tries keep that out of the
    // results of tests that need hundreds of processes.
    for (int attempt = 0; attempt < 5 && !child.Valid(); ++attempt)
        if (::CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                             &info)) {
            ::CloseHandle(info.hThread);
            child.m_process.reset(info.hProcess);
            child.m_id = info.dwProcessId;
            child.m_threadId = info.dwThreadId;
        } else {
            ::Sleep(50);
        }
    return child;
}

DWORD ChildProcess::ExitCode() const {
    DWORD code = 0;
    ::GetExitCodeProcess(m_process.get(), &code);
    return code;
}

void ChildProcess::Kill() {
    if (m_process && Wait(0) == WAIT_TIMEOUT && ::TerminateProcess(m_process.get(), 1)) Wait(5000);
}

std::wstring CredentialFolder() {
    wchar_t appData[MAX_PATH] = {};
    ::GetEnvironmentVariableW(L"appdata", appData, MAX_PATH);
    return std::wstring(appData) + L"\\Kel\\Tarrow\\";
}

bool WaitUntil(const std::function<bool()>& condition, DWORD timeoutMs) {
    for (ULONGLONG deadline = ::GetTickCount64() + timeoutMs; !condition(); ::Sleep(5))
        if (::GetTickCount64() > deadline) return false;
    return true;
}

std::wstring ServiceLogText() { return ReadUtf16File(L"C:\\TarrowTestInstall\\logs\\brisk_observer.log"); }

size_t CountInServiceLog(const std::wstring& text) {
    std::wstring log = ServiceLogText();
    size_t count = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::wstring::npos; at += text.size()) ++count;
    return count;
}

namespace {
struct SystemHandleEntry {
    ULONG ownerPid;
    BYTE objectType;
    BYTE flags;
    USHORT handleValue;
    PVOID object;
    ULONG access;
};
struct SystemHandleInformation {
    ULONG count;
    SystemHandleEntry handles[1];
};

std::wstring HandleTypeName(HANDLE handle) {
    std::vector<std::uint8_t> buffer(1024);
    if (::NtQueryObject(handle, ObjectTypeInformation, buffer.data(), static_cast<ULONG>(buffer.size()), nullptr) != 0)
        return {};
    const UNICODE_STRING& name = reinterpret_cast<const PUBLIC_OBJECT_TYPE_INFORMATION*>(buffer.data())->TypeName;
    return std::wstring(name.Buffer, name.Length / sizeof(wchar_t));
}

// Every entry of the system's handle table that `keep` accepts.
DWORD CountHandleEntries(const std::function<bool(const SystemHandleEntry&)>& keep) {
    constexpr auto kSystemHandleInformation = static_cast<SYSTEM_INFORMATION_CLASS>(16);
    constexpr auto kInfoLengthMismatch = static_cast<NTSTATUS>(0xC0000004);
    std::vector<std::uint8_t> buffer(1 << 16);
    NTSTATUS status;
    ULONG needed = 0;
    while ((status = ::NtQuerySystemInformation(kSystemHandleInformation, buffer.data(),
                                                static_cast<ULONG>(buffer.size()), &needed)) == kInfoLengthMismatch)
        buffer.resize(std::max<size_t>(buffer.size() * 2, needed + 4096));
    if (status != 0) return 0;
    auto* info = reinterpret_cast<const SystemHandleInformation*>(buffer.data());
    return static_cast<DWORD>(std::count_if(info->handles, info->handles + info->count, keep));
}
}  // namespace

DWORD CountOwnHandles(const std::wstring& typeName) {
    return CountHandleEntries([&](const SystemHandleEntry& e) {
        return e.ownerPid == ::GetCurrentProcessId() &&
               (typeName.empty() ||
                HandleTypeName(reinterpret_cast<HANDLE>(static_cast<ULONG_PTR>(e.handleValue))) == typeName);
    });
}

DWORD CountHandles(DWORD pid) {
    return CountHandleEntries([pid](const SystemHandleEntry& e) { return e.ownerPid == pid; });
}

}  // namespace testsupport
