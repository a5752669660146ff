// A released credential goes back to the agent (the stand-in, over real in-process COM) from the
// collector's worker, and is forgotten only when the agent's answer is final.

#include "common/Registry.h"
#include "testing/agent/StandInControl.h"
#include "tests/monitor/MonitorFixture.h"

namespace testsupport {
namespace {

class ReleaseTest : public MonitorTest {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(standin::Install(L"C:\\TarrowTestInstall\\")); }
    void SetUp() override {
        standin::ClearScript();
        standin::ClearJournal();
        NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"FreeSharedIdWaitTime", 0);
        MonitorTest::SetUp();
    }
    // Registers each credential for one holder, ends the holder and waits until all are forgotten.
    void ReleaseByExit(const std::vector<CSharedId>& credentials) {
        ChildProcess holder = StartHolder();
        for (const CSharedId& credential : credentials) ASSERT_EQ(Register(credential, holder.Id()), 0u);
        holder.Kill();
        EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    }
    static size_t CheckIns() { return standin::JournalLines("CheckIn ").size(); }
};

TEST_F(ReleaseTest, TransientResultsAreRetriedUntilAFinalOne) {
    standin::SetScript(L"CheckInResults", std::wstring(L"37,41,5,0"));
    ReleaseByExit({Credential(L"retried")});
    EXPECT_EQ(CheckIns(), 4u);
    EXPECT_EQ(CountInServiceLog(L"Will retry checkin. Error code : 41"), 1u);
}

TEST_F(ReleaseTest, EveryOtherResultIsFinal) {
    for (const wchar_t* result : {L"42", L"44", L"6", L"-1", L"1"}) {
        SCOPED_TRACE(result);
        standin::ClearJournal();
        standin::SetScript(L"CheckInResults", std::wstring(result));
        ReleaseByExit({Credential(L"final")});
        EXPECT_EQ(CheckIns(), 1u);
    }
    // Two answers for one row is not an answer: final as well.
    standin::ClearJournal();
    standin::SetScript(L"CheckInResults", std::wstring(L"37"));
    standin::SetScript(L"CheckInOutputCount", 2);
    ReleaseByExit({Credential(L"two-answers")});
    EXPECT_EQ(CheckIns(), 1u);
}

TEST_F(ReleaseTest, RetriesKeepTheFileAndStoppingLeavesItForTheNextStart) {
    NS_Utils::WriteRegistryDword(HKEY_LOCAL_MACHINE, NS_Utils::RegKeys::kWex, L"FreeSharedIdWaitTime", 600000);
    standin::SetScript(L"CheckInResults", std::wstring(L"37"));
    ChildProcess holder = StartHolder();
    ASSERT_EQ(Register(Credential(L"kept"), holder.Id()), 0u);
    holder.Kill();
    ASSERT_TRUE(WaitUntil([] { return CheckIns() == 1; }));
    // The worker is in its pause between attempts: stopping cuts it short and loses nothing.
    monitor->Shutdown();
    monitor.reset();
    EXPECT_EQ(FileCount(), 1u);

    standin::SetScript(L"CheckInResults", std::wstring(L"0"));
    monitor = SharedIdMonitor::Create();
    ASSERT_TRUE(monitor->GCUncheckedInCredentials());
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(CheckIns(), 2u);
}

// Last: the runtime library stays loaded, so the stand-in cannot be installed again afterwards.
TEST_F(ReleaseTest, WithoutTheCheckInObjectCredentialsAreForgottenUnsent) {
    ASSERT_TRUE(standin::Unregister());
    ReleaseByExit({Credential(L"a"), Credential(L"b")});
    EXPECT_EQ(CheckIns(), 0u);
}

}  // namespace
}  // namespace testsupport
