// A released credential goes back to the agent (the stand-in, over real in-process COM) from the
// collector's worker, and is forgotten only when the agent's answer is final.

#include "common/Registry.h"
#include "testing/agent/StandInControl.h"
#include "tests/monitor/MonitorFixture.h"

namespace testsupport {
namespace {

class ReleaseTest : public MonitorTest {
protected:
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

// Not reaching the agent is no answer: the credentials are forgotten here and their files kept,
// until the agent can be reached again.
TEST_F(ReleaseTest, WithoutTheCheckInObjectFilesAreKeptUntilItIsBack) {
    ASSERT_TRUE(standin::Unregister());
    ChildProcess holder = StartHolder();
    for (const wchar_t* role : {L"a", L"b"}) ASSERT_EQ(Register(Credential(role), holder.Id()), 0u);
    holder.Kill();
    EXPECT_TRUE(WaitUntil([&] { return monitor->LeaseCount() == 0 && monitor->SignatureEntryCount() == 0; }));
    EXPECT_EQ(FileCount(), 2u);
    EXPECT_EQ(CheckIns(), 0u);
    ASSERT_TRUE(standin::Register());
    EXPECT_TRUE(WaitUntil([&] { return Settled() && CheckIns() == 2; }));
}

}  // namespace
}  // namespace testsupport
