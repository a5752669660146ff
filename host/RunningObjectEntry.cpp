#include "host/RunningObjectEntry.h"

#include "common/ModulePath.h"
#include "common/Registry.h"

#include <string>

namespace {
bool ChecksAppIdAsWindows() {
    wchar_t value[4] = {};
    return ::GetEnvironmentVariableW(L"TARROW_ROT_CHECKS_APPID", value, 4) == 1 && value[0] == L'1';
}
}  // namespace

bool CRunningObjectEntry::MachineAllowsAnyClient() {
    const std::wstring exeKey = L"Software\\Classes\\AppID\\" + NS_Utils::FileNameOf(NS_Utils::ExecutablePath());
    std::wstring appId;
    if (!NS_Utils::ReadRegistryString(HKEY_LOCAL_MACHINE, exeKey.c_str(), L"AppID", appId) || appId.empty())
        return false;
    DWORD flags = 0;
    const std::wstring appIdKey = L"Software\\Classes\\AppID\\" + appId;
    return NS_Utils::ReadRegistryDword(HKEY_LOCAL_MACHINE, appIdKey.c_str(), L"ROTFlags", flags) && (flags & 1) != 0;
}

HRESULT CRunningObjectEntry::Register(const NS_Utils::ComPtr<IRunningObjectTable>& table, DWORD flags, IUnknown* object,
                                      IMoniker* moniker) {
    if (m_cookie != 0) return S_FALSE;
    const bool anyClient = (flags & ROTFLAGS_ALLOWANYCLIENT) != 0;
    if (anyClient && ChecksAppIdAsWindows() && !MachineAllowsAnyClient()) return CO_E_WRONG_SERVER_IDENTITY;
    const HRESULT hr = table->Register(flags, object, moniker, &m_cookie);
    if (FAILED(hr)) {
        m_cookie = 0;
        return hr;
    }
    m_table = table;
    m_anyClient = anyClient;
    return hr;
}
