// The end of the session through Wine's own wineboot, with the real Tarrow.exe and the stand-in
// agent: wineboot ends the service only once its WM_ENDSESSION handler returns, so everything the
// service promises at logoff has to be done by the time wineboot itself ends.

#include "common/Registry.h"
#include "testing/agent/StandInControl.h"
#include "testing/installer/CloseRequest.h"
#include "tests/host/ServiceFixture.h"

#include <utility>
#include <vector>

namespace testsupport {
namespace {

class SessionEndTest : public ServiceTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall\\"));
        standin::SetScript(L"CheckInResults", std::wstring(L"0"));
        // The writer on, so that the service keeps its crash marker while it runs.
        NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kLogging, L"WindowsEventLogEnabled", 1);
        ServiceTest::SetUpTestSuite();
    }
    // Each test ends the service with the session; the next starts it again.
    void SetUp() override {
        if (!s_service->Running()) {
            ASSERT_TRUE(s_service->Start());
        }
        ServiceTest::SetUp();
    }
    // What Windows sends every top-level window of the service at a logoff, sent by this test so
    // that nothing ends the process afterwards: a logoff the user cancelled once the programs had
    // been told, or (`ending` FALSE) one that another program refused.
    static void EndSessionWithoutEndingTheProcess(BOOL ending) {
        const std::vector<HWND> windows = testsupport::TopLevelWindowsOf(s_service->Pid());
        ASSERT_FALSE(windows.empty());
        DWORD_PTR answer = 0;
        for (HWND window : windows)
            ::SendMessageTimeoutW(window, WM_QUERYENDSESSION, 0, 0, SMTO_ABORTIFHUNG, 5000, &answer);
        for (HWND window : windows)
            ::SendMessageTimeoutW(window, WM_ENDSESSION, ending, 0, SMTO_ABORTIFHUNG, 150000, &answer);
    }
    // The marker of a running service, which a start after a crash reports.
    static bool CrashMarkerThere() {
        DWORD session = 0;
        ::ProcessIdToSessionId(::GetCurrentProcessId(), &session);
        wchar_t local[MAX_PATH] = {};
        ::GetEnvironmentVariableW(L"LOCALAPPDATA", local, MAX_PATH);
        return FileExists(std::wstring(local) + L"\\Kel\\Tarrow\\KEL_Tarrow_Mutex-S" + std::to_wstring(session) +
                          L".running");
    }
    static ChildProcess EndSession() {
        return ChildProcess::Start(L"C:\\windows\\system32\\wineboot.exe", L"--end-session");
    }
};

// A logoff that did not happen after the service had acted on it, then one refused by another
// program, then a real one: the last is acted on too, and the holders of the credentials
// registered in between are ended and their credentials checked in.
TEST_F(SessionEndTest, ALogoffAfterOneThatDidNotHappenEndsTheNewHoldersToo) {
    standin::ClearJournal();
    ChildProcess first = StartHolder();
    ASSERT_EQ(Register(first.Id(), Credential(L"before", L"acct", kUrl)), 0u);
    EXPECT_TRUE(CrashMarkerThere());
    EndSessionWithoutEndingTheProcess(TRUE);
    EXPECT_FALSE(CrashMarkerThere()) << "the stop is reported as the session ends";
    ASSERT_EQ(first.Wait(30000), WAIT_OBJECT_0);
    EXPECT_EQ(first.ExitCode(), 8976u);
    EXPECT_TRUE(WaitUntil([] { return standin::JournalLines("Row ").size() == 1; }));
    ASSERT_TRUE(s_service->Running()) << "the session went on";

    ChildProcess refused = StartHolder(), second = StartHolder();
    ASSERT_EQ(Register(refused.Id(), Credential(L"refused", L"acct", kUrl)), 0u);
    EndSessionWithoutEndingTheProcess(FALSE);
    EXPECT_EQ(refused.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT)) << "no end of the session: nothing ended";
    EXPECT_TRUE(CrashMarkerThere()) << "the service runs on, and a crash now would be reported";
    ASSERT_EQ(Register(second.Id(), Credential(L"after", L"acct", kOtherUrl)), 0u);
    tarrow.reset();
    ChildProcess wineboot = EndSession();
    ASSERT_EQ(wineboot.Wait(300000), WAIT_OBJECT_0);
    for (ChildProcess* holder : {&refused, &second}) {
        ASSERT_EQ(holder->Wait(30000), WAIT_OBJECT_0);
        EXPECT_EQ(holder->ExitCode(), 8976u);
    }
    EXPECT_EQ(standin::JournalLines("Row ").size(), 3u);
    EXPECT_TRUE(ListFiles(CredentialFolder(), L"*.dat").empty());
    EXPECT_FALSE(CrashMarkerThere());
}

// Twenty holders of credentials of two identity servers, and an agent that takes 300 ms a call:
// their check-ins meet in the queue and travel together, a call per server, within the few
// seconds Windows gives a session's programs.
TEST_F(SessionEndTest, EndOfSessionEndsEveryHolderAndWaitsForTheirCheckIns) {
    standin::ClearJournal();
    std::vector<ChildProcess> holders;
    for (int i = 0; i < 20; ++i) {
        holders.push_back(StartHolder());
        const std::wstring role = L"role-" + std::to_wstring(i);
        ASSERT_EQ(Register(holders.back().Id(), Credential(role, L"acct", i % 2 ? kOtherUrl : kUrl)), 0u);
    }
    standin::SetScript(L"CheckInDelayMs", 300);
    tarrow.reset();
    ChildProcess wineboot = EndSession();
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
