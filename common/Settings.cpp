#include "common/Settings.h"

#include <array>

namespace NS_Settings {

namespace {
constexpr std::array kAll{kLogLevel,
                          kLogFileSize,
                          kLogFileCount,
                          kLogObfuscationEnabled,
                          kLogSyncEnabled,
                          kWindowsEventLogEnabled,
                          kAuditTrailEnabled,
                          kFreeSharedIdWaitTime,
                          kUseLocalKelSettings,
                          kAuthSvc,
                          kLeaseMonitorDeltaTime,
                          kDefaultLeaseExpiryDuration,
                          kWaitingTimeToKillProcess,
                          kInstalledLang,
                          kProgramDir};
}  // namespace

std::span<const Setting> AllSettings() { return kAll; }

namespace {
struct Place {
    HKEY root;
    const wchar_t* subKey;
};

// The places of a row's value in look-up order; the first `count` are used.
struct Places {
    std::array<Place, 3> at{};
    size_t count = 0;
};

Places PlacesOf(const Setting& setting) {
    Places places;
    if (setting.policy != Policy::None) places.at[places.count++] = {HKEY_LOCAL_MACHINE, setting.policyKey};
    if (setting.policy == Policy::MachineAndUser) places.at[places.count++] = {HKEY_CURRENT_USER, setting.policyKey};
    places.at[places.count++] = {HKEY_LOCAL_MACHINE, setting.key};
    return places;
}

// The first place that holds the value as `read` wants it, through `opened` when given.
template <typename Read>
bool ReadFirst(const Setting& setting, const OpenedKeys* opened, Read read) {
    if (opened) {
        for (const NS_Utils::UniqueRegKey& key : opened->InOrder())
            if (key && read(key.get(), nullptr)) return true;
        return false;
    }
    const Places places = PlacesOf(setting);
    for (size_t i = 0; i < places.count; ++i)
        if (read(places.at[i].root, places.at[i].subKey)) return true;
    return false;
}
}  // namespace

OpenedKeys::OpenedKeys(const Setting& anyOfTheSubKey) {
    const Places places = PlacesOf(anyOfTheSubKey);
    for (size_t i = 0; i < places.count; ++i)
        (void)::RegOpenKeyExW(places.at[i].root, places.at[i].subKey, 0, KEY_QUERY_VALUE, m_keys[i].put());
    m_count = places.count;
}

std::optional<long long> ReadNumber(const Setting& setting, const OpenedKeys* opened) {
    DWORD stored = 0;
    const bool read = ReadFirst(setting, opened, [&](HKEY root, const wchar_t* subKey) {
        return NS_Utils::ReadRegistryDword(root, subKey, setting.valueName, stored);
    });
    if (!read) return std::nullopt;
    switch (setting.counts) {
    case Counts::AboveZero: return stored > 0 ? std::optional<long long>(stored) : std::nullopt;
    case Counts::Signed: return static_cast<LONG>(stored);
    case Counts::Unsigned: break;
    }
    return stored;
}

std::optional<std::wstring> ReadText(const Setting& setting) {
    std::wstring value;
    const bool read = ReadFirst(setting, nullptr, [&](HKEY root, const wchar_t* subKey) {
        return NS_Utils::ReadRegistryString(root, subKey, setting.valueName, value);
    });
    if (!read) return std::nullopt;
    return value;
}

long long NumberOrDefault(const Setting& setting) { return ReadNumber(setting).value_or(setting.defaultNumber); }

}  // namespace NS_Settings
