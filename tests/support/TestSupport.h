#pragma once
// Files, folders and child processes for tests. Everything here is real: files in the test's own
// prefix, processes started with CreateProcessW and ended by their own handle.

#include "common/WinHandles.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

// A new empty folder under the temporary folder, with a trailing backslash.
std::wstring MakeTempFolder(const std::wstring& hint);
std::vector<std::uint8_t> ReadFileBytes(const std::wstring& path);
std::wstring ReadUtf16File(const std::wstring& path);
bool WriteFileBytes(const std::wstring& path, const void* data, size_t size);
bool FileExists(const std::wstring& path);
// Names (not paths) of the files in `folder` that match `pattern`, sorted.
std::vector<std::wstring> ListFiles(const std::wstring& folder, const std::wstring& pattern);
std::vector<std::wstring> SplitLines(const std::wstring& text, const std::wstring& separator);

class ChildProcess {
public:
    // Starts `program` (a name in the program folder, or a full path) with `arguments`; check Valid().
    static ChildProcess Start(const std::wstring& program, const std::wstring& arguments);
    // tarrow_testchild.exe; see its options there.
    static ChildProcess StartHelper(const std::wstring& arguments) { return Start(L"tarrow_testchild.exe", arguments); }

    ChildProcess() = default;
    ChildProcess(ChildProcess&&) = default;
    ChildProcess& operator=(ChildProcess&&) = default;
    ~ChildProcess() { Kill(); }

    bool Valid() const { return m_process.valid(); }
    DWORD Id() const { return m_id; }
    DWORD MainThreadId() const { return m_threadId; }
    HANDLE Handle() const { return m_process.get(); }
    DWORD Wait(DWORD timeoutMs) const { return ::WaitForSingleObject(m_process.get(), timeoutMs); }
    DWORD ExitCode() const;
    void Kill();

private:
    NS_Utils::UniqueHandle m_process;
    DWORD m_id = 0;
    DWORD m_threadId = 0;
};

// A process that holds credentials until it is ended.
inline ChildProcess StartHolder() { return ChildProcess::StartHelper(L"--sleep 600000"); }

// The service's credential folder under the "appdata" this process passes on.
std::wstring CredentialFolder();

// Polls a condition that the service reaches on threads or processes of its own; false when the
// time ran out.
bool WaitUntil(const std::function<bool()>& condition, DWORD timeoutMs = 30000);

// The service log of this test program (under the prefix's test installation folder).
std::wstring ServiceLogText();
// How many times `text` occurs in the service log so far.
size_t CountInServiceLog(const std::wstring& text);

// Handles of one object type ("Process", "Event") open in this process, or all of them, read
// from the system's handle table: Wine answers 0 to GetProcessHandleCount.
DWORD CountOwnHandles(const std::wstring& typeName = {});
// Handles open in process `pid`, from the same table.
DWORD CountHandles(DWORD pid);

}  // namespace testsupport
