#include "sharedid/PersistantStorage.h"

#include "common/Log.h"
#include "common/WinHandles.h"
#include "sharedid/ClaimMark.h"
#include "sharedid/SharedIdFile.h"

#include <utility>


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

bool IsReadOnly(HANDLE file) {
    FILE_BASIC_INFO info{};
    return ::GetFileInformationByHandleEx(file, FileBasicInfo, &info, sizeof(info)) &&
           (info.FileAttributes & FILE_ATTRIBUTE_READONLY);
}

// The start of a credential file's text, as far as its reader ever looks.
std::wstring ReadText(HANDLE file) {
    std::wstring text(std::size_t{6} * 1024, L'\0');
    DWORD read = 0;
    if (!::ReadFile(file, text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &read, nullptr)) return {};
    text.resize(read / sizeof(wchar_t));
    return text;
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
    m_folder = appData + L"\\" + L"Kel\\" + L"Tarrow\\";
    (void)MakeFolder(L"PersistantStorage::PersistantStorage");  // a failure is kept; a registration tries again
}

bool PersistantStorage::MakeFolder(const wchar_t* operation) {
    const std::wstring kel = m_folder.substr(0, m_folder.size() - std::size(L"Tarrow\\") + 1);
    for (const std::wstring& folder : {kel, m_folder}) {
        if (::CreateDirectoryW(folder.c_str(), nullptr)) continue;
        DWORD error = ::GetLastError();
        // A file of that name is no folder: nothing can be written under it.
        if (error == ERROR_ALREADY_EXISTS) {
            const DWORD attributes = ::GetFileAttributesW(folder.c_str());
            if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) continue;
            error = ERROR_DIRECTORY;
        }
        KeepErrors({NS_SHAREDID_UTILS::kStepFile, error}, operation);
        return false;
    }
    return true;
}

std::wstring PersistantStorage::NewFileName() {
    SYSTEMTIME t;
    ::GetLocalTime(&t);
    return std::to_wstring(t.wYear) + std::to_wstring(t.wMonth) + std::to_wstring(t.wDay) + std::to_wstring(t.wHour) +
           std::to_wstring(t.wMinute) + std::to_wstring(t.wSecond) + std::to_wstring(t.wMilliseconds) + L".dat";
}

int PersistantStorage::Persist(CSharedId& record, const std::vector<HolderProcess>* holders) {
    if (m_folder.empty()) return kFolderUnknown;
    if (!record.IsComplete()) {
        NS_Log::Log(1, L"[PersistantStorage::Persist]\t CSharedId object information not completed.");
        return kRecordUnfit;
    }
    if (const wchar_t* field = NS_SHAREDID_UTILS::UnfitStoredField(record)) {
        NS_Log::Log(1, L"[PersistantStorage::Persist]\t The file cannot hold the text of " + std::wstring(field));
        return kRecordUnfit;
    }
    const std::wstring previous = record.GetFileName();
    std::list<DWORD> errors;
    NS_Utils::UniqueHandle file = CreateNamedFile(record, errors);
    // The list first: a crash before the record's text leaves an empty file, which the next start
    // removes with its list, never a credential file without the holders it had.
    // A list that cannot be written is logged; the credential is kept all the same.
    // A credential whose list cannot be written would be checked in under its holders after a
    // crash: it is not stored either.
    NS_Utils::UniqueHandle list;
    DWORD listBytes = 0;
    if (file && holders) {
        list = NS_SHAREDID_UTILS::CreateHolderList(record.GetFileName(), *holders, listBytes);
        if (!list) {
            errors.push_back(NS_SHAREDID_UTILS::kStepFile);
            errors.push_back(::GetLastError());
            LogListFailure(record);
        }
    }
    if (!file || (holders && !list) || !NS_SHAREDID_UTILS::WriteSharedIdToHandle(record, file.get(), errors)) {
        // A partly written file would be unreadable for good, and the name may be another's.
        list.reset();
        if (file)
            (void)DeleteFiles(record.GetFileName(), CFileClaim(std::move(file)));  // its failure joins the errors kept
        record.SetFileName(previous);
        KeepErrors(errors, L"PersistantStorage::Persist");
        return kWriteFailed;
    }
    CFileClaim earlier = record.TakeFileClaim();
    Claim(record, std::move(file));
    record.FileClaim().KeepHolders(std::move(list), listBytes);
    // Only now that the new file is on the disk: a credential registered again is written anew,
    // and its earlier file would otherwise be found at the next start and checked in twice.
    // A failure is kept with the errors; the registration stands on the new file.
    if (!previous.empty() && previous != record.GetFileName()) (void)DeleteFiles(previous, std::move(earlier));
    return kOk;
}

