#pragma once
// What the stand-in's own objects share: the script they read, the journal they write, and one
// base for reference counting and interface answers. IDispatch members are not served, as no
// caller binds late to these objects except the script support, which serves its own.

#include "checkin/AgentInterfaces.h"
#include "common/ComHandles.h"

#include <atomic>
#include <string>
#include <type_traits>
#include <vector>

namespace standin {

inline constexpr const wchar_t* kScriptKey = L"SOFTWARE\\TarrowStandIn";
DWORD ScriptDword(const wchar_t* name, DWORD fallback);
std::wstring ScriptString(const wchar_t* name, const std::wstring& fallback);
// A REG_SZ counts as a list of one.
std::vector<std::wstring> ScriptStrings(const wchar_t* name);
// Appends one line under a named mutex: several processes may write at once.
void Journal(const std::wstring& line);
// "LoggedOff" set to 1: nobody is logged on to the agent, so its script support names no user and
// the wallet holds no account; set back to 0, the user has logged on.
inline bool LoggedOff() { return ScriptDword(L"LoggedOff", 0) == 1; }

// Objects alive in this module, for DllCanUnloadNow.
inline std::atomic<long> g_liveObjects{0};

#define STANDIN_RESERVED(n) \
    HRESULT STDMETHODCALLTYPE Reserved##n() { return E_NOTIMPL; }
#define STANDIN_RESERVED5(a, b, c, d, e) \
    STANDIN_RESERVED(a) STANDIN_RESERVED(b) STANDIN_RESERVED(c) STANDIN_RESERVED(d) STANDIN_RESERVED(e)

// `Own` is the one interface id answered besides IUnknown (and IDispatch, where derived from it).
template <typename Interface, const IID* Own = nullptr>
class Object : public Interface {
public:
    Object() { ++g_liveObjects; }
    virtual ~Object() { --g_liveObjects; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        const bool known = iid == IID_IUnknown || (Own && iid == *Own) ||
                           (std::is_base_of_v<IDispatch, Interface> && iid == IID_IDispatch);
        *out = known ? static_cast<Interface*>(this) : nullptr;
        return known ? (AddRef(), S_OK) : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++m_refs); }
    ULONG STDMETHODCALLTYPE Release() override {
        if (const long left = --m_refs) return static_cast<ULONG>(left);
        delete this;
        return 0;
    }

    // Without `override`: they fill the interface's slots where it has them and are unused otherwise.
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) {
        return E_NOTIMPL;
    }
    // The slots the agent's objects have and Tarrow never calls, over all of them.
    // clang-format off: the macros end without a semicolon, which clang-format cannot tell.
    STANDIN_RESERVED5(3, 4, 7, 8, 9)
    STANDIN_RESERVED5(10, 11, 13, 15, 17)
    STANDIN_RESERVED5(20, 21, 22, 23, 24)
    // clang-format on

private:
    std::atomic<long> m_refs{1};
};

// Fills `out` with a one-dimensional array of `count` elements of `type`, element i set by put(array, i).
template <typename Put>
HRESULT ReturnArray(VARIANT* out, VARTYPE type, size_t count, Put&& put) {
    NS_Utils::UniqueSafeArray array(::SafeArrayCreateVector(type, 0, static_cast<ULONG>(count)));
    for (LONG i = 0; i < static_cast<LONG>(count); ++i)
        if (HRESULT hr = put(array.get(), i); FAILED(hr)) return hr;
    ::VariantInit(out);
    out->vt = VT_ARRAY | type;
    out->parray = array.release();
    return S_OK;
}

inline HRESULT ReturnText(VARIANT* out, const std::wstring& text) {
    out->vt = VT_BSTR;
    out->bstrVal = NS_Utils::UniqueBstr(text).release();
    return S_OK;
}

// A null BSTR reads as an empty text, as the agent treats them alike.
inline std::wstring Text(BSTR text) { return text ? std::wstring(text, ::SysStringLen(text)) : std::wstring(); }

}  // namespace standin
