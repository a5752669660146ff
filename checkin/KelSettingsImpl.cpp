#include "checkin/KelSettingsImpl.h"

#include "common/Log.h"
#include "common/Settings.h"

#include <string>

namespace {
constexpr const wchar_t* kTag = L"[KelSettingsImpl::GetFreeSharedIdWaitTime]\t";
}  // namespace

DWORD KelSettingsImpl::GetFreeSharedIdWaitTime() {
    NS_Log::Log(3, kTag + std::wstring(L" Checking FreeSharedIdWaitTime."));
    if (std::optional<long long> waitTime = NS_Settings::ReadNumber(NS_Settings::kFreeSharedIdWaitTime)) {
        NS_Log::Log(3, kTag + std::wstring(L" FreeSharedIdWaitTime = ") + std::to_wstring(*waitTime));
        return static_cast<DWORD>(*waitTime);
    }
    const DWORD fallback = NS_Settings::kFreeSharedIdWaitTime.defaultNumber;
    NS_Log::Log(3, kTag + std::wstring(L" Default FreeSharedIdWaitTime = ") + std::to_wstring(fallback));
    return fallback;
}
