#include "common/Registry.h"
#include "common/WinHandles.h"
#include "tests/host/ServiceFixture.h"

using namespace testsupport;

namespace {

bool KeyExists(HKEY root, const std::wstring& key) {
    NS_Utils::UniqueRegKey opened;
    return ::RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, opened.put()) == ERROR_SUCCESS;
}

std::wstring Value(HKEY root, const std::wstring& key, const wchar_t* name) {
    std::wstring text;
    return NS_Utils::ReadRegistryString(root, key.c_str(), name, text) == ERROR_SUCCESS ? text : L"<none>";
}

const std::wstring kClass = L"Software\\Classes\\CLSID\\{3ADD7A24-A617-4FF3-8E48-0D3B85DF4619}";
const std::wstring kAppId = L"Software\\Classes\\AppID\\{17349E01-5B00-4800-A3D1-1AE3E1574B5D}";
const std::vector<std::wstring> kOwnedKeys = {kClass, kAppId, L"Software\\Classes\\AppID\\Tarrow.EXE",
                                              L"Software\\Classes\\Tarrow.Tarrow",
                                              L"Software\\Classes\\Tarrow.Tarrow.1"};

void ExpectRegistered(HKEY root) {
    EXPECT_EQ(Value(root, kClass, nullptr), L"Tarrow Class");
    EXPECT_EQ(Value(root, kClass + L"\\ProgID", nullptr), L"Tarrow.Tarrow.1");
    EXPECT_EQ(Value(root, kClass + L"\\VersionIndependentProgID", nullptr), L"Tarrow.Tarrow");
    EXPECT_EQ(Value(root, kClass + L"\\LocalServer32", nullptr), ProgramFolder() + L"Tarrow.exe");
    EXPECT_EQ(Value(root, kClass + L"\\TypeLib", nullptr), L"{B6A57EE2-3022-44AA-9E24-04C8632479F1}");
    EXPECT_TRUE(KeyExists(root, kClass + L"\\Programmable"));
    EXPECT_EQ(Value(root, kAppId, nullptr), L"Tarrow");
    DWORD rotFlags = 0;
    EXPECT_EQ(NS_Utils::ReadRegistryDword(root, kAppId.c_str(), L"ROTFlags", rotFlags), ERROR_SUCCESS);
    EXPECT_EQ(rotFlags, 1u);
    EXPECT_EQ(Value(root, L"Software\\Classes\\AppID\\Tarrow.EXE", L"AppID"), L"{17349E01-5B00-4800-A3D1-1AE3E1574B5D}");
    EXPECT_EQ(Value(root, L"Software\\Classes\\Tarrow.Tarrow.1\\CLSID", nullptr), L"{3ADD7A24-A617-4FF3-8E48-0D3B85DF4619}");
    EXPECT_EQ(Value(root, L"Software\\Classes\\Tarrow.Tarrow\\CurVer", nullptr), L"Tarrow.Tarrow.1");
    EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, L"TypeLib\\{B6A57EE2-3022-44AA-9E24-04C8632479F1}"));
}

void ExpectUnregistered(HKEY root) {
    for (const std::wstring& key : kOwnedKeys) EXPECT_FALSE(KeyExists(root, key)) << std::string(key.begin(), key.end());
    EXPECT_TRUE(KeyExists(root, L"Software\\Classes\\AppID"));
}

// Each pair registers under `root` only and unregisters again.
void CheckSwitches(HKEY root, HKEY other, std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> spellings) {
    for (const auto& [reg, unreg] : spellings) {
        ASSERT_EQ(RunTarrow(reg), 0u);
        ExpectRegistered(root);
        EXPECT_FALSE(KeyExists(other, kClass));
        ASSERT_EQ(RunTarrow(unreg), 0u);
        ExpectUnregistered(root);
    }
}

TEST(RegistrationTest, AllUsersSwitchesInAnySpelling) {
    CheckSwitches(HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER,
                  {{L"-RegServer", L"/UnregServer"}, {L"/REGSERVER", L"-unregserver"}});
}

TEST(RegistrationTest, PerUserSwitchesInAnySpelling) {
    CheckSwitches(HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE,
                  {{L"/RegServerPerUser", L"-UnregServerPerUser"}, {L"-regserverperuser", L"/UNREGSERVERPERUSER"}});
}

TEST(RegistrationTest, RegistrationIsRepeatableAndEndsTheProcess) {
    ASSERT_EQ(RunTarrow(L"/RegServerPerUser"), 0u);
    ASSERT_EQ(RunTarrow(L"/RegServerPerUser"), 0u);
    ExpectRegistered(HKEY_CURRENT_USER);
    ASSERT_EQ(RunTarrow(L"/UnregServerPerUser"), 0u);
    ASSERT_EQ(RunTarrow(L"/UnregServerPerUser"), 0u);
    ExpectUnregistered(HKEY_CURRENT_USER);
}

}  // namespace
