// Stand-in for the agent's in-process COM server: the check-in object and the script support.

#include "common/Registry.h"
#include "testing/agent/StandInCom.h"

#include <algorithm>
#include <cwchar>
#include <sstream>
#include <type_traits>
#include <vector>

using NS_Utils::ComPtr;
using namespace standin;

extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace {

// {5DEB7A5A-7C37-4F1F-A5CD-732434B614F6}
constexpr CLSID kScriptSupportClsid = {0x5DEB7A5A, 0x7C37, 0x4F1F, {0xA5, 0xCD, 0x73, 0x24, 0x34, 0xB6, 0x14, 0xF6}};
constexpr DISPID kEnterpriseIdDispId = 1;

std::atomic<size_t> g_checkIns{0};
std::atomic<size_t> g_rows{0};
std::atomic<DWORD> g_enterpriseIdReads{0};

std::wstring Hex(HRESULT value) {
    wchar_t text[9];
    std::swprintf(text, 9, L"%08lx", static_cast<unsigned long>(value));
    return text;
}

// The journal must show which password arrived without ever holding it.
std::wstring PasswordHash(BSTR password) {
    const UINT bytes = ::SysStringByteLen(password);
    ULONG hash = 2166136261u;
    for (UINT i = 0; i < bytes; ++i) hash = (hash ^ reinterpret_cast<const unsigned char*>(password)[i]) * 16777619u;
    wchar_t text[9];
    std::swprintf(text, 9, L"%08lx", hash);
    return bytes ? text : L"none";
}

// Calls `visit` for each element of a one-dimensional VT_ARRAY|VT_VARIANT, in order; false when
// the variant is not one or `visit` refuses an element.
template <typename Visit>
bool ForEachElement(const VARIANT& array, Visit&& visit) {
    if (array.vt != (VT_ARRAY | VT_VARIANT) || !array.parray || array.parray->cDims != 1) return false;
    NS_Utils::SafeArrayLock lock(array.parray);
    const VARIANT* elements = lock.Data<VARIANT>();
    return lock.Locked() && std::all_of(elements, elements + lock.Count(), visit);
}

// A comma-separated script list, never empty ("0" when it is not set).
std::vector<LONG> ScriptList(const wchar_t* name) {
    std::wistringstream script(ScriptString(name, L"0"));
    std::vector<LONG> values;
    for (std::wstring item; std::getline(script, item, L',');)
        values.push_back(static_cast<LONG>(std::wcstoul(item.c_str(), nullptr, 0)));
    if (values.empty()) values.push_back(0);
    return values;
}

// The `index`th value of a list; its last value for every later index.
LONG At(const std::vector<LONG>& values, size_t index) { return values[std::min(index, values.size() - 1)]; }

class CheckInAgent : public Object<ICICOBatchAgent, &IID_ICICOBatchAgent> {
public:
    HRESULT STDMETHODCALLTYPE CheckIn(IUnknown* runtime, BSTR url, BSTR srvId, BSTR user, BSTR password, VARIANT* in,
                                      VARIANT* out, LONG* nRet) override {
        const std::wstring line = L"CheckIn url=" + Text(url) + L" srvId=" + Text(srvId) + L" user=" + Text(user) +
                                  L" pwhash=" + PasswordHash(password) + L" runtime=" + (runtime ? L"set" : L"null");
        std::vector<std::wstring> rowTexts;
        std::wstring rows;
        const bool valid = in && ForEachElement(*in, [&](const VARIANT& row) {
                               size_t fields = 0;
                               std::wstring text;
                               const bool ok = ForEachElement(row, [&](const VARIANT& field) {
                                   text += (fields++ ? L"|" : L"") +
                                           Text(field.vt == VT_BSTR ? field.bstrVal : nullptr);
                                   return field.vt == VT_BSTR;
                               });
                               rows += L" row=" + text;
                               rowTexts.push_back(text);
                               return ok && fields == 5;
                           });
        if (!valid || rowTexts.empty()) {
            Journal(line + L" rows=invalid");
            return E_INVALIDARG;
        }
        const std::wstring counted = line + L" rows=" + std::to_wstring(rowTexts.size());
        const size_t call = g_checkIns++;
        // As a proxy answers when the agent's server went away mid-call: no answer at all.
        if (const HRESULT gone = At(ScriptList(L"CheckInHResults"), call); FAILED(gone)) {
            Journal(counted + L" hr=0x" + Hex(gone) + rows);
            return gone;
        }
        // Results are scripted per row, in the order rows arrive over all calls.
        std::vector<LONG> results;
        const std::vector<LONG> scripted = ScriptList(L"CheckInResults");
        for (size_t i = 0; i < rowTexts.size(); ++i) results.push_back(At(scripted, g_rows++));
        const HRESULT filled = ReturnArray(
            out, VT_VARIANT, ScriptDword(L"CheckInOutputCount", static_cast<DWORD>(results.size())),
            [&](SAFEARRAY* array, LONG i) {
                VARIANT element{};  // an integer, which holds nothing to free
                element.vt = VT_I4;
                element.lVal = results[std::min<size_t>(static_cast<size_t>(i), results.size() - 1)];
                return ::SafeArrayPutElement(array, &i, &element);
            });
        if (FAILED(filled)) return filled;
        *nRet = static_cast<LONG>(ScriptDword(L"CheckInNRet", 0));
        // One write for the call and its rows: a batch costs the journal one append.
        std::wstring lines = counted + L" result=" + std::to_wstring(results.front()) + L" nRet=" +
                             std::to_wstring(*nRet) + rows;
        for (size_t i = 0; i < rowTexts.size(); ++i)
            lines += L"\nRow " + rowTexts[i] + L" result=" + std::to_wstring(results[i]);
        Journal(lines);
        // After the journal line: a soak run ends the service between the agent's record and the
        // service forgetting the credential.
        ::Sleep(ScriptDword(L"CheckInDelayMs", 0));
        return static_cast<HRESULT>(ScriptDword(L"CheckInHResult", S_OK));
    }
};

class ScriptSupport : public Object<IDispatch> {
public:
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
        std::fill(ids, ids + count, DISPID_UNKNOWN);
        if (count != 1 || _wcsicmp(names[0], kEnterpriseIdProperty) != 0) return DISP_E_UNKNOWNNAME;
        ids[0] = kEnterpriseIdDispId;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS*, VARIANT* result, EXCEPINFO*,
                                     UINT*) override {
        if (id != kEnterpriseIdDispId || !(flags & DISPATCH_PROPERTYGET)) return DISP_E_MEMBERNOTFOUND;
        if (ScriptDword(L"EnterpriseIdFails", 0) == 1) return E_FAIL;
        std::wstring value;
        if (g_enterpriseIdReads++ >= ScriptDword(L"EnterpriseIdEmptyReads", 0) && !LoggedOff())
            value = ScriptString(L"EnterpriseId", L"user@example.test");
        Journal(L"EnterpriseId value=" + value);
        return ReturnText(result, value);
    }
};

