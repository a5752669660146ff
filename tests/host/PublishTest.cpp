// Publishing in the running object table as Windows grants it: "any client" only for an AppID
// whose ROTFlags are registered for the machine. The entry's check stands in for Windows's
// (TARROW_ROT_CHECKS_APPID); Tarrow.exe and this process are separate processes throughout.

#include "common/Registry.h"
#include "tests/host/ServiceFixture.h"
#include "tests/support/ServiceProcess.h"

using namespace testsupport;

namespace {

const std::wstring kOnlyThisAccount = L"(this account's clients only)";
const std::wstring kRefused = L"Publishing for any client was refused";
const std::wstring kPublished = L"Registered a new entry to the ROT table with moniker = KELTARROW; hr = 0";

class PublishTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(::SetEnvironmentVariableW(L"TARROW_ROT_CHECKS_APPID", L"1"));
        ASSERT_TRUE(NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, L"LogLevel", 3));
        ASSERT_EQ(RunTarrow(L"/UnregServer"), 0u);
        ASSERT_EQ(RunTarrow(L"/UnregServerPerUser"), 0u);
    }
    void TearDown() override {
        (void)RunTarrow(L"/UnregServer");
        (void)RunTarrow(L"/UnregServerPerUser");
        ::SetEnvironmentVariableW(L"TARROW_ROT_CHECKS_APPID", nullptr);
        NS_Utils::DeleteRegistryValue(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, L"LogLevel");
    }

    // Starts Tarrow, reaches it from this process and through tarrowctl, and stops it.
    static void StartReachAndStop() {
        ServiceProcess service;
        ASSERT_TRUE(service.Start()) << "not reachable from another process";
        ChildProcess status = ChildProcess::Start(L"tarrowctl.exe", L"status");
        ASSERT_TRUE(status.Valid());
        ASSERT_EQ(status.Wait(60000), static_cast<DWORD>(WAIT_OBJECT_0));
        EXPECT_EQ(status.ExitCode(), 0u) << "tarrowctl status";
        EXPECT_EQ(service.Stop(), 0u);
    }
};

TEST_F(PublishTest, PerUserRegistrationPublishesForThisAccountAfterTheRefusal) {
    ASSERT_EQ(RunTarrow(L"/RegServerPerUser"), 0u);
    const size_t refused = CountInServiceLog(kRefused);
    const size_t onlyThisAccount = CountInServiceLog(kOnlyThisAccount);
    StartReachAndStop();
    EXPECT_EQ(CountInServiceLog(kRefused), refused + 1);
    EXPECT_EQ(CountInServiceLog(kOnlyThisAccount), onlyThisAccount + 1);
}

TEST_F(PublishTest, RegistrationForAllUsersPublishesForAnyClient) {
    ASSERT_EQ(RunTarrow(L"/RegServer"), 0u);
    const size_t published = CountInServiceLog(kPublished);
    const size_t refused = CountInServiceLog(kRefused);
    const size_t onlyThisAccount = CountInServiceLog(kOnlyThisAccount);
    StartReachAndStop();
    EXPECT_EQ(CountInServiceLog(kPublished), published + 1);
    EXPECT_EQ(CountInServiceLog(kRefused), refused);
    EXPECT_EQ(CountInServiceLog(kOnlyThisAccount), onlyThisAccount);
}

// The machine's AppID with its ROTFlags cleared by hand: refused as well, and published all the same.
TEST_F(PublishTest, MachineAppIdWithoutTheFlagIsRefusedAsWell) {
    ASSERT_EQ(RunTarrow(L"/RegServer"), 0u);
    ASSERT_TRUE(NS_Utils::WriteRegistryDword(
        HKEY_LOCAL_MACHINE, L"Software\\Classes\\AppID\\{17349E01-5B00-4800-A3D1-1AE3E1574B5D}", L"ROTFlags", 0));
    const size_t refused = CountInServiceLog(kRefused);
    StartReachAndStop();
    EXPECT_EQ(CountInServiceLog(kRefused), refused + 1);
}

}  // namespace
