#include "sharedid/SharedIdFile.h"

#include "common/Log.h"
#include "common/WinHandles.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <sstream>
#include <string_view>
#include <vector>

namespace NS_SHAREDID_UTILS {

namespace {
constexpr const wchar_t* kWriteTag = L"[NS_SHAREDID_UTILS::writeSharedIdToFile]\t";
constexpr const wchar_t* kReadTag = L"[NS_SHAREDID_UTILS::readSharedIdFromFile]\t";
constexpr size_t kLineUnits = 512;
constexpr LONGLONG kMaxMeaningfulBytes = 11 * kLineUnits * sizeof(wchar_t) + 64;

// Reads lines into a buffer of 512 units: a line of 512 characters or more, or one that the text
// ends before its line feed, is a failed read. Written out rather than left to a wide stream,
// whose end-of-file marker is also a valid character (U+FFFF) on this platform.
class LineReader {
public:
    explicit LineReader(const wchar_t* text) : m_text(text), m_length(std::wcslen(text)) {}

    // A whole line and its line feed, or false with what was read before the failure.
    bool ReadLine(std::wstring& line) {
        size_t end = ScanLine();
        line.assign(m_text + m_at, end - m_at);
        m_at = end;
        if (m_at < m_length && m_text[m_at] == L'\n') {
            ++m_at;
            return true;
        }
        return false;
    }
    // Up to the next line feed or the end of the text, the line feed left unread.
    void ReadToLineEnd(std::wstring& text) {
        size_t end = ScanLine();
        text.assign(m_text + m_at, end - m_at);
        m_at = end;
    }

private:
    static constexpr size_t kMaxLine = kLineUnits - 1;
    size_t ScanLine() const {
        size_t end = m_at;
        while (end < m_length && end - m_at < kMaxLine && m_text[end] != L'\n') ++end;
        return end;
    }

    const wchar_t* m_text;
    size_t m_length;
    size_t m_at = 0;
};

bool Fail(std::list<DWORD>& errors, DWORD step, const std::wstring& message) {
    DWORD error = ::GetLastError();
    errors.push_back(step);
    errors.push_back(error);
    NS_Log::Log(1, message);
    return false;
}

bool FailWithError(std::list<DWORD>& errors, DWORD step, const std::wstring& message) {
    DWORD error = ::GetLastError();
    errors.push_back(step);
    errors.push_back(error);
    NS_Log::Log(1, message + std::to_wstring(error));
    return false;
}
}  // namespace

std::wstring FormatSharedIdText(const CSharedId& record) {
    std::wostringstream out;
    out << record.GetCorvinAuthSvcUrl() << L"\n"
        << record.GetCorvinAuthSrvId() << L"\n"
        << record.GetAuthSvcId() << L"\n"
        << record.GetSharedId() << L"\n"
        << record.GetRoleId() << L"\n"
        << record.GetAuxText4() << L"\n"
        << record.GetLeaseDN() << L"\n"
        << record.GetAuxText1() << L"\n"
        << record.GetLeaseExpiry() << L"\n"
        << record.GetEnterpriseId() << L"\n"
        << record.GetFlag();
    return out.str();
}

bool ParseSharedIdText(const std::wstring& text, CSharedId& record) {
    LineReader in(text.c_str());
    void (CSharedId::*const checked[])(std::wstring) = {
        &CSharedId::SetCorvinAuthSvcUrl, &CSharedId::SetCorvinAuthSrvId, &CSharedId::SetAuthSvcId,
        &CSharedId::SetSharedId,         &CSharedId::SetRoleId,          &CSharedId::SetAuxText4,
        &CSharedId::SetLeaseDN,          &CSharedId::SetAuxText1,        &CSharedId::SetLeaseExpiry};
    for (auto setter : checked) {
        std::wstring line;
        if (!in.ReadLine(line)) return false;
        (record.*setter)(std::move(line));
    }
    // The last two items may be missing: a cut file still gives back its credential.
    std::wstring enterpriseId;
    std::wstring flag;
    if (in.ReadLine(enterpriseId)) in.ReadToLineEnd(flag);
    record.SetEnterpriseId(std::move(enterpriseId));
    record.SetFlag(::_wcsicmp(flag.c_str(), L"false") != 0);
    return true;
}

bool writeSharedIdToFile(const CSharedId& record, const std::wstring& path, std::list<DWORD>& errors,
                         NS_Utils::UniqueHandle* keepOpen) {
    if (!record.IsComplete())
        return Fail(errors, kStepRecord, std::wstring(kWriteTag) + L" SharedId object is not complete.");
    if (record.GetFileName().empty())
        return Fail(errors, kStepRecord, std::wstring(kWriteTag) + L" SharedId object does not has a filename.");
    if (const wchar_t* field = UnfitStoredField(record))
        return Fail(errors, kStepRecord, std::wstring(kWriteTag) + L" The file cannot hold the text of " + field);

    NS_Utils::UniqueHandle file = CreateSharedIdFile(path, errors);
    if (!file || !WriteSharedIdToHandle(record, file.get(), errors)) return false;
    if (keepOpen) *keepOpen = std::move(file);
    return true;
}

NS_Utils::UniqueHandle CreateSharedIdFile(const std::wstring& path, std::list<DWORD>& errors) {
    // Deletion access lets the instance that claims the file delete it through the claim, so
    // that no other instance can take it up between a check-in and its deletion.
    NS_Utils::UniqueHandle file(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW, 0, nullptr));
    if (!file) FailWithError(errors, kStepFile, std::wstring(kWriteTag) + L" CreateFile error. Error = ");
    return file;
}

