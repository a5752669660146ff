#include "common/Registry.h"

#include "common/WinHandles.h"

#include <vector>

namespace NS_Utils {

LSTATUS ReadRegistryDword(HKEY root, const wchar_t* subKey, const wchar_t* valueName, DWORD& value) {
    DWORD data = 0;
    DWORD size = sizeof(data);
    LSTATUS status = ::RegGetValueW(root, subKey, valueName, RRF_RT_REG_DWORD, nullptr, &data, &size);
    if (status == ERROR_SUCCESS) value = data;
    return status;
}

LSTATUS ReadRegistryString(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                           std::wstring& value) {
    DWORD size = 0;
    LSTATUS status = ::RegGetValueW(root, subKey, valueName, RRF_RT_REG_SZ,
                                    nullptr, nullptr, &size);
    if (status != ERROR_SUCCESS) return status;
    // The value may grow between the two calls; retry on ERROR_MORE_DATA.
    for (;;) {
        std::vector<wchar_t> buffer(size / sizeof(wchar_t) + 1, L'\0');
        DWORD bytes = static_cast<DWORD>(buffer.size() * sizeof(wchar_t));
        status = ::RegGetValueW(root, subKey, valueName, RRF_RT_REG_SZ,
                                nullptr, buffer.data(), &bytes);
        if (status == ERROR_MORE_DATA) {
            size = bytes;
            continue;
        }
        if (status == ERROR_SUCCESS) value.assign(buffer.data());
        return status;
    }
}

namespace {
LSTATUS OpenForWrite(HKEY root, const wchar_t* subKey, UniqueRegKey& key) {
    return ::RegCreateKeyExW(root, subKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE, nullptr,
                             key.put(), nullptr);
}
}  // namespace

LSTATUS WriteRegistryDword(HKEY root, const wchar_t* subKey, const wchar_t* valueName, DWORD value) {
    UniqueRegKey key;
    LSTATUS status = OpenForWrite(root, subKey, key);
    if (status != ERROR_SUCCESS) return status;
    return ::RegSetValueExW(key.get(), valueName, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                            sizeof(value));
}

LSTATUS WriteRegistryString(HKEY root, const wchar_t* subKey, const wchar_t* valueName,
                            const std::wstring& value) {
    UniqueRegKey key;
    LSTATUS status = OpenForWrite(root, subKey, key);
    if (status != ERROR_SUCCESS) return status;
    return ::RegSetValueExW(key.get(), valueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                            static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

LSTATUS CreateRegistryKey(HKEY root, const wchar_t* subKey) {
    UniqueRegKey key;
    return OpenForWrite(root, subKey, key);
}

LSTATUS DeleteRegistryValue(HKEY root, const wchar_t* subKey, const wchar_t* valueName) {
    return ::RegDeleteKeyValueW(root, subKey, valueName);
}

}  // namespace NS_Utils
