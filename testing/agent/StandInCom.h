#pragma once
// The reference counting and interface answers that every stand-in object shares. Each object
// implements one interface chain; IDispatch members are not served, as no caller binds late to
// these objects except the script support, which serves its own.

#include "common/ComHandles.h"

#include <objbase.h>
#include <oaidl.h>

#include <atomic>
#include <string>
#include <type_traits>

namespace standin {

// Objects alive in this module, for DllCanUnloadNow.
inline std::atomic<long> g_liveObjects{0};

template <typename Interface>
class ComObject : public Interface {
public:
    explicit ComObject(const IID* own = nullptr) : m_own(own) { ++g_liveObjects; }
    virtual ~ComObject() { --g_liveObjects; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        if (!out) return E_POINTER;
        *out = nullptr;
        const bool known = iid == IID_IUnknown || (m_own && iid == *m_own) ||
                           (std::is_base_of_v<IDispatch, Interface> && iid == IID_IDispatch);
        if (!known) return E_NOINTERFACE;
        AddRef();
        *out = static_cast<Interface*>(this);
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(++m_refs); }
    ULONG STDMETHODCALLTYPE Release() override {
        const long left = --m_refs;
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }

private:
    std::atomic<long> m_refs{1};
    const IID* m_own;
};

template <typename Interface>
class DispatchObject : public ComObject<Interface> {
public:
    using ComObject<Interface>::ComObject;
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        return E_NOTIMPL;
    }
};

}  // namespace standin

// Slots the agent's objects have and Tarrow never calls.
#define STANDIN_RESERVED(n) HRESULT STDMETHODCALLTYPE Reserved##n() override { return E_NOTIMPL; }

namespace standin {
// Fills `out` with a one-dimensional array of `count` elements of `type`, element i set by put(array, i).
template <typename Put>
HRESULT ReturnArray(VARIANT* out, VARTYPE type, size_t count, Put&& put) {
    NS_Utils::UniqueVariant result;
    SAFEARRAY* array = ::SafeArrayCreateVector(type, 0, static_cast<ULONG>(count));
    if (!array) return E_OUTOFMEMORY;
    result.get()->vt = VT_ARRAY | type;
    result.get()->parray = array;
    for (LONG i = 0; i < static_cast<LONG>(count); ++i)
        if (HRESULT hr = put(array, i); FAILED(hr)) return hr;
    ::VariantInit(out);
    return ::VariantCopy(out, result.get());
}

// A null BSTR reads as an empty text, as the agent treats them alike.
inline std::wstring Text(BSTR text) { return text ? std::wstring(text, ::SysStringLen(text)) : std::wstring(); }
}  // namespace standin
