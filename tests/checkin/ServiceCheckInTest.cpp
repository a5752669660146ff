// The real Tarrow.exe with the stand-in agent at the edges of a desktop's day: a busy agent whose
// calls fail without an answer, a user not yet logged on to the agent, and a logoff in the middle
// of a long retry pause. A fresh service for each case: the stand-in counts its calls per process.

#include "common/Registry.h"
#include "testing/agent/StandInControl.h"
#include "tests/host/ServiceFixture.h"

namespace testsupport {
namespace {

void SetPause(DWORD milliseconds) {
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"FreeSharedIdWaitTime", milliseconds);
}

bool NoFileLeft() { return ListFiles(CredentialFolder(), L"*.dat").empty(); }

class ServiceCheckInTest : public ServiceTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall\\"));
        ServiceTest::SetUpTestSuite();
    }
    // `script` is set before the service starts, so that its first reads see it.
    void Restart(const std::function<void()>& script) {
        tarrow.reset();
        s_service->Stop();
        standin::ClearScript();
        standin::ClearJournal();
        script();
        ASSERT_TRUE(s_service->Start());
        ASSERT_EQ(tarrowctl::ConnectToTarrow(tarrow), S_OK);
    }
    // A holder of `role` that has registered it and then exits.
    void RegisterAndEnd(const std::wstring& role) {
        ChildProcess holder = StartHolder();
        ASSERT_EQ(Register(holder.Id(), Credential(role)), 0u);
        holder.Kill();
    }
};

// A busy agent (RPC_E_SERVERCALL_RETRYLATER), then a failure with the network down (E_FAIL): no
// answer either time, so the row is sent again after each pause until the agent answers it.
TEST_F(ServiceCheckInTest, CallsThatFailWithoutAnAnswerAreSentAgainUntilAnswered) {
    Restart([] {
        SetPause(1000);
        standin::SetScript(L"CheckInHResults", std::wstring(L"0x8001010A,0x80004005,0"));
        standin::SetScript(L"CheckInResults", std::wstring(L"0"));
    });
    RegisterAndEnd(L"busy");
    ASSERT_TRUE(WaitUntil(NoFileLeft));
    const std::vector<std::string> calls = standin::JournalLines("CheckIn ");
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_NE(calls[0].find("hr=0x8001010a"), std::string::npos) << calls[0];
    EXPECT_NE(calls[1].find("hr=0x80004005"), std::string::npos) << calls[1];
    EXPECT_NE(calls[2].find("result=0"), std::string::npos) << calls[2];
}

// An agent busy for long: the row is reported once, after ten attempts, and goes on being tried.
TEST_F(ServiceCheckInTest, ARowTriedManyTimesIsReportedOnceAndGoesOnBeingTried) {
    Restart([] {
        SetPause(1000);
        std::wstring busy;
        for (int i = 0; i < 11; ++i) busy += L"0x8001010A,";
        standin::SetScript(L"CheckInHResults", busy + L"0");
        standin::SetScript(L"CheckInResults", std::wstring(L"0"));
    });
    const std::wstring stuck = L"Still not checked in after ";
    const size_t before = CountInServiceLog(stuck);
    RegisterAndEnd(L"long-busy");
    ASSERT_TRUE(WaitUntil(NoFileLeft, 60000));
    EXPECT_EQ(standin::JournalLines("CheckIn ").size(), 12u);
    EXPECT_EQ(CountInServiceLog(stuck) - before, 1u);
    EXPECT_EQ(CountInServiceLog(stuck + L"10 attempts (no answer, 0x8001010a)"), 1u);
}

// Nobody logged on to the agent when the service starts: the row waits, unsent, and goes with the
// account and the agent's user once the user has logged on.
TEST_F(ServiceCheckInTest, EmptyWalletAtStartSendsWithTheAccountOnceTheUserLogsOn) {
    Restart([] {
        SetPause(1000);
        standin::SetScript(L"LoggedOff", 1);
        standin::SetScript(L"CheckInResults", std::wstring(L"0"));
    });
    const std::wstring waiting = L"Waiting for the user to log on to the agent.";
    const size_t waitsBefore = CountInServiceLog(waiting);
    RegisterAndEnd(L"before-logon");
    ASSERT_TRUE(WaitUntil([&] { return CountInServiceLog(waiting) > waitsBefore; }));
    EXPECT_TRUE(standin::JournalLines("CheckIn ").empty()) << "never sent with an empty account";
    standin::SetScript(L"LoggedOff", 0);
    ASSERT_TRUE(WaitUntil(NoFileLeft));
    const std::vector<std::string> calls = standin::JournalLines("CheckIn ");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_NE(calls[0].find(" user=corvin-user "), std::string::npos) << calls[0];
    EXPECT_NE(calls[0].find("|user@example.test|"), std::string::npos) << "the agent's user: " << calls[0];
}

// A row answered "later" waits out an hour's pause; a row let go meanwhile goes at once, and the
// logoff sends the waiting row within seconds.
TEST_F(ServiceCheckInTest, NewRowsPassALongPauseAndTheLogoffSendsEveryWaitingRow) {
    Restart([] {
        SetPause(3600000);
        standin::SetScript(L"CheckInResults", std::wstring(L"37,0"));
    });
    RegisterAndEnd(L"paused");
    ASSERT_TRUE(WaitUntil([] { return standin::JournalLines("Row ").size() == 1; }));
    RegisterAndEnd(L"meanwhile");
    ASSERT_TRUE(WaitUntil([] { return standin::JournalLines("Row ").size() == 2; }));
    EXPECT_NE(standin::JournalLines("Row ")[1].find("cn=meanwhile|"), std::string::npos);
    EXPECT_TRUE(WaitUntil([] { return ListFiles(CredentialFolder(), L"*.dat").size() == 1; }));

    tarrow.reset();
    const ULONGLONG asked = ::GetTickCount64();
    ChildProcess wineboot = ChildProcess::Start(L"C:\\windows\\system32\\wineboot.exe", L"--end-session");
    ASSERT_TRUE(WaitUntil(NoFileLeft, 5000));
    EXPECT_LE(::GetTickCount64() - asked, 5000u);
    const std::vector<std::string> rows = standin::JournalLines("Row ");
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_NE(rows[2].find("cn=paused|"), std::string::npos);
    EXPECT_NE(rows[2].find("result=0"), std::string::npos);
    EXPECT_EQ(wineboot.Wait(60000), WAIT_OBJECT_0);
}

}  // namespace
}  // namespace testsupport