NS_Utils::UniqueHandle PersistantStorage::CreateNamedFile(CSharedId& record, std::list<DWORD>& errors) {
    std::wstring name;
    bool folderMade = false;
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        name = NextFileName(name);
        errors.clear();
        record.SetFileName(m_folder + name);
        NS_Utils::UniqueHandle file = NS_SHAREDID_UTILS::CreateSharedIdFile(record.GetFileName(), errors);
        if (file) return file;
        const DWORD error = errors.empty() ? 0 : errors.back();
        // The folder went after the start (a clean-up tool, a profile reset): made again, once.
        if (error == ERROR_PATH_NOT_FOUND && !std::exchange(folderMade, true)) {
            NS_Log::Log(
                2, L"[PersistantStorage::Persist]\t The credential folder is missing; making it again: " + m_folder);
            if (!MakeFolder(L"PersistantStorage::Persist")) break;
            --attempt;
            continue;
        }
        // Names are the local time without padding: they meet within a millisecond and even
        // across dates. A taken name is never overwritten; a fresh time gives another.
        if (error != ERROR_FILE_EXISTS) break;
    }
    return {};
}

void PersistantStorage::Claim(CSharedId& record, NS_Utils::UniqueHandle file) {
    record.ClaimFile(std::move(file));
    record.FileClaim().KeepMark(NS_SHAREDID_UTILS::MarkClaim(record.GetFileName()));
}

bool PersistantStorage::LeaveOnDisk(CSharedId& record) {
    if (record.HoldsFileClaim() && ::GetFileAttributesW(record.GetFileName().c_str()) != INVALID_FILE_ATTRIBUTES) {
        record.ReleaseFileClaim();
        return true;
    }
    // Its file is gone (or was never written): written anew, without a holder list, so that the
    // next take-up checks it in. Never by the old name, which may be another's by now.
    record.ReleaseFileClaim();
    record.SetFileName({});
    if (Persist(record) != kOk) return false;
    NS_Log::Log(2, L"[PersistantStorage::LeaveOnDisk]\t A credential without its file was written anew: " +
                       record.GetFileName());
    record.ReleaseFileClaim();
    return true;
}

bool PersistantStorage::WriteHolders(CSharedId& record, const std::vector<HolderProcess>& holders) {
    CFileClaim& claim = record.FileClaim();
    DWORD bytes = claim.HoldersBytes();
    // A file taken up has no open list yet.
    if (!claim.HoldersHandle()) {
        NS_Utils::UniqueHandle list = NS_SHAREDID_UTILS::OpenHolderList(record.GetFileName(), bytes);
        claim.KeepHolders(std::move(list), bytes);
    }
    if (claim.HoldersHandle() && NS_SHAREDID_UTILS::RewriteHolderList(claim.HoldersHandle(), holders, bytes)) {
        claim.SetHoldersBytes(bytes);
        return true;
    }
    // A list that outgrew a page (or could not be opened) is replaced whole.
    claim.KeepHolders({}, 0);
    if (NS_SHAREDID_UTILS::WriteHolderList(record.GetFileName(), holders)) {
        NS_Utils::UniqueHandle list = NS_SHAREDID_UTILS::OpenHolderList(record.GetFileName(), bytes);
        claim.KeepHolders(std::move(list), bytes);
        return true;
    }
    // The credential is kept all the same; a restart would check it in rather than hold it.
    LogListFailure(record);
    return false;
}

