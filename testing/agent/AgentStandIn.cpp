// Stand-in for the agent's in-process COM server: the check-in object and the script support.

#include "checkin/AgentInterfaces.h"
#include "common/Registry.h"
#include "testing/agent/StandInCom.h"
#include "testing/agent/StandInControl.h"

#include <algorithm>
#include <cwchar>
#include <sstream>
#include <vector>

using NS_Utils::ComPtr;
using NS_Utils::UniqueBstr;
using NS_Utils::UniqueVariant;
using standin::Text;

namespace {

// {5DEB7A5A-7C37-4F1F-A5CD-732434B614F6}
constexpr CLSID kScriptSupportClsid = {0x5DEB7A5A, 0x7C37, 0x4F1F, {0xA5, 0xCD, 0x73, 0x24, 0x34, 0xB6, 0x14, 0xF6}};
constexpr DISPID kEnterpriseIdDispId = 1;

HMODULE g_module = nullptr;
std::atomic<size_t> g_checkIns{0};
std::atomic<DWORD> g_enterpriseIdReads{0};

// The journal must show which password arrived without ever holding it.
std::wstring PasswordHash(BSTR password) {
    const UINT bytes = ::SysStringByteLen(password);
    if (bytes == 0) return L"none";
    ULONG hash = 2166136261u;
    for (UINT i = 0; i < bytes; ++i) hash = (hash ^ reinterpret_cast<const unsigned char*>(password)[i]) * 16777619u;
    wchar_t text[9];
    std::swprintf(text, 9, L"%08lx", hash);
    return text;
}

// Calls `visit` for each element of a one-dimensional VT_ARRAY|VT_VARIANT; false when the
// variant is not one or `visit` refuses an element.
template <typename Visit>
bool ForEachElement(const VARIANT& array, Visit&& visit) {
    if (array.vt != (VT_ARRAY | VT_VARIANT) || !array.parray || ::SafeArrayGetDim(array.parray) != 1) return false;
    LONG low = 0, high = -1;
    if (FAILED(::SafeArrayGetLBound(array.parray, 1, &low)) || FAILED(::SafeArrayGetUBound(array.parray, 1, &high)))
        return false;
    for (LONG i = low; i <= high; ++i) {
        UniqueVariant element;
        if (FAILED(::SafeArrayGetElement(array.parray, &i, element.get())) || !visit(*element.get())) return false;
    }
    return true;
}

LONG NextCheckInResult() {
    std::wistringstream script(standin::ScriptString(L"CheckInResults", L"0"));
    std::vector<LONG> results;
    for (std::wstring item; std::getline(script, item, L',');)
        results.push_back(std::wcstol(item.c_str(), nullptr, 10));
    if (results.empty()) results.push_back(0);
    return results[std::min(g_checkIns++, results.size() - 1)];
}

class CheckInAgent : public standin::DispatchObject<ICICOBatchAgent> {
public:
    CheckInAgent() : DispatchObject(&IID_ICICOBatchAgent) {}

    HRESULT STDMETHODCALLTYPE CheckIn(IUnknown* runtime, BSTR url, BSTR srvId, BSTR user, BSTR password, VARIANT* in,
                                      VARIANT* out, LONG* nRet) override {
        if (!out || !nRet) return E_POINTER;
        std::wstring line = L"CheckIn url=" + Text(url) + L" srvId=" + Text(srvId) + L" user=" + Text(user) +
                            L" pwhash=" + PasswordHash(password) + L" runtime=" + (runtime ? L"set" : L"null");
        size_t rowCount = 0;
        std::wstring rows;
        const bool valid = in && ForEachElement(*in, [&](const VARIANT& row) {
            size_t fields = 0;
            std::wstring text;
            const bool ok = ForEachElement(row, [&](const VARIANT& field) {
                text += (fields++ ? L"|" : L"") + Text(field.vt == VT_BSTR ? field.bstrVal : nullptr);
                return field.vt == VT_BSTR;
            });
            rows += L" row=" + text;
            ++rowCount;
            return ok && fields == 5;
        });
        if (!valid) {
            standin::Journal(line + L" rows=invalid");
            return E_INVALIDARG;
        }
        const LONG result = NextCheckInResult();
        const DWORD outputs = standin::ScriptDword(L"CheckInOutputCount", 1);
        const HRESULT filled = standin::ReturnArray(out, VT_VARIANT, outputs, [&](SAFEARRAY* array, LONG i) {
            UniqueVariant element;
            element.get()->vt = VT_I4;
            element.get()->lVal = result;
            return ::SafeArrayPutElement(array, &i, element.get());
        });
        if (FAILED(filled)) return filled;
        *nRet = static_cast<LONG>(standin::ScriptDword(L"CheckInNRet", 0));
        standin::Journal(line + L" rows=" + std::to_wstring(rowCount) + L" result=" + std::to_wstring(result) +
                         L" nRet=" + std::to_wstring(*nRet) + rows);
        return static_cast<HRESULT>(standin::ScriptDword(L"CheckInHResult", S_OK));
    }
};

class ScriptSupport : public standin::DispatchObject<IDispatch> {
public:
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        if (!names || !ids || count == 0) return E_INVALIDARG;
        std::fill(ids, ids + count, DISPID_UNKNOWN);
        if (count != 1 || !names[0] || _wcsicmp(names[0], kEnterpriseIdProperty) != 0) return DISP_E_UNKNOWNNAME;
        ids[0] = kEnterpriseIdDispId;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS*, VARIANT* result, EXCEPINFO*,
                                     UINT*) override {
        if (id != kEnterpriseIdDispId || !(flags & DISPATCH_PROPERTYGET)) return DISP_E_MEMBERNOTFOUND;
        if (!result) return E_POINTER;
        if (standin::ScriptDword(L"EnterpriseIdFails", 0) == 1) return E_FAIL;
        std::wstring value;
        if (g_enterpriseIdReads++ >= standin::ScriptDword(L"EnterpriseIdEmptyReads", 0))
            value = standin::ScriptString(L"EnterpriseId", L"user@example.test");
        standin::Journal(L"EnterpriseId value=" + value);
        ::VariantInit(result);
        result->vt = VT_BSTR;
        result->bstrVal = UniqueBstr(value).release();
        return S_OK;
    }
};

