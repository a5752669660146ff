#include "sharedid/PersistantStorage.h"

#include "common/Log.h"
#include "common/WinHandles.h"
#include "sharedid/SharedIdFile.h"


namespace {
std::wstring AppDataFolder() {
    std::wstring value(MAX_PATH, L'\0');
    for (;;) {
        DWORD n = ::GetEnvironmentVariableW(L"appdata", value.data(), static_cast<DWORD>(value.size()));
        if (n == 0) return {};
        if (n < value.size()) return value.substr(0, n);
        value.resize(n);
    }
}

bool IsEmptyFile(HANDLE file) {
    LARGE_INTEGER size{};
    return ::GetFileSizeEx(file, &size) && size.QuadPart == 0;
}

std::wstring ErrorStack(const std::list<DWORD>& errors) {
    std::wstring text;
    for (DWORD value : errors) text += std::to_wstring(value) + L" ";
    return text;
}
}  // namespace

PersistantStorage::PersistantStorage() {
    std::wstring appData = AppDataFolder();
    if (appData.empty()) return;
    // The separator is always added: a doubled backslash is harmless to every file API.
    std::wstring kel = appData + L"\\" + L"Kel\\";
    m_folder = kel + L"Tarrow\\";
    for (const std::wstring& folder : {kel, m_folder}) {
        if (!::CreateDirectoryW(folder.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS) {
            KeepErrors({NS_SHAREDID_UTILS::kStepFile, ::GetLastError()}, L"PersistantStorage::PersistantStorage");
            break;
        }
    }
}

std::wstring PersistantStorage::NewFileName() {
    SYSTEMTIME t;
    ::GetLocalTime(&t);
    return std::to_wstring(t.wYear) + std::to_wstring(t.wMonth) + std::to_wstring(t.wDay) +
           std::to_wstring(t.wHour) + std::to_wstring(t.wMinute) + std::to_wstring(t.wSecond) +
           std::to_wstring(t.wMilliseconds) + L".dat";
}

int PersistantStorage::Persist(CSharedId& record) {
    if (m_folder.empty()) return kFolderUnknown;
    if (!record.IsComplete()) {
        NS_Log::Log(1, L"[PersistantStorage::Persist]\t CSharedId object information not completed.");
        return kRecordUnfit;
    }
    const std::wstring previous = record.GetFileName();
    std::wstring name;
    std::list<DWORD> errors;
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        name = NextFileName(name);
        errors.clear();
        record.SetFileName(m_folder + name);
        NS_Utils::UniqueHandle file;
        if (NS_SHAREDID_UTILS::writeSharedIdToFile(record, record.GetFileName(), errors, &file)) {
            record.ClaimFile(std::move(file));
            return kOk;
        }
        // Names are the local time without padding: they meet within a millisecond and even
        // across dates. A taken name is never overwritten; a fresh time gives another.
        if (errors.empty() || errors.back() != ERROR_FILE_EXISTS) break;
    }
    // The name may belong to another credential's file: never leave it on this record.
    record.SetFileName(previous);
    KeepErrors(errors, L"PersistantStorage::Persist");
    return kWriteFailed;
}

std::wstring PersistantStorage::NextFileName(const std::wstring& taken) {
    std::wstring name = NewFileName();
    for (int tick = 0; name == taken && tick < kClockWaitMs; ++tick) {
        ::Sleep(1);
        name = NewFileName();
    }
    return name;
}

int PersistantStorage::EnumCreds(std::list<CSharedId>& out) {
    if (m_folder.empty()) return kFolderUnknown;
    WIN32_FIND_DATAW found;
    NS_Utils::UniqueFindHandle search(::FindFirstFileW((m_folder + L"*.dat").c_str(), &found));
    if (!search) {
        if (::GetLastError() == ERROR_FILE_NOT_FOUND) return kOk;
        KeepErrors({NS_SHAREDID_UTILS::kStepFile, ::GetLastError()}, L"PersistantStorage::EnumCreds");
        return kEnumerationFailed;
    }
    do {
        if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
        std::wstring path = m_folder + found.cFileName;
        NS_Utils::UniqueHandle claim = ClaimStoredFile(path);
        if (!claim && ::GetLastError() == ERROR_SHARING_VIOLATION) {
            NS_Log::Log(3, L"[PersistantStorage::EnumCreds]\t Skipping credential file held by another instance: " + path);
            continue;
        }
        // A crash between making a credential's file and writing it leaves it empty: it holds
        // nothing to check in, and left alone it would be skipped as unreadable at every start.
        if (claim && IsEmptyFile(claim.get())) {
            claim.reset();
            NS_Log::Log(2, L"[PersistantStorage::EnumCreds]\t Removing empty credential file " + path);
            ::DeleteFileW(path.c_str());
            continue;
        }
        CSharedId record;
        std::list<DWORD> errors;
        // Read through the claim when there is one; without it the reader's own open reports why.
        const bool read = claim ? NS_SHAREDID_UTILS::readSharedIdFromHandle(record, claim.get(), errors)
                                : NS_SHAREDID_UTILS::readSharedIdFromFile(record, path, errors);
        if (!read) {
            NS_Log::Log(1, L"[PersistantStorage::EnumCreds]\t Skipping unreadable credential file " + path);
            if (!errors.empty()) KeepErrors(errors, L"PersistantStorage::EnumCreds");
            continue;
        }
        record.SetFileName(path);
        if (claim) record.ClaimFile(std::move(claim));
        out.push_back(std::move(record));
    } while (::FindNextFileW(search.get(), &found));
    return kOk;
}

NS_Utils::UniqueHandle PersistantStorage::ClaimStoredFile(const std::wstring& path) {
    // Asking for write access while denying it to others fails with a sharing violation exactly
    // when a live instance keeps the file open for its registered credential.
    return NS_Utils::UniqueHandle(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                                OPEN_EXISTING, 0, nullptr));
}

int PersistantStorage::Delete(const CSharedId& record) {
    if (m_folder.empty()) return kFolderUnknown;
    if (record.GetFileName().empty()) return kRecordUnfit;
    if (!::DeleteFileW(record.GetFileName().c_str())) {
        KeepErrors({NS_SHAREDID_UTILS::kStepFile, ::GetLastError()}, L"PersistantStorage::Delete");
        return kDeleteFailed;
    }
    return kOk;
}

std::list<DWORD> PersistantStorage::Errors() const {
    NS_Utils::CritSecGuard guard(m_errorsLock);
    return m_errors;
}

void PersistantStorage::KeepErrors(const std::list<DWORD>& errors, const wchar_t* operation) {
    NS_Log::Log(1, L"[" + std::wstring(operation) + L"]\t Error stack = " + ErrorStack(errors));
    NS_Utils::CritSecGuard guard(m_errorsLock);
    m_errors.insert(m_errors.end(), errors.begin(), errors.end());
}
