// The edges of a desktop's life with the real Tarrow.exe and the stand-in agent: a crash of the
// service and an installer's request to close it end no holder and check nothing in under a
// holder; a file left while the agent is away waits on the disk, shown as such, until the agent
// is back; an agent whose server went away mid-call is made anew and asked again; one that never
// answers is shown as such and does not hold up the stop.

#include "common/Registry.h"
#include "sharedid/PersistantStorage.h"
#include "testing/agent/StandInControl.h"
#include "testing/installer/CloseRequest.h"
#include "tests/host/ServiceFixture.h"
#include "tools/StatusReader.h"

#include <algorithm>

namespace testsupport {
namespace {

size_t JournalCount(const std::string& prefix, const std::string& text = {}) {
    const std::vector<std::string> lines = standin::JournalLines(prefix);
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& l) { return l.find(text) != l.npos; });
}
// Rows the agent was sent, several to a call.
size_t CheckIns(const std::string& text = {}) { return JournalCount("Row ", text); }
size_t Files() { return ListFiles(CredentialFolder(), L"*.dat").size(); }

class SurvivalTest : public ServiceTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall\\"));
        NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"FreeSharedIdWaitTime", 0);
        ServiceTest::SetUpTestSuite();
    }
    void SetUp() override {
        standin::ClearScript();
        standin::ClearJournal();
        ServiceTest::SetUp();
    }
    // The next suite's service counts the stand-in's calls from 0 again.
    void TearDown() override { standin::ClearScript(); }
    // A fresh service: the stand-in's answers count from its first call again.
    void Restart() {
        tarrow.reset();
        if (s_service->Running()) s_service->Stop();
        ASSERT_TRUE(s_service->Start());
        ASSERT_EQ(tarrowctl::ConnectToTarrow(tarrow), S_OK);
    }
    // The status's state of the credential or file whose lease DN is `leaseDN`; empty when none.
    std::wstring StateOf(const std::wstring& leaseDN) {
        NS_Utils::ComPtr<ITarrowStatus> status;
        NS_Utils::UniqueVariant snapshot;
        tarrowctl::StatusText text;
        if (FAILED(tarrow->QueryInterface(IID_ITarrowStatus, status.put_void())) ||
            FAILED(status->GetStatus(snapshot.get())) || !tarrowctl::ReadStatus(*snapshot.get(), text))
            return L"unreadable";
        const auto& columns = tarrowctl::StatusColumns();
        const size_t dn = std::find(columns.begin(), columns.end(), L"lease_dn") - columns.begin();
        const size_t state = std::find(columns.begin(), columns.end(), L"state") - columns.begin();
        for (const auto& row : text.credentials)
            if (row.at(dn) == leaseDN) return row.at(state) + (row.back().empty() ? L"" : L" since " + row.back());
        return {};
    }
};

TEST_F(SurvivalTest, ACrashOrACloseRequestEndsNoHolderAndChecksNothingInUnderOne) {
    ChildProcess first = StartHolder(), second = StartHolder();
    ASSERT_EQ(Register(first.Id(), Credential(L"first")), 0u);
    ASSERT_EQ(Register(second.Id(), Credential(L"second")), 0u);
    tarrow.reset();
    s_service->Kill();
    Restart();
    EXPECT_TRUE(Found(Credential(L"first")) && Found(Credential(L"second")));
    EXPECT_EQ(StateOf(L"cn=first"), L"held");

    tarrow.reset();
    EXPECT_GE(SendCloseRequest(s_service->Pid()), 1u);
    ASSERT_EQ(::WaitForSingleObject(s_service->Handle(), 10000), WAIT_OBJECT_0);
    EXPECT_EQ(s_service->ExitCode(), 0u);
    EXPECT_EQ(first.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_EQ(second.Wait(0), static_cast<DWORD>(WAIT_TIMEOUT));
    Restart();
    EXPECT_TRUE(Found(Credential(L"first")) && Found(Credential(L"second")));
    EXPECT_EQ(CheckIns(), 0u);

    first.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns() == 1; }));
    EXPECT_EQ(CheckIns("cn=first"), 1u);
    EXPECT_TRUE(Found(Credential(L"second")));
    second.Kill();
    EXPECT_TRUE(WaitUntil([] { return CheckIns() == 2 && Files() == 0; }));
    EXPECT_EQ(CheckIns("cn=second"), 1u);
}

