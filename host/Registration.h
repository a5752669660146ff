#pragma once
// The registry entries of the server: its AppID and its class, written under the classes root of
// all users or of the current user, and its type library.

#include <windows.h>

#include <string>

namespace NS_Registration {

// The classes root a registration writes to.
enum class Scope { AllUsers, CurrentUser };

[[nodiscard]] HRESULT RegisterServer(Scope scope);
// Removes what RegisterServer wrote, except the "AppID" key itself.
[[nodiscard]] HRESULT UnregisterServer(Scope scope);

// The type library, which ships beside the executable.
std::wstring TypeLibraryPath();

}  // namespace NS_Registration
