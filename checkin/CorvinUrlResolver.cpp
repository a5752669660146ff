#include "checkin/CorvinUrlResolver.h"

#include "checkin/AgentRuntime.h"
#include "common/ComHandles.h"
#include "common/Log.h"
#include "common/Registry.h"
#include "common/Settings.h"

#include <vector>

namespace {
constexpr const wchar_t* kAuthSvcPolicy = L"pid_kel_corvin_auth_svc_id";
constexpr const wchar_t* kPolicyTag = L"[CCorvinUrlResolver::GetKelSystemPolicy]\t";
constexpr const wchar_t* kRegistryTag = L"[CCorvinUrlResolver::GetKelStringValueFromRegistry]\t";

NS_Utils::ComPtr<IKelPolicyProvider> PolicyProvider(IKelStateEngineRuntime* runtime) {
    NS_Utils::ComPtr<IDispatch> provider;
    if (!runtime || FAILED(runtime->GetPolicyProvider(provider.put()))) return {};
    return NS_AgentRuntime::AgentObjectAs<IKelPolicyProvider>(provider);
}

// The strings of a VT_ARRAY|VT_BSTR value; false for any other kind of value.
bool ReadStringArray(const VARIANT& value, std::vector<std::wstring>& strings) {
    if (value.vt != (VT_ARRAY | VT_BSTR) || !value.parray) return false;
    NS_Utils::SafeArrayLock lock(value.parray);
    if (!lock.Locked()) return false;
    const BSTR* items = lock.Data<BSTR>();
    for (ULONG i = 0; i < lock.Count(); ++i)
        strings.emplace_back(items[i] ? items[i] : L"", items[i] ? ::SysStringLen(items[i]) : 0);
    return true;
}

const std::wstring kPolicyValueTag = kPolicyTag + std::wstring(L" policy value of ") + kAuthSvcPolicy;
}  // namespace

int CCorvinUrlResolver::ResolveAuthSvcId(IKelStateEngineRuntime* runtime, std::wstring& authSvcId) {
    authSvcId.clear();
    if (!IsUseLocalKelSettingsEnabled()) return GetKelSystemPolicy(runtime, authSvcId);
    LSTATUS status = GetKelStringValueFromRegistry(authSvcId);
    if (status != ERROR_SUCCESS) return static_cast<int>(status);
    return authSvcId.empty() ? static_cast<int>(ERROR_INVALID_DATA) : 0;
}

bool CCorvinUrlResolver::IsUseLocalKelSettingsEnabled() {
    const long long enabled = NS_Settings::NumberOrDefault(NS_Settings::kUseLocalKelSettings);
    NS_Log::Log(3, L"[CCorvinUrlResolver::IsUseLocalKelSettingsEnabled]\t enabled = " + std::to_wstring(enabled));
    // Exactly 1: any other value leaves the agent's policy in charge.
    return enabled == 1;
}

int CCorvinUrlResolver::GetKelSystemPolicy(IKelStateEngineRuntime* runtime, std::wstring& value) {
    NS_Utils::ComPtr<IKelPolicyProvider> provider = PolicyProvider(runtime);
    if (!provider) {
        NS_Log::Log(1, kPolicyTag + std::wstring(L" pUDP is NULL, policy id = ") + kAuthSvcPolicy);
        return 1;
    }
    NS_Utils::UniqueVariant policy;
    provider->GetPolicy(NS_Utils::AllocBstr(kAuthSvcPolicy).get(), policy.put());
    std::vector<std::wstring> strings;
    if (!ReadStringArray(*policy.get(), strings)) {
        NS_Log::Log(1, kPolicyValueTag, L" is not an array of string");
        return 1;
    }
    if (strings.empty() || strings.front().empty()) {
        NS_Log::Log(1, kPolicyValueTag, L" is empty");
        return 1;
    }
    value = strings.front();
    NS_Log::Log(3, kPolicyValueTag, L" = " + value);
    return 0;
}

LSTATUS CCorvinUrlResolver::GetKelStringValueFromRegistry(std::wstring& value) {
    const std::wstring where = std::wstring(L"RegKey = ") + NS_Settings::kAuthSvc.key + L", RegValue = " +
                               NS_Settings::kAuthSvc.valueName;
    const std::optional<std::wstring> read = NS_Settings::ReadText(NS_Settings::kAuthSvc);
    const LSTATUS status = read ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
    if (read) value = *read;
    if (status == ERROR_SUCCESS)
        NS_Log::Log(3, kRegistryTag + std::wstring(L" ") + where + L", outValue = " + value);
    else
        NS_Log::Log(1, kRegistryTag + std::wstring(L" Get registry value failed, ") + where);
    return status;
}
