#pragma once
// Installs the stand-in for the agent's COM objects into a test's prefix and scripts its answers.
// The stand-in reads the script on every call, so a test can change it while the service runs.

#include <windows.h>

#include <string>
#include <vector>

namespace standin {

// Copies KelRuntime.dll from the program folder into `programDir` (the agent's installation
// folder) and registers KelAgentStandIn.dll where it lies, in the program folder.
bool Install(const std::wstring& programDir);
// Removes the classes, so that the check-in object and the script support are not registered.
bool Unregister();
// Registers them again, where Install left the runtime library (which a process may have loaded).
bool Register();

void SetScript(const wchar_t* name, DWORD value);
// A value with embedded L'\0' separators is written as a list (REG_MULTI_SZ), e.g. ExistingBags.
void SetScript(const wchar_t* name, const std::wstring& value);
void ClearScript();

std::wstring JournalPath();
// The journal's lines (UTF-8) that start with `prefix`, oldest first.
std::vector<std::string> JournalLines(const std::string& prefix = {});
void ClearJournal();

}  // namespace standin
