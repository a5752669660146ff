#pragma once
// Where the running executable and the agent it serves live, and the paths of programs.

#include <windows.h>

#include <string>

namespace NS_Utils {

// The full path of the executable; empty when it cannot be had.
std::wstring ExecutablePath();
// Its folder, with a trailing backslash; ".\" when it cannot be had.
std::wstring ExecutableFolder();
// The agent's installation folder ("ProgramDir" under the agent's machine key), with a trailing
// backslash; the executable's folder when none is recorded, so that a copy run beside its files
// finds them.
std::wstring AgentInstallFolder();

// The part of `path` after its last separator.
std::wstring FileNameOf(const std::wstring& path);
// The full path of the program that `process` runs; empty when it cannot be asked.
std::wstring ProcessImagePath(HANDLE process);

}  // namespace NS_Utils
