#pragma once
// One file per registered credential in "%APPDATA%\Kel\Tarrow\", so that a crash of a client, of
// the service or of the machine never loses a credential that was not checked in.
//
// Threads: Persist and WriteHolders under the record's list lock (CListWrites), for a held record
// on the COM thread and wait callbacks (Persist also under the registry lock, and both while
// files are taken up: the owner's thread at start, the worker when the agent is back);
// EnumCreds, TakeUpBusyFiles, FilesWithHolderLists and ReadHolders where files are taken up;
// Delete and LeaveOnDisk on the worker (Delete also under the registry lock when files are taken
// up and one credential has two); StoredFiles on the COM thread for the status; HasBusyFiles on
// any thread. The folder's path is fixed at construction; each file belongs to one record, which
// only one thread touches at a time; the error list, the files reported and the files in use
// have a lock of their own.

#include "common/CriticalSection.h"
#include "common/WinHandles.h"
#include "sharedid/HolderList.h"
#include "sharedid/SharedId.h"

#include <list>
#include <optional>
#include <set>
#include <string>
#include <vector>

class PersistantStorage {
public:
    enum Result : int {
        kOk = 0,
        kRecordUnfit = 2,    // incomplete, or without a file name
        kFolderUnknown = 4,  // "appdata" could not be read
        kWriteFailed = 16,   // the file could not be created or written
        kEnumerationFailed = 17,
        kDeleteFailed = 18,
    };

    // Finds the folder and creates it when missing (a registration makes it again if it goes).
    PersistantStorage();

    // Writes the record to a new file named after the local time, points its m_fileName at it
    // and keeps the file (and its holder list) open in the record (its claim). A name that is taken is made anew from
    // a later time, a few times. With `holders`, their list is written beside the file before
    // the record's text. The text is on the disk when this returns kOk (the list only in the
    // system cache, see HolderList.h); only then is a file that the record had before deleted
    // (through its claim). On failure (the list included, when `holders` are given) nothing new
    // is left on the disk and the record keeps the file and the claim it had. A folder that has
    // gone is made again first.
    [[nodiscard]] int Persist(CSharedId& record, const std::vector<HolderProcess>* holders = nullptr);
    // Replaces the holder list beside the record's file, in place through the record's claim;
    // false when it could not be written.
    [[nodiscard]] bool WriteHolders(CSharedId& record, const std::vector<HolderProcess>& holders);
    // The holder list beside the record's file; nothing when there is none.
    std::optional<std::vector<HolderProcess>> ReadHolders(const CSharedId& record) const;
    // The paths of the credential files that have a holder list beside them, from one listing of
    // the folder: cheaper at start than asking for each file's list.
    std::set<std::wstring> FilesWithHolderLists() const;
    // Every credential file that can be read, with m_fileName set and the file claimed. A file
    // that cannot be read or claimed (read-only, access denied) is skipped and left where it is
    // for an administrator to look at, logged the first time this storage meets it; a file that
    // another live instance holds open for a credential it answers for (its claim is marked) is
    // skipped too. A file that another program has open without that mark is in use for a while
    // only: it is kept among the files in use, for TakeUpBusyFiles.
    [[nodiscard]] int EnumCreds(std::list<CSharedId>& out);
    // The files in use met so far, tried again: those that can be claimed now are added to `out`
    // as by EnumCreds, those a live instance has marked since are left to it.
    void TakeUpBusyFiles(std::list<CSharedId>& out);
    bool HasBusyFiles() const;
    // For a credential let go while the agent cannot be reached: makes sure its file is on the
    // disk for a later take-up, then lets go of the claim. A record whose file is gone (or was
    // never written) is written anew without a holder list; false when that fails too, and the
    // credential then lives in memory only.
    [[nodiscard]] bool LeaveOnDisk(CSharedId& record);
    // Deletes the record's file and its holder list. Through the record's claim when it holds
    // one (the claim is released then), so that no instance starting meanwhile can take the
    // file up; by name otherwise. A file that cannot be deleted keeps its list.
    [[nodiscard]] int Delete(CSharedId& record);
    // The credential files in the folder whose names are not in `known`, read without disturbing
    // anyone's claim (so another live instance's files are among them); a file that cannot be
    // read gives only its name.
    std::vector<CSharedId> StoredFiles(const std::set<std::wstring>& known) const;

    const std::wstring& Folder() const { return m_folder; }
    std::list<DWORD> Errors() const;
    // The name of a file made now: the local time to the millisecond, without padding.
    static std::wstring NewFileName();

private:
    void KeepErrors(const std::list<DWORD>& errors, const wchar_t* operation);
    // True the first time a file left for an administrator is met: each take-up meets it again.
    bool FirstReport(const std::wstring& path);
    // A name made from the local time that differs from `taken`, waiting for the clock if needed.
    static std::wstring NextFileName(const std::wstring& taken);
    static NS_Utils::UniqueHandle ClaimStoredFile(const std::wstring& path);
    // Makes a new file under a fresh name for the record (m_fileName set to it); empty on failure.
    NS_Utils::UniqueHandle CreateNamedFile(CSharedId& record, std::list<DWORD>& errors);
    // Creates the folder and its parent where missing; false, kept with the errors, when a file
    // stands in the way or they cannot be made.
    bool MakeFolder(const wchar_t* operation);
    // The record now claims `file`, marked as a live instance's.
    static void Claim(CSharedId& record, NS_Utils::UniqueHandle file);
    void TakeUpFile(const std::wstring& path, std::list<CSharedId>& out);
    void SetBusy(const std::wstring& path, bool busy);
    [[nodiscard]] int DeleteFiles(const std::wstring& path, CFileClaim claim);
    static void LogListFailure(const CSharedId& record);
    // Holder lists left without their credential file (a crash between deleting the two).
    void RemoveOrphanHolderLists();
    // The paths of the files in the folder that match `pattern`, folders left out.
    std::vector<std::wstring> FilePaths(const wchar_t* pattern) const;

    static constexpr int kNameAttempts = 5;
    static constexpr int kClockWaitMs = 100;

    std::wstring m_folder;  // empty when unknown
    mutable NS_Utils::CriticalSection m_errorsLock;
    std::list<DWORD> m_errors;
    std::set<std::wstring> m_reported;  // under m_errorsLock
    std::set<std::wstring> m_busy;      // under m_errorsLock: open in another program, not claimed
};
