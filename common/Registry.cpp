#include "common/Registry.h"

#include "common/WinHandles.h"

#include <vector>

namespace NS_Utils {

namespace {
bool Succeeded(LSTATUS status) {
    if (status == ERROR_SUCCESS) return true;
    ::SetLastError(static_cast<DWORD>(status));
    return false;
}

LSTATUS OpenForWrite(HKEY root, const wchar_t* subKey, UniqueRegKey& key) {
    return ::RegCreateKeyExW(root, subKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, nullptr, key.put(),
                             nullptr);
}

LSTATUS ReadString(HKEY root, const wchar_t* subKey, const wchar_t* valueName, std::wstring& value) {
    DWORD size = 0;
    LSTATUS status = ::RegGetValueW(root, subKey, valueName, RRF_RT_REG_SZ, nullptr, nullptr, &size);
    if (status != ERROR_SUCCESS) return status;
    // The value may grow between the two calls; retry on ERROR_MORE_DATA.
    for (;;) {
        std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1, L'\0');
        DWORD bytes = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
        status = ::RegGetValueW(root, subKey, valueName, RRF_RT_REG_SZ, nullptr, buffer.data(), &bytes);
        if (status == ERROR_MORE_DATA) {
            size = bytes;
            continue;
        }
        if (status == ERROR_SUCCESS) value.assign(buffer.data());
        return status;
    }
}

LSTATUS WriteValue(HKEY root, const wchar_t* subKey, const wchar_t* valueName, DWORD type, const void* data,
                   size_t bytes) {
    UniqueRegKey key;
    LSTATUS status = OpenForWrite(root, subKey, key);
    if (status != ERROR_SUCCESS) return status;
    return ::RegSetValueExW(key.get(), valueName, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(bytes));
}
}  // namespace

bool ReadRegistryDword(HKEY root, const wchar_t* subKey, const wchar_t* valueName, DWORD& value) {
    DWORD data = 0;
    DWORD size = sizeof(data);
    if (!Succeeded(::RegGetValueW(root, subKey, valueName, RRF_RT_REG_DWORD, nullptr, &data, &size))) return false;
    value = data;
    return true;
}

bool ReadRegistryString(HKEY root, const wchar_t* subKey, const wchar_t* valueName, std::wstring& value) {
    return Succeeded(ReadString(root, subKey, valueName, value));
}

bool WriteRegistryDword(HKEY root, const wchar_t* subKey, const wchar_t* valueName, DWORD value) {
    return Succeeded(WriteValue(root, subKey, valueName, REG_DWORD, &value, sizeof(value)));
}

bool WriteRegistryString(HKEY root, const wchar_t* subKey, const wchar_t* valueName, const std::wstring& value) {
    return Succeeded(WriteValue(root, subKey, valueName, REG_SZ, value.c_str(), (value.size() + 1) * sizeof(wchar_t)));
}

bool CreateRegistryKey(HKEY root, const wchar_t* subKey) {
    UniqueRegKey key;
    return Succeeded(OpenForWrite(root, subKey, key));
}

bool DeleteRegistryValue(HKEY root, const wchar_t* subKey, const wchar_t* valueName) {
    return Succeeded(::RegDeleteKeyValueW(root, subKey, valueName));
}

bool DeleteRegistryKey(HKEY root, const wchar_t* subKey) {
    LSTATUS status = ::RegDeleteTreeW(root, subKey);
    if (status == ERROR_SUCCESS) status = ::RegDeleteKeyW(root, subKey);
    return status == ERROR_FILE_NOT_FOUND || Succeeded(status);
}

HRESULT LastRegistryError() { return HRESULT_FROM_WIN32(::GetLastError()); }

}  // namespace NS_Utils