void PersistantStorage::LogListFailure(const CSharedId& record) {
    NS_Log::Log(1, L"[PersistantStorage::WriteHolders]\t Cannot write the holder list of " + record.GetFileName() +
                       L". Error = " + std::to_wstring(::GetLastError()));
}

std::optional<std::vector<HolderProcess>> PersistantStorage::ReadHolders(const CSharedId& record) const {
    return NS_SHAREDID_UTILS::ReadHolderList(record.GetFileName());
}

std::set<std::wstring> PersistantStorage::FilesWithHolderLists() const {
    std::set<std::wstring> paths;
    for (const std::wstring& list : FilePaths(L"*.holders"))
        if (std::wstring credential = NS_SHAREDID_UTILS::CredentialPathOfList(list); !credential.empty())
            paths.insert(std::move(credential));
    return paths;
}

std::vector<std::wstring> PersistantStorage::FilePaths(const wchar_t* pattern) const {
    std::vector<std::wstring> paths;
    if (m_folder.empty()) return paths;
    WIN32_FIND_DATAW found;
    NS_Utils::UniqueFindHandle search(::FindFirstFileW((m_folder + pattern).c_str(), &found));
    if (!search) return paths;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) paths.push_back(m_folder + found.cFileName);
    } while (::FindNextFileW(search.get(), &found));
    return paths;
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
        if (::GetLastError() == ERROR_FILE_NOT_FOUND) {
            RemoveOrphanHolderLists();
            return kOk;
        }
        KeepErrors({NS_SHAREDID_UTILS::kStepFile, ::GetLastError()}, L"PersistantStorage::EnumCreds");
        return kEnumerationFailed;
    }
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) TakeUpFile(m_folder + found.cFileName, out);
    } while (::FindNextFileW(search.get(), &found));
    search.reset();
    RemoveOrphanHolderLists();
    return kOk;
}

void PersistantStorage::TakeUpBusyFiles(std::list<CSharedId>& out) {
    std::set<std::wstring> busy;
    {
        NS_Utils::CritSecGuard guard(m_errorsLock);
        busy = m_busy;
    }
    for (const std::wstring& path : busy) TakeUpFile(path, out);
}

bool PersistantStorage::HasBusyFiles() const {
    NS_Utils::CritSecGuard guard(m_errorsLock);
    return !m_busy.empty();
}

void PersistantStorage::SetBusy(const std::wstring& path, bool busy) {
    NS_Utils::CritSecGuard guard(m_errorsLock);
    if (busy)
        m_busy.insert(path);
    else
        m_busy.erase(path);
}

void PersistantStorage::TakeUpFile(const std::wstring& path, std::list<CSharedId>& out) {
    NS_Utils::UniqueHandle claim = ClaimStoredFile(path);
    // Windows refuses to open a read-only file for writing; an administrator's account need
    // not be refused, but the file could not be deleted after its check-in either.
    if (claim && IsReadOnly(claim.get())) {
        claim.reset();
        ::SetLastError(ERROR_ACCESS_DENIED);
    }
    if (!claim) {
        const DWORD error = ::GetLastError();
        if (error == ERROR_SHARING_VIOLATION) {
            // A live instance marks what it claims. Anything else that has the file open (a
            // scanner, a backup, an editor) has it for a while only: tried again until taken up.
            const bool live = NS_SHAREDID_UTILS::IsClaimMarked(path);
            SetBusy(path, !live);
            if (live)
                NS_Log::Log(
                    3, L"[PersistantStorage::EnumCreds]\t Skipping credential file held by another instance: " + path);
            else if (FirstReport(path + L" (in use)"))
                NS_Log::Log(2,
                            L"[PersistantStorage::EnumCreds]\t Credential file in use by another program, tried "
                            L"again later: " +
                                path);
            return;
        }
        SetBusy(path, false);
        // Read-only, or denied to this user: taken up without a claim, it would be checked in
        // again at every take-up and could never be deleted.
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND && FirstReport(path))
            NS_Log::Log(1, L"[PersistantStorage::EnumCreds]\t Leaving credential file that cannot be claimed (error " +
                               std::to_wstring(error) + L"): " + path);
        return;
    }
    SetBusy(path, false);
    // A crash between making a credential's file and writing it leaves it empty: it holds
    // nothing to check in, and left alone it would be skipped as unreadable at every start.
    if (IsEmptyFile(claim.get())) {
        NS_Log::Log(2, L"[PersistantStorage::EnumCreds]\t Removing empty credential file " + path);
        (void)DeleteFiles(path, CFileClaim(std::move(claim)));  // a failure is kept; the next start tries again
        return;
    }
    CSharedId record;
    std::list<DWORD> errors;
    if (!NS_SHAREDID_UTILS::readSharedIdFromHandle(record, claim.get(), errors)) {
        if (FirstReport(path)) {
            NS_Log::Log(1, L"[PersistantStorage::EnumCreds]\t Skipping unreadable credential file " + path);
            if (!errors.empty()) KeepErrors(errors, L"PersistantStorage::EnumCreds");
        }
        return;
    }
    record.SetFileName(path);
    Claim(record, std::move(claim));
    out.push_back(std::move(record));
}

