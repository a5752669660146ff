#include "common/ModulePath.h"
#include "common/Registry.h"
#include "tests/host/ServiceFixture.h"

#include <tuple>

using namespace testsupport;

namespace {

bool KeyExists(HKEY root, const std::wstring& key) {
    NS_Utils::UniqueRegKey opened;
    return ::RegOpenKeyExW(root, key.c_str(), 0, KEY_READ, opened.put()) == ERROR_SUCCESS;
}

std::wstring Value(HKEY root, const std::wstring& key, const wchar_t* name = nullptr) {
    std::wstring text;
    return NS_Utils::ReadRegistryString(root, key.c_str(), name, text) ? text : L"<none>";
}

const std::wstring kClass = L"Software\\Classes\\CLSID\\{3ADD7A24-A617-4FF3-8E48-0D3B85DF4619}";
const std::wstring kAppId = L"Software\\Classes\\AppID\\{17349E01-5B00-4800-A3D1-1AE3E1574B5D}";

void ExpectRegistered(HKEY root) {
    const std::wstring kClasses = L"Software\\Classes\\";
    for (const auto& [key, name, value] : std::initializer_list<std::tuple<std::wstring, const wchar_t*, std::wstring>>{
             {kClass, nullptr, L"Tarrow Class"},
             {kClass + L"\\ProgID", nullptr, L"Tarrow.Tarrow.1"},
             {kClass + L"\\VersionIndependentProgID", nullptr, L"Tarrow.Tarrow"},
             {kClass + L"\\LocalServer32", nullptr, NS_Utils::ExecutableFolder() + L"Tarrow.exe"},
             {kClass + L"\\TypeLib", nullptr, L"{B6A57EE2-3022-44AA-9E24-04C8632479F1}"},
             {kAppId, nullptr, L"Tarrow"},
             {kClasses + L"AppID\\Tarrow.EXE", L"AppID", L"{17349E01-5B00-4800-A3D1-1AE3E1574B5D}"},
             {kClasses + L"Tarrow.Tarrow.1\\CLSID", nullptr, L"{3ADD7A24-A617-4FF3-8E48-0D3B85DF4619}"},
             {kClasses + L"Tarrow.Tarrow\\CurVer", nullptr, L"Tarrow.Tarrow.1"}})
        EXPECT_EQ(Value(root, key, name), value);
    EXPECT_TRUE(KeyExists(root, kClass + L"\\Programmable"));
    DWORD rotFlags = 0;
    EXPECT_TRUE(NS_Utils::ReadRegistryDword(root, kAppId.c_str(), L"ROTFlags", rotFlags) && rotFlags == 1);
    EXPECT_TRUE(KeyExists(HKEY_CLASSES_ROOT, L"TypeLib\\{B6A57EE2-3022-44AA-9E24-04C8632479F1}"));
}

// Registers twice and unregisters twice, in different spellings, under `root` only.
void CheckSwitches(HKEY root, HKEY other, std::initializer_list<const wchar_t*> reg,
                   std::initializer_list<const wchar_t*> unreg) {
    for (const wchar_t* spelling : reg) ASSERT_EQ(RunTarrow(spelling), 0u) << spelling;
    ExpectRegistered(root);
    EXPECT_FALSE(KeyExists(other, kClass));
    for (const wchar_t* spelling : unreg) ASSERT_EQ(RunTarrow(spelling), 0u) << spelling;
    for (const std::wstring& key :
         {kClass, kAppId, std::wstring(L"Software\\Classes\\AppID\\Tarrow.EXE"),
          std::wstring(L"Software\\Classes\\Tarrow.Tarrow"), std::wstring(L"Software\\Classes\\Tarrow.Tarrow.1")})
        EXPECT_FALSE(KeyExists(root, key)) << std::string(key.begin(), key.end());
    EXPECT_TRUE(KeyExists(root, L"Software\\Classes\\AppID"));
}

TEST(RegistrationTest, SwitchesForAllUsersAndPerUserInAnySpellingAndRepeated) {
    CheckSwitches(HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER, {L"-RegServer", L"/REGSERVER"},
                  {L"/UnregServer", L"-unregserver"});
    CheckSwitches(HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE, {L"/RegServerPerUser", L"-regserverperuser"},
                  {L"-UnregServerPerUser", L"/UNREGSERVERPERUSER"});
}

// The event source is Tarrow's own key, written by the registration for all users and removed by
// its undoing; another source of the Application log (the agent's) keeps its values throughout.
TEST(RegistrationTest, EventSourceIsTarrowsOwnAndNoOtherSourceIsTouched) {
    const std::wstring kApplication = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";
    const std::wstring kOwn = kApplication + L"Tarrow";
    const std::wstring kAgent = kApplication + L"Quillon";
    ASSERT_TRUE(NS_Utils::WriteRegistryString(HKEY_LOCAL_MACHINE, kAgent.c_str(), L"EventMessageFile",
                                              L"C:\\Agent\\AgentEvents.dll"));
    ASSERT_EQ(RunTarrow(L"/RegServer"), 0u);
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kOwn, L"EventMessageFile"), NS_Utils::ExecutableFolder() + L"TarrowEvents.dll");
    DWORD types = 0;
    EXPECT_TRUE(NS_Utils::ReadRegistryDword(HKEY_LOCAL_MACHINE, kOwn.c_str(), L"TypesSupported", types) && types == 7);
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kAgent, L"EventMessageFile"), L"C:\\Agent\\AgentEvents.dll");
    ASSERT_EQ(RunTarrow(L"/UnregServer"), 0u);
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kOwn));
    EXPECT_EQ(Value(HKEY_LOCAL_MACHINE, kAgent, L"EventMessageFile"), L"C:\\Agent\\AgentEvents.dll");
    // A registration for one user writes no source: the machine's services are not the user's.
    ASSERT_EQ(RunTarrow(L"/RegServerPerUser"), 0u);
    EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kOwn));
    ASSERT_EQ(RunTarrow(L"/UnregServerPerUser"), 0u);
    NS_Utils::DeleteRegistryKey(HKEY_LOCAL_MACHINE, kAgent.c_str());
}

}  // namespace
