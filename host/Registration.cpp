#include "host/Registration.h"

#include "common/ComHandles.h"
#include "common/ModulePath.h"
#include "common/Registry.h"
#include "common/WinHandles.h"

#include <oleauto.h>

#include <string>
#include <vector>

// oleaut32 exports these; the SDK headers of this toolchain do not declare them.
extern "C" HRESULT WINAPI RegisterTypeLibForUser(ITypeLib* library, OLECHAR* path, OLECHAR* helpDir);
extern "C" HRESULT WINAPI UnRegisterTypeLibForUser(REFGUID libId, WORD major, WORD minor, LCID lcid, SYSKIND kind);

namespace NS_Registration {

namespace {
constexpr const wchar_t* kAppId = L"{17349E01-5B00-4800-A3D1-1AE3E1574B5D}";
constexpr const wchar_t* kClsid = L"{3ADD7A24-A617-4FF3-8E48-0D3B85DF4619}";
constexpr const wchar_t* kTypeLib = L"{B6A57EE2-3022-44AA-9E24-04C8632479F1}";
constexpr GUID kLibId = {0xB6A57EE2, 0x3022, 0x44AA, {0x9E, 0x24, 0x04, 0xC8, 0x63, 0x24, 0x79, 0xF1}};
constexpr const wchar_t* kClassName = L"Tarrow Class";
constexpr const wchar_t* kProgId = L"Tarrow.Tarrow.1";
constexpr const wchar_t* kVersionIndependentProgId = L"Tarrow.Tarrow";

struct Entry {
    std::wstring key;          // below the classes root
    const wchar_t* valueName;  // nullptr: the key's default value
    std::wstring text;         // written when `isDword` is false; an empty text with no value name makes only the key
    bool isDword = false;
    DWORD number = 0;
};

const std::wstring kClassKey = std::wstring(L"CLSID\\") + kClsid;

std::vector<Entry> Entries() {
    const std::wstring appIdKey = std::wstring(L"AppID\\") + kAppId;
    return {
        {appIdKey, nullptr, L"Tarrow"},
        {appIdKey, L"ROTFlags", L"", true, 1},
        {L"AppID\\Tarrow.EXE", L"AppID", kAppId},
        {kProgId, nullptr, kClassName},
        {std::wstring(kProgId) + L"\\CLSID", nullptr, kClsid},
        {kVersionIndependentProgId, nullptr, kClassName},
        {std::wstring(kVersionIndependentProgId) + L"\\CLSID", nullptr, kClsid},
        {std::wstring(kVersionIndependentProgId) + L"\\CurVer", nullptr, kProgId},
        {kClassKey, nullptr, kClassName},
        {kClassKey + L"\\ProgID", nullptr, kProgId},
        {kClassKey + L"\\VersionIndependentProgID", nullptr, kVersionIndependentProgId},
        {kClassKey + L"\\Programmable", nullptr, L""},
        {kClassKey + L"\\LocalServer32", nullptr, NS_Utils::ExecutablePath()},
        {kClassKey + L"\\TypeLib", nullptr, kTypeLib},
    };
}

// Removed on unregistration; the "AppID" key that holds the first two stays.
std::vector<std::wstring> OwnedKeys() {
    return {std::wstring(L"AppID\\") + kAppId, L"AppID\\Tarrow.EXE", kProgId, kVersionIndependentProgId, kClassKey};
}

// The scope's classes key, opened into `owner`; the registry's answer as an HRESULT.
HRESULT OpenClassesRoot(Scope scope, NS_Utils::UniqueRegKey& owner) {
    HKEY base = scope == Scope::AllUsers ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
    const LSTATUS status = ::RegCreateKeyExW(base, L"Software\\Classes", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                             owner.put(), nullptr);
    return HRESULT_FROM_WIN32(status);
}

bool Write(HKEY root, const Entry& entry) {
    const wchar_t* key = entry.key.c_str();
    if (entry.isDword) return NS_Utils::WriteRegistryDword(root, key, entry.valueName, entry.number);
    if (entry.valueName == nullptr && entry.text.empty()) return NS_Utils::CreateRegistryKey(root, key);
    return NS_Utils::WriteRegistryString(root, key, entry.valueName, entry.text);
}

HRESULT RegisterTypeLibrary(Scope scope) {
    std::wstring path = TypeLibraryPath();
    NS_Utils::ComPtr<ITypeLib> library;
    HRESULT hr = ::LoadTypeLibEx(path.c_str(), REGKIND_NONE, library.put());
    if (FAILED(hr)) return hr;
    return scope == Scope::AllUsers ? ::RegisterTypeLib(library.get(), path.data(), nullptr)
                                    : ::RegisterTypeLibForUser(library.get(), path.data(), nullptr);
}

HRESULT UnregisterTypeLibrary(Scope scope) {
    NS_Utils::UniqueRegKey registered;
    if (::RegOpenKeyExW(HKEY_CLASSES_ROOT, (std::wstring(L"TypeLib\\") + kTypeLib).c_str(), 0, KEY_READ,
                        registered.put()) != ERROR_SUCCESS)
        return S_OK;
    HRESULT hr = scope == Scope::AllUsers ? ::UnRegisterTypeLib(kLibId, 1, 0, LOCALE_NEUTRAL, SYS_WIN64)
                                          : ::UnRegisterTypeLibForUser(kLibId, 1, 0, LOCALE_NEUTRAL, SYS_WIN64);
    return hr == TYPE_E_REGISTRYACCESS || hr == TYPE_E_CANTLOADLIBRARY ? S_OK : hr;
}
}  // namespace

std::wstring TypeLibraryPath() { return NS_Utils::ExecutableFolder() + L"Tarrow.tlb"; }

HRESULT RegisterServer(Scope scope) {
    NS_Utils::UniqueRegKey owner;
    if (const HRESULT opened = OpenClassesRoot(scope, owner); FAILED(opened)) return opened;
    HKEY root = owner.get();
    // The class key is written afresh: nothing of an earlier registration lingers in it.
    if (!NS_Utils::DeleteRegistryKey(root, kClassKey.c_str())) return NS_Utils::LastRegistryError();
    for (const Entry& entry : Entries())
        if (!Write(root, entry)) return NS_Utils::LastRegistryError();
    return RegisterTypeLibrary(scope);
}

HRESULT UnregisterServer(Scope scope) {
    NS_Utils::UniqueRegKey owner;
    if (const HRESULT opened = OpenClassesRoot(scope, owner); FAILED(opened)) return opened;
    HKEY root = owner.get();
    HRESULT result = UnregisterTypeLibrary(scope);
    for (const std::wstring& key : OwnedKeys()) {
        if (!NS_Utils::DeleteRegistryKey(root, key.c_str()) && SUCCEEDED(result))
            result = NS_Utils::LastRegistryError();
    }
    return result;
}

}  // namespace NS_Registration