NS_Utils::UniqueHandle PersistantStorage::ClaimStoredFile(const std::wstring& path) {
    // Asking for write access while denying it to others fails with a sharing violation exactly
    // when a live instance keeps the file open for its registered credential.
    return NS_Utils::UniqueHandle(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE | DELETE, FILE_SHARE_READ,
                                                nullptr, OPEN_EXISTING, 0, nullptr));
}

int PersistantStorage::Delete(CSharedId& record) {
    if (m_folder.empty()) return kFolderUnknown;
    if (record.GetFileName().empty()) return kRecordUnfit;
    return DeleteFiles(record.GetFileName(), record.TakeFileClaim());
}

int PersistantStorage::DeleteFiles(const std::wstring& path, CFileClaim claim) {
    const bool deleted = claim.Held() ? NS_SHAREDID_UTILS::DeleteThroughHandle(claim.Handle())
                                      : ::DeleteFileW(path.c_str());
    const DWORD error = ::GetLastError();
    const bool mayHaveList = claim.MayHaveList();
    // The file goes as the claim closes. Its list after it: a list left alone is removed at the
    // next start, a credential file left without its list would be checked in under its holders.
    claim.Release();
    if (!deleted) {
        // The file stays (read-only, or open elsewhere), so its list stays with it.
        KeepErrors({NS_SHAREDID_UTILS::kStepFile, error}, L"PersistantStorage::Delete");
        return kDeleteFailed;
    }
    if (mayHaveList) ::DeleteFileW(NS_SHAREDID_UTILS::HolderListPath(path).c_str());
    return kOk;
}

void PersistantStorage::RemoveOrphanHolderLists() {
    // A live instance makes the credential file before its list, so a list alone is a leftover.
    for (const std::wstring& list : FilePaths(L"*.holders*")) {
        const std::wstring credential = NS_SHAREDID_UTILS::CredentialPathOfList(list);
        if (!credential.empty() && ::GetFileAttributesW(credential.c_str()) == INVALID_FILE_ATTRIBUTES)
            ::DeleteFileW(list.c_str());
    }
}

std::vector<CSharedId> PersistantStorage::StoredFiles(const std::set<std::wstring>& known) const {
    std::vector<CSharedId> files;
    for (const std::wstring& path : FilePaths(L"*.dat")) {
        if (known.count(path.substr(m_folder.size()))) continue;
        CSharedId record;
        NS_Utils::UniqueHandle file(::CreateFileW(path.c_str(), GENERIC_READ,
                                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                  OPEN_EXISTING, 0, nullptr));
        // A file that cannot be read is listed all the same, with whatever could be read.
        if (file) (void)NS_SHAREDID_UTILS::ParseSharedIdText(ReadText(file.get()), record);
        record.SetFileName(path);
        files.push_back(std::move(record));
    }
    return files;
}

bool PersistantStorage::FirstReport(const std::wstring& path) {
    NS_Utils::CritSecGuard guard(m_errorsLock);
    return m_reported.insert(path).second;
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
