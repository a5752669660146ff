#pragma once
// The one table of the registry values the service reads: where each is looked up, its type,
// default and the range an administrator may set. The Group Policy templates and the admin guide's
// table list the administered values; a test holds the three together.

#include "common/Registry.h"
#include "common/WinHandles.h"

#include <windows.h>

#include <array>
#include <optional>
#include <span>
#include <string>

namespace NS_Settings {

enum class Type { Dword, String };
// What a stored number counts as, by the part of the design that reads it.
enum class Counts {
    AboveZero,  // only a value greater than 0; 0 stands for the default (the log's values)
    Unsigned,   // whatever is stored, 0 included
    Signed,     // the DWORD taken as a signed number, 0 and negative values as they stand
};
// Where a value is looked up before the row's own key, as Windows' policies are: the machine's
// policy wins over the user's, and both over a value set by hand.
enum class Policy {
    None,            // not administered: a value the agent's installer writes, in its key only
    Machine,         // HKLM policy key, then the row's key
    MachineAndUser,  // HKLM policy key, HKCU policy key, then the row's key: what one user sees
};

struct Setting {
    const wchar_t* key;        // below HKEY_LOCAL_MACHINE
    const wchar_t* policyKey;  // the same sub-key below SOFTWARE\Policies; unused with Policy::None
    const wchar_t* valueName;
    Type type;
    DWORD defaultNumber;               // Dword only
    DWORD minimum;                     // Dword only: what the templates let an administrator set
    DWORD maximum;                     // Dword only
    const wchar_t* defaultText;        // String only
    Counts counts = Counts::Unsigned;  // Dword only
    Policy policy = Policy::Machine;

    bool Administered() const { return policy != Policy::None; }
};

// The keys that may hold the values of one row's sub-key, in look-up order, opened once by a
// caller that reads several of its values often (the log's settings); good for the rows of that
// sub-key with the same policy. A key that is not there stays closed and is passed over.
class OpenedKeys {
public:
    explicit OpenedKeys(const Setting& anyOfTheSubKey);
    std::span<const NS_Utils::UniqueRegKey> InOrder() const { return {m_keys.data(), m_count}; }

private:
    std::array<NS_Utils::UniqueRegKey, 3> m_keys;
    size_t m_count = 0;
};

// The one reader of the table. The first place in look-up order that holds the value as a
// REG_DWORD decides, by its row's rule: nothing when none holds it, or it is 0 for an AboveZero
// value. With `opened`, the value is read under those keys (the row's, opened once).
std::optional<long long> ReadNumber(const Setting& setting, const OpenedKeys* opened = nullptr);
// The first REG_SZ in look-up order; nothing when none holds it.
std::optional<std::wstring> ReadText(const Setting& setting);
// ReadNumber, or the row's default.
long long NumberOrDefault(const Setting& setting);

using NS_Utils::RegKeys::kConfig;
using NS_Utils::RegKeys::kLogging;
using NS_Utils::RegKeys::kPolicyConfig;
using NS_Utils::RegKeys::kPolicyLogging;
using NS_Utils::RegKeys::kPolicyWex;
using NS_Utils::RegKeys::kWex;

// The log's values count only when present and greater than 0, so 0 is never a value of its own.
// The log file and its mutex are the machine's, so its settings are too.
inline constexpr Setting kLogLevel{kLogging, kPolicyLogging, L"LogLevel",      Type::Dword, 1, 1,
                                   4,        nullptr,        Counts::AboveZero};
inline constexpr Setting kLogFileSize{kLogging, kPolicyLogging, L"LogFileSize", Type::Dword,      1024,
                                      1,        1048576,        nullptr,        Counts::AboveZero};
inline constexpr Setting kLogFileCount{kLogging, kPolicyLogging, L"LogFileCount", Type::Dword,      10,
                                       1,        1000,           nullptr,         Counts::AboveZero};
inline constexpr Setting kLogObfuscationEnabled{kLogging, kPolicyLogging, L"LogObfuscationEnabled", Type::Dword, 0, 0,
                                                1,        nullptr,        Counts::AboveZero};
inline constexpr Setting kLogSyncEnabled{kLogging, kPolicyLogging, L"LogSyncEnabled", Type::Dword, 1, 1,
                                         2,        nullptr,        Counts::AboveZero};
inline constexpr Setting kWindowsEventLogEnabled{kLogging, kPolicyLogging, L"WindowsEventLogEnabled", Type::Dword, 0, 0,
                                                 1,        nullptr,        Counts::AboveZero};
// Who held which shared account, and how it went back, as information entries beside the ones
// above: only while those are on. 0 switches the trail off on its own, so it counts as it stands.
inline constexpr Setting kAuditTrailEnabled{kLogging, kPolicyLogging, L"AuditTrailEnabled", Type::Dword, 1, 0,
                                            1,        nullptr,        Counts::Unsigned};

// The identity server and the agent are the machine's; the warning and the grace a user gets
// on the lease-expiry window may differ per user.
inline constexpr Setting kFreeSharedIdWaitTime{kWex,    kPolicyWex, L"FreeSharedIdWaitTime", Type::Dword, 10000, 1000,
                                               3600000, nullptr};
inline constexpr Setting kUseLocalKelSettings{kWex, kPolicyWex, L"UseLocalKelSettings", Type::Dword, 0, 0, 1, nullptr};
inline constexpr Setting kAuthSvc{kWex, kPolicyWex, L"AUTH_SVC", Type::String, 0, 0, 0, L""};
inline constexpr Setting kLeaseMonitorDeltaTime{
    kWex,   kPolicyWex, L"LeaseMonitorDeltaTime", Type::Dword,           3600, 60,
    604800, nullptr,    Counts::Signed,           Policy::MachineAndUser};
inline constexpr Setting kDefaultLeaseExpiryDuration{
    kWex, kPolicyWex, L"DefaultLeaseExpiryDuration", Type::Dword, 28800, 60, 604800, nullptr, Counts::Signed};
inline constexpr Setting kWaitingTimeToKillProcess{
    kWex,    kPolicyWex,       L"WaitingTimeToKillProcess", Type::Dword, 120, 10, 3600,
    nullptr, Counts::Unsigned, Policy::MachineAndUser};

// The message libraries installed are the machine's.
inline constexpr Setting kInstalledLang{kConfig, kPolicyConfig, L"InstalledLang", Type::String, 0, 0, 0, L"en-us"};
// The agent's installation folder, which holds the log folder and the message libraries.
inline constexpr Setting kProgramDir{
    NS_Utils::RegKeys::kProduct, nullptr, L"ProgramDir", Type::String, 0, 0, 0, L"", Counts::Unsigned, Policy::None};

// Every entry above; the administered ones in the order the templates and the admin guide list them.
std::span<const Setting> AllSettings();

}  // namespace NS_Settings
