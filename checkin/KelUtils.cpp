#include "checkin/KelUtils.h"

#include "common/ComHandles.h"
#include "common/Log.h"

namespace {
constexpr const wchar_t* kTag = L"[CKelUtils::ObtainMirelIdFromBriskScriptSupport]\t";
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
        hr = support->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYGET, &none, value.put(),
                             nullptr, nullptr);
    if (SUCCEEDED(hr)) hr = ::VariantChangeType(value.get(), value.get(), 0, VT_BSTR);
    if (FAILED(hr)) {
        NS_Log::Log(2, std::wstring(kTag) + L" EnterpriseId could not be read. HRESULT = 0x" + NS_Log::Hex(hr));
        return {};
    }
    BSTR text = value.get()->bstrVal;
    return text ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
}