template <typename Made>
class Factory : public Object<IClassFactory, &IID_IClassFactory> {
public:
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override {
        *out = nullptr;
        if constexpr (std::is_same_v<Made, CheckInAgent>) Journal(L"Made check-in object");
        return outer ? CLASS_E_NOAGGREGATION : ComPtr<Made>::Attach(new Made)->QueryInterface(iid, out);
    }
    // A lock counts as a live object: either keeps the module loaded.
    HRESULT STDMETHODCALLTYPE LockServer(BOOL lock) override { return lock ? ++g_liveObjects : --g_liveObjects, S_OK; }
};

std::wstring GuidText(const GUID& guid) {
    wchar_t text[40] = {};
    ::StringFromGUID2(guid, text, 40);
    return text;
}

const std::wstring kClassesKey = L"Software\\Classes\\";
std::wstring ClassKey(const CLSID& clsid) { return kClassesKey + L"CLSID\\" + GuidText(clsid); }

bool Write(const std::wstring& key, const wchar_t* name, const std::wstring& value) {
    return NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, key.c_str(), name, value);
}

}  // namespace

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, void** out) {
    *out = nullptr;
    ComPtr<IClassFactory> factory;
    if (clsid == CLSID_CICOBatchAgent) factory = ComPtr<IClassFactory>::Attach(new Factory<CheckInAgent>);
    if (clsid == kScriptSupportClsid) factory = ComPtr<IClassFactory>::Attach(new Factory<ScriptSupport>);
    return factory ? factory->QueryInterface(iid, out) : CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow() { return g_liveObjects == 0 ? S_OK : S_FALSE; }

// Machine-wide, because Wine's COM does not look at per-user classes.
STDAPI DllRegisterServer() {
    wchar_t path[MAX_PATH];
    ::GetModuleFileNameW(reinterpret_cast<HMODULE>(&__ImageBase), path, MAX_PATH);
    bool ok = Write(ClassKey(kScriptSupportClsid) + L"\\ProgID", nullptr, kScriptSupportProgId) &&
              Write(kClassesKey + kScriptSupportProgId + L"\\CLSID", nullptr, GuidText(kScriptSupportClsid));
    for (const CLSID* clsid : {&CLSID_CICOBatchAgent, &kScriptSupportClsid}) {
        const std::wstring server = ClassKey(*clsid) + L"\\InprocServer32";
        ok = ok && Write(server, nullptr, path) && Write(server, L"ThreadingModel", L"Both");
    }
    return ok ? S_OK : E_FAIL;
}

STDAPI DllUnregisterServer() {
    HRESULT result = S_OK;
    for (const std::wstring& key :
         {ClassKey(CLSID_CICOBatchAgent), ClassKey(kScriptSupportClsid), kClassesKey + kScriptSupportProgId})
        if (const LSTATUS status = ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, key.c_str());
            status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND)
            result = HRESULT_FROM_WIN32(status);
    return result;
}
