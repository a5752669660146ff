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

TEST_F(SessionEndTest, EndOfSessionEndsEveryHolderAndWaitsForTheirCheckIns) {
    ChildProcess holders[] = {StartHolder(), StartHolder(), StartHolder()};
    for (ChildProcess& holder : holders)
        ASSERT_EQ(Register(holder.Id(), Credential(L"role-" + std::to_wstring(holder.Id()))), 0u);
    tarrow.reset();
    ChildProcess wineboot = ChildProcess::Start(L"C:\\windows\\system32\\wineboot.exe", L"--end-session");
    ASSERT_EQ(wineboot.Wait(300000), WAIT_OBJECT_0);
    for (ChildProcess& holder : holders) {
        ASSERT_EQ(holder.Wait(30000), WAIT_OBJECT_0);
        EXPECT_EQ(holder.ExitCode(), 8976u);
    }
    EXPECT_EQ(standin::JournalLines("CheckIn ").size(), 3u);
    EXPECT_TRUE(ListFiles(CredentialFolder(), L"*.dat").empty());
}

}  // namespace
}  // namespace testsupport
