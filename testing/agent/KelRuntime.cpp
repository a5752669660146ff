// Stand-in for the agent's runtime library: the process-wide slot table with a site container
// whose state engine hands out the property manager and the policy provider.

#include "testing/agent/StandInCom.h"

#include <algorithm>
#include <map>
#include <mutex>

using NS_Utils::ComPtr;
using NS_Utils::UniqueBstr;
using namespace standin;

namespace {

std::wstring ScopeText(const VARIANT& scope) {
    return scope.vt == VT_BOOL ? std::to_wstring(scope.boolVal) : L"vt" + std::to_wstring(scope.vt);
}

HRESULT Answer(VARIANT_BOOL* out, bool yes) { return *out = yes ? VARIANT_TRUE : VARIANT_FALSE, S_OK; }

template <typename Object, typename Interface>
HRESULT Share(const ComPtr<Object>& object, Interface** out) {
    return (*out = object.get())->AddRef(), S_OK;
}

std::atomic<DWORD> g_userNameReads{0};

class PropertyManager : public Object<IKelPropertyManager> {
public:
    HRESULT STDMETHODCALLTYPE GetAccDataItem(BSTR, BSTR item, VARIANT, BSTR* value) override {
        *value = nullptr;
        const std::wstring name = Text(item);
        std::wstring text;
        if (name == L"aditi_cspwd")
            text = ScriptString(L"WalletPassword", L"corvin-pass");
        else if (name != L"aditi_ciuser")
            return E_INVALIDARG;
        else if (g_userNameReads++ < ScriptDword(L"WalletEmptyAfter", MAXDWORD) && !LoggedOff())
            text = ScriptString(L"WalletUser", L"corvin-user");
        *value = UniqueBstr(text).release();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE IsAccDataBagExist(BSTR bag, VARIANT scope, VARIANT_BOOL* exists) override {
        const bool found = Exists(bag);
        Journal(L"IsAccDataBagExist bag=" + Text(bag) + L" scope=" + ScopeText(scope) + L" exists=" +
                (found ? L"1" : L"0"));
        return Answer(exists, found);
    }
    HRESULT STDMETHODCALLTYPE SetAccDataBag(BSTR bag, BSTR, VARIANT, VARIANT_BOOL* ok) override {
        return Answer(ok, Exists(bag));
    }
    HRESULT STDMETHODCALLTYPE SetAccDataBagAdt(BSTR bag, BSTR, VARIANT, VARIANT_BOOL* ok) override {
        return Answer(ok, Exists(bag));
    }
    HRESULT STDMETHODCALLTYPE CreateAccDataBag(BSTR bag, VARIANT_BOOL* ok) override {
        return Answer(ok, Mark(bag, true));
    }
    HRESULT STDMETHODCALLTYPE GetAccountData(BSTR target, BSTR source, VARIANT_BOOL* ok) override {
        return Answer(ok, Exists(target) && Exists(source));
    }
    HRESULT STDMETHODCALLTYPE DeleteAccDataBag(BSTR bag, VARIANT scope) override {
        Mark(bag, false);
        Journal(L"DeleteAccDataBag bag=" + Text(bag) + L" scope=" + ScopeText(scope));
        return S_OK;
    }

private:
    // The scripted bags are read on every call; what this process created or deleted overrides them.
    bool Exists(BSTR bag) {
        std::lock_guard lock(m_lock);
        if (auto marked = m_marked.find(Text(bag)); marked != m_marked.end()) return marked->second;
        const std::vector<std::wstring> scripted = ScriptStrings(L"ExistingBags");
        return std::find(scripted.begin(), scripted.end(), Text(bag)) != scripted.end();
    }
    bool Mark(BSTR bag, bool exists) {
        std::lock_guard lock(m_lock);
        return m_marked[Text(bag)] = exists;
    }

    std::mutex m_lock;
    std::map<std::wstring, bool> m_marked;
};

class PolicyProvider : public Object<IKelPolicyProvider> {
public:
    HRESULT STDMETHODCALLTYPE GetPolicy(BSTR policyId, VARIANT* value) override {
        Journal(L"GetPolicy id=" + Text(policyId));
        const std::wstring mode = ScriptString(L"Policy", L"array");
        const std::wstring text = ScriptString(L"PolicyValue", L"corvin-auth-svc");
        if (mode == L"string") return ReturnText(value, text);
        std::vector<std::wstring> items{text};
        if (mode == L"emptyfirst") items.insert(items.begin(), std::wstring());
        return ReturnArray(value, VT_BSTR, items.size(), [&](SAFEARRAY* array, LONG i) {
            return ::SafeArrayPutElement(array, &i, UniqueBstr(items[static_cast<size_t>(i)]).get());
        });
    }
};

class StateEngine : public Object<IKelStateEngineRuntime, &IID_IKelStateEngineRuntime> {
public:
    HRESULT STDMETHODCALLTYPE GetPropertyManager(IDispatch** manager) override { return Share(m_properties, manager); }
    HRESULT STDMETHODCALLTYPE GetPolicyProvider(IDispatch** provider) override {
        *provider = ScriptString(L"Policy", L"array") == L"none" ? nullptr : new PolicyProvider;
        return *provider ? S_OK : E_FAIL;
    }

private:
    // One property manager per state engine, so that bags created through it stay created.
    ComPtr<PropertyManager> m_properties = ComPtr<PropertyManager>::Attach(new PropertyManager);
};

class SiteContainer : public Object<IKelSiteContainer> {
public:
    HRESULT STDMETHODCALLTYPE GetFirstStateEngine(IUnknown** engine) override { return Share(m_engine, engine); }

private:
    ComPtr<StateEngine> m_engine = ComPtr<StateEngine>::Attach(new StateEngine);
};

}  // namespace

extern "C" IUnknown** KelPlsSlotTable() {
    static IUnknown* slots[kPlsSlotCount] = {};
    static const ComPtr<SiteContainer> container = [] {
        if (ScriptDword(L"NoSiteContainer", 0) == 1) return ComPtr<SiteContainer>();
        ComPtr<SiteContainer> made = ComPtr<SiteContainer>::Attach(new SiteContainer);
        slots[kPlsSiteContainerSlot] = made.get();
        return made;
    }();
    return slots;
}
