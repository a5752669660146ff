#pragma once
// Access to values in the registry. The running service only reads (a failed read leaves the
// caller's default); the writers below serve the registration switches and the tests.

#include <windows.h>

#include <string>

namespace NS_Utils {

// Every registry location the service reads. Kept here so that there is one place to change them.
namespace RegKeys {
// The agent's machine-wide key; it also names the installation folder.
inline constexpr const wchar_t* kProduct = L"SOFTWARE\\Orvane\\Kelmar";
// Settings of this service.
inline constexpr const wchar_t* kWex = L"SOFTWARE\\Orvane\\Kelmar\\Wex";
// Settings of the diagnostic log.
inline constexpr const wchar_t* kLogging = L"SOFTWARE\\Orvane\\Kelmar\\Logging";
// The agent's configuration: the language its message libraries are installed in.
inline constexpr const wchar_t* kConfig = L"SOFTWARE\\Orvane\\Kelmar\\Config";
// Where Group Policy writes the same sub-keys, under HKEY_LOCAL_MACHINE and HKEY_CURRENT_USER.
// Windows removes a policy's value here when the policy is switched off, so a value read here
// first never outlives its policy and never overwrites what an administrator set by hand.
inline constexpr const wchar_t* kPolicyWex = L"SOFTWARE\\Policies\\Orvane\\Kelmar\\Wex";
inline constexpr const wchar_t* kPolicyLogging = L"SOFTWARE\\Policies\\Orvane\\Kelmar\\Logging";
inline constexpr const wchar_t* kPolicyConfig = L"SOFTWARE\\Policies\\Orvane\\Kelmar\\Config";
}  // namespace RegKeys

// True and the value; or false with `value` unchanged and the registry's error code as the
// thread's last error, which the log keeps.
[[nodiscard]] bool ReadRegistryDword(HKEY root, const wchar_t* subKey, const wchar_t* valueName, DWORD& value);
[[nodiscard]] bool ReadRegistryString(HKEY root, const wchar_t* subKey, const wchar_t* valueName, std::wstring& value);

// Writers exist for tests and the registration switches; the running service only reads. False
// with the registry's error code as the last error.
bool WriteRegistryDword(HKEY root, const wchar_t* subKey, const wchar_t* valueName, DWORD value);
bool WriteRegistryString(HKEY root, const wchar_t* subKey, const wchar_t* valueName, const std::wstring& value);
// Makes the key (and its parents) when missing.
bool CreateRegistryKey(HKEY root, const wchar_t* subKey);
bool DeleteRegistryValue(HKEY root, const wchar_t* subKey, const wchar_t* valueName);
// Deletes the key with everything under it; true also when it was never there.
bool DeleteRegistryKey(HKEY root, const wchar_t* subKey);
// The last error of a failed call above, as the HRESULT a registration switch answers.
HRESULT LastRegistryError();

}  // namespace NS_Utils