bool WriteSharedIdToHandle(const CSharedId& record, HANDLE file, std::list<DWORD>& errors) {
    std::wstring text = FormatSharedIdText(record);
    DWORD bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    DWORD written = 0;
    if (!::WriteFile(file, text.data(), bytes, &written, nullptr) || written != bytes)
        return FailWithError(errors, kStepFile, std::wstring(kWriteTag) + L" WriteFile error. Error = ");
    // A registration is answered only once its file would survive a power cut.
    if (!::FlushFileBuffers(file))
        return FailWithError(errors, kStepFile, std::wstring(kWriteTag) + L" FlushFileBuffers error. Error = ");
    return true;
}

bool DeleteThroughHandle(HANDLE file) {
    FILE_DISPOSITION_INFO disposition{TRUE};
    return ::SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof(disposition)) != FALSE;
}

const wchar_t* UnfitStoredField(const CSharedId& record) {
    struct Field {
        const wchar_t* name;
        const std::wstring& (CSharedId::*text)() const;
    };
    // In the file's order: the first nine are read back with a bounded line read.
    static constexpr Field kFields[] = {{L"Corvin Auth Svc Url", &CSharedId::GetCorvinAuthSvcUrl},
                                        {L"Corvin Auth Srv ID", &CSharedId::GetCorvinAuthSrvId},
                                        {L"Auth Svc ID", &CSharedId::GetAuthSvcId},
                                        {L"Shared ID", &CSharedId::GetSharedId},
                                        {L"Role ID", &CSharedId::GetRoleId},
                                        {L"auxText4", &CSharedId::GetAuxText4},
                                        {L"LeaseDN", &CSharedId::GetLeaseDN},
                                        {L"auxText1", &CSharedId::GetAuxText1},
                                        {L"lease expiry", &CSharedId::GetLeaseExpiry},
                                        {L"enterprise id", &CSharedId::GetEnterpriseId}};
    constexpr size_t kBoundedItems = 9;
    for (size_t i = 0; i < std::size(kFields); ++i) {
        const std::wstring& text = (record.*kFields[i].text)();
        if (text.find_first_of(std::wstring_view(L"\n\0", 2)) != std::wstring::npos) return kFields[i].name;
        if (i < kBoundedItems && text.size() >= kLineUnits) return kFields[i].name;
    }
    return nullptr;
}

bool readSharedIdFromFile(CSharedId& record, const std::wstring& path, std::list<DWORD>& errors) {
    NS_Utils::UniqueHandle file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                              OPEN_EXISTING, 0, nullptr));
    if (!file) return FailWithError(errors, kStepFile, L"[::readSharedIdFromFile]\t CreateFile error. Error = ");
    return readSharedIdFromHandle(record, file.get(), errors);
}

bool readSharedIdFromHandle(CSharedId& record, HANDLE file, std::list<DWORD>& errors) {
    LARGE_INTEGER fileSize{};
    if (!::GetFileSizeEx(file, &fileSize) || fileSize.QuadPart == 0)
        return Fail(errors, kStepFile, std::wstring(kReadTag) + L" Invalid file size.");

    // The parser never looks past eleven lines of 512 units, so a larger file is read only that
    // far: the outcome is the same and a huge file cannot exhaust memory.
    DWORD size = static_cast<DWORD>(std::min<LONGLONG>(fileSize.QuadPart, kMaxMeaningfulBytes));
    std::vector<wchar_t> buffer(size / 2 + 2, L'\0');
    DWORD read = 0;
    if (!::ReadFile(file, buffer.data(), size, &read, nullptr) || read < size)
        return FailWithError(errors, kStepRead, std::wstring(kReadTag) + L" ReadFile error. Error = ");
    return ParseSharedIdText(std::wstring(buffer.data()), record);
}

}  // namespace NS_SHAREDID_UTILS
