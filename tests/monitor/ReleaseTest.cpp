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

// Two answers for one row is not an answer: final as well.
TEST_F(ReleaseTest, EveryOtherResultIsFinal) {
    for (const std::wstring result : {L"42", L"44", L"6", L"-1", L"1", L"37 (two answers)"}) {
        SCOPED_TRACE(std::string(result.begin(), result.end()));
        standin::ClearJournal();
        standin::SetScript(L"CheckInResults", result.substr(0, 2));
        if (result.size() > 2) standin::SetScript(L"CheckInOutputCount", 2);
        ReleaseByExit({Credential(L"final")});
        EXPECT_EQ(CheckIns(), 1u);
    }
}

// Last: the runtime library stays loaded, so the stand-in cannot be installed again afterwards.
TEST_F(ReleaseTest, WithoutTheCheckInObjectCredentialsAreForgottenUnsent) {
    ASSERT_TRUE(standin::Unregister());
    ReleaseByExit({Credential(L"a"), Credential(L"b")});
    EXPECT_EQ(CheckIns(), 0u);
}

}  // namespace
}  // namespace testsupport
