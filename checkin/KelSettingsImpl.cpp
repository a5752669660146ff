#include "checkin/KelSettingsImpl.h"

#include "common/Log.h"
#include "common/Settings.h"

#include <algorithm>
#include <string>

namespace {
constexpr const wchar_t* kTag = L"[KelSettingsImpl::GetFreeSharedIdWaitTime]\t";
}  // namespace

DWORD KelSettingsImpl::GetFreeSharedIdWaitTime() {
    NS_Log::Log(3, kTag + std::wstring(L" Checking FreeSharedIdWaitTime."));
    const NS_Settings::Setting& setting = NS_Settings::kFreeSharedIdWaitTime;
    if (std::optional<long long> waitTime = NS_Settings::ReadNumber(setting)) {
        // 0 would ask a busy agent again without end, and 0xFFFFFFFF never again: the range the
        // templates offer is what a value set by hand gets too.
        const long long clamped = std::clamp<long long>(*waitTime, setting.minimum, setting.maximum);
        NS_Log::Log(3, kTag + std::wstring(L" FreeSharedIdWaitTime = ") + std::to_wstring(clamped) +
                           (clamped != *waitTime ? L" (set to " + std::to_wstring(*waitTime) + L")" : L""));
        return static_cast<DWORD>(clamped);
    }
    const DWORD fallback = setting.defaultNumber;
    NS_Log::Log(3, kTag + std::wstring(L" Default FreeSharedIdWaitTime = ") + std::to_wstring(fallback));
    return fallback;
}
