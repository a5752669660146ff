// Stand-in for the agent's runtime library: the process-wide slot table with a site container
// whose state engine hands out the property manager and the policy provider.

#include "checkin/AgentInterfaces.h"
#include "testing/agent/StandInCom.h"
#include "testing/agent/StandInControl.h"

#include <algorithm>
#include <mutex>
#include <set>
#include <vector>

using NS_Utils::ComPtr;
using NS_Utils::UniqueBstr;
using standin::Text;

namespace {

std::wstring ScopeText(const VARIANT& scope) {
    return scope.vt == VT_BOOL ? std::to_wstring(scope.boolVal) : L"vt" + std::to_wstring(scope.vt);
}

HRESULT Answer(VARIANT_BOOL* out, bool yes) {
    if (!out) return E_POINTER;
    *out = yes ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

std::atomic<DWORD> g_userNameReads{0};

class PropertyManager : public standin::DispatchObject<IKelPropertyManager> {
public:
    STANDIN_RESERVED(7) STANDIN_RESERVED(8) STANDIN_RESERVED(10) STANDIN_RESERVED(11) STANDIN_RESERVED(13)
    STANDIN_RESERVED(15) STANDIN_RESERVED(17) STANDIN_RESERVED(20) STANDIN_RESERVED(21) STANDIN_RESERVED(22)
    STANDIN_RESERVED(23) STANDIN_RESERVED(24)

    HRESULT STDMETHODCALLTYPE GetAccDataItem(BSTR, BSTR item, VARIANT, BSTR* value) override {
        if (!value) return E_POINTER;
        *value = nullptr;
        const std::wstring name = Text(item);
        std::wstring text;
        if (name == L"aditi_ciuser") {
            const DWORD earlierReads = g_userNameReads++;
            text = standin::ScriptString(L"WalletUser", L"corvin-user");
            if (earlierReads >= standin::ScriptDword(L"WalletEmptyAfter", MAXDWORD)) text.clear();
        } else if (name == L"aditi_cspwd") {
            text = standin::ScriptString(L"WalletPassword", L"corvin-pass");
        } else {
            return E_INVALIDARG;
        }
        *value = UniqueBstr(text).release();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE IsAccDataBagExist(BSTR bag, VARIANT scope, VARIANT_BOOL* exists) override {
        const bool found = Exists(Text(bag));
        standin::Journal(L"IsAccDataBagExist bag=" + Text(bag) + L" scope=" + ScopeText(scope) + L" exists=" +
                         (found ? L"1" : L"0"));
        return Answer(exists, found);
    }
    HRESULT STDMETHODCALLTYPE SetAccDataBag(BSTR bag, BSTR, VARIANT, VARIANT_BOOL* ok) override {
        return Answer(ok, Exists(Text(bag)));
    }
    HRESULT STDMETHODCALLTYPE SetAccDataBagAdt(BSTR bag, BSTR, VARIANT, VARIANT_BOOL* ok) override {
        return Answer(ok, Exists(Text(bag)));
    }
    HRESULT STDMETHODCALLTYPE CreateAccDataBag(BSTR bag, VARIANT_BOOL* ok) override {
        Mark(Text(bag), true);
        return Answer(ok, true);
    }
    HRESULT STDMETHODCALLTYPE GetAccountData(BSTR target, BSTR source, VARIANT_BOOL* ok) override {
        return Answer(ok, Exists(Text(target)) && Exists(Text(source)));
    }
    HRESULT STDMETHODCALLTYPE DeleteAccDataBag(BSTR bag, VARIANT scope) override {
        Mark(Text(bag), false);
        standin::Journal(L"DeleteAccDataBag bag=" + Text(bag) + L" scope=" + ScopeText(scope));
        return S_OK;
    }

private:
    // The scripted bags are read on every call; what this process created or deleted overrides them.
    bool Exists(const std::wstring& bag) {
        std::lock_guard lock(m_lock);
        if (m_created.count(bag) || m_deleted.count(bag)) return m_created.count(bag) != 0;
        const std::vector<std::wstring> scripted = standin::ScriptStrings(L"ExistingBags");
        return std::find(scripted.begin(), scripted.end(), bag) != scripted.end();
    }
    void Mark(const std::wstring& bag, bool exists) {
        std::lock_guard lock(m_lock);
        (exists ? m_created : m_deleted).insert(bag);
        (exists ? m_deleted : m_created).erase(bag);
    }

    std::mutex m_lock;
    std::set<std::wstring> m_created;
    std::set<std::wstring> m_deleted;
};

class PolicyProvider : public standin::DispatchObject<IKelPolicyProvider> {
public:
    HRESULT STDMETHODCALLTYPE GetPolicy(BSTR policyId, VARIANT* value) override {
        if (!value) return E_POINTER;
        standin::Journal(L"GetPolicy id=" + Text(policyId));
        const std::wstring mode = standin::ScriptString(L"Policy", L"array");
        const std::wstring text = standin::ScriptString(L"PolicyValue", L"corvin-auth-svc");
        if (mode == L"string") {
            ::VariantInit(value);
            value->vt = VT_BSTR;
            value->bstrVal = UniqueBstr(text).release();
            return S_OK;
        }
        std::vector<std::wstring> items{text};
        if (mode == L"emptyfirst") items.insert(items.begin(), std::wstring());
        return standin::ReturnArray(value, VT_BSTR, items.size(), [&](SAFEARRAY* array, LONG i) {
            UniqueBstr item(items[static_cast<size_t>(i)]);
            return ::SafeArrayPutElement(array, &i, item.get());
        });
    }
};

class StateEngine : public standin::DispatchObject<IKelStateEngineRuntime> {
public:
    StateEngine() : DispatchObject(&IID_IKelStateEngineRuntime) {}
    STANDIN_RESERVED(8) STANDIN_RESERVED(9) STANDIN_RESERVED(10)

    HRESULT STDMETHODCALLTYPE GetPropertyManager(IDispatch** manager) override {
        if (!manager) return E_POINTER;
        *manager = m_properties.get();
        m_properties->AddRef();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetPolicyProvider(IDispatch** provider) override {
        if (!provider) return E_POINTER;
        *provider = nullptr;
        if (standin::ScriptString(L"Policy", L"array") == L"none") return E_FAIL;
        *provider = new PolicyProvider;
        return S_OK;
    }

private:
    // One property manager per state engine, so that bags created through it stay created.
    ComPtr<PropertyManager> m_properties = ComPtr<PropertyManager>::Attach(new PropertyManager);
};

class SiteContainer : public standin::ComObject<IKelSiteContainer> {
public:
    STANDIN_RESERVED(3) STANDIN_RESERVED(4)

    HRESULT STDMETHODCALLTYPE GetFirstStateEngine(IUnknown** engine) override {
        if (!engine) return E_POINTER;
        *engine = m_engine.get();
        m_engine->AddRef();
        return S_OK;
    }

private:
    ComPtr<StateEngine> m_engine = ComPtr<StateEngine>::Attach(new StateEngine);
};

IUnknown* g_slots[kPlsSlotCount] = {};
ComPtr<SiteContainer> g_siteContainer;
std::once_flag g_slotsFilled;

}  // namespace

extern "C" IUnknown** KelPlsSlotTable() {
    std::call_once(g_slotsFilled, [] {
        if (standin::ScriptDword(L"NoSiteContainer", 0) == 1) return;
        g_siteContainer = ComPtr<SiteContainer>::Attach(new SiteContainer);
        g_slots[kPlsSiteContainerSlot] = g_siteContainer.get();
    });
    return g_slots;
}
