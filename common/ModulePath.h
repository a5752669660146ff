#pragma once
// Where the running executable lives.

#include <string>

namespace NS_Utils {

// The full path of the executable; empty when it cannot be had.
std::wstring ExecutablePath();
// Its folder, with a trailing backslash; ".\" when it cannot be had.
std::wstring ExecutableFolder();

}  // namespace NS_Utils