TEST_F(SurvivalTest, AFileLeftWhileTheAgentIsAwayWaitsOnTheDiskUntilItIsBack) {
    CSharedId left = Credential(L"left");
    {
        PersistantStorage storage;
        ASSERT_EQ(storage.Persist(left), 0);
        left.ReleaseFileClaim();
    }
    ASSERT_TRUE(standin::Unregister());
    Restart();
    // Taken up, tried, and let go again: the lease is counted no more.
    ASSERT_TRUE(WaitUntil([&] { return StateOf(L"cn=left") == L"on disk"; }));
    EXPECT_TRUE(FileExists(left.GetFileName()));
    ASSERT_TRUE(standin::Register());
    EXPECT_TRUE(WaitUntil([&] { return CheckIns("cn=left") == 1 && !FileExists(left.GetFileName()); }));
    EXPECT_EQ(StateOf(L"cn=left"), L"");
}

// A single-result agent meets a disconnect on the first of three rows of one holder: its objects
// are made anew, and all three go again, each in a call of its own; none is taken as answered.
TEST_F(SurvivalTest, AnAgentWhoseServerWentAwayIsMadeAnewAndEveryRowIsSentAgain) {
    Restart();
    standin::SetScript(L"CheckInOutputCount", 1);
    standin::SetScript(L"CheckInDelayMs", 1000);  // the worker is busy while the three are let go
    standin::SetScript(L"CheckInHResults", std::wstring(L"0,0,0x80010108,0"));
    ChildProcess first = StartHolder(), holder = StartHolder();
    ASSERT_EQ(Register(first.Id(), Credential(L"first")), 0u);
    for (const wchar_t* role : {L"gone-a", L"gone-b", L"gone-c"}) ASSERT_EQ(Register(holder.Id(), Credential(role)), 0u);
    first.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns("cn=first") == 1; }));
    holder.Kill();
    EXPECT_TRUE(WaitUntil([] { return JournalCount("CheckIn ", " rows=1 ") == 5 && Files() == 0; }));
    EXPECT_EQ(JournalCount("CheckIn ", " rows=3 "), 1u);
    for (const char* role : {"row=cn=gone-a", "row=cn=gone-b", "row=cn=gone-c"})
        EXPECT_EQ(JournalCount("CheckIn ", std::string(" rows=1 result=0 nRet=0 ") + role), 1u) << role;
    EXPECT_EQ(JournalCount("Made check-in object"), 2u);
}

// An agent that never answers holds up neither the status nor the stop, and loses nothing.
TEST_F(SurvivalTest, AStuckCheckInIsShownAndTheStopDoesNotWaitForIt) {
    standin::SetScript(L"CheckInDelayMs", 60000);
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(holder.Id(), Credential(L"stuck")), 0u);
    holder.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns("cn=stuck") == 1; }));
    EXPECT_EQ(StateOf(L"cn=stuck").substr(0, 18), L"checking in since ");
    tarrow.reset();
    const ULONGLONG asked = ::GetTickCount64();
    s_service->Stop();
    EXPECT_LT(::GetTickCount64() - asked, 5000u) << "the stop waits for the stuck check-in";
    EXPECT_EQ(Files(), 1u);
    standin::ClearScript();
    ASSERT_TRUE(s_service->Start());
    EXPECT_TRUE(WaitUntil([] { return CheckIns("cn=stuck") == 2 && Files() == 0; }));
}

}  // namespace
}  // namespace testsupport
