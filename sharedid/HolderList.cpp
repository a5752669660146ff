#include "sharedid/HolderList.h"

#include "common/WinHandles.h"

#include <cstdio>
#include <sstream>

namespace NS_SHAREDID_UTILS {

namespace {
constexpr wchar_t kCredentialExtension[] = L".dat";
constexpr wchar_t kHolderExtension[] = L".holders";
constexpr wchar_t kPendingSuffix[] = L".new";
constexpr DWORD kReadChunkBytes = 64 * 1024;
// The end of a process can cut a write short only between pages.
constexpr size_t kUntornBytes = 4096;

std::string FormatList(const std::vector<HolderProcess>& holders) {
    std::string text;
    for (const HolderProcess& holder : holders)
        text += std::to_string(holder.pid) + " " + std::to_string(holder.created) + "\n";
    return text;
}

std::optional<std::vector<HolderProcess>> ParseList(const std::string& text) {
    std::vector<HolderProcess> holders;
    // Every line the writer makes ends in a line feed: anything else was cut short.
    if (!text.empty() && text.back() != '\n') return std::nullopt;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        // What is left of a longer list that was rewritten in place.
        if (line.find_first_not_of(' ') == std::string::npos) continue;
        HolderProcess holder;
        unsigned long pid = 0;
        unsigned long long created = 0;
        char extra = 0;
        if (std::sscanf(line.c_str(), "%lu %llu %c", &pid, &created, &extra) != 2 || pid == 0) return std::nullopt;
        holder.pid = static_cast<DWORD>(pid);
        holder.created = created;
        holders.push_back(holder);
    }
    return holders;
}

bool WriteAt0(HANDLE file, const std::string& text) {
    OVERLAPPED at0{};
    DWORD written = 0;
    return ::WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, &at0) && written == text.size();
}

bool WriteWhole(const std::wstring& path, const std::string& text) {
    NS_Utils::UniqueHandle file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    return file && WriteAt0(file.get(), text);
}

// Kept open by the instance that answers for the credential; others may read it, and it may be
// deleted by name.
NS_Utils::UniqueHandle OpenList(const std::wstring& path, DWORD disposition) {
    return NS_Utils::UniqueHandle(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                                FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, disposition,
                                                FILE_ATTRIBUTE_NORMAL, nullptr));
}
}  // namespace

std::wstring HolderListPath(const std::wstring& credentialPath) {
    std::wstring stem = credentialPath;
    const size_t extension = std::size(kCredentialExtension) - 1;
    if (stem.size() >= extension && ::_wcsicmp(stem.c_str() + stem.size() - extension, kCredentialExtension) == 0)
        stem.resize(stem.size() - extension);
    return stem + kHolderExtension;
}

std::wstring CredentialPathOfList(const std::wstring& listPath) {
    const size_t at = listPath.rfind(kHolderExtension);
    if (at == std::wstring::npos) return {};
    const std::wstring rest = listPath.substr(at + std::size(kHolderExtension) - 1);
    if (!rest.empty() && rest != kPendingSuffix) return {};
    return listPath.substr(0, at) + kCredentialExtension;
}

bool WriteHolderList(const std::wstring& credentialPath, const std::vector<HolderProcess>& holders) {
    const std::wstring path = HolderListPath(credentialPath);
    const std::wstring pending = path + kPendingSuffix;
    // Renamed, not written in place: a crash mid-write must not leave a list that names fewer holders.
    if (WriteWhole(pending, FormatList(holders)) &&
        ::MoveFileExW(pending.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING))
        return true;
    ::DeleteFileW(pending.c_str());
    return false;
}

NS_Utils::UniqueHandle CreateHolderList(const std::wstring& credentialPath, const std::vector<HolderProcess>& holders,
                                        DWORD& bytes) {
    const std::string text = FormatList(holders);
    NS_Utils::UniqueHandle list = OpenList(HolderListPath(credentialPath), CREATE_ALWAYS);
    if (!list || !WriteAt0(list.get(), text)) return {};
    bytes = static_cast<DWORD>(text.size());
    return list;
}

NS_Utils::UniqueHandle OpenHolderList(const std::wstring& credentialPath, DWORD& bytes) {
    NS_Utils::UniqueHandle list = OpenList(HolderListPath(credentialPath), OPEN_ALWAYS);
    LARGE_INTEGER size{};
    if (!list || !::GetFileSizeEx(list.get(), &size)) return {};
    bytes = static_cast<DWORD>(size.QuadPart);
    return list;
}

bool RewriteHolderList(HANDLE list, const std::vector<HolderProcess>& holders, DWORD& bytes) {
    std::string text = FormatList(holders);
    if (text.size() < bytes) {
        // Blank lines over the rest of the old text, still ending in a line feed.
        text.append(bytes - text.size() - 1, ' ');
        text += '\n';
    }
    if (text.size() > kUntornBytes) return false;
    if (!WriteAt0(list, text)) return false;
    bytes = static_cast<DWORD>(text.size());
    return true;
}

std::optional<std::vector<HolderProcess>> ReadHolderList(const std::wstring& credentialPath) {
    NS_Utils::UniqueHandle file(::CreateFileW(HolderListPath(credentialPath).c_str(), GENERIC_READ,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, 0, nullptr));
    if (!file) return std::nullopt;
    // Read to its end, however long: a list that held thousands of holders (most of them long
    // gone) read only in part would look cut short, and its live holder would lose the credential.
    std::string text;
    for (;;) {
        const size_t at = text.size();
        text.resize(at + kReadChunkBytes);
        DWORD read = 0;
        if (!::ReadFile(file.get(), text.data() + at, kReadChunkBytes, &read, nullptr)) return std::nullopt;
        text.resize(at + read);
        if (read == 0) break;
    }
    return ParseList(text);
}

ULONGLONG ProcessCreationTime(HANDLE process) {
    FILETIME created{}, exited{}, kernel{}, user{};
    if (!process || !::GetProcessTimes(process, &created, &exited, &kernel, &user)) return 0;
    return (ULONGLONG{created.dwHighDateTime} << 32) | created.dwLowDateTime;
}

bool IsStillRunning(const HolderProcess& holder) {
    NS_Utils::UniqueHandle process(::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, holder.pid));
    return holder.created != 0 && process && ::WaitForSingleObject(process.get(), 0) == WAIT_TIMEOUT &&
           ProcessCreationTime(process.get()) == holder.created;
}

}  // namespace NS_SHAREDID_UTILS
