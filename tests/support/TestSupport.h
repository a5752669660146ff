#pragma once
// Files, folders and child processes for tests. Everything here is real: files in the test's own
// prefix, processes started with CreateProcessW and ended by their own handle.

#include "common/WinHandles.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport {

std::wstring ProgramFolder();  // with a trailing backslash
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
    // Starts `program` (a name in the program folder) with `arguments`; check Valid().
    static ChildProcess Start(const std::wstring& program, const std::wstring& arguments);
    // The test helper process (tarrow_testchild.exe).
    static ChildProcess StartHelper(const std::wstring& arguments);

    ChildProcess() = default;
    ChildProcess(ChildProcess&&) = default;
    ChildProcess& operator=(ChildProcess&&) = default;
    ~ChildProcess();  // ends the process if it still runs

    bool Valid() const { return m_process.valid(); }
    DWORD Id() const { return m_id; }
    DWORD MainThreadId() const { return m_threadId; }
    HANDLE Handle() const { return m_process.get(); }
    // WAIT_OBJECT_0 when it has ended within the time.
    DWORD Wait(DWORD timeoutMs) const;
    DWORD ExitCode() const;
    void Kill();

private:
    NS_Utils::UniqueHandle m_process;
    DWORD m_id = 0;
    DWORD m_threadId = 0;
};

}  // namespace testsupport

namespace testsupport {
// Polls a condition that the service reaches on threads or processes of its own; false when the
// time ran out.
bool WaitUntil(const std::function<bool()>& condition, DWORD timeoutMs = 30000);

// The service log of this test program (under the prefix's test installation folder).
std::wstring ServiceLogText();
// How many times `text` occurs in the service log so far.
size_t CountInServiceLog(const std::wstring& text);
}  // namespace testsupport

namespace testsupport {
// Handles open in this process, all of them or those of one object type ("Process", "Event"):
// GetProcessHandleCount where the platform answers it, else the system's handle table (Wine
// answers 0 to the former).
DWORD CountOwnHandles(const std::wstring& typeName = {});
}  // namespace testsupport
