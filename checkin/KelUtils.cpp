#include "checkin/KelUtils.h"

#include "checkin/AgentRuntime.h"
#include "common/ComHandles.h"
#include "common/Log.h"
#include "common/SecretString.h"

namespace {
constexpr const wchar_t* kTag = L"[CKelUtils::ObtainMirelIdFromBriskScriptSupport]\t";
constexpr const wchar_t* kWalletTag = L"[CKelUtils::RetrieveCorvinCredentials]\t";

// The wallet's own vocabulary: two work bags, the template that asks for the identity-server
// account, and its two items.
constexpr const wchar_t* kWorkBag = L"temp_bag";
constexpr const wchar_t* kResultBag = L"temp_two";
constexpr const wchar_t* kAccountTemplate = L"adt_ciuser_cspwd";
constexpr const wchar_t* kUserItem = L"aditi_ciuser";
constexpr const wchar_t* kPasswordItem = L"aditi_cspwd";

using NS_Utils::AllocBstr;

// The answer is read through its address, after the call that fills it has returned.
bool Answered(HRESULT hr, const VARIANT_BOOL* answer) { return SUCCEEDED(hr) && *answer == VARIANT_TRUE; }

NS_Utils::ComPtr<IKelPropertyManager> PropertyManager(IKelStateEngineRuntime* runtime) {
    NS_Utils::ComPtr<IDispatch> manager;
    if (!runtime || FAILED(runtime->GetPropertyManager(manager.put()))) return {};
    return NS_AgentRuntime::AgentObjectAs<IKelPropertyManager>(manager);
}

// Creates `bag` unless `exists`; false (logged) when that fails.
bool EnsureBag(IKelPropertyManager& manager, const wchar_t* bag, VARIANT_BOOL exists, const wchar_t* failure) {
    if (exists == VARIANT_TRUE) return true;
    VARIANT_BOOL created = VARIANT_FALSE;
    if (Answered(manager.CreateAccDataBag(AllocBstr(bag).get(), &created), &created)) return true;
    NS_Log::Log(1, kWalletTag, failure);
    return false;
}

bool PrepareWorkBags(IKelPropertyManager& manager, const std::wstring& authSvcId, const VARIANT& scope) {
    VARIANT_BOOL workExists = VARIANT_FALSE;
    VARIANT_BOOL resultExists = VARIANT_FALSE;
    if (FAILED(manager.IsAccDataBagExist(AllocBstr(kWorkBag).get(), scope, &workExists)) ||
        FAILED(manager.IsAccDataBagExist(AllocBstr(kResultBag).get(), scope, &resultExists))) {
        NS_Log::Log(1, kWalletTag, L" Call to IsAccDataBagExist() failed");
        return false;
    }
    if (!EnsureBag(manager, kWorkBag, workExists, L" Cannot create temp_bag") ||
        !EnsureBag(manager, kResultBag, resultExists, L" Cannot create temp_two"))
        return false;
    VARIANT_BOOL idSet = VARIANT_FALSE;
    VARIANT_BOOL templateSet = VARIANT_FALSE;
    const NS_Utils::UniqueBstr work = AllocBstr(kWorkBag);
    if (!Answered(manager.SetAccDataBag(work.get(), AllocBstr(authSvcId).get(), scope, &idSet), &idSet) ||
        !Answered(manager.SetAccDataBagAdt(work.get(), AllocBstr(kAccountTemplate).get(), scope, &templateSet),
                  &templateSet)) {
        NS_Log::Log(1, kWalletTag, L" SetAccDataBag auth id or ADT failed");
        return false;
    }
    return true;
}

void ReadAccount(IKelPropertyManager& manager, const VARIANT& scope, std::wstring& user, std::wstring& password) {
    const NS_Utils::UniqueBstr result = AllocBstr(kResultBag);
    NS_Utils::SecretBstr userText;
    NS_Utils::SecretBstr passwordText;
    if (FAILED(manager.GetAccDataItem(result.get(), AllocBstr(kUserItem).get(), scope, userText.put())) ||
        FAILED(manager.GetAccDataItem(result.get(), AllocBstr(kPasswordItem).get(), scope, passwordText.put()))) {
        NS_Log::Log(1, kWalletTag, L" GetAccDataItem() failed");
        return;
    }
    userText.CopyTo(user);
    passwordText.CopyTo(password);
}
}  // namespace

void CKelUtils::RetrieveCorvinCredentials(IKelStateEngineRuntime* runtime, const std::wstring& authSvcId,
                                          const VARIANT& scope, std::wstring& user, std::wstring& password) {
    user.clear();
    NS_Utils::WipeString(password);
    NS_Utils::ComPtr<IKelPropertyManager> manager = PropertyManager(runtime);
    if (!manager) {
        NS_Log::Log(1, kWalletTag, L" pPropMgr is NULL");
        return;
    }
    if (!PrepareWorkBags(*manager.get(), authSvcId, scope)) return;
    VARIANT_BOOL copied = VARIANT_FALSE;
    if (!Answered(manager->GetAccountData(AllocBstr(kResultBag).get(), AllocBstr(kWorkBag).get(), &copied), &copied)) {
        NS_Log::Log(1, kWalletTag, L" GetAccountData to temp_two failed");
        return;
    }
    ReadAccount(*manager.get(), scope, user, password);
}

std::wstring CKelUtils::ObtainMirelIdFromBriskScriptSupport() {
    CLSID clsid;
    NS_Utils::ComPtr<IDispatch> support;
    if (FAILED(::CLSIDFromProgID(L"BriskScriptSupport.ScriptSupport", &clsid)) ||
        FAILED(::CoCreateInstance(clsid, nullptr, CLSCTX_ALL, IID_IDispatch, support.put_void()))) {
        NS_Log::Log(2, std::wstring(kTag) + L" Cannot create object BriskScriptSupport");
        return {};
    }
    LPOLESTR name = const_cast<LPOLESTR>(L"EnterpriseId");
    DISPID id = DISPID_UNKNOWN;
    HRESULT hr = support->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &id);
    NS_Utils::UniqueVariant value;
    DISPPARAMS none{};
    if (SUCCEEDED(hr))
        hr = support->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none, value.put(), nullptr,
                             nullptr);
    if (SUCCEEDED(hr)) hr = ::VariantChangeType(value.get(), value.get(), 0, VT_BSTR);
    if (FAILED(hr)) {
        NS_Log::Log(2, std::wstring(kTag) + L" EnterpriseId could not be read. HRESULT = 0x" + NS_Log::Hex(hr));
        return {};
    }
    BSTR text = value.get()->bstrVal;
    return text ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
}
