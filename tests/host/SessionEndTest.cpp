// The end of the session through Wine's own wineboot, with the real Tarrow.exe and the stand-in
// agent: wineboot ends the service only once its WM_ENDSESSION handler returns, so everything the
// service promises at logoff has to be done by the time wineboot itself ends.

#include "testing/agent/StandInControl.h"
#include "tests/host/ServiceFixture.h"

namespace testsupport {
namespace {

class SessionEndTest : public ServiceTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall\\"));
        standin::SetScript(L"CheckInResults", std::wstring(L"0"));
        ServiceTest::SetUpTestSuite();
    }
};

// Twenty holders of credentials of two identity servers, and an agent that takes 300 ms a call:
// their check-ins meet in the queue and travel together, a call per server, within the few
// seconds Windows gives a session's programs.
TEST_F(SessionEndTest, EndOfSessionEndsEveryHolderAndWaitsForTheirCheckIns) {
    std::vector<ChildProcess> holders;
    for (int i = 0; i < 20; ++i) {
        holders.push_back(StartHolder());
        const std::wstring role = L"role-" + std::to_wstring(i);
        ASSERT_EQ(Register(holders.back().Id(), Credential(role, L"acct", i % 2 ? kOtherUrl : kUrl)), 0u);
    }
    standin::SetScript(L"CheckInDelayMs", 300);
    tarrow.reset();
    ChildProcess wineboot = ChildProcess::Start(L"C:\\windows\\system32\\wineboot.exe", L"--end-session");
    ASSERT_EQ(wineboot.Wait(300000), WAIT_OBJECT_0);
    for (ChildProcess& holder : holders) {
        ASSERT_EQ(holder.Wait(30000), WAIT_OBJECT_0);
        EXPECT_EQ(holder.ExitCode(), 8976u);
    }
    EXPECT_EQ(standin::JournalLines("Row ").size(), 20u);
    EXPECT_LE(standin::JournalLines("CheckIn ").size(), 4u) << "one call a credential";
    EXPECT_TRUE(ListFiles(CredentialFolder(), L"*.dat").empty());
}

}  // namespace
}  // namespace testsupport
