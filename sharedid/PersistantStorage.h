#pragma once
// One file per registered credential in "%APPDATA%\Kel\Tarrow\", so that a crash of a client, of
// the service or of the machine never loses a credential that was not checked in.

#include "common/CriticalSection.h"
#include "sharedid/SharedId.h"

#include <list>
#include <string>

class PersistantStorage {
public:
    enum Result : int {
        kOk = 0,
        kRecordUnfit = 2,       // incomplete, or without a file name
        kFolderUnknown = 4,     // "appdata" could not be read
        kWriteFailed = 16,      // the file could not be created or written
        kEnumerationFailed = 17,
        kDeleteFailed = 18,
    };

    // Finds the folder and creates it when missing.
    PersistantStorage();

    // Writes the record to a new file named after the local time and points its m_fileName at
    // it. On failure the record keeps the file name it had.
    int Persist(CSharedId& record);
    // Every credential file that can be read, with m_fileName set. A file that cannot be read is
    // logged, skipped and left where it is for an administrator to look at.
    int EnumCreds(std::list<CSharedId>& out);
    int Delete(const CSharedId& record);

    const std::wstring& Folder() const { return m_folder; }
    std::list<DWORD> Errors() const;

private:
    void KeepErrors(const std::list<DWORD>& errors, const wchar_t* operation);
    static std::wstring NewFileName();

    std::wstring m_folder;  // empty when unknown
    mutable NS_Utils::CriticalSection m_errorsLock;
    std::list<DWORD> m_errors;
};