template <typename Object>
class Factory : public standin::ComObject<IClassFactory> {
public:
    Factory() : ComObject(&IID_IClassFactory) {}
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override {
        if (!out) return E_POINTER;
        *out = nullptr;
        if (outer) return CLASS_E_NOAGGREGATION;
        return ComPtr<Object>::Attach(new Object)->QueryInterface(iid, out);
    }
    // A lock counts as a live object: either keeps the module loaded.
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override {
        lock ? ++standin::g_liveObjects : --standin::g_liveObjects;
        return S_OK;
    }
};

std::wstring GuidText(const GUID& guid) {
    wchar_t text[40] = {};
    ::StringFromGUID2(guid, text, 40);
    return text;
}

const std::wstring kClassesKey = L"Software\\Classes\\";
std::wstring ClassKey(const CLSID& clsid) { return kClassesKey + L"CLSID\\" + GuidText(clsid); }

bool Write(const std::wstring& key, const wchar_t* name, const std::wstring& value) {
    return NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, key.c_str(), name, value) == ERROR_SUCCESS;
}

}  // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, void*) {
    if (reason == DLL_PROCESS_ATTACH) g_module = instance;
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** out) {
    if (!out) return E_POINTER;
    *out = nullptr;
    ComPtr<IClassFactory> factory;
    if (clsid == CLSID_CICOBatchAgent) factory = ComPtr<IClassFactory>::Attach(new Factory<CheckInAgent>);
    if (clsid == kScriptSupportClsid) factory = ComPtr<IClassFactory>::Attach(new Factory<ScriptSupport>);
    return factory ? factory->QueryInterface(iid, out) : CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow() { return standin::g_liveObjects == 0 ? S_OK : S_FALSE; }

// Machine-wide, because Wine's COM does not look at per-user classes.
STDAPI DllRegisterServer() {
    wchar_t path[MAX_PATH];
    const DWORD length = ::GetModuleFileNameW(g_module, path, MAX_PATH);
    if (length == 0 || length == MAX_PATH) return E_FAIL;
    for (const CLSID* clsid : {&CLSID_CICOBatchAgent, &kScriptSupportClsid}) {
        const std::wstring server = ClassKey(*clsid) + L"\\InprocServer32";
        if (!Write(server, nullptr, path) || !Write(server, L"ThreadingModel", L"Both")) return E_FAIL;
    }
    const bool ok = Write(ClassKey(kScriptSupportClsid) + L"\\ProgID", nullptr, kScriptSupportProgId) &&
                    Write(kClassesKey + kScriptSupportProgId + L"\\CLSID", nullptr, GuidText(kScriptSupportClsid));
    return ok ? S_OK : E_FAIL;
}

STDAPI DllUnregisterServer() {
    HRESULT result = S_OK;
    for (const std::wstring& key : {ClassKey(CLSID_CICOBatchAgent), ClassKey(kScriptSupportClsid),
                                    kClassesKey + kScriptSupportProgId}) {
        const LSTATUS status = ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
        if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) result = HRESULT_FROM_WIN32(status);
    }
    return result;
}
