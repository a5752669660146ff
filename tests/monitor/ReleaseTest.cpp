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
    // As ReleaseByExit, while the worker waits for `release`, which is set once all are queued.
    void ReleaseAfter(HANDLE release, const std::vector<CSharedId>& credentials) {
        ChildProcess holder = StartHolder();
        for (const CSharedId& credential : credentials) ASSERT_EQ(Register(credential, holder.Id()), 0u);
        holder.Kill();
        ASSERT_TRUE(WaitUntil([&] { return Waiting() == credentials.size(); }));
        ::SetEvent(release);
        EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    }
    // Released credentials that wait for check-in.
    size_t Waiting() {
        const std::vector<CredentialStatus> all = monitor->TakeStatusSnapshot().credentials;
        return std::count_if(all.begin(), all.end(), [](const CredentialStatus& c) {
            return c.state == CredentialStatus::State::WaitingForCheckIn;
        });
    }
    static size_t CheckIns() { return standin::JournalLines("Row ").size(); }
    static size_t Calls() { return standin::JournalLines("CheckIn ").size(); }
};

TEST_F(ReleaseTest, TransientResultsAreRetriedUntilAFinalOne) {
    standin::SetScript(L"CheckInResults", std::wstring(L"37,41,5,0"));
    ReleaseByExit({Credential(L"retried")});
    EXPECT_EQ(CheckIns(), 4u);
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

// Released while the worker is busy, five credentials go in one call; each row has its own
// outcome: a transient one is retried alone after one pause, a different user's is given up.
TEST_F(ReleaseTest, ABurstGoesInOneCallAndEachRowGetsItsOwnResult) {
    standin::SetScript(L"CheckInResults", std::wstring(L"0,37,42,0,0,0"));
    NS_Utils::UniqueHandle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    monitor->Collector().Queue([&] { ::WaitForSingleObject(release.get(), INFINITE); });
    ChildProcess holder = StartHolder();
    for (int i = 0; i < 5; ++i) ASSERT_EQ(Register(Credential(L"burst-" + std::to_wstring(i)), holder.Id()), 0u);
    holder.Kill();
    ASSERT_TRUE(WaitUntil([&] { return Waiting() == 5; }));
    ::SetEvent(release.get());
    EXPECT_TRUE(WaitUntil([&] { return Settled(); }));
    EXPECT_EQ(Calls(), 2u);
    EXPECT_EQ(CheckIns(), 6u);
    EXPECT_EQ(standin::JournalLines("Row cn=burst-1").size(), 2u) << "the 37 alone again";
    EXPECT_EQ(standin::JournalLines("Row cn=burst-2").size(), 1u) << "the 42 given up";
}

// An agent that answers one integer for several rows gets them again one per call, and single
// rows from then on.
TEST_F(ReleaseTest, AnAgentThatAnswersOneRowOnlyGetsSingleRows) {
    standin::SetScript(L"CheckInOutputCount", 1);
    for (int round = 0; round < 2; ++round) {
        NS_Utils::UniqueHandle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        monitor->Collector().Queue([&] { ::WaitForSingleObject(release.get(), INFINITE); });
        ReleaseAfter(release.get(), {Credential(L"pair-a"), Credential(L"pair-b")});
    }
    EXPECT_EQ(Calls(), 5u) << "two rows, then one and one, then one and one";
    EXPECT_EQ(CheckIns(), 6u);
}

// Rows of two identity servers that wait interleaved go in one call per server.
TEST_F(ReleaseTest, WaitingRowsGoInOneCallPerServer) {
    NS_Utils::UniqueHandle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    monitor->Collector().Queue([&] { ::WaitForSingleObject(release.get(), INFINITE); });
    std::vector<CSharedId> credentials;
    for (int i = 0; i < 6; ++i)
        credentials.push_back(Credential(L"mixed-" + std::to_wstring(i), L"acct", i % 2 ? kOtherUrl : kUrl));
    ReleaseAfter(release.get(), credentials);
    const std::vector<std::string> calls = standin::JournalLines("CheckIn ");
    ASSERT_EQ(calls.size(), 2u);
    for (const std::string& call : calls) EXPECT_NE(call.find(" rows=3 "), std::string::npos) << call;
}

// However the agent's server went away, a call it did not answer is no answer: the row goes
// again, with the agent's objects made anew.
TEST_F(ReleaseTest, EveryWayOfTheServerGoingAwayIsAskedAgain) {
    // Died, died without executing, call failed without executing, server stopping.
    standin::SetScript(L"CheckInHResults", std::wstring(L"0x80010007,0x80010012,0x800706BF,0x80080008,0"));
    ReleaseByExit({Credential(L"gone")});
    EXPECT_EQ(Calls(), 5u);
    EXPECT_EQ(CheckIns(), 1u);
}

// An agent that answers single rows only meets a disconnect on the first of three rows: the two
// that no call carried go again, each alone, like the one that met it; none is taken as answered.
TEST_F(ReleaseTest, RowsThatNoCallCarriedAreSentAgain) {
    standin::SetScript(L"CheckInOutputCount", 1);
    standin::SetScript(L"CheckInHResults", std::wstring(L"0,0x80010108,0"));
    NS_Utils::UniqueHandle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    monitor->Collector().Queue([&] { ::WaitForSingleObject(release.get(), INFINITE); });
    ReleaseAfter(release.get(), {Credential(L"drop-a"), Credential(L"drop-b"), Credential(L"drop-c")});
    for (const char* role : {"drop-a", "drop-b", "drop-c"})
        EXPECT_EQ(standin::JournalLines(std::string("Row cn=") + role).size(), 2u)
            << role << ": in the batch, then alone";
    EXPECT_EQ(Calls(), 5u);
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
