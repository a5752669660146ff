#pragma once
// The real Tarrow.exe for the soak program: installed in C:\TarrowSoak with the stand-in agent,
// registered for the user, started, ended by force or asked to stop, and looked at from outside
// (its log, its credential folder, its handles and memory).

#include "common/ComHandles.h"
#include "tests/support/ServiceProcess.h"
#include "tests/support/TestSupport.h"
#include "tools/TarrowClient.h"

#include <string>

namespace soak {

inline constexpr const wchar_t* kInstallFolder = L"C:\\TarrowSoak\\";

// Points the agent's installation folder at kInstallFolder, sets the log level, installs the
// stand-in agent (a fresh journal, every check-in answered 0 after `checkInDelayMs`) and
// registers Tarrow for the user. False, said on stderr, when a step fails.
bool PrepareService(DWORD logLevel, DWORD checkInDelayMs);

// The user's credential folder, with a trailing backslash.
std::wstring CredentialFolder();
// The credential files (names) in it.
std::vector<std::wstring> CredentialFiles();

// Prints each credential file left (name, size, and the start of its text) for a report.
void DescribeCredentialFiles(const char* heading);

// Connects through the running object table and proves the object answers; within `timeoutMs`.
HRESULT ConnectAndProbe(NS_Utils::ComPtr<ITarrow>& tarrow, DWORD timeoutMs);

// Tarrow.exe, started until its object answers a call (see StartAnswering).
using Service = testsupport::ServiceProcess;
// Starts the service and waits (a minute at most) until its object answers a call.
bool StartAnswering(Service& service);

// The service log (UTF-16) of every instance so far.
std::wstring LogText();
// The last lease count that instance `pid` logged, or -1 when it logged none.
long LastLeaseCount(const std::wstring& log, DWORD pid);

// Handles open in process `pid`, from the system's handle table (Wine answers 0 to
// GetProcessHandleCount).
DWORD HandleCount(DWORD pid);
// The process's committed private memory and working set.
struct MemoryFigures {
    SIZE_T committed = 0;
    SIZE_T workingSet = 0;
};
MemoryFigures Memory(HANDLE process);

// The pseudo-random seed when none is given: printed, so that a run can be replayed.
unsigned DefaultSeed();

}  // namespace soak
