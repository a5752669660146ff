#include "checkin/KelSettingsImpl.h"

#include "common/Log.h"
#include "common/Registry.h"

#include <string>

namespace {
constexpr const wchar_t* kTag = L"[KelSettingsImpl::GetFreeSharedIdWaitTime]\t";
constexpr const wchar_t* kWaitTimeValue = L"FreeSharedIdWaitTime";
}  // namespace

DWORD KelSettingsImpl::GetFreeSharedIdWaitTime() {
    NS_Log::Log(3, kTag + std::wstring(L" Checking FreeSharedIdWaitTime."));
    DWORD waitTime = kDefaultFreeSharedIdWaitTime;
    if (NS_Utils::ReadRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, kWaitTimeValue, waitTime) ==
        ERROR_SUCCESS) {
        NS_Log::Log(3, kTag + std::wstring(L" FreeSharedIdWaitTime = ") + std::to_wstring(waitTime));
        return waitTime;
    }
    NS_Log::Log(3, kTag + std::wstring(L" Default FreeSharedIdWaitTime = ") +
                       std::to_wstring(kDefaultFreeSharedIdWaitTime));
    return kDefaultFreeSharedIdWaitTime;
}
